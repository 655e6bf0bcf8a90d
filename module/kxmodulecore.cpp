#include "module/kxmodulecore.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <map>
#include <utility>

#include "log/log.h"
#include "module/kxmodulehost.h"
#include "module/kxpcalltask.h"
#include "module/kxtaskmonitor.h"
#include "thread/kxmutex.h"
#include "value/kxerror.h"

namespace KX {

namespace {

constexpr char kCategory[] = "core.common.modulecore";
constexpr char kBuiltinClass[] = "KXModule";

bool isForbiddenName(const std::string& name) {
  // These names belong to the proxy's own calling operations: a method bound under one
  // of them could never be reached through a proxy.
  return name == "subscribeToTask" || name == "post" || name == "pCall" || name == "call";
}

// Whether a bound parameter type accepts an argument type. The lax form lets a KXValue
// stand for anything and an int be passed where a float is declared.
bool typeMatches(const std::string& parameter, const std::string& argument, bool lax) {
  if (parameter == argument) return true;
  if (!lax) return false;
  return parameter == "array" || argument == "array" || (parameter == "float" && argument == "int");
}

bool parametersMatch(const KXMethodInfo& info, const std::vector<std::string>& types, bool lax) {
  const auto required = static_cast<std::size_t>(
      std::count_if(info.parameters.begin(), info.parameters.end(),
                    [](const ParameterInfo& parameter) { return !parameter.optional; }));
  if (types.size() < required || types.size() > info.parameters.size()) return false;
  for (std::size_t i = 0; i < types.size(); ++i) {
    if (!typeMatches(info.parameters[i].type, types[i], lax)) return false;
  }
  return true;
}

// The type as a C++ declaration in the usage text: KXValue parameters read "array".
std::string usageTypeName(const std::string& type) {
  return type == "array" ? "KX::KXValue" : type;
}

}  // namespace

struct KXModuleCore::Impl {
  Impl(const std::shared_ptr<KXModuleHost>& parent, const std::string& moduleName)
      : name(moduleName), host(parent) {
    moduleDescription.arraySetSize(1);
    moduleDescription[0] = std::string();
  }

  // Constant after construction
  const std::string name;
  const std::weak_ptr<KXModuleHost> host;

  // Guards the method table. Taken alone, or after describeMutex (never before it).
  const std::shared_ptr<KXMutex> tableMutex = KXMutex::create();
  // Guarded by tableMutex. Entries are immutable once stored: a rebind replaces the
  // pointer, so a caller holding the old description keeps a valid functor.
  std::map<std::string, std::shared_ptr<const KXMethodInfo>> table;
  // Guarded by tableMutex: descriptions replaced by a rebind, kept for the module's
  // lifetime so that functors cached by callers never dangle.
  std::vector<std::shared_ptr<const KXMethodInfo>> retired;
  // Bumped under tableMutex by every bind; read without it.
  std::atomic<std::uint64_t> tableVersion{0};

  // The module's second lock: guards what the describing operations build up.
  const std::shared_ptr<KXMutex> describeMutex = KXMutex::create();
  // Guarded by describeMutex
  KXValue methodList;         // Array of the bound names, in bind order
  KXValue moduleDescription;  // Array; element 0 is the module's description text
  KXMethodInfo current;       // the description being filled before it is bound

  // Every method call runs under its shared side, so calls run concurrently.
  const std::shared_ptr<KXMutexRW> executionLock = KXMutexRW::create();

