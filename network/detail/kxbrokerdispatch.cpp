#include "network/detail/kxbrokerdispatch.h"

#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "broker/kxbroker.h"
#include "broker/kxbrokermanager.h"
#include "module/kxmodulecore.h"
#include "module/kxtaskmonitor.h"
#include "value/kxerror.h"

namespace KX {

namespace {

// What the version operation reports: the framework's version, as modules do.
constexpr char kBrokerVersion[] = "1.14";

// Runs the method on the module itself, so that its own error travels back unchanged;
// the broker's method call raises the described errors for a missing module or method.
KXValue callModule(KXBroker& broker, const std::string& module, const std::string& method,
                   const KXValue& params) {
  std::shared_ptr<KXModuleCore> core = broker.getModuleCore(module);
  if (!core || !core->getMethodInfo(method)) {
    return broker.methodCall(module, method, params);
  }
  KXValue result;
  core->execute(method, params, result);
  return result;
}

KXValue debugTaskList(KXBroker& broker) {
  KXValue list;
  list.arraySetSize(0);
  std::shared_ptr<KXTaskMonitor> monitor = broker.getTaskMonitor();
  if (!monitor) {
    return list;
  }
  for (const auto& task : monitor->getTaskList()) {
    if (isInternalModuleName(task.moduleName)) {
      continue;
    }
    KXValue entry;
    entry.arraySetSize(3);
    entry[0] = task.id;
    entry[1] = task.moduleName;
    entry[2] = task.methodName;
    list.arrayPush(entry);
  }
  return list;
}

// Operations whose failure is answered with a fixed message.
template <typename Operation>
auto orFault(const std::string& message, Operation&& operation) {
  try {
    return operation();
  } catch (const KXError&) {
    KX_THROW("KXNetwork", "carryOutBrokerRequest", message);
  }
}

// One handler per operation, answering with the operation's Answer.
using namespace protocol;

KXValue carryOut(KXBroker& broker, const CallVelmo& call, const BrokerPeer&) {
  return callModule(broker, call.mod, call.meth, call.p);
}

KXValue carryOut(KXBroker& broker, const CallVelmo2& call, const BrokerPeer&) {
  return KXValue(broker.post(call.mod, call.meth, call.p));
}

NoAnswer carryOut(KXBroker& broker, const PCallVelmo& call, const BrokerPeer&) {
  broker.post(call.mod, call.meth, call.p);
  return NoAnswer();
}

KXValue carryOut(KXBroker&, const PCallVelmoN&, const BrokerPeer&) { return KXValue(); }

KXModuleInfo carryOut(KXBroker& broker, const GetModuleByName& request, const BrokerPeer&) {
  return orFault("unable to get module by name", [&] {
    KXModuleInfo info;
    if (broker.getModuleByName(request.pModuleName, false, info) != 0) {
      KX_THROW("KXNetwork", "getModuleByName", "not found");
    }
    return info;
  });
}

KXModuleInfo carryOut(KXBroker& broker, const ExploreToGetModuleByName& request,
                      const BrokerPeer&) {
  return orFault(
      "unable to explore to get a module by name for: '" + request.pModuleName + "'", [&] {
        KXModuleInfo info;
        if (broker.exploreToGetModuleByName(request.pModuleName, request.pSearchUp,
                                            request.pSearchDown, request.pDontLookIntoBrokerName,
                                            request.pLoadLib, info) != 0) {
          KX_THROW("KXNetwork", "exploreToGetModuleByName", "not found");
        }
        return info;
      });
}

std::vector<KXModuleInfo> carryOut(KXBroker& broker, const GetModuleList&, const BrokerPeer&) {
  return orFault("unable to get module list", [&] {
    const KXBrokerInfo self = broker.getBrokerInfo();
    std::vector<KXModuleInfo> modules;
    for (const auto& module : broker.getModules()) {
      modules.push_back(describeModuleOf(self, module->getName()));
    }
    return modules;
  });
}

std::vector<KXModuleInfo> carryOut(KXBroker& broker, const GetGlobalModuleList&,
                                   const BrokerPeer&) {
  return orFault("unable to get global module list", [&] { return broker.getGlobalModuleList(); });
}

std::vector<KXModuleInfo> carryOut(KXBroker& broker, const GetBrokerList&, const BrokerPeer&) {
  return orFault("unable to get Broker list", [&] { return broker.getBrokerList(); });
}

int carryOut(KXBroker& broker, const RegisterBroker& request, const BrokerPeer&) {
  return orFault("unable to register broker child", [&] {
    broker.registerBroker(request.pBrokerToRegister);
    return 0;
  });
}

int carryOut(KXBroker& broker, const UnregisterBroker& request, const BrokerPeer&) {
  return orFault("unable to unregister broker child", [&] {
    broker.unregisterBroker(request.pBrokerToUnregister.name);
    return 0;
  });
}

NoAnswer carryOut(KXBroker& broker, const UnregisterModuleReference& request, const BrokerPeer&) {
  broker.unregisterModuleReference(request.moduleName);
  return NoAnswer();
}

KXModuleInfo carryOut(KXBroker& broker, const GetBrokerInfo&, const BrokerPeer&) {
  return broker.getBrokerInfo();
}

NoAnswer carryOut(KXBroker& broker, const Exit&, const BrokerPeer&) {
  KXBrokerManager::getInstance()->removeBroker(broker.shared_from_this());
  return NoAnswer();
}

std::vector<std::string> carryOut(KXBroker& broker, const GetMethodList& request,
                                  const BrokerPeer&) {
  return orFault("unable to get methods list", [&] {
    std::shared_ptr<KXModuleCore> module = broker.getModuleCore(request.pModuleName);
    if (!module) {
      KX_THROW("KXNetwork", "getMethodList", "no such module");
    }
    return module->getMethodList();
  });
}

std::optional<int> carryOut(KXBroker& broker, const Init& request, const BrokerPeer&) {
  return orFault("unable to init broker", [&] {
    broker.init(request.pName, request.pIP, request.pPort, request.pParentIP, request.pParentPort,
                request.pKeepAlive ? KXBroker::kKeepAlive : 0);
    return std::optional<int>(0);
  });
}

std::string carryOut(KXBroker&, const Version&, const BrokerPeer&) { return kBrokerVersion; }

std::string carryOut(KXBroker&, const SendBackIP&, const BrokerPeer& peer) {
  if (peer.ip.empty()) {
    KX_THROW("KXNetwork", "sendBackIP", "Unable to send Back IP");
  }
  return peer.ip;
}

std::string carryOut(KXBroker& broker, const GetBrokerName&, const BrokerPeer&) {
  return broker.getName();
}

KXModuleInfo carryOut(KXBroker& broker, const GetInfo& request, const BrokerPeer&) {
  return orFault("unable to get info from module", [&] {
    if (!broker.getModuleCore(request.pModuleName)) {
      KX_THROW("KXNetwork", "getInfo", "no such module");
    }
    return describeModuleOf(broker.getBrokerInfo(), request.pModuleName);
  });
}

int carryOut(KXBroker& broker, const StopTask& request, const BrokerPeer&) {
  std::shared_ptr<KXTaskMonitor> monitor = broker.getTaskMonitor();
  if (!monitor) {
    return -1;
  }
  try {
    monitor->stop(request.pTaskId);
    return 0;
  } catch (const KXError&) {
    return -1;  // no such task: nothing to stop
  }
}

int carryOut(KXBroker&, const StopTaskName&, const BrokerPeer&) { return 0; }

KXValue carryOut(KXBroker& broker, const GetDebugTaskList&, const BrokerPeer&) {
  return debugTaskList(broker);
}

}  // namespace

std::shared_ptr<KXBroker> brokerForEndpoint(const std::string& endpoint) {
  const std::shared_ptr<KXBrokerManager> manager = KXBrokerManager::getInstance();
  // The port is matched with the '/' that follows it, so that port 5401 never answers
  // for 54010.
  for (const auto& broker : manager->getBrokers()) {
    if (endpoint.find(":" + std::to_string(broker->getPort()) + "/") != std::string::npos) {
      return broker;
    }
  }
  try {
    return manager->getRandomBroker();
  } catch (const KXError&) {
    return nullptr;
  }
}

BrokerAnswer carryOutBrokerRequest(BrokerRequest& request, const BrokerPeer& peer) {
  std::shared_ptr<KXBroker> broker = brokerForEndpoint(peer.endpoint);
  return std::visit(
      [&](const auto& op) -> BrokerAnswer {
        using Op = std::decay_t<decltype(op)>;
        using Answer = typename Op::Answer;
        // Every operation has its handler, answering with exactly its Answer.
        static_assert(std::is_same_v<decltype(carryOut(*broker, op, peer)), Answer>);
        if (!broker) {
          return Answer();
        }
        return carryOut(*broker, op, peer);
      },
      request);
}

}  // namespace KX
