// A live broker's port, spoken to by hand: raw HTTP/1.1 requests carrying SOAP envelopes
// written as text, for every operation of the broker protocol, with the answers checked
// element by element; the faults and the connection after them; bad input of every kind,
// each followed by proof that the server still serves; and the plain HTTP side (pages,
// stylesheets, files) on the same port.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "broker/kxbroker.h"
#include "broker/kxbrokermanager.h"
#include "log/sdklayout.h"
#include "module/kxproxy.h"
#include "module/kxtaskmonitor.h"
#include "module/tests/proxy_test_support.h"
#include "network/tests/wire_test_support.h"

namespace KX {
namespace testing {
namespace {

namespace fs = std::filesystem;
using tinyxml2::XMLElement;
using wire::envelope;
using wire::HttpReply;
using wire::operation;
using wire::SoapEnvelope;
using wire::textChild;
using wire::valueChild;
using wire::WireConnection;

// A name no other broker of this process carries.
std::string uniqueName(const std::string& stem) {
  static std::atomic<int> counter{0};
  return stem + std::to_string(++counter);
}

// The value array [a, b, ...] of a KXValue parameter list.
KXValue list(std::initializer_list<KXValue> values) { return args(values); }

KXValue binaryOf(const std::string& bytes) {
  KXValue value;
  value.setBinary(bytes.data(), bytes.size());
  return value;
}

std::string callVelmo(const std::string& op, const std::string& module, const std::string& method,
                      const KXValue& parameters) {
  return envelope(operation(op, textChild("kxbroker:mod", module) +
                                    textChild("kxbroker:meth", method) +
                                    valueChild("kxbroker:p", parameters)));
}

std::string callVelmo(const std::string& module, const std::string& method,
                      const KXValue& parameters) {
  return callVelmo("callVelmo", module, method, parameters);
}

std::string simple(const std::string& op, const std::string& children = "") {
  return envelope(operation(op, children));
}

// What a SOAP fault says.
struct Fault {
  std::string code;
  std::string string;
  std::optional<std::string> detail;  // the detail's text, nothing without a detail element
};

// The fields of a record as read from the wire.
struct WireRecord {
  std::vector<std::string> fieldNames;
  KXModuleInfo info;
  std::string modulePointer;
  std::string isABrokerText;
  std::string keepAliveText;
  bool fieldsTyped = false;      // some field carries an xsi:type
  bool fieldsQualified = false;  // some field is in a namespace
};

WireRecord readRecord(const XMLElement& element) {
  WireRecord record;
  for (const XMLElement* field : wire::childElements(element)) {
    const std::string name = field->Name();
    record.fieldNames.push_back(name);
    if (wire::schemaInstanceAttribute(*field, "type")) record.fieldsTyped = true;
    if (!wire::namespaceOf(*field).empty()) record.fieldsQualified = true;
    const std::string text = wire::textOf(*field);
    if (name == "name") record.info.name = text;
    if (name == "architecture") record.info.architecture = std::atoi(text.c_str());
    if (name == "ip") record.info.ip = text;
    if (name == "port") record.info.port = std::atoi(text.c_str());
    if (name == "processId") record.info.processId = std::atoi(text.c_str());
    if (name == "modulePointer") record.modulePointer = text;
    if (name == "isABroker") {
      record.isABrokerText = text;
      record.info.isABroker = text == "true";
    }
    if (name == "keepAlive") {
      record.keepAliveText = text;
      record.info.keepAlive = text == "true";
    }
  }
  return record;
}

const std::vector<std::string> kRecordFieldOrder = {
    "name", "architecture", "ip", "port", "processId", "modulePointer", "isABroker", "keepAlive"};

// A record as this system writes it: the eight unqualified, untyped fields in order, the
// pointer written 0 and the booleans as "true"/"false".
void expectWellFormedRecord(const WireRecord& record) {
  EXPECT_EQ(record.fieldNames, kRecordFieldOrder);
  EXPECT_EQ(record.modulePointer, "0");
  EXPECT_TRUE(record.isABrokerText == "true" || record.isABrokerText == "false")
      << record.isABrokerText;
  EXPECT_TRUE(record.keepAliveText == "true" || record.keepAliveText == "false")
      << record.keepAliveText;
  EXPECT_FALSE(record.fieldsTyped);
  EXPECT_FALSE(record.fieldsQualified);
}

void expectSameInfo(const KXModuleInfo& actual, const KXModuleInfo& expected) {
  EXPECT_EQ(actual.name, expected.name);
  EXPECT_EQ(actual.architecture, expected.architecture);
  EXPECT_EQ(actual.ip, expected.ip);
  EXPECT_EQ(actual.port, expected.port);
  EXPECT_EQ(actual.processId, expected.processId);
  EXPECT_EQ(actual.isABroker, expected.isABroker);
  EXPECT_EQ(actual.keepAlive, expected.keepAlive);
}

// A root broker with the Calculator "Calc", listening on 127.0.0.1; a child broker under it
// on demand.
class BrokerWireTest : public ::testing::Test {
 protected:
  void SetUp() override {
    brokerName_ = uniqueName("wireRoot");
    broker_ = KXBroker::createBroker(brokerName_, "127.0.0.1", 0, "", 0, KXBroker::kKeepAlive);
    ASSERT_NE(broker_, nullptr);
    calc_ = createModule<Calculator>(broker_, "Calc");
    port_ = broker_->getPort();
    ASSERT_GT(port_, 0);
  }

  void TearDown() override {
    // Nothing may stay blocked in a Calculator method past the test.
    if (calc_) calc_->release.countDown();
    if (childCalc_) childCalc_->release.countDown();
    if (child_) child_->shutdown();
    if (broker_) broker_->shutdown();
  }

  void startChild() {
    childName_ = uniqueName("wireChild");
    child_ = KXBroker::createBroker(childName_, "127.0.0.1", 0, "127.0.0.1", port_,
                                    KXBroker::kKeepAlive);
    ASSERT_NE(child_, nullptr);
    childCalc_ = createModule<Calculator>(child_, "Deep");
    ASSERT_TRUE(eventually([this] { return broker_->getChildBrokers().size() == 1; }));
  }

  // One request on `connection`, its HTTP answer.
  HttpReply ask(WireConnection& connection, const std::string& body) {
    EXPECT_TRUE(connection.connected());
    EXPECT_TRUE(connection.post(body));
    std::optional<HttpReply> reply = connection.read();
    EXPECT_TRUE(reply.has_value()) << "no answer to " << body;
    return reply.value_or(HttpReply{});
  }

  // One request on a connection of its own.
  HttpReply ask(const std::string& body) {
    WireConnection connection(port_);
    return ask(connection, body);
  }

  // The single body element of a successful answer, checked to be `local` in the broker
  // namespace. The envelope must outlive the element.
  const XMLElement* expectAnswer(const HttpReply& reply, const SoapEnvelope& soap,
                                 const std::string& local) {
    EXPECT_EQ(reply.status(), 200) << reply.header << reply.body;
    EXPECT_EQ(reply.field("Content-Type").value_or(""), "text/xml; charset=utf-8");
    EXPECT_EQ(soap.problem(), "") << reply.body;
    EXPECT_EQ(soap.body().size(), 1u) << reply.body;
    if (soap.body().empty()) return nullptr;
    const XMLElement* element = soap.body()[0];
    EXPECT_TRUE(wire::isNamed(*element, wire::kBrokerUri, local))
        << "expected " << local << " in urn:kxbroker, got " << element->Name() << " in '"
        << wire::namespaceOf(*element) << "'\n"
        << reply.body;
    return element;
  }

  // The children of an answer element, each checked to be `name` in the broker namespace.
  std::vector<const XMLElement*> answerChildren(const XMLElement* element,
                                                const std::string& name) {
    if (element == nullptr) return {};
    std::vector<const XMLElement*> children = wire::childElements(*element);
    for (const XMLElement* child : children) {
      EXPECT_TRUE(wire::isNamed(*child, wire::kBrokerUri, name))
          << "child " << child->Name() << " of " << element->Name();
    }
    return children;
  }

  // The one child of an answer, as text.
  std::string singleText(const HttpReply& reply, const std::string& answer,
                         const std::string& child) {
    SoapEnvelope soap(reply.body);
    const std::vector<const XMLElement*> children =
        answerChildren(expectAnswer(reply, soap, answer), child);
    EXPECT_EQ(children.size(), 1u) << reply.body;
    if (children.size() != 1) return std::string();
    EXPECT_FALSE(wire::schemaInstanceAttribute(*children[0], "type").has_value()) << reply.body;
    return wire::textOf(*children[0]);
  }

