#include "broker/kxbroker.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "broker/kxbrokermanager.h"
#include "broker/tests/broker_test_support.h"
#include "module/kxproxy.h"
#include "module/kxtaskmonitor.h"
#include "thread/kxthreadpool.h"
#include "value/kxerror.h"
#include "value/tests/value_test_util.h"

namespace KX {
namespace testing {
namespace {

using tu::log::testing::LogCapture;

constexpr char kShutdown[] = "KX::KXBrokerImpl::shutdown";
constexpr char kRegister[] = "KX::KXBrokerImpl::registerModule";

using testing_util::errorText;

// A broker of its own per test, without network, shut down afterwards.
class BrokerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    broker_ = KXBroker::createBroker("testBroker", "127.0.0.1", 9559, "", 0, 0, "", false);
  }
  void TearDown() override { broker_->shutdown(); }

  std::shared_ptr<KXBroker> broker_;
};

TEST_F(BrokerTest, ShutdownStopsModulesInReverseRegistrationOrder) {
  auto journal = std::make_shared<ExitJournal>();
  auto a = createModule<Calculator>(broker_, "A", journal);
  auto b = createModule<Calculator>(broker_, "B", journal);
  auto c = createModule<Calculator>(broker_, "C", journal);
  EXPECT_EQ(a->getRegistrationIndex(), 1);
  EXPECT_EQ(b->getRegistrationIndex(), 2);
  EXPECT_EQ(c->getRegistrationIndex(), 3);

  LogCapture capture;
  broker_->shutdown();

  EXPECT_EQ(messagesStartingWith(capture, kShutdown, "Stopping "),
            (std::vector<std::string>{"Stopping C\n", "Stopping B\n", "Stopping A\n"}));
  EXPECT_EQ(journal->names(), (std::vector<std::string>{"C", "B", "A"}));
  EXPECT_EQ(a->exitCount(), 1);
  EXPECT_EQ(b->exitCount(), 1);
  EXPECT_EQ(c->exitCount(), 1);
  EXPECT_TRUE(broker_->getModules().empty());
}

TEST_F(BrokerTest, ShutdownLogsItsStepsInOrder) {
  createModule<Calculator>(broker_, "A");
  LogCapture capture;
  broker_->shutdown();

  auto records = capture.withFunction(kShutdown);
  ASSERT_EQ(records.size(), 3u);
  EXPECT_EQ(records[0].message, "Shutdown \"testBroker\" broker\n");
  EXPECT_EQ(records[0].level, tu::log::verbose);
  EXPECT_EQ(records[0].category, "core.common.broker");
  EXPECT_EQ(records[1].message, "Stopping A\n");
  EXPECT_EQ(records[1].level, tu::log::info);
  EXPECT_EQ(records[2].message, "Exit\n");
  EXPECT_EQ(records[2].level, tu::log::info);
}

TEST_F(BrokerTest, ModulesUnregisterThemselvesDuringShutdown) {
  // Each exit runs while the module is still in the table; the table is not locked then,
  // so the module's own unregistration goes through at once.
  auto journal = std::make_shared<ExitJournal>();
  auto a = createModule<Calculator>(broker_, "A", journal);
  auto b = createModule<Calculator>(broker_, "B", journal);
  broker_->shutdown();
  EXPECT_TRUE(a->unregisteredByExit());
  EXPECT_TRUE(b->unregisteredByExit());
  EXPECT_EQ(broker_->getModuleCore("A"), nullptr);
  EXPECT_EQ(broker_->getModuleCore("B"), nullptr);
  EXPECT_EQ(journal->names(), (std::vector<std::string>{"B", "A"}));
}

TEST_F(BrokerTest, ShutdownReleasesModulesWhoseExitKeepsThemRegistered) {
  std::weak_ptr<OddExit> lingering;
  {
    auto module = createModule<OddExit>(broker_, "Lingering", [] {});
    lingering = module;
  }
  ASSERT_FALSE(lingering.expired());
  broker_->shutdown();
  EXPECT_TRUE(lingering.expired());
}

TEST_F(BrokerTest, ErrorsInExitAreLoggedAndShutdownGoesOn) {
  auto journal = std::make_shared<ExitJournal>();
  auto first = createModule<Calculator>(broker_, "First", journal);
  auto thrower =
      createModule<OddExit>(broker_, "Thrower", [] { KX_THROW("Thrower", "exit", "cannot stop"); });
  auto odd = createModule<OddExit>(broker_, "Odd", [] { throw std::runtime_error("odd"); });

  LogCapture capture;
  broker_->shutdown();

  std::vector<std::string> errors;
  for (const auto& record : capture.withFunction(kShutdown)) {
    if (record.level == tu::log::error) errors.push_back(record.message);
  }
  EXPECT_EQ(errors, (std::vector<std::string>{
                        "Unknown exception thrown in Odd::exit()\n",
                        "Error thrown in Thrower::exit(): \tThrower::exit\n\tcannot stop\n"}));
  EXPECT_EQ(first->exitCount(), 1);
  EXPECT_EQ(thrower->exitCount(), 1);
  EXPECT_EQ(odd->exitCount(), 1);
  EXPECT_EQ(messagesOf(capture, kShutdown).back(), "Exit\n");
}

TEST_F(BrokerTest, RegisteringUnderAUsedNameExitsTheOldModule) {
  auto old = createModule<Calculator>(broker_, "A");
  createModule<Calculator>(broker_, "B");
  auto replacement = createModule<Calculator>(broker_, "A");

  EXPECT_EQ(old->exitCount(), 1);
  EXPECT_EQ(replacement->exitCount(), 0);
  EXPECT_EQ(broker_->getModuleCore("A"), replacement);
  EXPECT_EQ(replacement->getRegistrationIndex(), 3);
  EXPECT_EQ(broker_->getModules().size(), 2u);

  broker_->shutdown();
  EXPECT_EQ(old->exitCount(), 1);
  EXPECT_EQ(replacement->exitCount(), 1);
}

TEST_F(BrokerTest, RegistrationLogsStartingLine) {
  LogCapture capture;
  createModule<Calculator>(broker_, "Visible");
  auto records = capture.withFunction(kRegister);
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].message, "Starting Visible\n");
  EXPECT_EQ(records[0].level, tu::log::info);
  EXPECT_EQ(records[0].category, "core.common.broker");
}

