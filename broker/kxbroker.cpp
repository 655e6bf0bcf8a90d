#include "broker/kxbroker.h"

#include "broker/detail/kxbrokerimpl.h"
#include "broker/kxbrokermanager.h"
#include "broker/kxbrokerpages.h"
#include "broker/kxnetworkfactory.h"
#include "log/log.h"

namespace KX {

std::shared_ptr<KXBroker> KXBroker::createBroker(const std::string& name, const std::string& ip,
                                                 int port, const std::string& parentIp,
                                                 int parentPort, int flags, const std::string& path,
                                                 bool launchNetwork) {
  if (!path.empty()) {
    TU_LOG(tu::log::warning, "core.common.broker", "KX::KXBroker::createBroker")
        << "Calling the broker constructor with a non-empty path, is deprecated" << std::endl;
    TU_LOG(tu::log::warning, "core.common.broker", "KX::KXBroker::createBroker")
        << "it will not be taken into account, please use tu::path." << std::endl;
  }

  auto broker = std::make_shared<KXBroker>();
  broker->init(name, ip, port, parentIp, parentPort, flags);
  KXBrokerManager::getInstance()->addBroker(broker);
  if (launchNetwork) {
    try {
      broker->impl_->launchNetwork((flags & kNoHeartbeat) == 0);
    } catch (...) {
      // A broker that cannot reach its network is no broker: it leaves the manager.
      broker->shutdown();
      throw;
    }
  }
  // kCreateNetwork asks for the "KXNetwork" module even when the network is not launched.
  if ((flags & kCreateNetwork) != 0 && !broker->getNetwork()) {
    createNetworkModule(broker);
  }
  return broker;
}

KXBroker::KXBroker() : impl_(std::make_unique<KXBrokerImpl>(this)) {}

KXBroker::~KXBroker() {
  // A broker released without shutdown still stops its modules and its pool.
  impl_->shutdown();
}

void KXBroker::init(const std::string& name, const std::string& ip, int port,
                    const std::string& parentIp, int parentPort, int flags) {
  impl_->init(name, ip, port, parentIp, parentPort, flags);
}

void KXBroker::shutdown() { impl_->shutdown(); }

bool KXBroker::isShuttingDown() const { return impl_->isShuttingDown(); }

void KXBroker::registerModule(const std::string& name,
                              const std::shared_ptr<KXModuleCore>& module) {
  impl_->registerModule(name, module);
}

void KXBroker::unregisterModule(const std::string& name, const KXModuleCore* module) {
  impl_->unregisterModule(name, module);
}

std::shared_ptr<KXModuleCore> KXBroker::getModuleCore(const std::string& name) const {
  return impl_->getModuleCore(name);
}

std::vector<std::shared_ptr<KXModuleCore>> KXBroker::getModules() const {
  return impl_->getModules();
}

int KXBroker::getModuleByName(const std::string& name, bool loadLib, KXModuleInfo& info) {
  return impl_->getModuleByName(name, loadLib, info);
}

int KXBroker::exploreToGetModuleByName(const std::string& name, bool searchUp, bool searchDown,
                                       const std::string& excludedBroker, bool loadLib,
                                       KXModuleInfo& info) {
  return impl_->exploreToGetModuleByName(name, searchUp, searchDown, excludedBroker, loadLib, info);
}

bool KXBroker::isModulePresent(const std::string& name) { return impl_->isModulePresent(name); }

std::vector<KXModuleInfo> KXBroker::getGlobalModuleList() { return impl_->getGlobalModuleList(); }

std::vector<KXBrokerInfo> KXBroker::getBrokerList() { return impl_->getBrokerList(); }

std::shared_ptr<KXNetworkService> KXBroker::getNetwork() const { return impl_->getNetwork(); }

void KXBroker::configureClient(const std::string& parentIp, int parentPort) {
  impl_->configureClient(parentIp, parentPort);
}

void KXBroker::registerBroker(const KXBrokerInfo& info) { impl_->registerBroker(info); }

void KXBroker::unregisterBroker(const std::string& name) { impl_->unregisterBroker(name); }

bool KXBroker::childHeartBeat(const std::string& name) { return impl_->childHeartBeat(name); }

void KXBroker::checkHeartBeat() { impl_->checkHeartBeat(); }

std::vector<KXBrokerInfo> KXBroker::getChildBrokers() const { return impl_->getChildBrokers(); }

void KXBroker::unregisterModuleReference(const std::string& name) {
  impl_->unregisterModuleReference(name);
}

KXValue KXBroker::methodCall(const std::string& module, const std::string& method,
                             const KXValue& params) {
  return impl_->methodCall(module, method, params);
}

int KXBroker::post(const std::string& module, const std::string& method, const KXValue& params) {
  return impl_->post(module, method, params);
}

std::shared_ptr<KXProxy> KXBroker::getProxy(const std::string& module, int flags, int reserved) {
  return impl_->getProxy(module, flags, reserved);
}

int KXBroker::newTaskId() { return impl_->newTaskId(); }

void KXBroker::resetTaskIds(int last) { impl_->resetTaskIds(last); }

std::shared_ptr<detail::KXTaskInfo> KXBroker::createTaskInfo(const std::string& module,
                                                             const std::string& method) {
  return impl_->createTaskInfo(module, method);
}

int KXBroker::queueParallelCall(const std::shared_ptr<detail::KXTaskInfo>& info,
                                const std::shared_ptr<KXTask>& task) {
  return impl_->queueParallelCall(info, task);
}

std::string KXBroker::getPage(const std::string& path) { return detail::answerPage(*this, path); }

std::shared_ptr<KXBroker> KXBroker::broker() { return shared_from_this(); }

std::string KXBroker::getName() const { return impl_->getName(); }

std::string KXBroker::getIP() const { return impl_->getIP(); }

int KXBroker::getPort() const { return impl_->getPort(); }

std::string KXBroker::getParentIP() const { return impl_->getParentIP(); }

int KXBroker::getParentPort() const { return impl_->getParentPort(); }

bool KXBroker::hasParent() const { return impl_->hasParent(); }

KXBrokerInfo KXBroker::getBrokerInfo() const { return impl_->getBrokerInfo(); }

void KXBroker::setIP(const std::string& ip) { impl_->setIP(ip); }

void KXBroker::setPort(int port) { impl_->setPort(port); }

std::shared_ptr<KXThreadPool> KXBroker::getThreadPool() const { return impl_->getThreadPool(); }

std::shared_ptr<KXTaskMonitor> KXBroker::getTaskMonitor() const { return impl_->getTaskMonitor(); }

}  // namespace KX
