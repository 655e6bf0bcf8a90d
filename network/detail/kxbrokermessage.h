#ifndef VELMO_NETWORK_DETAIL_KXBROKERMESSAGE_H_
#define VELMO_NETWORK_DETAIL_KXBROKERMESSAGE_H_

// Reading broker protocol messages (kxbrokerprotocol.h) the way peers expect them to be
// read: the children of a request (and of a response) are taken by position and type,
// whatever their names; the fields of a kx:KXModuleInfo record by name, in any order. Read
// over a TinyXML-2 tree of the SOAP envelope.
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

#include "network/detail/kxbrokerprotocol.h"
#include "value/kxerror.h"

namespace KX {

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

// Reads the answer to the operation `op` (its kName) from the SOAP envelope answering it:
// the fault when the answer is one, else nothing, `answer` then holding what was read.
// `answerChild` null: the answer is the record itself (the body element kx:KXModuleInfo).
// Raises KXBrokerMessageError for a malformed answer. Defined for every answer type but
// NoAnswer.
template <typename Answer>
std::optional<BrokerFault> readBrokerAnswer(const char* op, const char* answerChild,
                                            const char* data, std::size_t size, Answer& answer);

// The answer to a request of `Op`, or the fault that replaced it; as readBrokerAnswer.
template <typename Op>
BrokerReply<typename Op::Answer> parseBrokerResponse(const char* data, std::size_t size) {
  static_assert(!isOneWay<Op>(), "a one-way operation has no response");
  BrokerReply<typename Op::Answer> reply;
  reply.fault = readBrokerAnswer(Op::kName, Op::kAnswerChild, data, size, reply.answer);
  return reply;
}

template <typename Op>
BrokerReply<typename Op::Answer> parseBrokerResponse(const std::string& xml) {
  return parseBrokerResponse<Op>(xml.data(), xml.size());
}

}  // namespace KX

#endif  // VELMO_NETWORK_DETAIL_KXBROKERMESSAGE_H_
