#include "log/detail/dispatcher.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "log/tests/logtestsupport.h"

namespace tu {
namespace log {
namespace {

using testing::CapturedRecord;
using testing::RecordCapture;
using testing::ScopedLogHandler;

// The facility in threaded mode, without the console handler (the records here would only
// flood the test output).
class ThreadedLogTest : public testing::LogFacilityTest {
 protected:
  void SetUp() override {
    LogFacilityTest::SetUp();
    init(info, 0, false);
    removeLogHandler("consoleloghandler");
  }
};

// Shuts a dispatcher down when a test ends, before what its handlers refer to goes away.
class ShutdownOnExit {
 public:
  explicit ShutdownOnExit(std::shared_ptr<detail::Dispatcher> dispatcher)
      : dispatcher_(std::move(dispatcher)) {}
  ~ShutdownOnExit() { dispatcher_->shutdown(); }
  ShutdownOnExit(const ShutdownOnExit&) = delete;
  ShutdownOnExit& operator=(const ShutdownOnExit&) = delete;

 private:
  std::shared_ptr<detail::Dispatcher> dispatcher_;
};

// A one-shot gate that a handler can wait on.
class Gate {
 public:
  void open() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      open_ = true;
    }
    changed_.notify_all();
  }
  void wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return open_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool open_ = false;
};

// Counts down once per event and lets a waiter block until it reaches zero.
class Latch {
 public:
  explicit Latch(int count) : count_(count) {}
  void countDown() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (--count_ == 0) {
      changed_.notify_all();
    }
  }
  void wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return count_ <= 0; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int count_;
};

// Logs `count` records from each of `threads` threads; the line carries the sequence.
void logFromThreads(int threads, int count, const char* category) {
  std::vector<std::thread> workers;
  for (int t = 0; t < threads; ++t) {
    workers.emplace_back([t, count, category] {
      const std::string function = "thread" + std::to_string(t);
      for (int i = 0; i < count; ++i) {
        log(info, category, "m\n", "", function.c_str(), i);
      }
    });
  }
  for (std::thread& worker : workers) {
    worker.join();
  }
}

TEST_F(ThreadedLogTest, RecordsOfEveryThreadArriveInOrder) {
  RecordCapture capture;
  const ScopedLogHandler captureHandler("capture", capture.handler());
  logFromThreads(4, 500, "c");
  flush();

  const std::vector<CapturedRecord> records = capture.records();
  ASSERT_EQ(records.size(), 2000u);
  std::vector<int> next(4, 0);
  for (const CapturedRecord& record : records) {
    const int thread = record.function.back() - '0';
    ASSERT_GE(thread, 0);
    ASSERT_LT(thread, 4);
    ASSERT_EQ(record.line, next[thread]) << "thread " << thread;
    ++next[thread];
    EXPECT_NE(record.thread, std::this_thread::get_id());
  }
  EXPECT_EQ(next, (std::vector<int>{500, 500, 500, 500}));
}

TEST_F(ThreadedLogTest, HandlersRunOnOneLogThread) {
  RecordCapture capture;
  const ScopedLogHandler captureHandler("capture", capture.handler());
  logFromThreads(3, 50, "c");
  flush();
  const std::vector<CapturedRecord> records = capture.records();
  ASSERT_EQ(records.size(), 150u);
  for (const CapturedRecord& record : records) {
    EXPECT_EQ(record.thread, records.front().thread);
    EXPECT_NE(record.thread, std::this_thread::get_id());
  }
}

TEST_F(ThreadedLogTest, FlushWaitsForEveryRecord) {
  std::atomic<int> delivered{0};
  const ScopedLogHandler count("count", [&delivered](LogLevel, const LogTime&, const char*,
                                                     const char*, const char*, const char*, int) {
    std::this_thread::yield();  // a handler slower than the caller
    ++delivered;
  });
  for (int i = 0; i < 1000; ++i) {
    log(info, "c", "m\n", "", "f", i);
  }
  flush();
  EXPECT_EQ(delivered.load(), 1000);
}

TEST_F(ThreadedLogTest, LaterInitDeliversWhatIsPending) {
  RecordCapture capture;
  const ScopedLogHandler captureHandler("capture", capture.handler());
  for (int i = 0; i < 500; ++i) {
    log(info, "c", "m\n", "", "f", i);
  }
  init(info, 0, true);  // no flush: the tear-down delivers first
  const std::vector<CapturedRecord> records = capture.records();
  // Then come the two settings lines that init logs before tearing the old state down.
  ASSERT_EQ(records.size(), 502u);
  for (int i = 0; i < 500; ++i) {
    ASSERT_EQ(records[i].category, "c");
    ASSERT_EQ(records[i].line, i);
  }
  EXPECT_EQ(records[500].message, "Verbosity set to 4\n");
  EXPECT_EQ(records[501].message, "Context set to 0\n");
}

TEST_F(ThreadedLogTest, ReplacingAHandlerWhileRecordsFlow) {
  std::atomic<int> first{0};
  std::atomic<int> second{0};
  std::atomic<int> other{0};
  const auto counter = [](std::atomic<int>& count) -> LogHandler {
    return [&count](LogLevel, const LogTime&, const char*, const char*, const char*, const char*,
                    int) { ++count; };
  };
  addLogHandler("count", counter(first));

  std::thread producer([] {
    for (int i = 0; i < 2000; ++i) {
      log(info, "c", "m\n", "", "f", i);
    }
  });
  for (int i = 0; i < 200; ++i) {
    addLogHandler("count", counter(i % 2 == 0 ? second : first));
    addLogHandler("other", counter(other));
    removeLogHandler("other");
  }
  producer.join();
  flush();
  // "count" was registered throughout, always under one version: each record reached it once.
  EXPECT_EQ(first.load() + second.load(), 2000);

  removeLogHandler("count");
  const int before = first.load() + second.load();
  log(info, "c", "m\n", "", "f", 0);
  flush();
  EXPECT_EQ(first.load() + second.load(), before);
}

