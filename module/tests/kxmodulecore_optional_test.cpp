// Optional parameters and functors bound with declared types: one table entry that
// answers two signatures, chosen by the argument count.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "broker/kxbroker.h"
#include "module/kxfunctor.h"
#include "module/kxmodulecore.h"
#include "module/kxproxy.h"
#include "value/kxerror.h"
#include "value/kxvalue.h"
#include "value/tests/value_test_util.h"

namespace KX {
namespace {

using testing_util::arrayOf;
using testing_util::errorText;

// Answers greet(name) with "hello <name>" and greet(name, times) with the greeting
// repeated; the typed face is the one-argument form.
class GreetFunctor final : public detail::KXTypedFunctor<std::string, std::string> {
 public:
  void call(const KXValue& params, KXValue& result) override {
    const std::string name = detail::convertFromKXValue<std::string>(params[0]);
    int times = 1;
    if (params.getSize() == 2) times = detail::convertFromKXValue<int>(params[1]);
    std::string text;
    for (int i = 0; i < times; ++i) text += invoke(name);
    result = text;
  }
  std::string invoke(const std::string& name) override { return "hello " + name; }
};

// One method with an optional trailing parameter, one with an optional middle one, and
// a plain one for contrast.
class Greeter : public KXModule {
 public:
  Greeter(const std::shared_ptr<KXBroker>& broker, const std::string& name)
      : KXModule(broker, name) {
    functionName("greet", "Greeter", "Greets someone, once or several times");
    addParam("name", "who to greet");
    addParam("times", "how many greetings (optional)", true);
    setReturn("greeting", "the text");
    bindMethod(std::make_shared<GreetFunctor>(), {"string", "int"}, "string");

    functionName("link", "Greeter", "Links a source to a target, with an optional label");
    addParam("source", "where from");
    addParam("label", "what to call it (optional)", true);
    addParam("target", "where to");
    bindMethod(std::make_shared<GreetFunctor>(), {"string", "string", "string"}, "string");

    functionName("plain", "Greeter", "Takes exactly two parameters");
    addParam("a", "first");
    addParam("b", "second");
    bindMethod(&Greeter::plain);
  }

