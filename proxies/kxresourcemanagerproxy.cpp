#include "proxies/kxresourcemanagerproxy.h"

#include <utility>

#include "broker/kxbroker.h"
#include "module/kxproxy.h"
#include "proxies/detail/kxresourcemanagersignatures.h"
#include "proxies/detail/kxtypedmodulecall.h"

namespace KX {

namespace sig = detail::resourcemanagersig;

// The calls to "KXResourceManager" through one generic proxy.
class KXResourceManagerProxyImpl {
 public:
  explicit KXResourceManagerProxyImpl(std::shared_ptr<KXProxy> proxy)
      : calls_(detail::KXTypedModuleCall::create<
               sig::kAreResourcesFree, sig::kAreResourcesOwnedBy, sig::kCreateResource,
               sig::kCreateResourcesList, sig::kDeleteResource, sig::kEnableStateResource,
               sig::kExit, sig::kGetBrokerName, sig::kGetMethodHelp, sig::kGetMethodList,
               sig::kGetModuleHelp, sig::kGetUsage, sig::kIsInGroup, sig::kIsResourceFree,
               sig::kIsRunning, sig::kOwnersGet, sig::kPing, sig::kReleaseResource,
               sig::kReleaseResources, sig::kStop, sig::kVersion, sig::kWait,
               sig::kWaitForOptionalResourcesTree, sig::kWaitForResource,
               sig::kWaitForResourcesTree>(std::move(proxy), kModuleName)) {}

  const detail::KXTypedModuleCall& calls() const { return *calls_; }

  static constexpr const char* kModuleName = "KXResourceManager";

 private:
  const std::shared_ptr<const detail::KXTypedModuleCall> calls_;
};

KXResourceManagerProxy::KXResourceManagerProxy(const std::shared_ptr<KXBroker>& broker)
    : impl_(std::make_shared<KXResourceManagerProxyImpl>(
          std::make_shared<KXProxy>(broker, KXResourceManagerProxyImpl::kModuleName))) {}

bool KXResourceManagerProxy::areResourcesFree(const std::vector<std::string>& resourceNames) {
  return impl_->calls().call(sig::kAreResourcesFree, resourceNames);
}

bool KXResourceManagerProxy::areResourcesOwnedBy(const std::vector<std::string>& resourceNames,
                                                 const std::string& owner) {
  return impl_->calls().call(sig::kAreResourcesOwnedBy, resourceNames, owner);
}

void KXResourceManagerProxy::createResource(const std::string& resourceName,
                                            const std::string& parentName) {
  impl_->calls().call(sig::kCreateResource, resourceName, parentName);
}

void KXResourceManagerProxy::createResourcesList(const std::vector<std::string>& resourceNames,
                                                 const std::string& parentName) {
  impl_->calls().call(sig::kCreateResourcesList, resourceNames, parentName);
}

void KXResourceManagerProxy::deleteResource(const std::string& resourceName,
                                            const bool& deleteChildren) {
  impl_->calls().call(sig::kDeleteResource, resourceName, deleteChildren);
}

void KXResourceManagerProxy::enableStateResource(const std::string& resourceName,
                                                 const bool& enabled) {
  impl_->calls().call(sig::kEnableStateResource, resourceName, enabled);
}

void KXResourceManagerProxy::exit() { impl_->calls().call(sig::kExit); }

std::string KXResourceManagerProxy::getBrokerName() {
  return impl_->calls().call(sig::kGetBrokerName);
}

KXValue KXResourceManagerProxy::getMethodHelp(const std::string& methodName) {
  return impl_->calls().call(sig::kGetMethodHelp, methodName);
}

std::vector<std::string> KXResourceManagerProxy::getMethodList() {
  return impl_->calls().call(sig::kGetMethodList);
}

KXValue KXResourceManagerProxy::getModuleHelp() { return impl_->calls().call(sig::kGetModuleHelp); }

std::string KXResourceManagerProxy::getUsage(const std::string& methodName) {
  return impl_->calls().call(sig::kGetUsage, methodName);
}

bool KXResourceManagerProxy::isInGroup(const std::string& resourceName,
                                       const std::string& groupName) {
  return impl_->calls().call(sig::kIsInGroup, resourceName, groupName);
}

bool KXResourceManagerProxy::isResourceFree(const std::string& resourceName) {
  return impl_->calls().call(sig::kIsResourceFree, resourceName);
}

bool KXResourceManagerProxy::isRunning(const int& id) {
  return impl_->calls().call(sig::kIsRunning, id);
}

KXValue KXResourceManagerProxy::ownersGet() { return impl_->calls().call(sig::kOwnersGet); }

bool KXResourceManagerProxy::ping() { return impl_->calls().call(sig::kPing); }

void KXResourceManagerProxy::releaseResource(const std::string& resourceName,
                                             const std::string& owner) {
  impl_->calls().call(sig::kReleaseResource, resourceName, owner);
}

void KXResourceManagerProxy::releaseResources(const std::vector<std::string>& resourceNames,
                                              const std::string& owner) {
  impl_->calls().call(sig::kReleaseResources, resourceNames, owner);
}

void KXResourceManagerProxy::stop(const int& id) { impl_->calls().call(sig::kStop, id); }

std::string KXResourceManagerProxy::version() { return impl_->calls().call(sig::kVersion); }

bool KXResourceManagerProxy::wait(const int& id, const int& timeoutMs) {
  return impl_->calls().call(sig::kWait, id, timeoutMs);
}

void KXResourceManagerProxy::waitForOptionalResourcesTree(
    const std::vector<std::string>& resourceNames, const std::string& owner,
    const std::string& callbackName, const int& timeoutSeconds,
    const std::vector<std::string>& optionalResourceNames) {
  impl_->calls().call(sig::kWaitForOptionalResourcesTree, resourceNames, owner, callbackName,
                      timeoutSeconds, optionalResourceNames);
}

void KXResourceManagerProxy::waitForResource(const std::string& resourceName,
                                             const std::string& owner,
                                             const std::string& callbackName,
                                             const int& timeoutSeconds) {
  impl_->calls().call(sig::kWaitForResource, resourceName, owner, callbackName, timeoutSeconds);
}

void KXResourceManagerProxy::waitForResourcesTree(const std::vector<std::string>& resourceNames,
                                                  const std::string& owner,
                                                  const std::string& callbackName,
                                                  const int& timeoutSeconds) {
  impl_->calls().call(sig::kWaitForResourcesTree, resourceNames, owner, callbackName,
                      timeoutSeconds);
}
}  // namespace KX
