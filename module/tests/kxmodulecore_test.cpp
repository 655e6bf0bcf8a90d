#include "module/kxmodulecore.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "broker/kxbroker.h"
#include "log/tests/logtestsupport.h"
#include "thread/tests/thread_test_support.h"
#include "value/kxerror.h"
#include "value/kxvalue.h"
#include "value/tests/value_test_util.h"

namespace KX {
namespace {

using testing_util::arrayOf;
using testing_util::errorText;

using KX::testing::kPatience;
using KX::testing::Latch;
using tu::log::testing::LogCapture;

constexpr char kExitingWarning[] =
    "WARNING: Attempt to run a new task while shutting down. Task will not be executed.\n";
constexpr char kHeader[] = "\n========================= Usage ============================\n";
constexpr char kFooter[] = "\n------------------------------------------------------------\n";

// A module with methods of every shape the tests need.
class Calculator : public KXModule {
 public:
  Calculator(const std::shared_ptr<KXBroker>& broker, const std::string& name)
      : KXModule(broker, name) {
    setModuleDescription("Does sums");

    functionName("add", "Calculator", "Adds two numbers");
    addParam("a", "first term");
    addParam("b", "second term");
    setReturn("sum", "a + b");
    bindMethod(&Calculator::add);

    functionName("say", "Calculator", "Says text");
    addParam("text", "what to say");
    bindMethod(&Calculator::say);

    functionName("echo", "Calculator", "Returns its argument");
    addParam("value", "anything");
    setReturn("same", "the argument");
    bindMethod(&Calculator::echo);

    functionName("scale", "Calculator", "Scales a list", 0x0030);
    addParam("values", "the list");
    addParam("factor", "the factor");
    setReturn("scaled", "the scaled list as text");
    bindMethod(&Calculator::scale);

    functionName("boom", "Calculator", "Always fails");
    bindMethod(&Calculator::boom);

    functionName("rendezvous", "Calculator", "Returns once another call has arrived too");
    bindMethod(&Calculator::rendezvous);

    functionName("hold", "Calculator", "Returns once released");
    bindMethod(&Calculator::hold);

    functionName("block", "Calculator", "Returns once released, or once asked to stop");
    setReturn("stopped", "whether it was asked to stop");
    bindMethod(&Calculator::block);
  }

  int add(const int& a, const int& b) {
    ++calls;
    return a + b;
  }
  void say(const std::string& text) {
    std::lock_guard<std::mutex> guard(mutex);
    said.push_back(text);
  }
  KXValue echo(const KXValue& value) { return value; }
  std::vector<std::string> scale(const std::vector<int>& values, const float& factor) {
    std::vector<std::string> out;
    for (int value : values) out.push_back(std::to_string(static_cast<int>(value * factor)));
    return out;
  }
  int boom() {
    ++calls;
    KX_THROW("Calculator", "boom", "it failed");
  }
  void rendezvous() {
    meeting.countDown();
    if (!meeting.wait()) KX_THROW("Calculator", "rendezvous", "the other call never came");
  }
  void hold() {
    started.countDown();
    const bool released = release.wait();
    std::lock_guard<std::mutex> guard(mutex);
    said.push_back(released ? "hold ended" : "hold gave up");
  }
  bool block() {
    taskId = getTaskIdForCurrentThread();
    started.countDown();
    // Bounded: gives up after the tests' patience, in short waits so that a stop is seen.
    for (int step = 0; step < 2000; ++step) {
      if (release.wait(std::chrono::milliseconds(10))) break;
      if (taskId >= 0 && isStopRequested(taskId)) {
        stoppedEarly = true;
        break;
      }
    }
    {
      std::lock_guard<std::mutex> guard(mutex);
      said.push_back("block ended");
    }
    return stoppedEarly;
  }

