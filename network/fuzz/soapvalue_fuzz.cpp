// Any text read as a value's SOAP form gives a value or a KXError.
#include <cstddef>
#include <cstdint>
#include <string>

#include "network/detail/kxvaluesoap.h"
#include "value/kxerror.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  KX::KXValue value;
  try {
    KX::readKXValueFromXml(std::string(reinterpret_cast<const char*>(data), size), value);
  } catch (const KX::KXError&) {
  }
  return 0;
}
