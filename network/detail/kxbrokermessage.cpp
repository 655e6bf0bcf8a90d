#include "network/detail/kxbrokermessage.h"

#include <tinyxml2.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <type_traits>
#include <variant>
#include <vector>

#include "network/detail/kxvaluesoap.h"

namespace KX {
namespace {

using tinyxml2::XMLElement;

constexpr const char* kModule = "KXBrokerMessage";
constexpr const char* kEnvelopeNamespace = "http://schemas.xmlsoap.org/soap/envelope/";
constexpr const char* kBrokerNamespace = "urn:kxbroker";
constexpr const char* kRecordNamespace = "urn:korvane";

[[noreturn]] void fail(const char* method, const std::string& faultString) {
  throw KXBrokerMessageError(method, faultString, __FILE__, __LINE__);
}

std::string inElement(const XMLElement& element) {
  return std::string(" in element '") + element.Name() + "'";
}

[[noreturn]] void failInvalid(const char* method, const XMLElement& element) {
  fail(method, "Validation constraint violation: invalid value" + inElement(element));
}

[[noreturn]] void failEmpty(const char* method, const XMLElement& element) {
  fail(method, "Validation constraint violation: empty value provided where a value is required" +
                   inElement(element));
}

// ---------------------------------------------------------------- names and namespaces

// The part of a qualified name after its prefix.
const char* localName(const char* name) {
  const char* colon = std::strrchr(name, ':');
  return colon != nullptr ? colon + 1 : name;
}

// The namespace URI that the prefix of `name` (the default namespace when it has none) is
// bound to where `element` stands; null when unbound.
const char* namespaceOf(const XMLElement& element, const char* name) {
  const char* colon = std::strchr(name, ':');
  std::string attribute = "xmlns";
  if (colon != nullptr) {
    attribute += ':';
    attribute.append(name, static_cast<size_t>(colon - name));
  }
  for (const tinyxml2::XMLNode* node = &element; node != nullptr; node = node->Parent()) {
    const XMLElement* scope = node->ToElement();
    if (scope == nullptr) break;
    if (const char* uri = scope->Attribute(attribute.c_str())) return uri;
  }
  return nullptr;
}

bool isNamed(const XMLElement& element, const char* uri, const char* local) {
  if (std::strcmp(localName(element.Name()), local) != 0) return false;
  const char* bound = namespaceOf(element, element.Name());
  return bound != nullptr && std::strcmp(bound, uri) == 0;
}

// "http://www.w3.org/<year>/XMLSchema-instance", any year.
bool isSchemaInstanceNamespace(const char* uri) {
  static constexpr char kStart[] = "http://www.w3.org/";
  static constexpr char kEnd[] = "/XMLSchema-instance";
  const size_t length = std::strlen(uri);
  return length >= sizeof(kStart) - 1 + sizeof(kEnd) - 1 &&
         std::strncmp(uri, kStart, sizeof(kStart) - 1) == 0 &&
         std::strcmp(uri + length - (sizeof(kEnd) - 1), kEnd) == 0;
}

// The value of the schema-instance attribute `local` ("type", "nil") of `element`, whatever
// prefix the peer bound that namespace to; null when absent.
const char* schemaInstanceAttribute(const XMLElement& element, const char* local) {
  for (const tinyxml2::XMLAttribute* attribute = element.FirstAttribute(); attribute != nullptr;
       attribute = attribute->Next()) {
    const char* name = attribute->Name();
    if (std::strchr(name, ':') == nullptr || std::strcmp(localName(name), local) != 0) continue;
    if (std::strncmp(name, "xmlns:", 6) == 0) continue;
    const char* uri = namespaceOf(element, name);
    if (uri != nullptr && isSchemaInstanceNamespace(uri)) return attribute->Value();
  }
  return nullptr;
}

bool isNil(const XMLElement& element) {
  const char* nil = schemaInstanceAttribute(element, "nil");
  return nil != nullptr && (std::strcmp(nil, "true") == 0 || std::strcmp(nil, "1") == 0);
}

// ---------------------------------------------------------------- typed children

bool isXmlSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

// The element's text without surrounding white space; empty for a nil element or one
// without text.
std::string trimmedText(const XMLElement& element) {
  if (isNil(element)) return std::string();
  const char* text = element.GetText();
  if (text == nullptr) return std::string();
  const char* end = text + std::strlen(text);
  while (text < end && isXmlSpace(*text)) ++text;
  while (end > text && isXmlSpace(end[-1])) --end;
  return std::string(text, end);
}

void checkType(const char* method, const XMLElement& element,
               std::initializer_list<const char*> acceptedLocalNames, const char* exactName) {
  const char* type = schemaInstanceAttribute(element, "type");
  if (type == nullptr || std::strcmp(type, exactName) == 0) return;
  const char* colon = std::strchr(type, ':');
  if (colon != nullptr) {
    for (const char* local : acceptedLocalNames) {
      if (std::strcmp(colon + 1, local) == 0) return;
    }
  }
  fail(method,
       std::string("Validation constraint violation: type mismatch ") + type + inElement(element));
}

void readChild(const char* method, const XMLElement& element, int& out) {
  checkType(method, element, {"int", "short", "byte"}, "xsd:int");
  const std::string text = trimmedText(element);
  if (text.empty()) failEmpty(method, element);
  const char first = text[0];
  const size_t digitsAt = (first == '+' || first == '-') ? 1 : 0;
  if (digitsAt == text.size() ||
      text.find_first_not_of("0123456789", digitsAt) != std::string::npos) {
    failInvalid(method, element);
  }
  errno = 0;
  const long long number = std::strtoll(text.c_str(), nullptr, 10);
  if (errno == ERANGE || number < std::numeric_limits<int>::min() ||
      number > std::numeric_limits<int>::max()) {
    failInvalid(method, element);
  }
  out = static_cast<int>(number);
}

void readChild(const char* method, const XMLElement& element, bool& out) {
  checkType(method, element, {"boolean"}, "xsd:bool");
  const std::string text = trimmedText(element);
  if (text.empty()) failEmpty(method, element);
  if (text == "true" || text == "1" || text == "false" || text == "0") {
    out = text == "true" || text == "1";
    return;
  }
  failInvalid(method, element);
}

std::string readString(const XMLElement& element) {
  if (isNil(element)) return std::string();
  const char* text = element.GetText();
  return text != nullptr ? std::string(text) : std::string();
}

void readChild(const char* /*method*/, const XMLElement& element, std::string& out) {
  out = readString(element);
}

// The value is the element's first child element (an `item`); none gives Invalid.
void readChild(const char* method, const XMLElement& element, KXValue& out) {
  out = KXValue();
  const XMLElement* item = element.FirstChildElement();
  if (item == nullptr || isNil(element)) return;
  try {
    readKXValue(*item, out, 0);
  } catch (const KXError&) {
    failInvalid(method, element);
  }
}

// Fields by name, in any order, each taken once; unknown ones and modulePointer skipped.
void readChild(const char* method, const XMLElement& element, KXModuleInfo& record) {
  record = KXModuleInfo();
  enum Field {
    kName,
    kArchitecture,
    kIp,
    kPort,
    kProcessId,
    kModulePointer,
    kIsABroker,
    kKeepAlive,
    kFieldCount
  };
  static constexpr std::array<const char*, kFieldCount> kNames = {
      "name", "architecture", "ip", "port", "processId", "modulePointer", "isABroker", "keepAlive"};
  std::array<bool, kFieldCount> seen{};
  for (const XMLElement* child = element.FirstChildElement(); child != nullptr;
       child = child->NextSiblingElement()) {
    const char* local = localName(child->Name());
    int field = 0;
    while (field < kFieldCount && std::strcmp(local, kNames[static_cast<size_t>(field)]) != 0) {
      ++field;
    }
    if (field == kFieldCount || seen[static_cast<size_t>(field)]) continue;
    seen[static_cast<size_t>(field)] = true;
    switch (field) {
      case kName:
        record.name = readString(*child);
        break;
      case kArchitecture:
        readChild(method, *child, record.architecture);
        break;
      case kIp:
        record.ip = readString(*child);
        break;
      case kPort:
        readChild(method, *child, record.port);
        break;
      case kProcessId:
        readChild(method, *child, record.processId);
        break;
      case kIsABroker:
        readChild(method, *child, record.isABroker);
        break;
      case kKeepAlive:
        readChild(method, *child, record.keepAlive);
        break;
      default:  // modulePointer: meaningless outside the process that wrote it
        break;
    }
  }
}

// ---------------------------------------------------------------- envelope

// Parses `data` into `document` and returns the first element of the SOAP body, null for
// an empty body.
const XMLElement* bodyElement(const char* method, tinyxml2::XMLDocument& document, const char* data,
                              std::size_t size) {
  if (size > kBrokerMessageMaxBytes) {
    fail(method, "Message too large: " + std::to_string(size) + " bytes, at most " +
                     std::to_string(kBrokerMessageMaxBytes) + " accepted");
  }
  const tinyxml2::XMLError status = document.Parse(data != nullptr ? data : "", size);
  if (status == tinyxml2::XML_ELEMENT_DEPTH_EXCEEDED) {
    fail(method, "Maximum XML nesting depth level exceeded: increase maxlevel");
  }
  if (status != tinyxml2::XML_SUCCESS) {
    fail(method, "Validation constraint violation: syntax error");
  }
  const XMLElement* envelope = document.RootElement();
  if (envelope == nullptr || !isNamed(*envelope, kEnvelopeNamespace, "Envelope")) {
    fail(method, "Invalid SOAP message or SOAP version mismatch");
  }
  const XMLElement* body = envelope->FirstChildElement();
  if (body != nullptr && isNamed(*body, kEnvelopeNamespace, "Header")) {
    body = body->NextSiblingElement();
  }
  if (body == nullptr || !isNamed(*body, kEnvelopeNamespace, "Body")) {
    fail(method, "Validation constraint violation: tag name or namespace mismatch" +
                     (body != nullptr ? inElement(*body) : std::string()));
  }
  return body->FirstChildElement();
}

std::string childText(const XMLElement& parent, const char* local) {
  for (const XMLElement* child = parent.FirstChildElement(); child != nullptr;
       child = child->NextSiblingElement()) {
    if (std::strcmp(localName(child->Name()), local) == 0) return readString(*child);
  }
  return std::string();
}

[[noreturn]] void failMissingChild(const char* method, const XMLElement& element) {
  fail(method,
       "Validation constraint violation: occurrence constraint violation" + inElement(element));
}

// ---------------------------------------------------------------- requests

constexpr const char* kRequestMethod = "parseBrokerRequest";

// The request of the operation named `local` (its children read in order), compared with
// the operations from the I-th on; refused when none is named so.
template <std::size_t I = 0>
BrokerRequest readRequest(const char* local, const XMLElement& element) {
  if constexpr (I == std::variant_size_v<BrokerRequest>) {
    fail(kRequestMethod, std::string("Method '") + element.Name() +
                             "' not implemented: method name or namespace not recognized");
  } else {
    using Op = std::variant_alternative_t<I, BrokerRequest>;
    if (local == nullptr || std::strcmp(Op::kName, local) != 0) {
      return readRequest<I + 1>(local, element);
    }
    BrokerRequest request(std::in_place_index<I>);
    const XMLElement* child = element.FirstChildElement();
    Op::children(std::get<I>(request), [&](const char* /*name*/, auto& field) {
      if (child == nullptr) failMissingChild(kRequestMethod, element);
      readChild(kRequestMethod, *child, field);
      child = child->NextSiblingElement();
    });
    return request;
  }
}

// ---------------------------------------------------------------- answers

constexpr const char* kResponseMethod = "parseBrokerResponse";

// One child, required.
template <typename T>
void readAnswerChildren(const XMLElement& element, T& answer) {
  const XMLElement* child = element.FirstChildElement();
  if (child == nullptr) failMissingChild(kResponseMethod, element);
  readChild(kResponseMethod, *child, answer);
}

// One child that may be nil or absent.
void readAnswerChildren(const XMLElement& element, std::optional<int>& answer) {
  const XMLElement* child = element.FirstChildElement();
  answer.reset();
  if (child != nullptr && !isNil(*child)) {
    readChild(kResponseMethod, *child, answer.emplace());
  }
}

// The same child once per item.
template <typename T>
void readAnswerChildren(const XMLElement& element, std::vector<T>& answer) {
  answer.clear();
  for (const XMLElement* child = element.FirstChildElement(); child != nullptr;
       child = child->NextSiblingElement()) {
    readChild(kResponseMethod, *child, answer.emplace_back());
  }
}

[[noreturn]] void failTag(const XMLElement& element) {
  fail(kResponseMethod,
       "Validation constraint violation: tag name or namespace mismatch" + inElement(element));
}

}  // namespace

KXBrokerMessageError::KXBrokerMessageError(const std::string& method,
                                           const std::string& faultString, const char* file,
                                           int line)
    : KXError(kModule, method, faultString, file, line), faultString_(faultString) {}

KXBrokerMessageError::~KXBrokerMessageError() = default;

BrokerRequest parseBrokerRequest(const char* data, std::size_t size) {
  tinyxml2::XMLDocument document;
  const XMLElement* element = bodyElement(kRequestMethod, document, data, size);
  if (element == nullptr) {
    fail(kRequestMethod, "Method '' not implemented: method name or namespace not recognized");
  }
  const char* bound = namespaceOf(*element, element->Name());
  const bool ours = bound != nullptr && std::strcmp(bound, kBrokerNamespace) == 0;
  return readRequest(ours ? localName(element->Name()) : nullptr, *element);
}

BrokerRequest parseBrokerRequest(const std::string& xml) {
  return parseBrokerRequest(xml.data(), xml.size());
}

template <typename Answer>
std::optional<BrokerFault> readBrokerAnswer(const char* op,
                                            [[maybe_unused]] const char* answerChild,
                                            const char* data, std::size_t size, Answer& answer) {
  tinyxml2::XMLDocument document;
  const XMLElement* element = bodyElement(kResponseMethod, document, data, size);
  if (element == nullptr) {
    fail(kResponseMethod, "Validation constraint violation: tag name or namespace mismatch");
  }
  if (isNamed(*element, kEnvelopeNamespace, "Fault")) {
    return BrokerFault{childText(*element, "faultcode"), childText(*element, "faultstring"),
                       childText(*element, "detail")};
  }
  if constexpr (std::is_same_v<Answer, KXModuleInfo>) {
    if (answerChild == nullptr) {
      if (!isNamed(*element, kRecordNamespace, "KXModuleInfo")) failTag(*element);
      readChild(kResponseMethod, *element, answer);
      return std::nullopt;
    }
  }
  const std::string expected = std::string(op) + "Response";
  if (!isNamed(*element, kBrokerNamespace, expected.c_str())) failTag(*element);
  readAnswerChildren(*element, answer);
  return std::nullopt;
}

// Every answer type that an operation has.
#define KX_READ_BROKER_ANSWER(Answer)                                                    \
  template std::optional<BrokerFault> readBrokerAnswer<Answer>(const char*, const char*, \
                                                               const char*, std::size_t, Answer&);
KX_READ_BROKER_ANSWER(KXValue)
KX_READ_BROKER_ANSWER(KXModuleInfo)
KX_READ_BROKER_ANSWER(std::string)
KX_READ_BROKER_ANSWER(int)
KX_READ_BROKER_ANSWER(std::optional<int>)
KX_READ_BROKER_ANSWER(std::vector<KXModuleInfo>)
KX_READ_BROKER_ANSWER(std::vector<std::string>)
#undef KX_READ_BROKER_ANSWER

}  // namespace KX
