// Broker protocol messages: requests and answers read by position and type, refused with the
// runtime's words; and written byte for byte as peers have always received them.
#include "network/detail/kxbrokermessage.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "network/detail/kxbrokerwriter.h"
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

const std::string kRecordXml =
    "<name>KXBroker1</name><architecture>3</architecture><ip>10.0.0.7</ip><port>8080</port>"
    "<processId>4242</processId><modulePointer>0</modulePointer><isABroker>true</isABroker>"
    "<keepAlive>false</keepAlive>";
const std::string kRecord = "KXBroker1|3|10.0.0.7:8080|4242|broker";
const std::string kValue = valueChild("p", arrayOf("key", 42));
const std::string kValueText = "value 1 [\"key\", 42]";
const std::string kViolation = "Validation constraint violation: ";

std::string request(const std::string& op, const std::string& children) {
  return envelope(operation(op, children));
}

// The last child read, or the fault string that refuses the message.
std::string lastChildOrFault(const std::string& xml) {
  try {
    const std::vector<std::string> args = describe(parseBrokerRequest(xml));
    return args.empty() ? "<none>" : args.back();
  } catch (const KXBrokerMessageError& error) {
    return "fault: " + error.faultString();
  }
}

// Each child is read by its type (below); here, each operation is found by its name.
TEST(KXBrokerMessageTest, EveryOperationIsReadByNameAndItsChildrenByPosition) {
  std::vector<std::string> oneWay;
  forEachOperation([&](auto op) {
    using Op = decltype(op);
    std::string xml;
    writeBrokerRequest<Op>(xml, op);
    EXPECT_TRUE(std::holds_alternative<Op>(parseBrokerRequest(xml))) << Op::kName;
    if (isOneWay<Op>()) oneWay.push_back(Op::kName);
  });
  EXPECT_EQ(oneWay, (std::vector<std::string>{"pCallVelmo", "unregisterModuleReference", "exit"}));
  // Whatever their names; those after the expected ones ignored.
  const std::string call = "<kxbroker:mod>Mem</kxbroker:mod><meth>get</meth>" + kValue + "<x/>";
  EXPECT_EQ(describe(parseBrokerRequest(request("callVelmo2", call))),
            (std::vector<std::string>{"'Mem'", "'get'", kValueText}));
}

TEST(KXBrokerMessageTest, EachChildIsReadOrRefusedWithTheRuntimesWords) {
  const auto loadLib = [](const std::string& child) {
    return request("exploreToGetModuleByName", "<a>M</a><b>1</b><c>0</c><d/>" + child);
  };
  const auto task = [](const std::string& child) { return request("stopTask", child); };
  const auto record = [](const std::string& fields) {
    return request("registerBroker", "<r>" + fields + "</r>");
  };
  const std::string invalid = "fault: " + kViolation + "invalid value in element '";
  const std::string empty =
      "fault: " + kViolation + "empty value provided where a value is required in element '";
  const std::string mismatch = "fault: " + kViolation + "type mismatch ";
  const std::string unknown = "' not implemented: method name or namespace not recognized";
  const std::string syntax = "fault: " + kViolation + "syntax error";
  const std::string tag = "fault: " + kViolation + "tag name or namespace mismatch";
  const std::string otherVersion = "fault: Invalid SOAP message or SOAP version mismatch";
  const std::string whole = request("callVelmo", "<a/><b/>" + kValue);
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
      {request("getInfo", "<m xsi:type=\"xsd:int\"> A &amp; B </m>"), "' A & B '"},
      {request("getInfo", "<m xsi:nil=\"true\"/>"), "''"},
      {request("callVelmo", "<a/><b/><c xsi:nil=\"true\"/>"), "value 0 "},
      {request("callVelmo", "<a/><b/><c xsi:type=\"xsd:anyType\"></c>"), "value 0 "},
      {request("callVelmo", "<a/><b/><c>" + deepValue + "</c>"), invalid + "c'"},
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
      {request("exit", deepElements),
       "fault: Maximum XML nesting depth level exceeded: increase maxlevel"},
      {std::string(kBrokerMessageMaxBytes + 1, ' '),
       "fault: Message too large: 67108865 bytes, at most 67108864 accepted"}};
  for (const auto& c : cases) EXPECT_EQ(lastChildOrFault(c.xml), c.outcome) << c.xml.substr(0, 400);
  EXPECT_EQ(errorText([] { parseBrokerRequest(envelope("<kxbroker:nothing/>")); }),
            "\tKXBrokerMessage::parseBrokerRequest\n\tMethod 'kxbroker:nothing" + unknown);
}

