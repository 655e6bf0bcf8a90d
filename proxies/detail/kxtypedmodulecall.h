#ifndef VELMO_PROXIES_DETAIL_KXTYPEDMODULECALL_H_
#define VELMO_PROXIES_DETAIL_KXTYPEDMODULECALL_H_

// The calling machinery shared by the typed module proxies (memory, resource manager):
// one signature per proxy method, a local table of the module's typed faces looked up
// once, and the choice, per call, between the module's typed face, its generic call and
// the network.

#include <cstddef>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "module/kxfunctor.h"
#include "module/kxlambdafunctor.h"
#include "module/kxmethodinfo.h"
#include "module/kxmodulecore.h"
#include "module/kxproxy.h"
#include "value/kxerror.h"
#include "value/kxvalue.h"

namespace KX {
namespace detail {

// One method of a typed proxy: the name it is published under, its C++ signature
// R(P...) and the place of its entry in the proxy's local table.
template <typename R, typename... P>
struct KXProxySignature {
  const char* name;
  std::size_t index;
};

// What the local table knows of one signature.
struct KXLocalMethod {
  enum class Kind {
    kMissing,  // not published under that signature
    kTyped,    // `typed` is the functor's face of exactly this signature
    kGeneric,  // published, but only a generic call reaches this form
  };
  Kind kind = Kind::kMissing;
  // Keeps the functor alive while the table refers to it.
  std::shared_ptr<const KXMethodInfo> info;
  KXFunctorBase* typed = nullptr;
};

// Looks `name` with the parameter types `types` up in `core`: the described method, or
// null when it is not published so.
std::shared_ptr<const KXMethodInfo> findLocalMethod(KXModuleCore& core, const char* name,
                                                    const std::vector<std::string>& types);

template <typename R, typename... P>
KXLocalMethod lookUpLocalMethod(KXModuleCore& core, const KXProxySignature<R, P...>& signature) {
  KXLocalMethod entry;
  entry.info = findLocalMethod(core, signature.name, {typeNameOf<P>()...});
  if (!entry.info) return entry;
  auto* typed = core.requiresGenericDispatch()
                    ? nullptr
                    : dynamic_cast<KXTypedFunctor<R, P...>*>(entry.info->functor.get());
  if (typed != nullptr) {
    entry.kind = KXLocalMethod::Kind::kTyped;
    entry.typed = typed;
  } else if (isTypedCallResult<R>) {
    // One entry answering several forms (its typed face is another one), or a module
    // whose methods are no C++ functors: reached through its generic call.
    entry.kind = KXLocalMethod::Kind::kGeneric;
  } else {
    // A result that no generic call can carry (a pointer into this process).
    entry.kind = KXLocalMethod::Kind::kMissing;
  }
  return entry;
}

// Whether the signatures are numbered 0, 1, 2, ... in the order given.
template <const auto&... Signatures>
constexpr bool numberedInOrder() {
  std::size_t expected = 0;
  return ((Signatures.index == expected++) && ...);
}

// The parameter types of a call are those of its signature: the arguments convert to
// them instead of taking part in the deduction.
template <typename T>
using NonDeducedT = typename NonDeduced<T>::type;

// Calls through one generic proxy with the typed signatures of a module proxy.
//
// Local module: each call checks the module is still valid (else KXError(<module name>,
// <method>, "The underlying module is invalid.")), then calls the typed face found at
// construction directly under the module's execution lock, without KXValues (a method
// bound again later keeps being called through the face found first, which the module
// keeps alive); a form
// reached only generically goes through the proxy's genericCall; a signature that was
// missing fails with the generic proxy's getMethodInfo error. Remote module: the generic
// proxy's typed call, with its checks and messages.
//
// Thread-safe: constant after construction.
class KXTypedModuleCall {
 public:
  // Looks up every signature, in the order given, when `proxy` is local. `moduleName` is
  // the module named by the invalid-module error.
  template <const auto&... Signatures>
  static std::shared_ptr<const KXTypedModuleCall> create(std::shared_ptr<KXProxy> proxy,
                                                         std::string moduleName) {
    static_assert(numberedInOrder<Signatures...>(), "signatures must be numbered in table order");
    auto call = std::make_shared<KXTypedModuleCall>(std::move(proxy), std::move(moduleName));
    if (const std::shared_ptr<KXModuleCore> core = call->proxy_->getLocalModuleCore()) {
      call->table_ = {lookUpLocalMethod(*core, Signatures)...};
    }
    return call;
  }

