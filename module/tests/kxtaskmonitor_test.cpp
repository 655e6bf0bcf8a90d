#include "module/kxtaskmonitor.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "thread/tests/thread_test_support.h"
#include "value/kxerror.h"

namespace KX {
namespace {

using detail::KXTaskInfo;
using testing::Latch;

constexpr char kStopText[] =
    "\tKXTaskMonitor::stop\n\tThe method 'stop' has not been implement in your module. Module "
    "authors are encouraged to implement this method if they wish to allow long running "
    "methods to be stopped. Please see the documentation for further details.";

std::shared_ptr<KXTaskInfo> makeInfo(int id, const std::string& module = "Mod",
                                     const std::string& method = "run") {
  return std::make_shared<KXTaskInfo>(id, module, method);
}

long long millisecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                               start)
      .count();
}

TEST(KXTaskInfoTest, TextIsModuleColonColonMethod) {
  EXPECT_EQ(makeInfo(2, "KXMemory", "getData")->toString(), "KXMemory::getData");
}

TEST(KXTaskMonitorTest, AddFindRemove) {
  KXTaskMonitor monitor;
  auto info = makeInfo(4);
  EXPECT_FALSE(monitor.isRunning(4));
  EXPECT_EQ(monitor.find(4), nullptr);
  monitor.add(info);
  EXPECT_TRUE(monitor.isRunning(4));
  EXPECT_EQ(monitor.find(4), info);
  EXPECT_FALSE(monitor.isRunning(6));
  monitor.remove(4);
  EXPECT_FALSE(monitor.isRunning(4));
  EXPECT_EQ(monitor.find(4), nullptr);
  monitor.remove(4);  // an unknown id is no error
  EXPECT_FALSE(monitor.isRunning(4));
}

TEST(KXTaskMonitorTest, AddReplacesAnEntryWithTheSameId) {
  KXTaskMonitor monitor;
  auto first = makeInfo(8, "A", "one");
  auto second = makeInfo(8, "B", "two");
  monitor.add(first);
  monitor.stop(8);
  monitor.add(second);
  EXPECT_EQ(monitor.find(8), second);
  // The replacing entry starts without a stop request.
  EXPECT_FALSE(monitor.isStopRequested(8));
  ASSERT_EQ(monitor.getTaskList().size(), 1u);
}

TEST(KXTaskMonitorTest, TaskListIsOrderedById) {
  KXTaskMonitor monitor;
  monitor.add(makeInfo(10, "C", "c"));
  monitor.add(makeInfo(2, "A", "a"));
  monitor.add(makeInfo(6, "B", "b"));
  const auto list = monitor.getTaskList();
  ASSERT_EQ(list.size(), 3u);
  EXPECT_EQ(list[0].id, 2);
  EXPECT_EQ(list[0].moduleName, "A");
  EXPECT_EQ(list[0].methodName, "a");
  EXPECT_EQ(list[1].id, 6);
  EXPECT_EQ(list[2].id, 10);
  EXPECT_EQ(list[2].methodName, "c");
}

TEST(KXTaskMonitorTest, StopOfAnUnknownIdThrowsTheExactText) {
  KXTaskMonitor monitor;
  try {
    monitor.stop(12);
    FAIL() << "stop of an unknown id did not throw";
  } catch (const KXError& error) {
    EXPECT_STREQ(error.what(), kStopText);
  }
}

TEST(KXTaskMonitorTest, StopOfARemovedIdThrowsTheExactText) {
  KXTaskMonitor monitor;
  monitor.add(makeInfo(14));
  monitor.remove(14);
  try {
    monitor.stop(14);
    FAIL() << "stop of a removed id did not throw";
  } catch (const KXError& error) {
    EXPECT_STREQ(error.what(), kStopText);
  }
}

TEST(KXTaskMonitorTest, StopSetsTheFlagUntilTheEntryGoes) {
  KXTaskMonitor monitor;
  monitor.add(makeInfo(16));
  monitor.add(makeInfo(18));
  EXPECT_FALSE(monitor.isStopRequested(16));
  monitor.stop(16);
  EXPECT_TRUE(monitor.isStopRequested(16));
  EXPECT_TRUE(monitor.isStopRequested(16));  // stays set
  EXPECT_FALSE(monitor.isStopRequested(18));
  monitor.remove(16);
  EXPECT_FALSE(monitor.isStopRequested(16));
  EXPECT_FALSE(monitor.isStopRequested(99));
}

TEST(KXTaskMonitorTest, TaskIdForCurrentThreadNeedsThreadAndModule) {
  KXTaskMonitor monitor;
  auto info = makeInfo(20, "Mod", "run");
  monitor.add(info);
  // Posted, no thread recorded yet.
  EXPECT_EQ(monitor.getTaskIdForCurrentThread("Mod"), -1);
  monitor.setThread(info);
  EXPECT_EQ(monitor.getTaskIdForCurrentThread("Mod"), 20);
  EXPECT_EQ(monitor.getTaskIdForCurrentThread("Other"), -1);

  int seenOnOtherThread = 0;
  std::thread other([&] { seenOnOtherThread = monitor.getTaskIdForCurrentThread("Mod"); });
  other.join();
  EXPECT_EQ(seenOnOtherThread, -1);

  monitor.remove(20);
  EXPECT_EQ(monitor.getTaskIdForCurrentThread("Mod"), -1);
}

TEST(KXTaskMonitorTest, TaskIdForCurrentThreadIsTheLowestMatchingId) {
  KXTaskMonitor monitor;
  auto later = makeInfo(30, "Mod", "b");
  auto earlier = makeInfo(24, "Mod", "a");
  auto otherModule = makeInfo(22, "Else", "c");
  for (const auto& info : {later, earlier, otherModule}) {
    monitor.add(info);
    monitor.setThread(info);
  }
  EXPECT_EQ(monitor.getTaskIdForCurrentThread("Mod"), 24);
  EXPECT_EQ(monitor.getTaskIdForCurrentThread("Else"), 22);
}

