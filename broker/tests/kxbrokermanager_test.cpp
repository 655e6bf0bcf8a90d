#include "broker/kxbrokermanager.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "broker/kxbroker.h"
#include "broker/tests/broker_test_support.h"
#include "thread/kxthreadpool.h"
#include "value/kxerror.h"

namespace KX {
namespace testing {
namespace {

using tu::log::testing::LogCapture;

// A broker that no manager lists (createBroker would enter the process-wide one).
std::shared_ptr<KXBroker> unlistedBroker(const std::string& name, int port) {
  auto broker = std::make_shared<KXBroker>();
  broker->init(name, "127.0.0.1", port, "", 0, 0);
  return broker;
}

bool lists(KXBrokerManager& manager, const std::shared_ptr<KXBroker>& broker) {
  auto brokers = manager.getBrokers();
  return std::find(brokers.begin(), brokers.end(), broker) != brokers.end();
}

TEST(BrokerManager, RandomBrokerOfAnEmptyManagerThrows) {
  auto manager = std::make_shared<KXBrokerManager>();
  try {
    manager->getRandomBroker();
    FAIL() << "getRandomBroker returned on an empty manager";
  } catch (const KXError& error) {
    EXPECT_STREQ(error.what(),
                 "\tKXBrokerManager::getRandomBroker\n"
                 "\tThere is no current broker defined in BrokerManager.");
  }
}

TEST(BrokerManager, RandomBrokerIsTheFirstListed) {
  auto manager = std::make_shared<KXBrokerManager>();
  auto first = unlistedBroker("first", 9559);
  auto second = unlistedBroker("second", 9600);
  manager->addBroker(first);
  manager->addBroker(second);
  EXPECT_EQ(manager->getRandomBroker(), first);
  manager->removeBroker(first);
  manager->removeBroker(second);
}

TEST(BrokerManager, AddingTheSameBrokerTwiceListsItOnce) {
  auto manager = std::make_shared<KXBrokerManager>();
  auto broker = unlistedBroker("twice", 9559);
  manager->addBroker(broker);
  manager->addBroker(broker);
  EXPECT_EQ(manager->getBrokers(), (std::vector<std::shared_ptr<KXBroker>>{broker}));
  manager->removeBroker(broker);
}

TEST(BrokerManager, BrokersCompareByIdentityNotByName) {
  auto manager = std::make_shared<KXBrokerManager>();
  auto one = unlistedBroker("same", 9559);
  auto other = unlistedBroker("same", 9559);
  manager->addBroker(one);
  manager->addBroker(other);
  EXPECT_EQ(manager->getBrokers().size(), 2u);
  manager->removeBroker(one);
  EXPECT_EQ(manager->getBrokers(), (std::vector<std::shared_ptr<KXBroker>>{other}));
  manager->removeBroker(other);
}

TEST(BrokerManager, EndpointSelectsTheBrokerOfItsPort) {
  auto manager = std::make_shared<KXBrokerManager>();
  EXPECT_THROW(manager->getBrokerByEndpoint("http://127.0.0.1:9600"), KXError);
  auto first = unlistedBroker("first", 9559);
  auto second = unlistedBroker("second", 9600);
  manager->addBroker(first);
  manager->addBroker(second);
  EXPECT_EQ(manager->getBrokerByEndpoint("http://127.0.0.1:9600"), second);
  EXPECT_EQ(manager->getBrokerByEndpoint("http://10.0.0.1:9600/"), second);
  EXPECT_EQ(manager->getBrokerByEndpoint("http://127.0.0.1:9559/"), first);
  EXPECT_EQ(manager->getBrokerByEndpoint("http://127.0.0.1:1234/"), first);
  EXPECT_EQ(manager->getBrokerByEndpoint(""), first);
  manager->removeBroker(first);
  manager->removeBroker(second);
}

TEST(BrokerManager, RemovingShutsDownOnceAndAgainDoesNothing) {
  auto manager = std::make_shared<KXBrokerManager>();
  auto broker = unlistedBroker("removed", 9559);
  auto module = createModule<Calculator>(broker, "M");
  manager->addBroker(broker);

  manager->removeBroker(broker);
  EXPECT_FALSE(lists(*manager, broker));
  EXPECT_TRUE(broker->isShuttingDown());
  EXPECT_EQ(module->exitCount(), 1);

  LogCapture capture;
  manager->removeBroker(broker);
  EXPECT_TRUE(capture.withFunction("KX::KXBrokerImpl::shutdown").empty());
  EXPECT_EQ(module->exitCount(), 1);
}

TEST(BrokerManager, RemovalWithoutShutdownKeepsTheBrokerRunning) {
  auto manager = std::make_shared<KXBrokerManager>();
  auto broker = unlistedBroker("kept", 9559);
  manager->addBroker(broker);
  manager->removeBrokerWithoutShutdown(broker);
  EXPECT_FALSE(lists(*manager, broker));
  EXPECT_FALSE(broker->isShuttingDown());
  broker->shutdown();
}

TEST(BrokerManager, DestructionShutsDownEveryListedBrokerInOrder) {
  auto manager = std::make_shared<KXBrokerManager>();
  auto first = unlistedBroker("first", 9559);
  auto second = unlistedBroker("second", 9600);
  manager->addBroker(first);
  manager->addBroker(second);

  LogCapture capture;
  manager.reset();
  EXPECT_TRUE(first->isShuttingDown());
  EXPECT_TRUE(second->isShuttingDown());
  EXPECT_EQ(
      messagesStartingWith(capture, "KX::KXBrokerImpl::shutdown", "Shutdown "),
      (std::vector<std::string>{"Shutdown \"first\" broker\n", "Shutdown \"second\" broker\n"}));
}

TEST(BrokerManager, CreatedBrokersEnterTheProcessWideManagerAndLeaveAtShutdown) {
  auto manager = KXBrokerManager::getInstance();
  auto broker = KXBroker::createBroker("listed", "127.0.0.1", 9610, "", 0, 0, "", false);
  EXPECT_TRUE(lists(*manager, broker));
  broker->shutdown();
  EXPECT_FALSE(lists(*manager, broker));
}

TEST(BrokerManager, InstanceIsCreatedOnceEvenFromSeveralThreads) {
  constexpr int kThreads = 8;
  std::vector<std::shared_ptr<KXBrokerManager>> seen(kThreads);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&seen, i] { seen[i] = KXBrokerManager::getInstance(); });
  }
  for (auto& thread : threads) thread.join();
  for (const auto& manager : seen) {
    ASSERT_NE(manager, nullptr);
    EXPECT_EQ(manager, seen[0]);
  }
  EXPECT_EQ(KXBrokerManager::getInstance(), seen[0]);
}

