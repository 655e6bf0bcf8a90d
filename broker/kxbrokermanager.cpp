#include "broker/kxbrokermanager.h"

#include <algorithm>
#include <mutex>
#include <utility>

#include "broker/detail/kxbrokermanagerinstance.h"
#include "broker/kxbroker.h"
#include "log/processwide.h"
#include "thread/kxmutex.h"
#include "value/kxerror.h"

namespace KX {

namespace {

// Where the process-wide manager lives. Deliberately never destroyed, so that brokers
// shutting down at process exit (in any order of static destruction) can still look it
// up; the manager itself is released by `processExit` below.
struct InstanceSlot {
  std::mutex mutex;
  // Guarded by mutex.
  std::shared_ptr<KXBrokerManager> manager;
  bool released = false;  // set at process exit: no manager is kept after that
};

InstanceSlot& instanceSlot() {
  static tu::ProcessWide<InstanceSlot> slot;
  return slot.get();
}

// Shuts down the brokers still listed when the library is unloaded at process exit.
struct ProcessExitRelease {
  ProcessExitRelease() = default;
  ~ProcessExitRelease() {
    std::shared_ptr<KXBrokerManager> manager;
    {
      InstanceSlot& slot = instanceSlot();
      std::lock_guard<std::mutex> guard(slot.mutex);
      slot.released = true;
      manager = std::move(slot.manager);
    }
    // Destroyed outside the slot's lock: the brokers' shutdown looks the slot up.
  }
  ProcessExitRelease(const ProcessExitRelease&) = delete;
  ProcessExitRelease& operator=(const ProcessExitRelease&) = delete;
};

const ProcessExitRelease processExit;

}  // namespace

namespace detail {

std::shared_ptr<KXBrokerManager> existingBrokerManager() {
  InstanceSlot& slot = instanceSlot();
  std::lock_guard<std::mutex> guard(slot.mutex);
  return slot.manager;
}

}  // namespace detail

struct KXBrokerManager::Impl {
  // Constant after construction.
  const std::shared_ptr<KXMutexRW> lock = KXMutexRW::create();
  // Serialises the creation of the fallback broker (done outside `lock`: creating a
  // broker adds it to the manager).
  std::mutex emptyBrokerCreation;

  // Guarded by lock. Insertion order, no duplicates.
  std::vector<std::shared_ptr<KXBroker>> brokers VELMO_GUARDED_BY(*lock);
  std::shared_ptr<KXBroker> emptyBroker VELMO_GUARDED_BY(*lock);
};

std::shared_ptr<KXBrokerManager> KXBrokerManager::getInstance() {
  InstanceSlot& slot = instanceSlot();
  std::lock_guard<std::mutex> guard(slot.mutex);
  if (slot.released) {
    // Code still running at process exit gets a manager of its own, released (with its
    // brokers) when that code lets go of it.
    return std::make_shared<KXBrokerManager>();
  }
  if (!slot.manager) {
    slot.manager = std::make_shared<KXBrokerManager>();
  }
  return slot.manager;
}

std::shared_ptr<KXBrokerManager> KXBrokerManager::adoptInstance(
    const std::shared_ptr<KXBrokerManager>& manager) {
  if (!manager) {
    return getInstance();
  }
  std::shared_ptr<KXBrokerManager> previous;
  {
    InstanceSlot& slot = instanceSlot();
    std::lock_guard<std::mutex> guard(slot.mutex);
    if (slot.manager != manager) {
      previous = std::exchange(slot.manager, manager);
    }
  }
  // When this was the last reference, the previous manager shuts its brokers down here,
  // outside the slot's lock.
  previous.reset();
  return manager;
}

KXBrokerManager::KXBrokerManager() : impl_(std::make_unique<Impl>()) {}

KXBrokerManager::~KXBrokerManager() {
  std::vector<std::shared_ptr<KXBroker>> brokers;
  std::shared_ptr<KXBroker> emptyBroker;
  {
    KXScopedWriteLock guard(impl_->lock);
    brokers.swap(impl_->brokers);
    emptyBroker = std::move(impl_->emptyBroker);
  }
  for (const auto& broker : brokers) {
    broker->shutdown();
  }
}

void KXBrokerManager::addBroker(const std::shared_ptr<KXBroker>& broker) {
  if (!broker) {
    return;
  }
  KXScopedWriteLock guard(impl_->lock);
  if (std::find(impl_->brokers.begin(), impl_->brokers.end(), broker) == impl_->brokers.end()) {
    impl_->brokers.push_back(broker);
  }
}

void KXBrokerManager::removeBroker(const std::shared_ptr<KXBroker>& broker) {
  bool removed = false;
  {
    KXScopedWriteLock guard(impl_->lock);
    auto end = std::remove(impl_->brokers.begin(), impl_->brokers.end(), broker);
    removed = end != impl_->brokers.end();
    impl_->brokers.erase(end, impl_->brokers.end());
  }
  // Outside the lock: the broker's shutdown removes it from the manager again.
  if (removed) {
    broker->shutdown();
  }
}

void KXBrokerManager::removeBrokerWithoutShutdown(const std::shared_ptr<KXBroker>& broker) {
  KXScopedWriteLock guard(impl_->lock);
  impl_->brokers.erase(std::remove(impl_->brokers.begin(), impl_->brokers.end(), broker),
                       impl_->brokers.end());
}

std::shared_ptr<KXBroker> KXBrokerManager::getRandomBroker() {
  KXScopedReadLock guard(impl_->lock);
  if (impl_->brokers.empty()) {
    KX_THROW("KXBrokerManager", "getRandomBroker",
             "There is no current broker defined in BrokerManager.");
  }
  return impl_->brokers.front();
}

std::shared_ptr<KXBroker> KXBrokerManager::getBrokerByEndpoint(const std::string& endpoint) {
  {
    KXScopedReadLock guard(impl_->lock);
    for (const auto& broker : impl_->brokers) {
      if (endpoint.find(":" + std::to_string(broker->getPort())) != std::string::npos) {
        return broker;
      }
    }
  }
  return getRandomBroker();
}

std::shared_ptr<KXBroker> KXBrokerManager::getEmptyBroker() {
  std::lock_guard<std::mutex> creation(impl_->emptyBrokerCreation);
  {
    KXScopedReadLock guard(impl_->lock);
    // A fallback broker that was shut down is of no use any more: make a new one.
    if (impl_->emptyBroker && !impl_->emptyBroker->isShuttingDown()) {
      return impl_->emptyBroker;
    }
  }
  std::shared_ptr<KXBroker> broker =
      KXBroker::createBroker("emptyBroker", "127.0.0.1", 0, "", 0, 0, "", true);
  KXScopedWriteLock guard(impl_->lock);
  impl_->emptyBroker = broker;
  return broker;
}

std::vector<std::shared_ptr<KXBroker>> KXBrokerManager::getBrokers() {
  KXScopedReadLock guard(impl_->lock);
  return impl_->brokers;
}

}  // namespace KX
