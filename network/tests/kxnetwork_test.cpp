// Brokers of one process talking over their network services, as brokers of different
// processes do: every call below crosses a real TCP connection on 127.0.0.1.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "broker/kxbroker.h"
#include "broker/kxbrokermanager.h"
#include "broker/kxbrokerproxy.h"
#include "broker/kxnetworkservice.h"
#include "log/tests/logtestsupport.h"
#include "memory/kxmemory.h"
#include "memory/kxstandardmodules.h"
#include "module/kxproxy.h"
#include "module/tests/proxy_test_support.h"
#include "network/kxnetwork.h"
#include "network/tests/socket_test_support.h"

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
    if (child_) child_->shutdown();
    if (root_) root_->shutdown();
  }

  std::shared_ptr<KXBroker> root_;
  std::shared_ptr<Calculator> calc_;
  std::shared_ptr<KXBroker> child_;
};

TEST_F(NetworkTreeTest, AChildCallsAModuleOfItsParent) {
  KXProxy proxy(child_, "Calc");
  EXPECT_FALSE(proxy.isLocal());
  EXPECT_EQ(proxy.getBrokerName(), "root");
  EXPECT_EQ(proxy.call<int>("add", 2, 3), 5);
  EXPECT_EQ(proxy.call<std::string>("greet", "Bob"), "Hello Bob");
  const KXValue echoed = proxy.genericCall("echo", args({KXValue("key42")}));
  EXPECT_EQ(echoed, KXValue("key42"));
  // A single value is wrapped as the argument list.
  EXPECT_EQ(proxy.genericCall("twice", KXValue(21)), KXValue(42));
  EXPECT_EQ(calc_->addCalls.load(), 1);
}

TEST_F(NetworkTreeTest, TypedCallsAreCheckedAgainstTheResult) {
  KXProxy proxy(child_, "Calc");
  // Remotely the declared types are not known: the result is converted, and a result of
  // another type fails with the conversion's own words.
  EXPECT_EQ(errorOf([&] { proxy.call<std::string>("add", 1, 2); }),
            errorText("convertFromKXValue", "convertFromKXValue",
                      "Parameter type is Int instead of string"));
  // A void method gives no value: a typed call that needs one says so.
  EXPECT_EQ(errorOf([&] { proxy.call<int>("pause", 1); }),
            errorText("KXProxy", "call", "Waiting for the result of a void function"));
}

TEST_F(NetworkTreeTest, ARemoteModulesErrorArrivesWithItsNameAndText) {
  KXProxy proxy(child_, "Calc");
  EXPECT_EQ(errorOf([&] { proxy.call<void>("fail"); }),
            errorText("Calc", "fail", "deliberate failure"));
  EXPECT_EQ(errorOf([&] { proxy.genericCall("fail", KXValue()); }),
            errorText("Calc", "fail", "deliberate failure"));
  // A method that does not exist there: the remote broker's own words, named after the
  // module as well.
  EXPECT_EQ(errorOf([&] { proxy.genericCall("nothing", KXValue()); }),
            errorText("Calc", "nothing", "Function nothing does not exist in module Calc"));
  // The connection carries on after errors.
  EXPECT_EQ(proxy.call<int>("add", 20, 22), 42);
}

TEST_F(NetworkTreeTest, AnUnknownModuleIsNotFoundAnywhere) {
  EXPECT_EQ(errorOf([&] { KXProxy proxy(child_, "Nowhere"); }),
            errorText("KXProxy", "constructor", "Module 'Nowhere' not found."));
}

KXValue binaryOf(const std::string& bytes) {
  KXValue value;
  value.setBinary(bytes.data(), bytes.size());
  return value;
}

TEST_F(NetworkTreeTest, BinaryValuesTravelBothWaysNestedInArrays) {
  KXProxy proxy(child_, "Calc");
  std::string big(300000, '\0');
  for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>(i * 7);
  const KXValue value = args({binaryOf("first"), args({KXValue("x"), binaryOf(big)}), binaryOf(""),
                              binaryOf(std::string("\0\1\2", 3))});
  const KXValue echoed = proxy.genericCall("echo", args({value}));
  ASSERT_EQ(echoed.getType(), KXValue::TypeArray);
  EXPECT_EQ(echoed, value);
  EXPECT_EQ(echoed[1][1].getSize(), static_cast<int>(big.size()));
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

  const int generic = proxy.genericPCall("add", args({KXValue(1), KXValue(2)}));
  EXPECT_FALSE(proxy.wait(generic, 0));
  EXPECT_TRUE(eventually([&] { return calc_->addCalls.load() == 1; }));
}

