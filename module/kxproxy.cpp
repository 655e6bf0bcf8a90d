#include "module/kxproxy.h"

#include <utility>

#include "module/kxmodulecore.h"
#include "module/kxmodulehost.h"
#include "module/kxnetworkservice.h"
#include "module/kxpcalltask.h"
#include "value/kxerror.h"

namespace KX {

struct KXProxy::Impl {
  // Constant after construction.
  int flags = 0;
  std::shared_ptr<KXModuleInfo> moduleInfo = std::make_shared<KXModuleInfo>();
  std::weak_ptr<KXModuleHost> broker;
  // Local proxies only: the module and its core (the module is empty when the core is
  // no KXModule).
  std::weak_ptr<KXModule> module;
  std::weak_ptr<KXModuleCore> core;
  bool local = false;
  std::string brokerName;
  // Remote proxies only: the connection the network service keeps for this proxy.
  std::weak_ptr<KXNetworkService> network;
  int connection = 0;
};

namespace {

// A generic call's arguments as an Array: a single value becomes a one-element Array,
// Invalid an empty one.
KXValue asArgumentArray(const KXValue& params) {
  if (params.getType() == KXValue::TypeArray) return params;
  KXValue array;
  array.arraySetSize(0);
  if (params.isValid()) array.arrayPush(params);
  return array;
}

}  // namespace

KXProxy::KXProxy(const std::shared_ptr<KXModuleHost>& broker, const std::string& moduleName,
                 int flags)
    : impl_(std::make_unique<Impl>()) {
  KX_ASSERT("KXProxy", broker != nullptr);
  impl_->flags = flags;
  impl_->broker = broker;

  std::shared_ptr<KXModuleCore> core;
  if ((flags & kSkipLocalBroker) == 0) {
    core = broker->getModuleCore(moduleName);
    if (core) *impl_->moduleInfo = describeModuleOf(broker->getBrokerInfo(), moduleName);
  }
  if (impl_->moduleInfo->name.empty()) {
    KXModuleInfo found;
    if (broker->getModuleByName(moduleName, (flags & kSkipLocalBroker) != 0, found) != 0 ||
        found.name.empty()) {
      KX_THROW("KXProxy", "constructor", "Module '" + moduleName + "' not found.");
    }
    *impl_->moduleInfo = found;
    // The tree search answers with modules of the given broker (it has no other broker
    // to look in): those are called directly as well.
    core = broker->getModuleCore(moduleName);
    if (!core) {
      bindRemote(found);
      return;
    }
  }

  impl_->core = core;
  impl_->module = std::dynamic_pointer_cast<KXModule>(core);
  impl_->local = true;
  impl_->brokerName = broker->getName();
}

KXProxy::KXProxy(const std::shared_ptr<KXModuleHost>& via, const std::string& moduleName,
                 const std::string& ip, int port, int flags)
    : impl_(std::make_unique<Impl>()) {
  impl_->flags = flags;
  impl_->moduleInfo->name = moduleName;
  impl_->moduleInfo->ip = ip;
  impl_->moduleInfo->port = port;
  impl_->broker = via;
  const std::shared_ptr<KXNetworkService> network = via->getNetwork();
  if (!network) KX_THROW("KXProxy", "exploreToGetModuleByName", "No network");

  KXModuleInfo remoteBroker;
  remoteBroker.name = "KXNetwork";
  remoteBroker.ip = ip;
  remoteBroker.port = port;
  remoteBroker.isABroker = true;
  const int asked =
      network->createConnection(remoteBroker, endpointOf(ip, port), kBrokerQuestionTimeoutSeconds);
  KXModuleInfo found;
  int status = -1;
  try {
    status = network->exploreToGetModuleByName(asked, moduleName, true, true, "",
                                               (flags & kSkipLocalBroker) != 0, found);
  } catch (...) {
    network->destroyConnection(asked);
    throw;
  }
  network->destroyConnection(asked);
  if (status != 0 || found.name.empty()) {
    KX_THROW("KXProxy", "constructor", "Module '" + moduleName + "' not found.");
  }
  if (found.ip == "0.0.0.0") found.ip = "127.0.0.1";
  *impl_->moduleInfo = found;
  bindRemote(found);
}

KXProxy::~KXProxy() {
  if (impl_->connection == 0) return;
  if (std::shared_ptr<KXNetworkService> network = impl_->network.lock()) {
    network->destroyConnection(impl_->connection);
  }
}

void KXProxy::bindRemote(const KXModuleInfo& info) {
  const std::shared_ptr<KXModuleHost> broker = lockBroker();
  const std::shared_ptr<KXNetworkService> network = broker->getNetwork();
  if (!network) KX_THROW("KXProxy", "CALL_METHODS", "No network");
  std::string ip = info.ip;
  // Audio output runs beside its broker: those modules are always reached on this machine.
  const std::string localName = broker->getName();
  if (localName == "audioout" ||
      (localName == "Velmo" && (info.name == "KXTextToSpeech" || info.name == "KXAudioPlayer"))) {
    ip = "127.0.0.1";
  }
  impl_->local = false;
  impl_->network = network;
  impl_->connection = network->createConnection(info, endpointOf(ip, info.port), 0);
  const KXValue name = network->callMethod(impl_->connection, "getBrokerName", KXValue());
  impl_->brokerName =
      name.getType() == KXValue::TypeString ? static_cast<const std::string&>(name) : std::string();
}

std::shared_ptr<KXModuleHost> KXProxy::lockBroker() const {
  std::shared_ptr<KXModuleHost> broker = impl_->broker.lock();
  if (!broker) KX_THROW("KXBroker", "no broker available", "");
  return broker;
}

std::shared_ptr<KXModule> KXProxy::lockModule() const {
  std::shared_ptr<KXModule> module = impl_->module.lock();
  if (!module) {
    KX_THROW("KXProxy", "getModule",
             "module is deleted or is not an KXModule, cannot call function of " +
                 impl_->moduleInfo->name);
  }
  return module;
}

std::shared_ptr<KXModuleCore> KXProxy::lockModuleCore() const {
  std::shared_ptr<KXModuleCore> core = impl_->core.lock();
  if (!core) throwModuleDeleted();
  return core;
}

void KXProxy::throwModuleDeleted() const {
  KX_THROW("KXProxy", "getModuleCore",
           "module is deleted, cannot call function of " + impl_->moduleInfo->name);
}

namespace {

// Exact type-name equality. The names on both sides come from the same table, so the
// common case is decided by the length and a short compare.
bool sameType(const std::string& declared, const char* given) { return declared == given; }

std::vector<std::string> typeList(const char* const* argTypes, std::size_t argCount) {
  return std::vector<std::string>(argTypes, argTypes + argCount);
}

}  // namespace

std::shared_ptr<const KXMethodInfo> KXProxy::typedMethod(KXModuleCore& core,
                                                         const std::string& method,
                                                         const char* const* argTypes,
                                                         std::size_t argCount,
                                                         const char* returnType) const {
  std::shared_ptr<const KXMethodInfo> info = core.getMethodInfo(method);
  if (!info || info->parameters.size() != argCount) {
    // Not bound under that name, or bound with another number of parameters: the lookup
    // by signature finds it or says what is wrong.
    info = core.findMethod(method, typeList(argTypes, argCount), false);
  }
  if (returnType != nullptr && !sameType(info->returnValue.type, returnType)) {
    KX_THROW("KXProxy", "call",
             "wrong return type for function '" + method + "'" + " type is '" + returnType + "'" +
                 " instead of '" + info->returnValue.type);
  }
  for (std::size_t i = 0; i < argCount; ++i) {
    const std::string& declared = info->parameters[i].type;
    if (!sameType(declared, argTypes[i])) {
      KX_THROW("KXProxy", "call/pCall",
               "When trying to call module '" + impl_->moduleInfo->name + "' function '" + method +
                   "' parameter #" + std::to_string(i + 1) + " is of type " + argTypes[i] +
                   " instead of type " + declared);
    }
  }
  return info;
}

KXValue KXProxy::localGenericCall(KXModuleCore& core, const std::string& method,
                                  const KXValue& params) {
  KXValue result;
  core.execute(method, params, result);
  return result;
}

std::shared_ptr<KXNetworkService> KXProxy::lockNetwork() const {
  std::shared_ptr<KXNetworkService> network = impl_->network.lock();
  if (!network) KX_THROW("KXProxy", "CALL_METHODS", "No network");
  return network;
}

KXValue KXProxy::remoteCall(const std::string& method, const KXValue& params) {
  return lockNetwork()->callMethod(impl_->connection, method, params);
}

int KXProxy::remotePCall(const std::string& method, const KXValue& params) {
  return lockNetwork()->pCallMethod(impl_->connection, method, params);
}

int KXProxy::localTypedPCall(const std::string& method, const KXValue& params,
                             const char* const* argTypes, std::size_t argCount) {
  const std::shared_ptr<KXModuleCore> core = lockModuleCore();
  if (!core->getMethodInfo(method)) {
    KX_THROW("KXProxy", "getMethodInfo",
             "Function " + method + " does not exist in module " + impl_->moduleInfo->name);
  }
  // A module answered through execute checks its arguments itself, as for typed calls.
  if (!core->requiresGenericDispatch()) typedMethod(*core, method, argTypes, argCount, nullptr);
  return core->pCall(method, params);
}

KXValue KXProxy::genericCall(const std::string& method, const KXValue& params) {
  // An Array is passed on as it is: a large argument is not copied on its way.
  if (params.getType() != KXValue::TypeArray) return genericCall(method, asArgumentArray(params));
  if (!isLocal()) return remoteCall(method, params);
  const std::shared_ptr<KXModuleCore> core = lockModuleCore();
  return localGenericCall(*core, method, params);
}

int KXProxy::genericPCall(const std::string& method, const KXValue& params) {
  const KXValue arguments = asArgumentArray(params);
  if (!isLocal()) return remotePCall(method, arguments);
  const std::shared_ptr<KXModuleCore> core = lockModuleCore();
  if (!core->getMethodInfo(method)) KX_THROW("KXProxy", "genericPCall", "method not found");
  const std::shared_ptr<KXModuleHost> broker = lockBroker();
  std::shared_ptr<detail::KXTaskInfo> info =
      broker->createTaskInfo(impl_->moduleInfo->name, method);
  auto task =
      std::make_shared<GenericPCallTask>(broker->getTaskMonitor(), info, core, method, arguments);
  return broker->queueParallelCall(info, task);
}

bool KXProxy::wait(int taskId, int timeoutMs) {
  if (isLocal()) lockModule();
  return call<bool>("wait", taskId, timeoutMs);
}

void KXProxy::stop(int taskId) {
  if (isLocal()) lockModule();
  call<void>("stop", taskId);
}

bool KXProxy::isRunning(int taskId) {
  if (isLocal()) lockModule();
  return call<bool>("isRunning", taskId);
}

const std::string& KXProxy::getModuleName() const { return impl_->moduleInfo->name; }

KXModuleInfo KXProxy::getModuleInfo() const { return *impl_->moduleInfo; }

std::string KXProxy::getBrokerName() const { return impl_->brokerName; }

bool KXProxy::isLocal() const { return impl_->local; }

std::shared_ptr<KXModuleCore> KXProxy::getLocalModuleCore() const { return impl_->core.lock(); }

}  // namespace KX
