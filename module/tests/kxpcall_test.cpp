// Parallel calls: the pooled tasks, their ids, and calls from many threads while the
// module goes away.
#include "module/kxpcalltask.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "module/tests/proxy_test_support.h"
#include "thread/kxthreadpool.h"

namespace KX {
namespace testing {
namespace {

using ParallelCallTest = CalcTest;
using MakeTask =
    std::function<std::shared_ptr<detail::PCallBase>(std::shared_ptr<detail::KXTaskInfo>)>;

// ---------------------------------------------------------------- the task monitor

std::shared_ptr<detail::KXTaskInfo> makeInfo(int id, const std::string& module = "Mod") {
  return std::make_shared<detail::KXTaskInfo>(id, module, "run" + std::to_string(id));
}

TEST(KXTaskMonitorTest, EntriesByIdWithTheirStopRequestAndThread) {
  KXTaskMonitor monitor;
  const auto absent = makeInfo(30);
  monitor.setThread(absent);  // no entry yet: nothing recorded
  for (const auto& info : {makeInfo(10, "Else"), absent, makeInfo(6), makeInfo(24)}) {
    monitor.add(info);
    if (info->id != 30) monitor.setThread(info);
  }
  std::string list;
  for (const auto& entry : monitor.getTaskList())
    list += entry.moduleName + "::" + entry.methodName + " ";
  EXPECT_EQ(list, "Mod::run6 Else::run10 Mod::run24 Mod::run30 ");
  EXPECT_EQ(monitor.find(10)->toString(), "Else::run10");
  // The lowest id that the calling thread runs for the module.
  EXPECT_EQ(monitor.getTaskIdForCurrentThread("Mod"), 6);
  EXPECT_EQ(monitor.getTaskIdForCurrentThread("Else"), 10);
  int seenElsewhere = 0;
  std::thread([&] { seenElsewhere = monitor.getTaskIdForCurrentThread("Mod"); }).join();
  EXPECT_EQ(seenElsewhere, -1);
  monitor.stop(6);
  EXPECT_TRUE(monitor.isStopRequested(6));
  EXPECT_FALSE(monitor.isStopRequested(24));
  monitor.add(makeInfo(6));  // replaces the entry, stop request and thread included
  EXPECT_FALSE(monitor.isStopRequested(6));
  EXPECT_EQ(monitor.getTaskIdForCurrentThread("Mod"), 24);
  monitor.remove(24);
  monitor.remove(24);  // an unknown id is no error
  EXPECT_EQ(monitor.find(24), nullptr);
  EXPECT_EQ(monitor.getTaskIdForCurrentThread("Mod"), -1);
  EXPECT_EQ(errorOf([&] { monitor.stop(24); }), kStopText);
}

TEST(KXTaskMonitorTest, WaitsEndWhenTheirEntryGoesOrTheirTimeoutHasPassed) {
  KXTaskMonitor monitor;
  EXPECT_FALSE(monitor.wait(32, 100));  // unknown: ended already
  monitor.add(makeInfo(34));
  // The timeout counts in whole steps of 40 ms: 100 gives up after 120.
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(monitor.wait(34, 100));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(120));
  std::atomic<bool> removed{false};
  std::atomic<int> ended{0};
  std::vector<std::thread> waiters;
  for (int timeout : {0, -1, 20000}) {
    waiters.emplace_back([&, timeout] { ended += !monitor.wait(34, timeout) && removed; });
  }
  // Several wait steps, so that a waiter giving up early is caught.
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  removed = true;
  monitor.remove(34);
  for (auto& waiter : waiters) waiter.join();
  EXPECT_EQ(ended, 3);
}

// ---------------------------------------------------------------- parallel calls

// Each kind, run on the test's thread: the entry ends also when the call fails, and the
// error leaves run() for the worker to log.
TEST_F(ParallelCallTest, EveryTaskEndsItsEntryAndLetsItsErrorOut) {
  const auto monitor = broker_->getTaskMonitor();
  std::weak_ptr<KXModuleCore> gone = std::make_shared<Calculator>(broker_, "Gone");
  const auto generic = [&](std::weak_ptr<KXModuleCore> core, const char* method, KXValue params) {
    return MakeTask([=](auto info) {
      return std::make_shared<GenericPCallTask>(monitor, info, core, method, params);
    });
  };
  const auto bound = [&](const char* method, KXValue params) {
    return MakeTask([=](auto info) {
      return std::make_shared<KXPCallTask>(monitor, info, module_, module_->findMethod(method),
                                           params);
    });
  };
  const std::pair<MakeTask, std::string> cases[] = {
      {generic(module_, "add", args({2, 3})), ""},
      {generic(gone, "add", args({1, 2})),
       errorText("ThreadedLocalExecution", "getModuleCore", "module was destroyed")},
      {generic(module_, "nope", args({})),
       errorText("KXProxy", "genericPCall", "method not found")},
      {generic(module_, "fail", args({})), errorText("Calculator", "fail", "deliberate failure")},
      {bound("add", args({4, 5})), ""},
      {bound("add", args({"4", 5})), errorText("convertFromKXValue", "convertFromKXValue",
                                               "Parameter type is String instead of int")},
  };
  for (const auto& c : cases) {
    const auto info = broker_->createTaskInfo("Calc", "m");
    monitor->add(info);
    const auto task = c.first(info);
    EXPECT_FALSE(task->hasStarted());
    std::string error;
    try {
      task->run();
    } catch (const KXError& thrown) {
      error = thrown.what();
    }
    EXPECT_EQ(error, c.second);
    EXPECT_TRUE(task->hasStarted());
    EXPECT_FALSE(monitor->isRunning(info->id));
  }
  EXPECT_EQ(module_->addCalls, 2);

  // Stopping the worker asks the call to stop; once the call has ended there is nothing
  // to ask. A task dropped before it ran ends its entry, so that waiters wake.
  auto info = broker_->createTaskInfo("Calc", "m");
  monitor->add(info);
  auto task = bound("add", args({1, 1}))(info);
  task->stop();
  EXPECT_TRUE(monitor->isStopRequested(info->id));
  task.reset();
  EXPECT_FALSE(monitor->isRunning(info->id));
  bound("add", args({1, 1}))(info)->stop();

  module_->exit();
  info = broker_->createTaskInfo("Calc", "m");
  monitor->add(info);
  ::testing::internal::CaptureStdout();
  bound("add", args({1, 1}))(info)->run();
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), kExitingWarning);
  EXPECT_EQ(module_->addCalls, 2);
}

