// The SOAP form of KXValue: writing it as raw XML, reading it from a parsed element, and
// the walk that pairs Binary leaves with DIME attachments.
#include "network/detail/kxvaluesoap.h"

#include <tinyxml2.h>

#include <locale.h>
#include <stdlib.h>
#include <strings.h>
#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "value/kxerror.h"
#include "value/textcoding.h"

namespace KX {
namespace {

constexpr const char* kModule = "KXValue";

template <size_t N>
inline void appendLiteral(std::string& out, const char (&text)[N]) {
  out.append(text, N - 1);
}

// Copies a literal without its terminator to `at`; returns the end of the copy.
template <size_t N>
inline char* copyLiteral(char* at, const char (&text)[N]) {
  std::memcpy(at, text, N - 1);
  return at + N - 1;
}

[[noreturn]] void throwTooDeep(const char* method) {
  KX_THROW(kModule, method,
           "value too deeply nested (more than " + std::to_string(kKXValueMaxDepth) + " levels)");
}

// ---------------------------------------------------------------- writing

// How each byte of a String is written.
enum CharClass : unsigned char {
  kPlain = 0,      // copied as is
  kEntity = 1,     // & < > " '
  kReference = 2,  // CR and the control characters XML text cannot hold raw
  kNul = 3,        // not representable at all
};

constexpr std::array<unsigned char, 256> makeCharClasses() {
  std::array<unsigned char, 256> classes{};
  for (int c = 1; c < 0x20; ++c) classes[c] = kReference;
  classes['\t'] = kPlain;
  classes['\n'] = kPlain;
  classes['&'] = kEntity;
  classes['<'] = kEntity;
  classes['>'] = kEntity;
  classes['"'] = kEntity;
  classes['\''] = kEntity;
  classes[0] = kNul;
  return classes;
}

constexpr std::array<unsigned char, 256> kCharClasses = makeCharClasses();

void appendEntity(std::string& out, char c) {
  switch (c) {
    case '&':
      appendLiteral(out, "&amp;");
      break;
    case '<':
      appendLiteral(out, "&lt;");
      break;
    case '>':
      appendLiteral(out, "&gt;");
      break;
    case '"':
      appendLiteral(out, "&quot;");
      break;
    default:  // '\''
      appendLiteral(out, "&apos;");
      break;
  }
}

bool isXmlBlank(char c) { return c == ' ' || c == '\t' || c == '\n'; }

void appendEscaped(const std::string& text, std::string& out) {
  const char* data = text.data();
  size_t size = text.size();
  // Trailing NULs are C-string terminators (a Binary read as a string keeps one): drop them.
  while (size > 0 && data[size - 1] == '\0') --size;
  if (size == 0) return;

  size_t i = 0;
  // The parser drops a text node that is all white space; one reference keeps it.
  if (isXmlBlank(data[0]) && std::all_of(data, data + size, isXmlBlank)) {
    appendCharReference(out, static_cast<unsigned char>(data[0]));
    i = 1;
  }
  while (i < size) {
    size_t run = i;
    while (run < size && kCharClasses[static_cast<unsigned char>(data[run])] == kPlain) ++run;
    out.append(data + i, run - i);
    if (run == size) break;
    const unsigned char c = static_cast<unsigned char>(data[run]);
    switch (kCharClasses[c]) {
      case kEntity:
        appendEntity(out, static_cast<char>(c));
        break;
      case kReference:
        appendCharReference(out, c);
        break;
      default:  // kNul: trailing ones are gone, so text follows it
        KX_THROW(kModule, "writeKXValue",
                 "String holds a NUL character at byte " + std::to_string(run) +
                     ", which XML cannot carry");
    }
    i = run + 1;
  }
}

void writeValue(const KXValue& value, std::string& out, bool nested, int depth) {
  if (depth > kKXValueMaxDepth) throwTooDeep("writeKXValue");
  // Scalar items are assembled here and appended in one go: the longest is a Float item
  // of 27 + 14 + 7 characters.
  char item[96];
  char* end = item;
  switch (value.getType()) {
    case KXValue::TypeInvalid:
      if (nested) appendLiteral(out, "<item xsi:nil=\"true\" xsi:type=\"nil\">nil</item>");
      return;
    case KXValue::TypeArray: {
      appendLiteral(out, "<item xsi:type=\"Array\">");
      const int size = value.getSize();
      if (size > 0) {
        // Elements are contiguous: one checked access, then plain pointer steps.
        const KXValue* element = &value[0];
        for (int i = 0; i < size; ++i) writeValue(element[i], out, true, depth + 1);
      }
      appendLiteral(out, "</item>");
      return;
    }
    case KXValue::TypeBool:
      if (static_cast<bool>(value)) {
        appendLiteral(out, "<item xsi:type=\"xsd:boolean\">true</item>");
      } else {
        appendLiteral(out, "<item xsi:type=\"xsd:boolean\">false</item>");
      }
      return;
    case KXValue::TypeInt:
      end = copyLiteral(end, "<item xsi:type=\"xsd:int\">");
      end = std::to_chars(end, item + sizeof item, static_cast<int>(value)).ptr;
      end = copyLiteral(end, "</item>");
      out.append(item, static_cast<size_t>(end - item));
      return;
    case KXValue::TypeFloat: {
      end = copyLiteral(end, "<item xsi:type=\"xsd:float\">");
      // "%.8g" of the value widened to double; to_chars with a precision is defined to print
      // exactly what printf would, without parsing a format.
      const double widened = static_cast<float>(value);
      end = std::to_chars(end, item + sizeof item, widened, std::chars_format::general, 8).ptr;
      end = copyLiteral(end, "</item>");
      out.append(item, static_cast<size_t>(end - item));
      return;
    }
    case KXValue::TypeString:
      appendLiteral(out, "<item xsi:type=\"xsd:string\">");
      appendEscaped(static_cast<const KXValue::TKXValueString&>(value), out);
      appendLiteral(out, "</item>");
      return;
    case KXValue::TypeObject:
      appendLiteral(out, "<item xsi:type=\"xsd:base64Object\">");
      value.encodeBase64(out);
      appendLiteral(out, "</item>");
      return;
    case KXValue::TypeBinary:
      // The bytes travel as a DIME attachment; the XML only holds base64 of "1".
      appendLiteral(out, "<item xsi:type=\"xsd:base64Binary\">MQ==</item>");
      return;
  }
  throwAssertFailed(kModule, __FILE__, __LINE__);
}

// ---------------------------------------------------------------- reading

locale_t classicLocale() {
  // Process-lifetime: freeing it at exit would race with late readers on other threads.
  static const locale_t locale = newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(nullptr));
  return locale;
}

// What `std::istringstream(text) >> f` gives, without building a stream per value: white
// space is skipped, then the longest prefix of the form [+-]digits[.digits][e[+-]digits] is
// taken (an exponent only after a mantissa digit) and converted in the C locale. A prefix
// that does not convert as a whole (".", "-", "1e") gives 0; an overflow gives the largest
// float of that sign; "inf", "nan" and hexadecimal forms are not numbers here.
float parseFloatText(const char* text) {
  const char* p = text;
  while (*p == ' ' || (*p >= '\t' && *p <= '\r')) ++p;
  const char* start = p;
  if (*p == '+' || *p == '-') ++p;
  bool mantissa = false;
  bool point = false;
  for (;; ++p) {
    if (*p >= '0' && *p <= '9') {
      mantissa = true;
    } else if (*p == '.' && !point) {
      point = true;
    } else {
      break;
    }
  }
  if (mantissa && (*p == 'e' || *p == 'E')) {
    ++p;
    if (*p == '+' || *p == '-') ++p;
    while (*p >= '0' && *p <= '9') ++p;
  }
  const size_t length = static_cast<size_t>(p - start);
  if (length == 0) return 0.0f;

  // The conversion needs the prefix on its own: the text goes on after it.
  char small[64];
  std::string large;
  char* token = small;
  if (length >= sizeof small) {
    large.assign(start, length);
    token = large.data();
  } else {
    std::memcpy(small, start, length);
    small[length] = '\0';
  }
  char* end = nullptr;
  const locale_t locale = classicLocale();
  const float result = locale != nullptr ? strtof_l(token, &end, locale) : std::strtof(token, &end);
  if (end != token + length) return 0.0f;
  if (result == std::numeric_limits<float>::infinity()) return std::numeric_limits<float>::max();
  if (result == -std::numeric_limits<float>::infinity()) {
    return -std::numeric_limits<float>::max();
  }
  return result;
}

// `atoi` as the C library does it, spelled so that an out-of-range text wraps instead of
// being undefined.
int parseIntText(const char* text) { return static_cast<int>(std::strtol(text, nullptr, 10)); }

bool containsIgnoringCase(const char* text, const char* lowerNeedle) {
  std::string lowered(text);
  for (char& c : lowered) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return lowered.find(lowerNeedle) != std::string::npos;
}

[[noreturn]] void throwFault(const tinyxml2::XMLElement& element) {
  std::string message = "Fault: '";
  message += element.Name();
  message += "': ";
  for (const tinyxml2::XMLElement* child = element.FirstChildElement(); child != nullptr;
       child = child->NextSiblingElement()) {
    const char* name = child->Name();
    if (name != nullptr && *name != '\0') {
      message += name;
      message += ": ";
    }
    if (const char* text = child->GetText()) {
      message += text;
      message += ", ";
    }
  }
  KX_THROW(kModule, "Receving Fault response: ", message);
}

int countChildElements(const tinyxml2::XMLElement& element) {
  int count = 0;
  for (const tinyxml2::XMLElement* child = element.FirstChildElement(); child != nullptr;
       child = child->NextSiblingElement()) {
    ++count;
  }
  return count;
}

void readValue(const tinyxml2::XMLElement& element, KXValue& value, int typeHint, int depth);

void readArray(const tinyxml2::XMLElement& element, KXValue& value, int depth) {
  const char* arrayType = element.Attribute("SOAP-ENC:arrayType");
  if (arrayType == nullptr) arrayType = element.Attribute("n2:arrayType");
  int elementType = KXValue::TypeArray;
  if (arrayType != nullptr) {
    // "xsd:anyType[3]": the element type before '[', the declared count after it. The
    // count only tells how much room to reserve; the children present size the array
    // exactly, so a hostile count (huge, negative, garbage) costs nothing.
    const char* bracket = std::strchr(arrayType, '[');
    const size_t prefixLength =
        bracket != nullptr ? static_cast<size_t>(bracket - arrayType) : std::strlen(arrayType);
    KX_ASSERT(kModule, prefixLength <= 511);
    char prefix[512];
    std::memcpy(prefix, arrayType, prefixLength);
    prefix[prefixLength] = '\0';
    elementType = xsdTypeToType(prefix);
  }

  const int children = countChildElements(element);
  value.clear();
  value.arraySetSize(children);
  if (children == 0) return;
  KXValue* slot = &value[0];  // contiguous, sized once
  for (const tinyxml2::XMLElement* child = element.FirstChildElement(); child != nullptr;
       child = child->NextSiblingElement()) {
    readValue(*child, *slot++, elementType, depth + 1);
  }
}

void readValue(const tinyxml2::XMLElement& element, KXValue& value, int typeHint, int depth) {
  if (depth > kKXValueMaxDepth) throwTooDeep("readKXValue");

  int type = KXValue::TypeInvalid;
  if (const char* xsiType = element.Attribute("xsi:type")) {
    type = xsdTypeToType(xsiType);
  } else if (std::strstr(element.Name(), "Fault") != nullptr) {
    throwFault(element);
  } else if (typeHint == 0) {
    const char* xmlns = element.Attribute("xmlns");
    if (xmlns != nullptr && containsIgnoringCase(xmlns, "korvane.broker.array")) {
      type = KXValue::TypeArray;
    }
  } else {
    type = typeHint;
  }

  const char* text = element.GetText();
  switch (type) {
    case KXValue::TypeInvalid:
      value.clear();
      return;
    case KXValue::TypeArray:
      readArray(element, value, depth);
      return;
    case KXValue::TypeBool:
      value = !(text == nullptr || *text == '\0' || std::strcmp(text, "0") == 0 ||
                strcasecmp(text, "false") == 0);
      return;
    case KXValue::TypeInt:
      value = text != nullptr ? parseIntText(text) : 0;
      return;
    case KXValue::TypeFloat:
      value = text != nullptr ? parseFloatText(text) : 0.0f;
      return;
    case KXValue::TypeString:
      value = text != nullptr ? text : "";
      return;
    case KXValue::TypeObject:
      value.decodeBase64Object(text != nullptr ? std::string(text) : std::string());
      return;
    case KXValue::TypeBinary:
      if (text == nullptr) {
        std::printf("error");
        throwAssertFailed(kModule, __FILE__, __LINE__);
      }
      value.decodeBase64(std::string(text));
      return;
    default:
      throwAssertFailed(kModule, __FILE__, __LINE__);
  }
}

// ---------------------------------------------------------------- Binary leaves

template <typename Value, typename Leaf>
void collectLeaves(Value& value, std::vector<Leaf*>& out, int depth) {
  if (depth > kKXValueMaxDepth) throwTooDeep("collectBinaryLeaves");
  switch (value.getType()) {
    case KXValue::TypeBinary:
      out.push_back(&value);
      return;
    case KXValue::TypeArray: {
      const int size = value.getSize();
      if (size == 0) return;
      auto* element = &value[0];  // contiguous
      for (int i = 0; i < size; ++i) collectLeaves(element[i], out, depth + 1);
      return;
    }
    default:
      return;
  }
}

}  // namespace

