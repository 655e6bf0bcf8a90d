#ifndef VELMO_VALUE_KXVALUEJSON_H_
#define VELMO_VALUE_KXVALUEJSON_H_

#include <string>

#include "value/kxvalue.h"

namespace KX {

// `value` as JSON text, for scripts: Array → array, Bool → true/false, Int → number,
// Float → number (null when not finite), String → string (bytes that are not UTF-8 are
// written as \u00XX, one per byte), Binary → {"binary": base64}, Object →
// {"object": base64}, Invalid → null. One line, no blanks.
std::string toJson(const KXValue& value);

}  // namespace KX

#endif  // VELMO_VALUE_KXVALUEJSON_H_
