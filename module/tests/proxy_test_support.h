#ifndef VELMO_MODULE_TESTS_PROXY_TEST_SUPPORT_H_
#define VELMO_MODULE_TESTS_PROXY_TEST_SUPPORT_H_

// The module tests' kit (also used by the network and python tests): error texts, argument
// Arrays, a module with typed methods of every kind and methods that block, fail or run
// until asked to stop, and a broker per test.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
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

// The text a KXError(module, method, description) carries.
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

// The type and text of a value and of each element: "Int:3", "[Float:1.5 Float:2]".
inline std::string shape(const KXValue& value) {
  if (value.getType() != KXValue::TypeArray) {
    return KXValue::TypeToString(value.getType()) + ":" + value.toString();
  }
  std::string text = "[";
  for (int i = 0; i < value.getSize(); ++i) text += (i > 0 ? " " : "") + shape(value[i]);
  return text + "]";
}

constexpr char kExitingWarning[] =
    "WARNING: Attempt to run a new task while shutting down. Task will not be executed.\n";
// What "stop" says of an id that is not running.
inline const std::string kStopText = errorText(
    "KXTaskMonitor", "stop",
    "The method 'stop' has not been implement in your module. Module authors are encouraged to "
    "implement this method if they wish to allow long running methods to be stopped. Please see "
    "the documentation for further details.");

class Calculator : public KXModule {
 public:
  Calculator(const std::shared_ptr<KXBroker>& broker, const std::string& name)
      : KXModule(broker, name) {
    setModuleDescription("Arithmetic for the proxy tests");
    publish("add", &Calculator::add, "Adds two integers", {"a", "first term", "b", "second term"},
            {"sum", "a + b"});
    publish("half", &Calculator::half);
    publish("twice", &Calculator::twice);
    publish("greet", &Calculator::greet);
    publish("keepValue", &Calculator::keepValue, "Keeps where its argument lives",
            {"value", "any value"});
    publish("countWords", &Calculator::countWords);
    publish("scale", &Calculator::scale);
    publish("echo", &Calculator::echo);
    publish("fail", &Calculator::fail);
    publish("hold", &Calculator::hold);
    publish("pause", &Calculator::pause);
    publish("runUntilStopped", &Calculator::runUntilStopped);
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
    report([this] { ++holdsStarted_; });
    release.wait();
    ++holdsEnded;
  }
  void pause(const int& ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }
  // Reports its own task id, then polls the stop request (gives up after kPatience).
  bool runUntilStopped() {
    const int id = getTaskIdForCurrentThread();
    report([&] { ownTaskId_ = id; });
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (std::chrono::steady_clock::now() < deadline) {
      if (id != -1 && isStopRequested(id)) return stoppedOnRequest = true;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
  }

  // Waits until `count` calls of hold have started.
  bool waitForHolds(int count) {
    std::unique_lock<std::mutex> guard(mutex_);
    return changed_.wait_for(guard, kPatience, [&] { return holdsStarted_ >= count; });
  }
  // The id runUntilStopped reported (-2 when it did not in time).
  int waitForOwnTaskId() {
    std::unique_lock<std::mutex> guard(mutex_);
    changed_.wait_for(guard, kPatience, [&] { return ownTaskId_ != -2; });
    return ownTaskId_;
  }

  std::atomic<int> addCalls{0};
  std::atomic<int> holdsEnded{0};
  const KXValue* valueSeen = nullptr;
  const std::vector<std::string>* wordsSeen = nullptr;
  const float* floatSeen = nullptr;
  std::atomic<bool> stoppedOnRequest{false};
  Latch release{1};

 private:
  // `parameters`: name, description, name, description, ...
  template <typename Method>
  void publish(const std::string& name, Method method, const std::string& description = "",
               const std::vector<std::string>& parameters = {},
               const std::pair<std::string, std::string>& result = {}) {
    functionName(name, "Calculator", description);
    for (std::size_t i = 0; i + 1 < parameters.size(); i += 2) {
      addParam(parameters[i], parameters[i + 1]);
    }
    setReturn(result.first, result.second);
    bindMethod(method);
  }
  void report(const std::function<void()>& change) {
    {
      std::lock_guard<std::mutex> guard(mutex_);
      change();
    }
    changed_.notify_all();
  }

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

// One entry answering two forms: bound as `name`(string, int) with the int optional, its
// typed face is the one-argument form. Each way in says which it was: "typed ann",
// "generic ann, 2 arguments".
class TwoFormFunctor final : public detail::KXTypedFunctor<std::string, std::string> {
 public:
  static std::shared_ptr<TwoFormFunctor> bind(KXModuleCore& module, const std::string& name) {
    auto functor = std::make_shared<TwoFormFunctor>();
    module.functionName(name, "Calculator", "Answers one or two arguments");
    module.addParam("name", "who");
    module.addParam("times", "how often", true);
    module.bindMethod(functor, {"string", "int"}, "string");
    return functor;
  }
  void call(const KXValue& params, KXValue& result) override {
    ++genericCalls;
    result = "generic " + static_cast<const std::string&>(params[0]) + ", " +
             std::to_string(params.getSize()) + " arguments";
  }
  std::string invoke(const std::string& name) override {
    ++typedCalls;
    return "typed " + name;
  }
  std::atomic<int> typedCalls{0};
  std::atomic<int> genericCalls{0};
};

// A fresh broker per test (no network, no "Exit" line), shut down at the end.
class BrokerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    static std::atomic<int> counter{0};
    broker_ = KXBroker::createBroker("proxyTestBroker" + std::to_string(++counter), "127.0.0.1", 0,
                                     "", 0, KXBroker::kKeepAlive, "", false);
  }
  void TearDown() override {
    if (broker_) broker_->shutdown();
  }

  std::shared_ptr<KXBroker> broker_;
};

// A broker with a Calculator "Calc" and a proxy to it.
class CalcTest : public BrokerTest {
 protected:
  void SetUp() override {
    BrokerTest::SetUp();
    module_ = createModule<Calculator>(broker_, "Calc");
    proxy_ = std::make_shared<KXProxy>(broker_, "Calc");
  }
  void TearDown() override {
    if (module_) module_->release.countDown();
    BrokerTest::TearDown();
  }

  std::shared_ptr<Calculator> module_;
  std::shared_ptr<KXProxy> proxy_;
};

}  // namespace testing
}  // namespace KX

#endif  // VELMO_MODULE_TESTS_PROXY_TEST_SUPPORT_H_