  // The value that an answer's one `return` child carries.
  KXValue singleValue(const HttpReply& reply, const std::string& answer) {
    SoapEnvelope soap(reply.body);
    const std::vector<const XMLElement*> children =
        answerChildren(expectAnswer(reply, soap, answer), "return");
    EXPECT_EQ(children.size(), 1u) << reply.body;
    return children.size() == 1 ? wire::valueIn(*children[0]) : KXValue();
  }

  // The records of an answer's `return` children.
  std::vector<WireRecord> records(const HttpReply& reply, const std::string& answer) {
    SoapEnvelope soap(reply.body);
    std::vector<WireRecord> result;
    for (const XMLElement* child : answerChildren(expectAnswer(reply, soap, answer), "return")) {
      result.push_back(readRecord(*child));
    }
    return result;
  }

  // `keepsConnection`: the fault leaves the connection open for the next request.
  Fault expectFault(const HttpReply& reply, bool keepsConnection = true) {
    EXPECT_EQ(reply.status(), 500) << reply.header;
    if (keepsConnection) {
      EXPECT_NE(reply.field("Connection").value_or(""), "close") << reply.header;
    }
    SoapEnvelope soap(reply.body);
    Fault fault;
    EXPECT_EQ(soap.problem(), "") << reply.body;
    EXPECT_EQ(soap.body().size(), 1u) << reply.body;
    if (soap.body().empty()) return fault;
    const XMLElement& element = *soap.body()[0];
    EXPECT_TRUE(wire::isNamed(element, wire::kEnvelopeUri, "Fault")) << reply.body;
    for (const XMLElement* child : wire::childElements(element)) {
      const std::string name = child->Name();
      if (name == "faultcode") fault.code = wire::textOf(*child);
      if (name == "faultstring") fault.string = wire::textOf(*child);
      if (name == "detail") fault.detail = wire::textOf(*child);
    }
    return fault;
  }

  // The server answers a plain request, on a new connection.
  void expectServing() {
    const HttpReply reply = ask(callVelmo("Calc", "add", list({KXValue(20), KXValue(22)})));
    EXPECT_EQ(singleValue(reply, "callVelmoResponse"), KXValue(42));
  }

  KXModuleInfo expectedCalcInfo(const std::string& name = "Calc") const {
    KXModuleInfo info;
    info.name = name;
    info.architecture = 1;
    info.ip = "127.0.0.1";
    info.port = port_;
    info.processId = static_cast<int>(::getpid());
    info.isABroker = false;
    info.keepAlive = false;
    return info;
  }

