#ifndef VELMO_NETWORK_DETAIL_KXBROKERWRITER_H_
#define VELMO_NETWORK_DETAIL_KXBROKERWRITER_H_

// Writing broker protocol messages (kxbrokerprotocol.h): whole SOAP 1.1 envelopes, RPC style
// with SOAP encoding, in one pass into one string, so that a message leaves in one send.
// The bytes are those that gSOAP's generated serializers write, which peers already read:
// children qualified with "kxbroker:" and untyped, but for a KXValue, typed xsd:anyType and
// holding the `item` elements of writeKXValue; the fields of a record unqualified; an empty
// text written as an empty element ("<kxbroker:mod/>"); an int in decimal, a bool as "true"
// or "false". Every function here raises what writeKXValue raises.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "module/kxmoduleinfo.h"
#include "network/detail/kxbrokerprotocol.h"
#include "value/kxvalue.h"

namespace KX {

// `out` becomes the start of an envelope, up to the opening tag <prefix name suffix> of its
// body element; closeBrokerMessage appends that tag's end and the envelope's.
void openBrokerMessage(std::string& out, const char* prefix, const char* name, const char* suffix);
void closeBrokerMessage(std::string& out, const char* prefix, const char* name, const char* suffix);

// The body element of an envelope written here (what lies between the Body tags).
std::string_view brokerMessageBody(const std::string& envelope);

// Appends the child <kxbroker:name> holding `value`.
void appendBrokerChild(std::string& out, const char* name, const std::string& value);
void appendBrokerChild(std::string& out, const char* name, int value);
void appendBrokerChild(std::string& out, const char* name, bool value);
void appendBrokerChild(std::string& out, const char* name, const KXValue& value);
void appendBrokerChild(std::string& out, const char* name, const KXModuleInfo& value);
// An optional child is left out when empty; a list is its child once per item.
void appendBrokerChild(std::string& out, const char* name, const std::optional<int>& value);
template <typename T>
void appendBrokerChild(std::string& out, const char* name, const std::vector<T>& items) {
  for (const T& item : items) {
    appendBrokerChild(out, name, item);
  }
}

// Appends the fields of a record (modulePointer always 0), unqualified.
void appendRecordFields(std::string& out, const KXModuleInfo& record);

// The request of `Op` whose children are the members of `fields` (the request itself, or
// any object with the same member names, such as references to the parts of a call).
template <typename Op, typename Fields = Op>
void writeBrokerRequest(std::string& out, const Fields& fields) {
  openBrokerMessage(out, "kxbroker:", Op::kName, "");
  Op::children(
      fields, [&out](const char* name, const auto& child) { appendBrokerChild(out, name, child); });
  closeBrokerMessage(out, "kxbroker:", Op::kName, "");
}

// The answer to a request of `Op`: <kxbroker:NAMEResponse> around its child, or the record
// itself.
template <typename Op>
void writeBrokerAnswer(std::string& out, const typename Op::Answer& answer) {
  static_assert(!isOneWay<Op>(), "a one-way operation is answered by nothing");
  if constexpr (Op::kAnswerChild == nullptr) {
    openBrokerMessage(out, "kx:", "KXModuleInfo", "");
    appendRecordFields(out, answer);
    closeBrokerMessage(out, "kx:", "KXModuleInfo", "");
  } else {
    openBrokerMessage(out, "kxbroker:", Op::kName, "Response");
    appendBrokerChild(out, Op::kAnswerChild, answer);
    closeBrokerMessage(out, "kxbroker:", Op::kName, "Response");
  }
}

}  // namespace KX

#endif  // VELMO_NETWORK_DETAIL_KXBROKERWRITER_H_
