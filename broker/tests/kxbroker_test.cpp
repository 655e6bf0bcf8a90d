#include "broker/kxbroker.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "broker/detail/kxchildbrokers.h"
#include "broker/detail/kxproxycache.h"
#include "broker/kxbrokermanager.h"
#include "broker/tests/broker_test_support.h"
#include "module/kxproxy.h"
#include "module/kxtaskmonitor.h"
#include "thread/kxthreadpool.h"

namespace KX {
namespace testing {
namespace {

using Brokers = std::vector<std::shared_ptr<KXBroker>>;
constexpr char kShutdown[] = "KX::KXBrokerImpl::shutdown";

bool lists(const std::shared_ptr<KXBrokerManager>& manager,
           const std::shared_ptr<KXBroker>& broker) {
  const Brokers brokers = manager->getBrokers();
  return std::find(brokers.begin(), brokers.end(), broker) != brokers.end();
}

// A broker that no manager lists (createBroker would enter the process-wide one).
std::shared_ptr<KXBroker> unlisted(const std::string& name, int port) {
  auto broker = std::make_shared<KXBroker>();
  broker->init(name, "127.0.0.1", port, "", 0, 0);
  return broker;
}

// A broker of its own per test, without network, shut down afterwards.
class BrokerTest : public ::testing::Test {
 protected:
  void TearDown() override { broker_->shutdown(); }
  std::shared_ptr<KXBroker> broker_ =
      KXBroker::createBroker("testBroker", "127.0.0.1", 9559, "", 0, 0, "", false);
};

// Modules stop latest registered first, each with a line, quietly for internal-looking
// names; an exit that throws is logged and the others go on; a module whose exit leaves it
// registered is released all the same. The broker then leaves the manager.
TEST_F(BrokerTest, ShutdownStopsModulesLatestFirstAndLogsEachOne) {
  LogCapture capture;
  createModule<Calculator>(broker_, "A");
  auto hidden = createModule<Calculator>(broker_, "_hidden");
  auto frame = createModule<Calculator>(broker_, "KXFrameManager_box");
  createModule<Calculator>(broker_, "Thrower", [] { KX_THROW("Thrower", "exit", "cannot stop"); });
  createModule<Calculator>(broker_, "Odd", [] { throw std::runtime_error("odd"); });
  std::weak_ptr<Calculator> lingering = createModule<Calculator>(broker_, "Lingering", [] {});
  createModule<Calculator>(broker_, "C");
  broker_->shutdown();
  broker_->shutdown();

  EXPECT_EQ(hidden->exitCount + frame->exitCount, 2);
  const Names started = logged(capture, "KX::KXBrokerImpl::registerModule");
  EXPECT_EQ(started.size(), 5u) << "none for the internal-looking names";
  EXPECT_EQ(started.at(0), "Starting A\n");
  EXPECT_EQ(
      logged(capture, kShutdown),
      (Names{"Shutdown \"testBroker\" broker\n", "Stopping C\n", "Stopping Lingering\n",
             "Stopping Odd\n", "Unknown exception thrown in Odd::exit()\n", "Stopping Thrower\n",
             "Error thrown in Thrower::exit(): \tThrower::exit\n\tcannot stop\n", "Stopping A\n",
             "Exit\n"}));
  EXPECT_EQ(capture.withFunction(kShutdown).at(4).level, tu::log::error);
  EXPECT_TRUE(lingering.expired());
  EXPECT_FALSE(lists(KXBrokerManager::getInstance(), broker_));
}

TEST_F(BrokerTest, SharedProxyFollowsAModuleReplacedUnderItsName) {
  auto original = createModule<Calculator>(broker_, "Calc");
  auto before = broker_->getProxy("Calc");
  EXPECT_EQ(broker_->getProxy("Calc", 0, 0), before);
  auto replacement = createModule<Calculator>(broker_, "Calc");
  EXPECT_EQ(original->exitCount, 1) << "the module replaced is exited first";
  broker_->unregisterModule("Calc", original.get());  // no longer the one registered
  EXPECT_EQ(broker_->getModuleCore("Calc"), replacement);

  auto after = broker_->getProxy("Calc");
  EXPECT_NE(before, after);
  after->call<void>("note", std::string("to the new one"));
  EXPECT_EQ(replacement->notes, 1);
  EXPECT_EQ(original->notes, 0);
  replacement->exit();
  EXPECT_EQ(errorText([&] { broker_->getProxy("Calc"); }),
            "\tKXProxy::constructor\n\tModule 'Calc' not found.");
}

// A second init throws and changes nothing of what the flags and addresses made.
TEST(BrokerCreation, FlagsAndAddressesShapeTheBroker) {
  struct Case {
    const char *name, *ip, *parentIp;
    int flags;
    const char *path, *expectedIp;
    int workers;
  } const kCases[] = {
      {"info", "192.168.1.2", "", KXBroker::kKeepAlive, "", "192.168.1.2", 10},
      {"anywhere", "", "", 0, "", "0.0.0.0", 10},
      {"child", "", "10.1.2.3", 0, "", "", 10},
      {"single", "127.0.0.1", "", KXBroker::kSingleThreaded, "/some/path", "127.0.0.1", 1},
  };
  const Names kDeprecated = {
      "Calling the broker constructor with a non-empty path, is deprecated\n",
      "it will not be taken into account, please use tu::path.\n"};
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.name);
    LogCapture capture;
    auto broker =
        KXBroker::createBroker(c.name, c.ip, 9600, c.parentIp, 9559, c.flags, c.path, false);
    EXPECT_EQ(errorText([&] { broker->init("other", "10.0.0.1", 1, "10.0.0.2", 2, 0x02); }),
              "\tKXBroker::init\n\tcould not initialize KXBroker twice.");
    const KXBrokerInfo info = broker->getBrokerInfo();
    EXPECT_EQ(info.name + " " + info.ip + ":" + std::to_string(info.port),
              std::string(c.name) + " " + c.expectedIp + ":9600");
    EXPECT_EQ(info.keepAlive, c.flags == KXBroker::kKeepAlive);
    EXPECT_EQ(broker->hasParent() ? broker->getParentIP() : "none",
              *c.parentIp ? c.parentIp : "none");
    EXPECT_EQ(broker->getThreadPool()->getThreadCount(), c.workers);
    broker->shutdown();
    EXPECT_EQ(logged(capture, "KX::KXBroker::createBroker"), *c.path ? kDeprecated : Names());
    EXPECT_EQ(logged(capture, kShutdown).back(),
              info.keepAlive ? "Shutdown \"info\" broker\n" : "Exit\n");
  }
  auto released = std::make_shared<KXBroker>();
  EXPECT_EQ(released->getThreadPool(), nullptr) << "closed until init";
  released->init("released", "127.0.0.1", 9605, "", 0, 0);
  auto module = createModule<Calculator>(released, "M");
  auto pool = released->getThreadPool();
  released.reset();  // without shutdown: the destructor stops modules and pool
  EXPECT_EQ(module->exitCount, 1);
  EXPECT_TRUE(pool->isShutDown());
}

// Without children or parent, searches answer from the local table with this broker's
// address.
TEST_F(BrokerTest, SearchesDescribeLocalModules) {
  createModule<Calculator>(broker_, "B");
  createModule<Calculator>(broker_, "A");
  KXModuleInfo info;
  info.name = "stale";
  EXPECT_EQ(broker_->getModuleByName("Nowhere", false, info), -1);
  EXPECT_EQ(info.name, "");
  EXPECT_EQ(broker_->getModuleByName("A", false, info), 0);
  EXPECT_EQ(broker_->exploreToGetModuleByName("B", true, true, "", false, info), 0);
  EXPECT_EQ(info.name + " " + info.ip + ":" + std::to_string(info.port), "B 127.0.0.1:9559");
  const auto list = broker_->getGlobalModuleList();
  EXPECT_EQ(list.at(0).name + list.at(1).name, "AB");
  EXPECT_TRUE(broker_->isModulePresent("A"));
  EXPECT_FALSE(broker_->isModulePresent("C"));
}

TEST_F(BrokerTest, CallsAndPostsSayWhatIsMissing) {
  createModule<Calculator>(broker_, "Calc");
  EXPECT_EQ(static_cast<int>(broker_->methodCall("Calc", "add", arrayOf(2, 40))), 42);
  const std::string kMissing =
      "\n\tModule not found.Could not execute method \"add\" of module \"Ghost\" because this "
      "module does not exist.";
  EXPECT_EQ(errorText([&] { broker_->methodCall("Ghost", "add", arrayOf()); }),
            "\tKXBroker::methodCall" + kMissing);
  EXPECT_EQ(errorText([&] { broker_->post("Ghost", "add", arrayOf()); }),
            "\tKXBroker::post" + kMissing);
  EXPECT_EQ(errorText([&] { broker_->methodCall("Calc", "nope", arrayOf()); }),
            "\tCalc::Method not found\n\tFunction nope does not exist in module Calc");
  EXPECT_EQ(errorText([&] { broker_->methodCall("Calc", "fail", arrayOf("why not")); }),
            "\tKXBroker::methodCall\n\tmethodCall: method: fail, params: [\"why not\"]\n"
            "\tCalc::fail\n\twhy not");
  broker_->getThreadPool()->shutdown();  // a pool that refuses the task
  EXPECT_EQ(errorText([&] { broker_->post("Calc", "add", arrayOf(1, 2)); }),
            "\tKXBroker::post\n\tpost method: add, params: [1, 2]\n"
            "\tKXBroker::post\n\tThe broker is shutting down.");
  EXPECT_TRUE(broker_->getTaskMonitor()->getTaskList().empty()) << "its entry is removed again";
}

// Ids are even and wrap after the largest even int; a parallel call is named after its
// method, entered in the monitor before it is queued, and may shut its own broker down.
TEST_F(BrokerTest, AParallelCallMayShutItsBrokerDown) {
  auto other = createModule<Calculator>(broker_, "Other");
  broker_->resetTaskIds(2147483644);
  EXPECT_EQ(broker_->newTaskId(), 2147483646);
  auto info = broker_->createTaskInfo("Mod", "meth");
  EXPECT_EQ(info->id, 2);
  bool enteredFirst = false;
  auto done = std::make_shared<Latch>(1);
  auto task = std::make_shared<FunctionTask>([&] {
    enteredFirst = broker_->getTaskMonitor()->isRunning(info->id);
    broker_->shutdown();
    done->countDown();
  });
  EXPECT_EQ(broker_->queueParallelCall(info, task), info->id);
  EXPECT_EQ(task->getName(), "pcall: Mod::meth");
  ASSERT_TRUE(done->wait());
  EXPECT_TRUE(enteredFirst);
  EXPECT_EQ(other->exitCount, 1);
  EXPECT_TRUE(broker_->getThreadPool()->isShutDown());
}

TEST_F(BrokerTest, ConcurrentCallsPostsProxiesAndRegistrations) {
  auto calc = createModule<Calculator>(broker_, "Calc");
  std::vector<std::vector<int>> ids(4);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      broker_->getProxy("Calc");
      for (int round = 0; round < 50; ++round) {
        EXPECT_EQ(static_cast<int>(broker_->methodCall("Calc", "add", arrayOf(t, round))),
                  t + round);
        ids[t].push_back(broker_->post("Calc", "note", arrayOf("n")));
        createModule<Calculator>(broker_, "Passing" + std::to_string(t))->exit();
      }
    });
  }
  for (auto& thread : threads) thread.join();
  std::vector<int> all;
  for (const auto& mine : ids) all.insert(all.end(), mine.begin(), mine.end());
  for (int id : all) EXPECT_FALSE(broker_->getTaskMonitor()->wait(id, 20000));
  std::sort(all.begin(), all.end());
  EXPECT_EQ(std::adjacent_find(all.begin(), all.end()), all.end()) << "an id was given twice";
  EXPECT_EQ(all.front() + all.back(), 2 + 400) << "the 200 even ids from 2";
  EXPECT_EQ(calc->notes, 200);
  EXPECT_EQ(broker_->getModules().size(), 1u);
}