// What an answer to `Op` reads as: its items, its fault, or why it is refused.
template <typename Op>
std::vector<std::string> outcomeOf(const std::string& xml) {
  try {
    const BrokerReply<typename Op::Answer> reply = parseBrokerResponse<Op>(xml);
    if (!reply.fault) return describeItems(reply.answer);
    return {"fault: " + reply.fault->code + "|" + reply.fault->string + "|" + reply.fault->detail};
  } catch (const KXBrokerMessageError& error) {
    return {"refused: " + error.faultString()};
  }
}

TEST(KXBrokerMessageTest, AnswersAreReadInTheShapeOfTheirOperation) {
  const auto answer = [](const std::string& op, const std::string& children) {
    return envelope(operation(op + "Response", children));
  };
  const std::string record = "<kxbroker:return>" + kRecordXml + "</kxbroker:return>";
  const std::string tag = "refused: " + kViolation + "tag name or namespace mismatch";
  const struct {
    std::vector<std::string> (*read)(const std::string& xml);
    std::string xml;
    std::vector<std::string> outcome;
  } cases[] = {
      {outcomeOf<protocol::CallVelmo>, answer("callVelmo", kValue), {kValueText}},
      {outcomeOf<protocol::GetModuleByName>, answer("getModuleByName", record), {kRecord}},
      // getInfo is answered by the record itself.
      {outcomeOf<protocol::GetInfo>,
       envelope("<kx:KXModuleInfo>" + kRecordXml + "</kx:KXModuleInfo>"),
       {kRecord}},
      {outcomeOf<protocol::GetInfo>,
       answer("getInfo", ""),
       {tag + " in element 'kxbroker:getInfoResponse'"}},
      {outcomeOf<protocol::GetModuleList>,
       answer("getModuleList", record + "<other><port>1</port><name>M</name></other>"),
       {kRecord, "M|0|:1|0|module"}},
      {outcomeOf<protocol::GetGlobalModuleList>, answer("getGlobalModuleList", ""), {}},
      {outcomeOf<protocol::GetMethodList>,
       answer("getMethodList", "<a>x</a><b>y</b><c/>"),
       {"'x'", "'y'", "''"}},
      {outcomeOf<protocol::Version>, answer("version", "<s>text</s>"), {"'text'"}},
      {outcomeOf<protocol::Version>,
       answer("sendBackIP", "<s>1</s>"),
       {tag + " in element 'kxbroker:sendBackIPResponse'"}},
      {outcomeOf<protocol::Version>, envelope(""), {tag}},
      {outcomeOf<protocol::StopTask>, answer("stopTask", "<n>-1</n>"), {"-1"}},
      {outcomeOf<protocol::StopTask>,
       answer("stopTask", ""),
       {"refused: " + kViolation +
        "occurrence constraint violation in element 'kxbroker:stopTaskResponse'"}},
      {outcomeOf<protocol::Init>, answer("init", "<n>2</n>"), {"2"}},
      {outcomeOf<protocol::Init>, answer("init", "<kxbroker:unused xsi:nil=\"true\"/>"), {}},
      {outcomeOf<protocol::Init>, answer("init", ""), {}},
      // A fault is returned, not raised.
      {outcomeOf<protocol::CallVelmo>,
       "<s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\"><s:Body><s:Fault>"
       "<faultcode>s:Server</faultcode><faultstring>no &quot;x&quot;</faultstring><detail>Calc"
       "</detail></s:Fault></s:Body></s:Envelope>",
       {"fault: s:Server|no \"x\"|Calc"}},
      {outcomeOf<protocol::Version>,
       std::string(kBrokerMessageMaxBytes + 1, ' '),
       {"refused: Message too large: 67108865 bytes, at most 67108864 accepted"}}};
  for (const auto& c : cases) EXPECT_EQ(c.read(c.xml), c.outcome) << c.xml.substr(0, 400);
  // Cut anywhere, an answer is refused, never misread.
  const std::string whole = answer("callVelmo", kValue);
  for (std::size_t cut = 0; cut < whole.size() - 3; cut += 7) {
    EXPECT_EQ(outcomeOf<protocol::CallVelmo>(whole.substr(0, cut))[0].rfind("refused: ", 0), 0u)
        << cut;
  }
}

