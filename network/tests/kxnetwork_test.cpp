// Brokers of one process talking over their network services, as brokers of different
// processes do: every call below crosses a real TCP connection on 127.0.0.1.
#include "network/kxnetwork.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

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
#include "network/tests/wire_test_support.h"

namespace KX {
namespace testing {
namespace {

std::shared_ptr<KXBroker> rootBroker(const std::string& name) {
  return KXBroker::createBroker(name, "127.0.0.1", 0, "", 0, KXBroker::kKeepAlive);
}

std::shared_ptr<KXBroker> childBroker(const std::string& name, const KXBroker& parent) {
  return KXBroker::createBroker(name, "127.0.0.1", 0, "127.0.0.1", parent.getPort(),
                                KXBroker::kKeepAlive);
}

class NetworkTreeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = rootBroker("root");
    calc_ = createModule<Calculator>(root_, "Calc");
    child_ = childBroker("child", *root_);
  }
  void TearDown() override {
    child_->shutdown();
    root_->shutdown();
  }

  std::shared_ptr<KXBroker> root_;
  std::shared_ptr<Calculator> calc_;
  std::shared_ptr<KXBroker> child_;
};

TEST_F(NetworkTreeTest, AChildCallsAModuleOfItsParentAndGetsItsErrors) {
  KXProxy proxy(child_, "Calc");
  EXPECT_FALSE(proxy.isLocal());
  EXPECT_EQ(proxy.getBrokerName(), "root");
  EXPECT_EQ(proxy.call<int>("add", 2, 3), 5);
  EXPECT_EQ(proxy.call<std::string>("greet", "Bob"), "Hello Bob");
  EXPECT_EQ(proxy.genericCall("twice", KXValue(21)), KXValue(42));  // wrapped as the list
  const struct {
    std::function<void()> call;
    std::string error;
  } cases[] = {
      {[&] { proxy.call<void>("fail"); }, errorText("Calc", "fail", "deliberate failure")},
      {[&] { proxy.genericCall("fail", KXValue()); },
       errorText("Calc", "fail", "deliberate failure")},
      // The remote broker's own words, named after the module as well.
      {[&] { proxy.genericCall("nothing", KXValue()); },
       errorText("Calc", "nothing", "Function nothing does not exist in module Calc")},
      // Remotely the declared types are not known: the result is converted.
      {[&] { proxy.call<std::string>("add", 1, 2); },
       errorText("convertFromKXValue", "convertFromKXValue",
                 "Parameter type is Int instead of string")},
      {[&] { proxy.call<int>("pause", 1); },
       errorText("KXProxy", "call", "Waiting for the result of a void function")},
      {[&] { KXProxy nowhere(child_, "Nowhere"); },
       errorText("KXProxy", "constructor", "Module 'Nowhere' not found.")},
  };
  for (const auto& c : cases) EXPECT_EQ(errorOf(c.call), c.error);
  EXPECT_EQ(proxy.call<int>("add", 20, 22), 42);  // the connection carries on
  EXPECT_EQ(calc_->addCalls.load(), 3);
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

TEST_F(NetworkTreeTest, ParallelCallsAreWaitedForAndStoppedRemotely) {
  KXProxy proxy(child_, "Calc");
  const int id = proxy.pCall("runUntilStopped");
  EXPECT_EQ(id % 2, 0);
  EXPECT_EQ(calc_->waitForOwnTaskId(), id);
  EXPECT_TRUE(proxy.isRunning(id));
  EXPECT_TRUE(proxy.wait(id, 50));  // timed out: still running
  proxy.stop(id);
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
  std::vector<std::string> brokers;
  for (const auto& info : root_->getBrokerList()) brokers.push_back(info.name);
  EXPECT_EQ(brokers, (std::vector<std::string>{"root", "child"}));
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

TEST(NetworkSearchTest, AGrandchildFindsAModuleOnASiblingBranch) {
  auto root = rootBroker("searchRoot");
  auto a = childBroker("branchA", *root);
  auto b = childBroker("branchB", *root);
  auto grandchild = childBroker("leaf", *b);
  createModule<Calculator>(a, "OnA");
  {
    KXProxy proxy(grandchild, "OnA");
    EXPECT_EQ(proxy.getBrokerName(), "branchA");
    EXPECT_EQ(proxy.getModuleInfo().port, a->getPort());
    EXPECT_EQ(proxy.call<int>("add", 40, 2), 42);
  }
  // Searches never come back down the branch they came from, and never loop.
  EXPECT_EQ(errorOf([&] { KXProxy proxy(grandchild, "Nowhere"); }),
            errorText("KXProxy", "constructor", "Module 'Nowhere' not found."));
  for (auto& broker : {grandchild, b, a, root}) broker->shutdown();
}

TEST(NetworkAddressTest, AProxyFromAnAddressReachesTheModuleUntilItsBrokerIsGone) {
  auto root = rootBroker("addressed");
  createModule<Calculator>(root, "AddressedCalc");
  KXProxy proxy("AddressedCalc", "127.0.0.1", root->getPort());
  EXPECT_FALSE(proxy.isLocal());
  EXPECT_EQ(proxy.getBrokerName(), "addressed");
  EXPECT_EQ(proxy.call<std::string>("greet", "you"), "Hello you");
  root->shutdown();
  EXPECT_THAT(errorOf([&] { proxy.call<int>("add", 1, 1); }),
              ::testing::StartsWith("\tKXNetwork::callMethod\n\tError calling remote module "
                                    "method AddressedCalc::add: "));
}

TEST(NetworkServerTest, APortHeldElsewhereIsRefusedAndFreePortsAreFoundPastIt) {
  PortHolder holder;
  const std::string port = std::to_string(holder.port());
  EXPECT_EQ(errorOf([&] {
              KXBroker::createBroker("blocked", "127.0.0.1", holder.port(), "", 0,
                                     KXBroker::kKeepAlive);
            }),
            errorText("KXBroker", "runBroker",
                      "Port " + port + " is not free. Another broker is using this port."));
  auto root = rootBroker("ports");
  auto network = root->getNetwork();
  EXPECT_GE(root->getPort(), 54010);
  EXPECT_GT(network->findFreePort("127.0.0.1", root->getPort()), root->getPort());
  EXPECT_GT(network->findFreePort("", holder.port()), holder.port());
  root->shutdown();
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

TEST(BrokerProxyTest, ForwardsToTheRemoteBrokerAndRefusesRegistration) {
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
  // Once the local broker is gone, nothing is sent.
  local->shutdown();
  local.reset();
  std::vector<KXModuleInfo> modules;
  EXPECT_EQ(errorOf([&] { proxy->getModuleList(modules); }),
            errorText("ThreadedRemoteExecution", "getParentBroker", "module does not exist"));
  remote->shutdown();
}

TEST(BrokerProxyTest, AnUnreachableBrokerIsReportedWithItsEndpoint) {
  auto local = rootBroker("lonely");
  KXBrokerProxy proxy(local, "127.0.0.1", 1);
  KXBrokerInfo info;
  EXPECT_EQ(errorOf([&] { proxy.getBrokerInfo(info); }),
            errorText("KXNetwork", "Connect",
                      "Connection failed. Could not contact endpoint: http://127.0.0.1:1 "
                      "Please verify that Velmo is running at this address."));
  KXModuleInfo found;
  EXPECT_EQ(proxy.exploreToGetModuleByName("X", true, true, "", false, found), -1);
  local->shutdown();
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

TEST(NetworkModuleTest, PublishesItsMethodsInOrderAndAnswersThemGenerically) {
  auto root = rootBroker("published");
  std::shared_ptr<KXModuleCore> network = root->getModuleCore("KXNetwork");
  std::string methods;
  for (const std::string& method : network->getMethodList()) methods += method + " ";
  EXPECT_THAT(methods,
              ::testing::EndsWith(
                  "setEndPoint registerBroker newServer configureClient listenRequest heartBeat "
                  "runHeartBeat runHeartBeatCheck registerClient callMethod pCallMethod "
                  "pCallMethodNoID getModuleList unregisterBroker getBrokerInfo getInfo "
                  "createClient getModuleByName getBrokerList getRemoteMethodList "
                  "createConnection disconnectBroker reconnectBroker remotePCallManager "
                  "unregisterModuleReference getGlobalModuleList findFreePort getLocalIP "
                  "destroyConnection waitSynchronizer "));
  EXPECT_EQ(network->getMethodHelp("heartBeat")[2][0], KXValue("brokerName"));

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
