#include "broker/kxbrokerpages.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "broker/tests/broker_test_support.h"
#include "module/kxtaskmonitor.h"

namespace KX {
namespace testing {
namespace {

using ::testing::HasSubstr;

constexpr char kText[] = "HTTP/1.0 200\r\nContent-Type: text/plain\r\n\r\n";
constexpr char kJson[] = "HTTP/1.0 200\r\nContent-Type: application/json\r\n\r\n";
// The broker page of the fixture's broker, with Abacus and Calc listed (internal names are
// left out).
const std::string kIndex =
    "HTTP/1.0 200\r\nContent-Type: text/xml\r\n\r\n"
    "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
    "<?xml-stylesheet type=\"text/xsl\" href=\"xsl/broker.xsl\"?>\n<page>\n"
    "<broker>\n<name>pages</name>\n<ip>127.0.0.1</ip>\n<port>9620</port>\n"
    "<href>http://127.0.0.1:9620/index.xml</href>\n</broker>\n"
    "<parentBroker>\n</parentBroker>\n<childBrokers>\n</childBrokers>\n<modules>\n"
    "<module>\n<name>Abacus</name>\n<href>Abacus.xml</href>\n</module>\n"
    "<module>\n<name>Calc</name>\n<href>Calc.xml</href>\n</module>\n</modules>\n"
    "<tasks>\n</tasks>\n<content>\n"
    "<module>\n<name>Abacus</name>\n<href>AbacusContent.html</href>\n</module>\n"
    "<module>\n<name>Calc</name>\n<href>CalcContent.html</href>\n</module>\n</content>\n"
    "</page>\n";

class BrokerPagesTest : public ::testing::Test {
 protected:
  void TearDown() override { broker_->shutdown(); }
  std::shared_ptr<KXBroker> broker_ =
      KXBroker::createBroker("pages", "127.0.0.1", 9620, "", 0, 0, "", false);
  std::shared_ptr<Calculator> calc_ = createModule<Calculator>(broker_, "Calc");
  std::shared_ptr<Calculator> abacus_ = createModule<Calculator>(broker_, "Abacus");
  std::shared_ptr<Calculator> secret_ = createModule<Calculator>(broker_, "_secret");
};

TEST_F(BrokerPagesTest, EveryPathGetsItsPage) {
  createModule<Calculator>(broker_, "KXNetworkPart");
  for (const char* path : {"/index.xml", "/", "/no/such/file.js", "/Ghost.xml",
                           "/GhostContent.html", "/Nobody.html"}) {
    EXPECT_EQ(broker_->getPage(path), kIndex) << path;
  }
  const std::string kShell =
      "HTTP/1.0 200\r\nContent-Type: text/html; charset=utf-8\r\n\r\n<!DOCTYPE html>";
  const std::pair<const char*, std::string> kStarts[] = {
      {"/favicon.ico", "HTTP/1.0 200\r\n\r\n"},
      {"/CalcContent.html",
       "HTTP/1.0 200\r\nContent-Type: text/html\r\n\r\n<html><body></body></html>"},
      {"/index.html", kShell},
      {"/Calc.html", kShell}};
  for (const auto& [path, start] : kStarts) {
    EXPECT_EQ(broker_->getPage(path).substr(0, start.size()), start) << path;
  }
}

// Only the calls of listed modules show, with their method's description and signature.
TEST_F(BrokerPagesTest, BrokerPageListsRunningCallsAndTheParent) {
  broker_->post("Calc", "block", arrayOf());
  broker_->post("_secret", "block", arrayOf());
  ASSERT_TRUE(calc_->started.wait());
  ASSERT_TRUE(secret_->started.wait());
  std::string expected = kIndex;
  expected.insert(expected.find("<tasks>\n") + 8,
                  "<task>\n<moduleName>Calc</moduleName>\n<name>block</name>\n"
                  "<description>Blocks until released</description>\n"
                  "<method>block(Void)</method>\n</task>\n");
  EXPECT_EQ(broker_->getPage("/index.xml"), expected);
  calc_->release.countDown();
  secret_->release.countDown();
  auto child = KXBroker::createBroker("child", "127.0.0.1", 9621, "10.0.0.7", 9559, 0, "", false);
  EXPECT_THAT(child->getPage("/"),
              HasSubstr("<parentBroker>\n<ip>10.0.0.7</ip>\n<port>9559</port>\n"
                        "<href>http://10.0.0.7:9559/index.xml</href>\n</parentBroker>\n"));
  child->shutdown();
}

TEST_F(BrokerPagesTest, ModulePagesDescribeTheMethodsAndEscapeUserTexts) {
  const std::string page = broker_->getPage("/Calc.xml");
  for (const char* part :
       {"module.xsl\"?>\n<page>\n<pagetitle>Velmo Module Page : Calc</pagetitle>\n<module>\n"
        "<name>Calc</name>\n<description>Adds &lt;&amp;&gt; things</description>\n"
        "<version>1.14</version>\n<parentbroker>pages</parentbroker>\n<methods>\n",
        "<method>\n<name>add</name>\n<description>Adds two numbers</description>\n"
        "<parameters>\n<parameter>\n<name>a</name>\n<description>first term</description>\n"
        "<type>int</type>\n</parameter>\n<parameter>\n<name>b</name>\n"
        "<description>second term</description>\n<type>int</type>\n</parameter>\n"
        "</parameters>\n<return>\n<name>sum</name>\n<description>a + b</description>\n"
        "<type>int</type>\n</return>\n"
        "<examples>\n<example>/?evalCalc.add([0, 0])</example>\n</examples>\n</method>\n",
        "<kxname>Calc</kxname>\n<kxhref>Calc.xml</kxhref>\n<kxprevious>Abacus.xml</kxprevious>\n"
        "<kxnext></kxnext>\n<kxlink>index.xml</kxlink>\n<kxpath>pages/Calc</kxpath>\n"
        "<kxcontext>CalcContent.html</kxcontext>\n</page>\n"}) {
    EXPECT_THAT(page, HasSubstr(part));
  }
  createModule<Calculator>(broker_, "Odd&Mod");
  EXPECT_THAT(broker_->getPage("/Odd&Mod.xml"),
              HasSubstr("<pagetitle>Velmo Module Page : Odd&amp;Mod</pagetitle>"));
}

// The answer is text, or JSON for "?json"; the call's result, or why there is none.
TEST_F(BrokerPagesTest, UrlCallsAnswerTheResultOrWhyThereIsNone) {
  const std::string kCannot = "Unable to evaluate url call";
  const std::pair<const char*, std::string> kCalls[] = {
      {"/?evalCalc.add([2, 3])", "5"},
      {"/?evalCalc.add(%5B20,%2022%5D)", "42"},  // as browsers send it
      {"/?eval=Calc.add([1,%201])", "2"},        // as people type it
      {"/?evalCalc.add([1, 2])junk", "3"},       // the arguments end at the last ')'
      {"/?evalCalc.ping()", "true"},
      {"/?evalCalc.note([\"hello\"])", "No return value (void method)"},
      {"/?jsonCalc.add([2,%203])", "{\"result\":5}"},
      {"/?json=Calc.add", "{\"error\":\"" + kCannot + ": No open bracket\"}"},
      {"/?eval", kCannot},
      {"/?evalCalcadd([1, 2])", kCannot + ": No module name"},
      {"/?eval.add([1, 2])", kCannot + ": No module name"},
      {"/?evalCalc.add", kCannot + ": No open bracket"},
      {"/?evalCalc.add([1, 2]", kCannot + ": No closing bracket"},
      {"/?evalCalc.([1, 2])", kCannot + ": No method name"},
      {"/?evalCalc.add(1, 2)", kCannot},
      {"/?evalCalc.add(garbage)", kCannot},
      {"/?evalGhost.add([1, 2])",
       "\tKXBroker::methodCall\n\tModule not found.Could not execute method \"add\" of module "
       "\"Ghost\" because this module does not exist."}};
  for (const auto& [path, body] : kCalls) {
    EXPECT_EQ(broker_->getPage(path), (path[2] == 'j' ? kJson : kText) + body) << path;
  }
  EXPECT_EQ(calc_->notes, 1);
}

}  // namespace
}  // namespace testing
}  // namespace KX
