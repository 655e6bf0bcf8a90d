// The client side of the broker protocol: the operations this broker sends to others.
#include <iostream>
#include <utility>

#include "log/log.h"
#include "network/detail/kxconnection.h"
#include "network/detail/kxnetwork.h"
#include "value/kxerror.h"

namespace KX {

namespace {

constexpr char kCategory[] = "core.common.network";

// Every failure raised here is network trouble, which callers may catch apart from other
// errors, except a remote module's own error.
[[noreturn]] void throwNetworkError(const std::string& method, const std::string& description) {
  throw KXNetworkError("KXNetwork", method, description, __FILE__, __LINE__);
}

// Sends a broker operation (no module call) and returns its answer; raises
// KXNetworkError("KXNetwork", method, <the fault>) when it fails.
template <typename Op>
typename Op::Answer ask(KXConnection& connection, const char* method, const Op& request) {
  BrokerReply<typename Op::Answer> reply = connection.exchange(request);
  if (reply.fault) {
    throwNetworkError(method,
                      reply.fault->string +
                          (reply.fault->detail.empty() ? "" : " (" + reply.fault->detail + ")"));
  }
  return std::move(reply.answer);
}

// A module call's fault as the caller sees it: the module's own error when the fault
// names the module, else the transport's.
[[noreturn]] void throwCallFault(const BrokerFault& fault, const std::string& module,
                                 const std::string& method, const char* operation) {
  if (fault.detail == module) {
    throw KXError(module, method, fault.string, __FILE__, __LINE__);
  }
  throwNetworkError(operation, "Error calling remote module method " + module + "::" + method +
                                   ": " + fault.string + " (" + fault.detail + ")");
}

}  // namespace

KXValue KXNetwork::callMethod(const int& connection, const std::string& method,
                              const KXValue& param) {
  std::shared_ptr<KXConnection> target = findConnection(connection, "callMethod");
  BrokerReply<KXValue> reply = target->call<protocol::CallVelmo>(method, param);
  if (reply.fault) {
    throwCallFault(*reply.fault, target->module().name, method, "callMethod");
  }
  return std::move(reply.answer);
}

int KXNetwork::pCallMethod(const int& connection, const std::string& method, const KXValue& param) {
  std::shared_ptr<KXConnection> target = findConnection(connection, "pCallMethod");
  const BrokerReply<KXValue> reply = target->call<protocol::CallVelmo2>(method, param);
  if (reply.fault) {
    throwCallFault(*reply.fault, target->module().name, method, "pCallMethod");
  }
  if (reply.answer.getType() != KXValue::TypeInt) {
    TU_LOG(tu::log::error, kCategory, "KX::KXNetwork::pCallMethod")
        << "The return value mismatched with the communication protocol, check your return "
           "value."
        << std::endl;
    return 0;
  }
  return static_cast<int>(reply.answer);
}

int KXNetwork::exploreToGetModuleByName(int connection, const std::string& name, bool searchUp,
                                        bool searchDown, const std::string& excludedBroker,
                                        bool loadLib, KXModuleInfo& info) {
  std::shared_ptr<KXConnection> target = findConnection(connection, "exploreToGetModuleByName");
  const BrokerReply<KXModuleInfo> reply = target->exchange(
      protocol::ExploreToGetModuleByName{name, searchUp, searchDown, excludedBroker, loadLib});
  if (reply.fault || reply.answer.name.empty()) {
    return -1;
  }
  info = reply.answer;
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
  const BrokerReply<KXModuleInfo> reply = target->exchange(protocol::GetModuleByName{{name}});
  if (reply.fault) {
    throwNetworkError("getModuleByName", "failed to get module " + name + " from " +
                                             target->endpoint() + ": " + reply.fault->string);
  }
  return reply.answer;
}

KXModuleInfo KXNetwork::getInfo(int connection, const std::string& name) {
  std::shared_ptr<KXConnection> target = findConnection(connection, "getInfo");
  return ask(*target, "getInfo", protocol::GetInfo{{name}});
}

KXModuleInfo KXNetwork::getBrokerInfo(int connection) {
  std::shared_ptr<KXConnection> target = findConnection(connection, "getBrokerInfo");
  const BrokerReply<KXModuleInfo> reply = target->exchange(protocol::GetBrokerInfo{});
  if (reply.fault) {
    TU_LOG(tu::log::error, kCategory, "KX::KXNetwork::getBrokerInfo")
        << "cannot reach " << target->endpoint() << ": " << reply.fault->string << std::endl;
    throwNetworkError("Connect",
                      "Connection failed. Could not contact endpoint: " + target->endpoint() +
                          " Please verify that Velmo is running at this address.");
  }
  return reply.answer;
}

std::vector<KXModuleInfo> KXNetwork::getModuleList(int connection) {
  std::shared_ptr<KXConnection> target = findConnection(connection, "getModuleList");
  return ask(*target, "getModuleList", protocol::GetModuleList{});
}

std::vector<KXModuleInfo> KXNetwork::getGlobalModuleList(int connection) {
  std::shared_ptr<KXConnection> target = findConnection(connection, "getGlobalModuleList");
  return ask(*target, "getGlobalModuleList", protocol::GetGlobalModuleList{});
}

std::vector<KXModuleInfo> KXNetwork::getBrokerList(int connection) {
  std::shared_ptr<KXConnection> target = findConnection(connection, "getBrokerList");
  return ask(*target, "getBrokerList", protocol::GetBrokerList{});
}

std::vector<std::string> KXNetwork::getRemoteMethodList(int connection,
                                                        const std::string& moduleName) {
  std::shared_ptr<KXConnection> target = findConnection(connection, "getRemoteMethodList");
  return ask(*target, "getRemoteMethodList", protocol::GetMethodList{{moduleName}});
}

void KXNetwork::registerBrokerTo(int connection, const KXModuleInfo& broker) {
  std::shared_ptr<KXConnection> target = findConnection(connection, "registerBroker");
  ask(*target, "registerBroker", protocol::RegisterBroker{broker});
}

void KXNetwork::unregisterBroker(int connection, const KXModuleInfo& broker) {
  std::shared_ptr<KXConnection> target = findConnection(connection, "unregisterBroker");
  ask(*target, "unregisterBroker", protocol::UnregisterBroker{broker});
}

void KXNetwork::unregisterModuleReference(int connection, const std::string& moduleName) {
  std::shared_ptr<KXConnection> target = findConnection(connection, "unregisterModuleReference");
  ask(*target, "unregisterModuleReference", protocol::UnregisterModuleReference{moduleName});
}

std::string KXNetwork::sendBackIP(int connection) {
  std::shared_ptr<KXConnection> target = findConnection(connection, "sendBackIP");
  const BrokerReply<std::string> reply = target->exchange(protocol::SendBackIP{});
  if (reply.fault || reply.answer.empty()) {
    throwNetworkError("sendBackIP", "Endpoint not responding: " + target->endpoint());
  }
  return reply.answer;
}

}  // namespace KX
