#ifndef VELMO_MODULE_KXLAMBDAFUNCTOR_H_
#define VELMO_MODULE_KXLAMBDAFUNCTOR_H_

#include <functional>
#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "module/kxfunctor.h"
#include "module/kxmodulecore.h"

namespace KX {
namespace detail {

// A published method made of a function object rather than a member function: for a
// module whose published form differs from its C++ interface (other argument types, a
// result instead of an out-parameter). Converts like KXFunctor.
template <typename R, typename... P>
class KXLambdaFunctor final : public KXTypedFunctor<R, P...> {
 public:
  explicit KXLambdaFunctor(std::function<R(const P&...)> function)
      : function_(std::move(function)) {}

  void call(const KXValue& params, KXValue& result) override {
    callWith(params, result, std::index_sequence_for<P...>());
  }

  R invoke(const P&... args) override { return function_(args...); }

  static std::vector<std::string> parameterTypes() { return {typeNameOf<std::decay_t<P>>()...}; }
  static std::string returnType() { return typeNameOf<R>(); }

 private:
  template <std::size_t... I>
  void callWith(const KXValue& params, KXValue& result, std::index_sequence<I...>) {
    (void)params;  // unread by functions without parameters
    std::tuple<typename ArgumentOf<std::decay_t<P>>::type...> args{
        ArgumentOf<std::decay_t<P>>::from(params[int(I)])...};
    if constexpr (std::is_void_v<R>) {
      function_(std::get<I>(args)...);
    } else {
      convertToKXValue(function_(std::get<I>(args)...), result);
    }
  }

  const std::function<R(const P&...)> function_;
};

// Keeps a parameter out of template argument deduction, so that the types given
// explicitly are the whole signature.
template <typename T>
struct NonDeduced {
  using type = T;
};

}  // namespace detail

// Binds `function` under the description begun with functionName, with the parameter
// and result types of its signature.
template <typename R, typename... P>
void bindFunction(KXModuleCore& module,
                  typename detail::NonDeduced<std::function<R(const P&...)>>::type function) {
  using Functor = detail::KXLambdaFunctor<R, P...>;
  module.bindMethod(std::make_shared<Functor>(std::move(function)), Functor::parameterTypes(),
                    Functor::returnType());
}

}  // namespace KX

#endif  // VELMO_MODULE_KXLAMBDAFUNCTOR_H_
