#include "network/kxbrokersoap.h"

#include <gtest/gtest.h>

#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "network/kxsoapcontext.h"
#include "value/kxvalue.h"

namespace KX {
namespace {

constexpr const char* kEnvelopeStart =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<SOAP-ENV:Envelope xmlns:SOAP-ENV=\"http://schemas.xmlsoap.org/soap/envelope/\" "
    "xmlns:SOAP-ENC=\"http://schemas.xmlsoap.org/soap/encoding/\" "
    "xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" "
    "xmlns:xsd=\"http://www.w3.org/2001/XMLSchema\" xmlns:kxbroker=\"urn:kxbroker\" "
    "xmlns:kx=\"urn:korvane\">";

// Writes one message body into memory, framed the way the runtime frames a message.
std::string messageOf(KXSoapContext& context, const std::function<int(struct soap*)>& putBody) {
  std::ostringstream out;
  struct soap* soap = context.get();
  soap_begin(soap);
  soap_set_version(soap, 1);
  soap->encodingStyle = "";
  soap->os = &out;
  const bool written = soap_begin_send(soap) == SOAP_OK &&
                       soap_envelope_begin_out(soap) == SOAP_OK &&
                       soap_body_begin_out(soap) == SOAP_OK && putBody(soap) == SOAP_OK &&
                       soap_body_end_out(soap) == SOAP_OK &&
                       soap_envelope_end_out(soap) == SOAP_OK && soap_end_send(soap) == SOAP_OK;
  soap->os = nullptr;
  EXPECT_TRUE(written) << "gSOAP error " << soap->error;
  context.freeMessageData();
  return out.str();
}

KXValue arrayOf(const std::vector<KXValue>& items) {
  KXValue array;
  array.arraySetSize(0);
  for (const KXValue& item : items) {
    array.arrayPush(item);
  }
  return array;
}

constexpr const char* kBodyStart =
    "<SOAP-ENV:Body SOAP-ENV:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\">";
constexpr const char* kEnvelopeEnd = "</SOAP-ENV:Body></SOAP-ENV:Envelope>";

std::string envelope(const std::string& body) {
  return std::string(kEnvelopeStart) + kBodyStart + body + kEnvelopeEnd + "\r\n";
}

TEST(KXBrokerSoapTest, CallVelmoRequestCarriesTheParameterAsRawXmlTypedAnyType) {
  KXSoapContext context;
  const std::string xml = messageOf(context, [](struct soap* soap) {
    struct kxbroker__callVelmo request;
    soap_default_kxbroker__callVelmo(soap, &request);
    request.kxbroker__mod = soap_strdup(soap, "KXMemory");
    request.kxbroker__meth = soap_strdup(soap, "getData");
    request.kxbroker__p = kxValueToSoap(soap, arrayOf({KXValue("key"), KXValue(42)}));
    return soap_put_kxbroker__callVelmo(soap, &request, "kxbroker:callVelmo", "");
  });
  EXPECT_EQ(xml, envelope("<kxbroker:callVelmo><kxbroker:mod>KXMemory</kxbroker:mod>"
                          "<kxbroker:meth>getData</kxbroker:meth>"
                          "<kxbroker:p xsi:type=\"xsd:anyType\"><item xsi:type=\"Array\">"
                          "<item xsi:type=\"xsd:string\">key</item>"
                          "<item xsi:type=\"xsd:int\">42</item></item></kxbroker:p>"
                          "</kxbroker:callVelmo>"));
}

TEST(KXBrokerSoapTest, GetInfoIsAnsweredByTheRecordWithoutResponseWrapper) {
  KXSoapContext context;
  const std::string xml = messageOf(context, [](struct soap* soap) {
    struct kx__KXModuleInfo info;
    soap_default_kx__KXModuleInfo(soap, &info);
    info.name = soap_strdup(soap, "KXMemory");
    info.architecture = 3;
    info.ip = soap_strdup(soap, "10.0.0.7");
    info.port = 9559;
    info.processId = 1234;
    info.isABroker = true;
    info.keepAlive = false;
    return soap_put_kx__KXModuleInfo(soap, &info, "kx:KXModuleInfo", "");
  });
  EXPECT_EQ(xml, envelope("<kx:KXModuleInfo><name>KXMemory</name><architecture>3</architecture>"
                          "<ip>10.0.0.7</ip><port>9559</port><processId>1234</processId>"
                          "<modulePointer>0</modulePointer><isABroker>true</isABroker>"
                          "<keepAlive>false</keepAlive></kx:KXModuleInfo>"));
}

TEST(KXBrokerSoapTest, EmptyModuleListIsAnEmptyResponseElement) {
  KXSoapContext context;
  const std::string xml = messageOf(context, [](struct soap* soap) {
    struct kxbroker__getModuleListResponse response;
    soap_default_kxbroker__getModuleListResponse(soap, &response);
    return soap_put_kxbroker__getModuleListResponse(soap, &response,
                                                    "kxbroker:getModuleListResponse", "");
  });
  EXPECT_EQ(xml, envelope("<kxbroker:getModuleListResponse></kxbroker:getModuleListResponse>"));
}

TEST(KXBrokerSoapTest, ModuleListRepeatsTheReturnElementWithoutWrapper) {
  KXSoapContext context;
  const std::string xml = messageOf(context, [](struct soap* soap) {
    struct kxbroker__getModuleListResponse response;
    soap_default_kxbroker__getModuleListResponse(soap, &response);
    response.__size = 2;
    response.kxbroker__return = soap_new_kx__KXModuleInfo(soap, 2);
    response.kxbroker__return[0].name = soap_strdup(soap, "a");
    response.kxbroker__return[1].name = soap_strdup(soap, "b");
    response.kxbroker__return[0].ip = soap_strdup(soap, "1.2.3.4");
    response.kxbroker__return[1].ip = soap_strdup(soap, "1.2.3.4");
    return soap_put_kxbroker__getModuleListResponse(soap, &response,
                                                    "kxbroker:getModuleListResponse", "");
  });
  const std::string record =
      "<architecture>0</architecture><ip>1.2.3.4</ip>"
      "<port>0</port><processId>0</processId>"
      "<modulePointer>0</modulePointer><isABroker>false</isABroker>"
      "<keepAlive>false</keepAlive>";
  EXPECT_EQ(xml, envelope("<kxbroker:getModuleListResponse><kxbroker:return><name>a</name>" +
                          record + "</kxbroker:return><kxbroker:return><name>b</name>" + record +
                          "</kxbroker:return></kxbroker:getModuleListResponse>"));
}

TEST(KXBrokerSoapTest, FaultCarriesClientCodeStringAndDetail) {
  KXSoapContext context;
  std::ostringstream out;
  struct soap* soap = context.get();
  soap_begin(soap);
  soap_set_version(soap, 1);
  soap->os = &out;
  EXPECT_EQ(soap_sender_fault(soap, "division by zero", "Calculator"), SOAP_FAULT);
  soap_send_fault(soap);
  soap->os = nullptr;
  const std::string message = out.str();
  const std::size_t bodyStart = message.find("\r\n\r\n");
  ASSERT_NE(bodyStart, std::string::npos) << message;
  EXPECT_EQ(message.rfind("HTTP/1.1 500 Internal Server Error\r\n", 0), 0u) << message;
  EXPECT_EQ(message.substr(bodyStart + 4),
            std::string(kEnvelopeStart) +
                "<SOAP-ENV:Body><SOAP-ENV:Fault><faultcode>SOAP-ENV:Client</faultcode>"
                "<faultstring>division by zero</faultstring><detail>Calculator</detail>"
                "</SOAP-ENV:Fault>" +
                kEnvelopeEnd + "\r\n");
}

}  // namespace
}  // namespace KX

