// Any bytes read as a broker request give a request or a KXBrokerMessageError.
#include <cstddef>
#include <cstdint>

#include "network/detail/kxbrokermessage.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  try {
    KX::parseBrokerRequest(reinterpret_cast<const char*>(data), size);
  } catch (const KX::KXBrokerMessageError&) {
  }
  return 0;
}
