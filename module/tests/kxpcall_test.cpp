#include "module/kxpcalltask.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "broker/kxbroker.h"
#include "log/tests/logtestsupport.h"
#include "module/kxtaskmonitor.h"
#include "module/tests/proxy_test_support.h"
#include "thread/kxthreadpool.h"

namespace KX {
namespace {

using testing::args;
using testing::BrokerTest;
using testing::Calculator;
using testing::errorOf;
using testing::errorText;
using testing::eventually;

constexpr char kStopDescription[] =
    "The method 'stop' has not been implement in your module. Module authors are encouraged "
    "to implement this method if they wish to allow long running methods to be stopped. "
    "Please see the documentation for further details.";

long long millisecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                               start)
      .count();
}

// ---- The task kinds, run directly on the test's threads.

class PCallTaskTest : public BrokerTest {
 protected:
  void SetUp() override {
    BrokerTest::SetUp();
    module_ = createModule<Calculator>(broker_, "Calc");
    monitor_ = broker_->getTaskMonitor();
  }

  // A task info entered in the monitor, as the broker does before queueing.
  std::shared_ptr<detail::KXTaskInfo> postedInfo(const std::string& method) {
    auto info = broker_->createTaskInfo("Calc", method);
    monitor_->add(info);
    return info;
  }

  std::shared_ptr<Calculator> module_;
  std::shared_ptr<KXTaskMonitor> monitor_;
};

TEST_F(PCallTaskTest, GenericTaskCallsTheMethodAndEndsItsEntry) {
  auto info = postedInfo("add");
  auto task = std::make_shared<GenericPCallTask>(monitor_, info, module_, "add", args({2, 3}));
  EXPECT_FALSE(task->hasStarted());
  EXPECT_TRUE(monitor_->isRunning(info->id));
  task->run();
  EXPECT_TRUE(task->hasStarted());
  EXPECT_EQ(module_->addCalls.load(), 1);
  EXPECT_FALSE(monitor_->isRunning(info->id));
}

TEST_F(PCallTaskTest, BrokerPostKindRunsANamedMethod) {
  auto info = postedInfo("add");
  std::shared_ptr<KXTask> task =
      std::make_shared<pcall_request>(monitor_, info, module_, "add", args({1, 1}));
  task->run();
  EXPECT_EQ(module_->addCalls.load(), 1);
  EXPECT_FALSE(monitor_->isRunning(info->id));
}

TEST_F(PCallTaskTest, GenericTaskOfADestroyedModuleFails) {
  auto gone = std::make_shared<Calculator>(broker_, "Gone");
  std::weak_ptr<KXModuleCore> weak = gone;
  gone.reset();
  ASSERT_TRUE(weak.expired());
  auto info = postedInfo("add");
  GenericPCallTask task(monitor_, info, weak, "add", args({1, 2}));
  EXPECT_EQ(errorOf([&] { task.run(); }),
            errorText("ThreadedLocalExecution", "getModuleCore", "module was destroyed"));
  EXPECT_FALSE(monitor_->isRunning(info->id));
}

TEST_F(PCallTaskTest, GenericTaskOfAnUnknownMethodFails) {
  auto info = postedInfo("nope");
  GenericPCallTask task(monitor_, info, module_, "nope", args({}));
  EXPECT_EQ(errorOf([&] { task.run(); }), errorText("KXProxy", "genericPCall", "method not found"));
  EXPECT_FALSE(monitor_->isRunning(info->id));
}

TEST_F(PCallTaskTest, AFailingMethodEndsTheEntryAndItsErrorLeavesRun) {
  auto info = postedInfo("fail");
  GenericPCallTask task(monitor_, info, module_, "fail", args({}));
  EXPECT_EQ(errorOf([&] { task.run(); }), errorText("Calculator", "fail", "deliberate failure"));
  EXPECT_FALSE(monitor_->isRunning(info->id));
}

TEST_F(PCallTaskTest, BoundTaskCallsTheFunctorWithConversion) {
  auto info = postedInfo("add");
  KXPCallTask task(monitor_, info, module_, module_->findMethod("add"), args({4, 5}));
  task.run();
  EXPECT_EQ(module_->addCalls.load(), 1);
  EXPECT_FALSE(monitor_->isRunning(info->id));

  auto badInfo = postedInfo("add");
  KXPCallTask bad(monitor_, badInfo, module_, module_->findMethod("add"), args({"4", 5}));
  EXPECT_EQ(errorOf([&] { bad.run(); }), errorText("convertFromKXValue", "convertFromKXValue",
                                                   "Parameter type is String instead of int"));
  EXPECT_EQ(module_->addCalls.load(), 1);
  EXPECT_FALSE(monitor_->isRunning(badInfo->id));
}