TEST_F(BrokerTest, InternalLookingNamesStartAndStopQuietly) {
  LogCapture capture;
  auto hidden = createModule<Calculator>(broker_, "_hidden");
  auto frame = createModule<Calculator>(broker_, "KXFrameManager_box");
  auto shown = createModule<Calculator>(broker_, "Shown");
  broker_->shutdown();

  EXPECT_EQ(messagesOf(capture, kRegister), (std::vector<std::string>{"Starting Shown\n"}));
  EXPECT_EQ(messagesStartingWith(capture, kShutdown, "Stopping "),
            (std::vector<std::string>{"Stopping Shown\n"}));
  EXPECT_EQ(hidden->exitCount(), 1);
  EXPECT_EQ(frame->exitCount(), 1);
  EXPECT_EQ(shown->exitCount(), 1);
}

TEST_F(BrokerTest, UnregisterRemovesOnlyTheModuleStillRegistered) {
  auto registered = createModule<Calculator>(broker_, "A");
  Calculator other(broker_, "A");
  broker_->unregisterModule("A", &other);
  EXPECT_EQ(broker_->getModuleCore("A"), registered);
  broker_->unregisterModule("A", registered.get());
  EXPECT_EQ(broker_->getModuleCore("A"), nullptr);
}

TEST_F(BrokerTest, InitTwiceThrowsAndTouchesNothing) {
  auto pool = broker_->getThreadPool();
  auto monitor = broker_->getTaskMonitor();
  EXPECT_EQ(errorText([&] { broker_->init("other", "10.0.0.1", 1, "10.0.0.2", 2, 0x02); }),
            "\tKXBroker::init\n\tcould not initialize KXBroker twice.");
  EXPECT_EQ(broker_->getName(), "testBroker");
  EXPECT_EQ(broker_->getIP(), "127.0.0.1");
  EXPECT_EQ(broker_->getPort(), 9559);
  EXPECT_FALSE(broker_->hasParent());
  EXPECT_EQ(broker_->getThreadPool(), pool);
  EXPECT_EQ(broker_->getTaskMonitor(), monitor);
  EXPECT_EQ(pool->getThreadCount(), 10);
}

