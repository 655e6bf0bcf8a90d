#ifndef VELMO_BEHAVIOR_KXBEHAVIOR_H_
#define VELMO_BEHAVIOR_KXBEHAVIOR_H_

#include <memory>
#include <string>
#include <vector>

#include "module/kxmodulecore.h"
#include "value/kxvalue.h"

namespace KX {

class KXBroker;
class KXTimeline;

// One box of a graphical behaviour: a module with named inputs, outputs and parameters,
// optional resources, an enabled flag and optionally a timeline. Boxes talk through the
// module "KXMemory": stimulating output `o` of box `B` raises the micro event "B__o";
// a box whose input is linked to that event is notified by "KXMemory" (its method
// "_dataChanged") and runs its input method "onInput_<input>__" with the value, through
// the broker's proxy to itself. A derived box binds its input methods in its constructor.
//
// Create one with createModule<KXBehavior or derived>(broker, name). A box starts
// unloaded and enabled; the host drives loading (setLoaded) and stopping (setBoxStopped).
//
// Thread-safety: every member may be called from any thread. The box's own lock guards
// its inputs, outputs, parameters and subscriptions and is never held while the box
// calls out (KXMemory, the resource manager, its parent box, input and output methods),
// so input methods may use the box freely. The timeline handles have a lock of their own.
class KXBehavior : public KXModule {
 public:
  KXBehavior(const std::shared_ptr<KXBroker>& broker, const std::string& name);
  ~KXBehavior() override;

  // ---- Inputs and outputs
  // Makes the entry for `name` with no linked event; answers true.
  bool addInput(const std::string& name);
  // `isBang` tells a trigger without a meaningful value from an output that carries data.
  void addOutput(const std::string& name, const bool& isBang);
  std::vector<std::string> getInputNames();
  std::vector<std::string> getOutputNames();
  // Links input `inputName` to the micro event `eventName` (another box's output) and
  // subscribes the box to it. An unknown input is a KXError.
  void connectInput(const std::string& inputName, const std::string& eventName);
  // Raises the micro event "<box>__<name>" ("<box>" for an empty name) with `value`.
  void stimulateIO(const std::string& name, const KXValue& value);
  // Subscribes the box to the micro event `eventName` (once, however often asked).
  void _connectOutput(const std::string& eventName);
  // The notification "KXMemory" sends: runs every input (then every output link) linked
  // to `eventName` with `value`. Deprecated name of _dataChanged.
  void dataChanged(const std::string& eventName, const KXValue& value, const std::string& message);
  void _dataChanged(const std::string& eventName, const KXValue& value, const std::string& message);
  // Deprecated: forwards output `outputName`, whenever stimulated, to method `methodName`
  // of module `moduleName`. An unknown output is a KXError.
  void addOutputLink(const std::string& outputName, const std::string& moduleName,
                     const std::string& methodName);
  // Deprecated: drops that forward (an unknown one does nothing).
  void removeOutputLink(const std::string& outputName, const std::string& moduleName,
                        const std::string& methodName);

  // ---- Parameters
  // Sets (or replaces) parameter `name`; `inheritedFromParent` makes the box read the
  // parent box's value of that name instead of its own.
  void addParameter(const std::string& name, const KXValue& value, const bool& inheritedFromParent);
  KXValue getParameter(const std::string& name);
  std::vector<std::string> getParametersList();
  void setParameter(const std::string& name, const KXValue& value);
  // Deprecated: an Array of [name, value] pairs, each set with setParameter.
  void setParameters(const KXValue& pairs);
  // Deprecated: makes the registered box `parentName` this box's parent (and its
  // timeline the parent timeline). A parent that descends from this box is a KXError.
  void setParentFromName(const std::string& parentName);
  // Null when no parent is set or the parent is gone.
  std::shared_ptr<KXBehavior> parentBox();

  // ---- State
  void setEnabled(const bool& enabled);
  bool isEnabled();
  bool _isEnabled();
  // Parameters are meant to be read only while loaded (see getParameter).
  void setLoaded(bool loaded);
  bool isLoaded();
  // The stop flag ends waitResourceFree; setting it wakes a wait at once.
  void setBoxStopped(bool stopped);
  bool isBoxStopped();

  // ---- Resources (through "KXResourceManager", owned under the box's name)
  // The resources the box uses and how long waitResources waits for them (0: no limit).
  void setResources(const std::vector<std::string>& resourceNames, const int& timeoutSeconds);
  // Takes the box's resources (all at once), waiting as setResources said.
  void waitResources();
  // As waitResources; a holder in the way is asked through its callback, and
  // `callbackName` is the box method called when someone else wants the box's resources.
  void waitResourcesCallback(const std::string& callbackName);
  void releaseResource();
  // Returns once the box's resources are free, asking every 500 ms; throws when the box
  // is stopped meanwhile.
  void waitResourceFree();
  // Deprecated: whether every named resource is free.
  bool isResourceFree(const std::vector<std::string>& resourceNames);
  // Deprecated: takes `resourceNames`, with `callbackName` as the box's conflict
  // callback, waiting at most `timeoutSeconds` (0: no limit).
  void waitFor(const std::vector<std::string>& resourceNames, const std::string& callbackName,
               int timeoutSeconds);

  // ---- Timelines
  bool hasTimeline();
  std::shared_ptr<KXTimeline> getTimeline();
  void setTimeline(const std::shared_ptr<KXTimeline>& timeline);
  bool hasParentTimeline();
  // Null once the parent's timeline is gone: the box never keeps it alive.
  std::shared_ptr<KXTimeline> getParentTimeline();
  void setParentTimeline(const std::shared_ptr<KXTimeline>& timeline);

 private:
  struct Impl;

  void describeAndBind();
  // Calls input and output methods for one notification (the box's lock not held).
  void notify(const std::string& eventName, const KXValue& value);
  // Removes the micro events named after the box from "KXMemory".
  void removeOwnEvents();
  // The value of `name`, from the parent for an inherited or missing parameter;
  // `found` tells whether any box had it. Logs nothing.
  KXValue lookupParameter(const std::string& name, bool& found, bool& fromParent);

  std::unique_ptr<Impl> impl_;
};

}  // namespace KX

#endif  // VELMO_BEHAVIOR_KXBEHAVIOR_H_
