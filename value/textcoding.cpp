#include "value/textcoding.h"

#include <cctype>

namespace KX {

int hexDigitValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

void appendCharReference(std::string& out, unsigned char c) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  char buffer[8] = {'&', '#', 'x'};
  std::size_t size = 3;
  if (c >= 0x10) buffer[size++] = kHex[c >> 4];
  buffer[size++] = kHex[c & 0x0F];
  buffer[size++] = ';';
  out.append(buffer, size);
}

void appendXmlEscaped(std::string& out, const std::string& text, unsigned escapes) {
  const bool quotes = (escapes & kEscapeQuotes) != 0;
  const bool controls = (escapes & kEscapeControls) != 0;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '&') {
      out += "&amp;";
    } else if (c == '<') {
      out += "&lt;";
    } else if (c == '>') {
      out += "&gt;";
    } else if (quotes && c == '"') {
      out += "&quot;";
    } else if (quotes && c == '\'') {
      out += "&apos;";
    } else if (controls && ((byte < 0x20 && c != '\t' && c != '\n') || byte == 0x7F)) {
      appendCharReference(out, byte);
    } else {
      out += c;
    }
  }
}

std::string escapeXml(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  appendXmlEscaped(out, text, kEscapeQuotes);
  return out;
}

std::string percentDecode(const std::string& text) {
  std::string decoded;
  decoded.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    const int high = i + 2 < text.size() && text[i] == '%' ? hexDigitValue(text[i + 1]) : -1;
    const int low = high >= 0 ? hexDigitValue(text[i + 2]) : -1;
    if (low >= 0) {
      decoded.push_back(static_cast<char>(high * 16 + low));
      i += 2;
    } else {
      decoded.push_back(text[i]);
    }
  }
  return decoded;
}

std::string_view trimBlanks(std::string_view text) {
  const std::size_t first = text.find_first_not_of(" \t");
  if (first == std::string_view::npos) return std::string_view();
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

bool sameLetters(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(a[i])) !=
        std::tolower(static_cast<unsigned char>(b[i]))) {
      return false;
    }
  }
  return true;
}

}  // namespace KX
