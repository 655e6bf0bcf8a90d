#include "network/detail/kxbrokerdispatch.h"

#include <string>
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

std::string& textArg(BrokerRequest& request, std::size_t index) {
  return std::get<std::string>(request.args.at(index));
}

int intArg(const BrokerRequest& request, std::size_t index) {
  return std::get<int>(request.args.at(index));
}

bool boolArg(const BrokerRequest& request, std::size_t index) {
  return std::get<bool>(request.args.at(index));
}

BrokerResponse faultAnswer(const std::string& message) {
  BrokerResponse response;
  response.fault = BrokerFault{"SOAP-ENV:Client", message, std::string()};
  return response;
}

template <typename T>
BrokerResponse answer(T item) {
  BrokerResponse response;
  response.items.emplace_back(std::move(item));
  return response;
}

template <typename T>
BrokerResponse listAnswer(const std::vector<T>& items) {
  BrokerResponse response;
  for (const T& item : items) {
    response.items.emplace_back(item);
  }
  return response;
}

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
BrokerResponse orFault(const char* message, Operation&& operation) {
  try {
    return operation();
  } catch (const KXError&) {
    return faultAnswer(message);
  }
}

BrokerResponse carryOut(KXBroker& broker, BrokerRequest& request, const BrokerPeer& peer) {
  switch (request.op) {
    case BrokerOperation::callVelmo:
      return answer(callModule(broker, textArg(request, 0), textArg(request, 1),
                               std::get<KXValue>(request.args.at(2))));
    case BrokerOperation::callVelmo2:
    case BrokerOperation::pCallVelmo:
      return answer(KXValue(broker.post(textArg(request, 0), textArg(request, 1),
                                        std::get<KXValue>(request.args.at(2)))));
    case BrokerOperation::pCallVelmoN:
      return BrokerResponse();
    case BrokerOperation::getModuleByName:
      return orFault("unable to get module by name", [&] {
        KXModuleInfo info;
        if (broker.getModuleByName(textArg(request, 0), false, info) != 0) {
          KX_THROW("KXNetwork", "getModuleByName", "not found");
        }
        return answer(info);
      });
    case BrokerOperation::exploreToGetModuleByName: {
      const std::string& name = textArg(request, 0);
      return orFault(("unable to explore to get a module by name for: '" + name + "'").c_str(),
                     [&] {
                       KXModuleInfo info;
                       if (broker.exploreToGetModuleByName(name, boolArg(request, 1),
                                                           boolArg(request, 2), textArg(request, 3),
                                                           boolArg(request, 4), info) != 0) {
                         KX_THROW("KXNetwork", "exploreToGetModuleByName", "not found");
                       }
                       return answer(info);
                     });
    }
    case BrokerOperation::getModuleList:
      return orFault("unable to get module list", [&] {
        const KXBrokerInfo self = broker.getBrokerInfo();
        std::vector<KXModuleInfo> modules;
        for (const auto& module : broker.getModules()) {
          modules.push_back(describeModuleOf(self, module->getName()));
        }
        return listAnswer(modules);
      });
    case BrokerOperation::getGlobalModuleList:
      return orFault("unable to get global module list",
                     [&] { return listAnswer(broker.getGlobalModuleList()); });
    case BrokerOperation::getBrokerList:
      return orFault("unable to get Broker list",
                     [&] { return listAnswer(broker.getBrokerList()); });
    case BrokerOperation::registerBroker:
      return orFault("unable to register broker child", [&] {
        broker.registerBroker(std::get<KXModuleInfo>(request.args.at(0)));
        return answer(0);
      });
    case BrokerOperation::unregisterBroker:
      return orFault("unable to unregister broker child", [&] {
        broker.unregisterBroker(std::get<KXModuleInfo>(request.args.at(0)).name);
        return answer(0);
      });
    case BrokerOperation::unregisterModuleReference:
      broker.unregisterModuleReference(textArg(request, 0));
      return BrokerResponse();
    case BrokerOperation::getBrokerInfo:
      return answer(broker.getBrokerInfo());
    case BrokerOperation::exit:
      KXBrokerManager::getInstance()->removeBroker(broker.shared_from_this());
      return BrokerResponse();
    case BrokerOperation::getMethodList:
      return orFault("unable to get methods list", [&] {
        std::shared_ptr<KXModuleCore> module = broker.getModuleCore(textArg(request, 0));
        if (!module) {
          KX_THROW("KXNetwork", "getMethodList", "no such module");
        }
        return listAnswer(module->getMethodList());
      });
    case BrokerOperation::init:
      return orFault("unable to init broker", [&] {
        broker.init(textArg(request, 0), textArg(request, 1), intArg(request, 2),
                    textArg(request, 3), intArg(request, 4),
                    boolArg(request, 5) ? KXBroker::kKeepAlive : 0);
        return answer(0);
      });
    case BrokerOperation::version:
      return answer(std::string(kBrokerVersion));
    case BrokerOperation::sendBackIP:
      if (peer.ip.empty()) {
        return faultAnswer("Unable to send Back IP");
      }
      return answer(peer.ip);
    case BrokerOperation::getBrokerName:
      return answer(broker.getName());
    case BrokerOperation::getInfo:
      return orFault("unable to get info from module", [&] {
        const std::string& name = textArg(request, 0);
        if (!broker.getModuleCore(name)) {
          KX_THROW("KXNetwork", "getInfo", "no such module");
        }
        return answer(describeModuleOf(broker.getBrokerInfo(), name));
      });
    case BrokerOperation::stopTask: {
      std::shared_ptr<KXTaskMonitor> monitor = broker.getTaskMonitor();
      int num = -1;
      if (monitor) {
        try {
          monitor->stop(intArg(request, 0));
          num = 0;
        } catch (const KXError&) {
          // No such task: nothing to stop.
        }
      }
      return answer(num);
    }
    case BrokerOperation::stopTaskName:
      return answer(0);
    case BrokerOperation::getDebugTaskList:
      return answer(debugTaskList(broker));
  }
  return BrokerResponse();
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

BrokerResponse carryOutBrokerRequest(BrokerRequest& request, const BrokerPeer& peer) {
  std::shared_ptr<KXBroker> broker = brokerForEndpoint(peer.endpoint);
  if (!broker) {
    return BrokerResponse();
  }
  return carryOut(*broker, request, peer);
}

}  // namespace KX
