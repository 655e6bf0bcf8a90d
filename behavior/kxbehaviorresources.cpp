#include <chrono>
#include <mutex>
#include <string>
#include <vector>

#include "behavior/detail/kxbehaviorimpl.h"
#include "behavior/kxbehavior.h"
#include "log/log.h"
#include "value/kxerror.h"

namespace KX {

using detail::kBehaviorModule;
using detail::kBoxCategory;

namespace {

constexpr std::chrono::milliseconds kResourcePollPeriod{500};

}  // namespace

void KXBehavior::setResources(const std::vector<std::string>& resourceNames,
                              const int& timeoutSeconds) {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->resourceNames = resourceNames;
  impl_->resourceTimeoutSeconds = timeoutSeconds;
}

void KXBehavior::waitResources() { waitResourcesCallback(""); }

void KXBehavior::waitResourcesCallback(const std::string& callbackName) {
  std::vector<std::string> names;
  int timeoutSeconds = 0;
  {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    names = impl_->resourceNames;
    timeoutSeconds = impl_->resourceTimeoutSeconds;
  }
  if (names.empty()) return;
  impl_->resources("waitResources")
      .waitForResourcesTree(names, getName(), callbackName, timeoutSeconds);
}

void KXBehavior::releaseResource() {
  std::vector<std::string> names;
  {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    names = impl_->resourceNames;
  }
  if (names.empty()) return;
  impl_->resources("releaseResource").releaseResources(names, getName());
}

void KXBehavior::waitResourceFree() {
  std::vector<std::string> names;
  {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    names = impl_->resourceNames;
  }
  if (!impl_->resourceManager || names.empty()) return;
  bool free = impl_->resourceManager->areResourcesFree(names);
  bool stopped = false;
  while (!free) {
    {
      std::unique_lock<std::mutex> lock(impl_->mutex);
      // Sleeps the poll period, cut short when the box is stopped meanwhile.
      stopped =
          impl_->stopChanged.wait_for(lock, kResourcePollPeriod, [this] { return impl_->stopped; });
    }
    if (stopped) break;
    free = impl_->resourceManager->areResourcesFree(names);
  }
  if (stopped || isBoxStopped()) {
    KX_THROW(kBehaviorModule, "waitResourceFree", "Box stopped during wait");
  }
}

bool KXBehavior::isResourceFree(const std::vector<std::string>& resourceNames) {
  TU_LOG(tu::log::warning, kBoxCategory, "KX::KXBehavior::isResourceFree")
      << getName()
      << "::isResourceFree is deprecated. You should rather use Ordavia standard Resources."
      << std::endl;
  return impl_->resources("isResourceFree").areResourcesFree(resourceNames);
}

void KXBehavior::waitFor(const std::vector<std::string>& resourceNames,
                         const std::string& callbackName, int timeoutSeconds) {
  TU_LOG(tu::log::warning, kBoxCategory, "KX::KXBehavior::waitFor")
      << getName()
      << "::waitFor is deprecated. You should rather use onStart input to wait for resources."
      << std::endl;
  impl_->resources("waitFor").waitForResourcesTree(resourceNames, getName(), callbackName,
                                                   timeoutSeconds);
}

}  // namespace KX