  void plain(const int&, const std::string&) {}
};

std::shared_ptr<Greeter> makeGreeter() { return std::make_shared<Greeter>(nullptr, "G"); }

TEST(ModuleCoreOptionalTest, OptionalFlagIsKeptInTheDescription) {
  auto module = makeGreeter();
  const KXMethodInfo info = module->getMethodHelpObject("greet");
  ASSERT_EQ(info.parameters.size(), 2u);
  EXPECT_FALSE(info.parameters[0].optional);
  EXPECT_TRUE(info.parameters[1].optional);
  EXPECT_EQ(info.parameters[1].name, "times");
  EXPECT_EQ(info.parameters[1].description, "how many greetings (optional)");
  EXPECT_EQ(info.parameterTypes(), (std::vector<std::string>{"string", "int"}));
  EXPECT_EQ(info.returnValue.type, "string");
  EXPECT_EQ(info.signature(), "greet(string, int)");
  // Help lists every parameter, the optional one included.
  EXPECT_EQ(module->getMethodHelp("greet")[2],
            arrayOf("name", "who to greet", "times", "how many greetings (optional)"));
}

TEST(ModuleCoreOptionalTest, LookupAcceptsEveryCountBetweenRequiredAndTotal) {
  auto module = makeGreeter();
  EXPECT_EQ(module->findMethod("greet", {"string"}, false)->methodName, "greet");
  EXPECT_EQ(module->findMethod("greet", {"string", "int"}, false)->methodName, "greet");
  EXPECT_EQ(errorText([&] { module->findMethod("greet", {}, false); }),
            "\tG::greet\n\tFunction exists but parameters were wrong.  You tried: greet(Void)\n");
  EXPECT_EQ(errorText([&] {
              module->findMethod("greet", {"string", "int", "int"}, true);
            }),
            "\tG::greet\n\tFunction exists but parameters were wrong.  You tried: greet(string, "
            "int, int)\n");
}

TEST(ModuleCoreOptionalTest, LookupMatchesTypesPositionByPosition) {
  auto module = makeGreeter();
  EXPECT_EQ(errorText([&] { module->findMethod("greet", {"int"}, false); }),
            "\tG::greet\n\tFunction exists but parameters were wrong.  You tried: greet(int)\n");
  EXPECT_EQ(errorText([&] {
              module->findMethod("greet", {"string", "string"}, false);
            }),
            "\tG::greet\n\tFunction exists but parameters were wrong.  You tried: greet(string, "
            "string)\n");
  // The lax form still lets a value stand for anything.
  EXPECT_EQ(module->findMethod("greet", {"array"}, true)->methodName, "greet");
  EXPECT_EQ(module->findMethod("greet", {"string", "array"}, true)->methodName, "greet");
  // An optional parameter in the middle: the count decides, the types are all strings.
  EXPECT_EQ(module->findMethod("link", {"string", "string"}, false)->methodName, "link");
  EXPECT_EQ(module->findMethod("link", {"string", "string", "string"}, false)->methodName, "link");
  EXPECT_NE(errorText([&] { module->findMethod("link", {"string"}, false); }), "<no error>");
}

TEST(ModuleCoreOptionalTest, MethodsWithoutOptionalParametersStillNeedTheExactCount) {
  auto module = makeGreeter();
  EXPECT_EQ(module->findMethod("plain", {"int", "string"}, false)->methodName, "plain");
  EXPECT_EQ(errorText([&] { module->findMethod("plain", {"int"}, false); }),
            "\tG::plain\n\tFunction exists but parameters were wrong.  You tried: plain(int)\n");
  const KXMethodInfo info = module->getMethodHelpObject("plain");
  EXPECT_FALSE(info.parameters[0].optional);
  EXPECT_FALSE(info.parameters[1].optional);
}

TEST(ModuleCoreOptionalTest, DeclaredTypesFillUndescribedParameters) {
  auto module = makeGreeter();
  module->functionName("bare", "Greeter", "No parameter described");
  module->bindMethod(std::make_shared<GreetFunctor>(), {"string"}, "string");
  const KXMethodInfo info = module->getMethodHelpObject("bare");
  ASSERT_EQ(info.parameters.size(), 1u);
  EXPECT_EQ(info.parameters[0].type, "string");
  EXPECT_EQ(info.parameters[0].name, "");
  EXPECT_EQ(module->findMethod("bare", {"string"}, false)->methodName, "bare");
}

class ModuleCoreOptionalProxyTest : public ::testing::Test {
 protected:
  void SetUp() override {
    broker_ =
        KXBroker::createBroker("test", "127.0.0.1", 0, "", 0, KXBroker::kKeepAlive, "", false);
    ASSERT_NE(broker_, nullptr);
    createModule<Greeter>(broker_, "greeter");
    proxy_ = std::make_shared<KXProxy>(broker_, "greeter");
  }
  void TearDown() override {
    proxy_.reset();
    if (broker_) broker_->shutdown();
  }

  std::shared_ptr<KXBroker> broker_;
  std::shared_ptr<KXProxy> proxy_;
};

TEST_F(ModuleCoreOptionalProxyTest, BothFormsAreReachedByName) {
  EXPECT_EQ(proxy_->genericCall("greet", arrayOf("ann")), KXValue("hello ann"));
  EXPECT_EQ(proxy_->genericCall("greet", arrayOf("bob", 2)), KXValue("hello bobhello bob"));
}

TEST_F(ModuleCoreOptionalProxyTest, TypedCallsOfEitherForm) {
  // The typed face answers the short form directly, the long one goes the generic way.
  EXPECT_EQ(proxy_->call<std::string>("greet", "ann"), "hello ann");
  EXPECT_EQ(proxy_->call<std::string>("greet", "bob", 3), "hello bobhello bobhello bob");
  // A short form with a wrong type fails the lookup by signature; the full form the
  // proxy's own parameter check.
  EXPECT_EQ(errorText([&] { proxy_->call<std::string>("greet", 3); }),
            "\tgreeter::greet\n\tFunction exists but parameters were wrong.  You tried: "
            "greet(int)\n");
  EXPECT_EQ(errorText([&] { proxy_->call<std::string>("greet", "ann", "x"); }),
            "\tKXProxy::call/pCall\n\tWhen trying to call module 'greeter' function 'greet' "
            "parameter #2 is of type string instead of type int");
  EXPECT_EQ(errorText([&] { proxy_->call<int>("greet", "ann"); }),
            "\tKXProxy::call\n\twrong return type for function 'greet' type is 'int' instead "
            "of 'string");
}

}  // namespace
}  // namespace KX