// Registrations of one name that all find the same module there: each newcomer but the
// last is exited in turn, none leaves the table without its exit.
TEST_F(BrokerTest, RacingRegistrationsOfOneNameExitEveryModuleDisplaced) {
  constexpr int kRacers = 6;
  Latch allLookedUp(kRacers);
  std::shared_ptr<Calculator> first;
  first = createModule<Calculator>(broker_, "Same", [&] {
    // Every racer has found `first` before any of them takes the name.
    allLookedUp.countDown();
    EXPECT_TRUE(allLookedUp.wait());
    broker_->unregisterModule("Same", first.get());
  });
  std::vector<std::shared_ptr<Calculator>> racers;
  for (int r = 0; r < kRacers; ++r) racers.push_back(std::make_shared<Calculator>(broker_, "Same"));
  std::vector<std::thread> threads;
  for (const auto& racer : racers) {
    threads.emplace_back([this, racer] { broker_->registerModule("Same", racer); });
  }
  for (auto& thread : threads) thread.join();
  // (A module two racers found is exited by both: exit acts once.)
  const std::shared_ptr<KXModuleCore> registered = broker_->getModuleCore("Same");
  for (const auto& racer : racers) EXPECT_EQ(racer->exitCount > 0, racer != registered);
  EXPECT_EQ(first->exitCount, kRacers);
  registered->exit();
}