TEST_F(BrokerTest, ShutdownTwiceDoesNothingTheSecondTime) {
  createModule<Calculator>(broker_, "A");
  broker_->shutdown();
  EXPECT_TRUE(broker_->isShuttingDown());
  LogCapture capture;
  broker_->shutdown();
  EXPECT_TRUE(capture.withFunction(kShutdown).empty());
}

TEST_F(BrokerTest, ShutdownLeavesTheManagerAndStopsThePool) {
  auto manager = KXBrokerManager::getInstance();
  auto listed = manager->getBrokers();
  ASSERT_NE(std::find(listed.begin(), listed.end(), broker_), listed.end());
  broker_->shutdown();
  listed = manager->getBrokers();
  EXPECT_EQ(std::find(listed.begin(), listed.end(), broker_), listed.end());
  EXPECT_TRUE(broker_->getThreadPool()->isShutDown());
}

TEST(BrokerInit, BrokerInfoDescribesTheBroker) {
  auto broker =
      KXBroker::createBroker("info", "192.168.1.2", 9600, "", 0, KXBroker::kKeepAlive, "", false);
  const KXBrokerInfo info = broker->getBrokerInfo();
  EXPECT_EQ(info.name, "info");
  EXPECT_EQ(info.architecture, 1);
  EXPECT_EQ(info.ip, "192.168.1.2");
  EXPECT_EQ(info.port, 9600);
  EXPECT_EQ(info.processId, static_cast<int>(getpid()));
  EXPECT_TRUE(info.isABroker);
  EXPECT_TRUE(info.keepAlive);
  EXPECT_FALSE(broker->hasParent());

  LogCapture capture;
  broker->shutdown();
  // Kept alive: no "Exit" line.
  EXPECT_EQ(messagesOf(capture, kShutdown),
            (std::vector<std::string>{"Shutdown \"info\" broker\n"}));
}

TEST(BrokerInit, EmptyIpWithoutParentBecomesAnyAddress) {
  auto broker = KXBroker::createBroker("anywhere", "", 9600, "", 0, 0, "", false);
  EXPECT_EQ(broker->getIP(), "0.0.0.0");
  EXPECT_EQ(broker->getBrokerInfo().ip, "0.0.0.0");
  EXPECT_FALSE(broker->getBrokerInfo().keepAlive);
  broker->shutdown();
}

TEST(BrokerInit, ParentIpMarksAParentAndKeepsAnEmptyIp) {
  auto broker = KXBroker::createBroker("child", "", 9600, "10.1.2.3", 9559, 0, "", false);
  EXPECT_TRUE(broker->hasParent());
  EXPECT_EQ(broker->getIP(), "");
  EXPECT_EQ(broker->getParentIP(), "10.1.2.3");
  EXPECT_EQ(broker->getParentPort(), 9559);
  broker->shutdown();
}

TEST(BrokerInit, SingleThreadedFlagStartsOneWorker) {
  auto single = KXBroker::createBroker("single", "127.0.0.1", 9601, "", 0,
                                       KXBroker::kSingleThreaded, "", false);
  EXPECT_EQ(single->getThreadPool()->getThreadCount(), 1);
  EXPECT_EQ(single->getThreadPool()->getMaxThreadCount(), 200);
  single->shutdown();
}

TEST(BrokerInit, ConstructedBrokerIsClosedUntilInit) {
  auto broker = std::make_shared<KXBroker>();
  EXPECT_EQ(broker->getThreadPool(), nullptr);
  EXPECT_EQ(broker->getTaskMonitor(), nullptr);
  broker->init("late", "127.0.0.1", 9602, "", 0, 0);
  EXPECT_NE(broker->getThreadPool(), nullptr);
  EXPECT_NE(broker->getTaskMonitor(), nullptr);
  broker->shutdown();
}

TEST(BrokerInit, NonEmptyPathIsDeprecated) {
  LogCapture capture;
  auto broker =
      KXBroker::createBroker("withPath", "127.0.0.1", 9603, "", 0, 0, "/some/path", false);
  auto records = capture.withFunction("KX::KXBroker::createBroker");
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].message,
            "Calling the broker constructor with a non-empty path, is deprecated\n");
  EXPECT_EQ(records[1].message, "it will not be taken into account, please use tu::path.\n");
  EXPECT_EQ(records[0].level, tu::log::warning);
  EXPECT_EQ(records[0].category, "core.common.broker");
  broker->shutdown();
}

