#ifndef VELMO_PROXIES_DETAIL_KXRESOURCEMANAGERSIGNATURES_H_
#define VELMO_PROXIES_DETAIL_KXRESOURCEMANAGERSIGNATURES_H_

// The methods of "KXResourceManager" as KXResourceManagerProxy calls them, in the order of
// its local table.

#include <string>
#include <vector>

#include "proxies/detail/kxtypedmodulecall.h"
#include "value/kxvalue.h"

namespace KX {
namespace detail {
namespace resourcemanagersig {

inline constexpr KXProxySignature<bool, std::vector<std::string>> kAreResourcesFree{
    "areResourcesFree", 0};
inline constexpr KXProxySignature<bool, std::vector<std::string>, std::string> kAreResourcesOwnedBy{
    "areResourcesOwnedBy", 1};
inline constexpr KXProxySignature<void, std::string, std::string> kCreateResource{"createResource",
                                                                                  2};
inline constexpr KXProxySignature<void, std::vector<std::string>, std::string> kCreateResourcesList{
    "createResourcesList", 3};
inline constexpr KXProxySignature<void, std::string, bool> kDeleteResource{"deleteResource", 4};
inline constexpr KXProxySignature<void, std::string, bool> kEnableStateResource{
    "enableStateResource", 5};
inline constexpr KXProxySignature<void> kExit{"exit", 6};
inline constexpr KXProxySignature<std::string> kGetBrokerName{"getBrokerName", 7};
inline constexpr KXProxySignature<KXValue, std::string> kGetMethodHelp{"getMethodHelp", 8};
inline constexpr KXProxySignature<std::vector<std::string>> kGetMethodList{"getMethodList", 9};
inline constexpr KXProxySignature<KXValue> kGetModuleHelp{"getModuleHelp", 10};
inline constexpr KXProxySignature<std::string, std::string> kGetUsage{"getUsage", 11};
inline constexpr KXProxySignature<bool, std::string, std::string> kIsInGroup{"isInGroup", 12};
inline constexpr KXProxySignature<bool, std::string> kIsResourceFree{"isResourceFree", 13};
inline constexpr KXProxySignature<bool, int> kIsRunning{"isRunning", 14};
inline constexpr KXProxySignature<KXValue> kOwnersGet{"ownersGet", 15};
inline constexpr KXProxySignature<bool> kPing{"ping", 16};
inline constexpr KXProxySignature<void, std::string, std::string> kReleaseResource{
    "releaseResource", 17};
inline constexpr KXProxySignature<void, std::vector<std::string>, std::string> kReleaseResources{
    "releaseResources", 18};
inline constexpr KXProxySignature<void, int> kStop{"stop", 19};
inline constexpr KXProxySignature<std::string> kVersion{"version", 20};
inline constexpr KXProxySignature<bool, int, int> kWait{"wait", 21};
inline constexpr KXProxySignature<void, std::vector<std::string>, std::string, std::string, int,
                                  std::vector<std::string>>
    kWaitForOptionalResourcesTree{"waitForOptionalResourcesTree", 22};
inline constexpr KXProxySignature<void, std::string, std::string, std::string, int>
    kWaitForResource{"waitForResource", 23};
inline constexpr KXProxySignature<void, std::vector<std::string>, std::string, std::string, int>
    kWaitForResourcesTree{"waitForResourcesTree", 24};

}  // namespace resourcemanagersig
}  // namespace detail
}  // namespace KX

#endif  // VELMO_PROXIES_DETAIL_KXRESOURCEMANAGERSIGNATURES_H_
