#ifndef VELMO_MEMORY_KXMEMORY_H_
#define VELMO_MEMORY_KXMEMORY_H_

#include <memory>
#include <string>
#include <vector>

#include "module/kxmodulecore.h"
#include "value/kxvalue.h"

namespace KX {

class KXBroker;

// The module "KXMemory": programs share state and talk through it. A value is stored
// under a name (insertData, raiseEvent, raiseMicroEvent); others read it, wait for its
// next change, or subscribe to be called back whenever it is set.
//
// Each name holds a value, the time it was last set, a description text and its last
// 32 values with their times. Events and micro events are names in two lists; raising
// one declares it when needed, stores the value and notifies.
//
// Notification: whenever a name's value is set, every module subscribed to that name
// has its callback method called with (name, value, message) through the broker's proxy
// to that module. Deliveries run on the broker's thread pool, never on the caller's
// thread; each subscription has its own queue and at most one delivery in flight, so a
// subscriber receives its notifications in the order the values were set, and a slow or
// failing subscriber delays no one else. A failed delivery is logged (warning, category
// "core.memory"); a subscriber whose module is no longer found in the broker tree is then
// dropped. Queued deliveries use the subscription's message and callback as they are
// when the delivery runs (subscribing again replaces them, the queue keeps its order).
//
// Published names with two signatures (getData, declareEvent, insertData,
// subscribeToEvent) are one table entry each whose optional parameter selects the form;
// the argument count decides (subscribeToEvent with three arguments is (name, module,
// callback), with four (name, module, message, callback)).
//
// Thread-safety: every method may be called concurrently from any thread. The blocking
// getDataOnChange holds no lock of the module while it waits; exit ends every wait with a
// KXError and drops the deliveries not yet under way.
class KXMemory : public KXModule {
 public:
  KXMemory(const std::shared_ptr<KXBroker>& broker, const std::string& name);
  ~KXMemory() override;

  // Wakes every getDataOnChange with a KXError, drops queued deliveries (none starts
  // afterwards), then exits as every module does.
  void exit() override;

  // ---- Data
  void insertData(const std::string& name, const KXValue& value);
  // `list` is an Array of [name, value] pairs, checked whole before anything is stored.
  void insertListData(const KXValue& list);
  // KXError("KXMemory", "getData", "Data \"<name>\" does not exist.") for an unknown name.
  KXValue getData(const std::string& name);
  // An Array of String names in, one value per name out (Invalid for an unknown name).
  KXValue getListData(const KXValue& names);
  // Waits for the next value set under `name` (which need not exist yet) and returns
  // it. `timeoutMs` 0 waits without limit; a timeout or exit ends the wait with a KXError.
  KXValue getDataOnChange(const std::string& name, const int& timeoutMs);
  // The address of the stored value, for callers in this process only; valid until the
  // name is removed (a later set changes the value in place). Reading it while another
  // thread sets the name is the caller's race.
  void* getDataPtr(const std::string& name);
  // Removing an unknown name does nothing. Subscriptions to the name stay.
  void removeData(const std::string& name);
  // Names containing `filter`, sorted.
  std::vector<std::string> getDataList(const std::string& filter);
  std::vector<std::string> getDataListName();
  // "Invalid", "Array", "Bool", "Int", "Float", "String", "Object" or "Binary".
  std::string getType(const std::string& name);
  // [value, seconds, microseconds] of the last set.
  KXValue getTimestamp(const std::string& name);
  void setDescription(const std::string& name, const std::string& description);
  // [[name, type name, description], ...] in the order given; every name, sorted, for
  // an empty list. An unknown name reads [name, "Invalid", ""].
  KXValue getDescriptionList(const std::vector<std::string>& names);
  // [[value, seconds, microseconds], ...], oldest first, at most 32.
  KXValue getEventHistory(const std::string& name);

  // ---- Events
  void declareEvent(const std::string& name);
  void declareEvent(const std::string& name, const std::string& extractorName);
  void raiseEvent(const std::string& name, const KXValue& value);
  void raiseMicroEvent(const std::string& name, const KXValue& value);
  // Removes the micro event, its value and its subscriptions; an unknown name does
  // nothing.
  void removeMicroEvent(const std::string& name);
  std::vector<std::string> getEventList();
  std::vector<std::string> getMicroEventList();
  // The events declared with that extractor, sorted.
  std::vector<std::string> getExtractorEvent(const std::string& extractorName);

  // ---- Subscriptions (one per module and name; subscribing again replaces it)
  void subscribeToEvent(const std::string& name, const std::string& module,
                        const std::string& callback);
  void subscribeToEvent(const std::string& name, const std::string& module,
                        const std::string& message, const std::string& callback);
  void subscribeToMicroEvent(const std::string& name, const std::string& module,
                             const std::string& message, const std::string& callback);
  // An unknown subscription is a KXError.
  void unsubscribeToEvent(const std::string& name, const std::string& module);
  void unsubscribeToMicroEvent(const std::string& name, const std::string& module);
  // The modules subscribed to `name`, sorted.
  std::vector<std::string> getSubscribers(const std::string& name);
  // Drops every subscription of `module`.
  void unregisterModuleReference(const std::string& module);

 private:
  void describeAndBind();

  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace KX

#endif  // VELMO_MEMORY_KXMEMORY_H_
