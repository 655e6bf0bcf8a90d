#include "broker/kxbrokerpages.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "broker/kxbroker.h"
#include "broker/tests/broker_test_support.h"
#include "module/kxtaskmonitor.h"

namespace KX {
namespace testing {
namespace {

using detail::decodeUrl;
using detail::escapeXml;

constexpr char kXmlHeader[] = "HTTP/1.0 200\r\nContent-Type: text/xml\r\n\r\n";
constexpr char kTextHeader[] = "HTTP/1.0 200\r\nContent-Type: text/plain\r\n\r\n";
constexpr char kBrokerPageStart[] =
    "HTTP/1.0 200\r\nContent-Type: text/xml\r\n\r\n"
    "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
    "<?xml-stylesheet type=\"text/xsl\" href=\"xsl/broker.xsl\"?>\n"
    "<page>\n";
constexpr char kModulePageStart[] =
    "HTTP/1.0 200\r\nContent-Type: text/xml\r\n\r\n"
    "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
    "<?xml-stylesheet type=\"text/xsl\" href=\"xsl/module.xsl\"?>\n"
    "<page>\n";

bool startsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

class BrokerPagesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    broker_ = KXBroker::createBroker("pages", "127.0.0.1", 9620, "", 0, 0, "", false);
    calc_ = createModule<Calculator>(broker_, "Calc");
  }
  void TearDown() override { broker_->shutdown(); }

  std::string eval(const std::string& call) { return broker_->getPage("/?eval" + call); }