  std::atomic<int> calls{0};
  std::mutex mutex;
  std::vector<std::string> said;  // guarded by mutex
  Latch meeting{2};
  Latch started{1};
  Latch release{1};
  std::atomic<int> taskId{-2};
  std::atomic<bool> stoppedEarly{false};
};

// A method that is not a member of the module's class hierarchy beyond the core.
class Twice : public KXModule {
 public:
  Twice(const std::shared_ptr<KXBroker>& broker, const std::string& name)
      : KXModule(broker, name) {}
  int first() { return 1; }
  int second() { return 2; }
  std::string version() override { return "2.0"; }
  void useGenericDispatch() { setRequiresGenericDispatch(true); }
};

std::shared_ptr<Calculator> makeCalculator(const std::string& name = "M") {
  return std::make_shared<Calculator>(nullptr, name);
}

// ---------------------------------------------------------------- describing and binding

TEST(ModuleCoreBindTest, ForbiddenNamesAreRefused) {
  auto module = makeCalculator();
  for (const std::string name : {"call", "post", "pCall", "subscribeToTask"}) {
    EXPECT_EQ(errorText([&] { module->functionName(name, "Calculator", "d"); }),
              "\tM::" + name +
                  "\n\tCannot bind this method because the name is forbidden. Forbidden names "
                  "include subscribeToTask, post, pCall and call")
        << name;
  }
  EXPECT_EQ(module->getMethodInfo("call"), nullptr);
}

TEST(ModuleCoreBindTest, NamesThatOnlyResembleForbiddenOnesAreAccepted) {
  auto module = makeCalculator();
  for (const std::string name : {"calls", "Call", "posts", "pcall"}) {
    EXPECT_NO_THROW(module->functionName(name, "Calculator", "Adds"));
    module->addParam("a", "x");
    module->addParam("b", "y");
    module->bindMethod(&Calculator::add);
  }
  KXValue result;
  module->execute("calls", arrayOf(1, 2), result);
  EXPECT_EQ(result, KXValue(3));
}

TEST(ModuleCoreBindTest, DescriptionIsStoredWithTypesFromTheSignature) {
  auto module = makeCalculator();
  const KXMethodInfo info = module->getMethodHelpObject("scale");
  EXPECT_EQ(info.className, "Calculator");
  EXPECT_EQ(info.methodName, "scale");
  EXPECT_EQ(info.methodDescription, "Scales a list");
  ASSERT_EQ(info.parameters.size(), 2u);
  EXPECT_EQ(info.parameters[0].name, "values");
  EXPECT_EQ(info.parameters[0].description, "the list");
  EXPECT_EQ(info.parameters[0].type, "vector<int>");
  EXPECT_FALSE(info.parameters[0].optional);
  EXPECT_EQ(info.parameters[1].name, "factor");
  EXPECT_EQ(info.parameters[1].type, "float");
  EXPECT_EQ(info.returnValue.name, "scaled");
  EXPECT_EQ(info.returnValue.description, "the scaled list as text");
  EXPECT_EQ(info.returnValue.type, "vector<string>");
  EXPECT_NE(info.functor, nullptr);
  EXPECT_EQ(info.mask, 0x0031);

  const KXMethodInfo say = module->getMethodHelpObject("say");
  EXPECT_EQ(say.returnValue.type, "void");
  EXPECT_EQ(say.returnValue.name, "");
  EXPECT_EQ(say.mask, 0x0001);
  EXPECT_EQ(module->getMethodHelpObject("echo").parameters[0].type, "array");
  EXPECT_EQ(module->getMethodHelpObject("echo").returnValue.type, "array");
}

TEST(ModuleCoreBindTest, ParametersLeftUndescribedStillCount) {
  auto module = makeCalculator();
  module->functionName("lazyAdd", "Calculator", "Adds");
  module->addParam("a", "first");
  module->bindMethod(&Calculator::add);
  const KXMethodInfo info = module->getMethodHelpObject("lazyAdd");
  ASSERT_EQ(info.parameters.size(), 2u);
  EXPECT_EQ(info.parameters[0].name, "a");
  EXPECT_EQ(info.parameters[1].name, "");
  EXPECT_EQ(info.parameters[1].type, "int");
  EXPECT_EQ(info.signature(), "lazyAdd(int, int)");
}

TEST(ModuleCoreBindTest, BindingClearsTheCurrentDescription) {
  auto module = makeCalculator();
  module->functionName("first", "Twice", "one");
  module->addParam("ignored", "x");
  module->setReturn("r", "d");
  module->bindMethod(&Calculator::boom);
  // Bound without a new functionName: nothing of the previous description is carried.
  module->bindMethod(&Calculator::ping);
  const KXMethodInfo info = module->getMethodHelpObject("");
  EXPECT_EQ(info.methodDescription, "");
  EXPECT_EQ(info.returnValue.name, "");
  EXPECT_EQ(info.returnValue.type, "bool");
  EXPECT_TRUE(info.parameters.empty());
}

TEST(ModuleCoreBindTest, BindingANameTwiceKeepsTheLaterMethodAndListsItTwice) {
  auto module = std::make_shared<Twice>(nullptr, "M");
  module->functionName("f", "Twice", "first");
  module->bindMethod(&Twice::first);
  const std::shared_ptr<const KXMethodInfo> old = module->getMethodInfo("f");
  module->functionName("f", "Twice", "second");
  module->bindMethod(&Twice::second);

  KXValue result;
  module->execute("f", arrayOf(), result);
  EXPECT_EQ(result, KXValue(2));
  EXPECT_EQ(module->getMethodHelpObject("f").methodDescription, "second");

  const std::vector<std::string> names = module->getMethodList();
  EXPECT_EQ(std::count(names.begin(), names.end(), "f"), 2);
  EXPECT_EQ(names.back(), "f");
  EXPECT_EQ(names[names.size() - 2], "f");

  // Whoever still holds the replaced description holds a working functor.
  ASSERT_NE(old, nullptr);
  EXPECT_EQ(old->methodDescription, "first");
  old->functor->call(arrayOf(), result);
  EXPECT_EQ(result, KXValue(1));
}

TEST(ModuleCoreBindTest, ModuleDescriptionIsElementZero) {
  auto plain = std::make_shared<KXModule>(nullptr, "plain");
  KXValue help = plain->getModuleHelp();
  ASSERT_EQ(help.getType(), KXValue::TypeArray);
  ASSERT_EQ(help.getSize(), 1);
  EXPECT_EQ(help[0], KXValue(""));

  auto module = makeCalculator();
  help = module->getModuleHelp();
  ASSERT_EQ(help.getSize(), 1);
  EXPECT_EQ(help[0], KXValue("Does sums"));
  module->setModuleDescription("Other");
  KXValue result;
  module->execute("getModuleHelp", arrayOf(), result);
  ASSERT_EQ(result.getSize(), 1);
  EXPECT_EQ(result[0], KXValue("Other"));
}

// ---------------------------------------------------------------- calling

TEST(ModuleCoreExecuteTest, CallsByNameWithConvertedArguments) {
  auto module = makeCalculator();
  KXValue result;
  module->execute("add", arrayOf(2, 40), result);
  EXPECT_EQ(result, KXValue(42));
  module->execute("scale", arrayOf(arrayOf(1, 2, 3), 2), result);
  ASSERT_EQ(result.getSize(), 3);
  EXPECT_EQ(result[2], KXValue("6"));
}

TEST(ModuleCoreExecuteTest, UnknownNameRaises) {
  auto module = makeCalculator();
  KXValue result = 5;
  EXPECT_EQ(errorText([&] { module->execute("nope", arrayOf(), result); }),
            "\tM::nope\n\tFunction nope does not exist in module M");
  EXPECT_EQ(result, KXValue(5));
}

TEST(ModuleCoreExecuteTest, ConversionErrorsReachTheCaller) {
  auto module = makeCalculator();
  KXValue result = 5;
  EXPECT_EQ(errorText([&] { module->execute("add", arrayOf("1", 2), result); }),
            "\tconvertFromKXValue::convertFromKXValue\n\tParameter type is String instead of int");
  EXPECT_EQ(module->calls.load(), 0);
  EXPECT_EQ(result, KXValue(5));
}

TEST(ModuleCoreExecuteTest, AFailingMethodLeavesTheModuleCallableAndUnlocked) {
  auto module = makeCalculator();
  KXValue result = "unchanged";
  EXPECT_EQ(errorText([&] { module->execute("boom", arrayOf(), result); }),
            "\tCalculator::boom\n\tit failed");
  EXPECT_EQ(result, KXValue("unchanged"));

  module->execute("add", arrayOf(1, 1), result);
  EXPECT_EQ(result, KXValue(2));

  // The exclusive side is free again only if the failed call gave its shared side back.
  auto done = std::make_shared<std::promise<void>>();
  std::future<void> finished = done->get_future();
  std::thread exclusive([module, done] { module->runExclusive([done] { done->set_value(); }); });
  if (finished.wait_for(kPatience) != std::future_status::ready) {
    exclusive.detach();
    FAIL() << "the execution lock was not released by the failing call";
  }
  exclusive.join();
}

TEST(ModuleCoreExecuteTest, CallsOfOneModuleRunConcurrently) {
  auto module = makeCalculator();
  std::vector<std::string> errors(2);
  std::vector<std::thread> callers;
  for (int i = 0; i < 2; ++i) {
    callers.emplace_back([module, &errors, i] {
      KXValue result;
      try {
        module->execute("rendezvous", arrayOf(), result);
      } catch (const KXError& error) {
        errors[i] = error.what();
      }
    });
  }
  for (auto& caller : callers) caller.join();
  EXPECT_EQ(errors[0], "");
  EXPECT_EQ(errors[1], "");
}

TEST(ModuleCoreExecuteTest, ExclusiveOperationWaitsForRunningCalls) {
  auto module = makeCalculator();
  std::thread call([module] {
    KXValue result;
    module->execute("hold", arrayOf(), result);
  });
  ASSERT_TRUE(module->started.wait());
  std::thread exclusive([module] {
    module->runExclusive([module] {
      std::lock_guard<std::mutex> guard(module->mutex);
      module->said.push_back("exclusive");
    });
  });
  module->release.countDown();
  call.join();
  exclusive.join();
  EXPECT_EQ(module->said, (std::vector<std::string>{"hold ended", "exclusive"}));
}

TEST(ModuleCoreExecuteTest, ExitingModuleRunsNothing) {
  auto module = makeCalculator();
  module->exit();
  EXPECT_TRUE(module->isExiting());
  KXValue result = "kept";
  ::testing::internal::CaptureStdout();
  module->execute("add", arrayOf(1, 2), result);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), kExitingWarning);
  EXPECT_EQ(result, KXValue("kept"));
  EXPECT_EQ(module->calls.load(), 0);

