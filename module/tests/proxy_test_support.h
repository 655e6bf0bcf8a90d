#ifndef VELMO_MODULE_TESTS_PROXY_TEST_SUPPORT_H_
#define VELMO_MODULE_TESTS_PROXY_TEST_SUPPORT_H_

// A module and a broker fixture shared by the proxy, parallel-call and concurrency tests.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "broker/kxbroker.h"
#include "module/kxmodulecore.h"
#include "module/kxproxy.h"
#include "thread/tests/thread_test_support.h"
#include "value/kxerror.h"
#include "value/kxvalue.h"
#include "value/tests/value_test_util.h"

namespace KX {
namespace testing {

// The text a KXError carries.
inline std::string errorText(const std::string& module, const std::string& method,
                             const std::string& description) {
  return "\t" + module + "::" + method + "\n\t" + description;
}

using testing_util::errorText;
// Runs `body` and returns the text of the KXError it throws.
inline std::string errorOf(const std::function<void()>& body) { return errorText(body); }

// An Array of the given values: args({1, "x"}).
inline KXValue args(std::initializer_list<KXValue> values) {
  KXValue array;
  array.arraySetSize(0);
  for (const auto& value : values) array.arrayPush(value);
  return array;
}

// Polls `condition` until it holds; false when it did not within the patience.
inline bool eventually(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// A module with typed methods of every kind, and methods that block, fail or run until
// asked to stop, for the parallel calls.
class Calculator : public KXModule {
 public:
  Calculator(const std::shared_ptr<KXBroker>& broker, const std::string& name)
      : KXModule(broker, name) {
    setModuleDescription("Arithmetic for the proxy tests");

    functionName("add", "Calculator", "Adds two integers");
    addParam("a", "first term");
    addParam("b", "second term");
    setReturn("sum", "a + b");
    bindMethod(&Calculator::add);

    functionName("half", "Calculator", "Halves a number");
    addParam("x", "the number");
    setReturn("half", "x / 2");
    bindMethod(&Calculator::half);

    functionName("twice", "Calculator", "Doubles an integer");
    addParam("x", "the integer");
    setReturn("twice", "2 x");
    bindMethod(&Calculator::twice);

    functionName("greet", "Calculator", "Greets someone");
    addParam("who", "a name");
    setReturn("greeting", "Hello <who>");
    bindMethod(&Calculator::greet);

    functionName("keepValue", "Calculator", "Keeps where its argument lives");
    addParam("value", "any value");
    bindMethod(&Calculator::keepValue);

    functionName("countWords", "Calculator", "Counts words, keeping where they live");
    addParam("words", "the words");
    setReturn("count", "how many");
    bindMethod(&Calculator::countWords);

    functionName("scale", "Calculator", "Multiplies by ten, keeping where x lives");
    addParam("x", "the number");
    setReturn("scaled", "10 x");
    bindMethod(&Calculator::scale);

    functionName("echo", "Calculator", "Returns its argument");
    addParam("value", "any value");
    setReturn("value", "the same value");
    bindMethod(&Calculator::echo);

    functionName("fail", "Calculator", "Always fails");
    bindMethod(&Calculator::fail);

    functionName("hold", "Calculator", "Blocks until released");
    bindMethod(&Calculator::hold);

    functionName("pause", "Calculator", "Sleeps for ms milliseconds");
    addParam("ms", "milliseconds");
    bindMethod(&Calculator::pause);

    functionName("runUntilStopped", "Calculator", "Runs until its task is asked to stop");
    setReturn("stopped", "true when asked to stop");
    bindMethod(&Calculator::runUntilStopped);
  }

  int add(const int& a, const int& b) {
    ++addCalls;
    return a + b;
  }
  int subtract(const int& a, const int& b) { return a - b; }
  float half(const float& x) { return x / 2; }
  int twice(const int& x) { return 2 * x; }
  std::string greet(const std::string& who) { return "Hello " + who; }
  void keepValue(const KXValue& value) { valueSeen = &value; }
  int countWords(const std::vector<std::string>& words) {
    wordsSeen = &words;
    return static_cast<int>(words.size());
  }
  float scale(const float& x) {
    floatSeen = &x;
    return 10 * x;
  }
  KXValue echo(const KXValue& value) { return value; }
  void fail() { KX_THROW("Calculator", "fail", "deliberate failure"); }

  void hold() {
    {
      std::lock_guard<std::mutex> guard(mutex_);
      ++holdsStarted_;
    }
    changed_.notify_all();
    release.wait();
  }
  void pause(const int& ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

  // Finds its own task id, reports it, then polls the stop request (bounded: it gives up
  // after kPatience).
  bool runUntilStopped() {
    const int id = getTaskIdForCurrentThread();
    {
      std::lock_guard<std::mutex> guard(mutex_);
      ownTaskId_ = id;
    }
    changed_.notify_all();
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (std::chrono::steady_clock::now() < deadline) {
      if (id != -1 && isStopRequested(id)) {
        stoppedOnRequest = true;
        return true;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
  }

  // Waits until `count` calls of hold have started.
  bool waitForHolds(int count) {
    std::unique_lock<std::mutex> guard(mutex_);
    return changed_.wait_for(guard, kPatience, [&] { return holdsStarted_ >= count; });
  }
  // Waits until runUntilStopped has reported its task id; returns it (or -2 on timeout).
  int waitForOwnTaskId() {
    std::unique_lock<std::mutex> guard(mutex_);
    if (!changed_.wait_for(guard, kPatience, [&] { return ownTaskId_ != -2; })) return -2;
    return ownTaskId_;
  }
  int holdsStarted() {
    std::lock_guard<std::mutex> guard(mutex_);
    return holdsStarted_;
  }

  std::atomic<int> addCalls{0};
  const KXValue* valueSeen = nullptr;
  const std::vector<std::string>* wordsSeen = nullptr;
  const float* floatSeen = nullptr;
  std::atomic<bool> stoppedOnRequest{false};
  Latch release{1};

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int holdsStarted_ = 0;
  int ownTaskId_ = -2;
};

// A module whose typed calls go through its generic dispatch.
class GenericCalculator : public Calculator {
 public:
  GenericCalculator(const std::shared_ptr<KXBroker>& broker, const std::string& name)
      : Calculator(broker, name) {
    setRequiresGenericDispatch(true);
  }
};

// A fresh broker per test (no network, no "Exit" line), shut down at the end.
class BrokerTest : public ::testing::Test {
 protected:
  void SetUp() override { broker_ = makeBroker(KXBroker::kKeepAlive); }

  void TearDown() override {
    if (broker_) broker_->shutdown();
  }

  static std::shared_ptr<KXBroker> makeBroker(int flags) {
    static std::atomic<int> counter{0};
    const std::string name = "proxyTestBroker" + std::to_string(++counter);
    return KXBroker::createBroker(name, "127.0.0.1", 0, "", 0, flags, "", false);
  }

  std::shared_ptr<KXBroker> broker_;
};

}  // namespace testing
}  // namespace KX

#endif  // VELMO_MODULE_TESTS_PROXY_TEST_SUPPORT_H_
