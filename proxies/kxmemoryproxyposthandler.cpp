#include "proxies/kxmemoryproxyposthandler.h"

#include <utility>

#include "proxies/detail/kxmemorysignatures.h"
#include "proxies/kxmemoryproxyimpl.h"

namespace KX {

namespace sig = detail::memorysig;

KXMemoryProxyPostHandler::KXMemoryProxyPostHandler(std::shared_ptr<KXMemoryProxyImpl> impl)
    : impl_(std::move(impl)) {}

int KXMemoryProxyPostHandler::declareEvent(const std::string& name) {
  return impl_->calls().post(sig::kDeclareEvent, name);
}

int KXMemoryProxyPostHandler::declareEvent(const std::string& name,
                                           const std::string& extractorName) {
  return impl_->calls().post(sig::kDeclareEventWithExtractor, name, extractorName);
}

int KXMemoryProxyPostHandler::exit() { return impl_->calls().post(sig::kExit); }

int KXMemoryProxyPostHandler::getBrokerName() { return impl_->calls().post(sig::kGetBrokerName); }

int KXMemoryProxyPostHandler::getData(const std::string& name) {
  return impl_->calls().post(sig::kGetData, name);
}

int KXMemoryProxyPostHandler::getData(const std::string& name, const int& deprecatedParameter) {
  return impl_->calls().post(sig::kGetDataDeprecated, name, deprecatedParameter);
}

int KXMemoryProxyPostHandler::getDataList(const std::string& filter) {
  return impl_->calls().post(sig::kGetDataList, filter);
}

int KXMemoryProxyPostHandler::getDataListName() {
  return impl_->calls().post(sig::kGetDataListName);
}

int KXMemoryProxyPostHandler::getDataOnChange(const std::string& name, const int& timeoutMs) {
  return impl_->calls().post(sig::kGetDataOnChange, name, timeoutMs);
}

int KXMemoryProxyPostHandler::getDescriptionList(const std::vector<std::string>& names) {
  return impl_->calls().post(sig::kGetDescriptionList, names);
}

int KXMemoryProxyPostHandler::getEventHistory(const std::string& name) {
  return impl_->calls().post(sig::kGetEventHistory, name);
}

int KXMemoryProxyPostHandler::getEventList() { return impl_->calls().post(sig::kGetEventList); }

int KXMemoryProxyPostHandler::getExtractorEvent(const std::string& extractorName) {
  return impl_->calls().post(sig::kGetExtractorEvent, extractorName);
}

int KXMemoryProxyPostHandler::getListData(const KXValue& names) {
  return impl_->calls().post(sig::kGetListData, names);
}

int KXMemoryProxyPostHandler::getMethodHelp(const std::string& methodName) {
  return impl_->calls().post(sig::kGetMethodHelp, methodName);
}

int KXMemoryProxyPostHandler::getMethodList() { return impl_->calls().post(sig::kGetMethodList); }

int KXMemoryProxyPostHandler::getMicroEventList() {
  return impl_->calls().post(sig::kGetMicroEventList);
}

int KXMemoryProxyPostHandler::getModuleHelp() { return impl_->calls().post(sig::kGetModuleHelp); }

int KXMemoryProxyPostHandler::getSubscribers(const std::string& name) {
  return impl_->calls().post(sig::kGetSubscribers, name);
}

int KXMemoryProxyPostHandler::getTimestamp(const std::string& name) {
  return impl_->calls().post(sig::kGetTimestamp, name);
}

int KXMemoryProxyPostHandler::getType(const std::string& name) {
  return impl_->calls().post(sig::kGetType, name);
}

int KXMemoryProxyPostHandler::getUsage(const std::string& methodName) {
  return impl_->calls().post(sig::kGetUsage, methodName);
}

int KXMemoryProxyPostHandler::insertData(const std::string& name, const KXValue& value) {
  return impl_->calls().post(sig::kInsertData, name, value);
}

int KXMemoryProxyPostHandler::insertListData(const KXValue& list) {
  return impl_->calls().post(sig::kInsertListData, list);
}

int KXMemoryProxyPostHandler::isRunning(const int& id) {
  return impl_->calls().post(sig::kIsRunning, id);
}

int KXMemoryProxyPostHandler::ping() { return impl_->calls().post(sig::kPing); }

int KXMemoryProxyPostHandler::raiseEvent(const std::string& name, const KXValue& value) {
  return impl_->calls().post(sig::kRaiseEvent, name, value);
}

int KXMemoryProxyPostHandler::raiseMicroEvent(const std::string& name, const KXValue& value) {
  return impl_->calls().post(sig::kRaiseMicroEvent, name, value);
}

int KXMemoryProxyPostHandler::removeData(const std::string& name) {
  return impl_->calls().post(sig::kRemoveData, name);
}

int KXMemoryProxyPostHandler::removeMicroEvent(const std::string& name) {
  return impl_->calls().post(sig::kRemoveMicroEvent, name);
}

int KXMemoryProxyPostHandler::setDescription(const std::string& name,
                                             const std::string& description) {
  return impl_->calls().post(sig::kSetDescription, name, description);
}

int KXMemoryProxyPostHandler::stop(const int& id) { return impl_->calls().post(sig::kStop, id); }

int KXMemoryProxyPostHandler::subscribeToEvent(const std::string& name, const std::string& module,
                                               const std::string& callback) {
  return impl_->calls().post(sig::kSubscribeToEvent, name, module, callback);
}

int KXMemoryProxyPostHandler::subscribeToEvent(const std::string& name, const std::string& module,
                                               const std::string& message,
                                               const std::string& callback) {
  return impl_->calls().post(sig::kSubscribeToEventWithMessage, name, module, message, callback);
}

int KXMemoryProxyPostHandler::subscribeToMicroEvent(const std::string& name,
                                                    const std::string& module,
                                                    const std::string& message,
                                                    const std::string& callback) {
  return impl_->calls().post(sig::kSubscribeToMicroEvent, name, module, message, callback);
}

int KXMemoryProxyPostHandler::unregisterModuleReference(const std::string& module) {
  return impl_->calls().post(sig::kUnregisterModuleReference, module);
}

int KXMemoryProxyPostHandler::unsubscribeToEvent(const std::string& name,
                                                 const std::string& module) {
  return impl_->calls().post(sig::kUnsubscribeToEvent, name, module);
}

int KXMemoryProxyPostHandler::unsubscribeToMicroEvent(const std::string& name,
                                                      const std::string& module) {
  return impl_->calls().post(sig::kUnsubscribeToMicroEvent, name, module);
}

int KXMemoryProxyPostHandler::version() { return impl_->calls().post(sig::kVersion); }

int KXMemoryProxyPostHandler::wait(const int& id, const int& timeoutMs) {
  return impl_->calls().post(sig::kWait, id, timeoutMs);
}
}  // namespace KX
