#ifndef VELMO_MODULE_KXMODULECORE_H_
#define VELMO_MODULE_KXMODULECORE_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "module/kxfunctor.h"
#include "module/kxfunctorconvert.h"
#include "module/kxmethodinfo.h"
#include "value/kxvalue.h"

namespace KX {

class KXBroker;
class KXModuleHost;
class KXTaskMonitor;

// The base of every module: a named object that publishes methods which other code calls
// by name with an Array of KXValue arguments.
//
// Ownership: modules are held by std::shared_ptr (the broker's module table, proxies
// lock their weak references for the duration of a call); a module refers to its broker
// weakly, through the KXModuleHost it implements. Build one with createModule<T>(broker,
// name), which also registers it.
//
// A module describes and binds its methods in its constructor:
//   functionName("add", "Calculator", "Adds two numbers");
//   addParam("a", "first term");
//   addParam("b", "second term");
//   setReturn("sum", "a + b");
//   bindMethod(&Calculator::add);   // int add(const int&, const int&)
//
// Thread-safety: every public member may be called from any thread once constructed;
// calls of one module run concurrently, each under the shared side of the module's
// execution lock (methods answered in another language excepted: they only check that the
// module is not exiting). The describing functions are meant for the constructor.
class KXModuleCore : public std::enable_shared_from_this<KXModuleCore> {
 public:
  // Binds the built-in methods of every module (see bindBuiltinMethods).
  KXModuleCore(const std::shared_ptr<KXModuleHost>& host, const std::string& name);
  virtual ~KXModuleCore();
  KXModuleCore(const KXModuleCore&) = delete;
  KXModuleCore& operator=(const KXModuleCore&) = delete;

  // ---- Calling
  // Finds `method` by name and calls it with `params` under the shared side of the
  // execution lock. While the module is exiting, prints "WARNING: Attempt to run a new
  // task while shutting down. Task will not be executed." and leaves `result` alone.
  virtual void execute(const std::string& method, const KXValue& params, KXValue& result);
  // "1.14" unless a module says otherwise.
  virtual std::string version();
  // Acts once: marks the module exiting and hands its name to the parent broker (if it
  // still exists), which removes the module. Bound as the built-in method "exit".
  virtual void exit();
  // The module's own content page ("<name>Content.html"); empty by default.
  virtual std::string getContentPage();

  // Runs `call` under the shared side of the execution lock, or prints the exiting
  // warning and returns false without running it. Typed local calls go through here.
  template <typename F>
  bool runLocked(F&& call) {
    if (!enterCall()) return false;
    struct Leave {
      KXModuleCore& module;
      ~Leave() { module.leaveCall(); }
    } leave{*this};
    call();
    return true;
  }
  // Changes whenever a method is bound. A description the table held once stays alive
  // as long as the module does (a rebind retires it), so a functor found while the
  // version was v may be called, under a strong reference to the module, for as long as
  // the version is still v.
  std::uint64_t getMethodTableVersion() const;
  // Runs `operation` under the exclusive side of the execution lock: waits until no call
  // of this module is running and holds new calls back meanwhile. Must not be called
  // from within a call of this module (it would wait for itself).
  void runExclusive(const std::function<void()>& operation);
  // True for modules whose methods are no C++ functors (modules written in another
  // language): typed calls then take the generic path.
  bool requiresGenericDispatch() const;

  // ---- Describing and binding
  // Starts a new description; "subscribeToTask", "post", "pCall" and "call" are refused
  // with KXError(<module>, <name>, "Cannot bind this method because the name is
  // forbidden. Forbidden names include subscribeToTask, post, pCall and call").
  void functionName(const std::string& name, const std::string& className,
                    const std::string& description, std::uint16_t mask = 0);
  void addParam(const std::string& name, const std::string& description);
  // As above; `optional` marks a parameter that callers may leave out. Optional
  // parameters normally come last: a lookup by signature then accepts any argument count
  // from the number of required parameters up to the total, and the functor (one of its
  // own, see bindMethod below) decides from the count which form was called.
  void addParam(const std::string& name, const std::string& description, bool optional);
  void setReturn(const std::string& name, const std::string& description);
  // Fills the parameter and result types from the member function's signature, makes
  // the functor over this object and binds it.
  template <typename C, typename R, typename... P>
  void bindMethod(R (C::*method)(const P&...)) {
    static_assert(std::is_base_of<KXModuleCore, C>::value, "bind methods of the module itself");
    std::vector<std::string> types{detail::typeNameOf<std::decay_t<P>>()...};
    setSignatureTypes(types, detail::typeNameOf<R>());
    bindMethod(std::make_shared<detail::KXFunctor<C, R, P...>>(static_cast<C*>(this), method));
  }
  // Appends the method name to the method list and stores the current description with
  // `functor` in the table under its name (replacing an earlier method of that name).
  void bindMethod(const std::shared_ptr<KXFunctorBase>& functor);
  // Binds a functor of another kind (one that is no bound member function) with the
  // parameter and result types it declares, as typeName() spells them ("string",
  // "array", "void *", ...): lookups by signature and typed calls check these.
  void bindMethod(const std::shared_ptr<KXFunctorBase>& functor,
                  const std::vector<std::string>& parameterTypes, const std::string& returnType);
  void setModuleDescription(const std::string& text);