  std::string brokerName_;
  std::shared_ptr<KXBroker> broker_;
  std::shared_ptr<Calculator> calc_;
  int port_ = 0;
  std::string childName_;
  std::shared_ptr<KXBroker> child_;
  std::shared_ptr<Calculator> childCalc_;
};

// ================================================================ the operations

TEST_F(BrokerWireTest, CallVelmoEchoesNestedValuesWithTheirTypes) {
  const KXValue nested =
      list({KXValue(-7), KXValue(2.5f), KXValue(true), KXValue("a&b<c>\"q\""),
            list({KXValue(false), list({KXValue("deep"), KXValue(0)}), list({})}),
            KXValue(std::string())});
  const HttpReply reply = ask(callVelmo("Calc", "echo", list({nested})));
  EXPECT_EQ(singleValue(reply, "callVelmoResponse"), nested) << reply.body;
  // Each leaf carries its own type.
  EXPECT_NE(reply.body.find("<item xsi:type=\"xsd:int\">-7</item>"), std::string::npos);
  EXPECT_NE(reply.body.find("<item xsi:type=\"xsd:float\">2.5</item>"), std::string::npos);
  EXPECT_NE(reply.body.find("<item xsi:type=\"xsd:boolean\">true</item>"), std::string::npos);
  EXPECT_NE(reply.body.find("<item xsi:type=\"xsd:boolean\">false</item>"), std::string::npos);
  EXPECT_NE(reply.body.find("<item xsi:type=\"xsd:string\">deep</item>"), std::string::npos);
  EXPECT_NE(reply.body.find("<item xsi:type=\"xsd:int\">0</item>"), std::string::npos);
  EXPECT_NE(reply.body.find("xsi:type=\"Array\""), std::string::npos);
}

TEST_F(BrokerWireTest, CallVelmoRunsTypedMethods) {
  EXPECT_EQ(singleValue(ask(callVelmo("Calc", "add", list({KXValue(2), KXValue(3)}))),
                        "callVelmoResponse"),
            KXValue(5));
  EXPECT_EQ(
      singleValue(ask(callVelmo("Calc", "greet", list({KXValue("Bob")}))), "callVelmoResponse"),
      KXValue("Hello Bob"));
  EXPECT_EQ(calc_->addCalls.load(), 1);
}

TEST_F(BrokerWireTest, CallVelmoCarriesAValueLargerThanTheReceiveBuffer) {
  std::string big(200000, 'x');
  for (std::size_t i = 0; i < big.size(); i += 97) big[i] = static_cast<char>('a' + i % 26);
  const HttpReply reply = ask(callVelmo("Calc", "echo", list({KXValue(big)})));
  EXPECT_EQ(singleValue(reply, "callVelmoResponse"), KXValue(big));
}

TEST_F(BrokerWireTest, CallVelmo2ReturnsAnEvenTaskIdAndRunsTheCall) {
  const HttpReply reply =
      ask(callVelmo("callVelmo2", "Calc", "add", list({KXValue(1), KXValue(2)})));
  const KXValue id = singleValue(reply, "callVelmo2Response");
  ASSERT_EQ(id.getType(), 3) << reply.body;  // Int
  EXPECT_GT(static_cast<int>(id), 0);
  EXPECT_EQ(static_cast<int>(id) % 2, 0);
  EXPECT_TRUE(eventually([this] { return calc_->addCalls.load() == 1; }));
}

TEST_F(BrokerWireTest, PCallVelmoNIsAnsweredAndRunsNothing) {
  WireConnection connection(port_);
  const HttpReply reply =
      ask(connection,
          envelope(operation("pCallVelmoN",
                             textChild("kxbroker:mod", "Calc") + textChild("kxbroker:id", "4") +
                                 textChild("kxbroker:meth", "add") + textChild("kxbroker:d", "") +
                                 textChild("kxbroker:e", "") + textChild("kxbroker:f", "") +
                                 valueChild("kxbroker:p", list({KXValue(1), KXValue(2)})))));
  SoapEnvelope soap(reply.body);
  const std::vector<const XMLElement*> children =
      answerChildren(expectAnswer(reply, soap, "pCallVelmoNResponse"), "return");
  // Its one `return` carries nothing: an Invalid value.
  ASSERT_EQ(children.size(), 1u) << reply.body;
  EXPECT_EQ(children[0]->FirstChildElement(), nullptr) << reply.body;
  // A posted add would run on the pool; a synchronous one, answered after it, counts 1 only
  // when the first ran nowhere.
  EXPECT_EQ(singleValue(ask(connection, callVelmo("Calc", "add", list({KXValue(1), KXValue(1)}))),
                        "callVelmoResponse"),
            KXValue(2));
  EXPECT_EQ(calc_->addCalls.load(), 1);
  EXPECT_EQ(broker_->getTaskMonitor()->getTaskList().size(), 0u);
}

TEST_F(BrokerWireTest, PCallVelmoIsOneWayRunsTheCallAndTheConnectionCarriesTheNext) {
  WireConnection connection(port_);
  ASSERT_TRUE(connection.connected());
  ASSERT_TRUE(
      connection.post(callVelmo("pCallVelmo", "Calc", "add", list({KXValue(4), KXValue(5)}))));
  // The first answer read is that of the next request: the one-way got none.
  const HttpReply reply = ask(connection, simple("version"));
  EXPECT_EQ(singleText(reply, "versionResponse", "pVersion"), "1.14");
  EXPECT_TRUE(eventually([this] { return calc_->addCalls.load() == 1; }));
}

TEST_F(BrokerWireTest, GetModuleByNameDescribesTheModuleAtItsBrokersAddress) {
  const std::vector<WireRecord> found =
      records(ask(simple("getModuleByName", textChild("kxbroker:pModuleName", "Calc"))),
              "getModuleByNameResponse");
  ASSERT_EQ(found.size(), 1u);
  expectWellFormedRecord(found[0]);
  expectSameInfo(found[0].info, expectedCalcInfo());

  const Fault fault =
      expectFault(ask(simple("getModuleByName", textChild("kxbroker:pModuleName", "Nowhere"))));
  EXPECT_EQ(fault.code, "SOAP-ENV:Client");
  EXPECT_EQ(fault.string, "unable to get module by name");
  EXPECT_FALSE(fault.detail.has_value());
}

std::string explore(const std::string& name, bool up, bool down, const std::string& excluded) {
  return simple("exploreToGetModuleByName",
                textChild("kxbroker:pModuleName", name) +
                    textChild("kxbroker:pSearchUp", up ? "true" : "false") +
                    textChild("kxbroker:pSearchDown", down ? "true" : "false") +
                    textChild("kxbroker:pDontLookIntoBrokerName", excluded) +
                    textChild("kxbroker:pLoadLib", "false"));
}

TEST_F(BrokerWireTest, ExploreToGetModuleByNameFindsOrFaults) {
  const std::vector<WireRecord> found =
      records(ask(explore("Calc", true, true, "")), "exploreToGetModuleByNameResponse");
  ASSERT_EQ(found.size(), 1u);
  expectWellFormedRecord(found[0]);
  expectSameInfo(found[0].info, expectedCalcInfo());

  const Fault fault = expectFault(ask(explore("Nowhere", true, true, "")));
  EXPECT_EQ(fault.code, "SOAP-ENV:Client");
  EXPECT_EQ(fault.string, "unable to explore to get a module by name for: 'Nowhere'");
  EXPECT_FALSE(fault.detail.has_value());
}

TEST_F(BrokerWireTest, GetModuleListDescribesTheLocalModules) {
  const std::vector<WireRecord> modules =
      records(ask(simple("getModuleList")), "getModuleListResponse");
  const auto calc = std::find_if(modules.begin(), modules.end(),
                                 [](const WireRecord& r) { return r.info.name == "Calc"; });
  ASSERT_NE(calc, modules.end());
  expectSameInfo(calc->info, expectedCalcInfo());
  for (const WireRecord& module : modules) {
    expectWellFormedRecord(module);
    EXPECT_EQ(module.info.port, port_) << module.info.name;
    EXPECT_EQ(module.info.ip, "127.0.0.1") << module.info.name;
    EXPECT_FALSE(module.info.isABroker) << module.info.name;
  }
}

TEST_F(BrokerWireTest, TreeListsIncludeARegisteredChild) {
  ASSERT_NO_FATAL_FAILURE(startChild());
  const int childPort = child_->getPort();

  const std::vector<WireRecord> global =
      records(ask(simple("getGlobalModuleList")), "getGlobalModuleListResponse");
  const auto named = [&global](const std::string& name) {
    return std::find_if(global.begin(), global.end(),
                        [&name](const WireRecord& r) { return r.info.name == name; });
  };
  ASSERT_NE(named("Calc"), global.end());
  ASSERT_NE(named("Deep"), global.end());
  EXPECT_EQ(named("Calc")->info.port, port_);
  EXPECT_EQ(named("Deep")->info.port, childPort);
  for (const WireRecord& module : global) expectWellFormedRecord(module);

  const std::vector<WireRecord> brokers =
      records(ask(simple("getBrokerList")), "getBrokerListResponse");
  ASSERT_EQ(brokers.size(), 2u);
  EXPECT_EQ(brokers[0].info.name, brokerName_);
  EXPECT_EQ(brokers[0].info.port, port_);
  EXPECT_TRUE(brokers[0].info.isABroker);
  EXPECT_EQ(brokers[1].info.name, childName_);
  EXPECT_EQ(brokers[1].info.port, childPort);
  EXPECT_TRUE(brokers[1].info.isABroker);
  for (const WireRecord& broker : brokers) expectWellFormedRecord(broker);

  // A search downwards finds the child's module at the child's address.
  const std::vector<WireRecord> deep =
      records(ask(explore("Deep", false, true, "")), "exploreToGetModuleByNameResponse");
  ASSERT_EQ(deep.size(), 1u);
  EXPECT_EQ(deep[0].info.name, "Deep");
  EXPECT_EQ(deep[0].info.port, childPort);
  // ... unless the child is the branch to skip.
  const Fault skipped = expectFault(ask(explore("Deep", false, true, childName_)));
  EXPECT_EQ(skipped.string, "unable to explore to get a module by name for: 'Deep'");
}

TEST_F(BrokerWireTest, TheHostHeaderNamesTheBrokerThatAnswers) {
  ASSERT_NO_FATAL_FAILURE(startChild());
  const std::string request = simple("getBrokerName");
  const auto brokerNameVia = [&](int connectTo, const std::string& host) {
    WireConnection connection(connectTo);
    EXPECT_TRUE(connection.connected());
    EXPECT_TRUE(connection.sendAll("POST /path HTTP/1.1\r\nHost: " + host +
                                   "\r\nContent-Type: text/xml; charset=utf-8\r\nContent-Length: " +
                                   std::to_string(request.size()) + "\r\n\r\n" + request));
    std::optional<HttpReply> reply = connection.read();
    EXPECT_TRUE(reply.has_value());
    return reply ? singleText(*reply, "getBrokerNameResponse", "pBrokerName") : std::string();
  };
  const std::string childPort = std::to_string(child_->getPort());
  EXPECT_EQ(brokerNameVia(child_->getPort(), "127.0.0.1:" + childPort), childName_);
  EXPECT_EQ(brokerNameVia(port_, "127.0.0.1:" + std::to_string(port_)), brokerName_);
  // Both brokers live in this process: the port in the Host header decides, whichever
  // socket the request came through.
  EXPECT_EQ(brokerNameVia(port_, "127.0.0.1:" + childPort), childName_);
}

TEST_F(BrokerWireTest, GetBrokerListOfALoneBrokerIsItself) {
  const std::vector<WireRecord> brokers =
      records(ask(simple("getBrokerList")), "getBrokerListResponse");
  ASSERT_EQ(brokers.size(), 1u);
  expectWellFormedRecord(brokers[0]);
  expectSameInfo(brokers[0].info, broker_->getBrokerInfo());
}

KXModuleInfo fakeChild(const std::string& name) {
  KXModuleInfo info;
  info.name = name;
  info.architecture = 1;
  info.ip = "127.0.0.1";
  info.port = 1;  // nothing listens there: the child is never called in this test
  info.processId = 4242;
  info.isABroker = true;
  info.keepAlive = true;
  return info;
}

TEST_F(BrokerWireTest, RegisterBrokerListsTheChildAndUnregisterBrokerRemovesIt) {
  const KXModuleInfo child = fakeChild(uniqueName("fakeChild"));
  WireConnection connection(port_);
  const HttpReply registered =
      ask(connection, simple("registerBroker", wire::recordChild("kxbroker:pBrokerToRegister",
                                                                 wire::recordFields(child))));
  EXPECT_EQ(singleText(registered, "registerBrokerResponse", "unused"), "0");
  const std::vector<KXBrokerInfo> children = broker_->getChildBrokers();
  ASSERT_EQ(children.size(), 1u);
  expectSameInfo(children[0], child);

  const HttpReply unregistered =
      ask(connection, simple("unregisterBroker", wire::recordChild("kxbroker:pBrokerToUnregister",
                                                                   wire::recordFields(child))));
  EXPECT_EQ(singleText(unregistered, "unregisterBrokerResponse", "unused"), "0");
  EXPECT_TRUE(broker_->getChildBrokers().empty());
}

// Two requests in one write (HTTP/1.1 pipelining): the second waits in the server's input
// buffer while the first is answered.
TEST_F(BrokerWireTest, RequestsSentTogetherAreAnsweredInOrder) {
  WireConnection connection(port_);
  ASSERT_TRUE(connection.connected());
  const std::string first = callVelmo("Calc", "add", list({KXValue(1), KXValue(2)}));
  const std::string second = simple("getBrokerName");
  ASSERT_TRUE(connection.sendAll(connection.postHeader(first.size()) + first +
                                 connection.postHeader(second.size()) + second));
  const std::optional<HttpReply> sum = connection.read();
  ASSERT_TRUE(sum.has_value());
  EXPECT_EQ(singleValue(*sum, "callVelmoResponse"), KXValue(3));
  const std::optional<HttpReply> name = connection.read();
  ASSERT_TRUE(name.has_value()) << "the second request of the write was never answered";
  EXPECT_EQ(singleText(*name, "getBrokerNameResponse", "pBrokerName"), brokerName_);
}

TEST_F(BrokerWireTest, AOneWayRequestAndTheNextSentTogetherAreBothCarriedOut) {
  const std::shared_ptr<KXProxy> before = broker_->getProxy("Calc");
  WireConnection connection(port_);
  ASSERT_TRUE(connection.connected());
  const std::string oneWay =
      simple("unregisterModuleReference", textChild("kxbroker:moduleName", "Calc"));
  const std::string next = simple("getBrokerName");
  ASSERT_TRUE(connection.sendAll(connection.postHeader(oneWay.size()) + oneWay +
                                 connection.postHeader(next.size()) + next));
  const std::optional<HttpReply> name = connection.read();
  ASSERT_TRUE(name.has_value());
  EXPECT_EQ(singleText(*name, "getBrokerNameResponse", "pBrokerName"), brokerName_);
  EXPECT_NE(broker_->getProxy("Calc"), before);
}

TEST_F(BrokerWireTest, AChunkedRequestIsServed) {
  WireConnection connection(port_);
  ASSERT_TRUE(connection.connected());
  const std::string body = callVelmo("Calc", "add", list({KXValue(40), KXValue(2)}));
  const std::size_t half = body.size() / 2;
  const auto chunk = [](const std::string& data) {
    char size[16];
    std::snprintf(size, sizeof(size), "%zx", data.size());
    return std::string(size) + "\r\n" + data + "\r\n";
  };
  ASSERT_TRUE(connection.sendAll(
      "POST / HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port_) +
      "\r\nContent-Type: text/xml; charset=utf-8\r\nTransfer-Encoding: chunked\r\n\r\n" +
      chunk(body.substr(0, half)) + chunk(body.substr(half)) + "0\r\n\r\n"));
  const std::optional<HttpReply> reply = connection.read();
  ASSERT_TRUE(reply.has_value());
  EXPECT_EQ(singleValue(*reply, "callVelmoResponse"), KXValue(42));
  // The connection carries the next request.
  EXPECT_EQ(singleText(ask(connection, simple("version")), "versionResponse", "pVersion"), "1.14");
}

TEST_F(BrokerWireTest, ASoapHeaderBeforeTheBodyIsSkipped) {
  const std::string withHeader =
      std::string("<?xml version=\"1.0\"?><SOAP-ENV:Envelope xmlns:SOAP-ENV=\"") +
      wire::kEnvelopeUri + "\" xmlns:kxbroker=\"urn:kxbroker\"><SOAP-ENV:Header><t>1</t>" +
      "</SOAP-ENV:Header><SOAP-ENV:Body><kxbroker:getBrokerName/></SOAP-ENV:Body>" +
      "</SOAP-ENV:Envelope>";
  EXPECT_EQ(singleText(ask(withHeader), "getBrokerNameResponse", "pBrokerName"), brokerName_);
}

TEST_F(BrokerWireTest, UnregisterModuleReferenceIsOneWayAndDropsTheSharedProxy) {
  const std::shared_ptr<KXProxy> before = broker_->getProxy("Calc");
  ASSERT_EQ(broker_->getProxy("Calc"), before);
  WireConnection connection(port_);
  ASSERT_TRUE(connection.connected());
  ASSERT_TRUE(connection.post(
      simple("unregisterModuleReference", textChild("kxbroker:moduleName", "Calc"))));
  // Requests on one connection are carried out in order: once the next is answered, the
  // one-way has been carried out, and it was answered by nothing.
  EXPECT_EQ(
      singleText(ask(connection, simple("getBrokerName")), "getBrokerNameResponse", "pBrokerName"),
      brokerName_);
  EXPECT_NE(broker_->getProxy("Calc"), before);
}

TEST_F(BrokerWireTest, GetBrokerInfoDescribesTheBroker) {
  const std::vector<WireRecord> info =
      records(ask(simple("getBrokerInfo")), "getBrokerInfoResponse");
  ASSERT_EQ(info.size(), 1u);
  expectWellFormedRecord(info[0]);
  KXModuleInfo expected;
  expected.name = brokerName_;
  expected.architecture = 1;
  expected.ip = "127.0.0.1";
  expected.port = port_;
  expected.processId = static_cast<int>(::getpid());
  expected.isABroker = true;
  expected.keepAlive = true;
  expectSameInfo(info[0].info, expected);
  EXPECT_EQ(info[0].isABrokerText, "true");
}

TEST_F(BrokerWireTest, GetMethodListNamesTheMethodsInBindOrder) {
  const HttpReply reply = ask(simple("getMethodList", textChild("kxbroker:pModuleName", "Calc")));
  SoapEnvelope answer(reply.body);
  std::vector<std::string> names;
  for (const XMLElement* child :
       answerChildren(expectAnswer(reply, answer, "getMethodListResponse"), "pMethodListName")) {
    names.push_back(wire::textOf(*child));
  }
  const std::vector<std::string> expected = {
      "exit", "version",   "ping",  "getMethodList", "getMethodHelp",  "getModuleHelp",
      "wait", "isRunning", "stop",  "getBrokerName", "getUsage",       "add",
      "half", "twice",     "greet", "keepValue",     "countWords",     "scale",
      "echo", "fail",      "hold",  "pause",         "runUntilStopped"};
  EXPECT_EQ(names, expected);

  const Fault fault =
      expectFault(ask(simple("getMethodList", textChild("kxbroker:pModuleName", "Nowhere"))));
  EXPECT_EQ(fault.code, "SOAP-ENV:Client");
  EXPECT_EQ(fault.string, "unable to get methods list");
}

TEST_F(BrokerWireTest, InitOfARunningBrokerFaultsAndChangesNothing) {
  const Fault fault = expectFault(
      ask(simple("init", textChild("kxbroker:a", "other") + textChild("kxbroker:b", "10.0.0.1") +
                             textChild("kxbroker:c", "9559") + textChild("kxbroker:d", "") +
                             textChild("kxbroker:e", "0") + textChild("kxbroker:f", "false"))));
  EXPECT_EQ(fault.code, "SOAP-ENV:Client");
  EXPECT_EQ(fault.string, "unable to init broker");
  EXPECT_FALSE(fault.detail.has_value());
  EXPECT_EQ(broker_->getName(), brokerName_);
  EXPECT_EQ(broker_->getPort(), port_);
}

TEST_F(BrokerWireTest, VersionSendBackIPAndBrokerName) {
  WireConnection connection(port_);
  EXPECT_EQ(singleText(ask(connection, simple("version")), "versionResponse", "pVersion"), "1.14");
  EXPECT_EQ(singleText(ask(connection, simple("sendBackIP")), "sendBackIPResponse", "pIP"),
            "127.0.0.1");
  EXPECT_EQ(
      singleText(ask(connection, simple("getBrokerName")), "getBrokerNameResponse", "pBrokerName"),
      brokerName_);
}

TEST_F(BrokerWireTest, GetInfoIsAnsweredByTheRecordWithoutAWrapper) {
  const HttpReply reply = ask(simple("getInfo", textChild("kxbroker:pModuleName", "Calc")));
  EXPECT_EQ(reply.status(), 200);
  SoapEnvelope soap(reply.body);
  ASSERT_EQ(soap.problem(), "");
  ASSERT_EQ(soap.body().size(), 1u) << reply.body;
  const XMLElement& record = *soap.body()[0];
  EXPECT_TRUE(wire::isNamed(record, wire::kRecordUri, "KXModuleInfo")) << reply.body;
  const WireRecord read = readRecord(record);
  expectWellFormedRecord(read);
  expectSameInfo(read.info, expectedCalcInfo());

  const Fault fault =
      expectFault(ask(simple("getInfo", textChild("kxbroker:pModuleName", "Nope"))));
  EXPECT_EQ(fault.code, "SOAP-ENV:Client");
  EXPECT_EQ(fault.string, "unable to get info from module");
}

TEST_F(BrokerWireTest, StopTaskAsksARunningCallToStop) {
  const KXValue id = singleValue(ask(callVelmo("callVelmo2", "Calc", "runUntilStopped", list({}))),
                                 "callVelmo2Response");
  ASSERT_EQ(id.getType(), 3);
  ASSERT_EQ(calc_->waitForOwnTaskId(), static_cast<int>(id));
  EXPECT_EQ(singleText(ask(simple("stopTask", textChild("kxbroker:pTaskId",
                                                        std::to_string(static_cast<int>(id))))),
                       "stopTaskResponse", "num"),
            "0");
  EXPECT_TRUE(eventually([this] { return calc_->stoppedOnRequest.load(); }));
}

TEST_F(BrokerWireTest, StopTaskNameAnswersZero) {
  EXPECT_EQ(
      singleText(ask(simple("stopTaskName", textChild("kxbroker:pTaskName", "pcall: Calc::hold"))),
                 "stopTaskNameResponse", "num"),
      "0");
}

TEST_F(BrokerWireTest, GetDebugTaskListListsARunningParallelCall) {
  const KXValue id =
      singleValue(ask(callVelmo("callVelmo2", "Calc", "hold", list({}))), "callVelmo2Response");
  ASSERT_EQ(id.getType(), 3);
  ASSERT_TRUE(calc_->waitForHolds(1));
  const KXValue tasks = singleValue(ask(simple("getDebugTaskList")), "getDebugTaskListResponse");
  EXPECT_EQ(tasks, list({list({id, KXValue("Calc"), KXValue("hold")})}));
  calc_->release.countDown();
}

// ================================================================ how requests may be written

TEST_F(BrokerWireTest, ChildrenAreTakenByPositionWhateverTheirNames) {
  WireConnection connection(port_);
  const HttpReply reply =
      ask(connection,
          envelope(operation("callVelmo", textChild("a", "Calc") + textChild("b", "add") +
                                              valueChild("c", list({KXValue(7), KXValue(8)})))));
  EXPECT_EQ(singleValue(reply, "callVelmoResponse"), KXValue(15));

  const std::vector<WireRecord> found =
      records(ask(connection, simple("getModuleByName", textChild("whatever", "Calc"))),
              "getModuleByNameResponse");
  ASSERT_EQ(found.size(), 1u);
  EXPECT_EQ(found[0].info.name, "Calc");
}

TEST_F(BrokerWireTest, RecordFieldsAreTakenByNameInAnyOrder) {
  const KXModuleInfo child = fakeChild(uniqueName("shuffledChild"));
  std::vector<std::string> fields = wire::recordFields(child);
  std::reverse(fields.begin(), fields.end());
  // An unknown field is skipped; a field given twice counts once.
  fields.insert(fields.begin() + 3, textChild("colour", "blue"));
  fields.push_back(textChild("name", "intruder"));
  const HttpReply reply = ask(simple("registerBroker", wire::recordChild("kxbroker:x", fields)));
  EXPECT_EQ(singleText(reply, "registerBrokerResponse", "unused"), "0");
  const std::vector<KXBrokerInfo> children = broker_->getChildBrokers();
  ASSERT_EQ(children.size(), 1u);
  expectSameInfo(children[0], child);
  broker_->unregisterBroker(child.name);
}

TEST_F(BrokerWireTest, NamespacesAreMatchedByUriWhateverThePrefixes) {
  // Other prefixes for the envelope and the operation, a default namespace for the
  // operation, and the schema instance namespace of 1999.
  const std::string start =
      std::string("<?xml version=\"1.0\"?><e:Envelope xmlns:e=\"") + wire::kEnvelopeUri +
      "\" xmlns:xsi=\"" + wire::kSchemaInstanceUri + "\" xmlns:xsd=\"" + wire::kSchemaUri +
      "\" xmlns:q=\"urn:kxbroker\" xmlns:i=\"http://www.w3.org/1999/XMLSchema-instance\"><e:Body>";
  const std::string end = "</e:Body></e:Envelope>";
  WireConnection connection(port_);

  EXPECT_EQ(singleValue(ask(connection, start + "<q:callVelmo>" + textChild("q:mod", "Calc") +
                                            textChild("q:meth", "add") +
                                            valueChild("q:p", list({KXValue(1), KXValue(1)})) +
                                            "</q:callVelmo>" + end),
                        "callVelmoResponse"),
            KXValue(2));
  EXPECT_EQ(singleText(ask(connection, start + "<version xmlns=\"urn:kxbroker\"/>" + end),
                       "versionResponse", "pVersion"),
            "1.14");

  const KXModuleInfo child = fakeChild(uniqueName("prefixedChild"));
  std::string fields;
  for (const std::string& field : wire::recordFields(child)) {
    if (field.rfind("<isABroker>", 0) == 0) {
      fields += "<isABroker i:type=\"xsd:boolean\">true</isABroker>";
    } else {
      fields += field;
    }
  }
  EXPECT_EQ(singleText(ask(connection, start + "<q:registerBroker><r>" + fields +
                                           "</r></q:registerBroker>" + end),
                       "registerBrokerResponse", "unused"),
            "0");
  const std::vector<KXBrokerInfo> children = broker_->getChildBrokers();
  ASSERT_EQ(children.size(), 1u);
  expectSameInfo(children[0], child);
  broker_->unregisterBroker(child.name);

  // A prefix bound to another namespace is not the broker's.
  const Fault fault = expectFault(ask(connection, start + "<i:version/>" + end));
  EXPECT_EQ(fault.string,
            "Method 'i:version' not implemented: method name or namespace not recognized");
}

// ================================================================ faults

TEST_F(BrokerWireTest, AMethodThatRaisesAnswersAClientFaultNamingTheModule) {
  WireConnection connection(port_);
  const Fault fault = expectFault(ask(connection, callVelmo("Calc", "fail", list({}))));
  EXPECT_EQ(fault.code, "SOAP-ENV:Client");
  EXPECT_EQ(fault.string, "deliberate failure");
  EXPECT_EQ(fault.detail, std::optional<std::string>("Calc"));

  const Fault posted =
      expectFault(ask(connection, callVelmo("callVelmo2", "Nope", "fail", list({}))));
  EXPECT_EQ(posted.code, "SOAP-ENV:Client");
  EXPECT_EQ(posted.detail, std::optional<std::string>("Nope"));

  EXPECT_EQ(singleValue(ask(connection, callVelmo("Calc", "add", list({KXValue(1), KXValue(2)}))),
                        "callVelmoResponse"),
            KXValue(3));
}

TEST_F(BrokerWireTest, AnUnknownModuleOrMethodFaultsAndTheConnectionGoesOn) {
  WireConnection connection(port_);
  const Fault module = expectFault(ask(connection, callVelmo("Nope", "add", list({}))));
  EXPECT_EQ(module.code, "SOAP-ENV:Client");
  EXPECT_EQ(module.string,
            "Module not found.Could not execute method \"add\" of module \"Nope\" because this "
            "module does not exist.");
  EXPECT_EQ(module.detail, std::optional<std::string>("Nope"));

  const Fault method = expectFault(ask(connection, callVelmo("Calc", "nope", list({}))));
  EXPECT_EQ(method.code, "SOAP-ENV:Client");
  EXPECT_EQ(method.detail, std::optional<std::string>("Calc"));

  EXPECT_EQ(singleText(ask(connection, simple("version")), "versionResponse", "pVersion"), "1.14");
}

TEST_F(BrokerWireTest, AnUnknownOperationFaultsAndTheConnectionGoesOn) {
  WireConnection connection(port_);
  const Fault fault = expectFault(ask(connection, simple("frobnicate", textChild("a", "x"))));
  EXPECT_EQ(fault.code, "SOAP-ENV:Client");
  EXPECT_EQ(
      fault.string,
      "Method 'kxbroker:frobnicate' not implemented: method name or namespace not recognized");
  EXPECT_FALSE(fault.detail.has_value());
  EXPECT_EQ(singleText(ask(connection, simple("version")), "versionResponse", "pVersion"), "1.14");
}

TEST_F(BrokerWireTest, AChildOfTheWrongTypeFaultsAndTheConnectionGoesOn) {
  WireConnection connection(port_);
  const Fault typed = expectFault(
      ask(connection,
          simple("stopTask", "<kxbroker:pTaskId xsi:type=\"xsd:string\">2</kxbroker:pTaskId>")));
  EXPECT_EQ(typed.code, "SOAP-ENV:Client");
  EXPECT_EQ(typed.string,
            "Validation constraint violation: type mismatch xsd:string in element "
            "'kxbroker:pTaskId'");

  const Fault notABool =
      expectFault(ask(connection, simple("exploreToGetModuleByName",
                                         textChild("kxbroker:pModuleName", "Calc") +
                                             textChild("kxbroker:pSearchUp", "maybe") +
                                             textChild("kxbroker:pSearchDown", "true") +
                                             textChild("kxbroker:pDontLookIntoBrokerName", "") +
                                             textChild("kxbroker:pLoadLib", "false"))));
  EXPECT_EQ(notABool.code, "SOAP-ENV:Client");
  EXPECT_EQ(notABool.string,
            "Validation constraint violation: invalid value in element 'kxbroker:pSearchUp'");

  const Fault missing = expectFault(ask(connection, simple("getModuleByName")));
  EXPECT_EQ(missing.code, "SOAP-ENV:Client");
  EXPECT_EQ(missing.string,
            "Validation constraint violation: occurrence constraint violation in element "
            "'kxbroker:getModuleByName'");

  EXPECT_EQ(singleText(ask(connection, simple("version")), "versionResponse", "pVersion"), "1.14");
}

// ================================================================ bad input

TEST_F(BrokerWireTest, GarbageBytesCloseTheirConnectionOnly) {
  {
    WireConnection garbage(port_);
    ASSERT_TRUE(garbage.connected());
    ASSERT_TRUE(
        garbage.sendAll(std::string("\x16\x03\x01\x02\x00 not HTTP\r\n\r\n\xff\xfe\x00", 22)));
    EXPECT_TRUE(garbage.waitForClose());
  }
  expectServing();
}

TEST_F(BrokerWireTest, ATruncatedHeaderThenCloseLeavesTheServerServing) {
  {
    WireConnection truncated(port_);
    ASSERT_TRUE(truncated.connected());
    ASSERT_TRUE(truncated.sendAll("POST / HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port_) +
                                  "\r\nContent-Len"));
  }
  expectServing();
}

TEST_F(BrokerWireTest, ABodyShorterThanItsLengthThenCloseLeavesTheServerServing) {
  {
    WireConnection shortBody(port_);
    ASSERT_TRUE(shortBody.connected());
    const std::string body = callVelmo("Calc", "add", list({KXValue(1), KXValue(2)}));
    ASSERT_TRUE(shortBody.sendAll(shortBody.postHeader(body.size() + 100) + body));
  }
  expectServing();
  // The call was never carried out: its body did not arrive in full.
  EXPECT_EQ(calc_->addCalls.load(), 1);
}

TEST_F(BrokerWireTest, MalformedXmlFaultsAndTheConnectionGoesOn) {
  WireConnection connection(port_);
  const Fault syntax = expectFault(ask(connection, "<SOAP-ENV:Envelope><unclosed>"));
  EXPECT_EQ(syntax.code, "SOAP-ENV:Client");
  EXPECT_EQ(syntax.string, "Validation constraint violation: syntax error");

  const Fault notSoap = expectFault(ask(connection, "<?xml version=\"1.0\"?><html><body/></html>"));
  EXPECT_EQ(notSoap.string, "Invalid SOAP message or SOAP version mismatch");

  // A value item that cannot be read is the child's invalid value.
  const Fault badValue = expectFault(
      ask(connection,
          envelope(operation(
              "callVelmo", textChild("kxbroker:mod", "Calc") + textChild("kxbroker:meth", "echo") +
                               "<kxbroker:p><item xsi:type=\"xsd:base64Binary\"/></kxbroker:p>"))));
  EXPECT_EQ(badValue.code, "SOAP-ENV:Client");
  EXPECT_EQ(badValue.string,
            "Validation constraint violation: invalid value in element 'kxbroker:p'");

  EXPECT_EQ(singleText(ask(connection, simple("version")), "versionResponse", "pVersion"), "1.14");
  expectServing();
}

TEST_F(BrokerWireTest, AnEmptyBodyFaultsAndTheServerGoesOn) {
  {
    WireConnection connection(port_);
    const Fault fault = expectFault(ask(connection, ""), false);
    EXPECT_EQ(fault.code, "SOAP-ENV:Client");
    EXPECT_FALSE(fault.string.empty());
  }
  expectServing();
}

TEST_F(BrokerWireTest, OneConnectionCarriesManyRequests) {
  WireConnection connection(port_);
  int answered = 0;
  for (int i = 0; i < 250; ++i) {
    if (!connection.post(callVelmo("Calc", "add", list({KXValue(i), KXValue(1)})))) break;
    const std::optional<HttpReply> reply = connection.read();
    if (!reply) break;
    if (reply->body.find("<item xsi:type=\"xsd:int\">" + std::to_string(i + 1) + "</item>") !=
        std::string::npos) {
      ++answered;
    }
  }
  EXPECT_EQ(answered, 250);
}

TEST_F(BrokerWireTest, ADeeplyNestedValueFaultsWithoutHarm) {
  WireConnection connection(port_);
  for (const int depth : {70, 5000, 200000}) {
    std::string value;
    for (int i = 0; i < depth; ++i) value += "<item xsi:type=\"Array\">";
    for (int i = 0; i < depth; ++i) value += "</item>";
    const Fault fault = expectFault(
        ask(connection,
            envelope(operation("callVelmo", textChild("kxbroker:mod", "Calc") +
                                                textChild("kxbroker:meth", "echo") +
                                                "<kxbroker:p>" + value + "</kxbroker:p>"))));
    EXPECT_EQ(fault.code, "SOAP-ENV:Client") << depth;
    EXPECT_FALSE(fault.string.empty()) << depth;
  }
  EXPECT_EQ(singleText(ask(connection, simple("version")), "versionResponse", "pVersion"), "1.14");
}

TEST_F(BrokerWireTest, AnArrayDeclaringAHugeLengthIsReadByItsElements) {
  WireConnection connection(port_);
  for (const std::string declared : {"2000000000", "-5", "99999999999999999999"}) {
    const std::string value = "<item xsi:type=\"Array\" SOAP-ENC:arrayType=\"xsd:int[" + declared +
                              "]\"><item>4</item><item>5</item></item>";
    const HttpReply reply =
        ask(connection,
            envelope(operation("callVelmo", textChild("kxbroker:mod", "Calc") +
                                                textChild("kxbroker:meth", "echo") +
                                                "<kxbroker:p xsi:type=\"xsd:anyType\"><item "
                                                "xsi:type=\"Array\">" +
                                                value + "</item></kxbroker:p>")));
    // The elements present are what the array holds, whatever length it declared.
    EXPECT_EQ(singleValue(reply, "callVelmoResponse"), list({KXValue(4), KXValue(5)}))
        << declared << "\n"
        << reply.body.substr(0, 1500);
  }
  expectServing();
}

TEST_F(BrokerWireTest, AClientThatAsksToCloseIsAnsweredThenClosed) {
  const std::string body = simple("getBrokerName");
  for (const std::string start :
       {"POST / HTTP/1.1\r\nConnection: close\r\n", "POST / HTTP/1.0\r\n"}) {
    WireConnection connection(port_);
    ASSERT_TRUE(connection.connected());
    ASSERT_TRUE(connection.sendAll(start + "Host: 127.0.0.1:" + std::to_string(port_) +
                                   "\r\nContent-Type: text/xml\r\nContent-Length: " +
                                   std::to_string(body.size()) + "\r\n\r\n" + body));
    const std::optional<HttpReply> reply = connection.read();
    ASSERT_TRUE(reply.has_value()) << start;
    EXPECT_EQ(singleText(*reply, "getBrokerNameResponse", "pBrokerName"), brokerName_);
    EXPECT_TRUE(connection.waitForClose()) << start;
  }
}

TEST_F(BrokerWireTest, AHugeAnnouncedLengthThenCloseLeavesTheServerServing) {
  {
    WireConnection huge(port_);
    ASSERT_TRUE(huge.connected());
    ASSERT_TRUE(huge.sendAll(huge.postHeader(100u * 1024u * 1024u) + "<SOAP-ENV:Envelope"));
  }
  expectServing();
}

TEST_F(BrokerWireTest, AMessageBeyondTheLimitIsRefusedAndItsConnectionClosed) {
  WireConnection huge(port_);
  ASSERT_TRUE(huge.connected());
  const std::size_t announced = 100u * 1024u * 1024u;
  ASSERT_TRUE(huge.sendAll(huge.postHeader(announced)));
  // Sent in pieces: the server may refuse (and close) before the end.
  const std::string piece(1024 * 1024, ' ');
  std::size_t sent = 0;
  while (sent < 65u * 1024u * 1024u && huge.sendAll(piece)) sent += piece.size();
  std::string received;
  EXPECT_TRUE(huge.waitForClose(&received));
  // What came back, if anything had time to, is the fault that names the limit.
  if (!received.empty()) {
    EXPECT_NE(received.find("Message too large: 67108865 bytes, at most 67108864 accepted"),
              std::string::npos)
        << received.substr(0, 2000);
  }
  expectServing();
}

TEST_F(BrokerWireTest, AnOpenHalfRequestDoesNotBlockOtherClients) {
  WireConnection stalled(port_);
  ASSERT_TRUE(stalled.connected());
  ASSERT_TRUE(
      stalled.sendAll("POST / HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port_) + "\r\n"));
  WireConnection announced(port_);
  ASSERT_TRUE(announced.connected());
  ASSERT_TRUE(announced.sendAll(announced.postHeader(100u * 1024u * 1024u) + "<SOAP-ENV:Envelope"));
  expectServing();
  expectServing();
}

// Every connection is served by a worker of the broker's pool, which starts with 10; a
// client that sends half a request holds its worker until the receive timeout. Clients that
// come later must still find a worker (the pool may grow to 200).
TEST_F(BrokerWireTest, MoreStalledClientsThanStartingWorkersDoNotBlockOthers) {
  std::vector<std::unique_ptr<WireConnection>> stalled;
  for (int i = 0; i < 60; ++i) {
    stalled.push_back(std::make_unique<WireConnection>(port_));
    ASSERT_TRUE(stalled.back()->connected());
    ASSERT_TRUE(stalled.back()->sendAll(
        "POST / HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port_) + "\r\n"));
  }
  expectServing();
  if (HasFailure()) return;
  // A posted call still finds a worker.
  singleValue(ask(callVelmo("callVelmo2", "Calc", "add", list({KXValue(1), KXValue(1)}))),
              "callVelmo2Response");
  EXPECT_TRUE(eventually([this] { return calc_->addCalls.load() == 2; }));
}

TEST_F(BrokerWireTest, ManyClientsAtOnceAreEachAnsweredCorrectly) {
  constexpr int kClients = 8;
  constexpr int kCalls = 25;
  std::atomic<int> right{0};
  std::vector<std::thread> clients;
  for (int c = 0; c < kClients; ++c) {
    clients.emplace_back([this, c, &right] {
      WireConnection connection(port_);
      for (int i = 0; i < kCalls; ++i) {
        if (!connection.post(callVelmo("Calc", "add", list({KXValue(c), KXValue(i * 1000)})))) {
          return;
        }
        const std::optional<HttpReply> reply = connection.read();
        if (!reply) return;
        const std::string expected =
            "<item xsi:type=\"xsd:int\">" + std::to_string(c + i * 1000) + "</item>";
        if (reply->status() == 200 && reply->body.find(expected) != std::string::npos) ++right;
      }
    });
  }
  for (auto& client : clients) client.join();
  EXPECT_EQ(right.load(), kClients * kCalls);
  EXPECT_EQ(calc_->addCalls.load(), kClients * kCalls);
}

TEST_F(BrokerWireTest, APeerThatLeavesDuringASlowCallDoesNotHurtTheServer) {
  {
    WireConnection leaving(port_);
    ASSERT_TRUE(leaving.connected());
    ASSERT_TRUE(leaving.post(callVelmo("Calc", "pause", list({KXValue(300)}))));
    leaving.abort();
  }
  {
    // The same with a call that ends only once the peer has certainly gone.
    WireConnection leaving(port_);
    ASSERT_TRUE(leaving.connected());
    ASSERT_TRUE(leaving.post(callVelmo("Calc", "hold", list({}))));
    ASSERT_TRUE(calc_->waitForHolds(1));
    leaving.close();
  }
  calc_->release.countDown();
  expectServing();
  // A slow call on a new connection is answered in full.
  EXPECT_EQ(singleValue(ask(callVelmo("Calc", "pause", list({KXValue(300)}))), "callVelmoResponse"),
            KXValue());
  expectServing();
}

// ================================================================ DIME

std::string dimeEcho(const KXValue& parameter) {
  return callVelmo("Calc", "echo", list({parameter}));
}

struct DimeAnswer {
  KXValue value;
  std::vector<wire::DimeRecord> attachments;
};

// Sends `parameter` to Calc.echo with `attachments`, and reads the answer: a DIME message
// unless `answerIsDime` is false.
std::optional<DimeAnswer> echoWithAttachments(int port, const KXValue& parameter,
                                              const std::vector<std::string>& attachments,
                                              bool answerIsDime = true) {
  WireConnection connection(port);
  if (!connection.post(wire::dimeMessage(dimeEcho(parameter), attachments), "application/dime")) {
    ADD_FAILURE() << "send failed";
    return std::nullopt;
  }
  const std::optional<HttpReply> reply = connection.read();
  if (!reply) {
    ADD_FAILURE() << "no answer";
    return std::nullopt;
  }
  EXPECT_EQ(reply->status(), 200) << reply->header;
  DimeAnswer answer;
  if (!answerIsDime) {
    // A result without Binary leaves goes back as a plain envelope.
    EXPECT_EQ(reply->field("Content-Type").value_or(""), "text/xml; charset=utf-8")
        << reply->header;
    SoapEnvelope soap(reply->body);
    EXPECT_EQ(soap.problem(), "");
    if (soap.body().size() == 1 && soap.body()[0]->FirstChildElement() != nullptr) {
      answer.value = wire::valueIn(*soap.body()[0]->FirstChildElement());
    }
    return answer;
  }
  EXPECT_EQ(reply->field("Content-Type").value_or(""), "application/dime") << reply->header;
  const auto records = wire::parseDime(reply->body);
  if (!records || records->empty()) {
    ADD_FAILURE() << "not a DIME message: " << reply->body.substr(0, 500);
    return std::nullopt;
  }
  SoapEnvelope soap((*records)[0].data);
  EXPECT_EQ(soap.problem(), "");
  EXPECT_EQ(soap.body().size(), 1u);
  if (soap.body().size() == 1) {
    EXPECT_TRUE(wire::isNamed(*soap.body()[0], wire::kBrokerUri, "callVelmoResponse"));
    const XMLElement* ret = soap.body()[0]->FirstChildElement();
    if (ret != nullptr) answer.value = wire::valueIn(*ret);
  }
  answer.attachments.assign(records->begin() + 1, records->end());
  for (const wire::DimeRecord& attachment : answer.attachments) {
    EXPECT_EQ(attachment.id, "image");
    EXPECT_EQ(attachment.type, "application/octet-stream");
  }
  return answer;
}

TEST_F(BrokerWireTest, BinaryLeavesTakeTheAttachmentsInWalkOrder) {
  const std::string first("first\0bytes", 11);
  const std::string second(70000, 'z');
  const KXValue parameter =
      list({binaryOf("placeholder"), KXValue(3), list({binaryOf("placeholder")})});
  const std::optional<DimeAnswer> answer = echoWithAttachments(port_, parameter, {first, second});
  ASSERT_TRUE(answer.has_value());
  ASSERT_EQ(answer->attachments.size(), 2u);
  EXPECT_EQ(answer->attachments[0].data, first);
  EXPECT_EQ(answer->attachments[1].data, second);
  expectServing();
}

TEST_F(BrokerWireTest, FewerAttachmentsThanBinaryLeavesLeaveTheRestWithTheirXmlBytes) {
  const KXValue parameter = list({binaryOf("a"), binaryOf("b"), binaryOf("c")});
  const std::optional<DimeAnswer> answer = echoWithAttachments(port_, parameter, {"only one"});
  ASSERT_TRUE(answer.has_value());
  ASSERT_EQ(answer->attachments.size(), 3u);
  EXPECT_EQ(answer->attachments[0].data, "only one");
  // The placeholder "MQ==" is the one byte "1".
  EXPECT_EQ(answer->attachments[1].data, "1");
  EXPECT_EQ(answer->attachments[2].data, "1");
  expectServing();
}

TEST_F(BrokerWireTest, MoreAttachmentsThanBinaryLeavesAreIgnored) {
  const KXValue parameter = list({KXValue(5), binaryOf("x")});
  const std::optional<DimeAnswer> answer =
      echoWithAttachments(port_, parameter, {"kept", "extra", "more extra"});
  ASSERT_TRUE(answer.has_value());
  ASSERT_EQ(answer->attachments.size(), 1u);
  EXPECT_EQ(answer->attachments[0].data, "kept");
  ASSERT_EQ(answer->value.getType(), 1);  // Array
  EXPECT_EQ(answer->value[0], KXValue(5));
  expectServing();
}

TEST_F(BrokerWireTest, AttachmentsWithoutBinaryLeavesAreIgnored) {
  const std::optional<DimeAnswer> answer =
      echoWithAttachments(port_, KXValue("plain"), {"unused"}, false);
  ASSERT_TRUE(answer.has_value());
  EXPECT_EQ(answer->value, KXValue("plain"));
  EXPECT_TRUE(answer->attachments.empty());
  expectServing();
}

TEST_F(BrokerWireTest, ATruncatedDimeMessageThenCloseLeavesTheServerServing) {
  {
    WireConnection truncated(port_);
    ASSERT_TRUE(truncated.connected());
    const std::string message =
        wire::dimeMessage(dimeEcho(list({binaryOf("x")})), {std::string(4096, 'd')});
    const std::string cut = message.substr(0, message.size() - 1000);
    ASSERT_TRUE(truncated.sendAll(truncated.postHeader(message.size(), "application/dime") + cut));
  }
  expectServing();
}

TEST_F(BrokerWireTest, ADimeRecordClaimingAHugeSizeThenCloseLeavesTheServerServing) {
  {
    WireConnection lying(port_);
    ASSERT_TRUE(lying.connected());
    std::string message = wire::dimeRecord(true, false, wire::kDimeAbsoluteUri, "",
                                           wire::kEnvelopeUri, dimeEcho(list({binaryOf("x")})));
    message += wire::dimeRecord(false, true, wire::kDimeMediaType, "image",
                                "application/octet-stream", "tiny", 0xFFFFFFF0u);
    ASSERT_TRUE(lying.sendAll(lying.postHeader(message.size(), "application/dime") + message));
  }
  expectServing();
}

// ================================================================ exit

TEST(BrokerWireExitTest, ExitIsOneWayAndShutsTheBrokerDown) {
  const std::string name = uniqueName("wireExit");
  std::shared_ptr<KXBroker> broker =
      KXBroker::createBroker(name, "127.0.0.1", 0, "", 0, KXBroker::kKeepAlive);
  ASSERT_NE(broker, nullptr);
  const int port = broker->getPort();
  // Another client, idle between requests, loses its connection with the broker.
  WireConnection idle(port);
  ASSERT_TRUE(idle.connected());
  ASSERT_TRUE(idle.post(simple("getBrokerName")));
  ASSERT_TRUE(idle.read().has_value());
  {
    WireConnection connection(port);
    ASSERT_TRUE(connection.connected());
    ASSERT_TRUE(connection.post(envelope(operation("exit"))));
    // No answer: the connection ends with the broker, without a reply.
    std::string received;
    EXPECT_TRUE(connection.waitForClose(&received));
    EXPECT_EQ(received, "");
  }
  EXPECT_TRUE(eventually([&broker] { return broker->isShuttingDown(); }));
  EXPECT_TRUE(eventually([&broker] {
    const auto brokers = KXBrokerManager::getInstance()->getBrokers();
    return std::find(brokers.begin(), brokers.end(), broker) == brokers.end();
  }));
  // The port no longer takes connections.
  EXPECT_TRUE(eventually([port] { return !WireConnection(port).connected(); }));
  EXPECT_TRUE(idle.waitForClose());
  broker->shutdown();
}

// ================================================================ plain HTTP on the port

// The broker's port with its file roots in a folder of the test's own.
class BrokerHttpTest : public BrokerWireTest {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "kxbrokerwire-XXXXXX").string();
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    folder_ = fs::canonical(pattern);
    if (const char* previous = ::getenv("APPDATA")) previousAppData_ = previous;
    ::setenv("APPDATA", folder_.c_str(), 1);
    BrokerWireTest::SetUp();
  }

  void TearDown() override {
    BrokerWireTest::TearDown();
    if (previousAppData_) {
      ::setenv("APPDATA", previousAppData_->c_str(), 1);
    } else {
      ::unsetenv("APPDATA");
    }
    std::error_code error;
    fs::remove_all(folder_, error);
  }

  HttpReply send(const std::string& method, const std::string& path,
                 const std::optional<std::string>& body = std::nullopt) {
    WireConnection connection(port_);
    EXPECT_TRUE(connection.connected());
    EXPECT_TRUE(connection.request(method, path, body));
    std::optional<HttpReply> reply = connection.read();
    EXPECT_TRUE(reply.has_value()) << method << " " << path;
    return reply.value_or(HttpReply{});
  }

  fs::path userFolder() const { return folder_ / "Korvane" / "velmo"; }

  fs::path folder_;
  std::optional<std::string> previousAppData_;
};

TEST_F(BrokerHttpTest, IndexXmlIsTheBrokerPage) {
  const HttpReply reply = send("GET", "/index.xml");
  EXPECT_EQ(reply.status(), 200) << reply.header;
  EXPECT_EQ(reply.field("Content-Type").value_or(""), "text/xml");
  EXPECT_NE(reply.body.find("<?xml-stylesheet type=\"text/xsl\" href=\"xsl/broker.xsl\"?>"),
            std::string::npos)
      << reply.body.substr(0, 500);
  tinyxml2::XMLDocument page;
  ASSERT_EQ(page.Parse(reply.body.data(), reply.body.size()), tinyxml2::XML_SUCCESS);
  const XMLElement* root = page.RootElement();
  ASSERT_NE(root, nullptr);
  EXPECT_STREQ(root->Name(), "page");
  const XMLElement* broker = root->FirstChildElement("broker");
  ASSERT_NE(broker, nullptr);
  const XMLElement* name = broker->FirstChildElement("name");
  ASSERT_NE(name, nullptr);
  EXPECT_EQ(wire::textOf(*name), brokerName_);
  const XMLElement* port = broker->FirstChildElement("port");
  ASSERT_NE(port, nullptr);
  EXPECT_EQ(wire::textOf(*port), std::to_string(port_));
  EXPECT_NE(reply.body.find("Calc"), std::string::npos);
}

TEST_F(BrokerHttpTest, TheBrokerStylesheetIsServedAsXml) {
  const std::optional<fs::path> file = tu::path::resolveDocPath("/xsl/broker.xsl");
  ASSERT_TRUE(file.has_value()) << "the SDK data folder holds no web/doc/xsl/broker.xsl";
  std::ifstream in(*file, std::ios::binary);
  const std::string expected((std::istreambuf_iterator<char>(in)),
                             std::istreambuf_iterator<char>());
  ASSERT_FALSE(expected.empty());

  const HttpReply reply = send("GET", "/xsl/broker.xsl");
  EXPECT_EQ(reply.status(), 200) << reply.header;
  EXPECT_EQ(reply.field("Content-Type").value_or(""), "text/xml");
  EXPECT_EQ(reply.body, expected);
}

TEST_F(BrokerHttpTest, PathsThatLeaveTheRootsAreNotFound) {
  fs::create_directories(userFolder());
  for (const std::string path : {"/User/../../etc/passwd", "/User/%2E%2E/%2E%2E/etc/passwd",
                                 "/User/%2e%2e/x", "//etc/passwd", "/tmp/../../../etc/passwd"}) {
    const HttpReply reply = send("GET", path);
    EXPECT_EQ(reply.status(), 404) << path << "\n" << reply.header;
    EXPECT_EQ(reply.body, "404 - Not Found") << path;
    EXPECT_EQ(reply.body.find("root:"), std::string::npos) << path;
  }
  const HttpReply put = send("PUT", "/User/%2E%2E/escaped.txt", std::string("out"));
  EXPECT_EQ(put.status(), 404) << put.header;
  EXPECT_FALSE(fs::exists(userFolder().parent_path() / "escaped.txt"));
  const HttpReply del = send("DELETE", "/User/../velmo");
  EXPECT_EQ(del.status(), 404) << del.header;
  EXPECT_TRUE(fs::exists(userFolder()));
  expectServing();
}

TEST_F(BrokerHttpTest, PutGetDeleteOfAUserFile) {
  const std::string path = "/tmp/wire/notes.txt";
  const std::string content = "line one\nline two\n";
  const HttpReply put = send("PUT", path, content);
  EXPECT_GE(put.status(), 200) << put.header;
  EXPECT_LT(put.status(), 300) << put.header;

  std::ifstream in(userFolder() / "tmp" / "wire" / "notes.txt", std::ios::binary);
  const std::string stored((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_EQ(stored, content);

  const HttpReply get = send("GET", path);
  EXPECT_EQ(get.status(), 200) << get.header;
  EXPECT_EQ(get.body, content);
  EXPECT_EQ(get.field("Server").value_or(""), "Velmo");
  EXPECT_EQ(get.field("Velmo-File-Type").value_or(""), "regular-file");
  EXPECT_EQ(get.field("Content-Type").value_or(""), "text/plain");

  const HttpReply del = send("DELETE", path);
  EXPECT_EQ(del.status(), 200) << del.header;
  EXPECT_EQ(del.body, "ok");
  EXPECT_FALSE(fs::exists(userFolder() / "tmp" / "wire" / "notes.txt"));
  EXPECT_EQ(send("GET", path).status(), 404);
}

TEST_F(BrokerHttpTest, PlainHttpAndSoapShareOneConnection) {
  WireConnection connection(port_);
  ASSERT_TRUE(connection.request("GET", "/index.xml"));
  std::optional<HttpReply> page = connection.read();
  ASSERT_TRUE(page.has_value());
  EXPECT_EQ(page->status(), 200);
  EXPECT_EQ(
      singleText(ask(connection, simple("getBrokerName")), "getBrokerNameResponse", "pBrokerName"),
      brokerName_);
  ASSERT_TRUE(connection.request("GET", "/User/../x"));
  std::optional<HttpReply> missing = connection.read();
  ASSERT_TRUE(missing.has_value());
  EXPECT_EQ(missing->status(), 404);
  EXPECT_EQ(singleText(ask(connection, simple("version")), "versionResponse", "pVersion"), "1.14");
}

}  // namespace
}  // namespace testing
}  // namespace KX