TEST_F(PCallTaskTest, BoundTaskOfAnExitingModuleRunsNothing) {
  module_->exit();
  auto info = postedInfo("add");
  KXPCallTask task(monitor_, info, module_, module_->findMethod("add"), args({4, 5}));
  ::testing::internal::CaptureStdout();
  task.run();
  const std::string printed = ::testing::internal::GetCapturedStdout();
  EXPECT_NE(printed.find("WARNING: Attempt to run a new task while shutting down. Task will not "
                         "be executed."),
            std::string::npos);
  EXPECT_EQ(module_->addCalls.load(), 0);
  EXPECT_FALSE(monitor_->isRunning(info->id));
}

TEST_F(PCallTaskTest, TheRunningMethodFindsItsIdAndSeesTheStopRequest) {
  auto info = postedInfo("runUntilStopped");
  auto task = std::make_shared<KXPCallTask>(monitor_, info, module_,
                                            module_->findMethod("runUntilStopped"), args({}));
  std::thread worker([task] { task->run(); });
  EXPECT_EQ(module_->waitForOwnTaskId(), info->id);
  EXPECT_FALSE(module_->stoppedOnRequest.load());
  monitor_->stop(info->id);
  EXPECT_FALSE(monitor_->wait(info->id, 0));
  worker.join();
  EXPECT_TRUE(module_->stoppedOnRequest.load());
}

TEST_F(PCallTaskTest, ADroppedTaskEndsItsEntry) {
  auto info = postedInfo("add");
  auto task = std::make_shared<GenericPCallTask>(monitor_, info, module_, "add", args({1, 2}));
  std::atomic<bool> waitResult{true};
  // Bounded: a leftover entry makes the wait time out instead of hanging the test.
  std::thread waiter([&] { waitResult = monitor_->wait(info->id, 20000); });
  task.reset();  // never run: the pool dropped it
  waiter.join();
  EXPECT_FALSE(waitResult.load());
  EXPECT_FALSE(monitor_->isRunning(info->id));
  EXPECT_EQ(module_->addCalls.load(), 0);
}

TEST_F(PCallTaskTest, StoppingTheWorkerRequestsTheCallToStop) {
  auto info = postedInfo("add");
  GenericPCallTask task(monitor_, info, module_, "add", args({1, 2}));
  task.stop();
  EXPECT_TRUE(monitor_->isStopRequested(info->id));
  monitor_->remove(info->id);
  task.stop();  // the call has ended: nothing to ask, no error
  EXPECT_FALSE(monitor_->isStopRequested(info->id));
}

// ---- Parallel calls through the broker and a proxy.

class ParallelCallTest : public BrokerTest {
 protected:
  void SetUp() override {
    BrokerTest::SetUp();
    module_ = createModule<Calculator>(broker_, "Calc");
    proxy_ = std::make_shared<KXProxy>(broker_, "Calc");
  }

  void TearDown() override {
    if (module_) module_->release.countDown();
    BrokerTest::TearDown();
  }

  std::shared_ptr<Calculator> module_;
  std::shared_ptr<KXProxy> proxy_;
};

TEST_F(ParallelCallTest, TheFirstIdsOfANewBrokerAre2_4_6) {
  std::vector<int> ids;
  for (int i = 0; i < 3; ++i) ids.push_back(proxy_->genericPCall("add", args({i, i})));
  EXPECT_EQ(ids, (std::vector<int>{2, 4, 6}));
  for (int id : ids) EXPECT_FALSE(proxy_->wait(id, 0));
  EXPECT_EQ(module_->addCalls.load(), 3);
}

TEST_F(ParallelCallTest, IdsWrapAfterTheLargestEvenId) {
  broker_->resetTaskIds(2147483644);
  const int last = proxy_->genericPCall("add", args({1, 2}));
  const int wrapped = proxy_->pCall("add", 1, 2);
  const int next = proxy_->post("add", 1, 2);
  EXPECT_EQ(last, 2147483646);
  EXPECT_EQ(wrapped, 2);
  EXPECT_EQ(next, 4);
  for (int id : {last, wrapped, next}) EXPECT_FALSE(proxy_->wait(id, 0));
  EXPECT_EQ(module_->addCalls.load(), 3);
}

TEST_F(ParallelCallTest, ACallIsRunningAsSoonAsItsIdIsReturned) {
  // Occupy every worker with calls that block, and leave at least one more queued: the
  // pool can then start nothing posted afterwards until they are released.
  std::shared_ptr<KXThreadPool> pool = broker_->getThreadPool();
  std::vector<int> holds;
  for (int i = 0; i < pool->getMaxThreadCount() + 1; ++i) {
    holds.push_back(proxy_->genericPCall("hold", args({})));
  }
  ASSERT_TRUE(eventually([&] {
    return pool->getQueueLength() > 0 && pool->getBusyCount() == pool->getThreadCount();
  }));

  const int id = proxy_->genericPCall("add", args({20, 22}));
  EXPECT_TRUE(proxy_->isRunning(id));
  EXPECT_TRUE(broker_->getTaskMonitor()->isRunning(id));
  EXPECT_EQ(module_->addCalls.load(), 0);  // not started: the entry came first

  module_->release.countDown();
  EXPECT_FALSE(proxy_->wait(id, 0));
  EXPECT_FALSE(proxy_->isRunning(id));
  EXPECT_EQ(module_->addCalls.load(), 1);
  for (int hold : holds) EXPECT_FALSE(proxy_->wait(hold, 0));
}

