// Boxes wired through KXMemory, their subscriptions, parameters, resources, timelines and
// published methods; every line a box logs and every error it raises, word for word.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "behavior/kxbehavior.h"
#include "behavior/tests/behaviortestkit.h"
#include "broker/kxbroker.h"
#include "log/tests/logtestsupport.h"
#include "memory/kxmemory.h"
#include "memory/kxresourcemanager.h"
#include "memory/kxstandardmodules.h"
#include "value/tests/value_test_util.h"

namespace KX {
namespace testing {
namespace {

using testing_util::arrayOf;
using testing_util::errorText;

TEST_F(BoxTest, AFailedInputDoesNotKeepTheOtherInputsFromRunning) {
  auto box = createModule<RecordingBox>(broker_, "Box");
  box->addInput("missing");  // no method "onInput_missing__"
  box->addInput("onData");
  box->connectInput("missing", "E");
  box->connectInput("onData", "E");
  box->dataChanged("Other", KXValue(4), "");  // linked to no input
  box->dataChanged("E", KXValue(5), "");
  EXPECT_EQ(box->waitFor(2, std::chrono::seconds(0)), (std::vector<KXValue>{KXValue(5)}));
}

TEST_F(BoxTest, ADestroyedBoxLeavesNoneOfItsMicroEvents) {
  auto box = createModule<KXBehavior>(broker_, "Box");
  box->addInput("onStart");
  box->addOutput("onStopped", false);
  for (const char* io : {"onLoad", "onStart", "onStopped"}) box->stimulateIO(io, KXValue(1));
  box->_connectOutput("Other__out");
  memory()->raiseMicroEvent("Other__out", KXValue(2));
  ASSERT_EQ(memory()->getMicroEventList().size(), 4u);
  box->exit();
  box.reset();
  EXPECT_EQ(memory()->getMicroEventList(), (std::vector<std::string>{"Other__out"}));
  EXPECT_TRUE(memory()->getSubscribers("Other__out").empty());
}

TEST_F(BoxTest, WaitResourceFreeThrowsWhenTheBoxIsStoppedDuringTheWait) {
  auto manager =
      std::dynamic_pointer_cast<KXResourceManager>(broker_->getModuleCore("KXResourceManager"));
  manager->createResource("legs", "");
  manager->waitForResource("legs", "Someone", "", 0);
  auto box = createModule<KXBehavior>(broker_, "Box");
  box->setResources({"legs"}, 0);
  auto text =
      std::async(std::launch::async, [&] { return errorText([&] { box->waitResourceFree(); }); });
  box->setBoxStopped(true);
  if (text.wait_for(kDeliveryTimeout) != std::future_status::ready) {
    ADD_FAILURE() << "the stop did not end the wait";
    manager->releaseResource("legs", "Someone");  // lets the waiter return
  }
  EXPECT_EQ(text.get(), kxError("KXBehavior", "waitResourceFree", "Box stopped during wait"));
}

TEST_F(BoxTest, ParametersComeFromTheBoxOrItsParent) {
  auto parent = createModule<KXBehavior>(broker_, "Parent");
  auto child = createModule<KXBehavior>(broker_, "Child");
  parent->addParameter("speed", KXValue(3), false);
  child->addParameter("speed", KXValue(1), true);
  child->addParameter("own", KXValue(2), false);
  child->setParentFromName("Parent");
  EXPECT_THROW(parent->setParentFromName("Child"), KXError);  // a cycle
  EXPECT_EQ(child->getParameter("speed"), KXValue(3));
  EXPECT_EQ(child->getParameter("own"), KXValue(2));
  child->setParameter("speed", KXValue(9));  // inherited: not set
  EXPECT_EQ(child->getParameter("speed"), KXValue(3));
}

using tu::log::testing::LogCapture;

struct Scene {
  KXBehavior& box;
  KXMemory& memory;
};

struct LogCase {
  std::string function;  // of KX::KXBehavior
  std::function<void(const Scene&)> action;
  tu::log::LogLevel level;
  std::string category;
  std::string message;
};
void PrintTo(const LogCase& c, std::ostream* os) { *os << c.function; }

class BoxLogLineTest : public BrokerTest, public ::testing::WithParamInterface<LogCase> {};

// Box "Box" (unloaded) with own parameter "p", inherited "i", input "missing" (no method)
// linked to "E", output "out" linked to a missing module; its parent "Parent" has "q".
TEST_P(BoxLogLineTest, LogsTheLine) {
  const LogCase& c = GetParam();
  auto parent = createModule<KXBehavior>(broker_, "Parent");
  parent->addParameter("q", KXValue(1), false);
  auto box = createModule<KXBehavior>(broker_, "Box");
  box->setParentFromName("Parent");
  box->addParameter("p", KXValue(1), false);
  box->addParameter("i", KXValue(1), true);
  box->addInput("missing");
  box->connectInput("missing", "E");
  box->addOutput("out", false);
  box->addOutputLink("out", "Nobody", "m");
  LogCapture capture;
  try {
    c.action({*box, *memory()});
  } catch (const KXError&) {  // some cases log, then refuse: only the line matters here
  }
  const auto records = capture.withFunction("KX::KXBehavior::" + c.function);
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].level, c.level);
  EXPECT_EQ(records[0].category, c.category);
  EXPECT_EQ(records[0].message, c.message + "\n");
}

constexpr auto kWarning = tu::log::warning;
constexpr auto kError = tu::log::error;
const std::string kBox = "behavior.box";

const LogCase kLogCases[] = {
    {"getParameter", [](const Scene& s) { s.box.getParameter("p"); }, kWarning, kBox,
     "Box::getParameter(p)  shall not be called when the box is unloaded. You should call it in "
     "onLoad method."},
    {"getParameter",
     [](const Scene& s) {
       s.box.setLoaded(true);
       s.box.getParameter("q");
     },
     kWarning, kBox,
     "Box: getParameter(q) of a parentBox without redefining it, is deprecated. You should define "
     "it in the box which uses it and set it as inherit from parent"},
    {"setParameter", [](const Scene& s) { s.box.setParameter("i", KXValue(2)); }, kWarning, kBox,
     "Box: setParameter: The parameter you are trying to set is inherited from parent."},
    {"setParameters", [](const Scene& s) { s.box.setParameters(arrayOf()); }, kWarning, kBox,
     "Box::setParameters is deprecated. You should iterate on setParameter instead."},
    {"isResourceFree", [](const Scene& s) { s.box.isResourceFree({}); }, kWarning, kBox,
     "Box::isResourceFree is deprecated. You should rather use Ordavia standard Resources."},
    {"addOutputLink", [](const Scene& s) { s.box.addOutputLink("out", "Parent", "m"); }, kWarning,
     kBox, "Box::addOutputLink is deprecated. You should rather create a link with Ordavia."},
    {"removeOutputLink", [](const Scene& s) { s.box.removeOutputLink("out", "Parent", "m"); },
     kWarning, kBox,
     "Box::removeOutputLink is deprecated. You should rather create a link with Ordavia."},
    {"waitFor", [](const Scene& s) { s.box.waitFor({}, "", 0); }, kWarning, kBox,
     "Box::waitFor is deprecated. You should rather use onStart input to wait for resources."},
    {"dataChanged", [](const Scene& s) { s.box.dataChanged("E", KXValue(1), ""); }, kError, kBox,
     "Box Failed to call input: " +
         kxError("Box", "onInput_missing__",
                 "Function onInput_missing__ does not exist in module Box")},
    {"dataChanged", [](const Scene& s) { s.box.dataChanged("Box__out", KXValue(1), ""); }, kError,
     kBox,
     "Box: Failed to call output: \"" +
         kxError("KXProxy", "constructor", "Module 'Nobody' not found.")},
    {"_connectOutput",
     [](const Scene& s) {
       s.memory.exit();
       s.box._connectOutput("F");
     },
     kError, "behavior",
     "Box : cannot subscribe to F e=" +
         kxError("KXMemory", "subscribeToMicroEvent", "The underlying module is invalid.")},
};

INSTANTIATE_TEST_SUITE_P(Lines, BoxLogLineTest, ::testing::ValuesIn(kLogCases),
                         [](const auto& info) {
                           return info.param.function + std::to_string(info.index);
                         });

TEST_F(BoxTest, ErrorsCarryTheirTexts) {
  createModule<KXBehavior>(broker_, "Parent");
  auto box = createModule<KXBehavior>(broker_, "Box");
  box->addParameter("p", KXValue(1), false);
  const auto unregistered = std::make_shared<KXBehavior>(broker_, "Unregistered");
  const struct {
    std::function<void()> action;
    std::string method;
    std::string description;
  } cases[] = {
      {[&] { box->getParameter("x"); }, "getParameter", "Parameter \"x\" does not exist."},
      {[&] { box->setParameter("x", KXValue(1)); }, "setParameter",
       "Parameter \"x\" does not exist."},
      {[&] { box->setParameter("p", KXValue()); }, "setParameter",
       "Cannot set parameter to invalid value."},
      {[&] { box->setParameters(arrayOf(arrayOf("p"))); }, "setParameters",
       "KXValue is not at the expected format : [[name, value]]"},
      {[&] { box->setParentFromName("Nobody"); }, "setParentFromName",
       "Could not define a parent ofBox: parent does not exist."},
      {[&] { box->setParentFromName("KXMemory"); }, "setParentFromName",
       "Could not define a parent ofBox: parent is not a valid KXBehavior."},
      {[&] { box->setParentFromName("Box"); }, "setParentFromName",
       "Could not define a parent ofBox: parent would make a cycle."},
      {[&] { unregistered->dataChanged("E", KXValue(1), ""); }, "dataChanged",
       "This behavior has no proxy to itself, unable to use notification from KXMemory..."},
      {[&] { box->connectInput("x", "E"); }, "connectInput", "Input \"x\" does not exist."},
      {[&] { box->addOutputLink("x", "Parent", "m"); }, "addOutputLink",
       "Output \"x\" does not exist."},
  };
  for (const auto& c : cases)
    EXPECT_EQ(errorText(c.action), kxError("KXBehavior", c.method, c.description));
}

TEST_F(BareBrokerTest, ABoxWithoutMemoryIsLoggedAndCannotLinkOrStimulate) {
  LogCapture capture;
  auto box = createModule<KXBehavior>(broker_, "Box");
  const auto records = capture.withFunction("KX::KXBehavior::KXBehavior");
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].level, tu::log::error);
  EXPECT_EQ(records[0].category, "behavior.box");
  EXPECT_EQ(records[0].message, "Box Cannot create proxy to KXMemory !\n");
  EXPECT_EQ(errorText([&] { box->_connectOutput("E"); }),
            kxError("KXBehavior", "connectOutput",
                    "Cannot add output link, as there is no proxy to KXMemory"));
  EXPECT_EQ(
      errorText([&] { box->stimulateIO("out", KXValue(1)); }),
      kxError("KXBehavior", "stimulateIO", "Cannot raise event, as there is no proxy to KXMemory"));
}

}  // namespace
}  // namespace testing
}  // namespace KX
