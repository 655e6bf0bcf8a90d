// The behaviour host: loading and unloading boxes (their onLoad and onUnload, the stop
// flag), linking one box's output to another's input, and the timelines it owns.
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "behavior/kxbehavior.h"
#include "behavior/kxbehaviormanager.h"
#include "behavior/kxsimpletimeline.h"
#include "behavior/tests/behaviortestkit.h"
#include "log/tests/logtestsupport.h"
#include "value/tests/value_test_util.h"

namespace KX {
namespace testing {
namespace {

using testing_util::errorText;
using tu::log::testing::LogCapture;

// A box that records the host's calls; its onLoad and onUnload fail when asked to.
class LifecycleBox : public KXBehavior {
 public:
  LifecycleBox(const std::shared_ptr<KXBroker>& broker, const std::string& name)
      : KXBehavior(broker, name) {
    functionName("onLoad", "LifecycleBox", "Called when loaded.");
    bindMethod(&LifecycleBox::onLoad);
    functionName("onUnload", "LifecycleBox", "Called when unloaded.");
    bindMethod(&LifecycleBox::onUnload);
  }
  void onLoad() {
    calls.push_back("onLoad loaded=" + std::to_string(isLoaded()));
    if (failLoad) KX_THROW("LifecycleBox", "onLoad", "no legs");
  }
  void onUnload() {
    calls.push_back("onUnload stopped=" + std::to_string(isBoxStopped()));
    if (failUnload) KX_THROW("LifecycleBox", "onUnload", "stuck");
  }
  std::vector<std::string> calls;
  bool failLoad = false;
  bool failUnload = false;
};

class ManagerTest : public BrokerTest {
 protected:
  void SetUp() override {
    BrokerTest::SetUp();
    addBehaviorManager(broker_);
    manager_ =
        std::dynamic_pointer_cast<KXBehaviorManager>(broker_->getModuleCore("KXBehaviorManager"));
  }
  std::shared_ptr<KXBehaviorManager> manager_;
};

TEST_F(ManagerTest, LoadingAndUnloadingCallTheBoxInOrder) {
  auto box = createModule<LifecycleBox>(broker_, "Box");
  box->setBoxStopped(true);
  manager_->loadBehavior("Box");
  EXPECT_FALSE(box->isBoxStopped());
  EXPECT_EQ(manager_->getLoadedBehaviors(), std::vector<std::string>{"Box"});
  manager_->unloadBehavior("Box");
  EXPECT_FALSE(box->isLoaded());
  EXPECT_TRUE(manager_->getLoadedBehaviors().empty());
  EXPECT_EQ(box->calls, (std::vector<std::string>{"onLoad loaded=1", "onUnload stopped=1"}));

  auto plain = createModule<KXBehavior>(broker_, "Plain");  // no onLoad: loads all the same
  manager_->loadBehavior("Plain");
  EXPECT_TRUE(plain->isLoaded());
}

TEST_F(ManagerTest, AFailingOnLoadLeavesTheBoxUnloaded) {
  auto box = createModule<LifecycleBox>(broker_, "Box");
  box->failLoad = true;
  EXPECT_NE(errorText([&] { manager_->loadBehavior("Box"); }).find("no legs"), std::string::npos);
  EXPECT_FALSE(box->isLoaded());
  EXPECT_TRUE(manager_->getLoadedBehaviors().empty());
}

TEST_F(ManagerTest, ALinkedOutputReachesTheInputOnce) {
  auto sender = createModule<KXBehavior>(broker_, "Sender");
  sender->addOutput("out", false);
  auto receiver = createModule<RecordingBox>(broker_, "Receiver");
  receiver->addInput("onData");
  manager_->linkBehaviors("Sender", "out", "Receiver", "onData");
  manager_->linkBehaviors("Sender", "out", "Receiver", "onData");
  EXPECT_EQ(memory()->getSubscribers("Sender__out"), std::vector<std::string>{"Receiver"});
  sender->stimulateIO("out", KXValue(7));
  sender->stimulateIO("out", KXValue(8));
  EXPECT_EQ(receiver->waitFor(2, kDeliveryTimeout), (std::vector<KXValue>{KXValue(7), KXValue(8)}));
}

TEST_F(ManagerTest, TheHostOwnsTheTimelinesItGives) {
  auto box = createModule<KXBehavior>(broker_, "Box");
  auto child = createModule<KXBehavior>(broker_, "Child");
  manager_->setTimeline("Box", 50, 25);
  manager_->addTimelineLabel("Box", "middle", 25);
  child->setParentFromName("Box");
  box->getTimeline()->goTo(std::string("middle"));
  EXPECT_EQ(manager_->getTimelineFrame("Box"), 25);
  EXPECT_EQ(child->getParentTimeline(), box->getTimeline());
  manager_->removeTimeline("Box");
  EXPECT_FALSE(box->hasTimeline());
  EXPECT_FALSE(child->hasParentTimeline());
}

TEST_F(ManagerTest, RefusesWhatIsNotItsBox) {
  createModule<KXBehavior>(broker_, "Box");
  const std::string broker = broker_->getName();
  const struct {
    std::function<void()> action;
    std::string error;
  } cases[] = {
      {[&] { manager_->loadBehavior("KXMemory"); },
       kxError("KXBehaviorManager", "loadBehavior",
               "\"KXMemory\" is not a box of the broker " + broker + ".")},
      {[&] { manager_->unloadBehavior("Nobody"); },
       kxError("KXBehaviorManager", "unloadBehavior",
               "\"Nobody\" is not a box of the broker " + broker + ".")},
      {[&] { manager_->linkBehaviors("Box", "out", "Box", "x"); },
       kxError("KXBehavior", "connectInput", "Input \"x\" does not exist.")},
      {[&] { manager_->getTimelineFrame("Box"); },
       kxError("KXBehaviorManager", "getTimelineFrame", "The box \"Box\" has no timeline.")},
      {[&] { manager_->setTimeline("Box", 0, 25); },
       kxError("KXSimpleTimeline", "KXSimpleTimeline", "A timeline has at least 1 frame.")},
  };
  for (const auto& c : cases) EXPECT_EQ(errorText(c.action), c.error);
}

TEST_F(ManagerTest, AFailingOnUnloadIsLoggedAndTheBoxIsUnloaded) {
  auto box = createModule<LifecycleBox>(broker_, "Box");
  box->failUnload = true;
  manager_->loadBehavior("Box");
  LogCapture capture;
  manager_->unloadBehavior("Box");
  EXPECT_FALSE(box->isLoaded());
  const auto records = capture.withFunction("KX::KXBehaviorManager::unloadBehavior");
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].message.rfind("Box: onUnload failed: ", 0), 0u) << records[0].message;
}

}  // namespace
}  // namespace testing
}  // namespace KX
