// Live brokers of one process: the operations only a broker carries out, its port spoken to
// by hand for what only the running server does, and brokers talking over their network
// services as brokers of different processes do, across real TCP connections on 127.0.0.1.
#include "network/detail/kxnetwork.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "broker/kxbroker.h"
#include "broker/kxbrokermanager.h"
#include "broker/kxbrokerproxy.h"
#include "log/tests/logtestsupport.h"
#include "memory/kxmemory.h"
#include "memory/kxstandardmodules.h"
#include "module/tests/proxy_test_support.h"
#include "network/detail/kxbrokerdispatch.h"
#include "network/tests/wire_test_support.h"

namespace KX {
namespace testing {
namespace {

using wire::callRequest;
using wire::envelope;
using wire::HttpReply;
using wire::operation;
using wire::WireConnection;
using namespace std::string_literals;

std::shared_ptr<KXBroker> rootBroker(const std::string& name) {
  return KXBroker::createBroker(name, "127.0.0.1", 0, "", 0, KXBroker::kKeepAlive);
}

std::shared_ptr<KXBroker> childBroker(const std::string& name, const KXBroker& parent) {
  return KXBroker::createBroker(name, "127.0.0.1", 0, "127.0.0.1", parent.getPort(),
                                KXBroker::kKeepAlive);
}

// A root broker with the Calculator "Calc", and a child broker under it.
class NetworkTreeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = rootBroker("root");
    calc_ = createModule<Calculator>(root_, "Calc");
    port_ = root_->getPort();
    child_ = childBroker("child", *root_);
  }
  void TearDown() override {
    calc_->release.countDown();  // nothing stays blocked in Calc past the test
    child_->shutdown();
    root_->shutdown();
  }

  // The answer as readable items, or "fault: <description>".
  std::vector<std::string> outcome(BrokerRequest request, const std::string& ip = "10.0.0.9") {
    try {
      return describeItems(
          carryOutBrokerRequest(request, {"http://127.0.0.1:" + std::to_string(port_) + "/", ip}));
    } catch (const KXError& error) {
      return {"fault: " + error.description()};
    }
  }

  void expectServing() {
    WireConnection connection(port_);
    connection.post(callRequest("Calc", "add", args({20, 22})));
    EXPECT_EQ(connection.read().value_or(HttpReply{}).body, wire::callAnswer(42));
  }

