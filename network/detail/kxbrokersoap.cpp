#include "network/detail/kxbrokersoap.h"

#include <string>

#include "network/detail/kxvaluesoap.h"
#include "value/textcoding.h"

namespace KX {

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

namespace {

constexpr char kEnvelopeStart[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<SOAP-ENV:Envelope xmlns:SOAP-ENV=\"http://schemas.xmlsoap.org/soap/envelope/\" "
    "xmlns:SOAP-ENC=\"http://schemas.xmlsoap.org/soap/encoding/\" "
    "xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" "
    "xmlns:xsd=\"http://www.w3.org/2001/XMLSchema\" xmlns:kxbroker=\"urn:kxbroker\" "
    "xmlns:kx=\"urn:korvane\"><SOAP-ENV:Body "
    "SOAP-ENV:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\">";
constexpr char kEnvelopeEnd[] = "</SOAP-ENV:Body></SOAP-ENV:Envelope>\r\n";

// `out` becomes the envelope up to the opening tag of the body's `element`.
void openBody(std::string& out, const char* element) {
  out.assign(kEnvelopeStart);
  out += '<';
  out += element;
  out += '>';
}

void closeBody(std::string& out, const char* element) {
  out += "</";
  out += element;
  out += '>';
  out += kEnvelopeEnd;
}

}  // namespace

void writeCallRequest(std::string& out, bool callVelmo2, const std::string& module,
                      const std::string& method, const KXValue& param) {
  const char* element = callVelmo2 ? "kxbroker:callVelmo2" : "kxbroker:callVelmo";
  openBody(out, element);
  out += "<kxbroker:mod>";
  appendXmlEscaped(out, module, kEscapeControls);
  out += "</kxbroker:mod><kxbroker:meth>";
  appendXmlEscaped(out, method, kEscapeControls);
  out += "</kxbroker:meth><kxbroker:p xsi:type=\"xsd:anyType\">";
  writeKXValue(param, out, false);
  out += "</kxbroker:p>";
  closeBody(out, element);
}

void writeCallResponse(std::string& out, bool callVelmo2, const KXValue& result) {
  const char* element = callVelmo2 ? "kxbroker:callVelmo2Response" : "kxbroker:callVelmoResponse";
  openBody(out, element);
  out += "<kxbroker:return xsi:type=\"xsd:anyType\">";
  writeKXValue(result, out, false);
  out += "</kxbroker:return>";
  closeBody(out, element);
}

void kxModuleInfoToSoap(struct soap* soap, const KXModuleInfo& info, kx__KXModuleInfo& record) {
  soap_default_kx__KXModuleInfo(soap, &record);
  record.name = soap_strdup(soap, info.name.c_str());
  record.architecture = info.architecture;
  record.ip = soap_strdup(soap, info.ip.c_str());
  record.port = info.port;
  record.processId = info.processId;
  record.modulePointer = 0;
  record.isABroker = info.isABroker;
  record.keepAlive = info.keepAlive;
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
