// Conversions, functors, method descriptions and the module core.
#include "module/kxmodulecore.h"

#include <gtest/gtest.h>

#include <functional>
#include <future>
#include <memory>
#include <sstream>
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

using testing_util::valueError;

std::shared_ptr<Calculator> makeCalculator() { return std::make_shared<Calculator>(nullptr, "M"); }

// A refusal of the conversions, shortened to "!<actual> instead of <expected>"; any other
// error keeps its whole text.
std::string outcome(const std::function<KXValue()>& convert) {
  const std::string refused =
      errorText("convertFromKXValue", "convertFromKXValue", "Parameter type is ");
  try {
    return shape(convert());
  } catch (const KXError& error) {
    const std::string text = error.what();
    return text.rfind(refused, 0) == 0 ? "!" + text.substr(refused.size()) : text;
  }
}

// Each value converted to T and back, or the refusal.
template <typename T>
std::string roundTrips(std::initializer_list<KXValue> values) {
  std::string text;
  for (const KXValue& value : values) {
    KXValue out;
    text += outcome(
        [&] { return detail::convertToKXValue(detail::convertFromKXValue<T>(value), out), out; });
    text += "; ";
  }
  return text;
}

TEST(ConvertTest, EachParameterTypeTakesItsKindsAndNamesWhatItGot) {
  const KXValue invalid;
  ::testing::internal::CaptureStdout();
  EXPECT_EQ(roundTrips<int>({3, 3.0f, true, "3"}),
            "Int:3; !Float instead of int; !Bool instead of int; !String instead of int; ");
  // An Int stands for a flag: anything but 0 is true.
  EXPECT_EQ(roundTrips<bool>({2, 0, false, 1.0f, "true"}),
            "Bool:true; Bool:false; Bool:false; !Float instead of bool; !String instead of bool; ");
  EXPECT_EQ(roundTrips<float>({1.25f, 3, "1.5"}),
            "Float:1.25; Float:3; !String instead of float; ");
  EXPECT_EQ(roundTrips<std::string>({"hi", 5, invalid}),
            "String:\"hi\"; !Int instead of string; !Invalid instead of string; ");
  // A bad element is named by its own type: that is what the caller got wrong.
  EXPECT_EQ(roundTrips<std::vector<int>>({args({3, -1}), args({}), args({3, "x"}), 1}),
            "[Int:3 Int:-1]; []; !String instead of vector; !Int instead of vector; ");
  EXPECT_EQ(roundTrips<std::vector<float>>({args({1.5f, 2}), args({true}), 1.0f}),
            "[Float:1.5 Float:2]; !Bool instead of vector; !Float instead of vector; ");
  // Strings only: other elements are skipped with a warning, not refused.
  EXPECT_EQ(roundTrips<std::vector<std::string>>({args({"b", 1, "", "a"}), "a"}),
            "[String:\"b\" String:\"\" String:\"a\"]; !String instead of vector; ");
  EXPECT_EQ(roundTrips<KXValue>({args({1, "s", invalid})}), "[Int:1 String:\"s\" Invalid:]; ");
  EXPECT_NE(::testing::internal::GetCapturedStdout().find("WARNING: "), std::string::npos);
}