  // Even an unknown name gives only the warning.
  ::testing::internal::CaptureStdout();
  EXPECT_NO_THROW(module->execute("nope", arrayOf(), result));
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), kExitingWarning);
}

TEST(ModuleCoreExecuteTest, RunLockedRunsUnlessExiting) {
  auto module = makeCalculator();
  int runs = 0;
  EXPECT_TRUE(module->runLocked([&] { ++runs; }));
  EXPECT_EQ(runs, 1);
  module->exit();
  ::testing::internal::CaptureStdout();
  EXPECT_FALSE(module->runLocked([&] { ++runs; }));
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), kExitingWarning);
  EXPECT_EQ(runs, 1);
}

TEST(ModuleCoreExecuteTest, BuiltinExitMarksTheModuleExiting) {
  auto module = makeCalculator();
  EXPECT_FALSE(module->isExiting());
  KXValue result = 3;
  module->execute("exit", arrayOf(), result);
  EXPECT_TRUE(module->isExiting());
  EXPECT_EQ(result, KXValue(3));
}

TEST(ModuleCoreExecuteTest, BuiltinsAnswer) {
  auto module = makeCalculator();
  KXValue result;
  module->execute("ping", arrayOf(), result);
  EXPECT_EQ(result.getType(), KXValue::TypeBool);
  EXPECT_TRUE(static_cast<bool>(result));
  module->execute("version", arrayOf(), result);
  EXPECT_EQ(result, KXValue("1.14"));
  module->execute("getMethodHelp", arrayOf("add"), result);
  EXPECT_EQ(result[0], KXValue("add"));
  module->execute("getUsage", arrayOf("say"), result);
  EXPECT_EQ(result, KXValue(module->getUsage("say")));
  module->execute("getMethodList", arrayOf(), result);
  ASSERT_EQ(result.getType(), KXValue::TypeArray);
  EXPECT_EQ(result[0], KXValue("exit"));
}

