// Any text given to the compact text form parser gives a value or a KXError, and the value
// it gives can be printed.
#include <cstddef>
#include <cstdint>

#include "value/kxerror.h"
#include "value/kxvalue.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  KX::KXValue value;
  try {
    value.unSerializeFromText(reinterpret_cast<const char*>(data), size);
  } catch (const KX::KXError&) {
    return 0;
  }
  return value.toString(1).empty() ? 1 : 0;
}