TEST_F(ThreadedLogTest, HandlerThatLogsDoesNotDeadlock) {
  RecordCapture capture;
  const ScopedLogHandler captureHandler("capture", capture.handler());
  addLogHandler("echo", [](LogLevel, const LogTime&, const char* category, const char*, const char*,
                           const char*, int line) {
    if (std::string(category) == "in") {
      log(info, "out", "echo\n", "", "f", line);
      flush();  // from the log thread: must not wait for itself
    }
  });
  // Four producers keep the ring full while every record logs from the log thread.
  logFromThreads(4, 500, "in");
  flush();

  int in = 0;
  int out = 0;
  for (const CapturedRecord& record : capture.records()) {
    if (record.category == "in") {
      ++in;
    } else if (record.category == "out") {
      ++out;
    }
  }
  EXPECT_EQ(in, 2000);
  EXPECT_EQ(out, 2000);
}

// On a dispatcher of its own: with the log thread held in a handler, the ring fills up and
// the next caller waits for a slot instead of overwriting a pending record.
TEST(DispatcherTest, FullRingMakesCallersWait) {
  std::shared_ptr<detail::Dispatcher> dispatcher = detail::Dispatcher::create(false);
  RecordCapture capture;
  Gate gate;
  Latch entered(1);
  dispatcher->addHandler(
      "0-gate",  // runs before "capture"
      [&](LogLevel, const LogTime&, const char*, const char*, const char*, const char*, int line) {
        if (line == 0) {
          entered.countDown();
          gate.wait();
        }
      });
  dispatcher->addHandler("capture", capture.handler());
  const ShutdownOnExit stop(dispatcher);

  dispatcher->submit(info, "c", "m", "", "f", 0);
  entered.wait();  // the log thread now holds record 0, whose slot stays taken
  for (int i = 1; i < static_cast<int>(detail::kSlotCount); ++i) {
    dispatcher->submit(info, "c", "m", "", "f", i);  // fills the ring without waiting
  }
  EXPECT_EQ(dispatcher->waitingCallers(), 0u);

  std::thread late([&dispatcher] {
    for (int i = static_cast<int>(detail::kSlotCount); i < 300; ++i) {
      dispatcher->submit(info, "c", "m", "", "f", i);
    }
  });
  // Bounded wait for the late caller to block on the full ring.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (dispatcher->waitingCallers() == 0 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::yield();
  }
  const std::size_t waiting = dispatcher->waitingCallers();
  const std::size_t deliveredWhileBlocked = capture.records().size();
  gate.open();
  late.join();
  dispatcher->flush();

  EXPECT_EQ(waiting, 1u);
  EXPECT_EQ(deliveredWhileBlocked, 0u);
  const std::vector<CapturedRecord> records = capture.records();
  ASSERT_EQ(records.size(), 300u);
  for (int i = 0; i < 300; ++i) {
    ASSERT_EQ(records[i].line, i);
  }
  dispatcher->shutdown();
}

TEST(DispatcherTest, ShutdownDeliversPendingThenDropsLaterRecords) {
  std::shared_ptr<detail::Dispatcher> dispatcher = detail::Dispatcher::create(false);
  RecordCapture capture;
  dispatcher->addHandler("capture", capture.handler());
  const ShutdownOnExit stop(dispatcher);
  for (int i = 0; i < 200; ++i) {
    dispatcher->submit(info, "c", "m", "", "f", i);
  }
  dispatcher->shutdown();
  EXPECT_EQ(capture.records().size(), 200u);
  dispatcher->submit(info, "c", "late", "", "f", 0);
  dispatcher->addHandler("again", capture.handler());
  dispatcher->flush();
  dispatcher->shutdown();  // a second shutdown is harmless
  EXPECT_EQ(capture.records().size(), 200u);
}

TEST(DispatcherTest, SynchronousDispatchRunsOnTheCaller) {
  std::shared_ptr<detail::Dispatcher> dispatcher = detail::Dispatcher::create(true);
  RecordCapture capture;
  dispatcher->addHandler("capture", capture.handler());
  const ShutdownOnExit stop(dispatcher);
  // More records than slots: the ring wraps around.
  for (int i = 0; i < 300; ++i) {
    dispatcher->submit(info, "c", "m", "", "f", i);
  }
  const std::vector<CapturedRecord> records = capture.records();
  ASSERT_EQ(records.size(), 300u);
  for (int i = 0; i < 300; ++i) {
    ASSERT_EQ(records[i].line, i);
    ASSERT_EQ(records[i].thread, std::this_thread::get_id());
  }
  dispatcher->shutdown();
  dispatcher->submit(info, "c", "m", "", "f", 0);
  EXPECT_EQ(capture.records().size(), 300u);
}

// A thread that keeps logging while the process exits: the facility is torn down under it
// (pending records delivered, log thread joined) and its later records are dropped.
void exitWhileAnotherThreadLogs() {
  init(info, 0, false);
  removeLogHandler("consoleloghandler");
  Latch started(1);
  std::thread([&started] {
    log(info, "c", "first\n", "", "f", 0);
    started.countDown();
    for (int i = 1; i < 100000000; ++i) {
      log(info, "c", "m\n", "", "f", i);
    }
  }).detach();
  started.wait();
  std::exit(0);
}

TEST(LogExitTest, LoggingDuringProcessExitIsSafe) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(exitWhileAnotherThreadLogs(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace log
}  // namespace tu
