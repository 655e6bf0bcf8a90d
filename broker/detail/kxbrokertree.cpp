// The broker's place in the tree: its network launch, its parent, its children and the
// searches that cross them.
#include <algorithm>
#include <chrono>
#include <thread>

#include "broker/detail/kxbrokerimpl.h"
#include "broker/kxbrokerproxy.h"
#include "broker/kxnetworkfactory.h"
#include "log/log.h"
#include "module/kxmodulecore.h"
#include "value/kxerror.h"

namespace KX {

namespace {

constexpr char kCategory[] = "core.common.broker";
// A broker given port 0 takes the first free port from here.
constexpr int kFirstFreePort = 54010;
// A port picked by the broker is picked again when another process takes it first.
constexpr int kPortAttempts = 20;
// Lets the accept loop start before the parent calls back.
constexpr std::chrono::milliseconds kServerStartPause{400};

}  // namespace

std::shared_ptr<KXNetworkService> KXBrokerImpl::getNetwork() const {
  return std::dynamic_pointer_cast<KXNetworkService>(getModuleCore("KXNetwork"));
}

std::shared_ptr<KXBrokerProxy> KXBrokerImpl::getParentProxy() const {
  std::lock_guard<std::mutex> guard(stateMutex_);
  return parent_;
}

void KXBrokerImpl::launchNetwork(bool useHeartbeat) {
  std::shared_ptr<KXBroker> self = self_->shared_from_this();
  std::shared_ptr<KXNetworkService> network = getNetwork();
  if (!network) {
    network = createNetworkModule(self);
  }
  const std::string ip = getIP();
  const bool pickPort = getPort() == 0;
  if (pickPort) {
    setPort(network->findFreePort(ip, kFirstFreePort));
  }
  configureClient(getParentIP(), getParentPort());
  for (int attempt = 1;; ++attempt) {
    try {
      network->newServer(ip, getPort());
      break;
    } catch (const KXError&) {
      // Another process may take the free port between the probe and the bind: a port
      // we picked ourselves is simply picked again.
      if (!pickPort || attempt == kPortAttempts) {
        throw;
      }
      setPort(network->findFreePort(ip, getPort() + 1));
    }
  }
  network->startListening();
  std::this_thread::sleep_for(kServerStartPause);
  if (hasParent()) {
    network->registerClient(getParentIP(), getParentPort(), useHeartbeat);
  } else {
    TU_LOG(tu::log::info, kCategory, "KX::KXBrokerImpl::launchNetwork")
        << "Velmo is listening on " << getIP() << ":" << getPort() << std::endl;
  }
}

void KXBrokerImpl::configureClient(const std::string& parentIp, int parentPort) {
  if (!hasParent()) {
    return;
  }
  std::shared_ptr<KXNetworkService> network = getNetwork();
  if (!network) {
    KX_THROW("KXBroker", "configureClient", "No network");
  }
  auto parent = std::make_shared<KXBrokerProxy>(self_->shared_from_this(), parentIp, parentPort);
  KXBrokerInfo parentInfo;
  try {
    parent->getBrokerInfo(parentInfo);
  } catch (const KXAccessRefused& refused) {
    // Asking again cannot help: the parent's tree has another token, or none was given.
    TU_LOG(tu::log::error, kCategory, "KX::KXBrokerImpl::configureClient")
        << "cannot register broker to " << parent->getEndpoint() << ": " << refused.description()
        << std::endl;
    KX_THROW("KXBroker", "Connect to parent", refused.description());
  } catch (const KXError&) {
    KX_THROW("KXBroker", "Connect to parent", "Timeout");
  }
  {
    std::lock_guard<std::mutex> guard(stateMutex_);
    parent_ = parent;
  }
  try {
    network->configureClient(parent->getEndpoint(), getIP());
  } catch (const KXError& error) {
    TU_LOG(tu::log::error, kCategory, "KX::KXBrokerImpl::configureClient")
        << "configureClient: Cannot create network structure" << std::endl;
  }
}

int KXBrokerImpl::getModuleByName(const std::string& name, bool loadLib, KXModuleInfo& info) {
  info.name.clear();
  exploreToGetModuleByName(name, false, true, "", loadLib, info);
  if (!info.name.empty() && !loadLib) {
    return 0;
  }
  searchParent(name, loadLib, info);
  return info.name.empty() ? -1 : 0;
}

void KXBrokerImpl::searchParent(const std::string& name, bool loadLib, KXModuleInfo& info) {
  std::shared_ptr<KXBrokerProxy> parent = getParentProxy();
  if (!parent) return;
  KXModuleInfo found;
  if (parent->exploreToGetModuleByName(name, true, true, getName(), loadLib, found) == 0 &&
      !found.name.empty()) {
    info = found;
  }
}

int KXBrokerImpl::exploreToGetModuleByName(const std::string& name, bool searchUp, bool searchDown,
                                           const std::string& excludedBroker, bool loadLib,
                                           KXModuleInfo& info) {
  if (getModuleCore(name)) {
    info = describeLocalModule(name);
    return 0;
  }
  if (searchDown) {
    for (const auto& child : children_.snapshot()) {
      if (child->info.name == excludedBroker) {
        continue;
      }
      KXModuleInfo found;
      if (child->proxy->exploreToGetModuleByName(name, false, true, "", loadLib, found) == 0 &&
          !found.name.empty()) {
        info = found;
        return 0;
      }
    }
  }
  if (searchUp) searchParent(name, loadLib, info);
  return info.name.empty() ? -1 : 0;
}

bool KXBrokerImpl::isModulePresent(const std::string& name) {
  const std::vector<KXModuleInfo> modules = getGlobalModuleList();
  return std::any_of(modules.begin(), modules.end(),
                     [&name](const KXModuleInfo& info) { return info.name == name; });
}

std::vector<KXModuleInfo> KXBrokerImpl::getGlobalModuleList() {
  std::vector<std::string> names;
  {
    KXScopedReadLock guard(moduleLock_);
    for (const auto& entry : modules_) {
      names.push_back(entry.first);
    }
  }
  std::vector<KXModuleInfo> list;
  list.reserve(names.size());
  for (const auto& name : names) {
    list.push_back(describeLocalModule(name));
  }
  std::vector<std::shared_ptr<KXChildBrokers::Child>> silent;
  for (const auto& child : children_.snapshot()) {
    std::vector<KXModuleInfo> childModules;
    try {
      child->proxy->getGlobalModuleList(childModules);
    } catch (const KXError&) {
      TU_LOG(tu::log::info, kCategory, "KX::KXBrokerImpl::getGlobalModuleList")
          << child->info.name << " not responding, remove it" << std::endl;
      silent.push_back(child);
      continue;
    }
    list.insert(list.end(), childModules.begin(), childModules.end());
  }
  for (const auto& child : silent) {
    dropChild(child->info.name, child.get());
  }
  return list;
}

std::vector<KXBrokerInfo> KXBrokerImpl::getBrokerList() {
  std::vector<KXBrokerInfo> list{getBrokerInfo()};
  for (const auto& child : children_.snapshot()) {
    std::vector<KXBrokerInfo> below;
    try {
      child->proxy->getBrokerList(below);
    } catch (const KXError&) {
      // A silent child still counts as registered; its own children are unknown.
      below.assign(1, child->info);
    }
    list.insert(list.end(), below.begin(), below.end());
  }
  return list;
}

void KXBrokerImpl::registerBroker(const KXBrokerInfo& info) {
  if (info.name.empty()) {
    TU_LOG(tu::log::error, kCategory, "KX::KXBrokerImpl::registerBroker")
        << "No broker name" << std::endl;
    return;
  }
  std::shared_ptr<KXNetworkService> network = getNetwork();
  if (!network) {
    KX_THROW("KXBroker", "registerBroker", "No network");
  }
  auto proxy = std::make_shared<KXBrokerProxy>(self_->shared_from_this(), info.ip, info.port);
  if (children_.add(info, proxy)) {
    // A broker of that name registered before (a restarted child): this one replaces it.
    TU_LOG(tu::log::verbose, kCategory, "KX::KXBrokerImpl::registerBroker")
        << "Removing previously registered client \"" << info.name << "\"" << std::endl;
  }
  TU_LOG(tu::log::info, kCategory, "KX::KXBrokerImpl::registerBroker")
      << "Client \"" << info.name << "\" connected from " << info.ip << ":" << info.port
      << std::endl;
  raiseMemoryEvent("ClientConnected", info.ip);
  network->startHeartBeatCheck();
}

void KXBrokerImpl::unregisterBroker(const std::string& name) { dropChild(name, nullptr); }

void KXBrokerImpl::dropChild(const std::string& name, const KXChildBrokers::Child* only) {
  if (!children_.remove(name, only)) {
    return;
  }
  raiseMemoryEvent("ClientDisconnected", name);
  TU_LOG(tu::log::info, kCategory, "KX::KXBrokerImpl::unregisterBroker")
      << "Client \"" << name << "\" unregistered" << std::endl;
}

bool KXBrokerImpl::childHeartBeat(const std::string& name) { return children_.heartBeat(name); }

void KXBrokerImpl::checkHeartBeat() {
  const KXChildBrokers::CheckResult result = children_.check(KXChildBrokers::Clock::now());
  for (const auto& name : result.notResponding) {
    TU_LOG(tu::log::info, kCategory, "KX::KXBrokerImpl::checkHeartBeat")
        << "Client \"" << name << "\" is not responding..." << std::endl;
  }
  for (const auto& child : result.lost) {
    TU_LOG(tu::log::info, kCategory, "KX::KXBrokerImpl::checkHeartBeat")
        << "Client \"" << child->info.name << "\" was lost" << std::endl;
  }
  for (const auto& child : result.lost) {
    dropChild(child->info.name, child.get());
  }
}

std::vector<KXBrokerInfo> KXBrokerImpl::getChildBrokers() const { return children_.infos(); }

void KXBrokerImpl::unregisterModuleReference(const std::string& name) { proxies_.forget(name); }

void KXBrokerImpl::raiseMemoryEvent(const std::string& event, const std::string& value) {
  std::shared_ptr<KXModuleCore> memory = getModuleCore("KXMemory");
  if (!memory) {
    return;
  }
  KXValue arguments;
  arguments.arraySetSize(2);
  arguments[0] = event;
  arguments[1] = value;
  KXValue result;
  try {
    memory->execute("raiseEvent", arguments, result);
  } catch (const KXError& error) {
    TU_LOG(tu::log::warning, kCategory, "KX::KXBrokerImpl::raiseMemoryEvent")
        << "cannot raise " << event << ": " << error.what() << std::endl;
  }
}

}  // namespace KX
