#include "module/kxproxy.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "module/tests/proxy_test_support.h"

namespace KX {
namespace testing {
namespace {

using ProxyTest = CalcTest;

const std::string kDeleted =
    errorText("KXProxy", "getModuleCore", "module is deleted, cannot call function of Calc");

std::string wrongArgument(const std::string& method, int position, const std::string& given,
                          const std::string& declared) {
  return errorText("KXProxy", "call/pCall",
                   "When trying to call module 'Calc' function '" + method + "' parameter #" +
                       std::to_string(position) + " is of type " + given + " instead of type " +
                       declared);
}

TEST_F(ProxyTest, FindsTheModuleInItsBrokerOrThroughTheSearch) {
  EXPECT_TRUE(proxy_->isLocal());
  EXPECT_EQ(proxy_->getModuleName(), "Calc");
  EXPECT_EQ(proxy_->getBrokerName(), broker_->getName());
  const KXModuleInfo info = proxy_->getModuleInfo();
  EXPECT_EQ(info.ip + ":" + std::to_string(info.port),
            broker_->getIP() + ":" + std::to_string(broker_->getPort()));
  EXPECT_EQ(info.processId, static_cast<int>(getpid()));
  EXPECT_FALSE(info.isABroker);
  KXProxy searched(broker_, "Calc", KXProxy::kSkipLocalBroker);
  EXPECT_TRUE(searched.isLocal());
  EXPECT_EQ(searched.call<int>("add", 40, 2), 42);

  const std::string notFound = errorText("KXProxy", "constructor", "Module 'Nowhere' not found.");
  EXPECT_EQ(errorOf([&] { KXProxy proxy(broker_, "Nowhere"); }), notFound);
  EXPECT_EQ(errorOf([&] { KXProxy proxy(broker_, "Nowhere", KXProxy::kSkipLocalBroker); }),
            notFound);
  // Nothing listens on port 1: the fallback broker cannot ask, so the module is not found.
  EXPECT_EQ(errorOf([] { KXProxy proxy("Nowhere", "127.0.0.1", 1); }), notFound);
  EXPECT_EQ(errorOf([&] { KXProxy proxy(broker_, "Nowhere", "127.0.0.1", 1); }),
            errorText("KXProxy", "exploreToGetModuleByName", "No network"));
}

TEST_F(ProxyTest, TypedCallsGiveTheMethodsResult) {
  const char* name = "Cy";
  const std::pair<KXValue, KXValue> cases[] = {
      {proxy_->call<int>("add", 2, 3), 5},
      {proxy_->call<float>("half", 3.0f), 1.5f},
      {proxy_->call<std::string>("greet", std::string("Ann")), "Hello Ann"},
      {proxy_->call<std::string>("greet", "Bob"), "Hello Bob"},  // a literal is a string
      {proxy_->call<std::string>("greet", name), "Hello Cy"},
      {proxy_->call<bool>("ping"), true},
      {proxy_->call<std::string>("version"), "1.14"},
      {proxy_->call<KXValue>("echo", args({1, "x"})), args({1, "x"})},
      {proxy_->genericCall("add", args({20, 22})), 42},
      {proxy_->genericCall("twice", KXValue(21)), 42},  // a single value is wrapped
      {proxy_->genericCall("ping", KXValue()), true},   // Invalid is no argument
  };
  for (const auto& c : cases) EXPECT_EQ(shape(c.first), shape(c.second));
  EXPECT_EQ(module_->addCalls, 2);
}

TEST_F(ProxyTest, TypedCallsReachTheMethodWithoutConversion) {
  KXValue value = args({1, "two"});
  proxy_->call<void>("keepValue", value);
  EXPECT_EQ(module_->valueSeen, &value);
  std::vector<std::string> words{"a", "b", "c"};
  EXPECT_EQ(proxy_->call<int>("countWords", words), 3);
  EXPECT_EQ(module_->wordsSeen, &words);
  float x = 0.25f;
  EXPECT_FLOAT_EQ(proxy_->call<float>("scale", x), 2.5f);
  EXPECT_EQ(module_->floatSeen, &x);
}

TEST_F(ProxyTest, RepeatedCallsFollowARebindAndTheirOwnModule) {
  auto other = createModule<Calculator>(broker_, "Calc2");
  KXProxy otherProxy(broker_, "Calc2");
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(proxy_->call<int>("add", i, 1), i + 1);
    EXPECT_EQ(otherProxy.call<int>("add", i, 2), i + 2);
  }
  EXPECT_EQ(module_->addCalls + 10 * other->addCalls, 33);
  module_->functionName("add", "Calculator", "Subtracts now");
  module_->bindMethod(&Calculator::subtract);
  EXPECT_EQ(proxy_->call<int>("add", 5, 3), 2);
  module_->functionName("add", "Calculator", "Halves now");
  module_->bindMethod(&Calculator::half);
  EXPECT_EQ(errorOf([&] { proxy_->call<int>("add", 5, 3); }),
            errorText("Calc", "add",
                      "Function exists but parameters were wrong.  You tried: add(int, int)\n"));
  EXPECT_FLOAT_EQ(proxy_->call<float>("add", 5.0f), 2.5f);
}

TEST_F(ProxyTest, CallsThatDoNotFitTheMethodAreRefused) {
  const auto wrongResult = [](const std::string& method, const std::string& given,
                              const std::string& declared) {
    return errorText("KXProxy", "call",
                     "wrong return type for function '" + method + "' type is '" + given +
                         "' instead of '" + declared);
  };
  const std::string missing =
      errorText("Calc", "nope", "Function nope does not exist in module Calc");
  const std::string failure = errorText("Calculator", "fail", "deliberate failure");
  const std::pair<std::function<void()>, std::string> cases[] = {
      {[&] { proxy_->call<int>("half", 2.0f); }, wrongResult("half", "int", "float")},
      {[&] { proxy_->call<void>("add", 1, 2); }, wrongResult("add", "void", "int")},
      {[&] { proxy_->call<int>("add", 1.5f, 2); }, wrongArgument("add", 1, "float", "int")},
      {[&] { proxy_->call<int>("add", 1, "2"); }, wrongArgument("add", 2, "string", "int")},
      // No lax matching for typed calls: an int is no float.
      {[&] { proxy_->call<float>("half", 2); }, wrongArgument("half", 1, "int", "float")},
      {[&] { proxy_->pCall("add", 1, 2.5f); }, wrongArgument("add", 2, "float", "int")},
      {[&] { proxy_->call<int>("add", 1); },
       errorText("Calc", "add",
                 "Function exists but parameters were wrong.  You tried: add(int)\n")},
      {[&] { proxy_->call<int>("nope", 1); }, missing},
      {[&] { proxy_->genericCall("nope", KXValue()); }, missing},
      {[&] { proxy_->pCall("nope", 1); },
       errorText("KXProxy", "getMethodInfo", "Function nope does not exist in module Calc")},
      {[&] { proxy_->genericPCall("nope", KXValue()); },
       errorText("KXProxy", "genericPCall", "method not found")},
      {[&] { proxy_->genericCall("twice", KXValue()); },  // Invalid is no argument
       errorText("KXValue", "xAssertArraySize",
                 "The array has a size of 0 and you want it to be of size 1")},
      // The method's own errors pass through unchanged.
      {[&] { proxy_->call<void>("fail"); }, failure},
      {[&] { proxy_->genericCall("fail", KXValue()); }, failure},
  };
  for (const auto& c : cases) EXPECT_EQ(errorOf(c.first), c.second);
  EXPECT_EQ(module_->addCalls, 0);
}

TEST_F(ProxyTest, AnEntryOfTwoFormsAnswersTheTypedFaceDirectlyAndTheOtherGenerically) {
  const auto functor = TwoFormFunctor::bind(*module_, "two");
  EXPECT_EQ(proxy_->call<std::string>("two", "ann"), "typed ann");
  EXPECT_EQ(proxy_->call<std::string>("two", "bob", 3), "generic bob, 2 arguments");
  EXPECT_EQ(proxy_->genericCall("two", args({"cy"})), KXValue("generic cy, 1 arguments"));
  EXPECT_EQ(errorOf([&] { proxy_->call<std::string>("two", "ann", "x"); }),
            wrongArgument("two", 2, "string", "int"));
  EXPECT_EQ(functor->typedCalls + 10 * functor->genericCalls, 21);
}

TEST_F(BrokerTest, AModuleWithGenericDispatchIsCalledThroughItsValues) {
  auto module = createModule<GenericCalculator>(broker_, "GenericCalc");
  KXProxy proxy(broker_, "GenericCalc");
  EXPECT_EQ(proxy.call<int>("add", 2, 3), 5);
  KXValue value = args({1, 2});
  proxy.call<void>("keepValue", value);
  EXPECT_NE(module->valueSeen, &value);  // the method got a converted copy
  // The result is converted to the asked type by the value rules.
  EXPECT_FLOAT_EQ(proxy.call<float>("add", 1, 2), 3.0f);
  EXPECT_EQ(errorOf([&] { proxy.call<int>("greet", "Eve"); }),
            errorText("convertFromKXValue", "convertFromKXValue",
                      "Parameter type is String instead of int"));
}

TEST_F(ProxyTest, AnExitingModuleRunsNoCall) {
  module_->exit();  // still held by the test: exiting, not gone
  ::testing::internal::CaptureStdout();
  proxy_->call<void>("keepValue", KXValue(1));
  EXPECT_EQ(errorOf([&] { proxy_->call<int>("add", 1, 1); }), kDeleted);
  EXPECT_FALSE(proxy_->genericCall("add", args({1, 1})).isValid());
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            std::string(kExitingWarning) + kExitingWarning + kExitingWarning);
  EXPECT_EQ(module_->valueSeen, nullptr);
  EXPECT_EQ(module_->addCalls, 0);
}

TEST_F(ProxyTest, CallsFailOnceTheBrokerOrTheModuleIsGone) {
  const std::string brokerName = broker_->getName();
  broker_->shutdown();
  broker_.reset();
  // The module is still held here, its broker is not.
  EXPECT_EQ(errorOf([&] { proxy_->genericPCall("add", KXValue()); }),
            errorText("KXBroker", "no broker available", ""));
  module_.reset();
  const std::string notAModule =
      errorText("KXProxy", "getModule",
                "module is deleted or is not an KXModule, cannot call function of Calc");
  const std::pair<std::function<void()>, std::string> cases[] = {
      {[&] { proxy_->call<int>("add", 1, 1); }, kDeleted},
      {[&] { proxy_->genericCall("add", KXValue()); }, kDeleted},
      {[&] { proxy_->pCall("add", 1, 1); }, kDeleted},
      {[&] { proxy_->genericPCall("add", KXValue()); }, kDeleted},
      {[&] { proxy_->wait(2, 0); }, notAModule},
      {[&] { proxy_->isRunning(2); }, notAModule},
      {[&] { proxy_->stop(2); }, notAModule},
  };
  for (const auto& c : cases) EXPECT_EQ(errorOf(c.first), c.second);
  EXPECT_EQ(proxy_->getModuleName() + " " + proxy_->getBrokerName(), "Calc " + brokerName);
}

}  // namespace
}  // namespace testing
}  // namespace KX