  KXTypedModuleCall(std::shared_ptr<KXProxy> proxy, std::string moduleName);

  const std::shared_ptr<KXProxy>& getProxy() const { return proxy_; }

  template <typename R, typename... P>
  R call(const KXProxySignature<R, P...>& signature, const NonDeducedT<P>&... args) const {
    if (!proxy_->isLocal()) return proxy_->call<R>(signature.name, args...);
    return callLocal(signature, args...);
  }

  // For results that only mean something in this process: a remote module is refused
  // with KXError(<module name>, <method>, "Cannot be called remotely"), without sending.
  template <typename R, typename... P>
  R callLocalOnly(const KXProxySignature<R, P...>& signature, const NonDeducedT<P>&... args) const {
    if (!proxy_->isLocal()) throwRemoteRefused(signature.name);
    return callLocal(signature, args...);
  }

  // The parallel call of the same method; returns its task id.
  template <typename R, typename... P>
  int post(const KXProxySignature<R, P...>& signature, const NonDeducedT<P>&... args) const {
    if (proxy_->isLocal()) {
      lockValidCore(signature.name);
      const KXLocalMethod& entry = localEntry(signature.index, signature.name);
      if (entry.kind == KXLocalMethod::Kind::kGeneric) {
        return proxy_->genericPCall(signature.name, packArguments(args...));
      }
    }
    return proxy_->pCall(signature.name, args...);
  }

 private:
  template <typename R, typename... P>
  R callLocal(const KXProxySignature<R, P...>& signature, const NonDeducedT<P>&... args) const {
    // Held for the whole call: the module cannot go away under it.
    const std::shared_ptr<KXModuleCore> core = lockValidCore(signature.name);
    const KXLocalMethod& entry = localEntry(signature.index, signature.name);
    if constexpr (isTypedCallResult<R>) {
      if (entry.kind == KXLocalMethod::Kind::kGeneric) {
        return callGeneric<R>(*core, signature.name, packArguments(args...));
      }
    }
    auto* typed = static_cast<KXTypedFunctor<R, P...>*>(entry.typed);
    if constexpr (std::is_void_v<R>) {
      if (!core->runLocked([&] { typed->invoke(args...); })) throwInvalid(signature.name);
    } else {
      R out{};
      if (!core->runLocked([&] { out = typed->invoke(args...); })) throwInvalid(signature.name);
      return out;
    }
  }

  template <typename R>
  R callGeneric(const KXModuleCore& core, const char* method, const KXValue& params) const {
    const KXValue result = proxy_->genericCall(method, params);
    if constexpr (!std::is_void_v<R>) {
      // A module that began exiting meanwhile ran nothing and left the result Invalid.
      if (!result.isValid() && core.isExiting()) throwInvalid(method);
      return convertFromKXValue<R>(result);
    }
  }

  // The module core, unless the module is gone or exiting.
  std::shared_ptr<KXModuleCore> lockValidCore(const char* method) const;
  // The table entry of a signature that the module publishes (else the getMethodInfo
  // error).
  const KXLocalMethod& localEntry(std::size_t index, const char* method) const;
  [[noreturn]] void throwInvalid(const char* method) const;
  [[noreturn]] void throwRemoteRefused(const char* method) const;

  const std::shared_ptr<KXProxy> proxy_;
  const std::string moduleName_;
  // Local modules only: one entry per signature, by index.
  std::vector<KXLocalMethod> table_;
};

}  // namespace detail
}  // namespace KX

#endif  // VELMO_PROXIES_DETAIL_KXTYPEDMODULECALL_H_
