#ifndef VELMO_THREAD_TESTS_THREAD_TEST_SUPPORT_H_
#define VELMO_THREAD_TESTS_THREAD_TEST_SUPPORT_H_

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>

#include "thread/kxtask.h"

namespace KX {
namespace testing {

// Bound for anything a test waits for: reached only when the code under test is broken.
constexpr std::chrono::seconds kPatience{20};

// A one-shot countdown: wait() is true once countDown() has been called `count` times.
class Latch {
 public:
  explicit Latch(int count) : count_(count) {}
  void countDown() {
    std::lock_guard<std::mutex> guard(mutex_);
    if (count_ > 0 && --count_ == 0) done_.notify_all();
  }
  bool wait(std::chrono::milliseconds patience = kPatience) {
    std::unique_lock<std::mutex> guard(mutex_);
    return done_.wait_for(guard, patience, [this] { return count_ == 0; });
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

// A task that counts `started` down, then blocks until `release` is (its stop hook does it).
inline std::shared_ptr<FunctionTask> blockingTask(std::shared_ptr<Latch> started,
                                                  std::shared_ptr<Latch> release) {
  return std::make_shared<FunctionTask>(
      [=] {
        started->countDown();
        release->wait();
      },
      [release] { release->countDown(); });
}

}  // namespace testing
}  // namespace KX

#endif  // VELMO_THREAD_TESTS_THREAD_TEST_SUPPORT_H_
