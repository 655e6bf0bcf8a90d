#include "proxies/kxmemoryproxyimpl.h"

#include <utility>

#include "proxies/detail/kxmemorysignatures.h"

namespace KX {

namespace sig = detail::memorysig;

KXMemoryProxyImpl::KXMemoryProxyImpl(std::shared_ptr<KXProxy> proxy)
    : calls_(detail::KXTypedModuleCall::create<
             sig::kDeclareEvent, sig::kDeclareEventWithExtractor, sig::kExit, sig::kGetBrokerName,
             sig::kGetData, sig::kGetDataDeprecated, sig::kGetDataList, sig::kGetDataListName,
             sig::kGetDataOnChange, sig::kGetDataPtr, sig::kGetDescriptionList,
             sig::kGetEventHistory, sig::kGetEventList, sig::kGetExtractorEvent, sig::kGetListData,
             sig::kGetMethodHelp, sig::kGetMethodList, sig::kGetMicroEventList, sig::kGetModuleHelp,
             sig::kGetSubscribers, sig::kGetTimestamp, sig::kGetType, sig::kGetUsage,
             sig::kInsertData, sig::kInsertListData, sig::kIsRunning, sig::kPing, sig::kRaiseEvent,
             sig::kRaiseMicroEvent, sig::kRemoveData, sig::kRemoveMicroEvent, sig::kSetDescription,
             sig::kStop, sig::kSubscribeToEvent, sig::kSubscribeToEventWithMessage,
             sig::kSubscribeToMicroEvent, sig::kUnregisterModuleReference, sig::kUnsubscribeToEvent,
             sig::kUnsubscribeToMicroEvent, sig::kVersion, sig::kWait>(std::move(proxy),
                                                                       "KXMemory")) {}

KXMemoryProxyImpl::KXMemoryProxyImpl(const KXError& failure) : failure_(failure) {}

const detail::KXTypedModuleCall& KXMemoryProxyImpl::calls() const {
  if (failure_) throw *failure_;
  return *calls_;
}

}  // namespace KX
