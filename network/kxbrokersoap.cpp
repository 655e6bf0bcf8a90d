#include "network/kxbrokersoap.h"

#include <string>

#include "network/kxvaluesoap.h"

namespace KX {

int serveBrokerRequests(struct soap* soap, KXBrokerSoapHandler& handler) {
  void* previous = soap->user;
  soap->user = &handler;
  const int result = ::soap_serve(soap);
  soap->user = previous;
  return result;
}

char* kxValueToSoap(struct soap* soap, const KXValue& value) {
  std::string xml;
  writeKXValue(value, xml, false);
  return soap_strdup(soap, xml.c_str());
}

KXValue kxValueFromSoap(const char* xml) {
  KXValue value;
  if (xml != nullptr) {
    readKXValueFromXml(xml, value);
  }
  return value;
}

}  // namespace KX

// The definitions below are global: the generated code calls them by their global names.

// Serializer of xsd__anyType (declared `extern` in kxbroker.gsoap, so soapcpp2 leaves it to
// us): the element carries xsi:type="xsd:anyType" and the raw XML text between its tags.
// A null text is written as a nil element.

void soap_default_xsd__anyType(struct soap* /*soap*/, char** a) { *a = nullptr; }

// Raw text holds no references to other serialized data.
void soap_serialize_xsd__anyType(struct soap* /*soap*/, char* const* /*a*/) {}

// The generated code asks for no type (children are written untyped); this one element names
// its type whatever it is asked.
int soap_out_xsd__anyType(struct soap* soap, const char* tag, int id, char* const* a,
                          const char* /*type*/) {
  if (*a == nullptr) {
    return soap_element_null(soap, tag, id, "xsd:anyType");
  }
  if (soap_element_begin_out(soap, tag, id, "xsd:anyType") != SOAP_OK ||
      soap_send(soap, *a) != SOAP_OK) {
    return soap->error;
  }
  return soap_element_end_out(soap, tag);
}

// The inner XML of the element, as received (entities are not resolved).
char** soap_in_xsd__anyType(struct soap* soap, const char* tag, char** a, const char* /*type*/) {
  return soap_inliteral(soap, tag, a);
}

namespace {

KX::KXBrokerSoapHandler* handlerOf(struct soap* soap) {
  return static_cast<KX::KXBrokerSoapHandler*>(soap->user);
}

// The skeleton was entered without serveBrokerRequests.
int noHandler(struct soap* soap) {
  return soap_receiver_fault(soap, "no handler serves broker requests", nullptr);
}

}  // namespace

// The skeleton's operation functions: each hands its request to the connection's handler.

int kxbroker__callVelmo(struct soap* soap, char* mod, char* meth, char* p, char*& result) {
  KX::KXBrokerSoapHandler* handler = handlerOf(soap);
  return handler == nullptr ? noHandler(soap) : handler->callVelmo(soap, mod, meth, p, result);
}

int kxbroker__callVelmo2(struct soap* soap, char* mod, char* meth, char* p, char*& result) {
  KX::KXBrokerSoapHandler* handler = handlerOf(soap);
  return handler == nullptr ? noHandler(soap) : handler->callVelmo2(soap, mod, meth, p, result);
}

int kxbroker__pCallVelmoN(struct soap* soap, char* arg1, int arg2, char* arg3, char* arg4,
                          char* arg5, char* arg6, char* arg7, char*& result) {
  KX::KXBrokerSoapHandler* handler = handlerOf(soap);
  return handler == nullptr
             ? noHandler(soap)
             : handler->pCallVelmoN(soap, arg1, arg2, arg3, arg4, arg5, arg6, arg7, result);
}

int kxbroker__pCallVelmo(struct soap* soap, char* mod, char* meth, char* p) {
  KX::KXBrokerSoapHandler* handler = handlerOf(soap);
  return handler == nullptr ? noHandler(soap) : handler->pCallVelmo(soap, mod, meth, p);
}

int kxbroker__getModuleByName(struct soap* soap, char* moduleName,
                              kxbroker__getModuleByNameResponse& response) {
  KX::KXBrokerSoapHandler* handler = handlerOf(soap);
  return handler == nullptr ? noHandler(soap)
                            : handler->getModuleByName(soap, moduleName, response);
}

int kxbroker__exploreToGetModuleByName(struct soap* soap, char* moduleName, bool searchUp,
                                       bool searchDown, char* dontLookIntoBrokerName, bool loadLib,
                                       kxbroker__exploreToGetModuleByNameResponse& response) {
  KX::KXBrokerSoapHandler* handler = handlerOf(soap);
  return handler == nullptr
             ? noHandler(soap)
             : handler->exploreToGetModuleByName(soap, moduleName, searchUp, searchDown,
                                                 dontLookIntoBrokerName, loadLib, response);
}

