#include "network/detail/kxbrokermessage.h"

#include <tinyxml2.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "network/detail/kxvaluesoap.h"

namespace KX {
namespace {

using tinyxml2::XMLElement;

constexpr const char* kModule = "KXBrokerMessage";
constexpr const char* kEnvelopeNamespace = "http://schemas.xmlsoap.org/soap/envelope/";
constexpr const char* kBrokerNamespace = "urn:kxbroker";
constexpr const char* kRecordNamespace = "urn:korvane";

// How the answer to an operation is laid out.
enum class ResponseShape {
  None,       // one-way
  Single,     // one child
  Optional,   // one child that may be nil or absent
  Repeated,   // the same child once per item
  Unwrapped,  // the record itself is the body element
};

struct OperationTable {
  const char* name;
  std::vector<BrokerArgType> request;
  ResponseShape shape;
  BrokerArgType responseType;
};

using T = BrokerArgType;
using S = ResponseShape;

const std::array<OperationTable, kBrokerOperationCount>& operations() {
  static const std::array<OperationTable, kBrokerOperationCount> table = {{
      {"callVelmo", {T::String, T::String, T::Value}, S::Single, T::Value},
      {"callVelmo2", {T::String, T::String, T::Value}, S::Single, T::Value},
      {"pCallVelmoN",
       {T::String, T::Int, T::String, T::String, T::String, T::String, T::Value},
       S::Single,
       T::Value},
      {"pCallVelmo", {T::String, T::String, T::Value}, S::None, T::Value},
      {"getModuleByName", {T::String}, S::Single, T::Record},
      {"exploreToGetModuleByName",
       {T::String, T::Bool, T::Bool, T::String, T::Bool},
       S::Single,
       T::Record},
      {"getModuleList", {}, S::Repeated, T::Record},
      {"getGlobalModuleList", {}, S::Repeated, T::Record},
      {"getBrokerList", {}, S::Repeated, T::Record},
      {"registerBroker", {T::Record}, S::Single, T::Int},
      {"unregisterBroker", {T::Record}, S::Single, T::Int},
      {"unregisterModuleReference", {T::String}, S::None, T::Int},
      {"getBrokerInfo", {}, S::Single, T::Record},
      {"exit", {}, S::None, T::Int},
      {"getMethodList", {T::String}, S::Repeated, T::String},
      {"init", {T::String, T::String, T::Int, T::String, T::Int, T::Bool}, S::Optional, T::Int},
      {"version", {}, S::Single, T::String},
      {"sendBackIP", {}, S::Single, T::String},
      {"getBrokerName", {}, S::Single, T::String},
      {"getInfo", {T::String}, S::Unwrapped, T::Record},
      {"stopTask", {T::Int}, S::Single, T::Int},
      {"stopTaskName", {T::String}, S::Single, T::Int},
      {"getDebugTaskList", {}, S::Single, T::Value},
  }};
  return table;
}

const OperationTable& tableOf(BrokerOperation op) {
  const int index = static_cast<int>(op);
  KX_ASSERT(kModule, index >= 0 && index < kBrokerOperationCount);
  return operations()[static_cast<size_t>(index)];
}

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

int readInt(const char* method, const XMLElement& element) {
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
  return static_cast<int>(number);
}

bool readBool(const char* method, const XMLElement& element) {
  checkType(method, element, {"boolean"}, "xsd:bool");
  const std::string text = trimmedText(element);
  if (text.empty()) failEmpty(method, element);
  if (text == "true" || text == "1") return true;
  if (text == "false" || text == "0") return false;
  failInvalid(method, element);
}

std::string readString(const XMLElement& element) {
  if (isNil(element)) return std::string();
  const char* text = element.GetText();
  return text != nullptr ? std::string(text) : std::string();
}

// The value is the element's first child element (an `item`); none gives Invalid.
KXValue readValue(const char* method, const XMLElement& element) {
  KXValue value;
  const XMLElement* item = element.FirstChildElement();
  if (item == nullptr || isNil(element)) return value;
  try {
    readKXValue(*item, value, 0);
  } catch (const KXError&) {
    failInvalid(method, element);
  }
  return value;
}

// Fields by name, in any order, each taken once; unknown ones and modulePointer skipped.
KXModuleInfo readRecord(const char* method, const XMLElement& element) {
  KXModuleInfo record;
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
        record.architecture = readInt(method, *child);
        break;
      case kIp:
        record.ip = readString(*child);
        break;
      case kPort:
        record.port = readInt(method, *child);
        break;
      case kProcessId:
        record.processId = readInt(method, *child);
        break;
      case kIsABroker:
        record.isABroker = readBool(method, *child);
        break;
      case kKeepAlive:
        record.keepAlive = readBool(method, *child);
        break;
      default:  // modulePointer: meaningless outside the process that wrote it
        break;
    }
  }
  return record;
}