TEST_F(NetworkTreeTest, ThreadsShareAProxyAndEachGetTheirOwnAnswers) {
  KXProxy proxy(child_, "Calc");
  std::vector<std::thread> threads;
  std::atomic<int> wrong{0};
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 50; ++i) {
        if (proxy.call<int>("add", t, i) != t + i) ++wrong;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(wrong.load(), 0);
}

TEST_F(NetworkTreeTest, TheParentListsItsChildAndItsModules) {
  auto childModule = createModule<Calculator>(child_, "ChildCalc");
  const std::vector<KXBrokerInfo> children = root_->getChildBrokers();
  ASSERT_EQ(children.size(), 1u);
  EXPECT_EQ(children[0].name, "child");
  EXPECT_EQ(children[0].ip, "127.0.0.1");
  EXPECT_EQ(children[0].port, child_->getPort());
  EXPECT_TRUE(root_->isModulePresent("ChildCalc"));
  bool listed = false;
  for (const auto& info : root_->getGlobalModuleList()) {
    if (info.name == "ChildCalc") {
      listed = true;
      EXPECT_EQ(info.port, child_->getPort());
    }
  }
  EXPECT_TRUE(listed);
  std::vector<std::string> brokers;
  for (const auto& info : root_->getBrokerList()) brokers.push_back(info.name);
  EXPECT_EQ(brokers, (std::vector<std::string>{"root", "child"}));
  // The parent finds the child's module downwards and calls it.
  KXProxy proxy(root_, "ChildCalc");
  EXPECT_FALSE(proxy.isLocal());
  EXPECT_EQ(proxy.getBrokerName(), "child");
  EXPECT_EQ(proxy.call<int>("twice", 4), 8);
}

TEST_F(NetworkTreeTest, TheChildBeatsAndThePartnersSeeIt) {
  auto network = std::dynamic_pointer_cast<KXNetwork>(child_->getNetwork());
  ASSERT_NE(network, nullptr);
  EXPECT_TRUE(eventually([&] { return network->isHeartBeatConnected(); }));
  // On one machine a beat takes far less than a second.
  EXPECT_EQ(network->getMaxHeartBeatRoundTrip(), 0);
  // The parent has the child's beat: a check now reports nothing.
  tu::log::testing::LogCapture capture;
  root_->checkHeartBeat();
  EXPECT_TRUE(capture.withFunction("KX::KXBrokerImpl::checkHeartBeat").empty());
  EXPECT_EQ(root_->getChildBrokers().size(), 1u);
  // A root has no parent to beat to.
  auto rootNetwork = std::dynamic_pointer_cast<KXNetwork>(root_->getNetwork());
  EXPECT_FALSE(rootNetwork->isHeartBeatConnected());
}

TEST_F(NetworkTreeTest, AChildThatShutsDownLeavesItsParent) {
  addStandardModules(root_);
  auto memory = std::dynamic_pointer_cast<KXMemory>(root_->getModuleCore("KXMemory"));
  ASSERT_NE(memory, nullptr);
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
  grandchild->shutdown();
  b->shutdown();
  a->shutdown();
  root->shutdown();
}

TEST(NetworkAddressTest, AProxyFromAnAddressReachesTheModuleThroughThatBroker) {
  auto root = rootBroker("addressed");
  createModule<Calculator>(root, "AddressedCalc");
  {
    KXProxy proxy("AddressedCalc", "127.0.0.1", root->getPort());
    EXPECT_FALSE(proxy.isLocal());
    EXPECT_EQ(proxy.getBrokerName(), "addressed");
    EXPECT_EQ(proxy.call<std::string>("greet", "you"), "Hello you");
  }
  root->shutdown();
}

