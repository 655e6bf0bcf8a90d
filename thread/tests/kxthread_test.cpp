#include "thread/kxthread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <memory>
#include <string>

#include "thread/kxtask.h"
#include "thread/kxthreadpool.h"
#include "thread_test_support.h"
#include "value/kxerror.h"

namespace KX {
namespace {

using testing::BlockingTask;
using testing::FunctionTask;
using testing::kImpossibleStack;
using testing::kLaunchFailure;
using testing::Latch;
using testing::LogCapture;
using testing::StackSizeOverride;

std::shared_ptr<KXThread> makeLoneWorker() {
  return std::make_shared<KXThread>(KXCondition::create(), KXMutex::create(), 0,
                                    std::weak_ptr<KXThreadPool>());
}

TEST(KXThreadTest, FirstWorkerSetsTheDefaultStackSize) {
  StackSizeOverride unset(0);
  EXPECT_EQ(KXThread::getDefaultStackSize(), 0u);
  auto worker = makeLoneWorker();
  EXPECT_EQ(KXThread::getDefaultStackSize(), 0xA0000u);
  EXPECT_EQ(KXThread::kDefaultStackSize, 655360u);
}

TEST(KXThreadTest, LaterWorkersKeepAChosenStackSize) {
  StackSizeOverride chosen(1 << 20);
  auto worker = makeLoneWorker();
  EXPECT_EQ(KXThread::getDefaultStackSize(), std::size_t{1} << 20);
}

TEST(KXThreadTest, WorkersRunOnTheDefaultStackSize) {
  auto pool = std::make_shared<KXThreadPool>(1, 1, 50, 100, 2);
  pool->init(1);
  std::size_t stackSize = 0;
  auto done = std::make_shared<Latch>(1);
  ASSERT_TRUE(pool->enqueue(std::make_shared<FunctionTask>([&] {
    pthread_attr_t attributes;
    if (pthread_getattr_np(pthread_self(), &attributes) == 0) {
      pthread_attr_getstacksize(&attributes, &stackSize);
      pthread_attr_destroy(&attributes);
    }
    done->countDown();
  })));
  ASSERT_TRUE(done->wait());
  pool->shutdown();
  // Sanitizers add room of their own to every thread stack.
  EXPECT_GE(stackSize, KXThread::getDefaultStackSize());
  EXPECT_LT(stackSize, KXThread::getDefaultStackSize() * 3 / 2);
}

TEST(KXThreadTest, LaunchFailureIsLoggedAndThrown) {
  LogCapture capture;
  auto worker = makeLoneWorker();
  StackSizeOverride impossible(kImpossibleStack);
  try {
    worker->launch();
    FAIL() << "a thread was created with an impossible stack";
  } catch (const KXError& error) {
    EXPECT_EQ(std::string(error.what()), std::string("\tpthread::pthread\n\t") + kLaunchFailure);
  }
  auto records = capture.withFunction("KX::KXThread::launch");
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].level, tu::log::error);
  EXPECT_EQ(records[0].category, "core.thread");
  EXPECT_EQ(records[0].message, std::string(kLaunchFailure) + "\n");
}

TEST(KXThreadTest, LoneWorkerStopsAndJoins) {
  auto condition = KXCondition::create();
  auto mutex = KXMutex::create();
  auto worker = std::make_shared<KXThread>(condition, mutex, 3, std::weak_ptr<KXThreadPool>());
  EXPECT_EQ(worker->getIndex(), 3);
  worker->launch();
  EXPECT_THROW(worker->launch(), KXError);
  EXPECT_NE(worker->getStartTime().tv_sec, 0);
  EXPECT_FALSE(worker->isStopRequested());
  worker->stop();
  EXPECT_TRUE(worker->isStopRequested());
  {
    KXScopedLock guard(mutex);
    condition->broadcast();
  }
  worker->join();
  worker->join();  // a second join does nothing
  EXPECT_EQ(worker->getCurrentTask(), nullptr);
}

TEST(KXThreadTest, WorkerThreadCarriesTheTaskName) {
  auto pool = std::make_shared<KXThreadPool>(1, 1, 50, 100, 2);
  pool->init(1);
  std::string during;
  auto done = std::make_shared<Latch>(1);
  auto task = std::make_shared<FunctionTask>([&] {
    char name[32] = {};
    pthread_getname_np(pthread_self(), name, sizeof name);
    during = name;
    done->countDown();
  });
  task->setName("io");
  ASSERT_TRUE(pool->enqueue(task));
  ASSERT_TRUE(done->wait());
  pool->shutdown();
  // "KXTask: io [running]" cut to the 15 bytes a thread name can hold.
  EXPECT_EQ(during, "KXTask: io [run");
}

TEST(KXTaskTest, DefaultsAndAccessors) {
  timeval before{};
  gettimeofday(&before, nullptr);
  FunctionTask task([] {});
  timeval after{};
  gettimeofday(&after, nullptr);

  EXPECT_EQ(task.getName(), "undefined");
  EXPECT_EQ(task.getState(), KXTask::kCreated);
  const timeval created = task.getCreationTime();
  const long long createdUs = created.tv_sec * 1000000LL + created.tv_usec;
  EXPECT_GE(createdUs, before.tv_sec * 1000000LL + before.tv_usec);
  EXPECT_LE(createdUs, after.tv_sec * 1000000LL + after.tv_usec);
  EXPECT_EQ(task.getCompletionTime().tv_sec, 0);
  EXPECT_TRUE(task.getRunner().expired());

  task.setName("pcall: KXMemory::getData");
  EXPECT_EQ(task.getName(), "pcall: KXMemory::getData");
  task.stop();  // the default hook does nothing
  EXPECT_EQ(task.getState(), KXTask::kCreated);
}

TEST(KXTaskTest, StatesGoFromCreatedToRunningToFinished) {
  auto pool = std::make_shared<KXThreadPool>(1, 1, 50, 100, 2);
  pool->init(1);
  auto started = std::make_shared<Latch>(1);
  auto release = std::make_shared<Latch>(1);
  auto task = std::make_shared<BlockingTask>(started, release);
  EXPECT_EQ(task->getState(), 0);
  ASSERT_TRUE(pool->enqueue(task));
  ASSERT_TRUE(started->wait());
  EXPECT_EQ(task->getState(), 1);
  EXPECT_EQ(task->getCompletionTime().tv_sec, 0);
  auto runner = task->getRunner().lock();
  ASSERT_NE(runner, nullptr);
  EXPECT_EQ(runner->getCurrentTask(), task);
  EXPECT_EQ(runner->getIndex(), 0);

  release->countDown();
  pool->shutdown();  // joins the worker, so the task is complete afterwards
  EXPECT_TRUE(task->wasReleased());
  EXPECT_EQ(task->getState(), 2);
  const timeval created = task->getCreationTime();
  const timeval completed = task->getCompletionTime();
  EXPECT_GE(completed.tv_sec * 1000000LL + completed.tv_usec,
            created.tv_sec * 1000000LL + created.tv_usec);
  EXPECT_EQ(runner->getCurrentTask(), nullptr);
  EXPECT_EQ(pool->getMonitor()->getFinishedCount(), 1);
}

}  // namespace
}  // namespace KX
