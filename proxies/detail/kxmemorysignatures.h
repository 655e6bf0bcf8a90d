#ifndef VELMO_PROXIES_DETAIL_KXMEMORYSIGNATURES_H_
#define VELMO_PROXIES_DETAIL_KXMEMORYSIGNATURES_H_

// The methods of "KXMemory" as KXMemoryProxy calls them, in the order of its local table.
// Names published with two forms appear once per form.

#include <string>
#include <vector>

#include "proxies/detail/kxtypedmodulecall.h"
#include "value/kxvalue.h"

namespace KX {
namespace detail {
namespace memorysig {

inline constexpr KXProxySignature<void, std::string> kDeclareEvent{"declareEvent", 0};
inline constexpr KXProxySignature<void, std::string, std::string> kDeclareEventWithExtractor{
    "declareEvent", 1};
inline constexpr KXProxySignature<void> kExit{"exit", 2};
inline constexpr KXProxySignature<std::string> kGetBrokerName{"getBrokerName", 3};
inline constexpr KXProxySignature<KXValue, std::string> kGetData{"getData", 4};
inline constexpr KXProxySignature<KXValue, std::string, int> kGetDataDeprecated{"getData", 5};
inline constexpr KXProxySignature<std::vector<std::string>, std::string> kGetDataList{"getDataList",
                                                                                      6};
inline constexpr KXProxySignature<std::vector<std::string>> kGetDataListName{"getDataListName", 7};
inline constexpr KXProxySignature<KXValue, std::string, int> kGetDataOnChange{"getDataOnChange", 8};
inline constexpr KXProxySignature<void*, std::string> kGetDataPtr{"getDataPtr", 9};
inline constexpr KXProxySignature<KXValue, std::vector<std::string>> kGetDescriptionList{
    "getDescriptionList", 10};
inline constexpr KXProxySignature<KXValue, std::string> kGetEventHistory{"getEventHistory", 11};
inline constexpr KXProxySignature<std::vector<std::string>> kGetEventList{"getEventList", 12};
inline constexpr KXProxySignature<std::vector<std::string>, std::string> kGetExtractorEvent{
    "getExtractorEvent", 13};
inline constexpr KXProxySignature<KXValue, KXValue> kGetListData{"getListData", 14};
inline constexpr KXProxySignature<KXValue, std::string> kGetMethodHelp{"getMethodHelp", 15};
inline constexpr KXProxySignature<std::vector<std::string>> kGetMethodList{"getMethodList", 16};
inline constexpr KXProxySignature<std::vector<std::string>> kGetMicroEventList{"getMicroEventList",
                                                                               17};
inline constexpr KXProxySignature<KXValue> kGetModuleHelp{"getModuleHelp", 18};
inline constexpr KXProxySignature<std::vector<std::string>, std::string> kGetSubscribers{
    "getSubscribers", 19};
inline constexpr KXProxySignature<KXValue, std::string> kGetTimestamp{"getTimestamp", 20};
inline constexpr KXProxySignature<std::string, std::string> kGetType{"getType", 21};
inline constexpr KXProxySignature<std::string, std::string> kGetUsage{"getUsage", 22};
inline constexpr KXProxySignature<void, std::string, KXValue> kInsertData{"insertData", 23};
inline constexpr KXProxySignature<void, KXValue> kInsertListData{"insertListData", 24};
inline constexpr KXProxySignature<bool, int> kIsRunning{"isRunning", 25};
inline constexpr KXProxySignature<bool> kPing{"ping", 26};
inline constexpr KXProxySignature<void, std::string, KXValue> kRaiseEvent{"raiseEvent", 27};
inline constexpr KXProxySignature<void, std::string, KXValue> kRaiseMicroEvent{"raiseMicroEvent",
                                                                               28};
inline constexpr KXProxySignature<void, std::string> kRemoveData{"removeData", 29};
inline constexpr KXProxySignature<void, std::string> kRemoveMicroEvent{"removeMicroEvent", 30};
inline constexpr KXProxySignature<void, std::string, std::string> kSetDescription{"setDescription",
                                                                                  31};
inline constexpr KXProxySignature<void, int> kStop{"stop", 32};
inline constexpr KXProxySignature<void, std::string, std::string, std::string> kSubscribeToEvent{
    "subscribeToEvent", 33};
inline constexpr KXProxySignature<void, std::string, std::string, std::string, std::string>
    kSubscribeToEventWithMessage{"subscribeToEvent", 34};
inline constexpr KXProxySignature<void, std::string, std::string, std::string, std::string>
    kSubscribeToMicroEvent{"subscribeToMicroEvent", 35};
inline constexpr KXProxySignature<void, std::string> kUnregisterModuleReference{
    "unregisterModuleReference", 36};
inline constexpr KXProxySignature<void, std::string, std::string> kUnsubscribeToEvent{
    "unsubscribeToEvent", 37};
inline constexpr KXProxySignature<void, std::string, std::string> kUnsubscribeToMicroEvent{
    "unsubscribeToMicroEvent", 38};
inline constexpr KXProxySignature<std::string> kVersion{"version", 39};
inline constexpr KXProxySignature<bool, int, int> kWait{"wait", 40};

}  // namespace memorysig
}  // namespace detail
}  // namespace KX

#endif  // VELMO_PROXIES_DETAIL_KXMEMORYSIGNATURES_H_
