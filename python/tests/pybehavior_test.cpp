// Python's `behavior` class, called as the wrappers call it (with the interpreter lock
// held): its deprecation lines word for word.
#include "python/pybehavior.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "embedded_python.h"
#include "log/tests/logtestsupport.h"

namespace KX {
namespace python {
namespace {

using tu::log::testing::LogCapture;

using BehaviorTest = testing::BrokerTest;

TEST_F(BehaviorTest, DeprecatedOperationsLogTheirLinesUnderIvelmo) {
  behavior box(const_cast<char*>("Box"));
  const struct {
    const char* operation;
    std::function<void()> call;
    std::string message;
  } cases[] = {
      {"setEnabled", [&] { box.setEnabled(true); }, "behavior::setEnabled(1) is deprecated ! "},
      {"setEnabled", [&] { box.setEnabled(false); }, "behavior::setEnabled(0) is deprecated ! "},
      {"isEnabled", [&] { box.isEnabled(); }, "behavior::isEnabled is deprecated."},
      {"setResources", [&] { box.setResources({}, 0); },
       "behavior::setResources is deprecated. You should use Ordavia to set Resources"},
      {"getBrokerName", [&] { box.getBrokerName(); }, "behavior::getBrokerName is deprecated."},
      {"version", [&] { box.version(); },
       "behavior::version is deprecated. You should call KXMemory.version()"},
      {"exit", [&] { box.exit(); },
       "behavior::exit is deprecated. You should call KXBehaviorManager."},
  };
  for (const auto& c : cases) {
    LogCapture capture;
    c.call();
    const std::string function = std::string("KX::behavior::") + c.operation;
    const auto records = capture.withFunction(function);
    ASSERT_EQ(records.size(), 1u) << function;
    EXPECT_EQ(records[0].level, tu::log::warning);
    EXPECT_EQ(records[0].category, "ivelmo");
    EXPECT_EQ(records[0].message, c.message + "\n");
  }
}

}  // namespace
}  // namespace python
}  // namespace KX