// A forget() during a build (the name's module left or was replaced meanwhile) means the
// proxy built may be bound to a module that is gone: it is built again, and kept only once
// a build ran without a forget; past the last attempt it is handed out unkept.
TEST_F(BrokerTest, AProxyCacheKeepsOnlyAProxyBuiltWithoutAForgetDuringItsBuild) {
  createModule<Calculator>(broker_, "Calc");
  const struct {
    int forgettingBuilds;
    int builds;
    bool kept;
  } cases[] = {{0, 1, true}, {1, 2, true}, {3, 4, true}, {4, 4, false}, {9, 4, false}};
  for (const auto& c : cases) {
    KXProxyCache cache;
    int builds = 0;
    std::shared_ptr<KXProxy> last;
    const KXProxyCache::Build build = [&] {
      if (++builds <= c.forgettingBuilds) cache.forget("Other");
      return last = std::make_shared<KXProxy>(broker_, "Calc");
    };
    const std::shared_ptr<KXProxy> got = cache.get("Calc", build);
    EXPECT_EQ(got, last) << c.forgettingBuilds;
    EXPECT_EQ(builds, c.builds) << c.forgettingBuilds;
    EXPECT_EQ(cache.get("Calc", build) == got, c.kept) << c.forgettingBuilds;
  }
}

