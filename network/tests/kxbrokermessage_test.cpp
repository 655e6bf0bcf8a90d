#include "network/kxbrokermessage.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "value/kxvalue.h"

namespace KX {
namespace {

constexpr const char* kNamespaces =
    "xmlns:SOAP-ENV=\"http://schemas.xmlsoap.org/soap/envelope/\" "
    "xmlns:SOAP-ENC=\"http://schemas.xmlsoap.org/soap/encoding/\" "
    "xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" "
    "xmlns:xsd=\"http://www.w3.org/2001/XMLSchema\" xmlns:kxbroker=\"urn:kxbroker\" "
    "xmlns:kx=\"urn:korvane\"";

std::string envelope(const std::string& body) {
  return std::string("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<SOAP-ENV:Envelope ") +
         kNamespaces +
         "><SOAP-ENV:Body "
         "SOAP-ENV:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\">" +
         body + "</SOAP-ENV:Body></SOAP-ENV:Envelope>\r\n";
}

// The fault string a message gets, or "" when it parses.
std::string requestFault(const std::string& xml) {
  try {
    parseBrokerRequest(xml);
  } catch (const KXBrokerMessageError& error) {
    return error.faultString();
  }
  return "";
}

std::string responseFault(BrokerOperation op, const std::string& xml) {
  try {
    parseBrokerResponse(op, xml);
  } catch (const KXBrokerMessageError& error) {
    return error.faultString();
  }
  return "";
}

constexpr const char* kRecordXml =
    "<name>KXBroker1</name><architecture>3</architecture><ip>10.0.0.7</ip>"
    "<port>8080</port><processId>4242</processId><modulePointer>0</modulePointer>"
    "<isABroker>true</isABroker><keepAlive>false</keepAlive>";

KXModuleInfo expectedRecord() {
  KXModuleInfo record;
  record.name = "KXBroker1";
  record.architecture = 3;
  record.ip = "10.0.0.7";
  record.port = 8080;
  record.processId = 4242;
  record.isABroker = true;
  record.keepAlive = false;
  return record;
}

void expectRecord(const KXModuleInfo& actual, const KXModuleInfo& expected) {
  EXPECT_EQ(actual.name, expected.name);
  EXPECT_EQ(actual.architecture, expected.architecture);
  EXPECT_EQ(actual.ip, expected.ip);
  EXPECT_EQ(actual.port, expected.port);
  EXPECT_EQ(actual.processId, expected.processId);
  EXPECT_EQ(actual.isABroker, expected.isABroker);
  EXPECT_EQ(actual.keepAlive, expected.keepAlive);
}

KXValue parameterArray() {
  KXValue array;
  array.arraySetSize(0);
  array.arrayPush(KXValue("key"));
  array.arrayPush(KXValue(42));
  return array;
}

constexpr const char* kParameterXml =
    "<item xsi:type=\"Array\"><item xsi:type=\"xsd:string\">key</item>"
    "<item xsi:type=\"xsd:int\">42</item></item>";

// One request per operation, written with the names this system writes, and what it reads as.
struct RequestCase {
  BrokerOperation op;
  std::string body;
  std::vector<BrokerArg> args;
};

std::vector<RequestCase> requestCases() {
  const std::string p =
      std::string("<kxbroker:p xsi:type=\"xsd:anyType\">") + kParameterXml + "</kxbroker:p>";
  const std::string callChildren =
      "<kxbroker:mod>KXMemory</kxbroker:mod><kxbroker:meth>getData</kxbroker:meth>" + p;
  const std::vector<BrokerArg> callArgs = {std::string("KXMemory"), std::string("getData"),
                                           parameterArray()};
  const std::string record = std::string(kRecordXml);
  using Op = BrokerOperation;
  return {
      {Op::callVelmo, "<kxbroker:callVelmo>" + callChildren + "</kxbroker:callVelmo>", callArgs},
      {Op::callVelmo2, "<kxbroker:callVelmo2>" + callChildren + "</kxbroker:callVelmo2>", callArgs},
      {Op::pCallVelmoN,
       "<kxbroker:pCallVelmoN><kxbroker:arg1>a</kxbroker:arg1><kxbroker:arg2>-7</kxbroker:arg2>"
       "<kxbroker:arg3>c</kxbroker:arg3><kxbroker:arg4>d</kxbroker:arg4>"
       "<kxbroker:arg5>e</kxbroker:arg5><kxbroker:arg6>f</kxbroker:arg6>"
       "<kxbroker:arg7 xsi:type=\"xsd:anyType\"><item xsi:type=\"xsd:int\">5</item>"
       "</kxbroker:arg7></kxbroker:pCallVelmoN>",
       {std::string("a"), -7, std::string("c"), std::string("d"), std::string("e"),
        std::string("f"), KXValue(5)}},
      {Op::pCallVelmo, "<kxbroker:pCallVelmo>" + callChildren + "</kxbroker:pCallVelmo>", callArgs},
      {Op::getModuleByName,
       "<kxbroker:getModuleByName><kxbroker:pModuleName>KXMemory</kxbroker:pModuleName>"
       "</kxbroker:getModuleByName>",
       {std::string("KXMemory")}},
      {Op::exploreToGetModuleByName,
       "<kxbroker:exploreToGetModuleByName><kxbroker:pModuleName>KXMemory</kxbroker:pModuleName>"
       "<kxbroker:pSearchUp>true</kxbroker:pSearchUp>"
       "<kxbroker:pSearchDown>false</kxbroker:pSearchDown>"
       "<kxbroker:pDontLookIntoBrokerName>KXBroker2</kxbroker:pDontLookIntoBrokerName>"
       "<kxbroker:pLoadLib>true</kxbroker:pLoadLib></kxbroker:exploreToGetModuleByName>",
       {std::string("KXMemory"), true, false, std::string("KXBroker2"), true}},
      {Op::getModuleList, "<kxbroker:getModuleList></kxbroker:getModuleList>", {}},
      {Op::getGlobalModuleList, "<kxbroker:getGlobalModuleList/>", {}},
      {Op::getBrokerList, "<kxbroker:getBrokerList/>", {}},
      {Op::registerBroker,
       "<kxbroker:registerBroker><kxbroker:pBrokerToRegister>" + record +
           "</kxbroker:pBrokerToRegister></kxbroker:registerBroker>",
       {expectedRecord()}},
      {Op::unregisterBroker,
       "<kxbroker:unregisterBroker><kxbroker:pBrokerToUnregister>" + record +
           "</kxbroker:pBrokerToUnregister></kxbroker:unregisterBroker>",
       {expectedRecord()}},
      {Op::unregisterModuleReference,
       "<kxbroker:unregisterModuleReference><kxbroker:moduleName>KXMemory</kxbroker:moduleName>"
       "</kxbroker:unregisterModuleReference>",
       {std::string("KXMemory")}},
      {Op::getBrokerInfo, "<kxbroker:getBrokerInfo/>", {}},
      {Op::exit, "<kxbroker:exit/>", {}},
      {Op::getMethodList,
       "<kxbroker:getMethodList><kxbroker:pModuleName>KXMemory</kxbroker:pModuleName>"
       "</kxbroker:getMethodList>",
       {std::string("KXMemory")}},
      {Op::init,
       "<kxbroker:init><kxbroker:pName>B</kxbroker:pName><kxbroker:pIP>1.2.3.4</kxbroker:pIP>"
       "<kxbroker:pPort>9000</kxbroker:pPort><kxbroker:pParentIP>5.6.7.8</kxbroker:pParentIP>"
       "<kxbroker:pParentPort>9001</kxbroker:pParentPort>"
       "<kxbroker:pKeepAlive>false</kxbroker:pKeepAlive></kxbroker:init>",
       {std::string("B"), std::string("1.2.3.4"), 9000, std::string("5.6.7.8"), 9001, false}},
      {Op::version, "<kxbroker:version/>", {}},
      {Op::sendBackIP, "<kxbroker:sendBackIP/>", {}},
      {Op::getBrokerName, "<kxbroker:getBrokerName/>", {}},
      {Op::getInfo,
       "<kxbroker:getInfo><kxbroker:pModuleName>KXMemory</kxbroker:pModuleName>"
       "</kxbroker:getInfo>",
       {std::string("KXMemory")}},
      {Op::stopTask,
       "<kxbroker:stopTask><kxbroker:pTaskId>12</kxbroker:pTaskId>"
       "</kxbroker:stopTask>",
       {12}},
      {Op::stopTaskName,
       "<kxbroker:stopTaskName><kxbroker:pTaskName>scan</kxbroker:pTaskName>"
       "</kxbroker:stopTaskName>",
       {std::string("scan")}},
      {Op::getDebugTaskList, "<kxbroker:getDebugTaskList/>", {}},
  };
}

void expectArgs(const std::vector<BrokerArg>& actual, const std::vector<BrokerArg>& expected) {
  ASSERT_EQ(actual.size(), expected.size());
  for (size_t i = 0; i < actual.size(); ++i) {
    SCOPED_TRACE("child " + std::to_string(i));
    ASSERT_EQ(actual[i].index(), expected[i].index());
    if (const auto* record = std::get_if<KXModuleInfo>(&expected[i])) {
      expectRecord(std::get<KXModuleInfo>(actual[i]), *record);
    } else if (const auto* value = std::get_if<KXValue>(&expected[i])) {
      EXPECT_EQ(std::get<KXValue>(actual[i]), *value) << std::get<KXValue>(actual[i]).toString(1);
    } else if (const auto* text = std::get_if<std::string>(&expected[i])) {
      EXPECT_EQ(std::get<std::string>(actual[i]), *text);
    } else if (const auto* number = std::get_if<int>(&expected[i])) {
      EXPECT_EQ(std::get<int>(actual[i]), *number);
    } else {
      EXPECT_EQ(std::get<bool>(actual[i]), std::get<bool>(expected[i]));
    }
  }
}

TEST(KXBrokerMessageTest, EveryOperationParsesInTableOrder) {
  const std::vector<RequestCase> cases = requestCases();
  ASSERT_EQ(cases.size(), static_cast<size_t>(kBrokerOperationCount));
  for (int i = 0; i < kBrokerOperationCount; ++i) {
    const RequestCase& c = cases[static_cast<size_t>(i)];
    SCOPED_TRACE(brokerOperationName(c.op));
    EXPECT_EQ(static_cast<int>(c.op), i);
    const BrokerRequest request = parseBrokerRequest(envelope(c.body));
    EXPECT_EQ(request.op, c.op);
    EXPECT_EQ(brokerRequestTypes(c.op).size(), c.args.size());
    expectArgs(request.args, c.args);
  }
}

TEST(KXBrokerMessageTest, OperationNamesAndOneWayFlags) {
  EXPECT_STREQ(brokerOperationName(BrokerOperation::callVelmo), "callVelmo");
  EXPECT_STREQ(brokerOperationName(BrokerOperation::exploreToGetModuleByName),
               "exploreToGetModuleByName");
  EXPECT_STREQ(brokerOperationName(BrokerOperation::getDebugTaskList), "getDebugTaskList");
  std::vector<std::string> oneWay;
  for (int i = 0; i < kBrokerOperationCount; ++i) {
    const auto op = static_cast<BrokerOperation>(i);
    if (brokerOperationIsOneWay(op)) oneWay.push_back(brokerOperationName(op));
  }
  EXPECT_EQ(oneWay, (std::vector<std::string>{"pCallVelmo", "unregisterModuleReference", "exit"}));
}

TEST(KXBrokerMessageTest, CallVelmoChildrenAreReadByPositionWhateverTheirNames) {
  const BrokerRequest named = parseBrokerRequest(envelope(requestCases()[0].body));
  const BrokerRequest renamed = parseBrokerRequest(
      envelope(std::string("<kxbroker:callVelmo><a>KXMemory</a><b>getData</b><c>") + kParameterXml +
               "</c></kxbroker:callVelmo>"));
  EXPECT_EQ(renamed.op, BrokerOperation::callVelmo);
  expectArgs(renamed.args, named.args);
}

TEST(KXBrokerMessageTest, ChildrenAfterTheExpectedOnesAreIgnored) {
  const BrokerRequest request = parseBrokerRequest(
      envelope("<kxbroker:stopTask><n>3</n><extra>x</extra><more/></kxbroker:stopTask>"));
  expectArgs(request.args, {3});
}

TEST(KXBrokerMessageTest, RecordFieldsMatchByNameInAnyOrderSkippingUnknownAndRepeated) {
  const BrokerRequest request = parseBrokerRequest(
      envelope("<kxbroker:registerBroker><r><keepAlive>false</keepAlive><port>8080</port>"
               "<colour>blue</colour><isABroker>true</isABroker><ip>10.0.0.7</ip>"
               "<processId>4242</processId><name>KXBroker1</name><modulePointer>99</modulePointer>"
               "<architecture>3</architecture><port>1</port><name>second</name></r>"
               "</kxbroker:registerBroker>"));
  expectArgs(request.args, {expectedRecord()});
}

TEST(KXBrokerMessageTest, RecordFieldsLeftOutKeepTheirDefaults) {
  const BrokerRequest request = parseBrokerRequest(
      envelope("<kxbroker:registerBroker><r><name>B</name></r></kxbroker:registerBroker>"));
  KXModuleInfo expected;
  expected.name = "B";
  expectArgs(request.args, {expected});
}

TEST(KXBrokerMessageTest, RecordModulePointerIsNotEvenValidated) {
  const BrokerRequest request = parseBrokerRequest(envelope(
      "<kxbroker:registerBroker><r><modulePointer>0xdeadbeef</modulePointer><port>5</port></r>"
      "</kxbroker:registerBroker>"));
  EXPECT_EQ(std::get<KXModuleInfo>(request.args[0]).port, 5);
}

TEST(KXBrokerMessageTest, RecordFieldWithBadValueFaultsNamingTheField) {
  EXPECT_EQ(requestFault(envelope("<kxbroker:registerBroker><r><port>80a</port></r>"
                                  "</kxbroker:registerBroker>")),
            "Validation constraint violation: invalid value in element 'port'");
  EXPECT_EQ(requestFault(envelope("<kxbroker:registerBroker><r>"
                                  "<isABroker xsi:type=\"xsd:string\">true</isABroker></r>"
                                  "</kxbroker:registerBroker>")),
            "Validation constraint violation: type mismatch xsd:string in element 'isABroker'");
}

std::string exploreWithSearchUp(const std::string& searchUp) {
  return envelope("<kxbroker:exploreToGetModuleByName><a>M</a>" + searchUp +
                  "<c>true</c><d>B</d><e>false</e></kxbroker:exploreToGetModuleByName>");
}

TEST(KXBrokerMessageTest, BoolTypesAcceptedAndRefused) {
  for (const char* type : {"xsd:boolean", "xsd:bool", "other:boolean"}) {
    SCOPED_TRACE(type);
    const BrokerRequest request = parseBrokerRequest(
        exploreWithSearchUp(std::string("<b xsi:type=\"") + type + "\">true</b>"));
    EXPECT_TRUE(std::get<bool>(request.args[1]));
  }
  EXPECT_EQ(requestFault(exploreWithSearchUp("<b xsi:type=\"xsd:int\">true</b>")),
            "Validation constraint violation: type mismatch xsd:int in element 'b'");
  EXPECT_EQ(requestFault(exploreWithSearchUp("<b xsi:type=\"bool\">true</b>")),
            "Validation constraint violation: type mismatch bool in element 'b'");
}

TEST(KXBrokerMessageTest, BoolTexts) {
  const std::vector<std::pair<std::string, bool>> accepted = {
      {"true", true}, {"1", true}, {" false\n", false}, {"0", false}};
  for (const auto& [text, expected] : accepted) {
    SCOPED_TRACE(text);
    const BrokerRequest request = parseBrokerRequest(exploreWithSearchUp("<b>" + text + "</b>"));
    EXPECT_EQ(std::get<bool>(request.args[1]), expected);
  }
  EXPECT_EQ(requestFault(exploreWithSearchUp("<b>TRUE</b>")),
            "Validation constraint violation: invalid value in element 'b'");
  EXPECT_EQ(requestFault(exploreWithSearchUp("<b>yes</b>")),
            "Validation constraint violation: invalid value in element 'b'");
  EXPECT_EQ(requestFault(exploreWithSearchUp("<b></b>")),
            "Validation constraint violation: empty value provided where a value is required in "
            "element 'b'");
}

std::string stopTaskWith(const std::string& child) {
  return envelope("<kxbroker:stopTask>" + child + "</kxbroker:stopTask>");
}

int stopTaskId(const std::string& child) {
  return std::get<int>(parseBrokerRequest(stopTaskWith(child)).args[0]);
}

TEST(KXBrokerMessageTest, IntTextsAndBoundaries) {
  EXPECT_EQ(stopTaskId("<n>2147483647</n>"), 2147483647);
  EXPECT_EQ(stopTaskId("<n>-2147483648</n>"), -2147483647 - 1);
  EXPECT_EQ(stopTaskId("<n> +7 </n>"), 7);
  EXPECT_EQ(stopTaskId("<n xsi:type=\"xsd:int\">1</n>"), 1);
  EXPECT_EQ(stopTaskId("<n xsi:type=\"xsd:short\">2</n>"), 2);
  const std::string invalid = "Validation constraint violation: invalid value in element 'n'";
  EXPECT_EQ(requestFault(stopTaskWith("<n>2147483648</n>")), invalid);
  EXPECT_EQ(requestFault(stopTaskWith("<n>-2147483649</n>")), invalid);
  EXPECT_EQ(requestFault(stopTaskWith("<n>abc</n>")), invalid);
  EXPECT_EQ(requestFault(stopTaskWith("<n>12abc</n>")), invalid);
  EXPECT_EQ(requestFault(stopTaskWith("<n>-</n>")), invalid);
  EXPECT_EQ(requestFault(stopTaskWith("<n>0x10</n>")), invalid);
  EXPECT_EQ(requestFault(stopTaskWith("<n>99999999999999999999999</n>")), invalid);
  const std::string empty =
      "Validation constraint violation: empty value provided where a value is required in "
      "element 'n'";
  EXPECT_EQ(requestFault(stopTaskWith("<n/>")), empty);
  EXPECT_EQ(requestFault(stopTaskWith("<n xsi:nil=\"true\"/>")), empty);
  EXPECT_EQ(requestFault(stopTaskWith("<n><inner>3</inner></n>")), empty);
  EXPECT_EQ(requestFault(stopTaskWith("<n xsi:type=\"xsd:long\">1</n>")),
            "Validation constraint violation: type mismatch xsd:long in element 'n'");
}

TEST(KXBrokerMessageTest, StringsTakeAnyTypeAndNilReadsEmpty) {
  const BrokerRequest request = parseBrokerRequest(
      envelope("<kxbroker:callVelmo><a xsi:type=\"xsd:int\"> A &amp; B </a><b xsi:nil=\"true\"/>"
               "<c xsi:nil=\"true\"/></kxbroker:callVelmo>"));
  expectArgs(request.args, {std::string(" A & B "), std::string(), KXValue()});
}

TEST(KXBrokerMessageTest, ValueChildWithoutItemIsInvalid) {
  const BrokerRequest request = parseBrokerRequest(
      envelope("<kxbroker:callVelmo><a>m</a><b>f</b><c xsi:type=\"xsd:anyType\"></c>"
               "</kxbroker:callVelmo>"));
  EXPECT_FALSE(std::get<KXValue>(request.args[2]).isValid());
}

TEST(KXBrokerMessageTest, AnotherPrefixForEveryNamespace) {
  const std::string xml =
      "<e:Envelope xmlns:e=\"http://schemas.xmlsoap.org/soap/envelope/\" "
      "xmlns:i=\"http://www.w3.org/1999/XMLSchema-instance\" xmlns:b=\"urn:kxbroker\">"
      "<e:Header><h>x</h></e:Header><e:Body><b:exploreToGetModuleByName><m>KXMemory</m>"
      "<u i:type=\"q:boolean\">1</u><d>0</d><n>X</n><l i:type=\"xsd:int\">true</l>"
      "</b:exploreToGetModuleByName></e:Body></e:Envelope>";
  EXPECT_EQ(requestFault(xml),
            "Validation constraint violation: type mismatch xsd:int in element 'l'");
  std::string accepted = xml;
  accepted.replace(accepted.find("xsd:int"), 7, "xsd:bool");
  const BrokerRequest request = parseBrokerRequest(accepted);
  EXPECT_EQ(request.op, BrokerOperation::exploreToGetModuleByName);
  expectArgs(request.args, {std::string("KXMemory"), true, false, std::string("X"), true});
}

TEST(KXBrokerMessageTest, DefaultNamespaceForTheOperation) {
  const BrokerRequest request = parseBrokerRequest(
      envelope("<getMethodList xmlns=\"urn:kxbroker\"><x>KXMemory</x></getMethodList>"));
  EXPECT_EQ(request.op, BrokerOperation::getMethodList);
}

TEST(KXBrokerMessageTest, TypeAttributeOutsideTheSchemaInstanceNamespaceIsNoType) {
  const BrokerRequest request = parseBrokerRequest(
      envelope("<kxbroker:stopTask xmlns:t=\"urn:other\"><n t:type=\"xsd:string\">4</n>"
               "</kxbroker:stopTask>"));
  expectArgs(request.args, {4});
}

TEST(KXBrokerMessageTest, UnknownOperations) {
  EXPECT_EQ(requestFault(envelope("<kxbroker:frobnicate/>")),
            "Method 'kxbroker:frobnicate' not implemented: method name or namespace not "
            "recognized");
  EXPECT_EQ(requestFault(envelope("<kx:callVelmo/>")),
            "Method 'kx:callVelmo' not implemented: method name or namespace not recognized");
  EXPECT_EQ(requestFault(envelope("<callVelmo/>")),
            "Method 'callVelmo' not implemented: method name or namespace not recognized");
  EXPECT_EQ(requestFault(envelope("<undeclared:exit/>")),
            "Method 'undeclared:exit' not implemented: method name or namespace not recognized");
  EXPECT_EQ(requestFault(envelope("")),
            "Method '' not implemented: method name or namespace not recognized");
}

TEST(KXBrokerMessageTest, MissingChildren) {
  const std::string missing =
      "Validation constraint violation: occurrence constraint violation in element "
      "'kxbroker:callVelmo'";
  EXPECT_EQ(requestFault(envelope("<kxbroker:callVelmo><a>m</a><b>f</b></kxbroker:callVelmo>")),
            missing);
  EXPECT_EQ(requestFault(envelope("<kxbroker:callVelmo/>")), missing);
  EXPECT_EQ(requestFault(envelope("<kxbroker:stopTask/>")),
            "Validation constraint violation: occurrence constraint violation in element "
            "'kxbroker:stopTask'");
}

TEST(KXBrokerMessageTest, WrongTypedChildren) {
  EXPECT_EQ(requestFault(envelope("<kxbroker:pCallVelmoN><a>a</a><b>abc</b><c/><d/><e/><f/>"
                                  "<g/></kxbroker:pCallVelmoN>")),
            "Validation constraint violation: invalid value in element 'b'");
  EXPECT_EQ(requestFault(envelope("<kxbroker:init><a>a</a><b>b</b><c>1</c><d>d</d><e>2</e>"
                                  "<f>maybe</f></kxbroker:init>")),
            "Validation constraint violation: invalid value in element 'f'");
}

TEST(KXBrokerMessageTest, UnreadableValueIsAnInvalidValue) {
  std::string deep;
  for (int i = 0; i < 80; ++i) deep += "<item xsi:type=\"Array\">";
  for (int i = 0; i < 80; ++i) deep += "</item>";
  EXPECT_EQ(requestFault(envelope("<kxbroker:callVelmo><a>m</a><b>f</b><c>" + deep +
                                  "</c></kxbroker:callVelmo>")),
            "Validation constraint violation: invalid value in element 'c'");
}

TEST(KXBrokerMessageTest, MalformedEnvelopes) {
  const std::string syntax = "Validation constraint violation: syntax error";
  EXPECT_EQ(requestFault(""), syntax);
  EXPECT_EQ(requestFault("garbage"), syntax);
  EXPECT_EQ(requestFault(std::string("\0\x01\xff", 3)), syntax);
  const std::string whole = envelope(requestCases()[0].body);
  for (size_t cut : {size_t{1}, size_t{40}, whole.size() / 2, whole.size() - 12}) {
    SCOPED_TRACE(cut);
    EXPECT_EQ(requestFault(whole.substr(0, cut)), syntax);
  }
  EXPECT_EQ(requestFault("<Envelope><Body><kxbroker:exit/></Body></Envelope>"),
            "Invalid SOAP message or SOAP version mismatch");
  EXPECT_EQ(requestFault("<e:Envelope xmlns:e=\"http://www.w3.org/2003/05/soap-envelope\">"
                         "<e:Body/></e:Envelope>"),
            "Invalid SOAP message or SOAP version mismatch");
  EXPECT_EQ(requestFault(std::string("<SOAP-ENV:Envelope ") + kNamespaces + "/>"),
            "Validation constraint violation: tag name or namespace mismatch");
  EXPECT_EQ(requestFault(std::string("<SOAP-ENV:Envelope ") + kNamespaces +
                         "><kxbroker:exit/></SOAP-ENV:Envelope>"),
            "Validation constraint violation: tag name or namespace mismatch in element "
            "'kxbroker:exit'");
}

TEST(KXBrokerMessageTest, NestingBeyondTheParserLimit) {
  std::string deep;
  for (int i = 0; i < 5000; ++i) deep += "<x>";
  for (int i = 0; i < 5000; ++i) deep += "</x>";
  EXPECT_EQ(requestFault(envelope("<kxbroker:exit>" + deep + "</kxbroker:exit>")),
            "Maximum XML nesting depth level exceeded: increase maxlevel");
}

TEST(KXBrokerMessageTest, MessageAboveTheSizeLimitIsRefusedBeforeParsing) {
  const std::string huge(kBrokerMessageMaxBytes + 1, ' ');
  EXPECT_EQ(requestFault(huge), "Message too large: 67108865 bytes, at most 67108864 accepted");
  EXPECT_EQ(responseFault(BrokerOperation::version, huge),
            "Message too large: 67108865 bytes, at most 67108864 accepted");
}

TEST(KXBrokerMessageTest, ErrorIsAKXErrorOfThisModule) {
  try {
    parseBrokerRequest(envelope("<kxbroker:nothing/>"));
    FAIL() << "no error raised";
  } catch (const KXError& error) {
    EXPECT_EQ(std::string(error.what()),
              "\tKXBrokerMessage::parseBrokerRequest\n\tMethod 'kxbroker:nothing' not "
              "implemented: method name or namespace not recognized");
  }
}

// ---------------------------------------------------------------- responses

TEST(KXBrokerMessageTest, ValueResponses) {
  for (const BrokerOperation op :
       {BrokerOperation::callVelmo, BrokerOperation::callVelmo2, BrokerOperation::pCallVelmoN,
        BrokerOperation::getDebugTaskList}) {
    SCOPED_TRACE(brokerOperationName(op));
    const std::string name = std::string("kxbroker:") + brokerOperationName(op) + "Response";
    const BrokerResponse response =
        parseBrokerResponse(op, envelope("<" + name + "><r xsi:type=\"xsd:anyType\">" +
                                         kParameterXml + "</r></" + name + ">"));
    EXPECT_EQ(response.op, op);
    EXPECT_FALSE(response.fault.has_value());
    expectArgs(response.items, {parameterArray()});
  }
}

TEST(KXBrokerMessageTest, RecordResponses) {
  for (const BrokerOperation op :
       {BrokerOperation::getModuleByName, BrokerOperation::exploreToGetModuleByName,
        BrokerOperation::getBrokerInfo}) {
    SCOPED_TRACE(brokerOperationName(op));
    const std::string name = std::string("kxbroker:") + brokerOperationName(op) + "Response";
    const BrokerResponse response =
        parseBrokerResponse(op, envelope("<" + name + "><kxbroker:return>" + kRecordXml +
                                         "</kxbroker:return></" + name + ">"));
    expectArgs(response.items, {expectedRecord()});
  }
}

TEST(KXBrokerMessageTest, GetInfoIsAnsweredByTheRecordItself) {
  const BrokerResponse response = parseBrokerResponse(
      BrokerOperation::getInfo,
      envelope(std::string("<kx:KXModuleInfo>") + kRecordXml + "</kx:KXModuleInfo>"));
  expectArgs(response.items, {expectedRecord()});
  EXPECT_EQ(responseFault(BrokerOperation::getInfo,
                          envelope("<kxbroker:getInfoResponse><r/></kxbroker:getInfoResponse>")),
            "Validation constraint violation: tag name or namespace mismatch in element "
            "'kxbroker:getInfoResponse'");
}

TEST(KXBrokerMessageTest, ListResponses) {
  KXModuleInfo second;
  second.name = "KXMemory";
  second.port = 1;
  const BrokerResponse modules = parseBrokerResponse(
      BrokerOperation::getModuleList,
      envelope(std::string("<kxbroker:getModuleListResponse><kxbroker:return>") + kRecordXml +
               "</kxbroker:return><other><port>1</port><name>KXMemory</name></other>"
               "</kxbroker:getModuleListResponse>"));
  expectArgs(modules.items, {expectedRecord(), second});

  for (const BrokerOperation op :
       {BrokerOperation::getModuleList, BrokerOperation::getGlobalModuleList,
        BrokerOperation::getBrokerList, BrokerOperation::getMethodList}) {
    SCOPED_TRACE(brokerOperationName(op));
    const std::string name = std::string("kxbroker:") + brokerOperationName(op) + "Response";
    const BrokerResponse empty = parseBrokerResponse(op, envelope("<" + name + "/>"));
    EXPECT_FALSE(empty.fault.has_value());
    EXPECT_TRUE(empty.items.empty());
  }

  const BrokerResponse methods = parseBrokerResponse(
      BrokerOperation::getMethodList,
      envelope("<kxbroker:getMethodListResponse><kxbroker:pMethodListName>getData"
               "</kxbroker:pMethodListName><x>setData</x><kxbroker:pMethodListName/>"
               "</kxbroker:getMethodListResponse>"));
  expectArgs(methods.items, {std::string("getData"), std::string("setData"), std::string()});
}

TEST(KXBrokerMessageTest, StringAndIntResponses) {
  for (const BrokerOperation op :
       {BrokerOperation::version, BrokerOperation::sendBackIP, BrokerOperation::getBrokerName}) {
    SCOPED_TRACE(brokerOperationName(op));
    const std::string name = std::string("kxbroker:") + brokerOperationName(op) + "Response";
    const BrokerResponse response =
        parseBrokerResponse(op, envelope("<" + name + "><s>text</s></" + name + ">"));
    expectArgs(response.items, {std::string("text")});
  }
  for (const BrokerOperation op :
       {BrokerOperation::registerBroker, BrokerOperation::unregisterBroker,
        BrokerOperation::stopTask, BrokerOperation::stopTaskName, BrokerOperation::init}) {
    SCOPED_TRACE(brokerOperationName(op));
    const std::string name = std::string("kxbroker:") + brokerOperationName(op) + "Response";
    const BrokerResponse response =
        parseBrokerResponse(op, envelope("<" + name + "><n>-3</n></" + name + ">"));
    expectArgs(response.items, {-3});
  }
  EXPECT_EQ(responseFault(BrokerOperation::stopTask, envelope("<kxbroker:stopTaskResponse/>")),
            "Validation constraint violation: occurrence constraint violation in element "
            "'kxbroker:stopTaskResponse'");
}

TEST(KXBrokerMessageTest, InitResponseMayBeNilOrEmpty) {
  EXPECT_TRUE(parseBrokerResponse(BrokerOperation::init,
                                  envelope("<kxbroker:initResponse><kxbroker:unused "
                                           "xsi:nil=\"true\"/></kxbroker:initResponse>"))
                  .items.empty());
  EXPECT_TRUE(parseBrokerResponse(BrokerOperation::init, envelope("<kxbroker:initResponse/>"))
                  .items.empty());
}

TEST(KXBrokerMessageTest, ResponseOfAnotherOperationIsRefused) {
  EXPECT_EQ(
      responseFault(BrokerOperation::version, envelope("<kxbroker:sendBackIPResponse><s>1.2.3.4</s>"
                                                       "</kxbroker:sendBackIPResponse>")),
      "Validation constraint violation: tag name or namespace mismatch in element "
      "'kxbroker:sendBackIPResponse'");
  EXPECT_EQ(responseFault(BrokerOperation::version, envelope("")),
            "Validation constraint violation: tag name or namespace mismatch");
}

TEST(KXBrokerMessageTest, FaultIsReturnedWithStringAndDetail) {
  const BrokerResponse response = parseBrokerResponse(
      BrokerOperation::callVelmo, envelope("<SOAP-ENV:Fault><faultcode>SOAP-ENV:Client</faultcode>"
                                           "<faultstring>no such method &quot;x&quot;</faultstring>"
                                           "<detail>KXMemory</detail></SOAP-ENV:Fault>"));
  ASSERT_TRUE(response.fault.has_value());
  EXPECT_EQ(response.fault->code, "SOAP-ENV:Client");
  EXPECT_EQ(response.fault->string, "no such method \"x\"");
  EXPECT_EQ(response.fault->detail, "KXMemory");
  EXPECT_TRUE(response.items.empty());

  const BrokerResponse bare = parseBrokerResponse(
      BrokerOperation::getModuleList,
      "<s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\"><s:Body><s:Fault>"
      "<faultcode>s:Server</faultcode><faultstring>down</faultstring></s:Fault></s:Body>"
      "</s:Envelope>");
  ASSERT_TRUE(bare.fault.has_value());
  EXPECT_EQ(bare.fault->string, "down");
  EXPECT_EQ(bare.fault->detail, "");
}

TEST(KXBrokerMessageTest, OneWayOperationsHaveNoResponseToParse) {
  for (const BrokerOperation op :
       {BrokerOperation::pCallVelmo, BrokerOperation::unregisterModuleReference,
        BrokerOperation::exit}) {
    SCOPED_TRACE(brokerOperationName(op));
    try {
      parseBrokerResponse(op, envelope(""));
      ADD_FAILURE() << "no error raised";
    } catch (const KXError& error) {
      EXPECT_EQ(std::string(error.what()),
                std::string("\tKXBrokerMessage::parseBrokerResponse\n\t") +
                    brokerOperationName(op) + " is one-way: it has no response");
    }
  }
}

TEST(KXBrokerMessageTest, GarbageResponses) {
  EXPECT_EQ(responseFault(BrokerOperation::callVelmo, "HTTP/1.1 500"),
            "Validation constraint violation: syntax error");
  const std::string whole = envelope(std::string("<kxbroker:callVelmoResponse><r>") +
                                     kParameterXml + "</r></kxbroker:callVelmoResponse>");
  for (size_t cut = 0; cut < whole.size() - 3; cut += 7) {
    SCOPED_TRACE(cut);
    EXPECT_FALSE(responseFault(BrokerOperation::callVelmo, whole.substr(0, cut)).empty());
  }
}

}  // namespace
}  // namespace KX
