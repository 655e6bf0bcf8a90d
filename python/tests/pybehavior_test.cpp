// Python's `behavior` and `timeline` classes, called as the wrappers call them (with the
// interpreter lock held): their deprecation lines word for word, their errors, and a
// timeline that vanishes under them.
#include "python/pybehavior.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "behavior/kxtimeline.h"
#include "broker/kxbroker.h"
#include "embedded_python.h"
#include "log/tests/logtestsupport.h"
#include "memory/kxstandardmodules.h"
#include "module/tests/proxy_test_support.h"
#include "python/pycurrentbroker.h"
#include "python/pygil.h"
#include "python/pytimeline.h"

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

// Records each call it receives, as "<operation> <argument>".
class RecordingTimeline : public KXTimeline {
 public:
  void play() override { calls.push_back("play"); }
  void pause() override { calls.push_back("pause"); }
  void stop() override { calls.push_back("stop"); }
  void goTo(const std::string& label) override { calls.push_back("goTo " + label); }
  void goTo(const int& frame) override { calls.push_back("goTo " + std::to_string(frame)); }
  int getSize() override { return 12; }
  int getFPS() override { return fps; }
  void setFPS(int value) override { fps = value; }
  std::vector<std::string> calls;
  int fps = 25;
};

TEST(TimelineTest, DrivesTheTimelineUntilItVanishes) {
  auto native = std::make_shared<RecordingTimeline>();
  timeline handle(native);
  handle.play();
  handle.goTo(12);
  handle.goTo(const_cast<char*>("start"));
  handle.goTo(nullptr);
  handle.pause();
  handle.stop();
  handle.setFPS(50);
  EXPECT_EQ(handle.getSize(), 12);
  EXPECT_EQ(handle.getFPS(), 50);
  EXPECT_EQ(native->calls,
            (std::vector<std::string>{"play", "goTo 12", "goTo start", "goTo ", "pause", "stop"}));
  native.reset();  // the host drops it: the handle never kept it alive
  handle.play();
  handle.setFPS(10);
  EXPECT_EQ(handle.getSize(), 0);
  EXPECT_EQ(handle.getFPS(), 0);
}

}  // namespace
}  // namespace python
}  // namespace KX
