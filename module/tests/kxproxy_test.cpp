#include "module/kxproxy.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "broker/kxbroker.h"
#include "broker/kxbrokermanager.h"
#include "module/tests/proxy_test_support.h"

namespace KX {
namespace {

using testing::args;
using testing::BrokerTest;
using testing::Calculator;
using testing::errorOf;
using testing::errorText;
using testing::GenericCalculator;

class ProxyTest : public BrokerTest {
 protected:
  void SetUp() override {
    BrokerTest::SetUp();
    module_ = createModule<Calculator>(broker_, "Calc");
    proxy_ = std::make_shared<KXProxy>(broker_, "Calc");
  }

  std::shared_ptr<Calculator> module_;
  std::shared_ptr<KXProxy> proxy_;
};

// ---- Construction

TEST_F(ProxyTest, ALocalModuleGivesALocalProxy) {
  EXPECT_TRUE(proxy_->isLocal());
  EXPECT_EQ(proxy_->getModuleName(), "Calc");
  EXPECT_EQ(proxy_->getBrokerName(), broker_->getName());
  const KXModuleInfo info = proxy_->getModuleInfo();
  EXPECT_EQ(info.name, "Calc");
  EXPECT_EQ(info.ip, broker_->getIP());
  EXPECT_EQ(info.port, broker_->getPort());
  EXPECT_EQ(info.processId, static_cast<int>(getpid()));
  EXPECT_FALSE(info.isABroker);
}

TEST_F(ProxyTest, AnUnknownModuleIsNotFound) {
  EXPECT_EQ(errorOf([&] { KXProxy proxy(broker_, "Nowhere"); }),
            errorText("KXProxy", "constructor", "Module 'Nowhere' not found."));
  EXPECT_EQ(errorOf([&] { KXProxy proxy(broker_, "Nowhere", KXProxy::kSkipLocalBroker); }),
            errorText("KXProxy", "constructor", "Module 'Nowhere' not found."));
}

TEST_F(ProxyTest, SkippingTheLocalTableStillFindsTheModuleThroughTheSearch) {
  KXProxy proxy(broker_, "Calc", KXProxy::kSkipLocalBroker);
  EXPECT_TRUE(proxy.isLocal());
  EXPECT_EQ(proxy.getModuleInfo().name, "Calc");
  EXPECT_EQ(proxy.call<int>("add", 40, 2), 42);
}

TEST(ProxyAddressTest, AProxyFromAnAddressAsksThroughTheFallbackBroker) {
  // Nothing listens on port 1: the question cannot be asked, so the module is not found.
  EXPECT_EQ(errorOf([] { KXProxy proxy("Calc", "127.0.0.1", 1); }),
            errorText("KXProxy", "constructor", "Module 'Calc' not found."));
  std::shared_ptr<KXBroker> fallback;
  for (const auto& broker : KXBrokerManager::getInstance()->getBrokers()) {
    if (broker->getName() == "emptyBroker") fallback = broker;
  }
  ASSERT_NE(fallback, nullptr);
  // It listens, on a port picked from 54010 upwards.
  EXPECT_NE(fallback->getNetwork(), nullptr);
  EXPECT_GE(fallback->getPort(), 54010);
  // A second proxy reuses it.
  EXPECT_EQ(errorOf([] { KXProxy proxy("Calc", "127.0.0.1", 1, 0, 0); }),
            errorText("KXProxy", "constructor", "Module 'Calc' not found."));
  int count = 0;
  for (const auto& broker : KXBrokerManager::getInstance()->getBrokers()) {
    if (broker->getName() == "emptyBroker") ++count;
  }
  EXPECT_EQ(count, 1);
  // The manager keeps it and shuts it down with the process.
}

// ---- Typed calls

TEST_F(ProxyTest, TypedCallsReturnTheMethodsResult) {
  EXPECT_EQ(proxy_->call<int>("add", 2, 3), 5);
  EXPECT_FLOAT_EQ(proxy_->call<float>("half", 3.0f), 1.5f);
  EXPECT_EQ(proxy_->call<std::string>("greet", std::string("Ann")), "Hello Ann");
  EXPECT_EQ(proxy_->call<std::string>("greet", "Bob"), "Hello Bob");  // a literal is a string
  const char* name = "Cy";
  EXPECT_EQ(proxy_->call<std::string>("greet", name), "Hello Cy");
  EXPECT_TRUE(proxy_->call<bool>("ping"));
  EXPECT_EQ(proxy_->call<std::string>("version"), "1.14");
  EXPECT_EQ(module_->addCalls.load(), 1);
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

  const KXValue back = proxy_->call<KXValue>("echo", value);
  EXPECT_EQ(back, value);
}

TEST_F(ProxyTest, RepeatedCallsFollowARebindOfTheMethod) {
  EXPECT_EQ(proxy_->call<int>("add", 5, 3), 8);
  EXPECT_EQ(proxy_->call<int>("add", 5, 3), 8);
  module_->functionName("add", "Calculator", "Subtracts now");
  module_->addParam("a", "first term");
  module_->addParam("b", "second term");
  module_->setReturn("difference", "a - b");
  module_->bindMethod(&Calculator::subtract);
  EXPECT_EQ(proxy_->call<int>("add", 5, 3), 2);

  module_->functionName("add", "Calculator", "Halves now");
  module_->addParam("x", "the number");
  module_->setReturn("half", "x / 2");
  module_->bindMethod(&Calculator::half);
  EXPECT_EQ(errorOf([&] { proxy_->call<int>("add", 5, 3); }),
            errorText("Calc", "add",
                      "Function exists but parameters were wrong.  You tried: add(int, int)\n"));
  EXPECT_FLOAT_EQ(proxy_->call<float>("add", 5.0f), 2.5f);
}

TEST_F(ProxyTest, RepeatedCallsGoToTheModuleOfEachProxy) {
  auto other = createModule<Calculator>(broker_, "Calc2");
  KXProxy otherProxy(broker_, "Calc2");
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(proxy_->call<int>("add", i, 1), i + 1);
    EXPECT_EQ(otherProxy.call<int>("add", i, 2), i + 2);
  }
  EXPECT_EQ(module_->addCalls.load(), 3);
  EXPECT_EQ(other->addCalls.load(), 3);
}

TEST_F(ProxyTest, AWrongReturnTypeIsRefused) {
  EXPECT_EQ(errorOf([&] { proxy_->call<int>("half", 2.0f); }),
            errorText("KXProxy", "call",
                      "wrong return type for function 'half' type is 'int' instead of 'float"));
  EXPECT_EQ(errorOf([&] { proxy_->call<void>("add", 1, 2); }),
            errorText("KXProxy", "call",
                      "wrong return type for function 'add' type is 'void' instead of 'int"));
  EXPECT_EQ(module_->addCalls.load(), 0);
}

TEST_F(ProxyTest, AWrongArgumentTypeIsRefused) {
  EXPECT_EQ(errorOf([&] { proxy_->call<int>("add", 1.5f, 2); }),
            errorText("KXProxy", "call/pCall",
                      "When trying to call module 'Calc' function 'add' parameter #1 is of type "
                      "float instead of type int"));
  EXPECT_EQ(errorOf([&] { proxy_->call<int>("add", 1, "2"); }),
            errorText("KXProxy", "call/pCall",
                      "When trying to call module 'Calc' function 'add' parameter #2 is of type "
                      "string instead of type int"));
  // No lax matching for typed calls: an int is no float.
  EXPECT_EQ(errorOf([&] { proxy_->call<float>("half", 2); }),
            errorText("KXProxy", "call/pCall",
                      "When trying to call module 'Calc' function 'half' parameter #1 is of type "
                      "int instead of type float"));
  EXPECT_EQ(module_->addCalls.load(), 0);
}

TEST_F(ProxyTest, AWrongArgumentCountIsRefusedByTheSignatureLookup) {
  EXPECT_EQ(errorOf([&] { proxy_->call<int>("add", 1); }),
            errorText("Calc", "add",
                      "Function exists but parameters were wrong.  You tried: add(int)\n"));
  EXPECT_EQ(module_->addCalls.load(), 0);
}

TEST_F(ProxyTest, ATypedCallOfAnUnknownMethodFails) {
  EXPECT_EQ(errorOf([&] { proxy_->call<int>("nope", 1); }),
            errorText("Calc", "nope", "Function nope does not exist in module Calc"));
}

TEST_F(ProxyTest, ErrorsOfTheMethodPassThroughUnchanged) {
  EXPECT_EQ(errorOf([&] { proxy_->call<void>("fail"); }),
            errorText("Calculator", "fail", "deliberate failure"));
  EXPECT_EQ(errorOf([&] { proxy_->genericCall("fail", KXValue()); }),
            errorText("Calculator", "fail", "deliberate failure"));
}

TEST_F(BrokerTest, AModuleWithGenericDispatchIsCalledThroughItsValues) {
  auto module = createModule<GenericCalculator>(broker_, "GenericCalc");
  KXProxy proxy(broker_, "GenericCalc");
  EXPECT_EQ(proxy.call<int>("add", 2, 3), 5);
  EXPECT_EQ(proxy.call<std::string>("greet", "Dee"), "Hello Dee");
  KXValue value = args({1, 2});
  proxy.call<void>("keepValue", value);
  // The method received the converted copy, not the caller's value.
  EXPECT_NE(module->valueSeen, &value);
  EXPECT_NE(module->valueSeen, nullptr);
  EXPECT_EQ(proxy.call<KXValue>("echo", value), value);
  // The generic path converts the result to the asked type by the value rules.
  EXPECT_FLOAT_EQ(proxy.call<float>("add", 1, 2), 3.0f);
  EXPECT_EQ(errorOf([&] { proxy.call<int>("greet", "Eve"); }),
            errorText("convertFromKXValue", "convertFromKXValue",
                      "Parameter type is String instead of int"));
}

// ---- Generic calls

TEST_F(ProxyTest, GenericCallTakesAnArrayOfArguments) {
  const KXValue result = proxy_->genericCall("add", args({20, 22}));
  EXPECT_EQ(result.getType(), KXValue::TypeInt);
  EXPECT_EQ(static_cast<int>(result), 42);
}

TEST_F(ProxyTest, GenericCallWrapsASingleValue) {
  EXPECT_EQ(static_cast<int>(proxy_->genericCall("twice", KXValue(21))), 42);
  const KXValue greeting = proxy_->genericCall("greet", KXValue("Flo"));
  EXPECT_EQ(static_cast<const std::string&>(greeting), "Hello Flo");
}

TEST_F(ProxyTest, GenericCallTurnsInvalidIntoNoArguments) {
  EXPECT_TRUE(static_cast<bool>(proxy_->genericCall("ping", KXValue())));
  // A method taking one argument then lacks it.
  EXPECT_EQ(errorOf([&] { proxy_->genericCall("twice", KXValue()); }),
            errorText("KXValue", "xAssertArraySize",
                      "The array has a size of 0 and you want it to be of size 1"));
}

TEST_F(ProxyTest, GenericCallOfAnUnknownMethodFails) {
  EXPECT_EQ(errorOf([&] { proxy_->genericCall("nope", args({})); }),
            errorText("Calc", "nope", "Function nope does not exist in module Calc"));
}

// ---- A module or broker that goes away

TEST_F(ProxyTest, CallsFailOnceTheModuleIsGone) {
  EXPECT_EQ(proxy_->call<int>("add", 1, 1), 2);
  module_->exit();
  module_.reset();
  const std::string deleted =
      errorText("KXProxy", "getModuleCore", "module is deleted, cannot call function of Calc");
  EXPECT_EQ(errorOf([&] { proxy_->call<int>("add", 1, 1); }), deleted);
  EXPECT_EQ(errorOf([&] { proxy_->genericCall("add", args({1, 1})); }), deleted);
  EXPECT_EQ(errorOf([&] { proxy_->pCall("add", 1, 1); }), deleted);
  EXPECT_EQ(errorOf([&] { proxy_->genericPCall("add", args({1, 1})); }), deleted);
  const std::string notAModule =
      errorText("KXProxy", "getModule",
                "module is deleted or is not an KXModule, cannot call function of Calc");
  EXPECT_EQ(errorOf([&] { proxy_->wait(2, 0); }), notAModule);
  EXPECT_EQ(errorOf([&] { proxy_->isRunning(2); }), notAModule);
  EXPECT_EQ(errorOf([&] { proxy_->stop(2); }), notAModule);
  // The proxy itself stays usable as an object.
  EXPECT_EQ(proxy_->getModuleName(), "Calc");
  EXPECT_EQ(proxy_->getBrokerName(), broker_->getName());
}

TEST_F(ProxyTest, CallsFailOnceTheBrokerHasShutDown) {
  module_.reset();
  broker_->shutdown();
  EXPECT_EQ(
      errorOf([&] { proxy_->call<int>("add", 1, 1); }),
      errorText("KXProxy", "getModuleCore", "module is deleted, cannot call function of Calc"));
}

TEST_F(ProxyTest, AnExitingModuleRunsNoTypedCall) {
  module_->exit();  // still held by the test: exiting, not gone
  ::testing::internal::CaptureStdout();
  proxy_->call<void>("keepValue", KXValue(1));
  const std::string typedError = errorOf([&] { proxy_->call<int>("add", 1, 1); });
  const KXValue genericResult = proxy_->genericCall("add", args({1, 1}));
  const std::string printed = ::testing::internal::GetCapturedStdout();
  EXPECT_NE(printed.find("WARNING: Attempt to run a new task while shutting down. Task will not "
                         "be executed."),
            std::string::npos);
  EXPECT_EQ(module_->valueSeen, nullptr);
  EXPECT_EQ(typedError, errorText("KXProxy", "getModuleCore",
                                  "module is deleted, cannot call function of Calc"));
  EXPECT_FALSE(genericResult.isValid());
  EXPECT_EQ(module_->addCalls.load(), 0);
}

TEST_F(ProxyTest, AParallelCallNeedsTheBroker) {
  std::weak_ptr<KXBroker> weakBroker = broker_;
  broker_->shutdown();
  broker_.reset();
  ASSERT_TRUE(weakBroker.expired());
  // The module is still held here, its broker is not.
  EXPECT_EQ(errorOf([&] {
              proxy_->genericPCall("add", args({1, 2}));
            }),
            errorText("KXBroker", "no broker available", ""));
}

}  // namespace
}  // namespace KX
