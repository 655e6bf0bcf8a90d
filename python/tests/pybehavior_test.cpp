// Python's `behavior` class, called as the wrappers call it (with the interpreter lock
// held): its deprecation lines word for word and its errors.
#include "python/pybehavior.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "broker/kxbroker.h"
#include "embedded_python.h"
#include "log/tests/logtestsupport.h"
#include "memory/kxstandardmodules.h"
#include "module/tests/proxy_test_support.h"
#include "python/pycurrentbroker.h"
#include "python/pygil.h"

namespace KX {
namespace python {
namespace {

using KX::testing::errorText;
using tu::log::testing::LogCapture;

class BehaviorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ScopedGILRelease release;
    broker_ = KXBroker::createBroker("pybehavior", "127.0.0.1", 0, "", 0, KXBroker::kKeepAlive, "",
                                     false);
    addStandardModules(broker_);
    setCurrentBroker(broker_);
  }
  void TearDown() override {
    ScopedGILRelease release;
    setCurrentBroker(nullptr);
    broker_->shutdown();
  }
  static char* text(const char* value) { return const_cast<char*>(value); }

  std::shared_ptr<KXBroker> broker_;
};

TEST_F(BehaviorTest, DeprecatedOperationsLogTheirLinesUnderIvelmo) {
  behavior box(text("Box"));
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

TEST_F(BehaviorTest, ErrorsNameTheBehaviorClass) {
  behavior box(text("Box"));
  EXPECT_EQ(errorText([] { behavior nameless(nullptr); }),
            "\tbehavior::behavior\n\tNULL value was passed as argument");
  EXPECT_EQ(errorText([&] { box.addInput(nullptr); }),
            "\tbehavior::addInput\n\tNULL value was passed as argument");
  {
    ScopedGILRelease release;
    setCurrentBroker(nullptr);
  }
  EXPECT_EQ(errorText([] { behavior orphan(text("Orphan")); }),
            "\tbehavior::behavior\n\tCould not create a behavior, as there is no current "
            "broker in Python's world.");
}

}  // namespace
}  // namespace python
}  // namespace KX