TEST(FunctorTest, ArgumentsAreAllConvertedInOrderBeforeTheCall) {
  auto module = makeCalculator();
  int calls = 0;
  module->functionName("join", "Calculator", "Joins a text and a number");
  bindFunction<std::string, std::string, int>(
      *module, [&](const std::string& s, const int& n) { return ++calls, s + std::to_string(n); });
  const KXMethodInfo info = module->getMethodHelpObject("join");
  EXPECT_EQ(info.returnValue.type + " " + info.signature(), "string join(string, int)");
  const std::pair<KXValue, std::string> cases[] = {
      {args({"n", 12}), "String:\"n12\""},
      {args({"n", 12, 2.5f}), "String:\"n12\""},    // extra elements are ignored
      {args({5, 2.5f}), "!Int instead of string"},  // the first one is converted first
      {args({"n", "12"}), "!String instead of int"},
      {args({"n"}),
       valueError("xAssertArraySize", "The array has a size of 1 and you want it to be of size 2")},
      {KXValue(3), valueError("xAssertType: type error",
                              "Expected a Array but received a Int (kxvalue contents: 3 )")},
  };
  for (const auto& [params, expected] : cases) {
    KXValue result = "before";
    EXPECT_EQ(outcome([&] { return module->execute("join", params, result), result; }), expected);
    // An error leaves the result alone.
    EXPECT_EQ(shape(result), expected.rfind("String:", 0) == 0 ? expected : "String:\"before\"");
  }
  KXValue result = "before";
  module->execute("keepValue", args({1}), result);  // a void result leaves it alone
  EXPECT_EQ(result, KXValue("before"));
  module->execute("ping", KXValue(), result);  // no parameter: nothing is read
  EXPECT_EQ(result, KXValue(true));
  EXPECT_EQ(calls, 2);
  std::string names;
  for (int code : {0, 23, 24, 27, 26}) names += typeName(code) + std::string(",");
  EXPECT_EQ(names, "???,vector<int>,vector<float>,void *,unknown,");
}

TEST(ModuleCoreBindTest, DescriptionsTakeTheirTypesFromTheSignatureSomeNamesAreRefused) {
  auto module = makeCalculator();
  for (const std::string name : {"call", "post", "pCall", "subscribeToTask"}) {
    EXPECT_EQ(errorOf([&] { module->functionName(name, "Calculator", "d"); }),
              errorText("M", name,
                        "Cannot bind this method because the name is forbidden. Forbidden names "
                        "include subscribeToTask, post, pCall and call"));
  }
  module->functionName("calls", "Calc", "Adds", 0x0030);  // resembles a refused name only
  module->addParam("a", "first");  // the second parameter is left undescribed
  module->bindMethod(&Calculator::add);
  const KXMethodInfo info = module->getMethodHelpObject("calls");
  EXPECT_EQ(info.className + " " + info.returnValue.type + " " + info.signature() + " " +
                info.parameters.at(0).name + info.parameters.at(1).name,
            "Calc int calls(int, int) a");
  EXPECT_EQ(info.mask, 0x0031);  // the native bit is always set
  // A bind clears the description: the next one without functionName carries nothing.
  module->bindMethod(&Calculator::ping);
  const KXMethodInfo bare = module->getMethodHelpObject("");
  EXPECT_EQ(bare.methodDescription + bare.signature() + std::to_string(bare.mask), "(Void)0");
}

TEST(ModuleCoreHelpTest, HelpAndUsageTexts) {
  auto module = makeCalculator();
  const std::pair<std::string, std::string> usages[] = {
      {"keepValue",
       "void keepValue(const KX::KXValue& value)\n\n  Keeps where its argument lives\n\n  value : "
       "any value\n"},
      {"add",
       "int add(const int& a, const int& b)\n\n  Adds two integers\n  Returns: a + b\n\n  a : "
       "first term\n  b : second term\n"},
      {"nope", " ()\n\n  \n  Returns: \n\n"},  // an unknown name: an empty description
  };
  for (const auto& [name, usage] : usages) {
    KXValue text;
    module->execute("getUsage", args({name}), text);
    EXPECT_EQ(text,
              KXValue("\n========================= Usage ============================\n" + usage +
                      "\n------------------------------------------------------------\n"));
  }
  KXValue help;
  module->execute("getMethodHelp", args({"add"}), help);
  EXPECT_EQ(help, args({"add", "Adds two integers", args({"a", "first term", "b", "second term"}),
                        "sum", "a + b"}));
  EXPECT_EQ(module->getMethodHelp("ping")[2], KXValue());  // no parameters: Invalid
  EXPECT_EQ(module->getModuleHelp(), args({"Arithmetic for the proxy tests"}));
  EXPECT_EQ(module->getContentPage(), "<html><body></body></html>");
  // The core alone binds the built-in methods but wait, isRunning and stop.
  const auto core = std::make_shared<KXModuleCore>(nullptr, "c");
  std::vector<std::string> builtins = module->getMethodList();
  EXPECT_EQ(builtins.at(6) + builtins.at(7) + builtins.at(8), "waitisRunningstop");
  builtins.erase(builtins.begin() + 6, builtins.begin() + 9);
  builtins.resize(8);  // the module's own methods follow the built-in ones
  EXPECT_EQ(core->getMethodList(), builtins);
  EXPECT_EQ(core->getContentPage(), "");
  EXPECT_EQ(errorOf([&] { module->getMethodHelp("nope"); }),
            errorText("M", "getMethodHelp", "ERROR: unknown method: 'nope'"));
  tu::log::testing::LogCapture capture;
  EXPECT_EQ(errorOf([&] { module->getMethodHelpObject("nope"); }),
            errorText("KXModuleCore", "getMethodHelpObject", "Method M::nope not found"));
  const auto records = capture.withFunction("KX::KXModuleCore::getMethodHelpObject");
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].category + ": " + records[0].message,
            "core.common.modulecore: nope not found in M\n");
}