TEST(BrokerManager, AdoptInstanceReplacesTheProcessWideManager) {
  auto original = KXBrokerManager::getInstance();
  auto host = std::make_shared<KXBrokerManager>();
  EXPECT_EQ(KXBrokerManager::adoptInstance(host), host);
  EXPECT_EQ(KXBrokerManager::getInstance(), host);
  EXPECT_EQ(KXBrokerManager::adoptInstance(host), host);

  // Brokers created now enter the adopted manager.
  auto broker = KXBroker::createBroker("hosted", "127.0.0.1", 9611, "", 0, 0, "", false);
  EXPECT_TRUE(lists(*host, broker));
  EXPECT_FALSE(lists(*original, broker));
  broker->shutdown();
  EXPECT_FALSE(lists(*host, broker));

  EXPECT_EQ(KXBrokerManager::adoptInstance(original), original);
  EXPECT_EQ(KXBrokerManager::getInstance(), original);
}

TEST(BrokerManager, AdoptingReleasesThePreviousManagerAndItsBrokers) {
  auto original = KXBrokerManager::getInstance();
  auto replaced = std::make_shared<KXBrokerManager>();
  auto broker = unlistedBroker("ofReplaced", 9612);
  replaced->addBroker(broker);
  KXBrokerManager::adoptInstance(replaced);
  replaced.reset();  // the process-wide slot holds the last reference now
  KXBrokerManager::adoptInstance(original);
  EXPECT_TRUE(broker->isShuttingDown());
}

TEST(BrokerManager, EmptyBrokerIsCreatedOnce) {
  auto manager = KXBrokerManager::getInstance();
  auto first = manager->getEmptyBroker();
  auto second = manager->getEmptyBroker();
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first, second);
  EXPECT_EQ(first->getName(), "emptyBroker");
  EXPECT_EQ(first->getIP(), "127.0.0.1");
  EXPECT_FALSE(first->hasParent());
  EXPECT_FALSE(first->getBrokerInfo().keepAlive);
  EXPECT_EQ(first->getThreadPool()->getThreadCount(), 10);
  // Left listed on purpose: the process-wide manager shuts it down at process exit.
  EXPECT_TRUE(lists(*manager, first));
}

TEST(BrokerManager, EmptyBrokerIsMadeAgainOnceShutDown) {
  auto manager = std::make_shared<KXBrokerManager>();
  auto first = manager->getEmptyBroker();
  first->shutdown();
  auto second = manager->getEmptyBroker();
  EXPECT_NE(first, second);
  EXPECT_FALSE(second->isShuttingDown());
  EXPECT_EQ(second->getName(), "emptyBroker");
  EXPECT_EQ(second, manager->getEmptyBroker());
}

TEST(InternalModuleName, HiddenNames) {
  EXPECT_TRUE(isInternalModuleName("KXNetwork"));
  EXPECT_TRUE(isInternalModuleName("KXNetworkSomething"));
  EXPECT_TRUE(isInternalModuleName("_anything"));
  EXPECT_TRUE(isInternalModuleName("_"));
  EXPECT_TRUE(isInternalModuleName("KXFrameManager__1"));
  EXPECT_TRUE(isInternalModuleName("myKXMecaLogger"));
  EXPECT_TRUE(isInternalModuleName("KXRobotModel"));
  EXPECT_TRUE(isInternalModuleName("KXTelepathe"));
  EXPECT_TRUE(isInternalModuleName("KXStore2"));
}

TEST(InternalModuleName, UserNames) {
  EXPECT_FALSE(isInternalModuleName("KXMemory"));
  EXPECT_FALSE(isInternalModuleName(""));
  EXPECT_FALSE(isInternalModuleName("KXFrameManager_1"));
  EXPECT_FALSE(isInternalModuleName("KXNet"));
  EXPECT_FALSE(isInternalModuleName("my_module"));
  EXPECT_FALSE(isInternalModuleName("kxnetwork"));
}

}  // namespace
}  // namespace testing
}  // namespace KX