TEST_F(ParallelCallTest, IdsAreEvenUniqueAndWrapAfterTheLargest) {
  EXPECT_EQ(proxy_->genericPCall("add", args({1, 1})), 2);
  EXPECT_EQ(proxy_->pCall("add", 1, 1), 4);
  EXPECT_EQ(proxy_->post("add", 1, 1), 6);
  for (int id : {2, 4, 6}) EXPECT_FALSE(proxy_->wait(id, 0));
  constexpr int kLast = 2147483646 - 2 * 16;
  broker_->resetTaskIds(kLast);
  std::vector<std::vector<int>> ids(4);
  std::vector<std::thread> posters;
  for (auto& own : ids) {
    posters.emplace_back([&] {
      for (int i = 0; i < 8; ++i) own.push_back(proxy_->pCall("add", i, i));
    });
  }
  for (auto& poster : posters) poster.join();
  std::set<int> unique;
  std::set<int> expected;
  for (const auto& own : ids) unique.insert(own.begin(), own.end());
  for (int k = 1; k <= 16; ++k) expected.insert({kLast + 2 * k, 2 * k});
  EXPECT_EQ(unique, expected);
  for (int id : unique) EXPECT_FALSE(proxy_->wait(id, 0));
  EXPECT_EQ(module_->addCalls, 3 + 32);
}

