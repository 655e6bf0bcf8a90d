// Broker protocol messages: requests and answers read by position and type (the reader), and
// the calls written directly in one pass (the writer), byte for byte as the generated
// serializers write them.
#include "network/kxbrokermessage.h"

#include <gtest/gtest.h>

#include <functional>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "network/kxbrokersoap.h"
#include "network/kxsoapcontext.h"
#include "network/tests/wire_test_support.h"
#include "value/tests/value_test_util.h"

namespace KX {
namespace testing {
namespace {

using testing_util::arrayOf;
using testing_util::errorText;
using wire::envelope;
using wire::operation;
using wire::textChild;
using wire::valueChild;
using Op = BrokerOperation;

const std::string kRecordXml =
    "<name>KXBroker1</name><architecture>3</architecture><ip>10.0.0.7</ip><port>8080</port>"
    "<processId>4242</processId><modulePointer>0</modulePointer><isABroker>true</isABroker>"
    "<keepAlive>false</keepAlive>";
const std::string kRecord = "KXBroker1|3|10.0.0.7:8080|4242|broker";
const KXValue kParameter = arrayOf("key", 42);
const std::string kParameterText = "value 1 [\"key\", 42]";

std::string requestFault(const std::string& xml) {
  try {
    parseBrokerRequest(xml);
  } catch (const KXBrokerMessageError& error) {
    return error.faultString();
  }
  return "<parsed>";
}

std::string responseFault(Op op, const std::string& xml) {
  try {
    parseBrokerResponse(op, xml);
  } catch (const KXBrokerMessageError& error) {
    return error.faultString();
  }
  return "<parsed>";
}

std::string request(Op op, const std::string& children) {
  return envelope(operation(brokerOperationName(op), children));
}

TEST(KXBrokerMessageTest, EveryOperationReadsItsChildrenByPositionWhateverTheirNames) {
  const std::string call = textChild("kxbroker:mod", "KXMemory") + textChild("meth", "getData") +
                           valueChild("p", kParameter);
  const std::vector<std::string> callArgs = {"'KXMemory'", "'getData'", kParameterText};
  const struct {
    Op op;
    std::string children;
    std::vector<std::string> args;
  } cases[] = {
      {Op::callVelmo, call, callArgs},
      {Op::callVelmo2, call, callArgs},
      {Op::pCallVelmoN,
       "<a>a</a><b>-7</b><c>c</c><d>d</d><e>e</e><f>f</f>" + valueChild("g", KXValue(5)),
       {"'a'", "-7", "'c'", "'d'", "'e'", "'f'", "value 3 5"}},
      {Op::pCallVelmo, call, callArgs},
      {Op::getModuleByName, "<m>KXMemory</m>", {"'KXMemory'"}},
      {Op::exploreToGetModuleByName,
       "<m>M</m><u>true</u><d>0</d><x>B2</x><l>1</l>",
       {"'M'", "true", "false", "'B2'", "true"}},
      {Op::getModuleList, "", {}},
      {Op::getGlobalModuleList, "", {}},
      {Op::getBrokerList, "", {}},
      {Op::registerBroker, "<r>" + kRecordXml + "</r>", {kRecord}},
      {Op::unregisterBroker, "<r>" + kRecordXml + "</r>", {kRecord}},
      {Op::unregisterModuleReference, "<m>KXMemory</m>", {"'KXMemory'"}},
      {Op::getBrokerInfo, "", {}},
      {Op::exit, "", {}},
      {Op::getMethodList, "<m>KXMemory</m>", {"'KXMemory'"}},
      {Op::init,
       "<a>B</a><b>1.2.3.4</b><c>9000</c><d>5.6.7.8</d><e>9001</e><f>false</f>",
       {"'B'", "'1.2.3.4'", "9000", "'5.6.7.8'", "9001", "false"}},
      {Op::version, "", {}},
      {Op::sendBackIP, "", {}},
      {Op::getBrokerName, "", {}},
      {Op::getInfo, "<m>KXMemory</m>", {"'KXMemory'"}},
      {Op::stopTask, "<n>12</n>", {"12"}},
      {Op::stopTaskName, "<n>scan</n>", {"'scan'"}},
      {Op::getDebugTaskList, "<ignored>x</ignored>", {}},
  };
  ASSERT_EQ(std::size(cases), static_cast<std::size_t>(kBrokerOperationCount));
  std::vector<std::string> oneWay;
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    SCOPED_TRACE(brokerOperationName(cases[i].op));
    EXPECT_EQ(static_cast<std::size_t>(cases[i].op), i);  // the order of comparison
    const BrokerRequest parsed = parseBrokerRequest(request(cases[i].op, cases[i].children));
    EXPECT_EQ(parsed.op, cases[i].op);
    EXPECT_EQ(describe(parsed.args), cases[i].args);
    if (brokerOperationIsOneWay(cases[i].op)) oneWay.push_back(brokerOperationName(cases[i].op));
  }
  EXPECT_EQ(oneWay, (std::vector<std::string>{"pCallVelmo", "unregisterModuleReference", "exit"}));
}

TEST(KXBrokerMessageTest, ChildrenAreReadInEveryFormAPeerMayWrite) {
  const auto explore = [](const std::string& searchUp) {
    return request(Op::exploreToGetModuleByName, "<a>M</a>" + searchUp + "<c>1</c><d/><e>0</e>");
  };
  const auto stopTask = [](const std::string& id) { return request(Op::stopTask, id); };
  const auto registered = [](const std::string& fields) {
    return request(Op::registerBroker, "<r>" + fields + "</r>");
  };
  const struct {
    std::string xml;
    std::string arg;  // the child that the row is about: explore's second, callVelmo's third
  } cases[] = {
      {explore("<b xsi:type=\"xsd:boolean\">true</b>"), "true"},
      {explore("<b xsi:type=\"xsd:bool\">1</b>"), "true"},
      {explore("<b xsi:type=\"other:boolean\"> false\n</b>"), "false"},
      {explore("<b>0</b>"), "false"},
      {stopTask("<n>2147483647</n>"), "2147483647"},
      {stopTask("<n>-2147483648</n>"), "-2147483648"},
      {stopTask("<n xsi:type=\"xsd:int\"> +7 </n>"), "7"},
      {stopTask("<n xsi:type=\"xsd:short\">2</n>"), "2"},
      {stopTask("<n xsi:type=\"xsd:byte\">3</n><more/>"), "3"},
      // An attribute named type outside the schema instance namespace gives no type.
      {"<e:Envelope xmlns:e=\"http://schemas.xmlsoap.org/soap/envelope/\" xmlns:t=\"urn:t\">"
       "<e:Header><h/></e:Header><e:Body><stopTask xmlns=\"urn:kxbroker\"><n t:type=\"xsd:string\">"
       "4</n></stopTask></e:Body></e:Envelope>",
       "4"},
      // Namespaces are told by their URIs: the schema instance one of 1999 is accepted too.
      {"<e:Envelope xmlns:e=\"http://schemas.xmlsoap.org/soap/envelope/\" "
       "xmlns:i=\"http://www.w3.org/1999/XMLSchema-instance\" xmlns:b=\"urn:kxbroker\"><e:Body>"
       "<b:stopTask><n i:type=\"q:int\">5</n></b:stopTask></e:Body></e:Envelope>",
       "5"},
      {request(Op::getInfo, "<m xsi:type=\"xsd:int\"> A &amp; B </m>"), "' A & B '"},
      {request(Op::getInfo, "<m xsi:nil=\"true\"/>"), "''"},
      {request(Op::callVelmo, "<a/><b/><c xsi:nil=\"true\"/>"), "value 0 "},
      {request(Op::callVelmo, "<a/><b/><c xsi:type=\"xsd:anyType\"></c>"), "value 0 "},
      // Record fields by name in any order; unknown fields skipped, the first of two kept,
      // the pointer never read.
      {registered("<keepAlive>false</keepAlive><port>8080</port><colour>blue</colour>"
                  "<isABroker>true</isABroker><ip>10.0.0.7</ip><processId>4242</processId>"
                  "<name>KXBroker1</name><modulePointer>0xdead</modulePointer>"
                  "<architecture>3</architecture><port>1</port><name>second</name>"),
       kRecord},
      {registered("<name>B</name>"), "B|0|:0|0|module"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.xml);
    const std::vector<std::string> args = describe(parseBrokerRequest(c.xml).args);
    EXPECT_EQ(args.at(args.size() == 5 ? 1 : args.size() == 3 ? 2 : 0), c.arg);
  }
}

TEST(KXBrokerMessageTest, RequestFaultsAreWordedAsTheRuntimeWordsThem) {
  const std::string unknown = "' not implemented: method name or namespace not recognized";
  const std::string invalid = "Validation constraint violation: invalid value in element '";
  const std::string empty =
      "Validation constraint violation: empty value provided where a value is required in "
      "element 'n'";
  const std::string mismatch = "Validation constraint violation: type mismatch ";
  const std::string syntax = "Validation constraint violation: syntax error";
  const std::string version = "Invalid SOAP message or SOAP version mismatch";
  const std::string tag = "Validation constraint violation: tag name or namespace mismatch";
  const std::string bareEnvelope =
      "<SOAP-ENV:Envelope xmlns:SOAP-ENV=\"http://schemas.xmlsoap.org/soap/envelope/\" "
      "xmlns:kxbroker=\"urn:kxbroker\"";
  const std::string whole = request(Op::callVelmo, valueChild("c", kParameter));
  const auto explore = [](const std::string& searchUp) {
    return request(Op::exploreToGetModuleByName, "<a>M</a>" + searchUp + "<c>1</c><d/><e>0</e>");
  };
  const auto stopTask = [](const std::string& id) { return request(Op::stopTask, id); };
  std::string deepValue;
  for (int i = 0; i < 80; ++i) deepValue = "<item xsi:type=\"Array\">" + deepValue + "</item>";
  std::string deepElements;
  for (int i = 0; i < 5000; ++i) deepElements = "<x>" + deepElements + "</x>";
  const struct {
    std::string xml;
    std::string fault;
  } cases[] = {
      {envelope("<kxbroker:frobnicate/>"), "Method 'kxbroker:frobnicate" + unknown},
      {envelope("<kx:callVelmo/>"), "Method 'kx:callVelmo" + unknown},
      {envelope("<callVelmo/>"), "Method 'callVelmo" + unknown},
      {envelope("<undeclared:exit/>"), "Method 'undeclared:exit" + unknown},
      {envelope(""), "Method '" + unknown},
      {request(Op::callVelmo, "<a>m</a><b>f</b>"),
       "Validation constraint violation: occurrence constraint violation in element "
       "'kxbroker:callVelmo'"},
      {request(Op::pCallVelmoN, "<a/><b>abc</b><c/><d/><e/><f/><g/>"), invalid + "b'"},
      {request(Op::init, "<a/><b/><c>1</c><d/><e>2</e><f>maybe</f>"), invalid + "f'"},
      {request(Op::callVelmo, "<a/><b/><c>" + deepValue + "</c>"), invalid + "c'"},
      {explore("<b>TRUE</b>"), invalid + "b'"},
      {explore("<b>yes</b>"), invalid + "b'"},
      {explore("<b></b>"),
       "Validation constraint violation: empty value provided where a value "
       "is required in element 'b'"},
      {explore("<b xsi:type=\"xsd:int\">true</b>"), mismatch + "xsd:int in element 'b'"},
      {explore("<b xsi:type=\"bool\">true</b>"), mismatch + "bool in element 'b'"},
      {stopTask("<n>2147483648</n>"), invalid + "n'"},
      {stopTask("<n>-2147483649</n>"), invalid + "n'"},
      {stopTask("<n>12abc</n>"), invalid + "n'"},
      {stopTask("<n>-</n>"), invalid + "n'"},
      {stopTask("<n>0x10</n>"), invalid + "n'"},
      {stopTask("<n/>"), empty},
      {stopTask("<n xsi:nil=\"true\"/>"), empty},
      {stopTask("<n><inner>3</inner></n>"), empty},
      {stopTask("<n xsi:type=\"xsd:long\">1</n>"), mismatch + "xsd:long in element 'n'"},
      {request(Op::registerBroker, "<r><port>80a</port></r>"), invalid + "port'"},
      {request(Op::registerBroker, "<r><isABroker xsi:type=\"xsd:string\">1</isABroker></r>"),
       mismatch + "xsd:string in element 'isABroker'"},
      {"", syntax},
      {std::string("\0\x01\xff", 3), syntax},
      {whole.substr(0, 40), syntax},
      {whole.substr(0, whole.size() / 2), syntax},
      {whole.substr(0, whole.size() - 12), syntax},
      {"<Envelope><Body><kxbroker:exit/></Body></Envelope>", version},
      {"<e:Envelope xmlns:e=\"http://www.w3.org/2003/05/soap-envelope\"><e:Body/></e:Envelope>",
       version},
      {bareEnvelope + "/>", tag},
      {bareEnvelope + "><kxbroker:exit/></SOAP-ENV:Envelope>", tag + " in element 'kxbroker:exit'"},
      {request(Op::exit, deepElements),
       "Maximum XML nesting depth level exceeded: increase maxlevel"},
      {std::string(kBrokerMessageMaxBytes + 1, ' '),
       "Message too large: 67108865 bytes, at most 67108864 accepted"},
  };
  for (const auto& c : cases) EXPECT_EQ(requestFault(c.xml), c.fault) << c.xml.substr(0, 300);
  EXPECT_EQ(errorText([] { parseBrokerRequest(envelope("<kxbroker:nothing/>")); }),
            "\tKXBrokerMessage::parseBrokerRequest\n\tMethod 'kxbroker:nothing" + unknown);
}

TEST(KXBrokerMessageTest, AnswersAreReadByPositionInTheirShapes) {
  const auto answer = [](Op op, const std::string& children) {
    const std::string name = std::string("kxbroker:") + brokerOperationName(op) + "Response";
    return envelope("<" + name + ">" + children + "</" + name + ">");
  };
  const std::string value = valueChild("r", kParameter);
  const std::string record = "<kxbroker:return>" + kRecordXml + "</kxbroker:return>";
  const struct {
    Op op;
    std::string xml;
    std::vector<std::string> items;
  } cases[] = {
      {Op::callVelmo, answer(Op::callVelmo, value), {kParameterText}},
      {Op::callVelmo2, answer(Op::callVelmo2, value), {kParameterText}},
      {Op::pCallVelmoN, answer(Op::pCallVelmoN, value), {kParameterText}},
      {Op::getDebugTaskList, answer(Op::getDebugTaskList, value), {kParameterText}},
      {Op::getModuleByName, answer(Op::getModuleByName, record), {kRecord}},
      {Op::exploreToGetModuleByName, answer(Op::exploreToGetModuleByName, record), {kRecord}},
      {Op::getBrokerInfo, answer(Op::getBrokerInfo, record), {kRecord}},
      // getInfo is answered by the record itself.
      {Op::getInfo, envelope("<kx:KXModuleInfo>" + kRecordXml + "</kx:KXModuleInfo>"), {kRecord}},
      {Op::getModuleList,
       answer(Op::getModuleList, record + "<other><port>1</port><name>M</name></other>"),
       {kRecord, "M|0|:1|0|module"}},
      {Op::getGlobalModuleList, answer(Op::getGlobalModuleList, ""), {}},
      {Op::getBrokerList, answer(Op::getBrokerList, record), {kRecord}},
      {Op::getMethodList,
       answer(Op::getMethodList, "<a>getData</a><x>setData</x><b/>"),
       {"'getData'", "'setData'", "''"}},
      {Op::version, answer(Op::version, "<s>text</s>"), {"'text'"}},
      {Op::sendBackIP, answer(Op::sendBackIP, "<s>1.2.3.4</s>"), {"'1.2.3.4'"}},
      {Op::getBrokerName, answer(Op::getBrokerName, "<s>B</s>"), {"'B'"}},
      {Op::registerBroker, answer(Op::registerBroker, "<n>-3</n>"), {"-3"}},
      {Op::unregisterBroker, answer(Op::unregisterBroker, "<n>0</n>"), {"0"}},
      {Op::stopTask, answer(Op::stopTask, "<n>-1</n>"), {"-1"}},
      {Op::stopTaskName, answer(Op::stopTaskName, "<n>0</n>"), {"0"}},
      {Op::init, answer(Op::init, "<n>2</n>"), {"2"}},
      {Op::init, answer(Op::init, "<kxbroker:unused xsi:nil=\"true\"/>"), {}},
      {Op::init, answer(Op::init, ""), {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.xml);
    const BrokerResponse response = parseBrokerResponse(c.op, c.xml);
    EXPECT_EQ(response.op, c.op);
    EXPECT_FALSE(response.fault.has_value());
    EXPECT_EQ(describe(response.items), c.items);
  }

  const BrokerResponse fault = parseBrokerResponse(
      Op::callVelmo,
      "<s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\"><s:Body><s:Fault>"
      "<faultcode>s:Server</faultcode><faultstring>no &quot;x&quot;</faultstring><detail>Calc"
      "</detail></s:Fault></s:Body></s:Envelope>");
  ASSERT_TRUE(fault.fault.has_value());
  EXPECT_EQ(fault.fault->code + "|" + fault.fault->string + "|" + fault.fault->detail,
            "s:Server|no \"x\"|Calc");
  EXPECT_TRUE(fault.items.empty());
}

TEST(KXBrokerMessageTest, AnswersThatCannotBeReadAreRefused) {
  const std::string tag =
      "Validation constraint violation: tag name or namespace mismatch in element 'kxbroker:";
  const struct {
    Op op;
    std::string xml;
    std::string fault;
  } cases[] = {
      {Op::getInfo, envelope("<kxbroker:getInfoResponse/>"), tag + "getInfoResponse'"},
      {Op::version, envelope("<kxbroker:sendBackIPResponse/>"), tag + "sendBackIPResponse'"},
      {Op::version, envelope(""),
       "Validation constraint violation: tag name or namespace mismatch"},
      {Op::stopTask, envelope("<kxbroker:stopTaskResponse/>"),
       "Validation constraint violation: occurrence constraint violation in element "
       "'kxbroker:stopTaskResponse'"},
      {Op::callVelmo, "HTTP/1.1 500", "Validation constraint violation: syntax error"},
      {Op::version, std::string(kBrokerMessageMaxBytes + 1, ' '),
       "Message too large: 67108865 bytes, at most 67108864 accepted"},
  };
  for (const auto& c : cases) EXPECT_EQ(responseFault(c.op, c.xml), c.fault) << c.xml;
  // Cut anywhere, an answer is refused, never misread.
  const std::string whole = envelope("<kxbroker:callVelmoResponse>" + valueChild("r", kParameter) +
                                     "</kxbroker:callVelmoResponse>");
  for (std::size_t cut = 0; cut < whole.size() - 3; cut += 7) {
    EXPECT_NE(responseFault(Op::callVelmo, whole.substr(0, cut)), "<parsed>") << cut;
  }
  for (const Op op : {Op::pCallVelmo, Op::unregisterModuleReference, Op::exit}) {
    EXPECT_EQ(errorText([op] { parseBrokerResponse(op, envelope("")); }),
              std::string("\tKXBrokerMessage::parseBrokerResponse\n\t") + brokerOperationName(op) +
                  " is one-way: it has no response");
  }
}

// The calls are written directly, in one pass: byte for byte what the generated serializers
// write, whatever the text needs escaping.
TEST(KXBrokerSoapTest, CallsWrittenDirectlyMatchTheGeneratedSerializers) {
  const auto generated = [](const std::function<int(struct soap*)>& putBody) {
    KXSoapContext context;
    std::ostringstream out;
    struct soap* soap = context.get();
    soap_begin(soap);
    soap_set_version(soap, 1);
    soap->encodingStyle = "";
    soap->os = &out;
    EXPECT_TRUE(soap_begin_send(soap) == SOAP_OK && soap_envelope_begin_out(soap) == SOAP_OK &&
                soap_body_begin_out(soap) == SOAP_OK && putBody(soap) == SOAP_OK &&
                soap_body_end_out(soap) == SOAP_OK && soap_envelope_end_out(soap) == SOAP_OK &&
                soap_end_send(soap) == SOAP_OK);
    soap->os = nullptr;
    return out.str();
  };
  const KXValue param = arrayOf("k<e>y & \"q\" 'a'", 42, 1.5f, arrayOf(true));
  for (const bool second : {false, true}) {
    const char* tag = second ? "kxbroker:callVelmo2" : "kxbroker:callVelmo";
    for (const std::string module : {"KXMemory", "a<&>\"'b", "t\tn\nr\rc\x01\x1f\x7f\xc3\xa9"}) {
      std::string direct;
      writeCallRequest(direct, second, module, "get&Data", param);
      EXPECT_EQ(direct, generated([&](struct soap* soap) {
                  kxbroker__callVelmo request;
                  soap_default_kxbroker__callVelmo(soap, &request);
                  request.kxbroker__mod = soap_strdup(soap, module.c_str());
                  request.kxbroker__meth = soap_strdup(soap, "get&Data");
                  request.kxbroker__p = kxValueToSoap(soap, param);
                  return soap_put_kxbroker__callVelmo(soap, &request, tag, "");
                }));
    }
    std::string direct;
    writeCallResponse(direct, second, param);
    EXPECT_EQ(direct, generated([&](struct soap* soap) {
                kxbroker__callVelmoResponse response;
                soap_default_kxbroker__callVelmoResponse(soap, &response);
                response.kxbroker__return = kxValueToSoap(soap, param);
                return soap_put_kxbroker__callVelmoResponse(
                    soap, &response, (std::string(tag) + "Response").c_str(), "");
              }));
  }
  EXPECT_EQ(kxValueFromSoap(nullptr), KXValue());
}

}  // namespace
}  // namespace testing
}  // namespace KX
