// A live broker: every operation carried out on it, and its port spoken to by hand for what
// only the running server does (its pool, keep-alive without a limit, peers that leave, exit).
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "broker/kxbroker.h"
#include "broker/kxbrokermanager.h"
#include "module/tests/proxy_test_support.h"
#include "network/kxbrokerdispatch.h"
#include "network/tests/wire_test_support.h"

namespace KX {
namespace testing {
namespace {

using wire::callRequest;
using wire::envelope;
using wire::HttpReply;
using wire::operation;
using wire::WireConnection;
using Op = BrokerOperation;
using namespace std::string_literals;

std::string uniqueName(const std::string& stem) {
  static std::atomic<int> counter{0};
  return stem + std::to_string(++counter);
}

// A root broker with the Calculator "Calc" on 127.0.0.1, and a child broker with "Deep".
class BrokerWireTest : public ::testing::Test {
 protected:
  void SetUp() override {
    name_ = uniqueName("wireRoot");
    broker_ = KXBroker::createBroker(name_, "127.0.0.1", 0, "", 0, KXBroker::kKeepAlive);
    calc_ = createModule<Calculator>(broker_, "Calc");
    port_ = broker_->getPort();
    childName_ = uniqueName("wireChild");
    child_ = KXBroker::createBroker(childName_, "127.0.0.1", 0, "127.0.0.1", port_,
                                    KXBroker::kKeepAlive);
    createModule<Calculator>(child_, "Deep");
  }

  void TearDown() override {
    calc_->release.countDown();  // nothing stays blocked in Calc past the test
    child_->shutdown();
    broker_->shutdown();
  }

  BrokerResponse carryOut(Op op, std::vector<BrokerArg> args, const std::string& ip = "10.0.0.9") {
    BrokerRequest request{op, std::move(args)};
    return carryOutBrokerRequest(request, {"http://127.0.0.1:" + std::to_string(port_) + "/", ip});
  }

  // The answer as readable items, or "fault: <string>".
  std::vector<std::string> outcome(Op op, std::vector<BrokerArg> args) {
    const BrokerResponse response = carryOut(op, std::move(args));
    if (response.fault) return {"fault: " + response.fault->string};
    return describe(response.items);
  }

  std::string callAnswer(int port, const std::string& module, const std::string& method,
                         const KXValue& parameters) {
    WireConnection connection(port);
    connection.post(callRequest(module, method, parameters));
    return connection.read().value_or(HttpReply{}).body;
  }

  static std::string value(const KXValue& value) {
    std::string xml;
    writeKXValue(value, xml, false);
    return xml;
  }

  void expectServing() {
    EXPECT_NE(callAnswer(port_, "Calc", "add", args({20, 22})).find(value(42)), std::string::npos);
  }