TEST(ModuleCoreExecuteTest, VersionIsVirtual) {
  auto module = std::make_shared<Twice>(nullptr, "M");
  EXPECT_EQ(module->KXModuleCore::version(), "1.14");
  KXValue result;
  module->execute("version", arrayOf(), result);
  EXPECT_EQ(result, KXValue("2.0"));
}

TEST(ModuleCoreExecuteTest, ContentPages) {
  EXPECT_EQ(std::make_shared<KXModuleCore>(nullptr, "core")->getContentPage(), "");
  EXPECT_EQ(std::make_shared<KXModule>(nullptr, "module")->getContentPage(),
            "<html><body></body></html>");
}

// ---------------------------------------------------------------- lookups

TEST(ModuleCoreLookupTest, ByName) {
  auto module = makeCalculator();
  EXPECT_EQ(module->getMethodInfo("nope"), nullptr);
  ASSERT_NE(module->getMethodInfo("add"), nullptr);
  EXPECT_EQ(module->findMethod("add"), module->getMethodInfo("add"));
  EXPECT_EQ(errorText([&] { module->findMethod("nope"); }),
            "\tM::nope\n\tFunction nope does not exist in module M");
}

TEST(ModuleCoreLookupTest, BySignatureExactly) {
  auto module = makeCalculator();
  EXPECT_EQ(module->findMethod("add", {"int", "int"}, false)->methodName, "add");
  EXPECT_EQ(module->findMethod("ping", {}, false)->methodName, "ping");
  EXPECT_EQ(
      errorText([&] {
        module->findMethod("add", {"string", "int"}, false);
      }),
      "\tM::add\n\tFunction exists but parameters were wrong.  You tried: add(string, int)\n");
  EXPECT_EQ(errorText([&] { module->findMethod("add", {"int"}, false); }),
            "\tM::add\n\tFunction exists but parameters were wrong.  You tried: add(int)\n");
  EXPECT_EQ(errorText([&] { module->findMethod("add", {}, true); }),
            "\tM::add\n\tFunction exists but parameters were wrong.  You tried: add(Void)\n");
  EXPECT_EQ(errorText([&] { module->findMethod("nope", {"int"}, false); }),
            "\tM::nope\n\tFunction nope does not exist in module M");
}

