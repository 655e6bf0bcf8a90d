// The debug dump and the compact text form of KXValue, and the parser that reads it back.
#include "value/detail/kxvaluetext.h"

#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <locale>
#include <sstream>

#include "value/kxerror.h"
#include "value/textcoding.h"

namespace KX {
namespace detail {
namespace {

const char kModule[] = "KXValue";

// The text parser gives a fresh array this capacity (the dump form rarely holds more
// elements per level than this).
constexpr size_t kParsedArrayCapacity = 8;

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

char lower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

// True when `text` (of `size` characters) starts with the lower-case `word`, in any case.
bool startsWithNoCase(const char* text, size_t size, const char* word) {
  const size_t wordSize = std::strlen(word);
  if (size < wordSize) return false;
  for (size_t i = 0; i < wordSize; ++i) {
    if (lower(text[i]) != word[i]) return false;
  }
  return true;
}

// Number of characters readable: up to `length` or the first NUL.
size_t textSize(const char* text, size_t length) {
  return text == nullptr ? 0 : strnlen(text, length);
}

size_t skipBlanks(const char* text, size_t size, size_t pos) {
  while (pos < size && isBlank(text[pos])) ++pos;
  return pos;
}

[[noreturn]] void raiseInString(const char* method, const std::string& what, const char* text,
                                size_t size) {
  KX_THROW(kModule, method, what + " in string: '" + std::string(text, size) + "'");
}

void appendDecimal(std::string& out, long long number) {
  char buffer[24];
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, number);
  out.append(buffer, result.ptr);
}

// printf's "%.6g" of the float widened to double (to_chars with a precision is defined
// as that conversion in the C locale, and is much faster).
void appendFloat(std::string& out, float number) {
  char buffer[32];
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, static_cast<double>(number),
                                    std::chars_format::general, 6);
  out.append(buffer, result.ptr);
}

// atoi over a bounded text, saturating at the int range instead of overflowing.
int decimalToInt(const char* text, size_t size) {
  char small[64];
  std::string large;
  const char* digits = small;
  if (size < sizeof small) {
    std::memcpy(small, text, size);
    small[size] = '\0';
  } else {
    large.assign(text, size);
    digits = large.c_str();
  }
  const long long value = std::strtoll(digits, nullptr, 10);
  if (value > std::numeric_limits<int>::max()) return std::numeric_limits<int>::max();
  if (value < std::numeric_limits<int>::min()) return std::numeric_limits<int>::min();
  return static_cast<int>(value);
}

// Reads the text as a standard input stream reads a float; a failed read gives 0.
float streamToFloat(const char* text, size_t size) {
  // The plain numbers that the dump writes are read directly: a decimal text that
  // from_chars consumes whole has the same correctly rounded value the stream would give.
  // Anything else (a trailing non-digit, an overflow, an incomplete exponent) goes
  // through the stream, whose rules decide it.
  const size_t start = skipBlanks(text, size, 0);
  float quick = 0.0f;
  const auto result = std::from_chars(text + start, text + size, quick);
  if (result.ec == std::errc() && result.ptr == text + size) return quick;

  // One stream per thread: building a stream (and its locale) per number would dominate
  // the parse of long arrays. The classic locale keeps '.' the decimal point whatever
  // the host program sets.
  thread_local std::istringstream stream = [] {
    std::istringstream fresh;
    fresh.imbue(std::locale::classic());
    return fresh;
  }();
  stream.clear();
  stream.str(std::string(text, size));
  float value = 0.0f;
  if (!(stream >> value)) value = 0.0f;
  return value;
}

// Deduces then parses: what unSerializeFromText does on a value known to be Invalid.
void parseFresh(KXValue& value, const char* text, size_t length, int depth) {
  KXValueText::parseAs(value, KXValueText::deduceType(text, length), text, length, depth);
}

}  // namespace

