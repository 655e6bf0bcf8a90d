#include "broker/kxbrokerproxy.h"

#include "broker/kxbroker.h"
#include "log/log.h"
#include "module/kxnetworkservice.h"
#include "value/kxerror.h"

namespace KX {

KXBrokerProxy::KXBrokerProxy(const std::shared_ptr<KXBroker>& localBroker, const std::string& ip,
                             int port, int timeoutSeconds)
    : localBroker_(localBroker), endpoint_(endpointOf(ip, port)) {
  KX_ASSERT("KXBrokerProxy", localBroker != nullptr);
  std::shared_ptr<KXNetworkService> service = localBroker->getNetwork();
  if (!service) {
    KX_THROW("KXBrokerProxy", "constructor", "No network");
  }
  // The remote broker is reached through its own network module: heartbeats and other
  // module calls on this connection address it.
  KXModuleInfo remote;
  remote.name = "KXNetwork";
  remote.ip = ip;
  remote.port = port;
  remote.isABroker = true;
  connection_ = service->createConnection(remote, endpoint_, timeoutSeconds);
  network_ = service;
}

KXBrokerProxy::~KXBrokerProxy() {
  if (std::shared_ptr<KXNetworkService> service = network_.lock()) {
    service->destroyConnection(connection_);
  }
}

std::shared_ptr<KXNetworkService> KXBrokerProxy::network() const {
  std::shared_ptr<KXBroker> broker = localBroker_.lock();
  std::shared_ptr<KXNetworkService> service = network_.lock();
  if (!broker || !service) {
    KX_THROW("ThreadedRemoteExecution", "getParentBroker", "module does not exist");
  }
  return service;
}

int KXBrokerProxy::registerBroker() {
  TU_LOG(tu::log::error, "core.common.broker.proxy", "KX::KXBrokerProxy::registerBroker")
      << "registerBroker is not offered by a broker proxy" << std::endl;
  KX_THROW("KXBrokerProxy", "registerBroker", "unimplemented");
}

int KXBrokerProxy::unregisterBroker(const KXModuleInfo& moduleInfo) {
  network()->unregisterBroker(connection_, moduleInfo);
  return 0;
}

int KXBrokerProxy::getBrokerInfo(KXModuleInfo& moduleInfo) {
  moduleInfo = network()->getBrokerInfo(connection_);
  return 0;
}

int KXBrokerProxy::getInfo(const std::string& moduleName, KXModuleInfo& moduleInfo) {
  moduleInfo = network()->getInfo(connection_, moduleName);
  return 0;
}

int KXBrokerProxy::exploreToGetModuleByName(const std::string& moduleName, bool searchUp,
                                            bool searchDown,
                                            const std::string& dontLookIntoBrokerName, bool loadLib,
                                            KXModuleInfo& moduleInfo) {
  return network()->exploreToGetModuleByName(connection_, moduleName, searchUp, searchDown,
                                             dontLookIntoBrokerName, loadLib, moduleInfo);
}

int KXBrokerProxy::unregisterModuleReference(const std::string& moduleName) {
  network()->unregisterModuleReference(connection_, moduleName);
  return 0;
}

int KXBrokerProxy::getModuleList(std::vector<KXModuleInfo>& list) {
  list = network()->getModuleList(connection_);
  return 0;
}

int KXBrokerProxy::getBrokerList(std::vector<KXModuleInfo>& list) {
  list = network()->getBrokerList(connection_);
  return 0;
}

int KXBrokerProxy::getGlobalModuleList(std::vector<KXModuleInfo>& list) {
  list = network()->getGlobalModuleList(connection_);
  return 0;
}

int KXBrokerProxy::getMethodList(const std::string& moduleName, std::vector<std::string>& names) {
  names = network()->getRemoteMethodList(connection_, moduleName);
  return 0;
}

std::string KXBrokerProxy::sendBackIP() { return network()->sendBackIP(connection_); }

}  // namespace KX
