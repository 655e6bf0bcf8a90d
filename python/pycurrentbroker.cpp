#include "python/pycurrentbroker.h"

#include <mutex>
#include <vector>

#include "broker/kxbroker.h"
#include "log/processwide.h"

namespace KX {
namespace python {
namespace {

struct BrokerRecords {
  std::mutex mutex;
  std::weak_ptr<KXBroker> current;               // guarded by mutex
  std::vector<std::weak_ptr<KXBroker>> created;  // guarded by mutex; in creation order
};

BrokerRecords& records() {
  // Framework threads may still read it while the process exits.
  static tu::ProcessWide<BrokerRecords> instance;
  return instance.get();
}

}  // namespace

std::shared_ptr<KXBroker> currentBroker() {
  BrokerRecords& r = records();
  std::lock_guard<std::mutex> lock(r.mutex);
  return r.current.lock();
}

void setCurrentBroker(const std::shared_ptr<KXBroker>& broker) {
  BrokerRecords& r = records();
  std::lock_guard<std::mutex> lock(r.mutex);
  r.current = broker;
}

void rememberCreatedBroker(const std::shared_ptr<KXBroker>& broker) {
  BrokerRecords& r = records();
  std::lock_guard<std::mutex> lock(r.mutex);
  // Brokers already gone leave no trace behind.
  std::vector<std::weak_ptr<KXBroker>> live;
  for (const std::weak_ptr<KXBroker>& created : r.created) {
    if (!created.expired()) live.push_back(created);
  }
  live.push_back(broker);
  r.created.swap(live);
}

void shutdownCreatedBrokers() {
  std::vector<std::weak_ptr<KXBroker>> created;
  {
    BrokerRecords& r = records();
    std::lock_guard<std::mutex> lock(r.mutex);
    created.swap(r.created);
  }
  // Outside the lock: a shutdown waits for calls that may read the current broker.
  for (auto it = created.rbegin(); it != created.rend(); ++it) {
    if (const std::shared_ptr<KXBroker> broker = it->lock()) broker->shutdown();
  }
}

}  // namespace python
}  // namespace KX
