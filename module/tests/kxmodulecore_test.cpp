// Conversions, functors, method descriptions and the module core.
#include "module/kxmodulecore.h"

#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "log/tests/logtestsupport.h"
#include "module/kxfunctor.h"
#include "module/kxlambdafunctor.h"
#include "module/tests/proxy_test_support.h"

namespace KX {
namespace testing {
namespace {

using detail::convertFromKXValue;
using testing_util::valueError;

std::shared_ptr<Calculator> makeCalculator() { return std::make_shared<Calculator>(nullptr, "M"); }

// `value` converted to T and back, or the error that the conversion raised.
template <typename T>
std::string roundTrip(const KXValue& value) {
  try {
    KXValue out;
    detail::convertToKXValue(convertFromKXValue<T>(value), out);
    return shape(out);
  } catch (const KXError& error) {
    return error.what();
  }
}

std::string refused(const std::string& actual, const std::string& expected) {
  return errorText("convertFromKXValue", "convertFromKXValue",
                   "Parameter type is " + actual + " instead of " + expected);
}

TEST(ConvertTest, EachParameterTypeTakesItsKindsAndNamesWhatItGot) {
  const KXValue invalid;
  ::testing::internal::CaptureStdout();
  const std::pair<std::string, std::string> cases[] = {
      {roundTrip<int>(KXValue(3)), "Int:3"},
      {roundTrip<int>(KXValue(3.0f)), refused("Float", "int")},
      {roundTrip<int>(KXValue(true)), refused("Bool", "int")},
      {roundTrip<int>(KXValue("3")), refused("String", "int")},
      // An Int stands for a flag: anything but 0 is true.
      {roundTrip<bool>(KXValue(2)), "Bool:true"},
      {roundTrip<bool>(KXValue(-1)), "Bool:true"},
      {roundTrip<bool>(KXValue(0)), "Bool:false"},
      {roundTrip<bool>(KXValue(false)), "Bool:false"},
      {roundTrip<bool>(KXValue(1.0f)), refused("Float", "bool")},
      {roundTrip<bool>(KXValue("true")), refused("String", "bool")},
      {roundTrip<float>(KXValue(1.25f)), "Float:1.25"},
      {roundTrip<float>(KXValue(3)), "Float:3"},
      {roundTrip<float>(KXValue("1.5")), refused("String", "float")},
      {roundTrip<std::string>(KXValue("hi")), "String:\"hi\""},
      {roundTrip<std::string>(KXValue(5)), refused("Int", "string")},
      {roundTrip<std::string>(invalid), refused("Invalid", "string")},
      {roundTrip<std::vector<int>>(args({3, -1})), "[Int:3 Int:-1]"},
      {roundTrip<std::vector<int>>(args({})), "[]"},
      // A bad element is named by its own type: that is what the caller got wrong.
      {roundTrip<std::vector<int>>(args({3, "x"})), refused("String", "vector")},
      {roundTrip<std::vector<int>>(args({1.5f})), refused("Float", "vector")},
      {roundTrip<std::vector<int>>(KXValue(1)), refused("Int", "vector")},
      {roundTrip<std::vector<float>>(args({1.5f, 2})), "[Float:1.5 Float:2]"},
      {roundTrip<std::vector<float>>(args({true})), refused("Bool", "vector")},
      {roundTrip<std::vector<float>>(KXValue(1.0f)), refused("Float", "vector")},
      // Strings only: other elements are skipped with a warning, not refused.
      {roundTrip<std::vector<std::string>>(args({"b", 1, "", "a"})),
       "[String:\"b\" String:\"\" String:\"a\"]"},
      {roundTrip<std::vector<std::string>>(KXValue("a")), refused("String", "vector")},
      {roundTrip<KXValue>(args({1, "s", invalid})), "[Int:1 String:\"s\" Invalid:]"},
  };
  const std::string printed = ::testing::internal::GetCapturedStdout();
  for (const auto& c : cases) EXPECT_EQ(c.first, c.second);
  EXPECT_NE(printed.find("WARNING: "), std::string::npos) << printed;
}

TEST(FunctorTest, ArgumentsAreAllConvertedInOrderBeforeTheCall) {
  auto module = makeCalculator();
  int calls = 0;
  module->functionName("join", "Calculator", "Joins a text and a number");
  bindFunction<std::string, std::string, int>(*module, [&](const std::string& s, const int& n) {
    ++calls;
    return s + std::to_string(n);
  });
  EXPECT_EQ(module->getMethodHelpObject("join").signature(), "join(string, int)");
  EXPECT_EQ(module->getMethodHelpObject("join").returnValue.type, "string");
  struct Case {
    const char* method;
    KXValue params;
    std::string expected;  // the result, or the error (which leaves the result alone)
  };
  const Case cases[] = {
      {"join", args({"n", 12}), "String:\"n12\""},
      {"join", args({"n", 12, 2.5f}), "String:\"n12\""},    // extra elements are ignored
      {"join", args({5, 2.5f}), refused("Int", "string")},  // the first one is converted first
      {"join", args({"n", "12"}), refused("String", "int")},
      {"join", args({"n"}),
       valueError("xAssertArraySize", "The array has a size of 1 and you want it to be of size 2")},
      {"join", KXValue(3),
       valueError("xAssertType: type error",
                  "Expected a Array but received a Int (kxvalue contents: 3 )")},
      {"keepValue", args({1}), "String:\"before\""},  // a void result leaves it alone
      {"ping", KXValue(), "Bool:true"},               // no parameter: nothing is read
      {"fail", args({}), errorText("Calculator", "fail", "deliberate failure")},
  };
  for (const Case& c : cases) {
    KXValue result = "before";
    try {
      module->execute(c.method, c.params, result);
      EXPECT_EQ(shape(result), c.expected);
    } catch (const KXError& error) {
      EXPECT_EQ(error.what(), c.expected);
      EXPECT_EQ(result, KXValue("before"));
    }
  }
  EXPECT_EQ(calls, 2);
}

TEST(TypeNameTest, CodesDeclaredTypesAndSignatures) {
  std::string names;
  for (int code : {0, 1, 2, 3, 4, 5, 6, 23, 24, 25, 27, -1, 7, 26})
    names += typeName(code) + std::string(",");
  EXPECT_EQ(names,
            "???,void,bool,int,float,string,array,vector<int>,vector<float>,vector<string>,void "
            "*,unknown,unknown,unknown,");
  EXPECT_STREQ(detail::typeNameOf<std::vector<float>>(), "vector<float>");
  EXPECT_STREQ(detail::typeNameOf<double>(), "???");
  EXPECT_EQ(signatureText("f", {"int", "string", "array"}), "f(int, string, array)");
}

TEST(ModuleCoreBindTest, ForbiddenNamesAreRefusedLookAlikesAccepted) {
  auto module = makeCalculator();
  for (const std::string name : {"call", "post", "pCall", "subscribeToTask"}) {
    EXPECT_EQ(errorOf([&] { module->functionName(name, "Calculator", "d"); }),
              errorText("M", name,
                        "Cannot bind this method because the name is forbidden. Forbidden names "
                        "include subscribeToTask, post, pCall and call"));
  }
  module->functionName("Call", "Calculator", "Adds");
  module->bindMethod(&Calculator::add);
  EXPECT_EQ(module->getMethodList().back(), "Call");
}

TEST(ModuleCoreBindTest, DescriptionsTakeTheirTypesFromTheSignature) {
  auto module = makeCalculator();
  module->functionName("lazyAdd", "Calc", "Adds", 0x0030);
  module->addParam("a", "first");  // the second parameter is left undescribed
  module->setReturn("sum", "a + b");
  module->bindMethod(&Calculator::add);
  const KXMethodInfo info = module->getMethodHelpObject("lazyAdd");
  EXPECT_EQ(info.className + " " + info.methodDescription, "Calc Adds");
  EXPECT_EQ(info.parameters.at(0).name + "," + info.parameters.at(1).name, "a,");
  EXPECT_EQ(info.returnValue.type + " " + info.signature(), "int lazyAdd(int, int)");
  EXPECT_EQ(info.mask, 0x0031);  // the native bit is always set
  EXPECT_EQ(module->getMethodHelpObject("countWords").signature(), "countWords(vector<string>)");
  // A bind clears the description: the next one without functionName carries nothing.
  module->bindMethod(&Calculator::ping);
  const KXMethodInfo bare = module->getMethodHelpObject("");
  EXPECT_EQ(bare.methodDescription + bare.returnValue.name + bare.signature(), "(Void)");
  EXPECT_EQ(bare.mask, 0);
}

TEST(ModuleCoreBindTest, ARebindReplacesTheMethodAndKeepsTheOldFunctorAlive) {
  auto module = makeCalculator();
  const std::shared_ptr<const KXMethodInfo> old = module->getMethodInfo("add");
  const std::uint64_t version = module->getMethodTableVersion();
  module->functionName("add", "Calculator", "Subtracts");
  module->bindMethod(&Calculator::subtract);
  EXPECT_NE(module->getMethodTableVersion(), version);
  KXValue result;
  module->execute("add", args({5, 3}), result);
  EXPECT_EQ(result, KXValue(2));
  const std::vector<std::string> names = module->getMethodList();
  EXPECT_EQ(std::count(names.begin(), names.end(), "add"), 2);  // listed where bound, twice
  old->functor->call(args({5, 3}), result);
  EXPECT_EQ(result, KXValue(8));
}

TEST(ModuleCoreHelpTest, BuiltinsAreDescribedAsPublished) {
  auto module = std::make_shared<KXModule>(nullptr, "plain");
  std::string described;
  for (const std::string& name : module->getMethodList()) {
    KXValue help;
    module->execute("getMethodHelp", args({name}), help);
    const KXMethodInfo info = module->getMethodHelpObject(name);
    described += info.className + " " + info.returnValue.type + " " + info.signature() + " " +
                 help.toString() + "\n";
  }
  const std::string task =
      "\"The ID of the method that was returned when calling the method using 'post'\"";
  EXPECT_EQ(
      described,
      "KXModule void exit(Void) [\"exit\", \"Exits and unregisters the module.\", , \"\", \"\"]\n"
      "KXModule string version(Void) [\"version\", \"Returns the version of the module.\", , "
      "\"result\", \"A string containing the version of the module.\"]\n"
      "KXModule bool ping(Void) [\"ping\", \"Just a ping. Always returns true\", , \"alwaysTrue\", "
      "\"returns true\"]\n"
      "KXModule vector<string> getMethodList(Void) [\"getMethodList\", \"Retrieves the module's "
      "method list.\", , \"methodList\", \"An array of method names.\"]\n"
      "KXModule array getMethodHelp(string) [\"getMethodHelp\", \"Retrieves a method's "
      "description.\", [\"methodName\", \"The name of the method.\"], \"methodHelp\", \"A "
      "structure containing the method's description.\"]\n"
      "KXModule array getModuleHelp(Void) [\"getModuleHelp\", \"Retrieves the module's "
      "description.\", , \"moduleHelp\", \"A structure describing the module.\"]\n"
      "KXModule bool wait(int, int) [\"wait\", \"Wait for the end of a long running method that "
      "was called using 'post'\", [\"id\", " +
          task +
          ", \"timeoutPeriod\", \"The timeout period in ms. To wait indefinately, use a "
          "timeoutPeriod of zero.\"], \"timedOut\", \"True if the timeout period terminated. False "
          "if the method returned.\"]\n"
          "KXModule bool isRunning(int) [\"isRunning\", \"Returns true if the method is currently "
          "running.\", [\"id\", " +
          task +
          "], \"running\", \"True if the method is currently running\"]\n"
          "KXModule void stop(int) [\"stop\", \"returns true if the method is currently running\", "
          "[\"id\", \"the ID of the method to wait for\"], \"\", \"\"]\n"
          "KXModule string getBrokerName(Void) [\"getBrokerName\", \"Gets the name of the parent "
          "broker.\", , \"brokerName\", \"The name of the parent broker.\"]\n"
          "KXModule string getUsage(string) [\"getUsage\", \"Gets the method usage string. This "
          "summarises how to use the method.\", [\"name\", \"The name of the method.\"], "
          "\"methodUsage\", \"A string that summarises the usage of the method.\"]\n");
}

TEST(ModuleCoreHelpTest, UsageTexts) {
  const std::pair<std::string, std::string> cases[] = {
      {"keepValue",
       "void keepValue(const KX::KXValue& value)\n\n  Keeps where its argument "
       "lives\n\n  value : any value\n"},
      {"add",
       "int add(const int& a, const int& b)\n\n  Adds two integers\n  Returns: a + b\n\n"
       "  a : first term\n  b : second term\n"},
      {"ping", "bool ping()\n\n  Just a ping. Always returns true\n  Returns: returns true\n\n"},
      {"nope", " ()\n\n  \n  Returns: \n\n"},  // an unknown name: an empty description
  };
  auto module = makeCalculator();
  for (const auto& c : cases) {
    KXValue usage;
    module->execute("getUsage", args({c.first}), usage);
    EXPECT_EQ(usage, KXValue("\n========================= Usage ============================\n" +
                             c.second +
                             "\n------------------------------------------------------------\n"));
  }
}

TEST(ModuleCoreHelpTest, ModuleHelpAndUnknownMethods) {
  auto module = makeCalculator();
  EXPECT_EQ(module->getModuleHelp(), args({"Arithmetic for the proxy tests"}));
  module->setModuleDescription("Other");
  KXValue help;
  module->execute("getModuleHelp", args({}), help);
  EXPECT_EQ(help, args({"Other"}));
  EXPECT_EQ(std::make_shared<KXModule>(nullptr, "m")->getModuleHelp(), args({""}));
  EXPECT_EQ(errorOf([&] { module->getMethodHelp("nope"); }),
            errorText("M", "getMethodHelp", "ERROR: unknown method: 'nope'"));
  tu::log::testing::LogCapture capture;
  EXPECT_EQ(errorOf([&] { module->getMethodHelpObject("nope"); }),
            errorText("KXModuleCore", "getMethodHelpObject", "Method M::nope not found"));
  const auto records = capture.withFunction("KX::KXModuleCore::getMethodHelpObject");
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].level, tu::log::error);
  EXPECT_EQ(records[0].category + ": " + records[0].message,
            "core.common.modulecore: nope not found in M\n");
}

// "~" marks a lax lookup, "!" one that is refused.
TEST(ModuleCoreLookupTest, BySignatureExactOrLax) {
  const std::string cases[] = {
      "add(int, int)", "ping(Void)", "!add(string, int)", "!add(int)", "!~add(Void)",
      "!~add(array, array, array)",
      // Lax: an int may stand for a float (not the reverse), an array for anything.
      "!half(int)", "~half(int)", "!~add(float, int)", "!echo(string)", "~echo(vector<float>)",
      "~add(array, int)", "!~countWords(vector<int>)",
      // An optional parameter: every count from the required ones up to the total.
      "two(string)", "two(string, int)", "!two(Void)", "!~two(string, int, int)", "!two(int)",
      "!two(string, string)", "~two(string, array)"};
  auto module = makeCalculator();
  TwoFormFunctor::bind(*module, "two");
  for (std::string signature : cases) {
    const bool refused = signature[0] == '!';
    if (refused) signature.erase(0, 1);
    const bool lax = signature[0] == '~';
    if (lax) signature.erase(0, 1);
    const std::size_t open = signature.find('(');
    const std::string name = signature.substr(0, open);
    const std::string inner = signature.substr(open + 1, signature.size() - open - 2);
    std::vector<std::string> types;
    for (std::size_t at = 0; inner != "Void" && at <= inner.size();) {
      const std::size_t end = std::min(inner.find(", ", at), inner.size());
      types.push_back(inner.substr(at, end - at));
      at = end + 2;
    }
    const auto find = [&] { return module->findMethod(name, types, lax); };
    const std::string tried = "Function exists but parameters were wrong.  You tried: ";
    if (refused) {
      EXPECT_EQ(errorOf(find), errorText("M", name, tried + signature + "\n"));
    } else {
      EXPECT_EQ(find(), module->getMethodInfo(name)) << signature;
    }
  }
  EXPECT_EQ(errorOf([&] { module->findMethod("nope", {"int"}, true); }),
            errorText("M", "nope", "Function nope does not exist in module M"));
}

TEST(ModuleCoreExecuteTest, AFailedCallLeavesTheModuleCallableAndUnlocked) {
  auto module = makeCalculator();
  KXValue result = 5;
  EXPECT_EQ(errorOf([&] { module->execute("nope", args({}), result); }),
            errorText("M", "nope", "Function nope does not exist in module M"));
  EXPECT_EQ(errorOf([&] { module->execute("fail", args({}), result); }),
            errorText("Calculator", "fail", "deliberate failure"));
  EXPECT_EQ(result, KXValue(5));
  // The exclusive side is free only if the failed call gave its shared side back.
  auto done = std::async(std::launch::async, [&] { module->runExclusive([] {}); });
  ASSERT_EQ(done.wait_for(kPatience), std::future_status::ready);
}

TEST(ModuleCoreExecuteTest, AnExitingModuleRunsNothing) {
  auto module = makeCalculator();
  KXValue result = "kept";
  module->execute("exit", args({}), result);  // without a broker there is nothing to leave
  EXPECT_TRUE(module->isExiting());
  int runs = 0;
  ::testing::internal::CaptureStdout();
  module->execute("add", args({1, 2}), result);
  module->execute("nope", args({}), result);  // not even looked up
  EXPECT_FALSE(module->runLocked([&] { ++runs; }));
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            std::string(kExitingWarning) + kExitingWarning + kExitingWarning);
  EXPECT_EQ(result, KXValue("kept"));
  EXPECT_EQ(module->addCalls + runs, 0);
}

