#ifndef VELMO_NETWORK_DETAIL_KXBROKERMESSAGE_H_
#define VELMO_NETWORK_DETAIL_KXBROKERMESSAGE_H_

// Reading broker protocol messages the way peers expect them to be read: the children of a
// request (and of a response) are taken by position and type, whatever their names; the
// fields of a kx:KXModuleInfo record by name, in any order. The generated gSOAP
// deserializers match children by name, so requests and responses are read here, over a
// TinyXML-2 tree of the SOAP envelope.
//
// Failures raise KXBrokerMessageError, whose faultString() is the text that the SOAP fault
// answering the message carries, worded as the SOAP runtime words its own faults:
//   - "Method '<name>' not implemented: method name or namespace not recognized" for a body
//     element that is none of the operations (<name> as received, "" when the body is
//     empty);
//   - "Validation constraint violation: occurrence constraint violation in element
//     '<operation element>'" when a child is missing;
//   - "Validation constraint violation: invalid value in element '<child>'" for an int or
//     bool text that does not parse (ints are decimal, 32-bit; bools "true", "false", "1",
//     "0") and for a KXValue that cannot be read;
//   - "Validation constraint violation: empty value provided where a value is required in
//     element '<child>'" for an int or bool without text (or nil);
//   - "Validation constraint violation: type mismatch <xsi:type> in element '<child>'" for
//     a bool typed other than "xsd:bool" or "...:boolean", an int typed other than "xsd:int"
//     or "...:int", "...:short", "...:byte";
//   - "Validation constraint violation: tag name or namespace mismatch in element '<name>'"
//     for an envelope without a body, or a response element other than the one awaited;
//   - "Invalid SOAP message or SOAP version mismatch" when the root is not a SOAP 1.1
//     envelope;
//   - "Validation constraint violation: syntax error" for text that is not well-formed XML,
//     "Maximum XML nesting depth level exceeded: increase maxlevel" for elements nested
//     deeper than the parser allows;
//   - "Message too large: <n> bytes, at most 67108864 accepted" above kBrokerMessageMaxBytes.
// Strings accept any xsi:type; a nil string reads as empty, a nil KXValue as Invalid.
// Children after the expected ones are ignored. Namespaces are recognised by their URIs,
// never by the prefixes a peer chose.
//
// Every function here is reentrant.

#include <cstddef>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "module/kxmoduleinfo.h"
#include "value/kxerror.h"
#include "value/kxvalue.h"

namespace KX {

// The operations, in the order in which a request's body element is compared with them.
enum class BrokerOperation {
  callVelmo,
  callVelmo2,
  pCallVelmoN,
  pCallVelmo,
  getModuleByName,
  exploreToGetModuleByName,
  getModuleList,
  getGlobalModuleList,
  getBrokerList,
  registerBroker,
  unregisterBroker,
  unregisterModuleReference,
  getBrokerInfo,
  exit,
  getMethodList,
  init,
  version,
  sendBackIP,
  getBrokerName,
  getInfo,
  stopTask,
  stopTaskName,
  getDebugTaskList,
};

constexpr int kBrokerOperationCount = 23;

// The element name of the request, without prefix ("callVelmo").
const char* brokerOperationName(BrokerOperation op);

// True for the operations answered by nothing (pCallVelmo, unregisterModuleReference, exit).
bool brokerOperationIsOneWay(BrokerOperation op);

// One child of a message. The alternatives are in the order of BrokerArgType.
using BrokerArg = std::variant<std::string, int, bool, KXValue, KXModuleInfo>;

enum class BrokerArgType { String, Int, Bool, Value, Record };

// The types of a request's children, in order.
const std::vector<BrokerArgType>& brokerRequestTypes(BrokerOperation op);

struct BrokerRequest {
  BrokerOperation op = BrokerOperation::callVelmo;
  std::vector<BrokerArg> args;  // one per expected child, in order
};

struct BrokerFault {
  std::string code;
  std::string string;
  std::string detail;  // the text of the detail element, empty without one
};

struct BrokerResponse {
  BrokerOperation op = BrokerOperation::callVelmo;
  std::optional<BrokerFault> fault;  // set when the answer is a SOAP fault; items empty then
  // The children read: one for a single result (KXValue, record, string, int), one per
  // element for the lists (none for an empty list), the record itself for getInfo, none for
  // an init answer whose `unused` is nil or absent.
  std::vector<BrokerArg> items;
};

// Largest message accepted (64 MiB): a bound on the memory a peer can make us spend on one
// parse tree.
constexpr std::size_t kBrokerMessageMaxBytes = 64u * 1024u * 1024u;

class KXBrokerMessageError : public KXError {
 public:
  KXBrokerMessageError(const std::string& method, const std::string& faultString, const char* file,
                       int line);
  ~KXBrokerMessageError() override;

  // The fault string that answers the message.
  const std::string& faultString() const { return faultString_; }

 private:
  std::string faultString_;
};

// Parses the SOAP envelope of a request (the body of the HTTP request) and reads the
// operation and its children. Raises KXBrokerMessageError.
BrokerRequest parseBrokerRequest(const char* data, std::size_t size);
BrokerRequest parseBrokerRequest(const std::string& xml);

// Parses the SOAP envelope answering a request for `op` (never a one-way operation, which
// raises KXError "<op> is one-way: it has no response"). A fault is returned, not raised.
// Raises KXBrokerMessageError for a malformed answer.
BrokerResponse parseBrokerResponse(BrokerOperation op, const char* data, std::size_t size);
BrokerResponse parseBrokerResponse(BrokerOperation op, const std::string& xml);

}  // namespace KX

#endif  // VELMO_NETWORK_DETAIL_KXBROKERMESSAGE_H_