TEST(ModuleCoreLookupTest, ExactFormRefusesWhatTheLaxFormAccepts) {
  auto module = makeCalculator();
  EXPECT_EQ(
      errorText([&] {
        module->findMethod("scale", {"vector<int>", "int"}, false);
      }),
      "\tM::scale\n\tFunction exists but parameters were wrong.  You tried: scale(vector<int>, "
      "int)\n");
  EXPECT_EQ(module->findMethod("scale", {"vector<int>", "int"}, true)->methodName, "scale");
  EXPECT_NE(errorText([&] { module->findMethod("echo", {"string"}, false); }), "");
  EXPECT_EQ(module->findMethod("echo", {"string"}, true)->methodName, "echo");
}

TEST(ModuleCoreLookupTest, LaxFormLetsArrayStandForAnythingAndIntForFloat) {
  auto module = makeCalculator();
  EXPECT_EQ(module->findMethod("add", {"array", "int"}, true)->methodName, "add");
  EXPECT_EQ(module->findMethod("add", {"array", "array"}, true)->methodName, "add");
  EXPECT_EQ(module->findMethod("echo", {"vector<float>"}, true)->methodName, "echo");
  EXPECT_EQ(module->findMethod("scale", {"array", "float"}, true)->methodName, "scale");
  // Only int may stand for float, not the other way round, and nothing else is loosened.
  EXPECT_NE(errorText([&] { module->findMethod("add", {"float", "int"}, true); }), "");
  EXPECT_NE(errorText([&] { module->findMethod("scale", {"vector<int>", "string"}, true); }), "");
  EXPECT_NE(errorText([&] { module->findMethod("scale", {"vector<float>", "float"}, true); }), "");
  EXPECT_NE(errorText([&] { module->findMethod("add", {"array", "array", "array"}, true); }), "");
}

// ---------------------------------------------------------------- queries

TEST(ModuleCoreQueryTest, PlainModuleListsTheBuiltinsInOrder) {
  auto module = std::make_shared<KXModule>(nullptr, "plain");
  EXPECT_EQ(module->getMethodList(),
            (std::vector<std::string>{"exit", "version", "ping", "getMethodList", "getMethodHelp",
                                      "getModuleHelp", "wait", "isRunning", "stop", "getBrokerName",
                                      "getUsage"}));
}

TEST(ModuleCoreQueryTest, CoreAloneListsItsOwnBuiltins) {
  auto core = std::make_shared<KXModuleCore>(nullptr, "core");
  EXPECT_EQ(core->getMethodList(),
            (std::vector<std::string>{"exit", "version", "ping", "getMethodList", "getMethodHelp",
                                      "getModuleHelp", "getBrokerName", "getUsage"}));
}

TEST(ModuleCoreQueryTest, OwnMethodsFollowTheBuiltins) {
  auto module = makeCalculator();
  const std::vector<std::string> names = module->getMethodList();
  ASSERT_EQ(names.size(), 19u);
  EXPECT_EQ(names[10], "getUsage");
  EXPECT_EQ(std::vector<std::string>(names.begin() + 11, names.end()),
            (std::vector<std::string>{"add", "say", "echo", "scale", "boom", "rendezvous", "hold",
                                      "block"}));
}

TEST(ModuleCoreQueryTest, MethodListHidesInternalNames) {
  auto module = std::make_shared<Twice>(nullptr, "M");
  for (const std::string name : {"_hidden", "visible", "myKXNetworkHook", "KXStoreThing", "a_b"}) {
    module->functionName(name, "Twice", "d");
    module->bindMethod(&Twice::first);
  }
  std::vector<std::string> names = module->getMethodList();
  names.erase(names.begin(), names.begin() + 11);
  EXPECT_EQ(names, (std::vector<std::string>{"visible", "a_b"}));
  // Hidden from the list, yet callable.
  KXValue result;
  module->execute("_hidden", arrayOf(), result);
  EXPECT_EQ(result, KXValue(1));
}

TEST(ModuleCoreQueryTest, MethodHelpOfPing) {
  auto module = makeCalculator();
  const KXValue help = module->getMethodHelp("ping");
  ASSERT_EQ(help.getType(), KXValue::TypeArray);
  ASSERT_EQ(help.getSize(), 5);
  EXPECT_EQ(help[0], KXValue("ping"));
  EXPECT_EQ(help[1], KXValue("Just a ping. Always returns true"));
  EXPECT_EQ(help[2].getType(), KXValue::TypeInvalid);
  EXPECT_EQ(help[3], KXValue("alwaysTrue"));
  EXPECT_EQ(help[4], KXValue("returns true"));
}