  // ---- Queries
  const std::string& getName() const;
  // Bound names in bind order (a name bound twice is listed twice), hidden names
  // ("_..." and the internal ones) left out.
  std::vector<std::string> getMethodList();
  // [name, description, [p1, d1, p2, d2, ...] or Invalid, result name, result description]
  KXValue getMethodHelp(const std::string& name);
  KXMethodInfo getMethodHelpObject(const std::string& name);
  KXValue getModuleHelp();
  std::string getUsage(const std::string& name);
  bool ping();
  // Throws KXError("KXModule", "getParentBroker", "Module <name> does not have a Broker
  // anymore.") once the broker is gone.
  std::shared_ptr<KXBroker> getParentBroker() const;
  // The same broker as the module layer sees it; the same error once it is gone.
  std::shared_ptr<KXModuleHost> getHost() const;
  std::string getBrokerName();

  // ---- Method lookup
  // The description bound under `name`, or null.
  std::shared_ptr<const KXMethodInfo> getMethodInfo(const std::string& name);
  // The description bound under `name`; throws KXError(<module>, <name>, "Function
  // <name> does not exist in module <module>") when there is none.
  std::shared_ptr<const KXMethodInfo> findMethod(const std::string& name);
  // The first entry named `name` whose parameter types match `types` (exactly, or with
  // `lax` also where either side is "array" or the parameter is "float" and the argument
  // "int"). With optional parameters, any count from the required ones up to the total
  // matches, position by position for the arguments given. Throws "Function exists but parameters
  // were wrong. ..." when the name exists with other parameters, and the findMethod error when it
  // does not exist.
  std::shared_ptr<const KXMethodInfo> findMethod(const std::string& name,
                                                 const std::vector<std::string>& types, bool lax);

  // ---- Parallel calls of this module's methods (answered from the broker's task
  // monitor; the broker must still exist).
  // Runs `method` with `params` on the broker's thread pool; returns its task id.
  int pCall(const std::string& method, const KXValue& params);
  // The id of the parallel call of this module running on the calling thread, or -1.
  int getTaskIdForCurrentThread();
  bool isStopRequested(int taskId);

  // ---- Broker bookkeeping
  int getRegistrationIndex() const;
  void setRegistrationIndex(int index);
  bool isExiting() const;

 protected:
  // For classes that bind built-in methods of their own: binds nothing, so that the
  // derived constructor can bind the whole set in order with bindBuiltinMethods.
  struct DeferBuiltins {};
  KXModuleCore(const std::shared_ptr<KXModuleHost>& host, const std::string& name, DeferBuiltins);

  // Binds the built-in methods in their published order: exit, version, ping,
  // getMethodList, getMethodHelp, getModuleHelp, then whatever `bindTaskControls` binds
  // (KXModule's wait, isRunning and stop), then getBrokerName and getUsage.
  void bindBuiltinMethods(const std::function<void()>& bindTaskControls);

  // The parent broker's task monitor (the broker must still exist).
  std::shared_ptr<KXTaskMonitor> getTaskMonitor() const;

  void setRequiresGenericDispatch(bool generic);

  // For modules whose methods answer in another language, while a description is being
  // built: clears `bits` of its flags word (KXMethodInfo::kNativeMethod for a method
  // that the module answers itself instead of through its functor) ...
  void clearDescriptionFlags(std::uint16_t bits);
  // ... the name of the method being described (empty when none is) ...
  std::string describedMethodName() const;
  // ... and gives it at least `count` parameters before a functor of that many is bound:
  // the missing ones are named "arg" followed by their position counted from 1.
  void completeParameters(std::size_t count);
  // For such modules' calls, which run outside the execution lock: while the module is
  // exiting, prints the exiting warning (as execute does) and returns false.
  bool admitCall() const;

 private:
  // Takes the shared side of the execution lock, or prints the exiting warning and
  // returns false; leaveCall releases it.
  bool enterCall();
  void leaveCall();
  void setSignatureTypes(const std::vector<std::string>& parameterTypes,
                         const std::string& returnType);

  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// The base of modules: binds the built-in methods every module answers (exit, version,
// ping, getMethodList, getMethodHelp, getModuleHelp, wait, isRunning, stop,
// getBrokerName, getUsage).
class KXModule : public KXModuleCore {
 public:
  KXModule(const std::shared_ptr<KXModuleHost>& host, const std::string& name);
  ~KXModule() override;

  std::string getContentPage() override;  // "<html><body></body></html>"

  // Built-in parallel-call controls, answered from the broker's task monitor.
  // True when the timeout expired, false when the call had ended (or never existed).
  bool wait(const int& id, const int& timeoutPeriod);
  bool isRunning(const int& id);
  void stop(const int& id);
};

}  // namespace KX

#endif  // VELMO_MODULE_KXMODULECORE_H_