TEST(NetworkAddressTest, CallsToABrokerThatIsGoneFailWithTheTransportsWords) {
  auto root = rootBroker("vanishing");
  createModule<Calculator>(root, "GoneCalc");
  KXProxy proxy("GoneCalc", "127.0.0.1", root->getPort());
  EXPECT_EQ(proxy.call<int>("add", 1, 1), 2);
  root->shutdown();
  const std::string error = errorOf([&] { proxy.call<int>("add", 1, 1); });
  EXPECT_EQ(error.rfind("\tKXNetwork::callMethod\n\tError calling remote module method "
                        "GoneCalc::add: ",
                        0),
            0u)
      << error;
}

TEST(NetworkServerTest, APortHeldElsewhereIsRefusedBeforeAnyBind) {
  PortHolder holder;
  EXPECT_EQ(errorOf([&] {
              KXBroker::createBroker("blocked", "127.0.0.1", holder.port(), "", 0,
                                     KXBroker::kKeepAlive);
            }),
            errorText("KXBroker", "runBroker",
                      "Port " + std::to_string(holder.port()) +
                          " is not free. Another broker is using this port."));
}

TEST(NetworkServerTest, FreePortsAreFoundFromTheGivenOne) {
  auto root = rootBroker("ports");
  auto network = root->getNetwork();
  ASSERT_NE(network, nullptr);
  EXPECT_GE(root->getPort(), 54010);
  EXPECT_EQ(root->getBrokerInfo().port, root->getPort());
  // Its own port is taken: the search moves past it.
  EXPECT_GT(network->findFreePort("127.0.0.1", root->getPort()), root->getPort());
  PortHolder holder;
  EXPECT_GT(network->findFreePort("", holder.port()), holder.port());
  root->shutdown();
}

TEST(NetworkQueueTest, TheTwentySecondWaitingRemoteCallIsDropped) {
  auto root = rootBroker("queueing");
  auto network = std::dynamic_pointer_cast<KXNetwork>(root->getNetwork());
  ASSERT_NE(network, nullptr);
  PortHolder silent;  // takes connections, never answers: a call sent there waits
  KXModuleInfo module;
  module.name = "Anything";
  const int connection =
      network->createConnection(module, "http://127.0.0.1:" + std::to_string(silent.port()), 0);
  // The first call is taken by the sender, which then waits for an answer that never
  // comes; 21 more wait in the queue.
  network->pCallMethodNoID(connection, "first", args({}));
  ASSERT_TRUE(eventually([&] { return network->getQueuedRemoteCallCount() == 0; }));
  ::testing::internal::CaptureStdout();
  for (int i = 0; i < 21; ++i) {
    EXPECT_EQ(network->pCallMethodNoID(connection, "queued", args({KXValue(i)})), 0);
  }
  EXPECT_EQ(network->getQueuedRemoteCallCount(), 21u);
  EXPECT_EQ(network->pCallMethodNoID(connection, "extra", args({})), 0);
  const std::string printed = ::testing::internal::GetCapturedStdout();
  EXPECT_EQ(printed, "max remote connection reach extra call ignored\n");
  EXPECT_EQ(network->getQueuedRemoteCallCount(), 21u);
  // Shutting down interrupts the waiting call.
  root->shutdown();
}

TEST(NetworkConnectionTest, AnUnknownConnectionIsNotInitialized) {
  auto root = rootBroker("unconnected");
  auto network = root->getNetwork();
  EXPECT_EQ(errorOf([&] { network->callMethod(12345, "m", KXValue()); }),
            errorText("KXNetwork", "callMethod", "connection not initialized"));
  EXPECT_EQ(errorOf([&] { network->pCallMethodNoID(12345, "m", KXValue()); }),
            errorText("KXNetwork", "pCallMethodNoID", "connection not initialized"));
  EXPECT_EQ(errorOf([&] { network->getBrokerInfo(12345); }),
            errorText("KXNetwork", "getBrokerInfo", "connection not initialized"));
  root->shutdown();
}

