#ifndef VELMO_MODULE_TESTS_PROXY_TEST_SUPPORT_H_
#define VELMO_MODULE_TESTS_PROXY_TEST_SUPPORT_H_

// The module tests' kit, also the network and python tests': error texts, argument Arrays, a
// module whose methods block, fail or run until asked to stop, a broker per test.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
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
  // `generic`: typed calls take the generic path, as for modules in other languages.
  Calculator(const std::shared_ptr<KXBroker>& broker, const std::string& name, bool generic = false)
      : KXModule(broker, name) {
    setRequiresGenericDispatch(generic);
    setModuleDescription("Arithmetic for the proxy tests");
    functionName("add", "Calculator", "Adds two integers");
    addParam("a", "first term");
    addParam("b", "second term");
    setReturn("sum", "a + b");
    bindMethod(&Calculator::add);
    publish("half", &Calculator::half);
    publish("twice", &Calculator::twice);
    publish("greet", &Calculator::greet);
    functionName("keepValue", "Calculator", "Keeps where its argument lives");
    addParam("value", "any value");
    bindMethod(&Calculator::keepValue);
    publish("countWords", &Calculator::countWords);
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
  KXValue echo(const KXValue& value) { return value; }
  void fail() { KX_THROW("Calculator", "fail", "deliberate failure"); }
  void hold() {
    ++holdsStarted;
    release.wait();
    ++holdsEnded;
  }
  void pause(const int& ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }
  // Reports its own task id, then polls the stop request (gives up after kPatience).
  bool runUntilStopped() {
    const int id = ownTaskId = getTaskIdForCurrentThread();
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (std::chrono::steady_clock::now() < deadline) {
      if (id != -1 && isStopRequested(id)) return stoppedOnRequest = true;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
  }

  // Whether `count` calls of hold have started in time.
  bool waitForHolds(int count) {
    return eventually([&] { return holdsStarted >= count; });
  }
  // The id runUntilStopped reported (-2 when it did not in time).
  int waitForOwnTaskId() {
    eventually([&] { return ownTaskId != -2; });
    return ownTaskId;
  }

  std::atomic<int> addCalls{0};
  std::atomic<int> holdsStarted{0};
  std::atomic<int> holdsEnded{0};
  std::atomic<int> ownTaskId{-2};
  const KXValue* valueSeen = nullptr;
  const std::vector<std::string>* wordsSeen = nullptr;
  std::atomic<bool> stoppedOnRequest{false};
  Latch release{1};

 private:
  template <typename Method>
  void publish(const std::string& name, Method method) {
    functionName(name, "Calculator", "");
    bindMethod(method);
  }
};

// Answers `name`(string[, int]) through one entry whose typed face is the one-argument
// form; each way in says which it was: "typed ann", "generic ann, 2 arguments".
struct TwoFormFunctor final : detail::KXTypedFunctor<std::string, std::string> {
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
  std::string invoke(const std::string& name) override { return ++typedCalls, "typed " + name; }
  std::atomic<int> typedCalls{0};
  std::atomic<int> genericCalls{0};
};

// A fresh broker per test (no network, no "Exit" line), shut down at the end.
class BrokerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    broker_ = KXBroker::createBroker("proxyTestBroker", "127.0.0.1", 0, "", 0, KXBroker::kKeepAlive,
                                     "", false);
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
