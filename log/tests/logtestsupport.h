// The log test kit: records captured, and the environment guarded, for any subsystem's tests.
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
  std::string category, message, file, function;
  int line = 0;
  std::thread::id thread;
};

// Captures every record logged while it exists, through a handler of the given name.
// Thread-safe; removing the handler waits for a call in progress, so none outlives it.
class LogCapture {
 public:
  explicit LogCapture(std::string name = "test-log-capture") : name_(std::move(name)) {
    addLogHandler(name_, [this](LogLevel level, const LogTime& time, const char* category,
                                const char* text, const char* file, const char* where, int n) {
      std::lock_guard<std::mutex> lock(mutex_);
      records_.push_back({level, time, category, text, file, where, n, std::this_thread::get_id()});
    });
  }
  ~LogCapture() { removeLogHandler(name_); }

  // Everything logged so far, once pending records have been delivered.
  std::vector<CapturedRecord> records() {
    flush();
    std::lock_guard<std::mutex> lock(mutex_);
    return records_;
  }

  std::vector<CapturedRecord> withFunction(const std::string& function) {
    std::vector<CapturedRecord> found;
    for (auto& record : records()) {
      if (record.function == function) found.push_back(std::move(record));
    }
    return found;
  }

 private:
  std::string name_;
  std::mutex mutex_;
  std::vector<CapturedRecord> records_;
};

// Saves an environment variable and puts it back when destroyed. Not to be copied.
class EnvironmentGuard {
 public:
  explicit EnvironmentGuard(const char* name) : name_(name), wasSet_(std::getenv(name)) {
    if (wasSet_) saved_ = std::getenv(name);
  }
  ~EnvironmentGuard() {
    wasSet_ ? setenv(name_.c_str(), saved_.c_str(), 1) : unsetenv(name_.c_str());
  }

 private:
  std::string name_, saved_;
  bool wasSet_;
};

}  // namespace testing
}  // namespace log
}  // namespace tu

#endif  // VELMO_LOG_TESTS_LOGTESTSUPPORT_H_
