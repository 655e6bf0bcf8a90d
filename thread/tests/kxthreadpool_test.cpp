#include "thread/kxthreadpool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include "log/tests/logtestsupport.h"
#include "thread_test_support.h"
#include "value/tests/value_test_util.h"

namespace KX {
namespace {

using testing::blockingTask;
using testing::FunctionTask;
using testing::Latch;
using testing_util::errorText;

std::shared_ptr<KXThreadPool> makePool(int workers, int max) {
  return std::make_shared<KXThreadPool>(workers, max, 50, 100, 2);
}

std::shared_ptr<FunctionTask> countingTask(const std::shared_ptr<Latch>& done) {
  return std::make_shared<FunctionTask>([done] { done->countDown(); });
}

// A pool of which `busy` workers hold a blocking task when it is returned (queued before
// init, so that no load check runs meanwhile).
std::shared_ptr<KXThreadPool> busyPool(int workers, int busy, int max,
                                       const std::shared_ptr<Latch>& release) {
  auto pool = makePool(workers, max);
  auto started = std::make_shared<Latch>(busy);
  for (int i = 0; i < busy; ++i) pool->enqueue(blockingTask(started, release));
  pool->init(workers);
  EXPECT_TRUE(started->wait());
  return pool;
}

// True once a thread of this process bears `name` (as the kernel keeps it: 15 characters).
bool someThreadIsNamed(const std::string& name) {
  const auto deadline = std::chrono::steady_clock::now() + testing::kPatience;
  while (std::chrono::steady_clock::now() < deadline) {
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
      std::ifstream comm(task.path() / "comm");
      std::string line;
      if (std::getline(comm, line) && line == name) return true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return false;
}

TEST(KXThreadTest, AWorkerSleepingOutsideAPoolLeavesWhenStopped) {
  auto worker = std::make_shared<KXThread>(KXCondition::create(), KXMutex::create(), 0,
                                           std::weak_ptr<KXThreadPool>());
  worker->launch();
  ASSERT_TRUE(someThreadIsNamed("KXThread [sleep"));
  worker->stop();
  auto joined = std::make_shared<Latch>(1);
  std::thread([worker, joined] {
    worker->join();
    joined->countDown();
  }).detach();
  EXPECT_TRUE(joined->wait());
}

// With a stack far beyond what the machine can map, pthread_create fails: a resize throws,
// the growth that a new task asks for fails quietly, the workers there carry on.
TEST(KXThreadPoolTest, LaunchFailuresAreLoggedThrownAndSurvived) {
  const std::string failure =
      "Aborting creating thread, pthread_create error. Too much thread asked";
  auto release = std::make_shared<Latch>(1);
  auto pool = busyPool(2, 1, 5, release);
  auto done = std::make_shared<Latch>(1);
  tu::log::testing::LogCapture capture;
  const std::size_t stackSize = KXThread::getDefaultStackSize();
  KXThread::setDefaultStackSize(std::size_t{1} << 46);
  EXPECT_EQ(errorText([&] { pool->resize(2); }), "\tpthread::pthread\n\t" + failure);
  pool->enqueue(countingTask(done));  // 1 busy + 1 >= 2 workers: growth is tried
  EXPECT_TRUE(done->wait());
  KXThread::setDefaultStackSize(stackSize);
  EXPECT_EQ(pool->getThreadCount(), 2);
  auto records = capture.withFunction("KX::KXThread::launch");
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].level, tu::log::error);
  EXPECT_EQ(records[0].category, "core.thread");
  EXPECT_EQ(records[0].message, failure + "\n");
  release->countDown();
  pool->shutdown();
}

TEST(KXMonitorTest, EveryFiftiethTaskChecksTheLoadAndTimeAddsUp) {
  auto pool = makePool(1, 2);  // one idle worker: busy 0 + 1 >= 1, a load check grows it
  pool->init(1);
  KXMonitor monitor(*pool, 50, 100, 2);
  for (int i = 0; i < 49; ++i) monitor.taskFinished(nullptr);
  EXPECT_EQ(pool->getThreadCount(), 1);
  auto task = std::make_shared<FunctionTask>([] {});
  timeval end = task->getCreationTime();
  end.tv_usec += 2999999;  // left unnormalised: the monitor only subtracts
  task->setCompletionTime(end);
  monitor.taskFinished(task);
  EXPECT_EQ(pool->getThreadCount(), 2);
  monitor.taskFinished(task);
  EXPECT_EQ(monitor.getTotalSeconds(), 5);  // microseconds carry into seconds
  EXPECT_EQ(monitor.getTotalMicroseconds(), 999998);
  EXPECT_EQ(monitor.getFinishedCount(), 1);
  pool->shutdown();
}

TEST(KXMonitorTest, GrowsOnlyWhenNearlyEveryWorkerIsBusy) {
  struct Case {
    int workers, busy, expectedCount;
  } const kCases[] = {{4, 0, 4}, {4, 2, 4}, {4, 3, 5}, {4, 4, 5}, {1, 0, 2}, {190, 190, 190}};
  for (const Case& c : kCases) {
    SCOPED_TRACE(::testing::Message() << c.busy << " busy of " << c.workers);
    auto release = std::make_shared<Latch>(1);
    auto pool = busyPool(c.workers, c.busy, 200, release);
    ::testing::internal::CaptureStdout();
    pool->getMonitor()->checkLoad();
    const std::string said = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(said, c.busy < 190 ? "" : "INFO: Thread limit reached: (190/195)\n");
    EXPECT_EQ(pool->getThreadCount(), c.expectedCount);
    EXPECT_EQ(pool->getBusyCount(), c.busy);
    release->countDown();
    pool->shutdown();
    EXPECT_EQ(pool->getBusyCount(), 0);
  }
}

TEST(KXThreadPoolTest, TasksAreTakenFromInitToShutdownOnly) {
  KXThreadPool unshared(0, 2, 50, 100, 2);
  EXPECT_EQ(errorText([&] { unshared.init(1); }),
            "\tKXThreadPool::init\n\tthe pool must be owned by a std::shared_ptr");
  auto pool = makePool(3, 4);
  EXPECT_FALSE(pool->resize(1)) << "no growth before init";
  pool->init(3);
  pool->init(5);
  EXPECT_EQ(pool->getThreadCount(), 3);
  EXPECT_FALSE(pool->resize(0));
  EXPECT_FALSE(pool->resize(2)) << "stops at the maximum";
  EXPECT_EQ(pool->getThreadCount(), 4);
  EXPECT_FALSE(pool->enqueue(nullptr));
  pool->shutdown();
  pool->shutdown();
  pool->init(3);
  EXPECT_TRUE(pool->isShutDown());
  auto task = std::make_shared<FunctionTask>([] {});
  EXPECT_FALSE(pool->enqueue(task));
  EXPECT_FALSE(pool->resize(1));
  EXPECT_EQ(pool->getThreadCount() + pool->getQueueLength(), 0);
  EXPECT_EQ(task.use_count(), 1) << "a refused task is not kept";
}

// Workers leave at their next turn: busy ones when their task ends, sleeping ones when a
// task wakes one of them (each departure then wakes the next). Growth cancels departures.
TEST(KXThreadPoolTest, WorkersAskedToLeaveDoSoAtTheirNextTurn) {
  enum Mode { kBusy, kSleeping, kGrown };
  struct Case {
    int workers, delta;
    bool result;
    int toRemove, remaining;
    Mode mode;
  } const kCases[] = {{18, -5, true, 0, 18, kBusy},   {20, -5, true, 5, 15, kBusy},
                      {20, -30, false, 19, 1, kBusy}, {19, -19, false, 18, 1, kBusy},
                      {19, -18, true, 18, 1, kBusy},  {20, -5, true, 5, 15, kSleeping},
                      {20, -5, true, 5, 21, kGrown}};
  for (const Case& c : kCases) {
    SCOPED_TRACE(::testing::Message() << c.workers << c.delta << " mode " << c.mode);
    auto release = std::make_shared<Latch>(1);
    auto pool = busyPool(c.workers, c.mode == kSleeping ? 0 : c.workers, 200, release);
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(pool->resize(c.delta), c.result);
    if (c.mode != kSleeping) {  // a sleeper still starting may leave at once
      EXPECT_EQ(pool->getToRemoveCount(), c.toRemove);
      EXPECT_EQ(pool->getThreadCount(), c.workers) << "left in a task";
    }
    EXPECT_TRUE(c.mode != kGrown || pool->resize(1));
    release->countDown();
    if (c.mode == kSleeping) pool->enqueue(std::make_shared<FunctionTask>([] {}));
    // Nothing announces a departure: poll the count (bounded).
    const auto deadline = std::chrono::steady_clock::now() + testing::kPatience;
    while (pool->getThreadCount() != c.remaining && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    std::string expected;
    for (int i = c.remaining; i < c.workers; ++i) expected += "KXThreadPool::decrease\n";
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), expected);
    EXPECT_EQ(pool->getToRemoveCount(), 0);
    auto done = std::make_shared<Latch>(1);  // those left still take tasks
    pool->enqueue(countingTask(done));
    EXPECT_TRUE(done->wait());
    pool->shutdown();
  }
}