void writeKXValue(const KXValue& value, std::string& out, bool nested) {
  const size_t start = out.size();
  try {
    writeValue(value, out, nested, 1);
  } catch (...) {
    out.resize(start);
    throw;
  }
}

void readKXValue(const tinyxml2::XMLElement& element, KXValue& value, int typeHint) {
  readValue(element, value, typeHint, 1);
}

int xsdTypeToType(const char* name) {
  if (name == nullptr) return KXValue::TypeInvalid;
  if (std::strcmp(name, "xsd:string") == 0) return KXValue::TypeString;
  if (std::strcmp(name, "xsd:int") == 0) return KXValue::TypeInt;
  if (std::strcmp(name, "xsd:double") == 0) return KXValue::TypeFloat;
  if (std::strcmp(name, "xsd:float") == 0) return KXValue::TypeFloat;
  if (std::strstr(name, "bool") != nullptr) return KXValue::TypeBool;
  if (std::strcmp(name, "xsd:base64Object") == 0) return KXValue::TypeObject;
  if (std::strcmp(name, "xsd:base64Binary") == 0) return KXValue::TypeBinary;
  if (std::strstr(name, "Array") != nullptr) return KXValue::TypeArray;
  return KXValue::TypeInvalid;
}

void readKXValueFromXml(const std::string& xml, KXValue& value) {
  tinyxml2::XMLDocument document;
  const tinyxml2::XMLError status = document.Parse(xml.data(), xml.size());
  if (status == tinyxml2::XML_ERROR_EMPTY_DOCUMENT) {  // a top-level Invalid writes nothing
    value.clear();
    return;
  }
  if (status != tinyxml2::XML_SUCCESS) {
    KX_THROW(kModule, "readKXValueFromXml", std::string("XML parse error: ") + document.ErrorStr());
  }
  const tinyxml2::XMLElement* root = document.RootElement();
  if (root == nullptr) {
    value.clear();
    return;
  }
  readKXValue(*root, value, 0);
}

void collectBinaryLeaves(const KXValue& value, std::vector<const KXValue*>& out) {
  collectLeaves(value, out, 1);
}

void collectBinaryLeaves(KXValue& value, std::vector<KXValue*>& out) {
  collectLeaves(value, out, 1);
}

void attachBinaryLeaves(KXValue& value, std::vector<KXValue::TKXValueBinary>&& attachments) {
  std::vector<KXValue*> leaves;
  collectBinaryLeaves(value, leaves);
  if (leaves.size() != attachments.size()) {
    KX_THROW(kModule, "attachBinaryLeaves",
             "expected " + std::to_string(leaves.size()) +
                 " attachment(s) for the Binary values, received " +
                 std::to_string(attachments.size()));
  }
  for (size_t k = 0; k < leaves.size(); ++k) leaves[k]->getBinary().swap(attachments[k]);
}

}  // namespace KX
