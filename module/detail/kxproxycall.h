#ifndef VELMO_MODULE_DETAIL_KXPROXYCALL_H_
#define VELMO_MODULE_DETAIL_KXPROXYCALL_H_

// The typed call templates of KXProxy (included at the end of module/kxproxy.h).
//
// Argument and result types are those a published method may take and return: bool,
// int, float, std::string, KXValue ("array"), std::vector<int>, std::vector<float>,
// std::vector<std::string>, and void for results. String literals and C strings are
// passed as std::string; any other type is refused at compile time, so that a typed call
// never converts behind the caller's back (a double is not silently narrowed to float).

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "module/kxfunctor.h"
#include "module/kxfunctorconvert.h"
#include "module/kxmethodinfo.h"
#include "module/kxmodulecore.h"
#include "value/kxerror.h"
#include "value/kxvalue.h"

namespace KX {
namespace detail {

// The type a typed-call argument travels as: C strings become std::string.
template <typename T>
struct CanonicalArg {
  using type = T;
};
template <>
struct CanonicalArg<const char*> {
  using type = std::string;
};
template <>
struct CanonicalArg<char*> {
  using type = std::string;
};
template <std::size_t N>
struct CanonicalArg<char[N]> {
  using type = std::string;
};
template <typename T>
using CanonicalArgT = typename CanonicalArg<std::remove_cv_t<T>>::type;

template <typename T>
constexpr bool isTypedCallValue =
    std::is_same_v<T, bool> || std::is_same_v<T, int> || std::is_same_v<T, float> ||
    std::is_same_v<T, std::string> || std::is_same_v<T, KXValue> ||
    std::is_same_v<T, std::vector<int>> || std::is_same_v<T, std::vector<float>> ||
    std::is_same_v<T, std::vector<std::string>>;

template <typename T>
constexpr bool isTypedCallResult = std::is_void_v<T> || isTypedCallValue<T>;

// An argument as its canonical type: the argument itself when it already is one (no
// copy), else a std::string made from the C string.
template <typename A>
decltype(auto) canonicalArg(const A& arg) {
  if constexpr (std::is_same_v<CanonicalArgT<A>, std::remove_cv_t<A>>) {
    return (arg);
  } else {
    return std::string(arg);
  }
}

// The type names of a typed call's arguments, computed once per signature.
template <typename... A>
const char* const* argTypeNames() {
  static const std::array<const char*, sizeof...(A) + 1> names{typeNameOf<A>()..., nullptr};
  return names.data();
}

// The arguments as the Array a generic call takes, in order.
template <typename... A>
KXValue packArguments(const A&... args) {
  KXValue params;
  params.arraySetSize(static_cast<int>(sizeof...(A)));
  int index = 0;
  (convertToKXValue(args, params[index++]), ...);
  return params;
}

// Per calling thread and typed-call signature, the method the last typed call reached:
// repeated calls then skip the module's table lookup, the type checks and the cast. It
// holds the module weakly, which keeps its identity (the control block cannot be reused
// while it refers to it) without keeping it alive; the functor stays valid while the
// module lives and its method table keeps the remembered version.
template <typename Typed>
struct TypedCallMemo {
  // Whether the remembered method is `method` of `core` and still bound; `typed` is then
  // its typed functor (null for a functor of another kind).
  bool find(const std::shared_ptr<KXModuleCore>& core, std::string_view method) const {
    // Same control block as the live `core`: the very same module, still alive.
    return !module.owner_before(core) && !core.owner_before(module) &&
           version == core->getMethodTableVersion() && method == methodName;
  }

  void remember(const std::shared_ptr<KXModuleCore>& core, std::string_view method,
                std::uint64_t tableVersion, Typed* functor) {
    module = core;
    methodName = method;
    version = tableVersion;
    typed = functor;
  }

  std::weak_ptr<KXModuleCore> module;
  std::string methodName;
  std::uint64_t version = 0;
  Typed* typed = nullptr;
};

}  // namespace detail

template <typename R, typename... A>
R KXProxy::call(std::string_view method, const A&... args) {
  static_assert(detail::isTypedCallResult<R>,
                "KXProxy::call: the result type must be void, bool, int, float, std::string, "
                "KXValue or a std::vector of int, float or std::string");
  static_assert((detail::isTypedCallValue<detail::CanonicalArgT<A>> && ...),
                "KXProxy::call: arguments must be bool, int, float, std::string (or a C "
                "string), KXValue or a std::vector of int, float or std::string");
  return callTyped<R, detail::CanonicalArgT<A>...>(method, detail::canonicalArg(args)...);
}

template <typename... A>
int KXProxy::pCall(const std::string& method, const A&... args) {
  static_assert((detail::isTypedCallValue<detail::CanonicalArgT<A>> && ...),
                "KXProxy::pCall: arguments must be bool, int, float, std::string (or a C "
                "string), KXValue or a std::vector of int, float or std::string");
  return pCallTyped<detail::CanonicalArgT<A>...>(method, detail::canonicalArg(args)...);
}

template <typename R, typename... A>
R KXProxy::callTyped(std::string_view method, const A&... args) {
  if (!isLocal()) {
    KXValue result = remoteCall(std::string(method), detail::packArguments(args...));
    if constexpr (std::is_void_v<R>) {
      return;
    } else {
      if (!result.isValid())
        KX_THROW("KXProxy", "call", "Waiting for the result of a void function");
      return detail::convertFromKXValue<R>(result);
    }
  }

  // Held for the whole call: the module cannot go away under it.
  const std::shared_ptr<KXModuleCore> core = lockModuleCore();
  if (!core->requiresGenericDispatch()) {
    using Typed = detail::KXTypedFunctor<R, A...>;
    thread_local detail::TypedCallMemo<Typed> memo;
    Typed* typed = memo.typed;
    if (!memo.find(core, method)) {
      // Read before the lookup: a bind racing with it only makes the memo miss later.
      const std::uint64_t version = core->getMethodTableVersion();
      const std::shared_ptr<const KXMethodInfo> info =
          typedMethod(*core, std::string(method), detail::argTypeNames<A...>(), sizeof...(A),
                      detail::typeNameOf<R>());
      // The signature matched; a functor of another kind (not a bound member function)
      // still takes the generic path below.
      typed = dynamic_cast<Typed*>(info->functor.get());
      memo.remember(core, method, version, typed);
    }
    if (typed != nullptr) {
      if constexpr (std::is_void_v<R>) {
        auto body = [&] { typed->invoke(args...); };
        // An exiting module runs nothing and prints its warning, as execute does.
        core->runLocked(body);
        return;
      } else {
        R out{};
        auto body = [&] { out = typed->invoke(args...); };
        if (!core->runLocked(body)) throwModuleDeleted();
        return out;
      }
    }
  }

  KXValue result = localGenericCall(*core, std::string(method), detail::packArguments(args...));
  if constexpr (!std::is_void_v<R>) {
    // An exiting module leaves the result Invalid: there is no value to give back.
    if (!result.isValid() && core->isExiting()) throwModuleDeleted();
    return detail::convertFromKXValue<R>(result);
  }
}

template <typename... A>
int KXProxy::pCallTyped(const std::string& method, const A&... args) {
  if (!isLocal()) return remotePCall(method, detail::packArguments(args...));
  return localTypedPCall(method, detail::packArguments(args...), detail::argTypeNames<A...>(),
                         sizeof...(A));
}

}  // namespace KX

#endif  // VELMO_MODULE_DETAIL_KXPROXYCALL_H_
