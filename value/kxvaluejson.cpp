#include "value/kxvaluejson.h"

#include <cmath>
#include <cstdio>

namespace KX {
namespace {

// The length of the well-formed UTF-8 sequence at text[i], or 0.
std::size_t utf8Length(const std::string& text, std::size_t i) {
  const auto byte = [&](std::size_t k) { return static_cast<unsigned char>(text[k]); };
  const unsigned char lead = byte(i);
  std::size_t length = 0;
  unsigned int low = 0x80, high = 0xBF;  // the allowed range of the second byte
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    if (lead == 0xE0) low = 0xA0;   // no overlong forms
    if (lead == 0xED) high = 0x9F;  // no surrogates
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    if (lead == 0xF0) low = 0x90;
    if (lead == 0xF4) high = 0x8F;  // nothing past U+10FFFF
  } else {
    return 0;
  }
  if (i + length > text.size() || byte(i + 1) < low || byte(i + 1) > high) return 0;
  for (std::size_t k = 2; k < length; ++k) {
    if (byte(i + k) < 0x80 || byte(i + k) > 0xBF) return 0;
  }
  return length;
}

void appendEscaped(std::string& out, unsigned char byte) {
  char escape[8];
  std::snprintf(escape, sizeof escape, "\\u%04x", byte);
  out += escape;
}

void appendString(std::string& out, const std::string& text) {
  out += '"';
  for (std::size_t i = 0; i < text.size();) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '\t') {
      out += "\\t";
    } else if (c == '\r') {
      out += "\\r";
    } else if (c < 0x20 || c == 0x7F) {
      appendEscaped(out, c);
    } else if (c >= 0x80) {
      const std::size_t length = utf8Length(text, i);
      if (length == 0) {
        appendEscaped(out, c);
      } else {
        out.append(text, i, length);
        i += length;
        continue;
      }
    } else {
      out += static_cast<char>(c);
    }
    ++i;
  }
  out += '"';
}

void appendBytes(std::string& out, const char* kind, const KXValue& value) {
  std::string base64 = value.encodeBase64();
  std::string packed;  // without the line ends the text form puts every 72 characters
  for (char c : base64) {
    if (c != '\n' && c != '\r') packed += c;
  }
  out += "{\"";
  out += kind;
  out += "\":\"" + packed + "\"}";
}

void append(std::string& out, const KXValue& value) {
  switch (value.getType()) {
    case KXValue::TypeArray:
      out += '[';
      for (int i = 0; i < value.getSize(); ++i) {
        if (i > 0) out += ',';
        append(out, value[i]);
      }
      out += ']';
      return;
    case KXValue::TypeBool:
      out += static_cast<bool>(value) ? "true" : "false";
      return;
    case KXValue::TypeInt:
      out += std::to_string(static_cast<int>(value));
      return;
    case KXValue::TypeFloat: {
      const float number = static_cast<float>(value);
      if (!std::isfinite(number)) {
        out += "null";
        return;
      }
      char text[32];
      // Nine significant digits give back the same 32-bit float.
      std::snprintf(text, sizeof text, "%.9g", static_cast<double>(number));
      out += text;
      return;
    }
    case KXValue::TypeString:
      appendString(out, static_cast<const std::string&>(value));
      return;
    case KXValue::TypeBinary:
      appendBytes(out, "binary", value);
      return;
    case KXValue::TypeObject:
      appendBytes(out, "object", value);
      return;
    default:
      out += "null";
      return;
  }
}

}  // namespace

std::string toJson(const KXValue& value) {
  std::string out;
  append(out, value);
  return out;
}

}  // namespace KX
