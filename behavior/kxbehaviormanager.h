#ifndef VELMO_BEHAVIOR_KXBEHAVIORMANAGER_H_
#define VELMO_BEHAVIOR_KXBEHAVIORMANAGER_H_

#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "module/kxmodulecore.h"

namespace KX {

class KXBehavior;
class KXBroker;
class KXSimpleTimeline;

// The behaviour host of one broker, the module "KXBehaviorManager": it loads and unloads
// the boxes registered in its broker, links boxes output to input, and gives boxes
// timelines. Its methods are published, so C++, Python (a proxy to "KXBehaviorManager")
// and other brokers drive it alike. Boxes are named as modules; a box to load, link
// into or give a timeline must be a KXBehavior of this broker, while the box whose
// output is linked may live anywhere in the tree.
//
// Loading a box clears its stop flag, marks it loaded and calls its method "onLoad" when
// it has one (a failing onLoad leaves it unloaded and reaches the caller). Unloading sets
// the stop flag (which ends its waits), calls "onUnload" when present (a failure is
// logged), releases its resources and marks it unloaded. Both calls go through the
// broker, so a Python box's methods run in Python.
//
// The host owns the timelines it gives: removeTimeline drops them, after which the box
// and any Python `timeline` on it see none.
//
// Thread-safety: every member may be called from any thread; the manager's lock is never
// held while a box runs.
class KXBehaviorManager : public KXModule {
 public:
  KXBehaviorManager(const std::shared_ptr<KXBroker>& broker, const std::string& name);
  ~KXBehaviorManager() override;

  void loadBehavior(const std::string& boxName);
  void unloadBehavior(const std::string& boxName);
  // The loaded boxes, sorted.
  std::vector<std::string> getLoadedBehaviors();

  // Links output `outputName` of box `fromBox` to input `inputName` of box `toBox`: the
  // input's list of events gets "<fromBox>__<outputName>" and `toBox` subscribes to it.
  // Linking twice links once.
  void linkBehaviors(const std::string& fromBox, const std::string& outputName,
                     const std::string& toBox, const std::string& inputName);

  // Gives box `boxName` a new timeline of `size` frames at `fps` (replacing its
  // previous one); boxes whose parent it is reach it when they name their parent.
  void setTimeline(const std::string& boxName, const int& size, const int& fps);
  void addTimelineLabel(const std::string& boxName, const std::string& label, const int& frame);
  void removeTimeline(const std::string& boxName);
  // Where the box's timeline is now.
  int getTimelineFrame(const std::string& boxName);
  // The timeline the host gave the box (null without one).
  std::shared_ptr<KXSimpleTimeline> timelineOf(const std::string& boxName);

 private:
  void describeAndBind();
  // The box of this broker named `boxName`, or KXError("KXBehaviorManager", method, ...).
  std::shared_ptr<KXBehavior> box(const char* method, const std::string& boxName);
  std::shared_ptr<KXSimpleTimeline> existingTimeline(const char* method,
                                                     const std::string& boxName);
  // Calls the box's method `method` without arguments, when it has one.
  void callIfPresent(KXBehavior& box, const std::string& method);

  // Serialises setTimeline and removeTimeline, so that a box and the table agree on its
  // timeline; taken before mutex_, and only around setting a box's timeline.
  std::mutex timelineChange_;
  std::mutex mutex_;
  std::set<std::string> loaded_;
  std::map<std::string, std::shared_ptr<KXSimpleTimeline>> timelines_;
};

// Makes `broker` a behaviour host: registers a KXBehaviorManager named
// "KXBehaviorManager" unless the broker already has a module of that name.
void addBehaviorManager(const std::shared_ptr<KXBroker>& broker);

}  // namespace KX

#endif  // VELMO_BEHAVIOR_KXBEHAVIORMANAGER_H_