TEST(BrokerInit, EmptyPathLogsNoWarning) {
  LogCapture capture;
  auto broker = KXBroker::createBroker("noPath", "127.0.0.1", 9604, "", 0, 0, "", false);
  EXPECT_TRUE(capture.withFunction("KX::KXBroker::createBroker").empty());
  broker->shutdown();
}

TEST(BrokerLifetime, ReleasingAnUnlistedBrokerStopsItsModules) {
  auto broker = std::make_shared<KXBroker>();
  broker->init("released", "127.0.0.1", 9605, "", 0, 0);
  auto module = createModule<Calculator>(broker, "M");
  auto pool = broker->getThreadPool();
  broker.reset();
  EXPECT_EQ(module->exitCount(), 1);
  EXPECT_TRUE(pool->isShutDown());
}

TEST_F(BrokerTest, LookupFillsTheModuleDescription) {
  createModule<Calculator>(broker_, "Calc");
  KXModuleInfo info;
  info.name = "stale";
  EXPECT_EQ(broker_->getModuleByName("Calc", false, info), 0);
  EXPECT_EQ(info.name, "Calc");
  EXPECT_EQ(info.architecture, 1);
  EXPECT_EQ(info.ip, "127.0.0.1");
  EXPECT_EQ(info.port, 9559);
  EXPECT_EQ(info.processId, static_cast<int>(getpid()));
  EXPECT_FALSE(info.isABroker);

  KXModuleInfo missing;
  missing.name = "stale";
  EXPECT_EQ(broker_->getModuleByName("Nowhere", false, missing), -1);
  EXPECT_EQ(missing.name, "");

  KXModuleInfo explored;
  EXPECT_EQ(broker_->exploreToGetModuleByName("Calc", true, true, "", false, explored), 0);
  EXPECT_EQ(explored.name, "Calc");
  KXModuleInfo unexplored;
  EXPECT_EQ(broker_->exploreToGetModuleByName("Nowhere", true, true, "", false, unexplored), -1);
}

TEST_F(BrokerTest, GlobalModuleListHoldsTheLocalModules) {
  createModule<Calculator>(broker_, "B");
  createModule<Calculator>(broker_, "A");
  auto list = broker_->getGlobalModuleList();
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(list[0].name, "A");
  EXPECT_EQ(list[1].name, "B");
  EXPECT_EQ(list[1].ip, "127.0.0.1");
  EXPECT_TRUE(broker_->isModulePresent("A"));
  EXPECT_FALSE(broker_->isModulePresent("C"));
  auto modules = broker_->getModules();
  ASSERT_EQ(modules.size(), 2u);
  EXPECT_EQ(modules[0]->getName(), "A");
}

TEST_F(BrokerTest, MethodCallRunsTheMethod) {
  createModule<Calculator>(broker_, "Calc");
  KXValue params;
  params.arrayPush(KXValue(2));
  params.arrayPush(KXValue(40));
  KXValue result = broker_->methodCall("Calc", "add", params);
  ASSERT_EQ(result.getType(), KXValue::TypeInt);
  EXPECT_EQ(static_cast<int>(result), 42);
}

TEST_F(BrokerTest, MethodCallErrors) {
  createModule<Calculator>(broker_, "Calc");
  KXValue params;
  params.arrayPush(KXValue("why not"));
  EXPECT_EQ(errorText([&] { broker_->methodCall("Ghost", "add", params); }),
            "\tKXBroker::methodCall\n\tModule not found.Could not execute method \"add\" of "
            "module \"Ghost\" because this module does not exist.");
  EXPECT_EQ(errorText([&] { broker_->methodCall("Calc", "nope", params); }),
            "\tCalc::Method not found\n\tFunction nope does not exist in module Calc");
  EXPECT_EQ(errorText([&] { broker_->methodCall("Calc", "fail", params); }),
            "\tKXBroker::methodCall\n\tmethodCall: method: fail, params: [\"why not\"]\n"
            "\tCalc::fail\n\twhy not");
}