void KXValueText::appendDump(const KXValue& value, std::string& out, int verbosity) {
  if (verbosity <= 0) return;
  const int type = value.getType();
  if (verbosity >= 3) out += "\n<KxValue>";
  if (verbosity >= 2) {
    char buffer[64];
    int n = snprintf(buffer, sizeof buffer, "KxValue at 0x%08" PRIXPTR ", ",
                     reinterpret_cast<uintptr_t>(&value));
    out.append(buffer, static_cast<size_t>(n));
    out += "Type: ";
    out += KXValue::TypeToString(type);
    out += ", ";
    n = snprintf(buffer, sizeof buffer, "Value: 0x%08" PRIXPTR ", ", value.payloadWord());
    out.append(buffer, static_cast<size_t>(n));
  }

  const auto& payload = value.payload_;
  switch (type) {
    case KXValue::TypeArray: {
      const auto& elements = *std::get<KXValue::TypeArray>(payload);
      out += verbosity < 3 ? "[" : "\n<Vector>";
      if (verbosity >= 2) {
        out += "Vector of ";
        appendDecimal(out, static_cast<long long>(elements.size()));
        out += " elem(s):";
      }
      for (size_t i = 0; i < elements.size(); ++i) {
        if (verbosity >= 3) {
          out += "\n<elem>\n";
          appendDump(elements[i], out, verbosity);
          out += "\n</elem>";
        } else {
          if (i != 0) out += ", ";
          appendDump(elements[i], out, verbosity);
        }
      }
      out += verbosity < 3 ? "]" : "\n</Vector>";
      break;
    }
    case KXValue::TypeBool:
      if (verbosity >= 2) out += "Bool:";
      out += std::get<KXValue::TypeBool>(payload) ? "true" : "false";
      break;
    case KXValue::TypeInt: {
      const int32_t number = std::get<KXValue::TypeInt>(payload);
      if (verbosity >= 2) {
        char buffer[24];
        const int n =
            snprintf(buffer, sizeof buffer, "Int: 0x%08X (", static_cast<unsigned>(number));
        out.append(buffer, static_cast<size_t>(n));
      }
      appendDecimal(out, number);
      if (verbosity >= 2) out += ")";
      if (verbosity >= 3) out += "\n";
      break;
    }
    case KXValue::TypeFloat: {
      if (verbosity >= 2) out += "Float: ";
      appendFloat(out, std::get<KXValue::TypeFloat>(payload));
      if (verbosity >= 3) out += "\n";
      break;
    }
    case KXValue::TypeString: {
      const auto& text = *std::get<KXValue::TypeString>(payload);
      if (verbosity >= 2) {
        out += "String of size ";
        appendDecimal(out, static_cast<long long>(text.size()));
        out += ": ";
      }
      out += '"';
      out += text;
      out += '"';
      if (verbosity >= 3) out += "\n";
      break;
    }
    case KXValue::TypeObject: {
      const auto& bytes = *std::get<KXValue::TypeObject>(payload);
      out.append(bytes.begin(), bytes.end());
      break;
    }
    case KXValue::TypeBinary: {
      const auto& bytes = *std::get<KXValue::TypeBinary>(payload);
      if (verbosity >= 3) {
        out += "\n<Binary>Binary: ";
        appendDecimal(out, static_cast<long long>(bytes.size()));
        out += " bytes(s):\n";
      }
      for (unsigned char byte : bytes) {
        char digits[5] = {'\\'};
        size_t n = 1;
        if (byte >= 100) digits[n++] = static_cast<char>('0' + byte / 100);
        if (byte >= 10) digits[n++] = static_cast<char>('0' + byte / 10 % 10);
        digits[n++] = static_cast<char>('0' + byte % 10);
        out.append(digits, n);
      }
      if (verbosity >= 3) out += "</Binary>\n";
      break;
    }
    default:
      break;
  }
  if (verbosity >= 3) out += "\n</KxValue>\n";
}

int KXValueText::deduceType(const char* text, size_t length) {
  const size_t size = textSize(text, length);
  const size_t start = skipBlanks(text, size, 0);
  if (start == size) return KXValue::TypeInvalid;

  const char first = text[start];
  if (first == '"' || first == '\'') return KXValue::TypeString;
  if (first == '[') return KXValue::TypeArray;
  const char* rest = text + start;
  const size_t restSize = size - start;
  if (startsWithNoCase(rest, restSize, "true") || startsWithNoCase(rest, restSize, "false")) {
    return KXValue::TypeBool;
  }
  if (restSize == 4 && startsWithNoCase(rest, restSize, "none")) return KXValue::TypeInvalid;

  bool hexadecimal = false;
  bool dot = false;
  bool unknown = false;
  for (size_t i = start; i < size; ++i) {
    const char c = text[i];
    if (c == 'x') {
      if (hexadecimal || dot) raiseInString("deduceType", "unexpected character: 'x'", text, size);
      hexadecimal = true;
    } else if (c == '.') {
      if (dot || hexadecimal) raiseInString("deduceType", "unexpected character: '.'", text, size);
      dot = true;
    } else if (c != '-' && hexDigitValue(c) < 0) {
      unknown = true;  // reported once the scan is over
    }
  }
  if (unknown) raiseInString("deduceType", "unknown format", text, size);
  return dot ? KXValue::TypeFloat : KXValue::TypeInt;
}

