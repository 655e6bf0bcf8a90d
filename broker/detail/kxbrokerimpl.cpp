#include "broker/detail/kxbrokerimpl.h"

#include <unistd.h>

#include <algorithm>
#include <exception>
#include <utility>

#include "broker/detail/kxbrokermanagerinstance.h"
#include "broker/kxbrokermanager.h"
#include "broker/kxbrokerproxy.h"
#include "log/log.h"
#include "module/kxmodulecore.h"
#include "module/kxnetworkservice.h"
#include "module/kxpcalltask.h"
#include "module/kxproxy.h"
#include "module/kxtaskmonitor.h"
#include "thread/kxthreadpool.h"
#include "value/kxerror.h"

namespace KX {

namespace {

constexpr char kCategory[] = "core.common.broker";

// Thread pool shape: initial workers (one when single-threaded), the most it may grow
// to, and the load watcher's period and tuning.
constexpr int kPoolThreads = 10;
constexpr int kPoolThreadsSingle = 1;
constexpr int kPoolMaxThreads = 200;
constexpr int kPoolCheckPeriod = 50;
constexpr int kPoolTuning1 = 100;
constexpr int kPoolTuning2 = 2;

// Every machine of the tree runs the same architecture code.
constexpr int kArchitecture = 1;

// Ids stay even and positive: past this the next id starts again at 2.
constexpr int kLastTaskIdBeforeWrap = 2147483645;

// Frame-manager instances and "_" modules are started and stopped without a log line.
bool isQuietModuleName(const std::string& name) {
  return name.find("KXFrameManager_") != std::string::npos || (!name.empty() && name[0] == '_');
}

}  // namespace

KXBrokerImpl::KXBrokerImpl(KXBroker* self)
    : self_(self),
      shutdownMutex_(KXMutex::create()),
      moduleLock_(KXMutexRW::create()),
      taskIdMutex_(KXMutex::create()) {}

KXBrokerImpl::~KXBrokerImpl() = default;

void KXBrokerImpl::init(const std::string& name, const std::string& ip, int port,
                        const std::string& parentIp, int parentPort, int flags) {
  KXScopedLock shutdownGuard(shutdownMutex_);
  if (!closed_.load()) {
    KX_THROW("KXBroker", "init", "could not initialize KXBroker twice.");
  }

  const int threads = (flags & KXBroker::kSingleThreaded) != 0 ? kPoolThreadsSingle : kPoolThreads;
  auto pool = std::make_shared<KXThreadPool>(threads, kPoolMaxThreads, kPoolCheckPeriod,
                                             kPoolTuning1, kPoolTuning2);
  pool->init(threads);
  auto monitor = std::make_shared<KXTaskMonitor>();

  {
    std::lock_guard<std::mutex> guard(stateMutex_);
    name_ = name;
    ip_ = ip;
    port_ = port;
    parentIp_ = parentIp;
    parentPort_ = parentPort;
    hasParent_ = !parentIp.empty();
    if (!hasParent_ && ip_.empty()) {
      ip_ = "0.0.0.0";
    }
    info_ = KXBrokerInfo();
    info_.name = name;
    info_.architecture = kArchitecture;
    info_.ip = ip_;
    info_.port = port;
    info_.processId = static_cast<int>(getpid());
    info_.isABroker = true;
    info_.keepAlive = (flags & KXBroker::kKeepAlive) != 0;
    threadPool_ = std::move(pool);
    taskMonitor_ = std::move(monitor);
  }
  closed_.store(false);
}

void KXBrokerImpl::shutdown() {
  if (shuttingDown_.exchange(true)) {
    return;
  }
  KXScopedLock shutdownGuard(shutdownMutex_);
  if (closed_.exchange(true)) {
    return;
  }
  const std::string name = getName();
  TU_LOG(tu::log::verbose, kCategory, "KX::KXBrokerImpl::shutdown")
      << "Shutdown \"" << name << "\" broker" << std::endl;

  leaveTree();

  // Stop the modules from a copy of the table, latest registration first: a module's exit
  // unregisters it from the table itself, which must not be locked meanwhile.
  std::vector<std::shared_ptr<KXModuleCore>> toStop;
  {
    KXScopedReadLock guard(moduleLock_);
    for (const auto& entry : modules_) {
      toStop.push_back(entry.second);
    }
  }
  std::sort(toStop.begin(), toStop.end(), [](const auto& a, const auto& b) {
    return a->getRegistrationIndex() > b->getRegistrationIndex();
  });
  for (auto& module : toStop) {
    const std::string moduleName = module->getName();
    if (!isQuietModuleName(moduleName)) {
      TU_LOG(tu::log::info, kCategory, "KX::KXBrokerImpl::shutdown")
          << "Stopping " << moduleName << std::endl;
    }
    try {
      module->exit();
    } catch (const KXError& error) {
      TU_LOG(tu::log::error, kCategory, "KX::KXBrokerImpl::shutdown")
          << "Error thrown in " << moduleName << "::exit(): " << error.what() << std::endl;
    } catch (...) {
      TU_LOG(tu::log::error, kCategory, "KX::KXBrokerImpl::shutdown")
          << "Unknown exception thrown in " << moduleName << "::exit()" << std::endl;
    }
    module.reset();
  }

  // Modules whose exit did not unregister them (or that registered meanwhile) are
  // released too; they go away outside the lock, as their destructors may call back.
  std::map<std::string, std::shared_ptr<KXModuleCore>> leftOver;
  {
    KXScopedWriteLock guard(moduleLock_);
    leftOver.swap(modules_);
  }
  leftOver.clear();
  proxies_.clear();

  // Safe from one of the pool's own workers: the pool then waits for the others only.
  if (auto pool = getThreadPool()) {
    pool->shutdown();
  }

  // Destroying a broker that was never shared (or is being destroyed) skips this step:
  // it cannot be listed.
  if (auto self = self_->weak_from_this().lock()) {
    if (auto manager = detail::existingBrokerManager()) {
      manager->removeBroker(self);
    }
  }

  if (!getBrokerInfo().keepAlive) {
    TU_LOG(tu::log::info, kCategory, "KX::KXBrokerImpl::shutdown") << "Exit" << std::endl;
  }
}

void KXBrokerImpl::leaveTree() {
  std::shared_ptr<KXNetworkService> network = getNetwork();
  if (network && hasParent()) {
    try {
      network->leaveParent();
    } catch (const KXError& error) {
      TU_LOG(tu::log::warning, kCategory, "KX::KXBrokerImpl::shutdown")
          << "cannot leave the parent: " << error.what() << std::endl;
    }
  }
  // The children's connections go before the network module that carries them.
  children_.clear();
  std::shared_ptr<KXBrokerProxy> parent;
  {
    std::lock_guard<std::mutex> guard(stateMutex_);
    parent.swap(parent_);
  }
}

void KXBrokerImpl::registerModule(const std::string& name,
                                  const std::shared_ptr<KXModuleCore>& module) {
  KX_ASSERT("KXBroker", module != nullptr);
  if (!isQuietModuleName(name)) {
    TU_LOG(tu::log::info, kCategory, "KX::KXBrokerImpl::registerModule")
        << "Starting " << name << std::endl;
  }

  // The module registered under the name is exited first (its exit unregisters it), then
  // the new one takes the name. Registrations of one name may race: the name is taken only
  // if it still holds the module exited (or none); else the newcomer is exited in turn, so
  // that no module leaves the table without its exit.
  std::shared_ptr<KXModuleCore> previous;
  {
    KXScopedReadLock guard(moduleLock_);
    auto found = modules_.find(name);
    if (found != modules_.end()) previous = found->second;
  }
  for (;;) {
    if (previous && previous != module) {
      previous->exit();  // not under the lock: exit unregisters the module
    }
    KXScopedWriteLock guard(moduleLock_);
    std::shared_ptr<KXModuleCore>& slot = modules_[name];
    if (slot == nullptr || slot == previous || slot == module) {
      slot = module;
      module->setRegistrationIndex(++registrationCounter_);
      break;
    }
    previous = slot;
  }
  proxies_.forget(name);
}

void KXBrokerImpl::unregisterModule(const std::string& name, const KXModuleCore* module) {
  std::shared_ptr<KXModuleCore> removed;
  {
    KXScopedWriteLock guard(moduleLock_);
    auto found = modules_.find(name);
    if (found == modules_.end() || found->second.get() != module) {
      return;
    }
    removed = std::move(found->second);
    modules_.erase(found);
  }
  proxies_.forget(name);
  // `removed` may be the last owner: the module is destroyed here, outside the lock.
}

std::shared_ptr<KXModuleCore> KXBrokerImpl::getModuleCore(const std::string& name) const {
  KXScopedReadLock guard(moduleLock_);
  auto found = modules_.find(name);
  return found != modules_.end() ? found->second : nullptr;
}

std::vector<std::shared_ptr<KXModuleCore>> KXBrokerImpl::getModules() const {
  std::vector<std::shared_ptr<KXModuleCore>> modules;
  KXScopedReadLock guard(moduleLock_);
  modules.reserve(modules_.size());
  for (const auto& entry : modules_) {
    modules.push_back(entry.second);
  }
  return modules;
}

KXModuleInfo KXBrokerImpl::describeLocalModule(const std::string& name) const {
  return describeModuleOf(getBrokerInfo(), name);
}

std::shared_ptr<KXModuleCore> KXBrokerImpl::findCallTarget(const std::string& operation,
                                                           const std::string& module,
                                                           const std::string& method) const {
  std::shared_ptr<KXModuleCore> core = getModuleCore(module);
  if (!core) {
    KX_THROW("KXBroker", operation,
             "Module not found.Could not execute method \"" + method + "\" of module \"" + module +
                 "\" because this module does not exist.");
  }
  if (!core->getMethodInfo(method)) {
    KX_THROW(module, "Method not found",
             "Function " + method + " does not exist in module " + module);
  }
  return core;
}

KXValue KXBrokerImpl::methodCall(const std::string& module, const std::string& method,
                                 const KXValue& params) {
  std::shared_ptr<KXModuleCore> core = findCallTarget("methodCall", module, method);
  KXValue result;
  try {
    core->execute(method, params, result);
  } catch (const KXError& error) {
    // The call's own text follows on the next line, so the cause is kept.
    KX_THROW(
        "KXBroker", "methodCall",
        "methodCall: method: " + method + ", params: " + params.toString(1) + "\n" + error.what());
  }
  return result;
}

int KXBrokerImpl::post(const std::string& module, const std::string& method,
                       const KXValue& params) {
  std::shared_ptr<KXModuleCore> core = findCallTarget("post", module, method);
  try {
    std::shared_ptr<detail::KXTaskInfo> info = createTaskInfo(module, method);
    auto task = std::make_shared<pcall_request>(getTaskMonitor(), info, core, method, params);
    return queueParallelCall(info, task);
  } catch (const KXError& error) {
    KX_THROW("KXBroker", "post",
             "post method: " + method + ", params: " + params.toString(1) + "\n" + error.what());
  }
}

// The second option has no role for a proxy built from a broker; it is kept for callers
// that pass the address form's two options.
std::shared_ptr<KXProxy> KXBrokerImpl::getProxy(const std::string& module, int flags,
                                                int /*reserved*/) {
  return proxies_.get(
      module, [&] { return std::make_shared<KXProxy>(self_->shared_from_this(), module, flags); });
}

int KXBrokerImpl::newTaskId() {
  KXScopedLock guard(taskIdMutex_);
  if (lastTaskId_ > kLastTaskIdBeforeWrap) {
    lastTaskId_ = 0;
  }
  lastTaskId_ += 2;
  return lastTaskId_;
}

void KXBrokerImpl::resetTaskIds(int last) {
  KXScopedLock guard(taskIdMutex_);
  lastTaskId_ = last;
}

std::shared_ptr<detail::KXTaskInfo> KXBrokerImpl::createTaskInfo(const std::string& module,
                                                                 const std::string& method) {
  return std::make_shared<detail::KXTaskInfo>(newTaskId(), module, method);
}

int KXBrokerImpl::queueParallelCall(const std::shared_ptr<detail::KXTaskInfo>& info,
                                    const std::shared_ptr<KXTask>& task) {
  KX_ASSERT("KXBroker", info != nullptr && task != nullptr);
  std::shared_ptr<KXTaskMonitor> monitor = getTaskMonitor();
  std::shared_ptr<KXThreadPool> pool = getThreadPool();
  if (!monitor || !pool) {
    KX_THROW("KXBroker", "post", "The broker is shutting down.");
  }
  // Entered before queueing, so that isRunning is true as soon as the caller has the id.
  monitor->add(info);
  task->setName("pcall: " + info->moduleName + "::" + info->methodName);
  if (!pool->enqueue(task)) {
    monitor->remove(info->id);
    KX_THROW("KXBroker", "post", "The broker is shutting down.");
  }
  return info->id;
}

std::string KXBrokerImpl::getName() const {
  std::lock_guard<std::mutex> guard(stateMutex_);
  return name_;
}

std::string KXBrokerImpl::getIP() const {
  std::lock_guard<std::mutex> guard(stateMutex_);
  return ip_;
}

int KXBrokerImpl::getPort() const {
  std::lock_guard<std::mutex> guard(stateMutex_);
  return port_;
}

std::string KXBrokerImpl::getParentIP() const {
  std::lock_guard<std::mutex> guard(stateMutex_);
  return parentIp_;
}

int KXBrokerImpl::getParentPort() const {
  std::lock_guard<std::mutex> guard(stateMutex_);
  return parentPort_;
}

bool KXBrokerImpl::hasParent() const {
  std::lock_guard<std::mutex> guard(stateMutex_);
  return hasParent_;
}

KXBrokerInfo KXBrokerImpl::getBrokerInfo() const {
  std::lock_guard<std::mutex> guard(stateMutex_);
  return info_;
}

void KXBrokerImpl::setIP(const std::string& ip) {
  std::lock_guard<std::mutex> guard(stateMutex_);
  ip_ = ip;
  info_.ip = ip;
}

void KXBrokerImpl::setPort(int port) {
  std::lock_guard<std::mutex> guard(stateMutex_);
  port_ = port;
  info_.port = port;
}

std::shared_ptr<KXThreadPool> KXBrokerImpl::getThreadPool() const {
  std::lock_guard<std::mutex> guard(stateMutex_);
  return threadPool_;
}

std::shared_ptr<KXTaskMonitor> KXBrokerImpl::getTaskMonitor() const {
  std::lock_guard<std::mutex> guard(stateMutex_);
  return taskMonitor_;
}

}  // namespace KX