// Failing tasks, queued before init, are logged in arrival order and the worker carries on.
// The destructor shuts down a pool left running: queued tasks are dropped, the running one
// is stopped through its hook and finishes, and only that pool says so.
TEST(KXThreadPoolTest, FailuresAreLoggedAndADestroyedPoolStopsItsWork) {
  const std::pair<std::function<void()>, std::string> kFailures[] = {
      {[] { KX_THROW("M", "m", "boom"); }, "Error caught: \tM::m\n\tboom\n"},
      {[] { throw std::runtime_error("plain failure"); }, "Error caught: plain failure\n"},
      {[] { throw 7; }, "Error caught: unknown exception\n"}};
  tu::log::testing::LogCapture capture;
  auto pool = makePool(1, 1);
  for (const auto& failure : kFailures)
    pool->enqueue(std::make_shared<FunctionTask>(failure.first));
  auto started = std::make_shared<Latch>(1);
  auto release = std::make_shared<Latch>(1);  // counted down by the stop hook only
  auto running = blockingTask(started, release);
  pool->enqueue(running);
  pool->init(1);
  ASSERT_TRUE(started->wait()) << "the worker died with a failing task";
  EXPECT_EQ(running->getState(), KXTask::kRunning);
  auto runner = running->getRunner().lock();
  EXPECT_EQ(runner->getCurrentTask(), running);
  EXPECT_THROW(runner->launch(), KXError) << "a worker is launched once";
  auto queued = std::make_shared<FunctionTask>([] {});
  pool->enqueue(queued);
  auto quiet = makePool(2, 2);
  quiet->init(2);
  quiet->shutdown();
  ::testing::internal::CaptureStdout();
  quiet.reset();
  pool.reset();
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "KXThreadPool::~KXThreadPool : trying to delete a Thread Pool without shutting it "
            "down. Shutting down the Thread Pool \n");
  EXPECT_TRUE(release->wait(std::chrono::milliseconds(0)));
  EXPECT_EQ(running->getState(), KXTask::kFinished);
  EXPECT_NE(running->getCompletionTime().tv_sec, 0);
  EXPECT_TRUE(runner->isStopRequested() && runner->getStartTime().tv_sec != 0);
  EXPECT_EQ(queued->getState(), KXTask::kCreated);
  EXPECT_EQ(queued.use_count(), 1) << "dropped tasks are released";
  auto records = capture.withFunction("KX::KXThread::runTask");
  ASSERT_EQ(records.size(), 3u);
  for (size_t i = 0; i < records.size(); ++i) {
    EXPECT_EQ(records[i].message, kFailures[i].second);
    EXPECT_EQ(records[i].level, tu::log::error);
    EXPECT_EQ(records[i].category, "KXThread");
  }
}

TEST(KXThreadPoolTest, ShutdownFromInsideATaskReturnsOnceTheOthersHaveEnded) {
  auto release = std::make_shared<Latch>(1);
  auto pool = busyPool(2, 1, 2, release);
  std::weak_ptr<KXThreadPool> weakPool = pool;
  std::atomic<int> busyAfter{-1};
  auto done = std::make_shared<Latch>(1);
  pool->enqueue(std::make_shared<FunctionTask>([=, &busyAfter] {
    if (auto owner = weakPool.lock()) owner->shutdown(), busyAfter = owner->getBusyCount();
    done->countDown();
  }));
  ASSERT_TRUE(done->wait()) << "shutdown from a task did not return";
  EXPECT_EQ(busyAfter.load(), 1) << "the other task had not ended";
  EXPECT_TRUE(release->wait(std::chrono::milliseconds(0))) << "nor been stopped";
  EXPECT_EQ(pool->getThreadCount(), 0);
}

}  // namespace
}  // namespace KX