// A name and argument types; "~" marks a lax lookup, "!" one that is refused.
TEST(ModuleCoreLookupTest, BySignatureExactOrLax) {
  const std::string cases[] = {
      "add int int", "ping", "!add string int", "!add int", "!~add", "!~add array array array",
      // Lax: an int may stand for a float (not the reverse), an array for anything.
      "!half int", "~half int", "!~add float int", "!echo string", "~echo vector<float>",
      "~add array int", "!~countWords vector<int>",
      // An optional parameter: every count from the required ones up to the total.
      "two string", "two string int", "!two", "!~two string int int", "!two int",
      "!two string string", "~two string array"};
  auto module = makeCalculator();
  TwoFormFunctor::bind(*module, "two");
  for (const std::string& row : cases) {
    const bool refused = row[0] == '!';
    const bool lax = row.find('~') != std::string::npos;
    std::istringstream words(row.substr(refused + lax));
    std::string name;
    std::vector<std::string> types;
    words >> name;
    for (std::string type; words >> type;) types.push_back(type);
    const auto find = [&] { return module->findMethod(name, types, lax); };
    const std::string tried = "Function exists but parameters were wrong.  You tried: ";
    if (refused) {
      EXPECT_EQ(errorOf(find), errorText("M", name, tried + signatureText(name, types) + "\n"));
    } else {
      EXPECT_EQ(find(), module->getMethodInfo(name)) << row;
    }
  }
  EXPECT_EQ(errorOf([&] { module->findMethod("nope", {"int"}, true); }),
            errorText("M", "nope", "Function nope does not exist in module M"));
}

TEST(ModuleCoreExecuteTest, FailedCallsFreeTheModuleAnExitingOneRunsNothing) {
  auto module = makeCalculator();
  KXValue result = "kept";
  EXPECT_EQ(errorOf([&] { module->execute("nope", args({}), result); }),
            errorText("M", "nope", "Function nope does not exist in module M"));
  EXPECT_EQ(errorOf([&] { module->execute("fail", args({}), result); }),
            errorText("Calculator", "fail", "deliberate failure"));
  // The exclusive side is free only if the failed calls gave their shared side back.
  auto done = std::async(std::launch::async, [&] { module->runExclusive([] {}); });
  ASSERT_EQ(done.wait_for(kPatience), std::future_status::ready);
  EXPECT_EQ(errorOf([&] {
              module->pCall("add", args({1, 2}));
            }),
            errorText("KXModule", "getParentBroker", "Module M does not have a Broker anymore."));

  module->execute("exit", args({}), result);  // without a broker there is nothing to leave
  EXPECT_TRUE(module->isExiting());
  ::testing::internal::CaptureStdout();
  module->execute("add", args({1, 2}), result);
  module->execute("nope", args({}), result);  // not even looked up
  EXPECT_FALSE(module->runLocked([] { ADD_FAILURE(); }));
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            std::string(kExitingWarning) + kExitingWarning + kExitingWarning);
  EXPECT_EQ(result.toString() + std::to_string(module->addCalls), "\"kept\"0");
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

}  // namespace
}  // namespace testing
}  // namespace KX
