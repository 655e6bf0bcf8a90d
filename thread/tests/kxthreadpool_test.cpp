#include "thread/kxthreadpool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "thread_test_support.h"
#include "value/kxerror.h"

namespace KX {
namespace {

using testing::BlockingTask;
using testing::FunctionTask;
using testing::kImpossibleStack;
using testing::kLaunchFailure;
using testing::kPatience;
using testing::Latch;
using testing::LogCapture;
using testing::StackSizeOverride;

int countLines(const std::string& text, const std::string& line) {
  int count = 0;
  std::size_t at = 0;
  const std::string wanted = line + "\n";
  while ((at = text.find(wanted, at)) != std::string::npos) {
    if (at == 0 || text[at - 1] == '\n') ++count;
    at += wanted.size();
  }
  return count;
}

// Workers leave a shrinking pool on their own, with no event to wait on, so this polls
// the thread count (bounded).
bool waitForThreadCount(const KXThreadPool& pool, int count) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (pool.getThreadCount() != count) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// Appends its number to a shared list when it runs.
class RecordingTask : public KXTask {
 public:
  RecordingTask(int number, std::mutex& mutex, std::vector<int>& order, std::shared_ptr<Latch> done)
      : number_(number), mutex_(mutex), order_(order), done_(std::move(done)) {}

  void run() override {
    {
      std::lock_guard<std::mutex> guard(mutex_);
      order_.push_back(number_);
    }
    if (done_) done_->countDown();
  }