TEST(ModuleCoreQueryTest, MethodHelpFlattensTheParameters) {
  auto module = makeCalculator();
  const KXValue help = module->getMethodHelp("add");
  ASSERT_EQ(help.getSize(), 5);
  ASSERT_EQ(help[2].getType(), KXValue::TypeArray);
  ASSERT_EQ(help[2].getSize(), 4);
  EXPECT_EQ(help[2][0], KXValue("a"));
  EXPECT_EQ(help[2][1], KXValue("first term"));
  EXPECT_EQ(help[2][2], KXValue("b"));
  EXPECT_EQ(help[2][3], KXValue("second term"));
  EXPECT_EQ(help[3], KXValue("sum"));
  EXPECT_EQ(help[4], KXValue("a + b"));
}

TEST(ModuleCoreQueryTest, MethodHelpOfAnUnknownName) {
  auto module = makeCalculator();
  EXPECT_EQ(errorText([&] { module->getMethodHelp("nope"); }),
            "\tM::getMethodHelp\n\tERROR: unknown method: 'nope'");
}

TEST(ModuleCoreQueryTest, MethodHelpObjectIsACopy) {
  auto module = makeCalculator();
  KXMethodInfo info = module->getMethodHelpObject("add");
  info.methodDescription = "changed";
  info.parameters.clear();
  EXPECT_EQ(module->getMethodHelpObject("add").methodDescription, "Adds two numbers");
  EXPECT_EQ(module->getMethodHelpObject("add").parameters.size(), 2u);
}

TEST(ModuleCoreQueryTest, MethodHelpObjectOfAnUnknownNameLogsAndRaises) {
  auto module = makeCalculator();
  LogCapture capture;
  EXPECT_EQ(errorText([&] { module->getMethodHelpObject("nope"); }),
            "\tKXModuleCore::getMethodHelpObject\n\tMethod M::nope not found");
  const auto records = capture.withFunction("KX::KXModuleCore::getMethodHelpObject");
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].level, tu::log::error);
  EXPECT_EQ(records[0].category, "core.common.modulecore");
  EXPECT_EQ(records[0].message, "nope not found in M\n");
}

struct BuiltinCase {
  std::string name;
  std::string description;
  std::vector<std::string> parameters;  // name, description, name, description, ...
  std::string resultName;
  std::string resultDescription;
  std::vector<std::string> parameterTypes;
  std::string returnType;
};

// Names the case in test listings instead of dumping its bytes.
void PrintTo(const BuiltinCase& builtin, std::ostream* out) { *out << builtin.name; }

const char kTaskId[] =
    "The ID of the method that was returned when calling the method using 'post'";

const std::vector<BuiltinCase>& builtinCases() {
  static const std::vector<BuiltinCase> cases = {
      {"exit", "Exits and unregisters the module.", {}, "", "", {}, "void"},
      {"version",
       "Returns the version of the module.",
       {},
       "result",
       "A string containing the version of the module.",
       {},
       "string"},
      {"ping", "Just a ping. Always returns true", {}, "alwaysTrue", "returns true", {}, "bool"},
      {"getMethodList",
       "Retrieves the module's method list.",
       {},
       "methodList",
       "An array of method names.",
       {},
       "vector<string>"},
      {"getMethodHelp",
       "Retrieves a method's description.",
       {"methodName", "The name of the method."},
       "methodHelp",
       "A structure containing the method's description.",
       {"string"},
       "array"},
      {"getModuleHelp",
       "Retrieves the module's description.",
       {},
       "moduleHelp",
       "A structure describing the module.",
       {},
       "array"},
      {"wait",
       "Wait for the end of a long running method that was called using 'post'",
       {"id", kTaskId, "timeoutPeriod",
        "The timeout period in ms. To wait indefinately, use a timeoutPeriod of zero."},
       "timedOut",
       "True if the timeout period terminated. False if the method returned.",
       {"int", "int"},
       "bool"},
      {"isRunning",
       "Returns true if the method is currently running.",
       {"id", kTaskId},
       "running",
       "True if the method is currently running",
       {"int"},
       "bool"},
      {"stop",
       "returns true if the method is currently running",
       {"id", "the ID of the method to wait for"},
       "",
       "",
       {"int"},
       "void"},
      {"getBrokerName",
       "Gets the name of the parent broker.",
       {},
       "brokerName",
       "The name of the parent broker.",
       {},
       "string"},
      {"getUsage",
       "Gets the method usage string. This summarises how to use the method.",
       {"name", "The name of the method."},
       "methodUsage",
       "A string that summarises the usage of the method.",
       {"string"},
       "string"},
  };
  return cases;
}

class BuiltinMethodTest : public ::testing::TestWithParam<BuiltinCase> {};

