// Broker protocol messages: requests and answers read by position and type, refused with the
// runtime's words; and the calls written directly, byte for byte as the generated serializers
// write them.
#include "network/detail/kxbrokermessage.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "network/detail/kxbrokersoap.h"
#include "network/detail/kxsoapcontext.h"
#include "network/tests/wire_test_support.h"
#include "value/tests/value_test_util.h"

namespace KX {
namespace testing {
namespace {

using testing_util::arrayOf;
using testing_util::errorText;
using wire::envelope;
using wire::operation;
using wire::valueChild;
using Op = BrokerOperation;

const std::string kRecordXml =
    "<name>KXBroker1</name><architecture>3</architecture><ip>10.0.0.7</ip><port>8080</port>"
    "<processId>4242</processId><modulePointer>0</modulePointer><isABroker>true</isABroker>"
    "<keepAlive>false</keepAlive>";
const std::string kRecord = "KXBroker1|3|10.0.0.7:8080|4242|broker";
const std::string kValue = valueChild("p", arrayOf("key", 42));
const std::string kValueText = "value 1 [\"key\", 42]";
const std::string kViolation = "Validation constraint violation: ";

std::string request(Op op, const std::string& children) {
  return envelope(operation(brokerOperationName(op), children));
}

// The last child read, or the fault string that refuses the message.
std::string lastChildOrFault(const std::string& xml) {
  try {
    const std::vector<std::string> args = describe(parseBrokerRequest(xml).args);
    return args.empty() ? "<none>" : args.back();
  } catch (const KXBrokerMessageError& error) {
    return "fault: " + error.faultString();
  }
}

TEST(KXBrokerMessageTest, EveryOperationReadsItsChildrenByPositionWhateverTheirNames) {
  const std::string call = "<kxbroker:mod>KXMemory</kxbroker:mod><meth>getData</meth>" + kValue;
  const std::vector<std::string> callArgs = {"'KXMemory'", "'getData'", kValueText};
  // The operations left out have no children; children after those expected are ignored.
  const std::map<Op, std::pair<std::string, std::vector<std::string>>> cases = {
      {Op::callVelmo, {call, callArgs}},
      {Op::callVelmo2, {call, callArgs}},
      {Op::pCallVelmoN,
       {"<a>a</a><b>-7</b><c>c</c><d>d</d><e>e</e><f>f</f>" + kValue,
        {"'a'", "-7", "'c'", "'d'", "'e'", "'f'", kValueText}}},
      {Op::pCallVelmo, {call, callArgs}},
      {Op::getModuleByName, {"<m>M</m>", {"'M'"}}},
      {Op::exploreToGetModuleByName,
       {"<m>M</m><u>true</u><d>0</d><x>B2</x><l>1</l>", {"'M'", "true", "false", "'B2'", "true"}}},
      {Op::registerBroker, {"<r>" + kRecordXml + "</r>", {kRecord}}},
      {Op::unregisterBroker, {"<r>" + kRecordXml + "</r>", {kRecord}}},
      {Op::unregisterModuleReference, {"<m>M</m>", {"'M'"}}},
      {Op::getMethodList, {"<m>M</m>", {"'M'"}}},
      {Op::getInfo, {"<m>M</m>", {"'M'"}}},
      {Op::init,
       {"<a>B</a><b>1.2.3.4</b><c>9000</c><d>5.6.7.8</d><e>9001</e><f>false</f>",
        {"'B'", "'1.2.3.4'", "9000", "'5.6.7.8'", "9001", "false"}}},
      {Op::stopTask, {"<n>12</n><more/>", {"12"}}},
      {Op::stopTaskName, {"<n>scan</n>", {"'scan'"}}}};
  std::vector<std::string> oneWay;
  for (int i = 0; i < kBrokerOperationCount; ++i) {
    const Op op = static_cast<Op>(i);
    SCOPED_TRACE(brokerOperationName(op));
    const auto found = cases.find(op);
    const BrokerRequest parsed =
        parseBrokerRequest(request(op, found != cases.end() ? found->second.first : "<x/>"));
    EXPECT_EQ(parsed.op, op);
    EXPECT_EQ(brokerRequestTypes(op).size(), parsed.args.size());
    EXPECT_EQ(describe(parsed.args),
              found != cases.end() ? found->second.second : std::vector<std::string>());
    if (brokerOperationIsOneWay(op)) oneWay.push_back(brokerOperationName(op));
  }
  EXPECT_EQ(oneWay, (std::vector<std::string>{"pCallVelmo", "unregisterModuleReference", "exit"}));
}

TEST(KXBrokerMessageTest, EachChildIsReadOrRefusedWithTheRuntimesWords) {
  const auto loadLib = [](const std::string& child) {
    return request(Op::exploreToGetModuleByName, "<a>M</a><b>1</b><c>0</c><d/>" + child);
  };
  const auto task = [](const std::string& child) { return request(Op::stopTask, child); };
  const auto record = [](const std::string& fields) {
    return request(Op::registerBroker, "<r>" + fields + "</r>");
  };
  const std::string invalid = "fault: " + kViolation + "invalid value in element '";
  const std::string empty =
      "fault: " + kViolation + "empty value provided where a value is required in element '";
  const std::string mismatch = "fault: " + kViolation + "type mismatch ";
  const std::string unknown = "' not implemented: method name or namespace not recognized";
  const std::string syntax = "fault: " + kViolation + "syntax error";
  const std::string tag = "fault: " + kViolation + "tag name or namespace mismatch";
  const std::string otherVersion = "fault: Invalid SOAP message or SOAP version mismatch";
  const std::string whole = request(Op::callVelmo, "<a/><b/>" + kValue);
  std::string deepValue;
  for (int i = 0; i < 80; ++i) deepValue = "<item xsi:type=\"Array\">" + deepValue + "</item>";
  std::string deepElements;
  for (int i = 0; i < 5000; ++i) deepElements = "<x>" + deepElements + "</x>";
  const struct {
    std::string xml;
    std::string outcome;
  } cases[] = {
      {loadLib("<e xsi:type=\"xsd:boolean\">true</e>"), "true"},
      {loadLib("<e xsi:type=\"other:boolean\"> false\n</e>"), "false"},
      {loadLib("<e>TRUE</e>"), invalid + "e'"},
      {loadLib("<e></e>"), empty + "e'"},
      {loadLib("<e xsi:type=\"xsd:int\">1</e>"), mismatch + "xsd:int in element 'e'"},
      {task("<n>2147483647</n>"), "2147483647"},
      {task("<n xsi:type=\"xsd:int\"> +7 </n>"), "7"},
      {task("<n xsi:type=\"xsd:short\">2</n>"), "2"},
      {task("<n>2147483648</n>"), invalid + "n'"},
      {task("<n>0x10</n>"), invalid + "n'"},
      {task("<n xsi:nil=\"true\"/>"), empty + "n'"},
      {task("<n xsi:type=\"xsd:long\">1</n>"), mismatch + "xsd:long in element 'n'"},
      {task(""), "fault: " + kViolation +
                     "occurrence constraint violation in element "
                     "'kxbroker:stopTask'"},
      // Namespaces are told by their URIs whatever the prefixes; the schema instance one of
      // 1999 is accepted too, and "type" in another namespace is no type.
      {"<e:Envelope xmlns:e=\"http://schemas.xmlsoap.org/soap/envelope/\" xmlns:t=\"urn:t\" "
       "xmlns:i=\"http://www.w3.org/1999/XMLSchema-instance\"><e:Header><h/></e:Header><e:Body>"
       "<stopTask xmlns=\"urn:kxbroker\"><n t:type=\"xsd:string\" i:type=\"q:int\">4</n>"
       "</stopTask></e:Body></e:Envelope>",
       "4"},
      // Strings take any type; a nil string is empty, a nil or empty value Invalid.
      {request(Op::getInfo, "<m xsi:type=\"xsd:int\"> A &amp; B </m>"), "' A & B '"},
      {request(Op::getInfo, "<m xsi:nil=\"true\"/>"), "''"},
      {request(Op::callVelmo, "<a/><b/><c xsi:nil=\"true\"/>"), "value 0 "},
      {request(Op::callVelmo, "<a/><b/><c xsi:type=\"xsd:anyType\"></c>"), "value 0 "},
      {request(Op::callVelmo, "<a/><b/><c>" + deepValue + "</c>"), invalid + "c'"},
      // Record fields by name in any order: unknown ones skipped, the first of two kept, the
      // pointer never read, those left out at their defaults.
      {record("<keepAlive>false</keepAlive><port>8080</port><colour>blue</colour>"
              "<isABroker>true</isABroker><ip>10.0.0.7</ip><processId>4242</processId>"
              "<name>KXBroker1</name><modulePointer>0xdead</modulePointer>"
              "<architecture>3</architecture><port>1</port><name>second</name>"),
       kRecord},
      {record("<name>B</name>"), "B|0|:0|0|module"},
      {record("<port>80a</port>"), invalid + "port'"},
      {record("<isABroker xsi:type=\"xsd:string\">1</isABroker>"),
       mismatch + "xsd:string in element 'isABroker'"},
      {envelope("<kxbroker:frobnicate/>"), "fault: Method 'kxbroker:frobnicate" + unknown},
      {envelope("<kx:callVelmo/>"), "fault: Method 'kx:callVelmo" + unknown},
      {envelope(""), "fault: Method '" + unknown},
      {"", syntax},
      {whole.substr(0, whole.size() / 2), syntax},
      {"<Envelope><Body><kxbroker:exit/></Body></Envelope>", otherVersion},
      {"<e:Envelope xmlns:e=\"http://schemas.xmlsoap.org/soap/envelope/\"/>", tag},
      {"<e:Envelope xmlns:e=\"http://schemas.xmlsoap.org/soap/envelope/\" xmlns:k=\"urn:kxbroker\">"
       "<k:exit/></e:Envelope>",
       tag + " in element 'k:exit'"},
      {request(Op::exit, deepElements),
       "fault: Maximum XML nesting depth level exceeded: increase maxlevel"},
      {std::string(kBrokerMessageMaxBytes + 1, ' '),
       "fault: Message too large: 67108865 bytes, at most 67108864 accepted"}};
  for (const auto& c : cases) EXPECT_EQ(lastChildOrFault(c.xml), c.outcome) << c.xml.substr(0, 400);
  EXPECT_EQ(errorText([] { parseBrokerRequest(envelope("<kxbroker:nothing/>")); }),
            "\tKXBrokerMessage::parseBrokerRequest\n\tMethod 'kxbroker:nothing" + unknown);
}

TEST(KXBrokerMessageTest, AnswersAreReadInTheShapeOfTheirOperation) {
  const auto answer = [](Op op, const std::string& children) {
    return envelope(operation(std::string(brokerOperationName(op)) + "Response", children));
  };
  const std::string record = "<kxbroker:return>" + kRecordXml + "</kxbroker:return>";
  const std::string tag = "refused: " + kViolation + "tag name or namespace mismatch";
  const struct {
    Op op;
    std::string xml;
    std::vector<std::string> outcome;
  } cases[] = {
      {Op::callVelmo, answer(Op::callVelmo, kValue), {kValueText}},
      {Op::getModuleByName, answer(Op::getModuleByName, record), {kRecord}},
      // getInfo is answered by the record itself.
      {Op::getInfo, envelope("<kx:KXModuleInfo>" + kRecordXml + "</kx:KXModuleInfo>"), {kRecord}},
      {Op::getInfo, answer(Op::getInfo, ""), {tag + " in element 'kxbroker:getInfoResponse'"}},
      {Op::getModuleList,
       answer(Op::getModuleList, record + "<other><port>1</port><name>M</name></other>"),
       {kRecord, "M|0|:1|0|module"}},
      {Op::getGlobalModuleList, answer(Op::getGlobalModuleList, ""), {}},
      {Op::getMethodList, answer(Op::getMethodList, "<a>x</a><b>y</b><c/>"), {"'x'", "'y'", "''"}},
      {Op::version, answer(Op::version, "<s>text</s>"), {"'text'"}},
      {Op::version,
       answer(Op::sendBackIP, "<s>1</s>"),
       {tag + " in element 'kxbroker:sendBackIPResponse'"}},
      {Op::version, envelope(""), {tag}},
      {Op::stopTask, answer(Op::stopTask, "<n>-1</n>"), {"-1"}},
      {Op::stopTask,
       answer(Op::stopTask, ""),
       {"refused: " + kViolation +
        "occurrence constraint violation in element 'kxbroker:stopTaskResponse'"}},
      {Op::init, answer(Op::init, "<n>2</n>"), {"2"}},
      {Op::init, answer(Op::init, "<kxbroker:unused xsi:nil=\"true\"/>"), {}},
      {Op::init, answer(Op::init, ""), {}},
      // A fault is returned, not raised.
      {Op::callVelmo,
       "<s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\"><s:Body><s:Fault>"
       "<faultcode>s:Server</faultcode><faultstring>no &quot;x&quot;</faultstring><detail>Calc"
       "</detail></s:Fault></s:Body></s:Envelope>",
       {"fault: s:Server|no \"x\"|Calc"}},
      {Op::version,
       std::string(kBrokerMessageMaxBytes + 1, ' '),
       {"refused: Message too large: 67108865 bytes, at most 67108864 accepted"}}};
  const auto outcome = [](Op op, const std::string& xml) -> std::vector<std::string> {
    try {
      const BrokerResponse response = parseBrokerResponse(op, xml);
      EXPECT_EQ(response.op, op);
      if (!response.fault) return describe(response.items);
      EXPECT_TRUE(response.items.empty());
      return {"fault: " + response.fault->code + "|" + response.fault->string + "|" +
              response.fault->detail};
    } catch (const KXBrokerMessageError& error) {
      return {"refused: " + error.faultString()};
    }
  };
  for (const auto& c : cases) EXPECT_EQ(outcome(c.op, c.xml), c.outcome) << c.xml.substr(0, 400);
  // Cut anywhere, an answer is refused, never misread.
  const std::string whole = answer(Op::callVelmo, kValue);
  for (std::size_t cut = 0; cut < whole.size() - 3; cut += 7) {
    EXPECT_EQ(outcome(Op::callVelmo, whole.substr(0, cut))[0].rfind("refused: ", 0), 0u) << cut;
  }
  EXPECT_EQ(errorText([] { parseBrokerResponse(Op::exit, envelope("")); }),
            "\tKXBrokerMessage::parseBrokerResponse\n\texit is one-way: it has no response");
}

// A call is written directly, in one pass: byte for byte what the generated serializer writes,
// whatever the text needs escaping. (Its answer is matched against the generated one by the
// serving tests.)
TEST(KXBrokerSoapTest, ACallWrittenDirectlyMatchesTheGeneratedSerializer) {
  const auto generated = [](const std::function<int(struct soap*)>& putBody) {
    std::ostringstream out;
    KXSoapContext context;
    struct soap* soap = context.get();
    soap_begin(soap);
    soap_set_version(soap, 1);
    soap->encodingStyle = "";
    soap->os = &out;
    EXPECT_TRUE(soap_begin_send(soap) == SOAP_OK && soap_envelope_begin_out(soap) == SOAP_OK &&
                soap_body_begin_out(soap) == SOAP_OK && putBody(soap) == SOAP_OK &&
                soap_body_end_out(soap) == SOAP_OK && soap_envelope_end_out(soap) == SOAP_OK &&
                soap_end_send(soap) == SOAP_OK);
    context.freeMessageData();
    return out.str();
  };
  // The module name holds every character class the writer escapes or passes through.
  const std::string module = "a<&>\"'b\t\n\r\x01\x1f\x7f\xc3\xa9";
  const KXValue param = arrayOf("k<e>y & \"q\" 'a'", 42, 1.5f, arrayOf(true));
  std::string direct;
  writeCallRequest(direct, true, module, "get&Data", param);
  EXPECT_EQ(direct, generated([&](struct soap* soap) {
              kxbroker__callVelmo call;
              call.kxbroker__mod = soap_strdup(soap, module.c_str());
              call.kxbroker__meth = soap_strdup(soap, "get&Data");
              call.kxbroker__p = kxValueToSoap(soap, param);
              return soap_put_kxbroker__callVelmo(soap, &call, "kxbroker:callVelmo2", "");
            }));
  EXPECT_EQ(kxValueFromSoap(nullptr), KXValue());
  EXPECT_EQ(kxValueFromSoap("<item xsi:type=\"xsd:int\">3</item>"), KXValue(3));
}

}  // namespace
}  // namespace testing
}  // namespace KX