  std::shared_ptr<KXBroker> root_;
  std::shared_ptr<Calculator> calc_;
  int port_ = 0;
  std::shared_ptr<KXBroker> child_;
};
using BrokerWireTest = NetworkTreeTest;

TEST_F(NetworkTreeTest, AChildCallsAModuleOfItsParentAndGetsItsErrors) {
  KXProxy proxy(child_, "Calc");
  EXPECT_FALSE(proxy.isLocal());
  EXPECT_EQ(proxy.genericCall("twice", KXValue(21)), KXValue(42));  // wrapped as the list
  const struct {
    std::function<void()> call;
    std::string error;
  } cases[] = {
      {[&] { proxy.call<void>("fail"); }, errorText("Calc", "fail", "deliberate failure")},
      // The remote broker's own words, named after the module as well.
      {[&] { proxy.genericCall("nothing", KXValue()); },
       errorText("Calc", "nothing", "Function nothing does not exist in module Calc")},
      // Remotely the declared types are not known: the result is converted.
      {[&] { proxy.call<std::string>("add", 1, 2); },
       errorText("convertFromKXValue", "convertFromKXValue",
                 "Parameter type is Int instead of string")},
      {[&] { proxy.call<int>("pause", 1); },
       errorText("KXProxy", "call", "Waiting for the result of a void function")},
  };
  for (const auto& c : cases) EXPECT_EQ(errorOf(c.call), c.error);
  EXPECT_EQ(proxy.call<int>("add", 20, 22), 42);  // the connection carries on
  EXPECT_EQ(calc_->addCalls.load(), 2);
}

// Callers tell network trouble from the errors of the module they call by its type.
TEST_F(NetworkTreeTest, ABrokerThatIsGoneRaisesANetworkErrorAModuleItsOwnError) {
  const auto errorKind = [](const std::function<void()>& call) -> std::string {
    try {
      call();
    } catch (const KXNetworkError&) {
      return "KXNetworkError";
    } catch (const KXError&) {
      return "KXError";
    }
    return "none";
  };
  KXProxy proxy(child_, "Calc");
  KXBrokerProxy parent(child_, "127.0.0.1", port_);
  EXPECT_EQ(errorKind([&] { proxy.call<void>("fail"); }), "KXError");
  root_->shutdown();
  KXBrokerInfo info;
  const struct {
    const char* what;
    std::function<void()> call;
  } gone[] = {
      {"a call", [&] { proxy.call<int>("add", 1, 2); }},
      {"a question", [&] { parent.getBrokerInfo(info); }},
  };
  for (const auto& c : gone) EXPECT_EQ(errorKind(c.call), "KXNetworkError") << c.what;
}

// An empty Binary once went as an empty attachment that memcpy copied into a null block.
TEST_F(NetworkTreeTest, BinaryValuesTravelBothWaysNestedInArrays) {
  KXProxy proxy(child_, "Calc");
  std::string big(300000, '\0');
  for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>(i * 7);
  const KXValue value = args({binaryOf("first"), args({KXValue("x"), binaryOf(big)}), binaryOf(""),
                              binaryOf(std::string("\0\1\2", 3))});
  EXPECT_EQ(proxy.genericCall("echo", args({value})), value);
}

// A long array goes as one message each way and comes back whole.
TEST_F(NetworkTreeTest, AHundredThousandElementArrayTravelsBothWays) {
  KXProxy proxy(child_, "Calc");
  KXValue array;
  array.arraySetSize(100000);
  for (int i = 0; i < array.getSize(); ++i) {
    const KXValue kinds[] = {KXValue(i), KXValue(i * 0.5f), KXValue("s" + std::to_string(i)),
                             args({KXValue(i % 2 == 0)})};
    array[i] = kinds[i % 4];
  }
  const KXValue back = proxy.genericCall("echo", args({array}));
  ASSERT_EQ(back.getSize(), 100000);
  EXPECT_TRUE(back == array);
}

TEST_F(NetworkTreeTest, ParallelCallsAreWaitedForAndStoppedRemotely) {
  KXProxy proxy(child_, "Calc");
  const int id = proxy.pCall("runUntilStopped");
  EXPECT_EQ(id % 2, 0);
  EXPECT_EQ(calc_->waitForOwnTaskId(), id);
  EXPECT_TRUE(proxy.isRunning(id));
  EXPECT_EQ(outcome(protocol::GetDebugTaskList{}),
            std::vector<std::string>{"value 1 [[" + std::to_string(id) +
                                     ", \"Calc\", \"runUntilStopped\"]]"});
  EXPECT_TRUE(proxy.wait(id, 50));  // timed out: still running
  EXPECT_EQ(outcome(protocol::StopTask{id}), std::vector<std::string>{"0"});  // the broker stops it
  EXPECT_FALSE(proxy.wait(id, 0));  // ends once it sees the request
  EXPECT_TRUE(calc_->stoppedOnRequest.load());
  EXPECT_FALSE(proxy.isRunning(id));
  EXPECT_FALSE(proxy.wait(proxy.genericPCall("add", args({1, 2})), 0));
  EXPECT_TRUE(eventually([&] { return calc_->addCalls.load() == 1; }));
}

TEST_F(NetworkTreeTest, ThreadsShareAProxyAndEachGetTheirOwnAnswers) {
  KXProxy proxy(child_, "Calc");
  std::vector<std::thread> threads;
  std::atomic<int> wrong{0};
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 50; ++i) wrong += proxy.call<int>("add", t, i) != t + i;
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(wrong.load(), 0);
}