BrokerArg readArg(const char* method, const XMLElement& element, BrokerArgType type) {
  switch (type) {
    case BrokerArgType::String:
      return BrokerArg(std::in_place_type<std::string>, readString(element));
    case BrokerArgType::Int:
      return BrokerArg(std::in_place_type<int>, readInt(method, element));
    case BrokerArgType::Bool:
      return BrokerArg(std::in_place_type<bool>, readBool(method, element));
    case BrokerArgType::Value:
      return BrokerArg(std::in_place_type<KXValue>, readValue(method, element));
    case BrokerArgType::Record:
      return BrokerArg(std::in_place_type<KXModuleInfo>, readRecord(method, element));
  }
  throwAssertFailed(kModule, __FILE__, __LINE__);
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

}  // namespace

KXBrokerMessageError::KXBrokerMessageError(const std::string& method,
                                           const std::string& faultString, const char* file,
                                           int line)
    : KXError(kModule, method, faultString, file, line), faultString_(faultString) {}

KXBrokerMessageError::~KXBrokerMessageError() = default;

const char* brokerOperationName(BrokerOperation op) { return tableOf(op).name; }

bool brokerOperationIsOneWay(BrokerOperation op) { return tableOf(op).shape == S::None; }

const std::vector<BrokerArgType>& brokerRequestTypes(BrokerOperation op) {
  return tableOf(op).request;
}

BrokerRequest parseBrokerRequest(const char* data, std::size_t size) {
  static constexpr const char* kMethod = "parseBrokerRequest";
  tinyxml2::XMLDocument document;
  const XMLElement* element = bodyElement(kMethod, document, data, size);
  if (element == nullptr) {
    fail(kMethod, "Method '' not implemented: method name or namespace not recognized");
  }

  BrokerRequest request;
  int index = 0;
  const char* bound = namespaceOf(*element, element->Name());
  if (bound != nullptr && std::strcmp(bound, kBrokerNamespace) == 0) {
    const char* local = localName(element->Name());
    while (index < kBrokerOperationCount &&
           std::strcmp(operations()[static_cast<size_t>(index)].name, local) != 0) {
      ++index;
    }
  } else {
    index = kBrokerOperationCount;
  }
  if (index == kBrokerOperationCount) {
    fail(kMethod, std::string("Method '") + element->Name() +
                      "' not implemented: method name or namespace not recognized");
  }
  request.op = static_cast<BrokerOperation>(index);

  const std::vector<BrokerArgType>& types = tableOf(request.op).request;
  request.args.reserve(types.size());
  const XMLElement* child = element->FirstChildElement();
  for (const BrokerArgType type : types) {
    if (child == nullptr) {
      fail(kMethod, "Validation constraint violation: occurrence constraint violation" +
                        inElement(*element));
    }
    request.args.push_back(readArg(kMethod, *child, type));
    child = child->NextSiblingElement();
  }
  return request;
}

BrokerRequest parseBrokerRequest(const std::string& xml) {
  return parseBrokerRequest(xml.data(), xml.size());
}

BrokerResponse parseBrokerResponse(BrokerOperation op, const char* data, std::size_t size) {
  static constexpr const char* kMethod = "parseBrokerResponse";
  const OperationTable& table = tableOf(op);
  if (table.shape == S::None) {
    KX_THROW(kModule, kMethod, std::string(table.name) + " is one-way: it has no response");
  }

  tinyxml2::XMLDocument document;
  const XMLElement* element = bodyElement(kMethod, document, data, size);
  BrokerResponse response;
  response.op = op;
  if (element == nullptr) {
    fail(kMethod, "Validation constraint violation: tag name or namespace mismatch");
  }
  if (isNamed(*element, kEnvelopeNamespace, "Fault")) {
    response.fault = BrokerFault{childText(*element, "faultcode"),
                                 childText(*element, "faultstring"), childText(*element, "detail")};
    return response;
  }

  if (table.shape == S::Unwrapped) {
    if (!isNamed(*element, kRecordNamespace, "KXModuleInfo")) {
      fail(kMethod,
           "Validation constraint violation: tag name or namespace mismatch" + inElement(*element));
    }
    response.items.push_back(readArg(kMethod, *element, table.responseType));
    return response;
  }

  const std::string expected = std::string(table.name) + "Response";
  if (!isNamed(*element, kBrokerNamespace, expected.c_str())) {
    fail(kMethod,
         "Validation constraint violation: tag name or namespace mismatch" + inElement(*element));
  }
  const XMLElement* child = element->FirstChildElement();
  switch (table.shape) {
    case S::Repeated:
      for (; child != nullptr; child = child->NextSiblingElement()) {
        response.items.push_back(readArg(kMethod, *child, table.responseType));
      }
      break;
    case S::Optional:
      if (child != nullptr && !isNil(*child)) {
        response.items.push_back(readArg(kMethod, *child, table.responseType));
      }
      break;
    default:
      if (child == nullptr) {
        fail(kMethod, "Validation constraint violation: occurrence constraint violation" +
                          inElement(*element));
      }
      response.items.push_back(readArg(kMethod, *child, table.responseType));
      break;
  }
  return response;
}

BrokerResponse parseBrokerResponse(BrokerOperation op, const std::string& xml) {
  return parseBrokerResponse(op, xml.data(), xml.size());
}

}  // namespace KX