TEST_P(BuiltinMethodTest, IsDescribedAsPublished) {
  const BuiltinCase& expected = GetParam();
  auto module = std::make_shared<KXModule>(nullptr, "plain");

  KXValue help;
  module->execute("getMethodHelp", arrayOf(expected.name), help);
  ASSERT_EQ(help.getSize(), 5);
  EXPECT_EQ(help[0], KXValue(expected.name));
  EXPECT_EQ(help[1], KXValue(expected.description));
  if (expected.parameters.empty()) {
    EXPECT_EQ(help[2].getType(), KXValue::TypeInvalid);
  } else {
    KXValue parameters;
    parameters.arraySetSize(0);
    for (const std::string& text : expected.parameters) parameters.arrayPush(KXValue(text));
    EXPECT_EQ(help[2], parameters);
  }
  EXPECT_EQ(help[3], KXValue(expected.resultName));
  EXPECT_EQ(help[4], KXValue(expected.resultDescription));

  const KXMethodInfo info = module->getMethodHelpObject(expected.name);
  EXPECT_EQ(info.className, "KXModule");
  EXPECT_EQ(info.mask, 0x0001);
  EXPECT_EQ(info.parameterTypes(), expected.parameterTypes);
  EXPECT_EQ(info.returnValue.type, expected.returnType);
}

INSTANTIATE_TEST_SUITE_P(AllEleven, BuiltinMethodTest, ::testing::ValuesIn(builtinCases()),
                         [](const ::testing::TestParamInfo<BuiltinCase>& info) {
                           return info.param.name;
                         });

// ---------------------------------------------------------------- usage texts

TEST(ModuleCoreUsageTest, VoidMethodWithOneParameter) {
  auto module = makeCalculator();
  EXPECT_EQ(module->getUsage("say"), std::string(kHeader) + "void say(const string& text)\n" +
                                         "\n  Says text\n\n  text : what to say\n" + kFooter);
}

TEST(ModuleCoreUsageTest, TypedResultAndTwoParameters) {
  auto module = makeCalculator();
  EXPECT_EQ(module->getUsage("add"),
            std::string(kHeader) + "int add(const int& a, const int& b)\n" +
                "\n  Adds two numbers\n  Returns: a + b\n\n  a : first term\n  b : second term\n" +
                kFooter);
}

TEST(ModuleCoreUsageTest, ValuesReadAsKXValue) {
  auto module = makeCalculator();
  EXPECT_EQ(module->getUsage("echo"),
            std::string(kHeader) + "KX::KXValue echo(const KX::KXValue& value)\n" +
                "\n  Returns its argument\n  Returns: the argument\n\n  value : anything\n" +
                kFooter);
}

TEST(ModuleCoreUsageTest, NoParameters) {
  auto module = makeCalculator();
  EXPECT_EQ(module->getUsage("ping"),
            std::string(kHeader) + "bool ping()\n" +
                "\n  Just a ping. Always returns true\n  Returns: returns true\n\n" + kFooter);
  EXPECT_EQ(module->getUsage("exit"), std::string(kHeader) + "void exit()\n" +
                                          "\n  Exits and unregisters the module.\n\n" + kFooter);
}

TEST(ModuleCoreUsageTest, UnknownNameGivesAnEmptyDescription) {
  auto module = makeCalculator();
  EXPECT_EQ(module->getUsage("nope"),
            std::string(kHeader) + " ()\n" + "\n  \n  Returns: \n\n" + kFooter);
}

// ---------------------------------------------------------------- broker bookkeeping

TEST(ModuleCoreStateTest, RegistrationIndexAndDispatchFlag) {
  auto module = std::make_shared<Twice>(nullptr, "M");
  EXPECT_EQ(module->getRegistrationIndex(), -1);
  module->setRegistrationIndex(4);
  EXPECT_EQ(module->getRegistrationIndex(), 4);
  EXPECT_FALSE(module->requiresGenericDispatch());
  module->useGenericDispatch();
  EXPECT_TRUE(module->requiresGenericDispatch());
}

TEST(ModuleCoreStateTest, WithoutABroker) {
  auto module = makeCalculator();
  const std::string expected =
      "\tKXModule::getParentBroker\n\tModule M does not have a Broker anymore.";
  EXPECT_EQ(errorText([&] { module->getParentBroker(); }), expected);
  KXValue result;
  EXPECT_EQ(errorText([&] { module->execute("getBrokerName", arrayOf(), result); }), expected);
  EXPECT_EQ(errorText([&] { module->execute("isRunning", arrayOf(2), result); }), expected);
  EXPECT_EQ(errorText([&] { module->pCall("add", arrayOf(1, 2)); }), expected);
  // Exiting without a broker has nothing to leave, and is fine.
  EXPECT_NO_THROW(module->exit());
}

// ---------------------------------------------------------------- with a broker

class ModuleWithBrokerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    broker_ =
        KXBroker::createBroker("test", "127.0.0.1", 0, "", 0, KXBroker::kKeepAlive, "", false);
    ASSERT_NE(broker_, nullptr);
    module_ = createModule<Calculator>(broker_, "calc");
  }
  void TearDown() override {
    if (module_) module_->release.countDown();
    if (broker_) broker_->shutdown();
  }

  KXValue call(const std::string& method, const KXValue& params) {
    KXValue result;
    module_->execute(method, params, result);
    return result;
  }

  std::shared_ptr<KXBroker> broker_;
  std::shared_ptr<Calculator> module_;
};