  std::atomic<bool> exiting{false};
  std::atomic<bool> genericDispatch{false};
  std::atomic<int> registrationIndex{-1};
};

KXModuleCore::KXModuleCore(const std::shared_ptr<KXModuleHost>& host, const std::string& name)
    : KXModuleCore(host, name, DeferBuiltins{}) {
  bindBuiltinMethods({});
}

KXModuleCore::KXModuleCore(const std::shared_ptr<KXModuleHost>& host, const std::string& name,
                           DeferBuiltins)
    : impl_(std::make_unique<Impl>(host, name)) {}

KXModuleCore::~KXModuleCore() = default;

void KXModuleCore::bindBuiltinMethods(const std::function<void()>& bindTaskControls) {
  functionName("exit", kBuiltinClass, "Exits and unregisters the module.");
  bindMethod(&KXModuleCore::exit);

  functionName("version", kBuiltinClass, "Returns the version of the module.");
  setReturn("result", "A string containing the version of the module.");
  bindMethod(&KXModuleCore::version);

  functionName("ping", kBuiltinClass, "Just a ping. Always returns true");
  setReturn("alwaysTrue", "returns true");
  bindMethod(&KXModuleCore::ping);

  functionName("getMethodList", kBuiltinClass, "Retrieves the module's method list.");
  setReturn("methodList", "An array of method names.");
  bindMethod(&KXModuleCore::getMethodList);

  functionName("getMethodHelp", kBuiltinClass, "Retrieves a method's description.");
  addParam("methodName", "The name of the method.");
  setReturn("methodHelp", "A structure containing the method's description.");
  bindMethod(&KXModuleCore::getMethodHelp);

  functionName("getModuleHelp", kBuiltinClass, "Retrieves the module's description.");
  setReturn("moduleHelp", "A structure describing the module.");
  bindMethod(&KXModuleCore::getModuleHelp);

  if (bindTaskControls) bindTaskControls();

  functionName("getBrokerName", kBuiltinClass, "Gets the name of the parent broker.");
  setReturn("brokerName", "The name of the parent broker.");
  bindMethod(&KXModuleCore::getBrokerName);

  functionName("getUsage", kBuiltinClass,
               "Gets the method usage string. This summarises how to use the method.");
  addParam("name", "The name of the method.");
  setReturn("methodUsage", "A string that summarises the usage of the method.");
  bindMethod(&KXModuleCore::getUsage);
}

// ---------------------------------------------------------------- calling

void KXModuleCore::execute(const std::string& method, const KXValue& params, KXValue& result) {
  // Keeps the module alive for the call: the built-in "exit" may drop the broker's
  // reference, possibly the last one, while the call still holds the execution lock.
  const std::shared_ptr<KXModuleCore> self = weak_from_this().lock();
  runLocked([&] { findMethod(method)->functor->call(params, result); });
}

bool KXModuleCore::admitCall() const {
  if (impl_->exiting.load()) {
    std::printf(
        "WARNING: Attempt to run a new task while shutting down. Task will not be executed.\n");
    std::fflush(stdout);
    return false;
  }
  return true;
}

bool KXModuleCore::enterCall() VELMO_NO_THREAD_SAFETY_ANALYSIS {
  if (!admitCall()) return false;
  // The module holds its lock for its whole life and the caller holds the module, so
  // the lock is taken directly: this is the hot path of every typed local call.
  impl_->executionLock->readLock();
  return true;
}

void KXModuleCore::leaveCall() VELMO_NO_THREAD_SAFETY_ANALYSIS { impl_->executionLock->unlock(); }

std::uint64_t KXModuleCore::getMethodTableVersion() const { return impl_->tableVersion.load(); }

void KXModuleCore::runExclusive(const std::function<void()>& operation) {
  KXScopedWriteLock lock(impl_->executionLock);
  operation();
}

bool KXModuleCore::requiresGenericDispatch() const { return impl_->genericDispatch.load(); }

void KXModuleCore::setRequiresGenericDispatch(bool generic) {
  impl_->genericDispatch.store(generic);
}

std::string KXModuleCore::version() { return "1.14"; }

void KXModuleCore::exit() {
  if (impl_->exiting.exchange(true)) return;
  // Without a broker there is no table to leave.
  if (const std::shared_ptr<KXModuleHost> host = impl_->host.lock()) {
    host->unregisterModule(getName(), this);
  }
}

std::string KXModuleCore::getContentPage() { return ""; }

// ---------------------------------------------------------------- describing and binding

void KXModuleCore::functionName(const std::string& name, const std::string& className,
                                const std::string& description, std::uint16_t mask) {
  if (isForbiddenName(name)) {
    KX_THROW(impl_->name, name,
             "Cannot bind this method because the name is forbidden. Forbidden names include "
             "subscribeToTask, post, pCall and call");
  }
  KXScopedLock lock(impl_->describeMutex);
  KXMethodInfo& current = impl_->current;
  current.reset();
  current.methodName = name;
  current.methodDescription = description;
  current.className = className;
  current.mask = static_cast<std::uint16_t>(mask | KXMethodInfo::kNativeMethod);
}

void KXModuleCore::addParam(const std::string& name, const std::string& description) {
  KXScopedLock lock(impl_->describeMutex);
  ParameterInfo parameter;
  parameter.name = name;
  parameter.description = description;
  impl_->current.parameters.push_back(std::move(parameter));
}

void KXModuleCore::addParam(const std::string& name, const std::string& description,
                            bool optional) {
  KXScopedLock lock(impl_->describeMutex);
  ParameterInfo parameter;
  parameter.name = name;
  parameter.description = description;
  parameter.optional = optional;
  impl_->current.parameters.push_back(std::move(parameter));
}

void KXModuleCore::clearDescriptionFlags(std::uint16_t bits) {
  KXScopedLock lock(impl_->describeMutex);
  impl_->current.mask = static_cast<std::uint16_t>(impl_->current.mask & ~bits);
}

std::string KXModuleCore::describedMethodName() const {
  KXScopedLock lock(impl_->describeMutex);
  return impl_->current.methodName;
}

void KXModuleCore::completeParameters(std::size_t count) {
  KXScopedLock lock(impl_->describeMutex);
  std::vector<ParameterInfo>& parameters = impl_->current.parameters;
  for (std::size_t position = parameters.size() + 1; position <= count; ++position) {
    ParameterInfo parameter;
    parameter.name = "arg" + std::to_string(position);
    parameters.push_back(std::move(parameter));
  }
}

void KXModuleCore::setReturn(const std::string& name, const std::string& description) {
  KXScopedLock lock(impl_->describeMutex);
  impl_->current.returnValue.name = name;
  impl_->current.returnValue.description = description;
}

void KXModuleCore::setSignatureTypes(const std::vector<std::string>& parameterTypes,
                                     const std::string& returnType) {
  KXScopedLock lock(impl_->describeMutex);
  std::vector<ParameterInfo>& parameters = impl_->current.parameters;
  // The signature is what the functor will really take: parameters left undescribed
  // get an entry without name, so that lookups by signature see the true arity.
  if (parameters.size() < parameterTypes.size()) parameters.resize(parameterTypes.size());
  for (std::size_t i = 0; i < parameterTypes.size(); ++i) parameters[i].type = parameterTypes[i];
  impl_->current.returnValue.type = returnType;
}

void KXModuleCore::bindMethod(const std::shared_ptr<KXFunctorBase>& functor) {
  KX_ASSERT("KXModuleCore", functor != nullptr);
  KXScopedLock describeLock(impl_->describeMutex);
  KXScopedLock tableLock(impl_->tableMutex);
  auto info = std::make_shared<KXMethodInfo>(impl_->current);
  info->functor = functor;
  impl_->methodList.arrayPush(KXValue(info->methodName));
  auto& entry = impl_->table[info->methodName];
  if (entry) impl_->retired.push_back(std::move(entry));
  entry = std::move(info);
  impl_->tableVersion.fetch_add(1);
  impl_->current.reset();
}

void KXModuleCore::bindMethod(const std::shared_ptr<KXFunctorBase>& functor,
                              const std::vector<std::string>& parameterTypes,
                              const std::string& returnType) {
  setSignatureTypes(parameterTypes, returnType);
  bindMethod(functor);
}

void KXModuleCore::setModuleDescription(const std::string& text) {
  KXScopedLock lock(impl_->describeMutex);
  impl_->moduleDescription[0] = text;
}

// ---------------------------------------------------------------- queries

const std::string& KXModuleCore::getName() const { return impl_->name; }

std::vector<std::string> KXModuleCore::getMethodList() {
  KXValue names;
  {
    KXScopedLock lock(impl_->describeMutex);
    names = impl_->methodList;
  }
  std::vector<std::string> visible;
  for (int i = 0; i < names.getSize(); ++i) {
    const std::string& name = static_cast<const std::string&>(names[i]);
    if (!isInternalModuleName(name)) visible.push_back(name);
  }
  return visible;
}

KXValue KXModuleCore::getMethodHelp(const std::string& name) {
  const std::shared_ptr<const KXMethodInfo> info = getMethodInfo(name);
  if (!info) KX_THROW(impl_->name, "getMethodHelp", "ERROR: unknown method: '" + name + "'");

  KXValue help;
  help.arraySetSize(5);
  help[0] = info->methodName;
  help[1] = info->methodDescription;
  // One flat array of names and descriptions; left Invalid when there is no parameter.
  if (!info->parameters.empty()) {
    KXValue& parameters = help[2];
    parameters.arraySetSize(static_cast<int>(2 * info->parameters.size()));
    for (std::size_t i = 0; i < info->parameters.size(); ++i) {
      parameters[static_cast<int>(2 * i)] = info->parameters[i].name;
      parameters[static_cast<int>(2 * i + 1)] = info->parameters[i].description;
    }
  }
  help[3] = info->returnValue.name;
  help[4] = info->returnValue.description;
  return help;
}

KXMethodInfo KXModuleCore::getMethodHelpObject(const std::string& name) {
  const std::shared_ptr<const KXMethodInfo> info = getMethodInfo(name);
  if (!info) {
    TU_LOG(tu::log::error, kCategory, "KX::KXModuleCore::getMethodHelpObject")
        << name << " not found in " << impl_->name << std::endl;
    KX_THROW("KXModuleCore", "getMethodHelpObject",
             "Method " + impl_->name + "::" + name + " not found");
  }
  return *info;
}

KXValue KXModuleCore::getModuleHelp() {
  KXScopedLock lock(impl_->describeMutex);
  return impl_->moduleDescription;
}

std::string KXModuleCore::getUsage(const std::string& name) {
  try {
    // An unknown name gives the text of an empty description.
    const std::shared_ptr<const KXMethodInfo> found = getMethodInfo(name);
    const KXMethodInfo info = found ? *found : KXMethodInfo();

    std::string signature;
    std::string details = "\n  " + info.methodDescription;
    if (info.returnValue.type == "void") {
      signature += "void ";
    } else {
      signature += usageTypeName(info.returnValue.type) + " ";
      details += "\n  Returns: " + info.returnValue.description;
    }
    signature += info.methodName + "(";
    details += "\n\n";
    for (std::size_t i = 0; i < info.parameters.size(); ++i) {
      const ParameterInfo& parameter = info.parameters[i];
      signature += "const " + usageTypeName(parameter.type) + "& " + parameter.name;
      if (i + 1 < info.parameters.size()) signature += ", ";
      details += "  " + parameter.name + " : " + parameter.description + "\n";
    }
    signature += ")\n";
    return "\n========================= Usage ============================\n" + signature +
           details + "\n------------------------------------------------------------\n";
  } catch (...) {
    TU_LOG(tu::log::error, kCategory, "KX::KXModuleCore::getUsage")
        << "KXModuleCore::getUsage: failed to create usage text" << std::endl;
    return "";
  }
}

bool KXModuleCore::ping() { return true; }

std::shared_ptr<KXModuleHost> KXModuleCore::getHost() const {
  std::shared_ptr<KXModuleHost> host = impl_->host.lock();
  if (!host) {
    KX_THROW("KXModule", "getParentBroker",
             "Module " + impl_->name + " does not have a Broker anymore.");
  }
  return host;
}

std::shared_ptr<KXBroker> KXModuleCore::getParentBroker() const { return getHost()->broker(); }

std::string KXModuleCore::getBrokerName() { return getHost()->getName(); }

// ---------------------------------------------------------------- method lookup

std::shared_ptr<const KXMethodInfo> KXModuleCore::getMethodInfo(const std::string& name) {
  KXScopedLock lock(impl_->tableMutex);
  const auto entry = impl_->table.find(name);
  return entry == impl_->table.end() ? nullptr : entry->second;
}

std::shared_ptr<const KXMethodInfo> KXModuleCore::findMethod(const std::string& name) {
  std::shared_ptr<const KXMethodInfo> info = getMethodInfo(name);
  if (!info) {
    KX_THROW(impl_->name, name, "Function " + name + " does not exist in module " + impl_->name);
  }
  return info;
}

std::shared_ptr<const KXMethodInfo> KXModuleCore::findMethod(const std::string& name,
                                                             const std::vector<std::string>& types,
                                                             bool lax) {
  // The table holds one entry per name, so the first match is the entry of that name.
  std::shared_ptr<const KXMethodInfo> info = findMethod(name);
  if (!parametersMatch(*info, types, lax)) {
    KX_THROW(impl_->name, name,
             std::string("Function exists but parameters were wrong. ") +
                 " You tried: " + signatureText(name, types) + "\n");
  }
  return info;
}

// ---------------------------------------------------------------- parallel calls

std::shared_ptr<KXTaskMonitor> KXModuleCore::getTaskMonitor() const {
  std::shared_ptr<KXTaskMonitor> monitor = getHost()->getTaskMonitor();
  KX_ASSERT("KXModuleCore", monitor != nullptr);
  return monitor;
}

int KXModuleCore::pCall(const std::string& method, const KXValue& params) {
  const std::shared_ptr<const KXMethodInfo> info = findMethod(method);
  const std::shared_ptr<KXModuleHost> host = getHost();
  const std::shared_ptr<detail::KXTaskInfo> task = host->createTaskInfo(impl_->name, method);
  // The task holds the module strongly: its functor calls this object.
  return host->queueParallelCall(
      task,
      std::make_shared<KXPCallTask>(getTaskMonitor(), task, shared_from_this(), info, params));
}

int KXModuleCore::getTaskIdForCurrentThread() {
  return getTaskMonitor()->getTaskIdForCurrentThread(impl_->name);
}

bool KXModuleCore::isStopRequested(int taskId) { return getTaskMonitor()->isStopRequested(taskId); }

// ---------------------------------------------------------------- broker bookkeeping

int KXModuleCore::getRegistrationIndex() const { return impl_->registrationIndex.load(); }

void KXModuleCore::setRegistrationIndex(int index) { impl_->registrationIndex.store(index); }

bool KXModuleCore::isExiting() const { return impl_->exiting.load(); }

}  // namespace KX
