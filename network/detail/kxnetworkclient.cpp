// The client side of the broker protocol: the operations this broker sends to others.
#include <iostream>
#include <variant>

#include "log/log.h"
#include "network/detail/kxconnection.h"
#include "network/detail/kxnetwork.h"
#include "value/kxerror.h"

namespace KX {

namespace {

constexpr char kCategory[] = "core.common.network";

template <typename T>
const T* firstItem(const BrokerResponse& response) {
  return response.items.empty() ? nullptr : std::get_if<T>(&response.items[0]);
}

template <typename T>
std::vector<T> allItems(const BrokerResponse& response) {
  std::vector<T> items;
  items.reserve(response.items.size());
  for (const auto& item : response.items) {
    if (const T* typed = std::get_if<T>(&item)) {
      items.push_back(*typed);
    }
  }
  return items;
}

// Sends a broker operation (no module call) and raises KXError("KXNetwork", method, <the
// fault>) when it fails.
BrokerResponse ask(KXConnection& connection, const char* method, BrokerRequest request) {
  BrokerResponse response = connection.exchange(request);
  if (response.fault) {
    KX_THROW("KXNetwork", method,
             response.fault->string +
                 (response.fault->detail.empty() ? "" : " (" + response.fault->detail + ")"));
  }
  return response;
}

// A module call's fault as the caller sees it: the module's own error when the fault
// names the module, else the transport's.
[[noreturn]] void throwCallFault(const BrokerFault& fault, const std::string& module,
                                 const std::string& method, const char* operation) {
  if (fault.detail == module) {
    throw KXError(module, method, fault.string, __FILE__, __LINE__);
  }
  KX_THROW("KXNetwork", operation,
           "Error calling remote module method " + module + "::" + method + ": " + fault.string +
               " (" + fault.detail + ")");
}

}  // namespace

KXValue KXNetwork::callMethod(const int& connection, const std::string& method,
                              const KXValue& param) {
  std::shared_ptr<KXConnection> target = findConnection(connection, "callMethod");
  const std::string& module = target->module().name;
  BrokerResponse response = target->call(BrokerOperation::callVelmo, method, param);
  if (response.fault) {
    throwCallFault(*response.fault, module, method, "callMethod");
  }
  if (KXValue* result =
          response.items.empty() ? nullptr : std::get_if<KXValue>(&response.items[0])) {
    return std::move(*result);
  }
  return KXValue();
}

int KXNetwork::pCallMethod(const int& connection, const std::string& method, const KXValue& param) {
  std::shared_ptr<KXConnection> target = findConnection(connection, "pCallMethod");
  const std::string& module = target->module().name;
  const BrokerResponse response = target->call(BrokerOperation::callVelmo2, method, param);
  if (response.fault) {
    throwCallFault(*response.fault, module, method, "pCallMethod");
  }
  const KXValue* id = firstItem<KXValue>(response);
  if (id == nullptr || id->getType() != KXValue::TypeInt) {
    TU_LOG(tu::log::error, kCategory, "KX::KXNetwork::pCallMethod")
        << "The return value mismatched with the communication protocol, check your return "
           "value."
        << std::endl;
    return 0;
  }
  return static_cast<int>(*id);
}

int KXNetwork::exploreToGetModuleByName(int connection, const std::string& name, bool searchUp,
                                        bool searchDown, const std::string& excludedBroker,
                                        bool loadLib, KXModuleInfo& info) {
  std::shared_ptr<KXConnection> target = findConnection(connection, "exploreToGetModuleByName");
  const BrokerResponse response =
      target->exchange(BrokerRequest{BrokerOperation::exploreToGetModuleByName,
                                     {name, searchUp, searchDown, excludedBroker, loadLib}});
  const KXModuleInfo* found = firstItem<KXModuleInfo>(response);
  if (response.fault || found == nullptr || found->name.empty()) {
    return -1;
  }
  info = *found;
  // A broker that listens on every interface reports 0.0.0.0: it is reached where this
  // connection reaches it.
  if (info.ip == "0.0.0.0") {
    const std::string& endpoint = target->endpoint();
    const std::size_t hostStart = endpoint.find("://");
    const std::size_t from = hostStart == std::string::npos ? 0 : hostStart + 3;
    info.ip = endpoint.substr(from, endpoint.rfind(':') - from);
  }
  return 0;
}

KXModuleInfo KXNetwork::getModuleByName(int connection, const std::string& name) {
  std::shared_ptr<KXConnection> target = findConnection(connection, "getModuleByName");
  const BrokerResponse response =
      target->exchange(BrokerRequest{BrokerOperation::getModuleByName, {name}});
  const KXModuleInfo* found = firstItem<KXModuleInfo>(response);
  if (response.fault || found == nullptr) {
    KX_THROW("KXNetwork", "getModuleByName",
             "failed to get module " + name + " from " + target->endpoint() +
                 (response.fault ? ": " + response.fault->string : ""));
  }
  return *found;
}

KXModuleInfo KXNetwork::getInfo(int connection, const std::string& name) {
  std::shared_ptr<KXConnection> target = findConnection(connection, "getInfo");
  const BrokerResponse response =
      ask(*target, "getInfo", BrokerRequest{BrokerOperation::getInfo, {name}});
  const KXModuleInfo* found = firstItem<KXModuleInfo>(response);
  return found ? *found : KXModuleInfo();
}

KXModuleInfo KXNetwork::getBrokerInfo(int connection) {
  std::shared_ptr<KXConnection> target = findConnection(connection, "getBrokerInfo");
  const BrokerResponse response =
      target->exchange(BrokerRequest{BrokerOperation::getBrokerInfo, {}});
  const KXModuleInfo* found = firstItem<KXModuleInfo>(response);
  if (response.fault || found == nullptr) {
    TU_LOG(tu::log::error, kCategory, "KX::KXNetwork::getBrokerInfo")
        << "cannot reach " << target->endpoint()
        << (response.fault ? ": " + response.fault->string : std::string()) << std::endl;
    KX_THROW("KXNetwork", "Connect",
             "Connection failed. Could not contact endpoint: " + target->endpoint() +
                 " Please verify that Velmo is running at this address.");
  }
  return *found;
}

std::vector<KXModuleInfo> KXNetwork::getModuleList(int connection) {
  std::shared_ptr<KXConnection> target = findConnection(connection, "getModuleList");
  return allItems<KXModuleInfo>(
      ask(*target, "getModuleList", BrokerRequest{BrokerOperation::getModuleList, {}}));
}

std::vector<KXModuleInfo> KXNetwork::getGlobalModuleList(int connection) {
  std::shared_ptr<KXConnection> target = findConnection(connection, "getGlobalModuleList");
  return allItems<KXModuleInfo>(
      ask(*target, "getGlobalModuleList", BrokerRequest{BrokerOperation::getGlobalModuleList, {}}));
}

std::vector<KXModuleInfo> KXNetwork::getBrokerList(int connection) {
  std::shared_ptr<KXConnection> target = findConnection(connection, "getBrokerList");
  return allItems<KXModuleInfo>(
      ask(*target, "getBrokerList", BrokerRequest{BrokerOperation::getBrokerList, {}}));
}

std::vector<std::string> KXNetwork::getRemoteMethodList(int connection,
                                                        const std::string& moduleName) {
  std::shared_ptr<KXConnection> target = findConnection(connection, "getRemoteMethodList");
  return allItems<std::string>(ask(*target, "getRemoteMethodList",
                                   BrokerRequest{BrokerOperation::getMethodList, {moduleName}}));
}

void KXNetwork::registerBrokerTo(int connection, const KXModuleInfo& broker) {
  std::shared_ptr<KXConnection> target = findConnection(connection, "registerBroker");
  ask(*target, "registerBroker", BrokerRequest{BrokerOperation::registerBroker, {broker}});
}

void KXNetwork::unregisterBroker(int connection, const KXModuleInfo& broker) {
  std::shared_ptr<KXConnection> target = findConnection(connection, "unregisterBroker");
  ask(*target, "unregisterBroker", BrokerRequest{BrokerOperation::unregisterBroker, {broker}});
}

void KXNetwork::unregisterModuleReference(int connection, const std::string& moduleName) {
  std::shared_ptr<KXConnection> target = findConnection(connection, "unregisterModuleReference");
  ask(*target, "unregisterModuleReference",
      BrokerRequest{BrokerOperation::unregisterModuleReference, {moduleName}});
}

std::string KXNetwork::sendBackIP(int connection) {
  std::shared_ptr<KXConnection> target = findConnection(connection, "sendBackIP");
  const BrokerResponse response = target->exchange(BrokerRequest{BrokerOperation::sendBackIP, {}});
  const std::string* ip = firstItem<std::string>(response);
  if (response.fault || ip == nullptr || ip->empty()) {
    KX_THROW("KXNetwork", "sendBackIP", "Endpoint not responding: " + target->endpoint());
  }
  return *ip;
}

}  // namespace KX