TEST(KXTaskMonitorTest, SetThreadOfAnAbsentEntryRecordsNothing) {
  KXTaskMonitor monitor;
  auto info = makeInfo(26);
  monitor.setThread(info);
  monitor.add(info);
  EXPECT_EQ(monitor.getTaskIdForCurrentThread("Mod"), -1);
}

TEST(KXTaskMonitorTest, SetThreadRecordsTheCallingWorker) {
  KXTaskMonitor monitor;
  auto info = makeInfo(28);
  monitor.add(info);
  Latch recorded(1);
  Latch done(1);
  int seenByWorker = 0;
  std::thread worker([&] {
    monitor.setThread(info);
    seenByWorker = monitor.getTaskIdForCurrentThread("Mod");
    recorded.countDown();
    done.wait();
  });
  ASSERT_TRUE(recorded.wait());
  EXPECT_EQ(monitor.getTaskIdForCurrentThread("Mod"), -1);  // not this thread
  done.countDown();
  worker.join();
  EXPECT_EQ(seenByWorker, 28);
}

TEST(KXTaskMonitorTest, WaitOnAnUnknownIdReturnsFalseAtOnce) {
  KXTaskMonitor monitor;
  EXPECT_FALSE(monitor.wait(32, 0));
  EXPECT_FALSE(monitor.wait(32, 100));
  EXPECT_FALSE(monitor.wait(32, -5));
}

TEST(KXTaskMonitorTest, WaitTimesOutInWholeStepsOf40Ms) {
  KXTaskMonitor monitor;
  monitor.add(makeInfo(34));
  auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(monitor.wait(34, 100));  // gives up at 120 ms
  long long waited = millisecondsSince(start);
  EXPECT_GE(waited, 120);
  EXPECT_LT(waited, 1000);

  start = std::chrono::steady_clock::now();
  EXPECT_TRUE(monitor.wait(34, 50));  // gives up at 80 ms
  waited = millisecondsSince(start);
  EXPECT_GE(waited, 80);
  EXPECT_LT(waited, 1000);

  start = std::chrono::steady_clock::now();
  EXPECT_TRUE(monitor.wait(34, 1));  // one step
  EXPECT_GE(millisecondsSince(start), 40);
  EXPECT_TRUE(monitor.isRunning(34));
}

TEST(KXTaskMonitorTest, WaitReturnsFalseWhenTheEntryGoesFirst) {
  KXTaskMonitor monitor;
  monitor.add(makeInfo(36));
  std::thread ender([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(30));  // a 30 ms call
    monitor.remove(36);
  });
  EXPECT_FALSE(monitor.wait(36, 100));
  EXPECT_FALSE(monitor.isRunning(36));
  ender.join();
}

TEST(KXTaskMonitorTest, WaitWithoutTimeoutWaitsForTheEnd) {
  for (int timeout : {0, -1}) {
    KXTaskMonitor monitor;
    monitor.add(makeInfo(38));
    std::atomic<bool> removed{false};
    std::thread ender([&] {
      // Longer than several wait steps, so a waiter giving up early is caught.
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
      removed = true;
      monitor.remove(38);
    });
    EXPECT_FALSE(monitor.wait(38, timeout));
    EXPECT_TRUE(removed.load()) << "timeout " << timeout;
    ender.join();
  }
}

TEST(KXTaskMonitorTest, RemovingAnotherIdDoesNotEndAWait) {
  KXTaskMonitor monitor;
  monitor.add(makeInfo(40));
  monitor.add(makeInfo(42));
  std::thread other([&] { monitor.remove(42); });
  EXPECT_TRUE(monitor.wait(40, 80));
  other.join();
  EXPECT_TRUE(monitor.isRunning(40));
}

TEST(KXTaskMonitorTest, ManyWaitersWakeOnOneRemove) {
  KXTaskMonitor monitor;
  monitor.add(makeInfo(44));
  constexpr int kWaiters = 8;
  std::atomic<int> ended{0};
  std::vector<std::thread> waiters;
  for (int i = 0; i < kWaiters; ++i) {
    waiters.emplace_back([&] {
      if (!monitor.wait(44, 0)) ++ended;
    });
  }
  monitor.remove(44);
  for (auto& waiter : waiters) waiter.join();
  EXPECT_EQ(ended.load(), kWaiters);
}

TEST(KXTaskMonitorTest, ConcurrentUseKeepsTheTableConsistent) {
  KXTaskMonitor monitor;
  constexpr int kThreads = 8;
  constexpr int kPerThread = 500;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&monitor, t] {
      for (int i = 0; i < kPerThread; ++i) {
        const int id = 2 * (t * kPerThread + i) + 2;
        const std::string module = "M" + std::to_string(t) + "-" + std::to_string(i);
        auto info = makeInfo(id, module, "m");
        monitor.add(info);
        monitor.setThread(info);
        monitor.stop(id);
        EXPECT_TRUE(monitor.isStopRequested(id));
        EXPECT_EQ(monitor.getTaskIdForCurrentThread(module), id);
        if (i % 2 == 0) monitor.remove(id);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  const auto list = monitor.getTaskList();
  ASSERT_EQ(list.size(), static_cast<size_t>(kThreads * kPerThread / 2));
  for (size_t i = 1; i < list.size(); ++i) EXPECT_LT(list[i - 1].id, list[i].id);
}

}  // namespace
}  // namespace KX