TEST_F(BrokerTest, PostErrors) {
  createModule<Calculator>(broker_, "Calc");
  KXValue params;
  params.arrayPush(KXValue(1));
  params.arrayPush(KXValue(2));
  EXPECT_EQ(errorText([&] { broker_->post("Ghost", "add", params); }),
            "\tKXBroker::post\n\tModule not found.Could not execute method \"add\" of "
            "module \"Ghost\" because this module does not exist.");
  EXPECT_EQ(errorText([&] { broker_->post("Calc", "nope", params); }),
            "\tCalc::Method not found\n\tFunction nope does not exist in module Calc");

  // A pool that refuses the task: the entry leaves the monitor again.
  broker_->getThreadPool()->shutdown();
  EXPECT_EQ(errorText([&] { broker_->post("Calc", "add", params); }),
            "\tKXBroker::post\n\tpost method: add, params: [1, 2]\n"
            "\tKXBroker::post\n\tThe broker is shutting down.");
  EXPECT_TRUE(broker_->getTaskMonitor()->getTaskList().empty());
}

TEST_F(BrokerTest, PostRunsTheMethodOnThePool) {
  auto calc = createModule<Calculator>(broker_, "Calc");
  KXValue params;
  params.arrayPush(KXValue("posted"));
  const int id = broker_->post("Calc", "note", params);
  EXPECT_FALSE(broker_->getTaskMonitor()->wait(id, 0));
  EXPECT_FALSE(broker_->getTaskMonitor()->isRunning(id));
  EXPECT_EQ(calc->notes(), (std::vector<std::string>{"posted"}));
}

TEST_F(BrokerTest, PostedCallIsRunningAsSoonAsItsIdIsReturned) {
  auto blocker = createModule<Blocker>(broker_, "Blocker");
  KXValue none;
  none.arraySetSize(0);
  const int id = broker_->post("Blocker", "block", none);
  EXPECT_TRUE(broker_->getTaskMonitor()->isRunning(id));
  ASSERT_TRUE(blocker->started().wait());
  auto tasks = broker_->getTaskMonitor()->getTaskList();
  ASSERT_EQ(tasks.size(), 1u);
  EXPECT_EQ(tasks[0].id, id);
  EXPECT_EQ(tasks[0].moduleName, "Blocker");
  EXPECT_EQ(tasks[0].methodName, "block");
  blocker->release();
  EXPECT_FALSE(broker_->getTaskMonitor()->wait(id, 0));
}

TEST(BrokerTaskIds, FirstPostsOfANewBrokerGetTwoFourSix) {
  auto broker = KXBroker::createBroker("ids", "127.0.0.1", 9606, "", 0, 0, "", false);
  auto calc = createModule<Calculator>(broker, "Calc");
  KXValue params;
  params.arrayPush(KXValue("x"));
  std::vector<int> ids;
  for (int i = 0; i < 3; ++i) ids.push_back(broker->post("Calc", "note", params));
  EXPECT_EQ(ids, (std::vector<int>{2, 4, 6}));
  for (int id : ids) EXPECT_FALSE(broker->getTaskMonitor()->wait(id, 0));
  EXPECT_EQ(calc->notes().size(), 3u);
  broker->shutdown();
}

TEST(BrokerTaskIds, IdsWrapAfterTheLargestEvenId) {
  auto broker = KXBroker::createBroker("wrap", "127.0.0.1", 9607, "", 0, 0, "", false);
  broker->resetTaskIds(2147483642);
  EXPECT_EQ(broker->newTaskId(), 2147483644);
  EXPECT_EQ(broker->newTaskId(), 2147483646);
  EXPECT_EQ(broker->newTaskId(), 2);
  EXPECT_EQ(broker->newTaskId(), 4);
  auto info = broker->createTaskInfo("M", "m");
  EXPECT_EQ(info->id, 6);
  EXPECT_EQ(info->moduleName, "M");
  EXPECT_EQ(info->methodName, "m");
  broker->shutdown();
}

TEST_F(BrokerTest, QueueParallelCallNamesTheTaskAndEntersTheMonitorFirst) {
  auto info = broker_->createTaskInfo("Mod", "meth");
  auto ran = std::make_shared<Latch>(1);
  bool runningWhenRun = false;
  auto monitor = broker_->getTaskMonitor();
  auto task = std::make_shared<FunctionTask>([&] {
    runningWhenRun = monitor->isRunning(info->id);
    ran->countDown();
  });
  EXPECT_EQ(broker_->queueParallelCall(info, task), info->id);
  EXPECT_EQ(task->getName(), "pcall: Mod::meth");
  ASSERT_TRUE(ran->wait());
  EXPECT_TRUE(runningWhenRun);
  monitor->remove(info->id);
}