// Two callers that both missed: the first proxy kept is the one both get.
TEST_F(BrokerTest, AProxyCacheHandsTheFirstKeptProxyToARacingBuild) {
  createModule<Calculator>(broker_, "Calc");
  KXProxyCache cache;
  const auto build = [&] { return std::make_shared<KXProxy>(broker_, "Calc"); };
  std::shared_ptr<KXProxy> keptMeanwhile;
  const std::shared_ptr<KXProxy> got = cache.get("Calc", [&] {
    keptMeanwhile = cache.get("Calc", build);
    return build();
  });
  EXPECT_EQ(got, keptMeanwhile);
  cache.forget("Calc");
  EXPECT_NE(cache.get("Calc", build), got);
}

TEST(ChildBrokersTest, ASilentChildIsNotRespondingFiveTimesThenLost) {
  KXChildBrokers children;
  KXBrokerInfo arm;
  arm.name = "arm";
  children.add(arm, nullptr);
  EXPECT_TRUE(children.check(KXChildBrokers::Clock::now() + std::chrono::hours(1)).lost.empty())
      << "a child that never beat is not watched";
  ASSERT_TRUE(children.heartBeat("arm"));
  const auto beat = KXChildBrokers::Clock::now();
  // Counted in whole seconds: ten seconds and a little after the beat is still fine.
  EXPECT_TRUE(children.check(beat + std::chrono::seconds(10)).notResponding.empty());
  const auto silent = beat + std::chrono::seconds(12);
  for (int check = 0; check < 3; ++check) children.check(silent);
  children.heartBeat("arm");  // a beat starts the count again
  EXPECT_TRUE(children.check(KXChildBrokers::Clock::now()).notResponding.empty());
  for (int check = 1; check <= 6; ++check) {
    const auto result = children.check(silent);
    EXPECT_EQ(result.notResponding, check <= 5 ? Names{"arm"} : Names{}) << "check " << check;
    Names lost;
    for (const auto& child : result.lost) lost.push_back(child->info.name);
    EXPECT_EQ(lost, check <= 5 ? Names{} : Names{"arm"}) << "check " << check;
  }
  EXPECT_FALSE(children.heartBeat("stranger"));
}

// A child found lost that registered again before it was dropped stays.
TEST(ChildBrokersTest, OnlyTheRecordFoundLostIsRemoved) {
  KXChildBrokers children;
  KXBrokerInfo arm;
  arm.name = "arm";
  children.add(arm, nullptr);
  children.heartBeat("arm");
  const auto silent = KXChildBrokers::Clock::now() + std::chrono::seconds(12);
  std::vector<std::shared_ptr<KXChildBrokers::Child>> lost;
  for (int check = 0; lost.empty() && check <= KXChildBrokers::kMaxMissedChecks; ++check) {
    lost = children.check(silent).lost;
  }
  ASSERT_EQ(lost.size(), 1u);
  arm.port = 9600;
  children.add(arm, nullptr);
  EXPECT_EQ(children.remove("arm", lost[0].get()), nullptr);
  ASSERT_EQ(children.infos().size(), 1u);
  EXPECT_EQ(children.infos()[0].port, 9600);
  EXPECT_NE(children.remove("arm", children.snapshot()[0].get()), nullptr);
  EXPECT_TRUE(children.empty());
}