TEST_F(NetworkTreeTest, TheParentKnowsItsChildItsModulesAndItsBeat) {
  auto childModule = createModule<Calculator>(child_, "ChildCalc");
  const std::vector<KXBrokerInfo> children = root_->getChildBrokers();
  ASSERT_EQ(children.size(), 1u);
  EXPECT_EQ(describe(children[0]), describe(child_->getBrokerInfo()));
  KXProxy proxy(root_, "ChildCalc");  // found downwards
  EXPECT_EQ(proxy.getBrokerName(), "child");
  EXPECT_EQ(proxy.call<int>("twice", 4), 8);

  auto network = std::dynamic_pointer_cast<KXNetwork>(child_->getNetwork());
  EXPECT_TRUE(eventually([&] { return network->isHeartBeatConnected(); }));
  EXPECT_EQ(network->getMaxHeartBeatRoundTrip(), 0);  // far less than a second on one machine
  tu::log::testing::LogCapture capture;
  root_->checkHeartBeat();
  EXPECT_TRUE(capture.withFunction("KX::KXBrokerImpl::checkHeartBeat").empty());
  EXPECT_FALSE(std::dynamic_pointer_cast<KXNetwork>(root_->getNetwork())->isHeartBeatConnected());
  // The root's checker runs while it has a child: a second one, asked for through the
  // published method, returns at once instead of checking alongside it.
  auto check = std::async(std::launch::async, [this] {
    KXProxy(root_, "KXNetwork").genericCall("runHeartBeatCheck", KXValue());
  });
  const bool returned = check.wait_for(std::chrono::seconds(20)) == std::future_status::ready;
  if (!returned) child_->shutdown();  // ends a second checker, which stops without children
  EXPECT_TRUE(returned);
}

// A parent that dropped a child tells it at its next beat; the child registers again,
// with its modules, and beats on. A second registration leaves the one sender running.
TEST_F(NetworkTreeTest, AChildDroppedByItsParentRegistersAgainAndBeatsOn) {
  auto childModule = createModule<Calculator>(child_, "ChildCalc");
  auto network = std::dynamic_pointer_cast<KXNetwork>(child_->getNetwork());
  network->registerClient("127.0.0.1", port_, true);
  tu::log::testing::LogCapture capture;
  root_->unregisterBroker("child");
  ASSERT_TRUE(root_->getChildBrokers().empty());
  EXPECT_TRUE(eventually([&] { return root_->getChildBrokers().size() == 1; }));
  EXPECT_EQ(KXProxy(root_, "ChildCalc").call<int>("twice", 4), 8);
  std::vector<std::string> said;
  for (const auto& record : capture.withFunction("KX::KXNetwork::runHeartBeat")) {
    said.push_back(record.message);
  }
  const std::vector<std::string> expected = {
      "heartbeat to the parent failed: Broker \"child\" is not a child of this broker\n",
      "registered again with the parent at http://127.0.0.1:" + std::to_string(port_) + "\n"};
  EXPECT_EQ(said, expected);
  EXPECT_TRUE(eventually([&] { return network->isHeartBeatConnected(); }));
}

// Reconnecting returns once the first beat reached the parent.
TEST_F(NetworkTreeTest, ABrokerReconnectedAfterDisconnectingHasBeatenWhenItReturns) {
  auto network = std::dynamic_pointer_cast<KXNetwork>(child_->getNetwork());
  network->disconnectBroker();
  EXPECT_TRUE(root_->getChildBrokers().empty());
  EXPECT_FALSE(network->isHeartBeatConnected());
  network->reconnectBroker("127.0.0.1", port_, true);
  EXPECT_TRUE(network->isHeartBeatConnected());
  EXPECT_EQ(root_->getChildBrokers().size(), 1u);
}

TEST_F(NetworkTreeTest, AChildThatShutsDownLeavesItsParent) {
  addStandardModules(root_);
  auto memory = std::dynamic_pointer_cast<KXMemory>(root_->getModuleCore("KXMemory"));
  auto second = childBroker("second", *root_);
  EXPECT_EQ(memory->getData("ClientConnected"), KXValue("127.0.0.1"));
  EXPECT_EQ(root_->getChildBrokers().size(), 2u);
  second->shutdown();
  EXPECT_EQ(root_->getChildBrokers().size(), 1u);
  EXPECT_EQ(memory->getData("ClientDisconnected"), KXValue("second"));
}

