#ifndef VELMO_NETWORK_KXBROKERSOAP_H_
#define VELMO_NETWORK_KXBROKERSOAP_H_

// The broker protocol on gSOAP: the generated client calls (soap_call_kxbroker__<op>,
// soap_send_kxbroker__<op> for the one-way operations), the skeleton that serves
// them, and the bridge from the skeleton to a handler object of ours.
//
// Values: a KXValue child (`p`, `return`) is a char* holding the raw XML of the value (the
// `item` elements of writeKXValue), written inside an element typed xsd:anyType and read
// back as the element's inner XML text.

#include <stdsoap2.h>

#include "kxsoapH.h"
#include "value/kxvalue.h"

namespace KX {

// The server side of the 23 operations. serveBrokerRequests calls one method per request
// received; each gets the context of the connection (for allocating results with
// soap_strdup / soap_new_*, and for faults: return soap_sender_fault(soap, text, detail)).
// Results allocated with the context live until the response is sent. Return SOAP_OK, or
// the error code of a fault. The one-way operations (pCallVelmo, unregisterModuleReference,
// exit) send nothing back whatever they return, unless they send a fault. Methods must not
// throw. A handler may serve several connections at once, from several threads.
class KXBrokerSoapHandler {
 public:
  virtual ~KXBrokerSoapHandler() = default;

  virtual int callVelmo(struct soap* soap, char* mod, char* meth, char* p, char*& result) = 0;
  virtual int callVelmo2(struct soap* soap, char* mod, char* meth, char* p, char*& result) = 0;
  virtual int pCallVelmoN(struct soap* soap, char* arg1, int arg2, char* arg3, char* arg4,
                          char* arg5, char* arg6, char* arg7, char*& result) = 0;
  virtual int pCallVelmo(struct soap* soap, char* mod, char* meth, char* p) = 0;
  virtual int getModuleByName(struct soap* soap, char* moduleName,
                              kxbroker__getModuleByNameResponse& response) = 0;
  virtual int exploreToGetModuleByName(struct soap* soap, char* moduleName, bool searchUp,
                                       bool searchDown, char* dontLookIntoBrokerName, bool loadLib,
                                       kxbroker__exploreToGetModuleByNameResponse& response) = 0;
  virtual int getModuleList(struct soap* soap, kxbroker__getModuleListResponse& response) = 0;
  virtual int getGlobalModuleList(struct soap* soap,
                                  kxbroker__getGlobalModuleListResponse& response) = 0;
  virtual int getBrokerList(struct soap* soap, kxbroker__getBrokerListResponse& response) = 0;
  virtual int registerBroker(struct soap* soap, kx__KXModuleInfo broker, int& unused) = 0;
  virtual int unregisterBroker(struct soap* soap, kx__KXModuleInfo broker, int& unused) = 0;
  virtual int unregisterModuleReference(struct soap* soap, char* moduleName) = 0;
  virtual int getBrokerInfo(struct soap* soap, kxbroker__getBrokerInfoResponse& response) = 0;
  virtual int exit(struct soap* soap) = 0;
  virtual int getMethodList(struct soap* soap, char* moduleName,
                            kxbroker__getMethodListResponse& response) = 0;
  virtual int init(struct soap* soap, char* name, char* ip, int port, char* parentIP,
                   int parentPort, bool keepAlive, kxbroker__initResponse& response) = 0;
  virtual int version(struct soap* soap, char*& version) = 0;
  virtual int sendBackIP(struct soap* soap, char*& ip) = 0;
  virtual int getBrokerName(struct soap* soap, char*& brokerName) = 0;
  virtual int getInfo(struct soap* soap, char* moduleName, kx__KXModuleInfo& info) = 0;
  virtual int stopTask(struct soap* soap, int taskId, int& num) = 0;
  virtual int stopTaskName(struct soap* soap, char* taskName, int& num) = 0;
  virtual int getDebugTaskList(struct soap* soap, char*& result) = 0;
};

// Serves the requests that arrive on the connection of `soap` with `handler`, until the
// peer closes it, keep-alive ends, or a request fails. Returns SOAP_OK or the error code.
int serveBrokerRequests(struct soap* soap, KXBrokerSoapHandler& handler);

// The XML text of `value` as a KXValue child of a message: allocated in `soap`, valid until
// its message data are freed. Raises what writeKXValue raises.
char* kxValueToSoap(struct soap* soap, const KXValue& value);

// The KXValue that a KXValue child carries: `xml` is the child's inner XML, null for an
// absent child (giving Invalid). Raises what readKXValueFromXml raises.
KXValue kxValueFromSoap(const char* xml);

}  // namespace KX

#endif  // VELMO_NETWORK_KXBROKERSOAP_H_
