#include "thread/kxmonitor.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "thread/kxthreadpool.h"
#include "thread_test_support.h"

namespace KX {
namespace {

using testing::BlockingTask;
using testing::FunctionTask;
using testing::Latch;

// A task that claims to have taken `microseconds` from creation to completion.
std::shared_ptr<KXTask> finishedTask(long microseconds) {
  auto task = std::make_shared<FunctionTask>([] {});
  timeval completed = task->getCreationTime();
  completed.tv_sec += microseconds / 1000000L;
  completed.tv_usec += microseconds % 1000000L;
  if (completed.tv_usec >= 1000000L) {
    completed.tv_sec += 1;
    completed.tv_usec -= 1000000L;
  }
  task->setCompletionTime(completed);
  task->setState(KXTask::kFinished);
  return task;
}

TEST(KXMonitorTest, EveryFiftiethFinishedTaskChecksTheLoad) {
  // One idle worker: busy 0 + 1 >= 1, so each load check grows the pool.
  auto pool = std::make_shared<KXThreadPool>(1, 5, 50, 100, 2);
  pool->init(1);
  KXMonitor monitor(*pool, 50, 100, 2);
  for (int i = 0; i < 49; ++i) monitor.taskFinished(finishedTask(1500));
  EXPECT_EQ(monitor.getFinishedCount(), 49);
  EXPECT_EQ(pool->getThreadCount(), 1);

  monitor.taskFinished(finishedTask(1500));
  EXPECT_EQ(monitor.getFinishedCount(), 0);
  EXPECT_EQ(pool->getThreadCount(), 2);
  EXPECT_EQ(monitor.getTotalSeconds(), 0);
  EXPECT_EQ(monitor.getTotalMicroseconds(), 75000);
  pool->shutdown();
}

TEST(KXMonitorTest, TotalTimeKeepsMicrosecondsBelowASecond) {
  auto pool = std::make_shared<KXThreadPool>(1, 1, 50, 100, 2);
  pool->init(1);
  KXMonitor monitor(*pool, 1000, 100, 2);
  for (int i = 0; i < 700; ++i) monitor.taskFinished(finishedTask(1500));
  EXPECT_EQ(monitor.getTotalSeconds(), 1);
  EXPECT_EQ(monitor.getTotalMicroseconds(), 50000);
  monitor.taskFinished(finishedTask(2 * 1000000L + 999999L));
  EXPECT_EQ(monitor.getTotalSeconds(), 4);
  EXPECT_EQ(monitor.getTotalMicroseconds(), 49999);
  EXPECT_EQ(monitor.getFinishedCount(), 701);
  pool->shutdown();
}

struct LoadCase {
  int workers;
  int busy;
  int expectedCount;
};

class KXMonitorLoadTest : public ::testing::TestWithParam<LoadCase> {};

TEST_P(KXMonitorLoadTest, GrowsOnlyWhenNearlyEveryWorkerIsBusy) {
  const LoadCase& c = GetParam();
  auto pool = std::make_shared<KXThreadPool>(c.workers, 20, 50, 100, 2);
  auto started = std::make_shared<Latch>(c.busy);
  auto release = std::make_shared<Latch>(1);
  // Queued before init: the workers take them without any load check.
  for (int i = 0; i < c.busy; ++i) {
    ASSERT_TRUE(pool->enqueue(std::make_shared<BlockingTask>(started, release)));
  }
  pool->init(c.workers);
  ASSERT_TRUE(started->wait());
  ASSERT_EQ(pool->getBusyCount(), c.busy);

  pool->getMonitor()->checkLoad();
  EXPECT_EQ(pool->getThreadCount(), c.expectedCount);
  release->countDown();
  pool->shutdown();
}

INSTANTIATE_TEST_SUITE_P(BusyPlusOneAgainstCount, KXMonitorLoadTest,
                         ::testing::Values(LoadCase{4, 0, 4}, LoadCase{4, 2, 4}, LoadCase{4, 3, 5},
                                           LoadCase{4, 4, 5}, LoadCase{1, 0, 2}));

TEST(KXMonitorTest, ThreadLimitStopsGrowthAtOneHundredNinetyBusy) {
  constexpr int kWorkers = 190;
  auto pool = std::make_shared<KXThreadPool>(kWorkers, 200, 50, 100, 2);
  auto started = std::make_shared<Latch>(kWorkers);
  auto release = std::make_shared<Latch>(1);
  for (int i = 0; i < kWorkers; ++i) {
    ASSERT_TRUE(pool->enqueue(std::make_shared<BlockingTask>(started, release)));
  }
  pool->init(kWorkers);
  ASSERT_TRUE(started->wait());
  ASSERT_EQ(pool->getBusyCount(), kWorkers);

  ::testing::internal::CaptureStdout();
  auto extra = std::make_shared<FunctionTask>([] {});
  const bool queued = pool->enqueue(extra);
  pool->getMonitor()->checkLoad();
  const std::string output = ::testing::internal::GetCapturedStdout();

  EXPECT_TRUE(queued);
  EXPECT_EQ(output,
            "INFO: Thread limit reached: (190/195)\n"
            "INFO: Thread limit reached: (190/195)\n");
  EXPECT_EQ(pool->getThreadCount(), kWorkers);
  EXPECT_EQ(pool->getQueueLength(), 1);
  release->countDown();
  pool->shutdown();
}

}  // namespace
}  // namespace KX