  std::shared_ptr<KXBroker> broker_;
  std::shared_ptr<Calculator> calc_;
};

TEST_F(BrokerPagesTest, FaviconIsAnEmptyAnswer) {
  EXPECT_EQ(broker_->getPage("/favicon.ico"), "HTTP/1.0 200\r\n\r\n");
}

TEST_F(BrokerPagesTest, IndexListsTheBrokerAndItsUserModules) {
  createModule<Calculator>(broker_, "_secret");
  createModule<Calculator>(broker_, "KXNetworkPart");
  createModule<Calculator>(broker_, "Abacus");
  const std::string page = broker_->getPage("/index.xml");

  EXPECT_TRUE(startsWith(page, kBrokerPageStart)) << page;
  EXPECT_TRUE(contains(page,
                       "<broker>\n<name>pages</name>\n<ip>127.0.0.1</ip>\n<port>9620</port>\n"
                       "<href>http://127.0.0.1:9620/index.xml</href>\n</broker>\n"))
      << page;
  EXPECT_TRUE(contains(page, "<parentBroker>\n</parentBroker>\n")) << page;
  EXPECT_TRUE(contains(page, "<childBrokers>\n</childBrokers>\n")) << page;
  EXPECT_TRUE(contains(page,
                       "<modules>\n"
                       "<module>\n<name>Abacus</name>\n<href>Abacus.xml</href>\n</module>\n"
                       "<module>\n<name>Calc</name>\n<href>Calc.xml</href>\n</module>\n"
                       "</modules>\n"))
      << page;
  EXPECT_TRUE(contains(page, "<tasks>\n</tasks>\n")) << page;
  EXPECT_TRUE(contains(page, "<href>CalcContent.html</href>")) << page;
  EXPECT_FALSE(contains(page, "_secret")) << page;
  EXPECT_FALSE(contains(page, "KXNetworkPart")) << page;
  EXPECT_TRUE(contains(page, "</content>\n</page>\n")) << page;
  // The short page does not list methods.
  EXPECT_FALSE(contains(page, "<methods>")) << page;
}

TEST_F(BrokerPagesTest, IndexShowsTheParentBroker) {
  auto child = KXBroker::createBroker("child", "127.0.0.1", 9621, "10.0.0.7", 9559, 0, "", false);
  const std::string page = child->getPage("/index.xml");
  EXPECT_TRUE(contains(page,
                       "<parentBroker>\n<ip>10.0.0.7</ip>\n<port>9559</port>\n"
                       "<href>http://10.0.0.7:9559/index.xml</href>\n</parentBroker>\n"))
      << page;
  child->shutdown();
}

TEST_F(BrokerPagesTest, IndexListsRunningParallelCalls) {
  auto blocker = createModule<Blocker>(broker_, "Blocker");
  auto hidden = createModule<Blocker>(broker_, "_hiddenBlocker");
  KXValue none;
  none.arraySetSize(0);
  const int id = broker_->post("Blocker", "block", none);
  const int hiddenId = broker_->post("_hiddenBlocker", "block", none);
  ASSERT_TRUE(blocker->started().wait());
  ASSERT_TRUE(hidden->started().wait());

  const std::string page = broker_->getPage("/index.xml");
  EXPECT_TRUE(contains(page,
                       "<tasks>\n<task>\n<moduleName>Blocker</moduleName>\n<name>block</name>\n"
                       "<description>Blocks until released</description>\n"
                       "<method>block(Void)</method>\n</task>\n</tasks>\n"))
      << page;

  blocker->release();
  hidden->release();
  EXPECT_FALSE(broker_->getTaskMonitor()->wait(id, 0));
  EXPECT_FALSE(broker_->getTaskMonitor()->wait(hiddenId, 0));
  EXPECT_TRUE(contains(broker_->getPage("/index.xml"), "<tasks>\n</tasks>\n"));
}

TEST_F(BrokerPagesTest, RootAndUnknownPathsGetTheBrokerPage) {
  const std::string index = broker_->getPage("/index.xml");
  EXPECT_EQ(broker_->getPage("/"), index);
  EXPECT_EQ(broker_->getPage("/no/such/file.js"), index);
  EXPECT_EQ(broker_->getPage("/Ghost.xml"), index);
  EXPECT_EQ(broker_->getPage("/GhostContent.html"), index);
}

TEST_F(BrokerPagesTest, FullPageListsEveryModulesMethods) {
  const std::string page = broker_->getPage("/full");
  EXPECT_TRUE(startsWith(page, kBrokerPageStart)) << page;
  EXPECT_TRUE(contains(page, "<module>\n<name>Calc</name>\n<href>Calc.xml</href>\n<methods>\n"))
      << page;
  EXPECT_TRUE(
      contains(page, "<method>\n<name>add</name>\n<description>Adds two numbers</description>"))
      << page;
}

TEST_F(BrokerPagesTest, ModulePageDescribesTheModule) {
  createModule<Calculator>(broker_, "Abacus");
  createModule<Calculator>(broker_, "Dial");
  const std::string page = broker_->getPage("/Calc.xml");

  EXPECT_TRUE(startsWith(page, kModulePageStart)) << page;
  EXPECT_TRUE(contains(page, "<pagetitle>Velmo Module Page : Calc</pagetitle>\n")) << page;
  EXPECT_TRUE(contains(page,
                       "<module>\n<name>Calc</name>\n"
                       "<description>Adds &lt;&amp;&gt; things</description>\n"
                       "<version>1.14</version>\n<parentbroker>pages</parentbroker>\n"
                       "<methods>\n"))
      << page;
  EXPECT_TRUE(contains(page,
                       "<method>\n<name>add</name>\n<description>Adds two numbers</description>\n"
                       "<parameters>\n"
                       "<parameter>\n<name>a</name>\n<description>first term</description>\n"
                       "<type>int</type>\n</parameter>\n"
                       "<parameter>\n<name>b</name>\n<description>second term</description>\n"
                       "<type>int</type>\n</parameter>\n"
                       "</parameters>\n"
                       "<return>\n<name>sum</name>\n<description>a + b</description>\n"
                       "<type>int</type>\n</return>\n"
                       "<examples>\n<example>/?evalCalc.add([0, 0])</example>\n</examples>\n"
                       "</method>\n"))
      << page;
  EXPECT_TRUE(contains(page,
                       "<kxname>Calc</kxname>\n<kxhref>Calc.xml</kxhref>\n"
                       "<kxprevious>Abacus.xml</kxprevious>\n<kxnext>Dial.xml</kxnext>\n"
                       "<kxlink>index.xml</kxlink>\n<kxpath>pages/Calc</kxpath>\n"
                       "<kxcontext>CalcContent.html</kxcontext>\n</page>\n"))
      << page;
  // Built-in methods are described too; a void method has an empty parameter list.
  EXPECT_TRUE(contains(page, "<name>ping</name>")) << page;
}

TEST_F(BrokerPagesTest, ModulePageEscapesUserTexts) {
  class Odd : public KXModule {
   public:
    Odd(const std::shared_ptr<KXBroker>& broker, const std::string& name) : KXModule(broker, name) {
      setModuleDescription("a \"quoted\" <tag> & 'apostrophe'");
    }
  };
  createModule<Odd>(broker_, "Odd&Mod");
  const std::string page = broker_->getPage("/Odd&Mod.xml");
  EXPECT_TRUE(contains(page, "<pagetitle>Velmo Module Page : Odd&amp;Mod</pagetitle>")) << page;
  EXPECT_TRUE(contains(page,
                       "<description>a &quot;quoted&quot; &lt;tag&gt; &amp; "
                       "&apos;apostrophe&apos;</description>"))
      << page;
  EXPECT_TRUE(contains(broker_->getPage("/index.xml"), "<name>Odd&amp;Mod</name>"));
}

TEST_F(BrokerPagesTest, ContentPageIsTheModulesOwn) {
  EXPECT_EQ(broker_->getPage("/CalcContent.html"),
            "HTTP/1.0 200\r\nContent-Type: text/html\r\n\r\n<html><body></body></html>");
}

TEST_F(BrokerPagesTest, PagesForAPersonAreHtmlShellsOfTheSdk) {
  const std::string html = "HTTP/1.0 200\r\nContent-Type: text/html; charset=utf-8\r\n\r\n";
  for (const char* path : {"/index.html", "/full.html", "/Calc.html"}) {
    const std::string page = broker_->getPage(path);
    EXPECT_EQ(page.rfind(html + "<!DOCTYPE html>", 0), 0u) << path << ":\n" << page;
  }
  // Not a module: the broker's XML page, as for every path that names nothing.
  EXPECT_EQ(broker_->getPage("/Nobody.html"), broker_->getPage("/index.xml"));
}

TEST_F(BrokerPagesTest, UrlCallWithArguments) {
  EXPECT_EQ(eval("Calc.add([2, 3])"), std::string(kTextHeader) + "5");
  // Browsers send brackets, quotes and blanks encoded.
  EXPECT_EQ(broker_->getPage("/?evalCalc.add(%5B20,%2022%5D)"), std::string(kTextHeader) + "42");
  // People type the query as name=value.
  EXPECT_EQ(broker_->getPage("/?eval=Calc.add([1,%201])"), std::string(kTextHeader) + "2");
  // The same calls for scripts: JSON, with the error as text.
  const std::string json = "HTTP/1.0 200\r\nContent-Type: application/json\r\n\r\n";
  EXPECT_EQ(broker_->getPage("/?jsonCalc.add([2,%203])"), json + "{\"result\":5}");
  EXPECT_EQ(broker_->getPage("/?json=Calc.add"),
            json + "{\"error\":\"Unable to evaluate url call: No open bracket\"}");
  EXPECT_EQ(eval("Calc.getMethodHelp([\"ping\"])"),
            std::string(kTextHeader) +
                "[\"ping\", \"Just a ping. Always returns true\", , \"alwaysTrue\", "
                "\"returns true\"]");
}

TEST_F(BrokerPagesTest, UrlCallOfAVoidMethod) {
  EXPECT_EQ(eval("Calc.note([\"hello\"])"),
            std::string(kTextHeader) + "No return value (void method)");
  EXPECT_EQ(calc_->notes(), (std::vector<std::string>{"hello"}));
}

TEST_F(BrokerPagesTest, UrlCallWithoutArguments) {
  EXPECT_EQ(eval("Calc.ping()"), std::string(kTextHeader) + "true");
}

TEST_F(BrokerPagesTest, MalformedUrlCalls) {
  const std::string header = kTextHeader;
  EXPECT_EQ(eval(""), header + "Unable to evaluate url call");
  EXPECT_EQ(eval("Calcadd([1, 2])"), header + "Unable to evaluate url call: No module name");
  EXPECT_EQ(eval(".add([1, 2])"), header + "Unable to evaluate url call: No module name");
  EXPECT_EQ(eval("Calc.add"), header + "Unable to evaluate url call: No open bracket");
  EXPECT_EQ(eval("Calc.add([1, 2]"), header + "Unable to evaluate url call: No closing bracket");
  EXPECT_EQ(eval("Calc.([1, 2])"), header + "Unable to evaluate url call: No method name");
  EXPECT_EQ(eval("Calc.add(1, 2)"), header + "Unable to evaluate url call");
  EXPECT_EQ(eval("Calc.add(garbage)"), header + "Unable to evaluate url call");
  // The closing bracket is the last one: text after it is ignored.
  EXPECT_EQ(eval("Calc.add([1, 2])junk"), header + "3");
}

TEST_F(BrokerPagesTest, UrlCallFailuresAnswerTheErrorText) {
  EXPECT_EQ(eval("Ghost.add([1, 2])"),
            std::string(kTextHeader) +
                "\tKXBroker::methodCall\n\tModule not found.Could not execute method \"add\" of "
                "module \"Ghost\" because this module does not exist.");
  EXPECT_EQ(eval("Calc.fail([\"bad\"])"),
            std::string(kTextHeader) +
                "\tKXBroker::methodCall\n\tmethodCall: method: fail, params: [\"bad\"]\n"
                "\tCalc::fail\n\tbad");
}

TEST(BrokerPageText, EscapeXmlWritesEveryMarkupCharacterAsAnEntity) {
  EXPECT_EQ(escapeXml("<&>\"'"), "&lt;&amp;&gt;&quot;&apos;");
  EXPECT_EQ(escapeXml("plain text"), "plain text");
  EXPECT_EQ(escapeXml(""), "");
  EXPECT_EQ(escapeXml("&amp;"), "&amp;amp;");
}

TEST(BrokerPageText, DecodeUrlDecodesPercentEscapesOnly) {
  EXPECT_EQ(decodeUrl("%5B1,%202%5D"), "[1, 2]");
  EXPECT_EQ(decodeUrl("%22a%22"), "\"a\"");
  EXPECT_EQ(decodeUrl("%4a%4A"), "JJ");
  EXPECT_EQ(decodeUrl("a+b"), "a+b");
  EXPECT_EQ(decodeUrl("100%"), "100%");
  EXPECT_EQ(decodeUrl("%4"), "%4");
  EXPECT_EQ(decodeUrl("%zz%2"), "%zz%2");
  EXPECT_EQ(decodeUrl("%25"), "%");
}

}  // namespace
}  // namespace testing
}  // namespace KX
