#ifndef VELMO_BROKER_DETAIL_KXCHILDBROKERS_H_
#define VELMO_BROKER_DETAIL_KXCHILDBROKERS_H_

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "module/kxmoduleinfo.h"
#include "thread/kxmutex.h"

namespace KX {

class KXBrokerProxy;

// The child brokers that registered with a broker, with their heartbeat bookkeeping.
// Thread-safe (one reader/writer lock); no network call is made under it: the searches
// that ask children work on a snapshot of their proxies, which stay alive as long as the
// snapshot does, so a child removed meanwhile is never seen half-removed.
class KXChildBrokers {
 public:
  using Clock = std::chrono::steady_clock;

  // A child that has sent no heartbeat for longer than this is missing a beat.
  static constexpr std::chrono::seconds kHeartBeatSilence{10};
  // Missed checks reported "is not responding..." before the child counts as lost.
  static constexpr int kMaxMissedChecks = 5;

  struct Child {
    KXBrokerInfo info;
    std::shared_ptr<KXBrokerProxy> proxy;
  };

  KXChildBrokers();

  // Stores the child under its name; returns the record it replaces, if any.
  std::shared_ptr<Child> add(const KXBrokerInfo& info, std::shared_ptr<KXBrokerProxy> proxy);
  // Removes the child of that name, when given `only` if the name still holds that record
  // (a child found silent may have registered again meanwhile); null when none was removed.
  std::shared_ptr<Child> remove(const std::string& name, const Child* only = nullptr);
  // Removes every child, for a broker that shuts down.
  std::vector<std::shared_ptr<Child>> clear();

  // Marks the child as beating, now. False for an unknown name.
  bool heartBeat(const std::string& name);

  struct CheckResult {
    std::vector<std::string> notResponding;  // silent, still within the allowance
    // Silent past the allowance: to be dropped, by record.
    std::vector<std::shared_ptr<Child>> lost;
  };
  // Counts a missed check for every beating child silent for longer than
  // kHeartBeatSilence, and clears the count of the others.
  CheckResult check(Clock::time_point now);

  std::vector<std::shared_ptr<Child>> snapshot() const;
  std::vector<KXBrokerInfo> infos() const;
  bool empty() const;

 private:
  struct Record {
    std::shared_ptr<Child> child;
    bool beating = false;
    Clock::time_point lastBeat;
    int missed = 0;
  };

  const std::shared_ptr<KXMutexRW> lock_;
  std::map<std::string, Record> children_ VELMO_GUARDED_BY(*lock_);
};

}  // namespace KX

#endif  // VELMO_BROKER_DETAIL_KXCHILDBROKERS_H_