template <typename Op>
std::string requestBody(const Op& request) {
  std::string out;
  writeBrokerRequest<Op>(out, request);
  return std::string(brokerMessageBody(out));
}

template <typename Op>
std::string answerBody(const typename Op::Answer& answer) {
  std::string out;
  writeBrokerAnswer<Op>(out, answer);
  return std::string(brokerMessageBody(out));
}

// The bytes that peers have always received (those of gSOAP's serializers): children
// qualified and untyped but for values, empty texts as empty elements, record fields
// unqualified, a text with every character class that is escaped or passed through.
TEST(KXBrokerWriterTest, MessagesAreWrittenByteForByteAsPeersReadThem) {
  using namespace protocol;
  const std::string text = "a<&>\"'b\t\n\r\x01\x1f\x7f\xc3\xa9";
  const std::string escaped = "a&lt;&amp;&gt;\"'b\t\n&#xD;&#x1;&#x1F;&#x7F;\xc3\xa9";
  const KXModuleInfo record{text, 1, "1.2.3.4", 9559, -7, true, true};
  const std::string recordXml = "<name>" + escaped +
                                "</name><architecture>1</architecture><ip>1.2.3.4</ip><port>9559"
                                "</port><processId>-7</processId><modulePointer>0</modulePointer>"
                                "<isABroker>true</isABroker><keepAlive>true</keepAlive>";
  const std::string emptyXml =
      "<name/><architecture>0</architecture><ip/><port>0</port><processId>0</processId>"
      "<modulePointer>0</modulePointer><isABroker>false</isABroker><keepAlive>false</keepAlive>";
  const std::string value = "<item xsi:type=\"xsd:int\">3</item>";
  const auto element = [](const std::string& name, const std::string& children) {
    return "<kxbroker:" + name + ">" + children + "</kxbroker:" + name + ">";
  };
  const struct {
    std::string written;
    std::string expected;
  } cases[] = {
      {requestBody(CallVelmo{{text, "", KXValue(3)}}),
       element("callVelmo", element("mod", escaped) + "<kxbroker:meth/>" +
                                "<kxbroker:p xsi:type=\"xsd:anyType\">" + value + "</kxbroker:p>")},
      {requestBody(RegisterBroker{record}),
       element("registerBroker", element("pBrokerToRegister", recordXml))},
      {requestBody(Init{"B", "", 1, "P", -2, false}),
       element("init", element("pName", "B") + "<kxbroker:pIP/>" + element("pPort", "1") +
                           element("pParentIP", "P") + element("pParentPort", "-2") +
                           element("pKeepAlive", "false"))},
      {requestBody(GetBrokerInfo{}), element("getBrokerInfo", "")},
      {answerBody<CallVelmo>(KXValue(3)),
       element("callVelmoResponse",
               "<kxbroker:return xsi:type=\"xsd:anyType\">" + value + "</kxbroker:return>")},
      {answerBody<GetModuleList>({record, KXModuleInfo()}),
       element("getModuleListResponse",
               element("return", recordXml) + element("return", emptyXml))},
      {answerBody<GetMethodList>({text, "", "x"}),
       element("getMethodListResponse", element("pMethodListName", escaped) +
                                            "<kxbroker:pMethodListName/>" +
                                            element("pMethodListName", "x"))},
      {answerBody<Init>(5), element("initResponse", element("unused", "5"))},
      {answerBody<Init>(std::nullopt), element("initResponse", "")},
      // getInfo is answered by the record itself.
      {answerBody<GetInfo>(record), "<kx:KXModuleInfo>" + recordXml + "</kx:KXModuleInfo>"},
  };
  for (const auto& c : cases) EXPECT_EQ(c.written, c.expected);
  // The envelope around them, whole.
  std::string whole;
  writeBrokerRequest<Exit>(whole, Exit{});
  EXPECT_EQ(whole, envelope(element("exit", "")));
}

}  // namespace
}  // namespace testing
}  // namespace KX
