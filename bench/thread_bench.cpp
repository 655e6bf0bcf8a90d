// Thread pool costs: how long an idle worker takes to start a task after enqueue, and
// how many small tasks the pool gets through per second.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "thread/kxthreadpool.h"

namespace {

using Clock = std::chrono::steady_clock;

// Records when it starts and tells the waiting benchmark thread.
class StampTask : public KX::KXTask {
 public:
  void run() override {
    const Clock::time_point now = Clock::now();
    std::lock_guard<std::mutex> guard(mutex_);
    started_ = now;
    done_ = true;
    cv_.notify_one();
  }

  Clock::time_point waitStarted() {
    std::unique_lock<std::mutex> guard(mutex_);
    cv_.wait(guard, [this] { return done_; });
    return started_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable cv_;
  bool done_ = false;
  Clock::time_point started_;
};

double percentile(std::vector<double> values, double fraction) {
  if (values.empty()) return 0;
  const auto at = static_cast<std::size_t>(fraction * static_cast<double>(values.size() - 1));
  std::nth_element(values.begin(), values.begin() + at, values.end());
  return values[at];
}

// Enqueue-to-start latency. With range(0) == 1 the benchmark leaves the workers a pause
// to fall asleep before each task (an idle worker is woken); with 0 the tasks follow
// one another back to back.
void BM_EnqueueToStartLatency(benchmark::State& state) {
  const bool letWorkersSleep = state.range(0) != 0;
  auto pool = std::make_shared<KX::KXThreadPool>(10, 200, 50, 100, 2);
  pool->init(10);
  std::vector<double> microseconds;
  microseconds.reserve(100000);
  for (auto _ : state) {
    if (letWorkersSleep) std::this_thread::sleep_for(std::chrono::microseconds(200));
    auto task = std::make_shared<StampTask>();
    const Clock::time_point enqueued = Clock::now();
    pool->enqueue(task);
    const Clock::time_point started = task->waitStarted();
    const std::chrono::duration<double> elapsed = started - enqueued;
    state.SetIterationTime(elapsed.count());
    microseconds.push_back(elapsed.count() * 1e6);
  }
  pool->shutdown();
  state.counters["median_us"] = percentile(microseconds, 0.5);
  state.counters["p99_us"] = percentile(microseconds, 0.99);
}
BENCHMARK(BM_EnqueueToStartLatency)
    ->Arg(1)
    ->Arg(0)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond)
    ->Repetitions(3);

class CountTask : public KX::KXTask {
 public:
  CountTask(std::atomic<int>& remaining, std::mutex& mutex, std::condition_variable& cv)
      : remaining_(remaining), mutex_(mutex), cv_(cv) {}

  void run() override {
    if (remaining_.fetch_sub(1) == 1) {
      std::lock_guard<std::mutex> guard(mutex_);
      cv_.notify_one();
    }
  }

 private:
  std::atomic<int>& remaining_;
  std::mutex& mutex_;
  std::condition_variable& cv_;
};

// Many small tasks from one producer: the time to enqueue them all and see them finish.
void BM_SmallTaskThroughput(benchmark::State& state) {
  const int tasks = static_cast<int>(state.range(0));
  auto pool = std::make_shared<KX::KXThreadPool>(10, 200, 50, 100, 2);
  pool->init(10);
  std::mutex mutex;
  std::condition_variable cv;
  std::atomic<int> remaining{0};
  for (auto _ : state) {
    remaining = tasks;
    for (int i = 0; i < tasks; ++i)
      pool->enqueue(std::make_shared<CountTask>(remaining, mutex, cv));
    std::unique_lock<std::mutex> guard(mutex);
    cv.wait(guard, [&] { return remaining.load() == 0; });
  }
  state.SetItemsProcessed(state.iterations() * tasks);
  state.counters["workers"] = pool->getThreadCount();
  pool->shutdown();
}
BENCHMARK(BM_SmallTaskThroughput)->Arg(10000)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