void KXValueText::parseAs(KXValue& value, int type, const char* text, size_t length, int depth) {
  // Checked before the text is scanned, which each level does again; unlike the other
  // errors, this one leaves the text out: it would repeat the whole input.
  if (depth > kMaxDepth) {
    KX_THROW(kModule, "unSerializeFromText",
             "value too deeply nested (more than " + std::to_string(kMaxDepth) + " levels)");
  }
  const size_t size = textSize(text, length);
  switch (type) {
    case KXValue::TypeInvalid:
      value.clear();
      return;

    case KXValue::TypeArray: {
      auto elements = std::make_unique<KXValue::TKXValueArray>();
      elements->reserve(kParsedArrayCapacity);
      const char* open = static_cast<const char*>(std::memchr(text, '[', size));
      if (open != nullptr) {
        // Elements are cut at ',' or ']' on bracket depth 0; quotes are not special.
        size_t start = static_cast<size_t>(open - text) + 1;
        for (;;) {
          size_t end = start;
          int brackets = 0;
          for (; end < size; ++end) {
            const char c = text[end];
            if (c == '[') {
              ++brackets;
            } else if (c == ']') {
              if (brackets == 0) break;
              --brackets;
            } else if (c == ',' && brackets == 0) {
              break;
            }
          }
          elements->emplace_back();
          parseFresh(elements->back(), text + start, end - start, depth + 1);
          if (end >= size) break;  // the text ended inside the element
          start = end + 1;
          if (start >= size) break;  // nothing follows the separator
        }
      }
      value.payload_.emplace<KXValue::TypeArray>(std::move(elements));
      return;
    }

    case KXValue::TypeBool: {
      const size_t start = skipBlanks(text, size, 0);
      value = startsWithNoCase(text + start, size - start, "true");
      return;
    }

    case KXValue::TypeInt: {
      const size_t start = skipBlanks(text, size, 0);
      if (std::memchr(text + start, 'x', size - start) != nullptr) {
        bool found = false;
        value = static_cast<int>(hexDigitsAfterX(text, size, found));
      } else {
        value = decimalToInt(text + start, size - start);
      }
      return;
    }

    case KXValue::TypeFloat:
      value = streamToFloat(text, size);
      return;

    case KXValue::TypeString: {
      const size_t start = skipBlanks(text, size, 0);
      if (start == size || (text[start] != '"' && text[start] != '\'')) {
        raiseInString("unSerializeFromText", "unknown string begin", text, size);
      }
      // No escapes: the string runs to the next identical quote or to the end.
      const char* body = text + start + 1;
      const size_t available = size - start - 1;
      const char* close = static_cast<const char*>(std::memchr(body, text[start], available));
      value.payload_.emplace<KXValue::TypeString>(std::make_unique<KXValue::TKXValueString>(
          body, close != nullptr ? static_cast<size_t>(close - body) : available));
      return;
    }

    default:
      raiseInString("unSerializeFromText", "unknown type", text, size);
  }
}

uint32_t KXValueText::hexDigitsAfterX(const char* text, size_t length, bool& found) {
  const size_t size = textSize(text, length);
  const char* x = static_cast<const char*>(std::memchr(text, 'x', size));
  found = x != nullptr;
  if (!found) return 0;
  uint32_t number = 0;
  for (size_t i = static_cast<size_t>(x - text) + 1; i < size; ++i) {
    if (isBlank(text[i])) continue;
    const int digit = hexDigitValue(text[i]);
    if (digit < 0) break;
    number = number * 16u + static_cast<uint32_t>(digit);
  }
  return number;
}

}  // namespace detail

std::string KXValue::toString(int verbosity) const {
  std::string out;
  if (verbosity <= 0) return out;
  out.reserve(1024);
  detail::KXValueText::appendDump(*this, out, verbosity);
  return out;
}

int KXValue::deduceType(const char* text, size_t length) {
  return detail::KXValueText::deduceType(text, length);
}

void KXValue::unSerializeFromText(const char* text, size_t length) {
  // The old payload stays alive until the parse is over: `text` may point into it.
  Payload old = std::move(payload_);
  payload_.emplace<TypeInvalid>();
  detail::KXValueText::parseAs(*this, detail::KXValueText::deduceType(text, length), text, length);
}

int KXValue::hexaAsciiToInt(const char* text) {
  KX_ASSERT("KXValue", text != nullptr);
  bool found = false;
  const uint32_t number =
      detail::KXValueText::hexDigitsAfterX(text, std::numeric_limits<size_t>::max(), found);
  if (!found) {
    printf("WARNING: hexaAsciiToInt called without 0x, returning 0 (string was: '%s')\n", text);
    return 0;
  }
  return static_cast<int>(number);
}

}  // namespace KX
