// A connection's bytes through the server of a broker's port: HTTP requests carrying SOAP
// envelopes (framed by a length, in chunks or as DIME messages), one after the other, and
// GETs of the pages, with the broker protocol carried out on a broker of this process. The
// answers are dropped: the server must neither crash, leak nor hang on any of them.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "network/fuzz/fuzz_server_support.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // No roots: files have a target of their own, and every GET here asks for a page.
  static const std::shared_ptr<KX::KXNetworkServer> server = KX::fuzzing::makeServer({}, "");
  if (size > KX::fuzzing::kMaxConnectionBytes) return -1;
  KX::fuzzing::serveBytes(*server, std::string(reinterpret_cast<const char*>(data), size));
  return 0;
}