TEST_F(ParallelCallTest, ACallIsRunningAsSoonAsItsIdIsReturned) {
  // Every worker blocked and one more call queued: nothing posted now can start.
  const std::shared_ptr<KXThreadPool> pool = broker_->getThreadPool();
  std::vector<int> holds;
  for (int i = 0; i < pool->getMaxThreadCount() + 1; ++i) {
    holds.push_back(proxy_->genericPCall("hold", args({})));
  }
  ASSERT_TRUE(eventually([&] {
    return pool->getQueueLength() > 0 && pool->getBusyCount() == pool->getThreadCount();
  }));
  const int id = proxy_->genericPCall("add", args({20, 22}));
  EXPECT_TRUE(proxy_->isRunning(id));
  EXPECT_TRUE(proxy_->wait(id, 1));
  EXPECT_EQ(module_->addCalls, 0);
  module_->release.countDown();
  for (int hold : holds) EXPECT_FALSE(proxy_->wait(hold, 0));
  EXPECT_FALSE(proxy_->wait(id, 0));
  EXPECT_FALSE(proxy_->isRunning(id));
  EXPECT_EQ(module_->addCalls, 1);
}

TEST_F(ParallelCallTest, ALongMethodSeesTheStopRequest) {
  const int id = proxy_->pCall("runUntilStopped");
  EXPECT_EQ(module_->waitForOwnTaskId(), id);
  proxy_->stop(id);
  EXPECT_FALSE(proxy_->wait(id, 0));
  EXPECT_TRUE(module_->stoppedOnRequest);
  EXPECT_EQ(errorOf([&] { proxy_->stop(id); }), kStopText);
}

// Threads calling one module through proxies (one shared, others their own) while the
// broker shuts down: every call gives the right result until the first fails with a
// KXError, or (a generic call) with the exiting module's empty answer; nothing hangs.
std::string callOnce(KXProxy& proxy, int kind, int i) {
  try {
    if (kind == 0) return proxy.call<int>("add", i, 7) == i + 7 ? "" : "wrong";
    if (kind == 1) {
      const KXValue result = proxy.genericCall("add", args({i, 3}));
      return result == KXValue(i + 3) ? "" : result.isValid() ? "wrong" : "empty";
    }
    const int id = i % 2 ? proxy.genericPCall("twice", KXValue(i)) : proxy.pCall("add", i, 1);
    return id > 0 && id % 2 == 0 && !proxy.wait(id, 20000) ? "" : "wrong";
  } catch (const KXError&) {
    return "error";
  }
}

TEST_F(BrokerTest, CallsFromManyThreadsWhileTheModuleExits) {
  constexpr int kThreads = 6;
  constexpr int kWarmUp = 50;                 // right calls of each thread before the shutdown
  createModule<Calculator>(broker_, "Calc");  // held by the broker only
  std::vector<std::shared_ptr<KXProxy>> proxies{std::make_shared<KXProxy>(broker_, "Calc")};
  for (int t = 1; t < kThreads; ++t) {
    proxies.push_back(t % 2 ? proxies[0] : std::make_shared<KXProxy>(broker_, "Calc"));
  }
  Latch warmedUp(kThreads);
  std::vector<int> right(kThreads, 0);
  std::vector<std::string> ending(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      const auto deadline = std::chrono::steady_clock::now() + kPatience;
      while (ending[t].empty() && std::chrono::steady_clock::now() < deadline) {
        ending[t] = callOnce(*proxies[t], t % 3, right[t]);
        if (ending[t].empty() && ++right[t] == kWarmUp) warmedUp.countDown();
      }
      if (right[t] < kWarmUp) warmedUp.countDown();  // the shutdown must not wait for it
    });
  }
  EXPECT_TRUE(warmedUp.wait());
  ::testing::internal::CaptureStdout();  // the exiting module's warnings
  broker_->shutdown();
  for (auto& thread : threads) thread.join();
  ::testing::internal::GetCapturedStdout();
  for (int t = 0; t < kThreads; ++t) {
    EXPECT_GE(right[t], kWarmUp) << t;
    // Only a generic call may end with the empty answer instead of an error.
    EXPECT_EQ(ending[t], t % 3 == 1 && ending[t] == "empty" ? "empty" : "error") << t;
  }
}

}  // namespace
}  // namespace testing
}  // namespace KX