TEST(ChildBrokersTest, ARegistrationUnderATakenNameReplacesTheChild) {
  KXChildBrokers children;
  KXBrokerInfo head;
  head.name = "head";
  EXPECT_EQ(children.add(head, nullptr), nullptr);
  head.port = 9600;
  EXPECT_EQ(children.add(head, nullptr)->info.port, 0) << "the record replaced";
  EXPECT_EQ(children.infos().at(0).port, 9600);
  EXPECT_NE(children.remove("head"), nullptr);
  EXPECT_EQ(children.remove("head"), nullptr);
  EXPECT_TRUE(children.empty());
}

// Brokers are listed once each, by identity, in insertion order; a manager going away shuts
// its brokers down in that order.
TEST(BrokerManager, ListsBrokersOnceInOrder) {
  auto manager = std::make_shared<KXBrokerManager>();
  EXPECT_EQ(errorText([&] { manager->getRandomBroker(); }),
            "\tKXBrokerManager::getRandomBroker\n"
            "\tThere is no current broker defined in BrokerManager.");
  auto first = unlisted("first", 9559);
  auto second = unlisted("second", 9600);
  auto third = unlisted("third", 9601);
  for (const auto& broker : {first, second, first, std::shared_ptr<KXBroker>(), third}) {
    manager->addBroker(broker);
  }
  EXPECT_EQ(manager->getBrokers(), (Brokers{first, second, third}));
  EXPECT_EQ(manager->getBrokerByEndpoint("http://10.0.0.1:9600/"), second) << "by its port";
  manager->removeBrokerWithoutShutdown(second);
  EXPECT_FALSE(second->isShuttingDown());
  auto module = createModule<Calculator>(first, "M");
  manager->removeBroker(first);
  EXPECT_EQ(module->exitCount, 1);
  LogCapture capture;
  manager->removeBroker(first);  // no longer listed: not shut down again
  manager->addBroker(second);
  manager.reset();
  EXPECT_EQ(logged(capture, kShutdown), (Names{"Shutdown \"third\" broker\n", "Exit\n",
                                               "Shutdown \"second\" broker\n", "Exit\n"}));
}

// A host may put its own process-wide manager in place; the one replaced shuts its brokers
// down when it goes.
TEST(BrokerManager, TheProcessWideManagerIsOneAtATime) {
  const auto original = KXBrokerManager::getInstance();
  auto host = std::make_shared<KXBrokerManager>();
  EXPECT_EQ(KXBrokerManager::adoptInstance(host), host);
  EXPECT_EQ(KXBrokerManager::adoptInstance(nullptr), host);
  auto broker = KXBroker::createBroker("hosted", "127.0.0.1", 9611, "", 0, 0, "", false);
  EXPECT_TRUE(lists(host, broker));
  host.reset();  // the process-wide slot holds the last reference now
  EXPECT_EQ(KXBrokerManager::adoptInstance(original), original);
  EXPECT_TRUE(broker->isShuttingDown());
}

TEST(BrokerManager, EmptyBrokerIsMadeAgainOnceShutDown) {
  auto manager = std::make_shared<KXBrokerManager>();
  auto first = manager->getEmptyBroker();
  EXPECT_EQ(manager->getEmptyBroker(), first);
  EXPECT_EQ(first->getName() + " " + first->getIP(), "emptyBroker 127.0.0.1");
  EXPECT_NE(first->getNetwork(), nullptr);
  EXPECT_TRUE(lists(KXBrokerManager::getInstance(), first));
  first->shutdown();
  auto second = manager->getEmptyBroker();
  EXPECT_NE(second, first);
  EXPECT_FALSE(second->isShuttingDown());
  second->shutdown();
}

TEST(InternalModuleName, NamesHiddenFromTheLists) {
  for (const char* name : {"KXNetworkSomething", "_", "KXFrameManager__1", "myKXMecaLogger",
                           "KXRobotModel", "KXTelepathe", "KXStore2"}) {
    EXPECT_TRUE(isInternalModuleName(name)) << name;
  }
  for (const char* name : {"", "KXFrameManager_1", "KXNet", "my_module", "kxnetwork"}) {
    EXPECT_FALSE(isInternalModuleName(name)) << name;
  }
}

}  // namespace
}  // namespace testing
}  // namespace KX