 private:
  int number_;
  std::mutex& mutex_;
  std::vector<int>& order_;
  std::shared_ptr<Latch> done_;
};

TEST(KXThreadPoolTest, ConstructionAndInit) {
  auto pool = std::make_shared<KXThreadPool>(3, 10, 50, 100, 2);
  EXPECT_EQ(pool->getThreadCount(), 3);
  EXPECT_EQ(pool->getMaxThreadCount(), 10);
  EXPECT_EQ(pool->getMonitor(), nullptr);
  EXPECT_FALSE(pool->resize(1)) << "no growth before init";

  pool->init(3);
  EXPECT_EQ(pool->getThreadCount(), 3);
  EXPECT_EQ(pool->getBusyCount(), 0);
  EXPECT_EQ(pool->getQueueLength(), 0);
  EXPECT_EQ(pool->getToRemoveCount(), 0);
  ASSERT_NE(pool->getMonitor(), nullptr);
  EXPECT_EQ(pool->getMonitor()->getCheckPeriod(), 50);
  EXPECT_EQ(pool->getMonitor()->getTuning1(), 100);
  EXPECT_EQ(pool->getMonitor()->getTuning2(), 2);
  pool->shutdown();
  EXPECT_EQ(pool->getThreadCount(), 0);
  EXPECT_TRUE(pool->isShutDown());
}

TEST(KXThreadPoolTest, InitNeedsASharedOwner) {
  KXThreadPool pool(0, 2, 50, 100, 2);
  EXPECT_THROW(pool.init(1), KXError);
}

TEST(KXThreadPoolTest, OneWorkerRunsTasksInArrivalOrder) {
  auto pool = std::make_shared<KXThreadPool>(1, 1, 50, 100, 2);
  pool->init(1);
  std::mutex mutex;
  std::vector<int> order;
  auto done = std::make_shared<Latch>(20);
  for (int i = 0; i < 20; ++i) {
    ASSERT_TRUE(pool->enqueue(std::make_shared<RecordingTask>(i, mutex, order, done)));
  }
  ASSERT_TRUE(done->wait());
  pool->shutdown();
  std::vector<int> expected;
  for (int i = 0; i < 20; ++i) expected.push_back(i);
  EXPECT_EQ(order, expected);
}

TEST(KXThreadPoolTest, TasksQueuedBeforeInitRunOnceWorkersExist) {
  auto pool = std::make_shared<KXThreadPool>(2, 4, 50, 100, 2);
  auto done = std::make_shared<Latch>(3);
  for (int i = 0; i < 3; ++i) {
    ASSERT_TRUE(pool->enqueue(std::make_shared<FunctionTask>([done] { done->countDown(); })));
  }
  EXPECT_EQ(pool->getQueueLength(), 3);
  EXPECT_FALSE(done->isDone());
  pool->init(2);
  EXPECT_TRUE(done->wait());
  pool->shutdown();
}

TEST(KXThreadPoolTest, EmptyTaskIsRefused) {
  auto pool = std::make_shared<KXThreadPool>(1, 1, 50, 100, 2);
  pool->init(1);
  EXPECT_FALSE(pool->enqueue(nullptr));
  EXPECT_EQ(pool->getQueueLength(), 0);
  pool->shutdown();
}

TEST(KXThreadPoolTest, PoolWithoutWorkersRefusesTasks) {
  auto pool = std::make_shared<KXThreadPool>(0, 5, 50, 100, 2);
  pool->init(0);
  auto task = std::make_shared<FunctionTask>([] {});
  EXPECT_FALSE(pool->enqueue(task));
  EXPECT_FALSE(pool->resize(1));
  EXPECT_EQ(pool->getQueueLength(), 0);
  EXPECT_EQ(task->getState(), 0);
}

// Ten workers, all busy: one more task starts an eleventh worker (busy 10, 10 + 1 >= 10).
TEST(KXThreadPoolTest, GrowsFromTenToElevenWhenAllAreBusy) {
  auto pool = std::make_shared<KXThreadPool>(10, 200, 50, 100, 2);
  auto started = std::make_shared<Latch>(10);
  auto release = std::make_shared<Latch>(1);
  // Queued before init, so no load check runs while the ten are being taken.
  for (int i = 0; i < 10; ++i) {
    ASSERT_TRUE(pool->enqueue(std::make_shared<BlockingTask>(started, release)));
  }
  pool->init(10);
  ASSERT_TRUE(started->wait());
  EXPECT_EQ(pool->getBusyCount(), 10);
  EXPECT_EQ(pool->getThreadCount(), 10);

  auto eleventhStarted = std::make_shared<Latch>(1);
  ASSERT_TRUE(pool->enqueue(std::make_shared<BlockingTask>(eleventhStarted, release)));
  EXPECT_EQ(pool->getThreadCount(), 11);
  EXPECT_TRUE(eleventhStarted->wait()) << "the new worker took the task";
  EXPECT_EQ(pool->getBusyCount(), 11);

  release->countDown();
  pool->shutdown();
  EXPECT_EQ(pool->getBusyCount(), 0);
}

TEST(KXThreadPoolTest, NeverGrowsBeyondItsMaximum) {
  auto pool = std::make_shared<KXThreadPool>(2, 3, 50, 100, 2);
  pool->init(2);
  std::vector<std::shared_ptr<Latch>> releases;
  std::vector<std::shared_ptr<BlockingTask>> blockers;
  const int expectedCounts[] = {2, 3, 3};
  for (int i = 0; i < 3; ++i) {
    auto started = std::make_shared<Latch>(1);
    releases.push_back(std::make_shared<Latch>(1));
    blockers.push_back(std::make_shared<BlockingTask>(started, releases.back()));
    ASSERT_TRUE(pool->enqueue(blockers.back()));
    EXPECT_EQ(pool->getThreadCount(), expectedCounts[i]) << "after task " << i;
    ASSERT_TRUE(started->wait());
  }

  std::mutex mutex;
  std::vector<int> order;
  auto done = std::make_shared<Latch>(2);
  ASSERT_TRUE(pool->enqueue(std::make_shared<RecordingTask>(3, mutex, order, done)));
  ASSERT_TRUE(pool->enqueue(std::make_shared<RecordingTask>(4, mutex, order, done)));
  EXPECT_EQ(pool->getThreadCount(), 3);
  EXPECT_EQ(pool->getQueueLength(), 2);
  EXPECT_FALSE(pool->resize(1));
  EXPECT_EQ(pool->getThreadCount(), 3);

  // The first worker to come free takes the waiting tasks in arrival order.
  releases[0]->countDown();
  ASSERT_TRUE(done->wait());
  {
    std::lock_guard<std::mutex> guard(mutex);
    EXPECT_EQ(order, (std::vector<int>{3, 4}));
  }
  EXPECT_EQ(blockers[1]->getState(), 1);
  EXPECT_EQ(blockers[2]->getState(), 1);
  EXPECT_EQ(pool->getThreadCount(), 3);

  pool->shutdown();
  EXPECT_TRUE(blockers[1]->wasReleased());
  EXPECT_TRUE(blockers[2]->wasReleased());
}

TEST(KXThreadPoolTest, ResizeGrowsByDeltaAndClearsDepartures) {
  auto pool = std::make_shared<KXThreadPool>(20, 25, 50, 100, 2);
  // The twenty hold a task each, so none leaves while departures are pending.
  auto started = std::make_shared<Latch>(20);
  auto release = std::make_shared<Latch>(1);
  for (int i = 0; i < 20; ++i) {
    ASSERT_TRUE(pool->enqueue(std::make_shared<BlockingTask>(started, release)));
  }
  pool->init(20);
  ASSERT_TRUE(started->wait());
  EXPECT_FALSE(pool->resize(0));
  EXPECT_TRUE(pool->resize(-3));
  EXPECT_EQ(pool->getToRemoveCount(), 3);
  EXPECT_TRUE(pool->resize(2));
  EXPECT_EQ(pool->getThreadCount(), 22);
  EXPECT_EQ(pool->getToRemoveCount(), 0);
  EXPECT_FALSE(pool->resize(5)) << "stops at the maximum";
  EXPECT_EQ(pool->getThreadCount(), 25);
  release->countDown();
  pool->shutdown();
  EXPECT_FALSE(pool->resize(1));
  EXPECT_EQ(pool->getThreadCount(), 0);
}

struct ShrinkCase {
  int workers;
  int delta;
  bool result;
  int toRemove;
  int remaining;
};

class KXThreadPoolShrinkTest : public ::testing::TestWithParam<ShrinkCase> {};

TEST_P(KXThreadPoolShrinkTest, WorkersLeaveAtTheirNextTurn) {
  const ShrinkCase& c = GetParam();
  auto pool = std::make_shared<KXThreadPool>(c.workers, 200, 50, 100, 2);
  // Every worker holds one of these while resize runs, so none can leave early.
  auto started = std::make_shared<Latch>(c.workers);
  auto release = std::make_shared<Latch>(1);
  for (int i = 0; i < c.workers; ++i) {
    ASSERT_TRUE(pool->enqueue(std::make_shared<BlockingTask>(started, release)));
  }
  pool->init(c.workers);
  ASSERT_TRUE(started->wait());

  EXPECT_EQ(pool->resize(c.delta), c.result);
  EXPECT_EQ(pool->getToRemoveCount(), c.toRemove);
  EXPECT_EQ(pool->getThreadCount(), c.workers) << "nobody leaves in the middle of a task";

  ::testing::internal::CaptureStdout();
  release->countDown();
  const bool shrank = waitForThreadCount(*pool, c.remaining);
  const std::string output = ::testing::internal::GetCapturedStdout();

  EXPECT_TRUE(shrank) << "thread count " << pool->getThreadCount();
  EXPECT_EQ(pool->getThreadCount(), c.remaining);
  EXPECT_EQ(pool->getToRemoveCount(), 0);
  EXPECT_EQ(countLines(output, "KXThreadPool::decrease"), c.workers - c.remaining);

  // The workers left still take tasks.
  auto done = std::make_shared<Latch>(1);
  ASSERT_TRUE(pool->enqueue(std::make_shared<FunctionTask>([done] { done->countDown(); })));
  EXPECT_TRUE(done->wait());
  pool->shutdown();
}

INSTANTIATE_TEST_SUITE_P(ResizeRules, KXThreadPoolShrinkTest,
                         ::testing::Values(ShrinkCase{18, -5, true, 0, 18},
                                           ShrinkCase{20, -5, true, 5, 15},
                                           ShrinkCase{20, -30, false, 19, 1},
                                           ShrinkCase{19, -19, false, 18, 1},
                                           ShrinkCase{19, -18, true, 18, 1}));

// Sleeping workers learn of departures only when woken: one task wakes one sleeper,
// and each departure wakes the next.
TEST(KXThreadPoolTest, SleepingWorkersLeaveOnceWoken) {
  auto pool = std::make_shared<KXThreadPool>(20, 200, 50, 100, 2);
  pool->init(20);
  ::testing::internal::CaptureStdout();
  const bool resized = pool->resize(-5);
  auto done = std::make_shared<Latch>(1);
  const bool queued = pool->enqueue(std::make_shared<FunctionTask>([done] { done->countDown(); }));
  const bool ran = done->wait();
  const bool shrank = waitForThreadCount(*pool, 15);
  const std::string output = ::testing::internal::GetCapturedStdout();

  EXPECT_TRUE(resized);
  EXPECT_TRUE(queued);
  EXPECT_TRUE(ran);
  EXPECT_TRUE(shrank) << "thread count " << pool->getThreadCount();
  EXPECT_EQ(pool->getToRemoveCount(), 0);
  EXPECT_EQ(countLines(output, "KXThreadPool::decrease"), 5);
  pool->shutdown();
}

TEST(KXThreadPoolTest, EnqueueAfterShutdownIsRefused) {
  auto pool = std::make_shared<KXThreadPool>(2, 4, 50, 100, 2);
  pool->init(2);
  pool->shutdown();
  std::atomic<bool> ran{false};
  auto task = std::make_shared<FunctionTask>([&ran] { ran = true; });
  EXPECT_FALSE(pool->enqueue(task));
  EXPECT_EQ(pool->getQueueLength(), 0);
  EXPECT_EQ(task->getState(), 0);
  pool->shutdown();  // a second shutdown does nothing
  EXPECT_FALSE(ran.load());
  EXPECT_EQ(task.use_count(), 1) << "the pool kept no reference to the refused task";
}

TEST(KXThreadPoolTest, FailingTasksDoNotEndTheirWorker) {
  LogCapture capture;
  auto pool = std::make_shared<KXThreadPool>(1, 1, 50, 100, 2);
  pool->init(1);
  auto kxError = std::make_shared<FunctionTask>([] { KX_THROW("M", "m", "boom"); });
  auto runtimeError =
      std::make_shared<FunctionTask>([] { throw std::runtime_error("plain failure"); });
  auto other = std::make_shared<FunctionTask>([] { throw 7; });
  auto done = std::make_shared<Latch>(1);
  auto later = std::make_shared<FunctionTask>([done] { done->countDown(); });
  ASSERT_TRUE(pool->enqueue(kxError));
  ASSERT_TRUE(pool->enqueue(runtimeError));
  ASSERT_TRUE(pool->enqueue(other));
  ASSERT_TRUE(pool->enqueue(later));
  ASSERT_TRUE(done->wait()) << "the worker died with a failing task";
  pool->shutdown();

  EXPECT_EQ(kxError->getState(), 2);
  EXPECT_EQ(runtimeError->getState(), 2);
  EXPECT_EQ(other->getState(), 2);
  auto records = capture.withFunction("KX::KXThread::runTask");
  ASSERT_EQ(records.size(), 3u);
  EXPECT_EQ(records[0].message, "Error caught: \tM::m\n\tboom\n");
  EXPECT_EQ(records[1].message, "Error caught: plain failure\n");
  EXPECT_EQ(records[2].message, "Error caught: unknown exception\n");
  for (const auto& record : records) {
    EXPECT_EQ(record.level, tu::log::error);
    EXPECT_EQ(record.category, "KXThread");
  }
}

TEST(KXThreadPoolTest, ShutdownDropsQueuedTasksAndStopsRunningOnes) {
  auto pool = std::make_shared<KXThreadPool>(1, 1, 50, 100, 2);
  pool->init(1);
  auto started = std::make_shared<Latch>(1);
  auto release = std::make_shared<Latch>(1);
  auto running = std::make_shared<BlockingTask>(started, release);
  ASSERT_TRUE(pool->enqueue(running));
  ASSERT_TRUE(started->wait());

  std::atomic<int> ranQueued{0};
  auto first = std::make_shared<FunctionTask>([&ranQueued] { ++ranQueued; });
  auto second = std::make_shared<FunctionTask>([&ranQueued] { ++ranQueued; });
  ASSERT_TRUE(pool->enqueue(first));
  ASSERT_TRUE(pool->enqueue(second));
  EXPECT_EQ(pool->getQueueLength(), 2);

  // Only the stop hook releases the running task; shutdown returns once it has ended.
  pool->shutdown();
  EXPECT_TRUE(running->wasReleased());
  EXPECT_EQ(running->getState(), 2);
  EXPECT_EQ(first->getState(), 0);
  EXPECT_EQ(second->getState(), 0);
  EXPECT_EQ(ranQueued.load(), 0);
  EXPECT_EQ(pool->getQueueLength(), 0);
  EXPECT_EQ(pool->getThreadCount(), 0);
  EXPECT_EQ(first.use_count(), 1) << "dropped tasks are released";
}

TEST(KXThreadPoolTest, ShutdownFromInsideATaskReturns) {
  auto pool = std::make_shared<KXThreadPool>(2, 2, 50, 100, 2);
  pool->init(2);
  auto otherStarted = std::make_shared<Latch>(1);
  auto otherRelease = std::make_shared<Latch>(1);
  auto other = std::make_shared<BlockingTask>(otherStarted, otherRelease);
  ASSERT_TRUE(pool->enqueue(other));
  ASSERT_TRUE(otherStarted->wait());

  std::weak_ptr<KXThreadPool> weakPool = pool;
  std::atomic<int> otherStateSeen{-1};
  auto done = std::make_shared<Latch>(1);
  auto stopper = std::make_shared<FunctionTask>([weakPool, other, &otherStateSeen, done] {
    if (auto owner = weakPool.lock()) owner->shutdown();
    otherStateSeen = other->getState();
    done->countDown();
  });
  ASSERT_TRUE(pool->enqueue(stopper));
  ASSERT_TRUE(done->wait()) << "shutdown from a task did not return";
  EXPECT_EQ(otherStateSeen.load(), 2) << "the other worker was joined before shutdown returned";
  EXPECT_TRUE(other->wasReleased());
  EXPECT_EQ(pool->getThreadCount(), 0);
  EXPECT_FALSE(pool->enqueue(std::make_shared<FunctionTask>([] {})));
}

TEST(KXThreadPoolTest, DestroyingARunningPoolWarnsAndShutsDown) {
  auto pool = std::make_shared<KXThreadPool>(1, 1, 50, 100, 2);
  pool->init(1);
  auto started = std::make_shared<Latch>(1);
  auto release = std::make_shared<Latch>(1);
  auto running = std::make_shared<BlockingTask>(started, release);
  ASSERT_TRUE(pool->enqueue(running));
  ASSERT_TRUE(started->wait());
  auto queued = std::make_shared<FunctionTask>([] {});
  ASSERT_TRUE(pool->enqueue(queued));

  ::testing::internal::CaptureStdout();
  pool.reset();
  const std::string output = ::testing::internal::GetCapturedStdout();
  EXPECT_EQ(output,
            "KXThreadPool::~KXThreadPool : trying to delete a Thread Pool without shutting it "
            "down. Shutting down the Thread Pool \n");
  EXPECT_TRUE(running->wasReleased());
  EXPECT_EQ(running->getState(), 2);
  EXPECT_EQ(queued->getState(), 0);
}

TEST(KXThreadPoolTest, DestroyingAShutDownPoolIsQuiet) {
  auto pool = std::make_shared<KXThreadPool>(2, 2, 50, 100, 2);
  pool->init(2);
  pool->shutdown();
  ::testing::internal::CaptureStdout();
  pool.reset();
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
}

TEST(KXThreadPoolTest, InitFailureIsThrown) {
  LogCapture capture;
  auto pool = std::make_shared<KXThreadPool>(2, 5, 50, 100, 2);
  {
    StackSizeOverride impossible(kImpossibleStack);
    try {
      pool->init(2);
      FAIL() << "init started workers with an impossible stack";
    } catch (const KXError& error) {
      EXPECT_EQ(std::string(error.what()), std::string("\tpthread::pthread\n\t") + kLaunchFailure);
    }
  }
  EXPECT_EQ(pool->getThreadCount(), 0);
  EXPECT_FALSE(pool->enqueue(std::make_shared<FunctionTask>([] {})));
  EXPECT_EQ(capture.withFunction("KX::KXThread::launch").size(), 1u);
}

TEST(KXThreadPoolTest, GrowthFailureKeepsTheWorkersThatExist) {
  LogCapture capture;
  auto pool = std::make_shared<KXThreadPool>(2, 5, 50, 100, 2);
  pool->init(2);
  {
    StackSizeOverride impossible(kImpossibleStack);
    try {
      pool->resize(2);
      FAIL() << "resize started a worker with an impossible stack";
    } catch (const KXError& error) {
      EXPECT_EQ(std::string(error.what()), std::string("\tpthread::pthread\n\t") + kLaunchFailure);
    }
    EXPECT_EQ(pool->getThreadCount(), 2);

    // Busy workers ask for growth, which fails quietly: the task still runs.
    auto started = std::make_shared<Latch>(1);
    auto release = std::make_shared<Latch>(1);
    ASSERT_TRUE(pool->enqueue(std::make_shared<BlockingTask>(started, release)));
    ASSERT_TRUE(started->wait());
    auto done = std::make_shared<Latch>(1);
    ASSERT_TRUE(pool->enqueue(std::make_shared<FunctionTask>([done] { done->countDown(); })));
    EXPECT_TRUE(done->wait());
    EXPECT_EQ(pool->getThreadCount(), 2);
    release->countDown();
  }
  EXPECT_GE(capture.withFunction("KX::KXThread::launch").size(), 2u);
  EXPECT_TRUE(pool->resize(1)) << "growth works again with a sane stack size";
  EXPECT_EQ(pool->getThreadCount(), 3);
  pool->shutdown();
}

TEST(KXThreadPoolTest, ManyProducersManyTasks) {
  auto pool = std::make_shared<KXThreadPool>(4, 16, 50, 100, 2);
  pool->init(4);
  constexpr int kProducers = 4;
  constexpr int kTasksEach = 505;
  std::atomic<int> ran{0};
  auto done = std::make_shared<Latch>(kProducers * kTasksEach);
  std::vector<std::thread> producers;
  for (int p = 0; p < kProducers; ++p) {
    producers.emplace_back([&] {
      for (int i = 0; i < kTasksEach; ++i) {
        pool->enqueue(std::make_shared<FunctionTask>([&ran, done] {
          ++ran;
          done->countDown();
        }));
      }
    });
  }
  for (auto& producer : producers) producer.join();
  ASSERT_TRUE(done->wait());
  pool->shutdown();
  EXPECT_EQ(ran.load(), kProducers * kTasksEach);
  // Every finished task reached the monitor, whose counter restarts every 50.
  EXPECT_EQ(pool->getMonitor()->getFinishedCount(), (kProducers * kTasksEach) % 50);
}

}  // namespace
}  // namespace KX
