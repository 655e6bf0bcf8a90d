#ifndef VELMO_MEMORY_DETAIL_KXMEMORYSTORE_H_
#define VELMO_MEMORY_DETAIL_KXMEMORYSTORE_H_

// The state of "KXMemory": named values with their times, descriptions and histories,
// the declared events and micro events, the subscriptions, and the callers waiting for a
// change. One mutex guards it all, so that the order in which values are set is the
// order in which they enter every subscriber's queue.

#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "memory/detail/kxmemorydelivery.h"
#include "value/kxvalue.h"

namespace KX {
namespace detail {

// A wall-clock time: seconds and microseconds since the epoch.
struct KXMemoryTime {
  int seconds = 0;
  int microseconds = 0;
};

// One caller of getDataOnChange: receives the next value set under its name, or is told
// that the memory is exiting. Guarded by its own mutex, taken after the store's.
struct KXChangeWaiter {
  std::mutex mutex;
  std::condition_variable changed;
  bool done = false;
  bool aborted = false;  // the memory is exiting
  std::shared_ptr<const KXValue> value;
};

// Thread-safe. Methods that find no data under a name throw
// KXError("KXMemory", <method>, "Data \"<name>\" does not exist.").
class KXMemoryStore {
 public:
  // How many values (with their times) a name's history keeps.
  static constexpr std::size_t kHistoryLength = 32;

  // What setting a value declares on the way.
  enum class Declare { kNothing, kEvent, kMicroEvent };

  // Stores a copy of `value` under `name` with the current time, declares the event or
  // micro event when asked, wakes the waiters of that name and queues a notification to
  // each of its subscribers. Returns the subscribers whose delivery must be started.
  std::vector<std::shared_ptr<KXMemorySubscriber>> set(const std::string& name,
                                                       const KXValue& value, Declare declare);

  // `method` names the caller in errors.
  KXValue get(const std::string& name, const char* method) const;
  // Invalid for an unknown name.
  KXValue getOrInvalid(const std::string& name) const;
  // The address of the stored value: stable until the name is removed.
  KXValue* getPointer(const std::string& name, const char* method);
  // False when there was no such name.
  bool remove(const std::string& name);
  // Sorted names containing `filter` (every name for an empty filter).
  std::vector<std::string> names(const std::string& filter) const;
  std::string typeName(const std::string& name, const char* method) const;
  // [value, seconds, microseconds]
  KXValue timestamp(const std::string& name, const char* method) const;
  void setDescription(const std::string& name, const std::string& description, const char* method);
  // [name, type name, description]; ["<name>", "Invalid", ""] for an unknown name.
  KXValue describe(const std::string& name) const;
  // [[value, seconds, microseconds], ...], oldest first.
  KXValue history(const std::string& name, const char* method) const;

  // ---- Events
  // Declares `name` as an event; a non-empty `extractor` names the extractor that
  // raises it (an empty one keeps the extractor already recorded).
  void declareEvent(const std::string& name, const std::string& extractor);
  std::vector<std::string> events() const;
  std::vector<std::string> microEvents() const;
  // The events declared with that extractor, sorted.
  std::vector<std::string> eventsOfExtractor(const std::string& extractor) const;
  // Removes the micro event, its value and its subscriptions (their queues dropped).
  void removeMicroEvent(const std::string& name);

  // ---- Subscriptions
  // One subscription per module and name: subscribing again replaces message, callback
  // and kind. Declares the event or micro event when needed.
  void subscribe(const std::string& name, const std::string& module, KXSubscriptionKind kind,
                 const std::string& message, const std::string& callback);
  // False when the module has no subscription of that kind to that name.
  bool unsubscribe(const std::string& name, const std::string& module, KXSubscriptionKind kind);
  // Sorted module names.
  std::vector<std::string> subscribers(const std::string& name) const;
  void unsubscribeModule(const std::string& module);
  // Removes `subscriber` if it is still the subscription of its module to its name.
  void drop(const std::shared_ptr<KXMemorySubscriber>& subscriber);

  // ---- Waiting for a change
  // Registers a waiter for the next value of `name`; throws the exiting error when the
  // store is closed.
  std::shared_ptr<KXChangeWaiter> addWaiter(const std::string& name);
  // Forgets a waiter that stopped waiting (timeout).
  void removeWaiter(const std::string& name, const std::shared_ptr<KXChangeWaiter>& waiter);

  // Exit: wakes every waiter (aborted), refuses new ones, drops every queued
  // notification and every subscriber's queue.
  void close();

 private:
  struct Stamped {
    std::shared_ptr<const KXValue> value;
    KXMemoryTime time;
  };
  struct Entry {
    // Never null; replaced in place by a set so that its address stays valid.
    std::shared_ptr<KXValue> value = std::make_shared<KXValue>();
    KXMemoryTime time;
    std::string description;
    std::deque<Stamped> history;
  };
  using Subscribers = std::map<std::string, std::shared_ptr<KXMemorySubscriber>>;

  const Entry& find(const std::string& name, const char* method) const;
  // The waiters of `name`, taken out of the table; mutex_ held.
  std::vector<std::shared_ptr<KXChangeWaiter>> takeWaiters(const std::string& name);

  mutable std::mutex mutex_;
  // Guarded by mutex_
  std::map<std::string, Entry> data_;
  std::map<std::string, std::string> events_;  // event name -> extractor ("" for none)
  std::set<std::string> microEvents_;
  std::map<std::string, Subscribers> subscriptions_;  // name -> module -> subscriber
  std::multimap<std::string, std::shared_ptr<KXChangeWaiter>> waiters_;
  bool closed_ = false;
};

}  // namespace detail
}  // namespace KX

#endif  // VELMO_MEMORY_DETAIL_KXMEMORYSTORE_H_