namespace KX {
namespace {

// The calls are written directly, without the generated serializers: byte for byte what
// those write.
TEST(KXBrokerSoapTest, CallsWrittenDirectlyMatchTheGeneratedSerializers) {
  const KXValue param =
      arrayOf({KXValue("k<e>y & \"q\" 'a'"), KXValue(42), KXValue(1.5f), arrayOf({KXValue(true)})});
  for (const bool second : {false, true}) {
    for (const std::string& module : {std::string("KXMemory"), std::string("a<&>\"'b"),
                                      std::string("t\tn\nr\rc\x01\x1f\x7f\xc3\xa9")}) {
      KXSoapContext context;
      const std::string generated = messageOf(context, [&](struct soap* soap) {
        struct kxbroker__callVelmo request;
        soap_default_kxbroker__callVelmo(soap, &request);
        request.kxbroker__mod = soap_strdup(soap, module.c_str());
        request.kxbroker__meth = soap_strdup(soap, "get&Data");
        request.kxbroker__p = kxValueToSoap(soap, param);
        return soap_put_kxbroker__callVelmo(
            soap, &request, second ? "kxbroker:callVelmo2" : "kxbroker:callVelmo", "");
      });
      std::string direct;
      writeCallRequest(direct, second, module, "get&Data", param);
      EXPECT_EQ(direct, generated);
    }
    KXSoapContext context;
    const std::string generated = messageOf(context, [&](struct soap* soap) {
      struct kxbroker__callVelmoResponse response;
      soap_default_kxbroker__callVelmoResponse(soap, &response);
      response.kxbroker__return = kxValueToSoap(soap, param);
      return soap_put_kxbroker__callVelmoResponse(
          soap, &response, second ? "kxbroker:callVelmo2Response" : "kxbroker:callVelmoResponse",
          "");
    });
    std::string direct;
    writeCallResponse(direct, second, param);
    EXPECT_EQ(direct, generated);
  }
}

}  // namespace
}  // namespace KX