  std::string name_;
  std::shared_ptr<KXBroker> broker_;
  std::shared_ptr<Calculator> calc_;
  int port_ = 0;
  std::string childName_;
  std::shared_ptr<KXBroker> child_;
};

TEST_F(BrokerWireTest, EveryOperationIsCarriedOutOnTheAddressedBroker) {
  const int pid = static_cast<int>(::getpid());
  const std::string at = "|1|127.0.0.1:" + std::to_string(port_) + "|" + std::to_string(pid);
  const std::string childAt =
      "|1|127.0.0.1:" + std::to_string(child_->getPort()) + "|" + std::to_string(pid);
  KXModuleInfo stranger;
  stranger.name = uniqueName("stranger");
  const std::string explore = "unable to explore to get a module by name for: '";
  const struct {
    Op op;
    std::vector<BrokerArg> args;
    std::vector<std::string> outcome;
  } cases[] = {
      {Op::callVelmo, {"Calc"s, "add"s, args({2, 3})}, {"value 3 5"s}},
      {Op::pCallVelmoN, {"Calc"s, 1, "add"s, ""s, ""s, ""s, args({1, 2})}, {}},
      {Op::getModuleByName, {"Calc"s}, {"Calc" + at + "|module"s}},
      {Op::getModuleByName, {"Nowhere"s}, {"fault: unable to get module by name"s}},
      {Op::exploreToGetModuleByName,
       {"Deep"s, false, true, ""s, false},
       {"Deep" + childAt + "|module"s}},
      {Op::exploreToGetModuleByName,
       {"Deep"s, false, true, childName_, false},
       {"fault: " + explore + "Deep'"s}},
      {Op::getBrokerList,
       {},
       {name_ + at + "|broker|keepAlive"s, childName_ + childAt + "|broker|keepAlive"s}},
      {Op::registerBroker, {stranger}, {"0"s}},
      {Op::unregisterBroker, {stranger}, {"0"s}},
      {Op::getBrokerInfo, {}, {name_ + at + "|broker|keepAlive"s}},
      {Op::getMethodList, {"Nowhere"s}, {"fault: unable to get methods list"s}},
      {Op::init, {"other"s, "10.0.0.1"s, 9559, ""s, 0, false}, {"fault: unable to init broker"s}},
      {Op::version, {}, {"'1.14'"s}},
      {Op::sendBackIP, {}, {"'10.0.0.9'"s}},
      {Op::getBrokerName, {}, {"'" + name_ + "'"s}},
      {Op::getInfo, {"Calc"s}, {"Calc" + at + "|module"s}},
      {Op::getInfo, {"Nope"s}, {"fault: unable to get info from module"s}},
      {Op::stopTask, {123456}, {"-1"s}},
      {Op::stopTaskName, {"pcall: Calc::hold"s}, {"0"s}},
      {Op::getDebugTaskList, {}, {"value 1 []"s}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(brokerOperationName(c.op));
    EXPECT_EQ(outcome(c.op, c.args), c.outcome);
  }
  const std::vector<std::string> global = outcome(Op::getGlobalModuleList, {});
  EXPECT_NE(std::find(global.begin(), global.end(), "Deep" + childAt + "|module"), global.end());
  const std::vector<std::string> methods = outcome(Op::getMethodList, {"Calc"s});
  EXPECT_EQ(std::vector<std::string>(methods.begin(), methods.begin() + 3),
            (std::vector<std::string>{"'exit'", "'version'", "'ping'"}));
  EXPECT_EQ(methods.back(), "'runUntilStopped'");
  EXPECT_EQ(carryOut(Op::sendBackIP, {}, "").fault.value_or(BrokerFault{}).string,
            "Unable to send Back IP");
  EXPECT_EQ(calc_->addCalls.load(), 1);  // pCallVelmoN carries nothing out
}

TEST_F(BrokerWireTest, CallsReachTheModuleAndItsErrorsComeBackAsTheyWere) {
  EXPECT_EQ(errorOf([&] {
              carryOut(Op::callVelmo, {"Calc"s, "fail"s, args({})});
            }),
            errorText("Calculator", "fail", "deliberate failure"));
  EXPECT_EQ(errorOf([&] {
              carryOut(Op::callVelmo, {"Nope"s, "add"s, args({})});
            }),
            errorText("KXBroker", "methodCall",
                      "Module not found.Could not execute method \"add\" of module \"Nope\" "
                      "because this module does not exist."));
  // A posted call answers its task's id (even), runs, can be listed and stopped.
  const KXValue id =
      std::get<KXValue>(carryOut(Op::callVelmo2, {"Calc"s, "runUntilStopped"s, args({})}).items[0]);
  ASSERT_EQ(calc_->waitForOwnTaskId(), static_cast<int>(id));
  EXPECT_EQ(static_cast<int>(id) % 2, 0);
  EXPECT_EQ(outcome(Op::getDebugTaskList, {}),
            (std::vector<std::string>{"value 1 [[" + std::to_string(static_cast<int>(id)) +
                                      ", \"Calc\", \"runUntilStopped\"]]"}));
  EXPECT_EQ(outcome(Op::stopTask, {static_cast<int>(id)}), std::vector<std::string>{"0"});
  EXPECT_TRUE(eventually([this] { return calc_->stoppedOnRequest.load(); }));
  // One-way: the shared proxy is dropped; pCallVelmo runs the call.
  const std::shared_ptr<KXProxy> before = broker_->getProxy("Calc");
  carryOut(Op::unregisterModuleReference, {"Calc"s});
  EXPECT_NE(broker_->getProxy("Calc"), before);
  carryOut(Op::pCallVelmo, {"Calc"s, "add"s, args({4, 5})});
  EXPECT_TRUE(eventually([this] { return calc_->addCalls.load() == 1; }));
}

// Both brokers live in this process: the port in the Host header decides which answers,
// whichever socket the request came through.
TEST_F(BrokerWireTest, TheHostHeaderNamesTheBrokerThatAnswers) {
  const std::string request = envelope(operation("getBrokerName"));
  for (const int port : {port_, child_->getPort()}) {
    WireConnection connection(port_);
    ASSERT_TRUE(connection.sendAll(
        "POST /path HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port) +
        "\r\nContent-Length: " + std::to_string(request.size()) + "\r\n\r\n" + request));
    EXPECT_NE(
        connection.read()
            .value_or(HttpReply{})
            .body.find(">" + (port == port_ ? name_ : childName_) + "</kxbroker:pBrokerName>"),
        std::string::npos);
  }
}

// A request limit per connection once closed a proxy's long-lived connection: the runtime's
// default of 100, then the keep-alive countdown.
TEST_F(BrokerWireTest, OneConnectionCarriesManyRequests) {
  constexpr int kClients = 4;
  constexpr int kCalls = 250;
  std::atomic<int> right{0};
  std::vector<std::thread> clients;
  for (int c = 0; c < kClients; ++c) {
    clients.emplace_back([this, c, &right] {
      WireConnection connection(port_);
      for (int i = 0; i < kCalls; ++i) {
        if (!connection.post(callRequest("Calc", "add", args({c, i * 1000})))) return;
        const std::optional<HttpReply> reply = connection.read();
        if (!reply) return;
        if (reply->body.find(value(c + i * 1000)) != std::string::npos) ++right;
      }
    });
  }
  for (auto& client : clients) client.join();
  EXPECT_EQ(right.load(), kClients * kCalls);
}

// A client that sends half a request holds a worker of the pool, which starts with 10, until
// the receive timeout; accepted connections once queued behind such clients.
TEST_F(BrokerWireTest, MoreStalledClientsThanStartingWorkersDoNotBlockOthers) {
  std::vector<std::unique_ptr<WireConnection>> stalled;
  for (int i = 0; i < 60; ++i) {
    stalled.push_back(std::make_unique<WireConnection>(port_));
    ASSERT_TRUE(stalled.back()->sendAll("POST / HTTP/1.1\r\nHost: 127.0.0.1\r\n"));
  }
  expectServing();
  // A posted call still finds a worker.
  WireConnection posted(port_);
  posted.post(callRequest("Calc", "add", args({1, 1}), "callVelmo2"));
  EXPECT_TRUE(posted.read().has_value());
  EXPECT_TRUE(eventually([this] { return calc_->addCalls.load() == 2; }));
}

// Writing the answer to a peer that had gone raised SIGPIPE, which ended the whole process.
TEST_F(BrokerWireTest, APeerThatLeavesDuringASlowCallDoesNotHurtTheServer) {
  {
    WireConnection leaving(port_);
    ASSERT_TRUE(leaving.post(callRequest("Calc", "hold", args({}))));
    ASSERT_TRUE(calc_->waitForHolds(1));
    leaving.abort();
  }
  calc_->release.countDown();
  expectServing();
  expectServing();
}

TEST_F(BrokerWireTest, ExitIsOneWayAndShutsTheBrokerDown) {
  // A client idle between requests loses its connection with the broker.
  WireConnection idle(port_);
  ASSERT_TRUE(idle.post(envelope(operation("version"))));
  ASSERT_TRUE(idle.read().has_value());
  {
    WireConnection connection(port_);
    ASSERT_TRUE(connection.post(envelope(operation("exit"))));
    std::string received;
    EXPECT_TRUE(connection.waitForClose(&received));
    EXPECT_EQ(received, "");  // no answer
  }
  EXPECT_TRUE(eventually([this] { return broker_->isShuttingDown(); }));
  EXPECT_TRUE(eventually([this] {
    const auto brokers = KXBrokerManager::getInstance()->getBrokers();
    return std::find(brokers.begin(), brokers.end(), broker_) == brokers.end();
  }));
  EXPECT_TRUE(eventually([this] { return !WireConnection(port_).connected(); }));
  EXPECT_TRUE(idle.waitForClose());
}

TEST_F(BrokerWireTest, PagesAndCallsShareOneConnection) {
  WireConnection connection(port_);
  ASSERT_TRUE(connection.request("GET", "/index.xml"));
  EXPECT_EQ(connection.read().value_or(HttpReply{}).status(), 200);
  ASSERT_TRUE(connection.post(callRequest("Calc", "add", args({1, 2}))));
  EXPECT_NE(connection.read().value_or(HttpReply{}).body.find(value(3)), std::string::npos);
  ASSERT_TRUE(connection.request("GET", "/User/../x"));
  EXPECT_EQ(connection.read().value_or(HttpReply{}).status(), 404);
}

}  // namespace
}  // namespace testing
}  // namespace KX
