#include "proxies/kxmemoryproxy.h"

#include "broker/kxbroker.h"
#include "broker/kxbrokermanager.h"
#include "module/kxproxy.h"
#include "proxies/detail/kxmemorysignatures.h"
#include "proxies/kxmemoryproxyimpl.h"
#include "value/kxerror.h"

namespace KX {

namespace sig = detail::memorysig;

namespace {

constexpr const char* kModuleName = "KXMemory";
constexpr int kDefaultPort = 9559;

std::shared_ptr<KXMemoryProxyImpl> implThroughCurrentBroker() {
  try {
    const std::shared_ptr<KXBroker> broker = KXBrokerManager::getInstance()->getRandomBroker();
    return std::make_shared<KXMemoryProxyImpl>(std::make_shared<KXProxy>(broker, kModuleName));
  } catch (const KXError& failure) {
    return std::make_shared<KXMemoryProxyImpl>(failure);
  }
}

std::shared_ptr<KXMemoryProxyImpl> implThrough(const std::shared_ptr<KXProxy>& proxy) {
  KX_ASSERT(kModuleName, proxy != nullptr);
  return std::make_shared<KXMemoryProxyImpl>(proxy);
}

}  // namespace

KXMemoryProxy::KXMemoryProxy() : impl_(implThroughCurrentBroker()), post(impl_) {}

KXMemoryProxy::KXMemoryProxy(const std::shared_ptr<KXBroker>& broker)
    : KXMemoryProxy(std::make_shared<KXProxy>(broker, kModuleName)) {}

KXMemoryProxy::KXMemoryProxy(const std::shared_ptr<KXProxy>& proxy)
    : impl_(implThrough(proxy)), post(impl_) {}

KXMemoryProxy::KXMemoryProxy(const std::string& ip, int port)
    : KXMemoryProxy(std::make_shared<KXProxy>(KXBrokerManager::getInstance()->getEmptyBroker(),
                                              kModuleName, ip, port)) {}

KXMemoryProxy::KXMemoryProxy(const std::string& ip) : KXMemoryProxy(ip, kDefaultPort) {}

std::shared_ptr<KXProxy> KXMemoryProxy::getGenericProxy() const {
  return impl_->calls().getProxy();
}

void KXMemoryProxy::declareEvent(const std::string& name) {
  impl_->calls().call(sig::kDeclareEvent, name);
}

void KXMemoryProxy::declareEvent(const std::string& name, const std::string& extractorName) {
  impl_->calls().call(sig::kDeclareEventWithExtractor, name, extractorName);
}

void KXMemoryProxy::exit() { impl_->calls().call(sig::kExit); }

std::string KXMemoryProxy::getBrokerName() { return impl_->calls().call(sig::kGetBrokerName); }

KXValue KXMemoryProxy::getData(const std::string& name) {
  return impl_->calls().call(sig::kGetData, name);
}

KXValue KXMemoryProxy::getData(const std::string& name, const int& deprecatedParameter) {
  return impl_->calls().call(sig::kGetDataDeprecated, name, deprecatedParameter);
}

std::vector<std::string> KXMemoryProxy::getDataList(const std::string& filter) {
  return impl_->calls().call(sig::kGetDataList, filter);
}

std::vector<std::string> KXMemoryProxy::getDataListName() {
  return impl_->calls().call(sig::kGetDataListName);
}

KXValue KXMemoryProxy::getDataOnChange(const std::string& name, const int& timeoutMs) {
  return impl_->calls().call(sig::kGetDataOnChange, name, timeoutMs);
}

void* KXMemoryProxy::getDataPtr(const std::string& name) {
  return impl_->calls().callLocalOnly(sig::kGetDataPtr, name);
}

KXValue KXMemoryProxy::getDescriptionList(const std::vector<std::string>& names) {
  return impl_->calls().call(sig::kGetDescriptionList, names);
}

KXValue KXMemoryProxy::getEventHistory(const std::string& name) {
  return impl_->calls().call(sig::kGetEventHistory, name);
}

std::vector<std::string> KXMemoryProxy::getEventList() {
  return impl_->calls().call(sig::kGetEventList);
}

std::vector<std::string> KXMemoryProxy::getExtractorEvent(const std::string& extractorName) {
  return impl_->calls().call(sig::kGetExtractorEvent, extractorName);
}

KXValue KXMemoryProxy::getListData(const KXValue& names) {
  return impl_->calls().call(sig::kGetListData, names);
}

KXValue KXMemoryProxy::getMethodHelp(const std::string& methodName) {
  return impl_->calls().call(sig::kGetMethodHelp, methodName);
}

std::vector<std::string> KXMemoryProxy::getMethodList() {
  return impl_->calls().call(sig::kGetMethodList);
}

std::vector<std::string> KXMemoryProxy::getMicroEventList() {
  return impl_->calls().call(sig::kGetMicroEventList);
}

KXValue KXMemoryProxy::getModuleHelp() { return impl_->calls().call(sig::kGetModuleHelp); }

std::vector<std::string> KXMemoryProxy::getSubscribers(const std::string& name) {
  return impl_->calls().call(sig::kGetSubscribers, name);
}

KXValue KXMemoryProxy::getTimestamp(const std::string& name) {
  return impl_->calls().call(sig::kGetTimestamp, name);
}

std::string KXMemoryProxy::getType(const std::string& name) {
  return impl_->calls().call(sig::kGetType, name);
}

std::string KXMemoryProxy::getUsage(const std::string& methodName) {
  return impl_->calls().call(sig::kGetUsage, methodName);
}

void KXMemoryProxy::insertData(const std::string& name, const KXValue& value) {
  impl_->calls().call(sig::kInsertData, name, value);
}

void KXMemoryProxy::insertListData(const KXValue& list) {
  impl_->calls().call(sig::kInsertListData, list);
}

bool KXMemoryProxy::isRunning(const int& id) { return impl_->calls().call(sig::kIsRunning, id); }

bool KXMemoryProxy::ping() { return impl_->calls().call(sig::kPing); }

void KXMemoryProxy::raiseEvent(const std::string& name, const KXValue& value) {
  impl_->calls().call(sig::kRaiseEvent, name, value);
}

void KXMemoryProxy::raiseMicroEvent(const std::string& name, const KXValue& value) {
  impl_->calls().call(sig::kRaiseMicroEvent, name, value);
}

void KXMemoryProxy::removeData(const std::string& name) {
  impl_->calls().call(sig::kRemoveData, name);
}

void KXMemoryProxy::removeMicroEvent(const std::string& name) {
  impl_->calls().call(sig::kRemoveMicroEvent, name);
}

void KXMemoryProxy::setDescription(const std::string& name, const std::string& description) {
  impl_->calls().call(sig::kSetDescription, name, description);
}

void KXMemoryProxy::stop(const int& id) { impl_->calls().call(sig::kStop, id); }

void KXMemoryProxy::subscribeToEvent(const std::string& name, const std::string& module,
                                     const std::string& callback) {
  impl_->calls().call(sig::kSubscribeToEvent, name, module, callback);
}

void KXMemoryProxy::subscribeToEvent(const std::string& name, const std::string& module,
                                     const std::string& message, const std::string& callback) {
  impl_->calls().call(sig::kSubscribeToEventWithMessage, name, module, message, callback);
}

void KXMemoryProxy::subscribeToMicroEvent(const std::string& name, const std::string& module,
                                          const std::string& message, const std::string& callback) {
  impl_->calls().call(sig::kSubscribeToMicroEvent, name, module, message, callback);
}

void KXMemoryProxy::unregisterModuleReference(const std::string& module) {
  impl_->calls().call(sig::kUnregisterModuleReference, module);
}

void KXMemoryProxy::unsubscribeToEvent(const std::string& name, const std::string& module) {
  impl_->calls().call(sig::kUnsubscribeToEvent, name, module);
}

void KXMemoryProxy::unsubscribeToMicroEvent(const std::string& name, const std::string& module) {
  impl_->calls().call(sig::kUnsubscribeToMicroEvent, name, module);
}

std::string KXMemoryProxy::version() { return impl_->calls().call(sig::kVersion); }

bool KXMemoryProxy::wait(const int& id, const int& timeoutMs) {
  return impl_->calls().call(sig::kWait, id, timeoutMs);
}
}  // namespace KX
