#ifndef VELMO_THREAD_KXCONDITIONMANAGER_H_
#define VELMO_THREAD_KXCONDITIONMANAGER_H_

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "thread/kxmutex.h"

namespace KX {

// A registry of named conditions that lets one task wait until another announces an
// event ("remote", "firstBeat", "heartBeat"). A trigger wakes the threads waiting at
// that moment only: it is not remembered for later waiters. Thread-safe.
class KXConditionManager {
 public:
  KXConditionManager();
  virtual ~KXConditionManager();
  KXConditionManager(const KXConditionManager&) = delete;
  KXConditionManager& operator=(const KXConditionManager&) = delete;

  // Gives `name` a new condition and mutex, replacing earlier ones (threads waiting on
  // those are no longer reached by trigger). An empty name is ignored.
  void add(const std::string& name);
  // Blocks until `name` is triggered; returns at once for a name never added.
  void wait(const std::string& name);
  // Wakes every thread waiting on `name`; does nothing for a name never added.
  void trigger(const std::string& name);

 private:
  struct Entry {
    std::shared_ptr<KXCondition> condition;
    std::shared_ptr<KXMutex> mutex;
    // Guarded by *mutex: counts triggers, so that a waiter tells a trigger from a
    // spurious wake-up.
    std::shared_ptr<std::uint64_t> triggers;
  };

  // Copies the entry of `name` into `entry`; false for a name never added.
  bool find(const std::string& name, Entry& entry);

  // Guards entries_ (not the entries' own state).
  std::mutex mutex_;
  std::map<std::string, Entry> entries_;
};

}  // namespace KX

#endif  // VELMO_THREAD_KXCONDITIONMANAGER_H_
