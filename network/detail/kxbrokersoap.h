#ifndef VELMO_NETWORK_DETAIL_KXBROKERSOAP_H_
#define VELMO_NETWORK_DETAIL_KXBROKERSOAP_H_

// The broker protocol on gSOAP: the generated client calls (soap_call_kxbroker__<op>,
// soap_send_kxbroker__<op> for the one-way operations) and message serializers. Requests
// are served by serveBrokerConnection (network/kxbrokerserve.h), which reads them by
// position rather than through generated deserializers that match children by name.
//
// Values: a KXValue child (`p`, `return`) is a char* holding the raw XML of the value (the
// `item` elements of writeKXValue), written inside an element typed xsd:anyType and read
// back as the element's inner XML text.

#include <stdsoap2.h>

#include <string>

#include "kxsoapH.h"
#include "module/kxmoduleinfo.h"
#include "value/kxvalue.h"

namespace KX {

// The XML text of `value` as a KXValue child of a message: allocated in `soap`, valid until
// its message data are freed. Raises what writeKXValue raises.
char* kxValueToSoap(struct soap* soap, const KXValue& value);

// The KXValue that a KXValue child carries: `xml` is the child's inner XML, null for an
// absent child (giving Invalid). Raises what readKXValueFromXml raises.
KXValue kxValueFromSoap(const char* xml);

// The whole envelope of a callVelmo or callVelmo2 request, as the generated serializer
// writes it: written directly, in one pass, for the calls that carry no attachment.
// `callVelmo2` selects the element names. Raises what writeKXValue raises.
void writeCallRequest(std::string& out, bool callVelmo2, const std::string& module,
                      const std::string& method, const KXValue& param);
// The whole envelope of the answer to callVelmo (or callVelmo2): the result as `return`.
void writeCallResponse(std::string& out, bool callVelmo2, const KXValue& result);

// `info` as a kx:KXModuleInfo record, its strings allocated in `soap` (modulePointer 0).
void kxModuleInfoToSoap(struct soap* soap, const KXModuleInfo& info, kx__KXModuleInfo& record);

}  // namespace KX

#endif  // VELMO_NETWORK_DETAIL_KXBROKERSOAP_H_