TEST(BrokerProxyTest, ForwardsToTheRemoteBrokerAndRefusesRegistration) {
  auto remote = rootBroker("remoteOne");
  createModule<Calculator>(remote, "RemoteCalc");
  auto local = rootBroker("localOne");
  auto proxy = std::make_shared<KXBrokerProxy>(local, "127.0.0.1", remote->getPort());
  KXBrokerInfo info;
  EXPECT_EQ(proxy->getBrokerInfo(info), 0);
  EXPECT_EQ(info.name, "remoteOne");
  EXPECT_TRUE(info.isABroker);
  std::vector<std::string> methods;
  EXPECT_EQ(proxy->getMethodList("RemoteCalc", methods), 0);
  ASSERT_GE(methods.size(), 3u);
  EXPECT_EQ(methods[0], "exit");  // bind order: the built-ins first
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

TEST(NetworkParentTest, AnUnreachableParentIsATimeout) {
  // Nothing serves port 1.
  EXPECT_EQ(errorOf([&] {
              KXBroker::createBroker("orphan", "127.0.0.1", 0, "127.0.0.1", 1,
                                     KXBroker::kKeepAlive);
            }),
            errorText("KXBroker", "Connect to parent", "Timeout"));
  // The half-made broker is not left in the manager.
  for (const auto& broker : KXBrokerManager::getInstance()->getBrokers()) {
    EXPECT_NE(broker->getName(), "orphan");
  }
}

}  // namespace
}  // namespace testing
}  // namespace KX

namespace KX {
namespace testing {
namespace {

TEST(NetworkModuleTest, PublishesItsMethodsInOrderAndAnswersThemGenerically) {
  auto root = rootBroker("published");
  std::shared_ptr<KXModuleCore> network = root->getModuleCore("KXNetwork");
  ASSERT_NE(network, nullptr);
  const std::vector<std::string> methods = network->getMethodList();
  const std::vector<std::string> published = {"setEndPoint",
                                              "registerBroker",
                                              "newServer",
                                              "configureClient",
                                              "listenRequest",
                                              "heartBeat",
                                              "runHeartBeat",
                                              "runHeartBeatCheck",
                                              "registerClient",
                                              "callMethod",
                                              "pCallMethod",
                                              "pCallMethodNoID",
                                              "getModuleList",
                                              "unregisterBroker",
                                              "getBrokerInfo",
                                              "getInfo",
                                              "createClient",
                                              "getModuleByName",
                                              "getBrokerList",
                                              "getRemoteMethodList",
                                              "createConnection",
                                              "disconnectBroker",
                                              "reconnectBroker",
                                              "remotePCallManager",
                                              "unregisterModuleReference",
                                              "getGlobalModuleList",
                                              "findFreePort",
                                              "getLocalIP",
                                              "destroyConnection",
                                              "waitSynchronizer"};
  ASSERT_GE(methods.size(), published.size());
  EXPECT_EQ(std::vector<std::string>(methods.end() - published.size(), methods.end()), published);
  EXPECT_EQ(network->getMethodHelp("heartBeat")[2][0], KXValue("brokerName"));

  // Through the published forms: a connection to the broker itself, its record, its lists.
  KXProxy proxy(root, "KXNetwork");
  const std::string endpoint = "http://127.0.0.1:" + std::to_string(root->getPort());
  const KXValue connection = proxy.genericCall("createClient", args({KXValue(endpoint)}));
  ASSERT_EQ(connection.getType(), KXValue::TypeInt);
  const KXValue record = proxy.genericCall("getBrokerInfo", args({connection}));
  EXPECT_EQ(record,
            args({KXValue("published"), KXValue(1), KXValue("127.0.0.1"), KXValue(root->getPort()),
                  KXValue(static_cast<int>(getpid())), KXValue(true), KXValue(true)}));
  const KXValue modules = proxy.genericCall("getModuleList", args({connection}));
  ASSERT_EQ(modules.getSize(), 1);
  EXPECT_EQ(modules[0][0], KXValue("KXNetwork"));
  proxy.genericCall("destroyConnection", args({connection}));
  EXPECT_EQ(errorOf([&] { proxy.genericCall("getBrokerInfo", args({connection})); }),
            errorText("KXNetwork", "getBrokerInfo", "connection not initialized"));
  root->shutdown();
}

}  // namespace
}  // namespace testing
}  // namespace KX
