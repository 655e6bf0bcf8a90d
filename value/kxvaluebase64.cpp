// Base64 members of KXValue: the blob form used by the SOAP encoding.
#include "value/kxvalue.h"

#include "value/detail/base64.h"

namespace KX {
namespace {

// Room for every byte the text can encode plus the decoder's store slack, so that
// decoding allocates once.
size_t decodedCapacity(size_t textSize) { return textSize / 4 * 3 + 3; }

}  // namespace

std::string KXValue::encodeBase64() const {
  std::string out;
  encodeBase64(out);
  return out;
}

void KXValue::encodeBase64(std::string& out) const {
  const TKXValueBinary& bytes = getBinary();  // Binary or Object, else a type error
  out.reserve(out.size() + detail::base64EncodedSize(bytes.size()));  // one allocation
  detail::base64Encode(bytes.data(), bytes.size(), out);
}

bool KXValue::decodeBase64(const std::string& text) {
  // Decoded aside first: `text` may be this value's own string.
  auto bytes = std::make_unique<TKXValueBinary>();
  bytes->reserve(decodedCapacity(text.size()));
  detail::base64Decode(text.data(), text.size(), *bytes);
  payload_.emplace<TypeBinary>(std::move(bytes));
  return true;
}

bool KXValue::decodeBase64Object(const std::string& text) {
  auto bytes = std::make_unique<TKXValueBinary>();
  bytes->reserve(decodedCapacity(text.size()));
  detail::base64Decode(text.data(), text.size(), *bytes);
  payload_.emplace<TypeObject>(std::move(bytes));
  return true;
}

}  // namespace KX
