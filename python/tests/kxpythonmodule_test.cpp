// Modules answered by Python, called the way the framework calls them: from the
// calling thread, from framework threads, through proxies and parallel calls.
#include "python/kxpythonmodule.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "broker/kxbroker.h"
#include "embedded_python.h"
#include "module/kxproxy.h"
#include "module/tests/proxy_test_support.h"
#include "python/pygil.h"
#include "python/pyinterpreter.h"
#include "value/kxerror.h"

namespace KX {
namespace python {
namespace {

using KX::testing::args;
using KX::testing::errorOf;
using KX::testing::errorText;

// The object that answers for the module "m" in __main__.
constexpr char kAnswerer[] = R"(
class Answerer:
    def __init__(self):
        self.calls = []
    def pair(self, a, b):
        return [a, b]
    def record(self, *arguments):
        self.calls.append(list(arguments))
        return len(arguments)
    def nothing(self):
        return None
    def failEmpty(self):
        raise KeyError
    def twice(self, x):
        return 2 * x
m = Answerer()
)";

class PythonModuleTest : public testing::BrokerTest {
 protected:
  void SetUp() override {
    BrokerTest::SetUp();
    module_ = createModule<KXPythonModule>(broker_, "m");
    ASSERT_TRUE(testing::run(kAnswerer));
    for (const char* method : {"pair", "record", "nothing", "failEmpty", "twice", "absent"}) {
      module_->bindPythonMethod("Answerer", method, -1);
    }
  }
  void TearDown() override {
    BrokerTest::TearDown();
    testing::run("m = None\ndel m");
  }

  long recordedCalls() {
    PyObjectPtr count = testing::eval("len(m.calls)");
    return count ? PyLong_AsLong(count.get()) : -1;
  }

  std::shared_ptr<KXPythonModule> module_;
};

TEST_F(PythonModuleTest, ArgumentsAndResultsAreConvertedAndCounted) {
  const KXValue unchanged("unchanged");
  const struct {
    const char* method;
    KXValue params;
    KXValue result;  // `record` answers how many arguments it received
  } cases[] = {
      {"twice", args({2.5f}), 5.0f},
      {"nothing", args({}), KXValue()},  // None: Invalid, in place of the old value
      {"version", KXValue(), "unused"},  // built-ins stay native
      {"record", KXValue(5), 0},         // no Array: no arguments
      {"record", args({1, 2, 3, 4, 5, 6}), 6},
      {"record", args({1, 2, 3, 4, 5, 6, 7}), unchanged},  // more: Python is not called
  };
  for (const auto& c : cases) {
    KXValue result = unchanged;
    module_->execute(c.method, c.params, result);
    EXPECT_EQ(result, c.result) << c.method << c.params.toString(1);
  }
  EXPECT_EQ(recordedCalls(), 2);
}

TEST_F(PythonModuleTest, ErrorsAreKXErrorsWithTheirTexts) {
  const struct {
    const char* method;
    bool gateClosed;      // as the exit hook leaves it
    const char* prepare;  // run first in __main__
    std::string expected;
  } cases[] = {
      {"pair", true, "",
       errorText("KXPythonTools", "eval", "The Python interpreter is shutting down")},
      {"failEmpty", false, "", errorText("KXPythonModule", "execute", "<class 'KeyError'>\n")},
      {"absent", false, "",
       errorText("KXPythonModule", "execute",
                 "<class 'AttributeError'>\n'Answerer' object has no attribute 'absent'")},
      {"pair", false, "del m", errorText("KXPythonTools", "eval", "python object not found m")},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.method);
    ASSERT_TRUE(testing::run(c.prepare));
    if (c.gateClosed) closeInterpreterGate();
    KXValue result;
    const std::string error = errorOf([&] { module_->execute(c.method, KXValue(), result); });
    openInterpreterGate();
    EXPECT_EQ(error, c.expected);
    // The Python error stays inside the module: nothing is left pending here.
    EXPECT_EQ(PyErr_Occurred(), nullptr);
  }
}

// A module that is exiting runs nothing, in Python as in C++, and says so.
TEST_F(PythonModuleTest, AnExitingModuleDoesNotCallPython) {
  module_->exit();
  ::testing::internal::CaptureStdout();
  KXValue result("unchanged");
  module_->execute("record", args({1}), result);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "WARNING: Attempt to run a new task while shutting down. Task will not be executed.\n");
  EXPECT_EQ(result, KXValue("unchanged"));
  EXPECT_EQ(recordedCalls(), 0);
}

// Typed and parallel calls once ran the placeholder functor instead of execute.
TEST_F(PythonModuleTest, TypedAndParallelProxyCallsReachPython) {
  KXProxy proxy(broker_, "m");
  EXPECT_EQ(proxy.call<int>("twice", 21), 42);
  int id = 0;
  {
    ScopedGILRelease release;  // the call runs on a pool thread, which needs the lock
    id = proxy.pCall("record", 5);
    EXPECT_FALSE(proxy.wait(id, 0));
  }
  EXPECT_EQ(recordedCalls(), 1);
}

}  // namespace
}  // namespace python
}  // namespace KX
