#ifndef VELMO_THREAD_TESTS_THREAD_TEST_SUPPORT_H_
#define VELMO_THREAD_TESTS_THREAD_TEST_SUPPORT_H_

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "log/log.h"
#include "log/tests/logtestsupport.h"
#include "thread/kxtask.h"
#include "thread/kxthread.h"

namespace KX {
namespace testing {

using tu::log::testing::LogCapture;

// Far beyond what the machine can map, so pthread_create refuses the stack.
constexpr std::size_t kImpossibleStack = std::size_t{1} << 46;

// What a worker that cannot be started logs and throws.
constexpr char kLaunchFailure[] =
    "Aborting creating thread, pthread_create error. Too much thread asked";

// Generous bound for anything a test waits for: reached only when the code under test
// is broken, and then the test fails instead of hanging.
constexpr std::chrono::seconds kPatience{20};

// A one-shot countdown: wait() returns once count_down() has been called `count` times.
class Latch {
 public:
  explicit Latch(int count) : count_(count) {}

  void countDown() {
    std::lock_guard<std::mutex> guard(mutex_);
    if (count_ > 0 && --count_ == 0) done_.notify_all();
  }

  // False when the count did not reach 0 in time.
  bool wait(std::chrono::milliseconds patience = kPatience) {
    std::unique_lock<std::mutex> guard(mutex_);
    return done_.wait_for(guard, patience, [this] { return count_ == 0; });
  }

  bool isDone() {
    std::lock_guard<std::mutex> guard(mutex_);
    return count_ == 0;
  }

 private:
  std::mutex mutex_;
  std::condition_variable done_;
  int count_;
};

// A task running a function; its stop hook runs another one when given.
class FunctionTask : public KXTask {
 public:
  explicit FunctionTask(std::function<void()> body, std::function<void()> onStop = {})
      : body_(std::move(body)), onStop_(std::move(onStop)) {}

  void run() override { body_(); }
  void stop() override {
    if (onStop_) onStop_();
  }

 private:
  std::function<void()> body_;
  std::function<void()> onStop_;
};

// A task that reports its start, then blocks until released or stopped.
class BlockingTask : public KXTask {
 public:
  BlockingTask(std::shared_ptr<Latch> started, std::shared_ptr<Latch> release)
      : started_(std::move(started)), release_(std::move(release)) {}

  void run() override {
    if (started_) started_->countDown();
    released_ = release_->wait();
  }
  void stop() override { release_->countDown(); }

  // True when run() ended because it was released, not because it gave up waiting.
  bool wasReleased() const { return released_; }

 private:
  std::shared_ptr<Latch> started_;
  std::shared_ptr<Latch> release_;
  std::atomic<bool> released_{false};
};

// Sets the process-wide worker stack size for its lifetime.
class StackSizeOverride {
 public:
  explicit StackSizeOverride(std::size_t bytes) : saved_(KXThread::getDefaultStackSize()) {
    KXThread::setDefaultStackSize(bytes);
  }
  ~StackSizeOverride() { KXThread::setDefaultStackSize(saved_); }
  StackSizeOverride(const StackSizeOverride&) = delete;
  StackSizeOverride& operator=(const StackSizeOverride&) = delete;

 private:
  std::size_t saved_;
};

}  // namespace testing
}  // namespace KX

#endif  // VELMO_THREAD_TESTS_THREAD_TEST_SUPPORT_H_
