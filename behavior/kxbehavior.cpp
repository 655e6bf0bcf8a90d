#include "behavior/kxbehavior.h"

#include <mutex>
#include <shared_mutex>
#include <string>
#include <vector>

#include "behavior/detail/kxbehaviorimpl.h"
#include "behavior/kxtimeline.h"
#include "broker/kxbroker.h"
#include "log/log.h"
#include "value/kxerror.h"

namespace KX {

using detail::kBehaviorModule;
using detail::kBoxCategory;

KXBehavior::KXBehavior(const std::shared_ptr<KXBroker>& broker, const std::string& name)
    : KXModule(broker, name), impl_(std::make_unique<Impl>()) {
  try {
    impl_->memory = std::make_unique<KXMemoryProxy>(broker->getProxy("KXMemory"));
  } catch (const KXError&) {
    // A box without "KXMemory" still works as a module; linking and stimulating fail later.
    TU_LOG(tu::log::error, kBoxCategory, "KX::KXBehavior::KXBehavior")
        << name << " Cannot create proxy to KXMemory !" << std::endl;
  }
  try {
    impl_->resourceManager = std::make_unique<KXResourceManagerProxy>(broker);
  } catch (const KXError&) {
    // Without a resource manager the box has no resources: waiting returns at once.
  }
  describeAndBind();
}

KXBehavior::~KXBehavior() {
  try {
    releaseResource();
  } catch (const KXError& error) {
    TU_LOG(tu::log::warning, kBoxCategory, "KX::KXBehavior::~KXBehavior")
        << getName() << ": cannot release resources e=" << error.what() << std::endl;
  }
  removeOwnEvents();
}

std::shared_ptr<KXProxy> KXBehavior::Impl::proxyToSelf(KXModuleCore& box) {
  try {
    return box.getParentBroker()->getProxy(box.getName());
  } catch (const KXError&) {
    KX_THROW(kBehaviorModule, "dataChanged",
             "This behavior has no proxy to itself, unable to use notification from "
             "KXMemory...");
  }
}

KXResourceManagerProxy& KXBehavior::Impl::resources(const std::string& method) {
  if (!resourceManager) {
    KX_THROW(kBehaviorModule, method,
             "Cannot use resources, as there is no proxy to KXResourceManager");
  }
  return *resourceManager;
}

// ---------------------------------------------------------------- state

void KXBehavior::setEnabled(const bool& enabled) {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->enabled = enabled;
}

bool KXBehavior::isEnabled() {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->enabled;
}

bool KXBehavior::_isEnabled() { return isEnabled(); }

void KXBehavior::setLoaded(bool loaded) {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->loaded = loaded;
}

bool KXBehavior::isLoaded() {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->loaded;
}

void KXBehavior::setBoxStopped(bool stopped) {
  {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->stopped = stopped;
  }
  impl_->stopChanged.notify_all();
}

bool KXBehavior::isBoxStopped() {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->stopped;
}

// ---------------------------------------------------------------- timelines

bool KXBehavior::hasTimeline() { return getTimeline() != nullptr; }

std::shared_ptr<KXTimeline> KXBehavior::getTimeline() {
  std::shared_lock<std::shared_mutex> lock(impl_->timelineMutex);
  return impl_->timeline;
}

void KXBehavior::setTimeline(const std::shared_ptr<KXTimeline>& timeline) {
  std::shared_ptr<KXTimeline> previous;  // released outside the lock
  std::unique_lock<std::shared_mutex> lock(impl_->timelineMutex);
  previous = std::move(impl_->timeline);
  impl_->timeline = timeline;
}

bool KXBehavior::hasParentTimeline() { return getParentTimeline() != nullptr; }

std::shared_ptr<KXTimeline> KXBehavior::getParentTimeline() {
  std::shared_lock<std::shared_mutex> lock(impl_->timelineMutex);
  return impl_->parentTimeline.lock();
}

void KXBehavior::setParentTimeline(const std::shared_ptr<KXTimeline>& timeline) {
  std::unique_lock<std::shared_mutex> lock(impl_->timelineMutex);
  impl_->parentTimeline = timeline;
}

}  // namespace KX