TEST_F(ParallelCallTest, ALongMethodSeesTheStopRequest) {
  const int id = proxy_->pCall("runUntilStopped");
  EXPECT_EQ(module_->waitForOwnTaskId(), id);
  EXPECT_TRUE(proxy_->isRunning(id));
  proxy_->stop(id);
  EXPECT_FALSE(proxy_->wait(id, 0));
  EXPECT_TRUE(module_->stoppedOnRequest.load());
  EXPECT_FALSE(proxy_->isRunning(id));
}

TEST_F(ParallelCallTest, StopOfAnEndedCallThrows) {
  const int id = proxy_->genericPCall("add", args({1, 2}));
  EXPECT_FALSE(proxy_->wait(id, 0));
  EXPECT_EQ(errorOf([&] { proxy_->stop(id); }),
            errorText("KXTaskMonitor", "stop", kStopDescription));
}

TEST_F(ParallelCallTest, WaitGivesUpOnALongCall) {
  const int id = proxy_->genericPCall("hold", args({}));
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(proxy_->wait(id, 100));
  const long long waited = millisecondsSince(start);
  EXPECT_GE(waited, 100);
  EXPECT_LT(waited, 1000);
  EXPECT_TRUE(proxy_->isRunning(id));
  module_->release.countDown();
  EXPECT_FALSE(proxy_->wait(id, 0));
}

TEST_F(ParallelCallTest, WaitSeesAShortCallEnd) {
  const int id = proxy_->pCall("pause", 30);
  EXPECT_FALSE(proxy_->wait(id, 100));
  EXPECT_FALSE(proxy_->isRunning(id));
}

TEST_F(ParallelCallTest, WaitWithTimeout0WaitsUntilTheCallEnds) {
  const int id = proxy_->genericPCall("hold", args({}));
  ASSERT_TRUE(module_->waitForHolds(1));
  std::atomic<bool> released{false};
  std::thread releaser([&] {
    // Several wait steps later, so a wait that gives up early is caught.
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    released = true;
    module_->release.countDown();
  });
  EXPECT_FALSE(proxy_->wait(id, 0));
  EXPECT_TRUE(released.load());
  releaser.join();
}

TEST_F(ParallelCallTest, AFailingCallIsLoggedByTheWorkerAndEnds) {
  tu::log::testing::LogCapture capture;
  const int id = proxy_->genericPCall("fail", args({}));
  EXPECT_FALSE(proxy_->wait(id, 0));
  const std::string expected =
      "Error caught: " + errorText("Calculator", "fail", "deliberate failure");
  EXPECT_TRUE(eventually([&] {
    for (const auto& record : capture.records()) {
      if (record.message.find(expected) != std::string::npos) return true;
    }
    return false;
  }));
}

TEST_F(ParallelCallTest, TypedPCallRunsTheBoundMethod) {
  const int id = proxy_->pCall("add", 20, 22);
  EXPECT_EQ(id % 2, 0);
  EXPECT_FALSE(proxy_->wait(id, 0));
  EXPECT_EQ(module_->addCalls.load(), 1);
}

TEST_F(ParallelCallTest, TypedPCallOfAnUnknownMethodFails) {
  EXPECT_EQ(errorOf([&] { proxy_->pCall("nope", 1); }),
            errorText("KXProxy", "getMethodInfo", "Function nope does not exist in module Calc"));
}

TEST_F(ParallelCallTest, TypedPCallChecksTheArgumentTypes) {
  EXPECT_EQ(errorOf([&] { proxy_->pCall("add", 1, 2.5f); }),
            errorText("KXProxy", "call/pCall",
                      "When trying to call module 'Calc' function 'add' parameter #2 is of type "
                      "float instead of type int"));
  EXPECT_EQ(module_->addCalls.load(), 0);
}

TEST_F(ParallelCallTest, GenericPCallOfAnUnknownMethodFails) {
  EXPECT_EQ(errorOf([&] { proxy_->genericPCall("nope", args({})); }),
            errorText("KXProxy", "genericPCall", "method not found"));
}

TEST_F(ParallelCallTest, GenericPCallAfterShutdownFails) {
  broker_->shutdown();
  // The proxy's module is gone with the broker's module table.
  module_->release.countDown();
  module_.reset();
  EXPECT_EQ(
      errorOf([&] {
        proxy_->genericPCall("add", args({1, 2}));
      }),
      errorText("KXProxy", "getModuleCore", "module is deleted, cannot call function of Calc"));
}

}  // namespace
}  // namespace KX