TEST_F(BrokerTest, ShutdownFromAMethodOnTheBrokersOwnPool) {
  auto other = createModule<Calculator>(broker_, "Other");
  auto stopper = createModule<Stopper>(broker_, "Stopper");
  KXValue none;
  none.arraySetSize(0);
  broker_->post("Stopper", "stopBroker", none);
  ASSERT_TRUE(stopper->done().wait());
  EXPECT_TRUE(broker_->isShuttingDown());
  EXPECT_EQ(other->exitCount(), 1);
  EXPECT_TRUE(stopper->isExiting());
  EXPECT_TRUE(broker_->getModules().empty());
  EXPECT_TRUE(broker_->getThreadPool()->isShutDown());
}

TEST_F(BrokerTest, GetProxyReturnsTheSameProxyEveryTime) {
  createModule<Calculator>(broker_, "Calc");
  auto first = broker_->getProxy("Calc");
  auto second = broker_->getProxy("Calc", 0, 0);
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first, second);
  EXPECT_EQ(first->getModuleName(), "Calc");
  EXPECT_TRUE(first->isLocal());
}

TEST_F(BrokerTest, SharedProxyFollowsAModuleReplacedUnderItsName) {
  auto original = createModule<Calculator>(broker_, "Calc");
  auto before = broker_->getProxy("Calc");
  auto replacement = createModule<Calculator>(broker_, "Calc");
  auto after = broker_->getProxy("Calc");
  EXPECT_NE(before, after);
  after->call<void>("note", std::string("to the new one"));
  EXPECT_EQ(replacement->notes(), std::vector<std::string>{"to the new one"});
  EXPECT_TRUE(original->notes().empty());

  replacement->exit();
  EXPECT_EQ(errorText([&] { broker_->getProxy("Calc"); }),
            "\tKXProxy::constructor\n\tModule 'Calc' not found.");
}

TEST_F(BrokerTest, ConcurrentProxyRequestsSettleOnOneProxy) {
  createModule<Calculator>(broker_, "Calc");
  constexpr int kThreads = 8;
  std::vector<std::shared_ptr<KXProxy>> seen(kThreads);
  Latch go(1);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      go.wait();
      seen[i] = broker_->getProxy("Calc");
    });
  }
  go.countDown();
  for (auto& thread : threads) thread.join();
  auto kept = broker_->getProxy("Calc");
  EXPECT_EQ(broker_->getProxy("Calc"), kept);
  EXPECT_NE(std::find(seen.begin(), seen.end(), kept), seen.end());
}

TEST_F(BrokerTest, ConcurrentCallsPostsAndRegistrations) {
  auto calc = createModule<Calculator>(broker_, "Calc");
  constexpr int kThreads = 4;
  constexpr int kRounds = 50;
  std::vector<std::vector<int>> ids(kThreads);
  std::vector<int> sums(kThreads, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int round = 0; round < kRounds; ++round) {
        KXValue terms;
        terms.arrayPush(KXValue(t));
        terms.arrayPush(KXValue(round));
        sums[t] += static_cast<int>(broker_->methodCall("Calc", "add", terms));
        KXValue text;
        text.arrayPush(KXValue("n"));
        ids[t].push_back(broker_->post("Calc", "note", text));
        // Other modules come and go meanwhile.
        auto passing = createModule<Calculator>(broker_, "Passing" + std::to_string(t));
        passing->exit();
      }
    });
  }
  for (auto& thread : threads) thread.join();
  std::vector<int> all;
  for (int t = 0; t < kThreads; ++t) {
    EXPECT_EQ(sums[t], t * kRounds + kRounds * (kRounds - 1) / 2);
    for (int id : ids[t]) {
      EXPECT_FALSE(broker_->getTaskMonitor()->wait(id, 0));
      all.push_back(id);
    }
  }
  std::sort(all.begin(), all.end());
  EXPECT_EQ(std::adjacent_find(all.begin(), all.end()), all.end()) << "an id was given twice";
  EXPECT_EQ(calc->notes().size(), static_cast<size_t>(kThreads * kRounds));
  EXPECT_EQ(broker_->getModules().size(), 1u);
}

TEST_F(BrokerTest, GetProxyOfAnUnknownModuleThrows) {
  EXPECT_EQ(errorText([&] { broker_->getProxy("Ghost"); }),
            "\tKXProxy::constructor\n\tModule 'Ghost' not found.");
}

}  // namespace
}  // namespace testing
}  // namespace KX