TEST(ModuleCoreExecuteTest, CallsRunConcurrentlyAndExclusiveOperationsWaitForThem) {
  auto module = makeCalculator();
  const auto hold = [module] {
    KXValue result;
    module->execute("hold", args({}), result);
  };
  std::thread first(hold);
  std::thread second(hold);
  ASSERT_TRUE(module->waitForHolds(2));  // both inside the module at once
  int endedBefore = -1;
  std::thread exclusive([&] { module->runExclusive([&] { endedBefore = module->holdsEnded; }); });
  // Gives an exclusive side that does not wait the time to run too early.
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  module->release.countDown();
  for (std::thread* thread : {&first, &second, &exclusive}) thread->join();
  EXPECT_EQ(endedBefore, 2);
}

TEST(ModuleCoreBrokerTest, WithoutABroker) {
  auto module = makeCalculator();
  const std::string gone =
      errorText("KXModule", "getParentBroker", "Module M does not have a Broker anymore.");
  KXValue result;
  EXPECT_EQ(errorOf([&] { module->execute("getBrokerName", args({}), result); }), gone);
  EXPECT_EQ(errorOf([&] { module->execute("isRunning", args({2}), result); }), gone);
  EXPECT_EQ(errorOf([&] { module->pCall("add", args({1, 2})); }), gone);
}

using ModuleCoreWithBrokerTest = CalcTest;

TEST_F(ModuleCoreWithBrokerTest, ExitLeavesTheBrokerOnce) {
  KXValue result;
  module_->execute("getBrokerName", args({}), result);
  EXPECT_EQ(result, KXValue(broker_->getName()));
  module_->execute("exit", args({}), result);
  EXPECT_EQ(broker_->getModuleCore("Calc"), nullptr);
  // A second exit does not touch the module registered under that name since.
  auto successor = createModule<Calculator>(broker_, "Calc");
  module_->exit();
  EXPECT_EQ(broker_->getModuleCore("Calc"), successor);
}

}  // namespace
}  // namespace testing
}  // namespace KX