int kxbroker__getModuleList(struct soap* soap, kxbroker__getModuleListResponse& response) {
  KX::KXBrokerSoapHandler* handler = handlerOf(soap);
  return handler == nullptr ? noHandler(soap) : handler->getModuleList(soap, response);
}

int kxbroker__getGlobalModuleList(struct soap* soap,
                                  kxbroker__getGlobalModuleListResponse& response) {
  KX::KXBrokerSoapHandler* handler = handlerOf(soap);
  return handler == nullptr ? noHandler(soap) : handler->getGlobalModuleList(soap, response);
}

int kxbroker__getBrokerList(struct soap* soap, kxbroker__getBrokerListResponse& response) {
  KX::KXBrokerSoapHandler* handler = handlerOf(soap);
  return handler == nullptr ? noHandler(soap) : handler->getBrokerList(soap, response);
}

int kxbroker__registerBroker(struct soap* soap, kx__KXModuleInfo broker, int& unused) {
  KX::KXBrokerSoapHandler* handler = handlerOf(soap);
  return handler == nullptr ? noHandler(soap) : handler->registerBroker(soap, broker, unused);
}

int kxbroker__unregisterBroker(struct soap* soap, kx__KXModuleInfo broker, int& unused) {
  KX::KXBrokerSoapHandler* handler = handlerOf(soap);
  return handler == nullptr ? noHandler(soap) : handler->unregisterBroker(soap, broker, unused);
}

int kxbroker__unregisterModuleReference(struct soap* soap, char* moduleName) {
  KX::KXBrokerSoapHandler* handler = handlerOf(soap);
  return handler == nullptr ? noHandler(soap)
                            : handler->unregisterModuleReference(soap, moduleName);
}

int kxbroker__getBrokerInfo(struct soap* soap, kxbroker__getBrokerInfoResponse& response) {
  KX::KXBrokerSoapHandler* handler = handlerOf(soap);
  return handler == nullptr ? noHandler(soap) : handler->getBrokerInfo(soap, response);
}

int kxbroker__exit(struct soap* soap) {
  KX::KXBrokerSoapHandler* handler = handlerOf(soap);
  return handler == nullptr ? noHandler(soap) : handler->exit(soap);
}

int kxbroker__getMethodList(struct soap* soap, char* moduleName,
                            kxbroker__getMethodListResponse& response) {
  KX::KXBrokerSoapHandler* handler = handlerOf(soap);
  return handler == nullptr ? noHandler(soap) : handler->getMethodList(soap, moduleName, response);
}

int kxbroker__init(struct soap* soap, char* name, char* ip, int port, char* parentIP,
                   int parentPort, bool keepAlive, kxbroker__initResponse& response) {
  KX::KXBrokerSoapHandler* handler = handlerOf(soap);
  return handler == nullptr
             ? noHandler(soap)
             : handler->init(soap, name, ip, port, parentIP, parentPort, keepAlive, response);
}

int kxbroker__version(struct soap* soap, char*& version) {
  KX::KXBrokerSoapHandler* handler = handlerOf(soap);
  return handler == nullptr ? noHandler(soap) : handler->version(soap, version);
}

int kxbroker__sendBackIP(struct soap* soap, char*& ip) {
  KX::KXBrokerSoapHandler* handler = handlerOf(soap);
  return handler == nullptr ? noHandler(soap) : handler->sendBackIP(soap, ip);
}

int kxbroker__getBrokerName(struct soap* soap, char*& brokerName) {
  KX::KXBrokerSoapHandler* handler = handlerOf(soap);
  return handler == nullptr ? noHandler(soap) : handler->getBrokerName(soap, brokerName);
}

int kxbroker__getInfo(struct soap* soap, char* moduleName, kx__KXModuleInfo& info) {
  KX::KXBrokerSoapHandler* handler = handlerOf(soap);
  return handler == nullptr ? noHandler(soap) : handler->getInfo(soap, moduleName, info);
}

int kxbroker__stopTask(struct soap* soap, int taskId, int& num) {
  KX::KXBrokerSoapHandler* handler = handlerOf(soap);
  return handler == nullptr ? noHandler(soap) : handler->stopTask(soap, taskId, num);
}

int kxbroker__stopTaskName(struct soap* soap, char* taskName, int& num) {
  KX::KXBrokerSoapHandler* handler = handlerOf(soap);
  return handler == nullptr ? noHandler(soap) : handler->stopTaskName(soap, taskName, num);
}

int kxbroker__getDebugTaskList(struct soap* soap, char*& result) {
  KX::KXBrokerSoapHandler* handler = handlerOf(soap);
  return handler == nullptr ? noHandler(soap) : handler->getDebugTaskList(soap, result);
}
