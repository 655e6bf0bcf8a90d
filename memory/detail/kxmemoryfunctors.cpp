#include "memory/detail/kxmemoryfunctors.h"

#include "value/kxerror.h"

namespace KX {
namespace detail {

void KXDataPointerFunctor::call(const KXValue& /*params*/, KXValue& /*result*/) {
  // An address is meaningless outside this process, and a generic call is exactly what
  // another process would send.
  KX_THROW("KXMemory", "getDataPtr", "Cannot be called remotely");
}

int memoryArgumentCount(const KXValue& params, const char* method, int least, int most) {
  params.xAssertType(KXValue::TypeArray);
  const int count = params.getSize();
  if (count < least || count > most) {
    KX_THROW("KXMemory", method,
             "Expected " + std::to_string(least) + " or " + std::to_string(most) +
                 " arguments but received " + std::to_string(count) + ".");
  }
  return count;
}

}  // namespace detail
}  // namespace KX
