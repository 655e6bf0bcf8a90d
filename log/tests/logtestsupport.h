#ifndef VELMO_LOG_TESTS_LOGTESTSUPPORT_H_
#define VELMO_LOG_TESTS_LOGTESTSUPPORT_H_

#include <gtest/gtest.h>

#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "log/log.h"

namespace tu {
namespace log {
namespace testing {

// One record as a handler saw it.
struct CapturedRecord {
  LogLevel level = silent;
  LogTime time;
  std::string category;
  std::string message;
  std::string file;
  std::string function;
  int line = 0;
  std::thread::id thread;
};

// Collects the records handed to its handler. Thread-safe; must outlive the handler's
// registration.
class RecordCapture {
 public:
  LogHandler handler() {
    return [this](LogLevel level, const LogTime& time, const char* category, const char* message,
                  const char* file, const char* function, int line) {
      CapturedRecord record;
      record.level = level;
      record.time = time;
      record.category = category;
      record.message = message;
      record.file = file;
      record.function = function;
      record.line = line;
      record.thread = std::this_thread::get_id();
      std::lock_guard<std::mutex> lock(mutex_);
      records_.push_back(std::move(record));
    };
  }

  std::vector<CapturedRecord> records() {
    std::lock_guard<std::mutex> lock(mutex_);
    return records_;
  }

 private:
  std::mutex mutex_;
  std::vector<CapturedRecord> records_;
};

// Registers a handler for the scope of a test. Declare it after whatever the handler
// refers to: it is removed first, and removal waits for a call in progress, so the handler
// never outlives its captures.
class ScopedLogHandler {
 public:
  ScopedLogHandler(std::string name, LogHandler handler) : name_(std::move(name)) {
    addLogHandler(name_, std::move(handler));
  }
  ~ScopedLogHandler() { removeLogHandler(name_); }
  ScopedLogHandler(const ScopedLogHandler&) = delete;
  ScopedLogHandler& operator=(const ScopedLogHandler&) = delete;

 private:
  std::string name_;
};

// Captures every record logged while it exists (any subsystem's tests may use it).
class LogCapture {
 public:
  explicit LogCapture(std::string name = "test-log-capture")
      : registration_(std::move(name), capture_.handler()) {}

  // Everything logged so far, once pending records have been delivered.
  std::vector<CapturedRecord> records() {
    flush();
    return capture_.records();
  }

  std::vector<CapturedRecord> withFunction(const std::string& function) {
    std::vector<CapturedRecord> found;
    for (auto& record : records()) {
      if (record.function == function) found.push_back(std::move(record));
    }
    return found;
  }

 private:
  RecordCapture capture_;
  ScopedLogHandler registration_;  // after capture_: unregistered before it goes away
};

// Saves an environment variable and puts it back when destroyed.
class EnvironmentGuard {
 public:
  explicit EnvironmentGuard(const char* name) : name_(name) {
    if (const char* value = std::getenv(name)) {
      saved_ = true;
      value_ = value;
    }
  }
  ~EnvironmentGuard() {
    if (saved_) {
      setenv(name_.c_str(), value_.c_str(), 1);
    } else {
      unsetenv(name_.c_str());
    }
  }
  EnvironmentGuard(const EnvironmentGuard&) = delete;
  EnvironmentGuard& operator=(const EnvironmentGuard&) = delete;

 private:
  std::string name_;
  bool saved_ = false;
  std::string value_;
};

// Starts every test from the library's default state with a known environment (no
// overrides, no colour) and restores that default afterwards, whatever the test changed.
class LogFacilityTest : public ::testing::Test {
 protected:
  void SetUp() override {
    unsetenv("VERBOSE");
    unsetenv("CONTEXT");
    setenv("CLICOLOR", "0", 1);
    init(info, 0, true);
  }

  void TearDown() override {
    unsetenv("VERBOSE");
    unsetenv("CONTEXT");
    init(info, 0, true);
  }

 private:
  // Declared before use in SetUp, destroyed after TearDown: the caller's environment
  // comes back once the default state has been rebuilt.
  EnvironmentGuard verbose_{"VERBOSE"};
  EnvironmentGuard context_{"CONTEXT"};
  EnvironmentGuard clicolor_{"CLICOLOR"};
};

}  // namespace testing
}  // namespace log
}  // namespace tu

#endif  // VELMO_LOG_TESTS_LOGTESTSUPPORT_H_
