#ifndef VELMO_MODULE_KXPROXY_H_
#define VELMO_MODULE_KXPROXY_H_

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "module/kxfunctorconvert.h"
#include "module/kxmoduleinfo.h"
#include "value/kxvalue.h"

namespace KX {

class KXModule;
class KXModuleHost;
class KXModuleCore;
class KXMethodInfo;
class KXNetworkService;

// The caller's handle on one module, wherever it lives. Built from a broker and a module
// name (the module is searched in that broker, then in the broker tree) or from a module
// name and a remote broker's address, asked through a broker of this process (the
// broker manager's fallback broker when there is no other). Local modules are called
// directly; remote ones through the network service.
//
// Ownership: the proxy holds its broker and its module weakly; every call first takes
// strong references for its duration, and fails with a KXError once they are gone (it
// never looks for the module again). Thread-safe: a proxy holds no lock of its own.
class KXProxy : public std::enable_shared_from_this<KXProxy> {
 public:
  // Do not look in the given broker first; search the tree with loadLib = true.
  static constexpr int kSkipLocalBroker = 0x04;

  // Throws KXError("KXProxy", "constructor", "Module '<name>' not found.").
  KXProxy(const std::shared_ptr<KXModuleHost>& broker, const std::string& moduleName,
          int flags = 0);
  // Through the broker at `ip`:`port`, asked through `via`, a broker of this process with
  // a network module (one that serves nothing will do: a client's, see
  // KXBroker::kCreateNetwork; or KXBrokerManager::getEmptyBroker()).
  KXProxy(const std::shared_ptr<KXModuleHost>& via, const std::string& moduleName,
          const std::string& ip, int port, int flags = 0);
  virtual ~KXProxy();
  KXProxy(const KXProxy&) = delete;
  KXProxy& operator=(const KXProxy&) = delete;

  // Typed synchronous call: R and the arguments must match the method's declared types
  // exactly ("wrong return type ..." / "... parameter #i is of type ..." otherwise).
  // Locally the bound member function is called directly, without KXValues. Types are
  // those of published methods (bool, int, float, std::string, KXValue, vectors of int,
  // float or std::string; void results); C strings pass as std::string, anything else
  // does not compile.
  template <typename R, typename... A>
  R call(std::string_view method, const A&... args);
  // Typed parallel call (the arguments are checked as for call): returns the task id.
  template <typename... A>
  int pCall(const std::string& method, const A&... args);
  template <typename... A>
  int post(const std::string& method, const A&... args) {
    return pCall(method, args...);
  }

  // `params` is the Array of arguments (any other value is wrapped in a one-element
  // Array; Invalid becomes an empty Array).
  KXValue genericCall(const std::string& method, const KXValue& params);
  int genericPCall(const std::string& method, const KXValue& params);

  // The module's own "wait", "stop" and "isRunning".
  bool wait(int taskId, int timeoutMs);
  void stop(int taskId);
  bool isRunning(int taskId);

  const std::string& getModuleName() const;
  KXModuleInfo getModuleInfo() const;
  // The name of the broker that hosts the module.
  std::string getBrokerName() const;
  bool isLocal() const;
  // The module's core while it lives in this process; null for a remote or gone module.
  std::shared_ptr<KXModuleCore> getLocalModuleCore() const;

 private:
  struct Impl;

  // Typed calls once string literals and C strings have become std::string.
  template <typename R, typename... A>
  R callTyped(std::string_view method, const A&... args);
  template <typename... A>
  int pCallTyped(const std::string& method, const A&... args);

  std::shared_ptr<KXModuleHost> lockBroker() const;
  std::shared_ptr<KXModule> lockModule() const;
  std::shared_ptr<KXModuleCore> lockModuleCore() const;
  // "module is deleted, cannot call function of <name>": also what a typed call that
  // needs a result meets once the module is exiting.
  [[noreturn]] void throwModuleDeleted() const;
  // The description a typed call of `method` goes to (local): looked up in the module's
  // cache, then checked against the result type and the `argCount` argument types
  // (null for a call whose result is not checked, as a parallel call's).
  std::shared_ptr<const KXMethodInfo> typedMethod(KXModuleCore& core, const std::string& method,
                                                  const char* const* argTypes, std::size_t argCount,
                                                  const char* returnType) const;
  KXValue localGenericCall(KXModuleCore& core, const std::string& method, const KXValue& params);
  KXValue remoteCall(const std::string& method, const KXValue& params);
  int remotePCall(const std::string& method, const KXValue& params);
  int localTypedPCall(const std::string& method, const KXValue& params, const char* const* argTypes,
                      std::size_t argCount);
  // A module found in another broker: reached through the network service only, on a
  // connection of this proxy's own; asks the module for its broker's name.
  void bindRemote(const KXModuleInfo& info);
  std::shared_ptr<KXNetworkService> lockNetwork() const;
  // Questions to a broker (not to a module) give up after this long.
  static constexpr int kBrokerQuestionTimeoutSeconds = 10;

  std::unique_ptr<Impl> impl_;
};

}  // namespace KX

#include "module/detail/kxproxycall.h"

#endif  // VELMO_MODULE_KXPROXY_H_