TEST_F(ModuleWithBrokerTest, BrokerName) {
  EXPECT_EQ(module_->getParentBroker(), broker_);
  EXPECT_EQ(module_->getBrokerName(), "test");
  EXPECT_EQ(call("getBrokerName", arrayOf()), KXValue("test"));
}

TEST_F(ModuleWithBrokerTest, ParentBrokerGone) {
  broker_->shutdown();
  broker_.reset();
  EXPECT_EQ(errorText([&] { module_->getParentBroker(); }),
            "\tKXModule::getParentBroker\n\tModule calc does not have a Broker anymore.");
  EXPECT_EQ(errorText([&] { module_->getBrokerName(); }),
            "\tKXModule::getParentBroker\n\tModule calc does not have a Broker anymore.");
}

TEST_F(ModuleWithBrokerTest, ExitLeavesTheBrokerOnce) {
  ASSERT_EQ(broker_->getModuleCore("calc"), module_);
  call("exit", arrayOf());
  EXPECT_TRUE(module_->isExiting());
  EXPECT_EQ(broker_->getModuleCore("calc"), nullptr);

  // A second exit does not touch the module registered under that name since.
  auto successor = createModule<Calculator>(broker_, "calc");
  module_->exit();
  EXPECT_EQ(broker_->getModuleCore("calc"), successor);
  EXPECT_FALSE(successor->isExiting());
}

TEST_F(ModuleWithBrokerTest, TaskControlsOnUnknownIds) {
  EXPECT_EQ(call("isRunning", arrayOf(1000)), KXValue(false));
  EXPECT_EQ(call("wait", arrayOf(1000, 100)), KXValue(false));
  EXPECT_EQ(call("wait", arrayOf(1000, 0)), KXValue(false));
  EXPECT_FALSE(module_->isStopRequested(1000));
  EXPECT_EQ(errorText([&] { call("stop", arrayOf(1000)); }),
            "\tKXTaskMonitor::stop\n\tThe method 'stop' has not been implement in your module. "
            "Module authors are encouraged to implement this method if they wish to allow long "
            "running methods to be stopped. Please see the documentation for further details.");
  EXPECT_EQ(module_->getTaskIdForCurrentThread(), -1);
}

TEST_F(ModuleWithBrokerTest, ParallelCallRunsAndEnds) {
  const int id = module_->pCall("say", arrayOf("hello"));
  EXPECT_GT(id, 0);
  EXPECT_EQ(id % 2, 0);
  EXPECT_EQ(call("wait", arrayOf(id, 0)), KXValue(false));
  EXPECT_EQ(call("isRunning", arrayOf(id)), KXValue(false));
  std::lock_guard<std::mutex> guard(module_->mutex);
  EXPECT_EQ(module_->said, std::vector<std::string>{"hello"});
}

TEST_F(ModuleWithBrokerTest, ParallelCallOfAnUnknownMethod) {
  EXPECT_EQ(errorText([&] { module_->pCall("nope", arrayOf()); }),
            "\tcalc::nope\n\tFunction nope does not exist in module calc");
}

TEST_F(ModuleWithBrokerTest, ParallelCallIsRunningUntilReleased) {
  const int id = module_->pCall("block", arrayOf());
  EXPECT_EQ(call("isRunning", arrayOf(id)), KXValue(true));
  ASSERT_TRUE(module_->started.wait());
  EXPECT_EQ(module_->taskId.load(), id);
  // Still blocked: the wait gives up.
  EXPECT_EQ(call("wait", arrayOf(id, 40)), KXValue(true));
  EXPECT_EQ(call("isRunning", arrayOf(id)), KXValue(true));
  module_->release.countDown();
  EXPECT_EQ(call("wait", arrayOf(id, 0)), KXValue(false));
  EXPECT_FALSE(module_->stoppedEarly.load());
}

TEST_F(ModuleWithBrokerTest, StopReachesTheRunningMethod) {
  const int id = module_->pCall("block", arrayOf());
  ASSERT_TRUE(module_->started.wait());
  ASSERT_EQ(module_->taskId.load(), id);
  EXPECT_FALSE(module_->isStopRequested(id));
  call("stop", arrayOf(id));
  EXPECT_EQ(call("wait", arrayOf(id, 0)), KXValue(false));
  EXPECT_TRUE(module_->stoppedEarly.load());
  EXPECT_EQ(call("isRunning", arrayOf(id)), KXValue(false));
}

}  // namespace
}  // namespace KX
