#ifndef VELMO_MODULE_KXFUNCTOR_H_
#define VELMO_MODULE_KXFUNCTOR_H_

#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "module/kxfunctorconvert.h"
#include "value/kxvalue.h"

namespace KX {

// The uniform calling form of a published method: an Array of arguments in, one value
// out. Owned (shared) by the method description; the object it calls is not owned.
class KXFunctorBase {
 public:
  // Converts params[i] to each parameter type (a non-array or short `params` raises the
  // value's own assertion errors; extra elements are ignored), calls the method and
  // assigns a non-void result to `result` (left unchanged for void). Conversion errors
  // leave `result` unchanged and do not call the method.
  virtual void call(const KXValue& params, KXValue& result) = 0;
  virtual ~KXFunctorBase();
};

namespace detail {

// The typed face of a functor: the proxy's typed local calls use it to call the member
// function with C++ arguments, without building KXValues.
template <typename R, typename... P>
class KXTypedFunctor : public KXFunctorBase {
 public:
  virtual R invoke(const P&... args) = 0;
};

// Binds `R (C::*)(const P&...)` on an object of class C.
template <typename C, typename R, typename... P>
class KXFunctor final : public KXTypedFunctor<R, P...> {
 public:
  using Method = R (C::*)(const P&...);

  KXFunctor(C* object, Method method) : object_(object), method_(method) {}

  void call(const KXValue& params, KXValue& result) override {
    callWith(params, result, std::index_sequence_for<P...>());
  }

  R invoke(const P&... args) override { return (object_->*method_)(args...); }

 private:
  template <std::size_t... I>
  void callWith(const KXValue& params, KXValue& result, std::index_sequence<I...>) {
    (void)params;  // unread by methods without parameters
    // Every argument is converted before the call, in order (a braced list is evaluated
    // left to right), so a conversion error leaves the method uncalled.
    std::tuple<typename ArgumentOf<std::decay_t<P>>::type...> args{
        ArgumentOf<std::decay_t<P>>::from(params[int(I)])...};
    if constexpr (std::is_void_v<R>) {
      (object_->*method_)(std::get<I>(args)...);
    } else {
      convertToKXValue((object_->*method_)(std::get<I>(args)...), result);
    }
  }

  C* const object_;
  const Method method_;
};

// The names of the family: KXFunctor_<n><C, P1, ..., Pn, R>.
template <typename C, typename R>
using KXFunctor_0 = KXFunctor<C, R>;
template <typename C, typename P1, typename R>
using KXFunctor_1 = KXFunctor<C, R, P1>;
template <typename C, typename P1, typename P2, typename R>
using KXFunctor_2 = KXFunctor<C, R, P1, P2>;
template <typename C, typename P1, typename P2, typename P3, typename R>
using KXFunctor_3 = KXFunctor<C, R, P1, P2, P3>;
template <typename C, typename P1, typename P2, typename P3, typename P4, typename R>
using KXFunctor_4 = KXFunctor<C, R, P1, P2, P3, P4>;
template <typename C, typename P1, typename P2, typename P3, typename P4, typename P5, typename R>
using KXFunctor_5 = KXFunctor<C, R, P1, P2, P3, P4, P5>;
template <typename C, typename P1, typename P2, typename P3, typename P4, typename P5, typename P6,
          typename R>
using KXFunctor_6 = KXFunctor<C, R, P1, P2, P3, P4, P5, P6>;

}  // namespace detail
}  // namespace KX

#endif  // VELMO_MODULE_KXFUNCTOR_H_
