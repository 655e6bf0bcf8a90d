#ifndef VELMO_MEMORY_DETAIL_KXMEMORYFUNCTORS_H_
#define VELMO_MEMORY_DETAIL_KXMEMORYFUNCTORS_H_

// The functors of "KXMemory" that are no plain bound member functions: the names with
// two signatures (one table entry each, the form chosen by the argument count) and
// getDataPtr, whose result only means something inside this process.

#include <functional>
#include <string>
#include <utility>

#include "module/kxfunctor.h"
#include "value/kxvalue.h"

namespace KX {
namespace detail {

// A published name with two forms. Generic calls (execute, genericCall, the network)
// go to `generic`, which picks the form from the argument count; the typed face, which
// local typed calls use without building KXValues, is the form with the types R(P...).
template <typename R, typename... P>
class KXMemoryOverloadFunctor final : public KXTypedFunctor<R, P...> {
 public:
  using Typed = std::function<R(const P&...)>;
  using Generic = std::function<void(const KXValue& params, KXValue& result)>;

  KXMemoryOverloadFunctor(Typed typed, Generic generic)
      : typed_(std::move(typed)), generic_(std::move(generic)) {}

  void call(const KXValue& params, KXValue& result) override { generic_(params, result); }
  R invoke(const P&... args) override { return typed_(args...); }

 private:
  const Typed typed_;
  const Generic generic_;
};

// getDataPtr: typed local calls get the address of the stored value; a generic call
// (what a caller in another process would make) is refused with
// KXError("KXMemory", "getDataPtr", "Cannot be called remotely").
class KXDataPointerFunctor final : public KXTypedFunctor<void*, std::string> {
 public:
  explicit KXDataPointerFunctor(std::function<void*(const std::string&)> typed)
      : typed_(std::move(typed)) {}

  void call(const KXValue& params, KXValue& result) override;
  void* invoke(const std::string& name) override { return typed_(name); }

 private:
  const std::function<void*(const std::string&)> typed_;
};

// The number of arguments in `params` (an Array, or the value's own assertion error),
// checked against the forms of `method`: KXError("KXMemory", method, "Expected <least>
// or <most> arguments but received <n>.") outside [least, most].
int memoryArgumentCount(const KXValue& params, const char* method, int least, int most);

}  // namespace detail
}  // namespace KX

#endif  // VELMO_MEMORY_DETAIL_KXMEMORYFUNCTORS_H_
