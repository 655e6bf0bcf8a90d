#ifndef VELMO_VALUE_DETAIL_KXVALUETEXT_H_
#define VELMO_VALUE_DETAIL_KXVALUETEXT_H_

#include <cstddef>
#include <cstdint>
#include <string>

#include "value/kxvalue.h"

namespace KX {
namespace detail {

// The text side of KXValue: the debug dump and the compact-text parser. Every text
// is read up to `length` characters or a NUL, whichever comes first.
class KXValueText {
 public:
  // Appends the dump of `value` at `verbosity` (>= 1) to `out`.
  static void appendDump(const KXValue& value, std::string& out, int verbosity);

  static int deduceType(const char* text, size_t length);

  // Replaces `value` by the parse of `text` read as type `type` (a type code as
  // deduceType returns it). A type the compact form has no syntax for raises
  // "unknown type"; a String text without its opening quote raises "unknown string begin".
  // `depth` is the level of `value` (1 at the top); a value deeper than kMaxDepth raises
  // "value too deeply nested (more than 64 levels)".
  static void parseAs(KXValue& value, int type, const char* text, size_t length, int depth = 1);

  // The deepest level the parser reads: as deep as a value travels between brokers, and
  // shallow enough that hostile text cannot exhaust the stack.
  static constexpr int kMaxDepth = 64;

  // Hexadecimal digits after the first 'x' within `length` (blanks skipped, 32-bit wrap);
  // `found` tells whether there was an 'x'.
  static uint32_t hexDigitsAfterX(const char* text, size_t length, bool& found);
};

}  // namespace detail
}  // namespace KX

#endif  // VELMO_VALUE_DETAIL_KXVALUETEXT_H_
