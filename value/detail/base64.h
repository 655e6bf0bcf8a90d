#ifndef VELMO_VALUE_DETAIL_BASE64_H_
#define VELMO_VALUE_DETAIL_BASE64_H_

#include <cstddef>
#include <string>
#include <vector>

namespace KX {
namespace detail {

// Base64 with the standard alphabet and '=' padding, as blobs travel in SOAP messages.

// Characters that base64Encode appends for `size` bytes: four per started group of
// three bytes, plus one line end after every 18 full groups.
size_t base64EncodedSize(size_t size);

// Appends the encoding of `size` bytes at `data` to `out`: a "\n" follows every 72
// characters (also at the very end when the input fills its last line exactly).
void base64Encode(const unsigned char* data, size_t size, std::string& out);

// Appends the bytes that `text` encodes to `out`. Characters outside the alphabet are
// skipped, '=' ends the data, and a group cut short by the end of the text gives nothing.
void base64Decode(const char* text, size_t size, std::vector<unsigned char>& out);

}  // namespace detail
}  // namespace KX

#endif  // VELMO_VALUE_DETAIL_BASE64_H_