TEST_F(BrokerWireTest, EveryOperationIsCarriedOutOnTheAddressedBroker) {
  const auto deep = createModule<Calculator>(child_, "Deep");
  const int pid = static_cast<int>(::getpid());
  const std::string at = "|1|127.0.0.1:" + std::to_string(port_) + "|" + std::to_string(pid);
  const std::string childAt =
      "|1|127.0.0.1:" + std::to_string(child_->getPort()) + "|" + std::to_string(pid);
  const std::string explore = "unable to explore to get a module by name for: '";
  using namespace protocol;
  const struct {
    BrokerRequest request;
    std::vector<std::string> outcome;
  } cases[] = {
      {GetModuleByName{{"Nowhere"}}, {"fault: unable to get module by name"s}},
      {ExploreToGetModuleByName{"Deep", false, true, "child", false},
       {"fault: " + explore + "Deep'"s}},
      {GetBrokerList{},
       {"root" + at + "|broker|keepAlive"s, "child" + childAt + "|broker|keepAlive"s}},
      {GetMethodList{{"Nowhere"}}, {"fault: unable to get methods list"s}},
      {Init{"other", "10.0.0.1", 9559, "", 0, false}, {"fault: unable to init broker"s}},
      {GetInfo{{"Calc"}}, {"Calc" + at + "|module"s}},
      {GetInfo{{"Nope"}}, {"fault: unable to get info from module"s}},
      {StopTask{123456}, {"-1"s}},
      {SendBackIP{}, {"'10.0.0.9'"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(
        std::visit([](const auto& op) { return std::decay_t<decltype(op)>::kName; }, c.request));
    EXPECT_EQ(outcome(c.request), c.outcome);
  }
  const std::vector<std::string> global = outcome(GetGlobalModuleList{});
  EXPECT_NE(std::find(global.begin(), global.end(), "Deep" + childAt + "|module"), global.end());
  EXPECT_EQ(outcome(SendBackIP{}, ""), std::vector<std::string>{"fault: Unable to send Back IP"});
  const std::shared_ptr<KXProxy> before = root_->getProxy("Calc");
  outcome(UnregisterModuleReference{"Calc"});  // drops the shared proxy
  EXPECT_NE(root_->getProxy("Calc"), before);
  outcome(PCallVelmoN{"Calc", 1, "add", "", "", "", args({1, 2})});  // accepted, not run
  outcome(PCallVelmo{{"Calc", "add", args({4, 5})}});
  EXPECT_TRUE(eventually([this] { return calc_->addCalls.load() == 1; }));  // not pCallVelmoN's
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
            .body.find(">" + (port == port_ ? "root"s : "child"s) + "</kxbroker:pBrokerName>"),
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
        if (reply->body.find(wire::callAnswer(c + i * 1000)) != std::string::npos) ++right;
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
  EXPECT_TRUE(eventually([this] { return root_->isShuttingDown(); }));
  EXPECT_TRUE(eventually([this] { return !WireConnection(port_).connected(); }));
  EXPECT_TRUE(idle.waitForClose());
}

TEST(NetworkQueueTest, TheTwentySecondWaitingRemoteCallIsDropped) {
  auto root = rootBroker("queueing");
  auto network = std::dynamic_pointer_cast<KXNetwork>(root->getNetwork());
  PortHolder silent;  // takes connections, never answers: a call sent there waits
  const int connection = network->createConnection(
      KXModuleInfo(), "http://127.0.0.1:" + std::to_string(silent.port()), 0);
  // The first call is taken by the sender, which then waits for an answer that never
  // comes; 21 more wait in the queue.
  network->pCallMethodNoID(connection, "first", args({}));
  ASSERT_TRUE(eventually([&] { return network->getQueuedRemoteCallCount() == 0; }));
  ::testing::internal::CaptureStdout();
  for (int i = 0; i < 22; ++i) EXPECT_EQ(network->pCallMethodNoID(connection, "q", args({i})), 0);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "max remote connection reach q call ignored\n");
  EXPECT_EQ(network->getQueuedRemoteCallCount(), 21u);
  root->shutdown();  // interrupts the waiting call
}

TEST(BrokerProxyTest, ForwardsToTheRemoteBrokerOrReportsItsEndpoint) {
  auto remote = rootBroker("remoteOne");
  createModule<Calculator>(remote, "RemoteCalc");
  auto local = rootBroker("localOne");
  auto proxy = std::make_shared<KXBrokerProxy>(local, "127.0.0.1", remote->getPort());
  KXBrokerInfo info;
  EXPECT_EQ(proxy->getBrokerInfo(info), 0);
  EXPECT_EQ(describe(info), describe(remote->getBrokerInfo()));
  std::vector<std::string> methods;
  EXPECT_EQ(proxy->getMethodList("RemoteCalc", methods), 0);
  EXPECT_EQ(methods, remote->getModuleCore("RemoteCalc")->getMethodList());
  EXPECT_EQ(proxy->sendBackIP(), "127.0.0.1");
  EXPECT_EQ(errorOf([&] { proxy->registerBroker(); }),
            errorText("KXBrokerProxy", "registerBroker", "unimplemented"));
  KXBrokerProxy unreachable(local, "127.0.0.1", 1);
  EXPECT_EQ(errorOf([&] { unreachable.getBrokerInfo(info); }),
            errorText("KXNetwork", "Connect",
                      "Connection failed. Could not contact endpoint: http://127.0.0.1:1 "
                      "Please verify that Velmo is running at this address."));
  KXModuleInfo found;
  EXPECT_EQ(unreachable.exploreToGetModuleByName("X", true, true, "", false, found), -1);
  // Once the local broker is gone, nothing is sent.
  local->shutdown();
  local.reset();
  std::vector<KXModuleInfo> modules;
  EXPECT_EQ(errorOf([&] { proxy->getModuleList(modules); }),
            errorText("ThreadedRemoteExecution", "getParentBroker", "module does not exist"));
  remote->shutdown();
}

// A broker whose network could not start once stayed half-made in the broker manager.
TEST(NetworkParentTest, AnUnreachableParentIsATimeout) {
  EXPECT_EQ(errorOf([&] {
              KXBroker::createBroker("orphan", "127.0.0.1", 0, "127.0.0.1", 1,
                                     KXBroker::kKeepAlive);
            }),
            errorText("KXBroker", "Connect to parent", "Timeout"));
  for (const auto& broker : KXBrokerManager::getInstance()->getBrokers()) {
    EXPECT_NE(broker->getName(), "orphan");
  }
}

TEST(NetworkModuleTest, AnswersItsPublishedMethodsGenerically) {
  auto root = rootBroker("published");
  // Through the published forms: a connection to the broker itself, its record, its lists.
  KXProxy proxy(root, "KXNetwork");
  const KXValue connection = proxy.genericCall(
      "createClient", args({"http://127.0.0.1:" + std::to_string(root->getPort())}));
  EXPECT_EQ(
      proxy.genericCall("getBrokerInfo", args({connection})),
      args({"published", 1, "127.0.0.1", root->getPort(), static_cast<int>(getpid()), true, true}));
  const KXValue modules = proxy.genericCall("getModuleList", args({connection}));
  EXPECT_EQ(modules, args({args({"KXNetwork", 1, "127.0.0.1", root->getPort(),
                                 static_cast<int>(getpid()), false, false})}));
  proxy.genericCall("destroyConnection", args({connection}));
  EXPECT_EQ(errorOf([&] { proxy.genericCall("getBrokerInfo", args({connection})); }),
            errorText("KXNetwork", "getBrokerInfo", "connection not initialized"));
  EXPECT_EQ(errorOf([&] { root->getNetwork()->pCallMethodNoID(12345, "m", KXValue()); }),
            errorText("KXNetwork", "pCallMethodNoID", "connection not initialized"));
  root->shutdown();
}

}  // namespace
}  // namespace testing
}  // namespace KX
