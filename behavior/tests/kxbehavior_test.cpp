// Boxes wired through KXMemory (inputs, parameters, resources), the host that loads and
// links them and gives them timelines, the timeline on a clock of the test's own, and every
// error they raise and line they log, word for word.

#include <chrono>
#include <functional>
#include <future>

#include "behavior/detail/kxsimpletimeline.h"
#include "behavior/tests/behaviortestkit.h"
#include "log/tests/logtestsupport.h"

namespace KX {
namespace testing {
namespace {

using namespace std::chrono_literals;

// Linked twice, subscribed once; an input that fails (no method) stops no other. A box gone
// leaves none of its micro events (nor their subscriptions) and none of its subscriptions.
TEST_F(BoxTest, ALinkedOutputReachesEachInputOnceUntilTheBoxIsGone) {
  auto memory = module<KXMemory>("KXMemory");
  auto sender = createModule<KXBehavior>(broker_, "Sender");
  sender->addOutput("out", false);
  auto receiver = createModule<RecordingBox>(broker_, "Receiver");
  receiver->addInput("missing");
  receiver->addInput("onData");
  for (const char* input : {"missing", "onData", "onData"}) {
    host()->linkBehaviors("Sender", "out", "Receiver", input);
  }
  EXPECT_EQ(memory->getSubscribers("Sender__out"), Strings{"Receiver"});
  receiver->dataChanged("Other", KXValue(6), "");  // linked to no input
  sender->stimulateIO("out", KXValue(7));
  sender->stimulateIO("out", KXValue(8));
  EXPECT_EQ(receiver->waitFor(2), (Strings{"7", "8"}));
  sender->stimulateIO("onLoad", KXValue(1));
  sender->_connectOutput("Receiver__never");
  ASSERT_EQ(memory->getMicroEventList().size(), 3u);
  sender->exit();
  sender.reset();  // nothing else holds it: deliveries hold their receiver
  EXPECT_EQ(memory->getMicroEventList(), Strings{"Receiver__never"});
  EXPECT_EQ(memory->getSubscribers("Receiver__never"), Strings{});
}

TEST_F(BoxTest, ABoxTakesItsResourcesAndAStopEndsItsWaitForThem) {
  auto manager = module<KXResourceManager>("KXResourceManager");
  manager->createResource("legs", "");
  auto box = createModule<KXBehavior>(broker_, "Box");
  box->setResources({"legs"}, 0);
  box->waitResources();
  EXPECT_TRUE(manager->areResourcesOwnedBy({"legs"}, "Box"));
  box->releaseResource();
  manager->waitForResource("legs", "Someone", "", 0);
  auto text =
      std::async(std::launch::async, [&] { return errorText([&] { box->waitResourceFree(); }); });
  box->setBoxStopped(true);
  if (text.wait_for(kPatience) != std::future_status::ready) {
    ADD_FAILURE() << "the stop did not end the wait";
    manager->releaseResource("legs", "Someone");  // lets the waiter return
  }
  EXPECT_EQ(text.get(), errorText("KXBehavior", "waitResourceFree", "Box stopped during wait"));
}

// Box "Box" (unloaded) with own parameter "p", inherited "i", input "missing" (no method)
// linked to "E", output "out" linked to a missing module; its parent "Parent" has "i" and
// "q", its child is "Child". Each row raises an error or logs one line of a box.
TEST_F(BoxTest, EveryRefusalAndLogLineCarriesItsText) {
  tu::log::testing::LogCapture capture;
  auto parent = createModule<KXBehavior>(broker_, "Parent");
  parent->addParameter("q", KXValue(1), false);
  parent->addParameter("i", KXValue(7), false);
  auto b = createModule<KXBehavior>(broker_, "Box");
  b->setParentFromName("Parent");
  b->addParameter("p", KXValue(1), false);
  b->addParameter("i", KXValue(1), true);
  b->addInput("missing");
  b->connectInput("missing", "E");
  b->addOutput("out", false);
  b->addOutputLink("out", "Nobody", "m");
  createModule<KXBehavior>(broker_, "Child")->setParentFromName("Box");
  const auto unregistered = std::make_shared<KXBehavior>(broker_, "Unregistered");
  const auto bare =
      KXBroker::createBroker("bare", "127.0.0.1", 0, "", 0, KXBroker::kKeepAlive, "", false);
  std::shared_ptr<KXBehavior> lonely;  // without KXMemory
  KXSimpleTimeline timeline(100, 10);
  const std::string ofBox = "KXBehavior", ofHost = "KXBehaviorManager";
  const std::string ofTimeline = "KXSimpleTimeline";
  const std::string notABox = "\" is not a box of the broker " + broker_->getName() + ".";
  const std::string parentOf = "Could not define a parent ofBox: parent ";
  const std::string outside = " is outside the timeline (1 to 100).";
  const std::string deprecated = " is deprecated. You should ";
  const std::string W = "warning behavior.box ", E = "error behavior.box ";
  const struct {
    std::function<void()> action;
    std::string expected;
  } cases[] = {
      {[&] { lonely = createModule<KXBehavior>(bare, "Lonely"); },
       E + "Lonely Cannot create proxy to KXMemory !"},
      {[&] { lonely->_connectOutput("E"); },
       errorText(ofBox, "connectOutput",
                 "Cannot add output link, as there is no proxy to KXMemory")},
      {[&] { lonely->stimulateIO("out", KXValue(1)); },
       errorText(ofBox, "stimulateIO", "Cannot raise event, as there is no proxy to KXMemory")},
      {[&] { b->getParameter("p"); },
       W + "Box::getParameter(p)  shall not be called when the box is unloaded. You should call "
           "it in onLoad method."},
      {[&] { b->getParameter("x"); },
       errorText(ofBox, "getParameter", "Parameter \"x\" does not exist.")},
      {[&] { b->setParameter("x", KXValue(1)); },
       errorText(ofBox, "setParameter", "Parameter \"x\" does not exist.")},
      {[&] { b->setParameter("p", KXValue()); },
       errorText(ofBox, "setParameter", "Cannot set parameter to invalid value.")},
      {[&] { b->setParameters(arrayOf(arrayOf("p"))); },
       errorText(ofBox, "setParameters",
                 "KXValue is not at the expected format : [[name, value]]")},
      {[&] { b->setParentFromName("Nobody"); },
       errorText(ofBox, "setParentFromName", parentOf + "does not exist.")},
      {[&] { b->setParentFromName("KXMemory"); },
       errorText(ofBox, "setParentFromName", parentOf + "is not a valid KXBehavior.")},
      // Once accepted: parameter look-ups then went round the cycle for ever.
      {[&] { b->setParentFromName("Child"); },
       errorText(ofBox, "setParentFromName", parentOf + "would make a cycle.")},
      {[&] { unregistered->dataChanged("E", KXValue(1), ""); },
       errorText(
           ofBox, "dataChanged",
           "This behavior has no proxy to itself, unable to use notification from KXMemory...")},
      {[&] { host()->linkBehaviors("Box", "out", "Box", "x"); },
       errorText(ofBox, "connectInput", "Input \"x\" does not exist.")},
      {[&] { b->addOutputLink("x", "Parent", "m"); },
       errorText(ofBox, "addOutputLink", "Output \"x\" does not exist.")},
      {[&] { host()->loadBehavior("KXMemory"); },
       errorText(ofHost, "loadBehavior", "\"KXMemory" + notABox)},
      {[&] { host()->unloadBehavior("Nobody"); },
       errorText(ofHost, "unloadBehavior", "\"Nobody" + notABox)},
      {[&] { host()->getTimelineFrame("Box"); },
       errorText(ofHost, "getTimelineFrame", "The box \"Box\" has no timeline.")},
      {[&] { host()->setTimeline("Box", 0, 25); },
       errorText(ofTimeline, "KXSimpleTimeline", "A timeline has at least 1 frame.")},
      {[&] { timeline.setFPS(-1); },
       errorText(ofTimeline, "setFPS", "The rate must be at least 1 frame per second.")},
      {[&] { timeline.goTo(0); }, errorText(ofTimeline, "goTo", "Frame 0" + outside)},
      {[&] { timeline.goTo(101); }, errorText(ofTimeline, "goTo", "Frame 101" + outside)},
      {[&] { timeline.goTo(std::string("no")); },
       errorText(ofTimeline, "goTo", "Label \"no\" does not exist.")},
      {[&] { b->setLoaded(true), b->getParameter("q"); },
       W + "Box: getParameter(q) of a parentBox without redefining it, is deprecated. You should "
           "define it in the box which uses it and set it as inherit from parent"},
      {[&] { b->setParameter("i", KXValue(2)); },
       W + "Box: setParameter: The parameter you are trying to set is inherited from parent."},
      {[&] { b->setParameters(arrayOf()); },
       W + "Box::setParameters" + deprecated + "iterate on setParameter instead."},
      {[&] { b->isResourceFree({}); },
       W + "Box::isResourceFree" + deprecated + "rather use Ordavia standard Resources."},
      {[&] { b->waitFor({}, "", 0); },
       W + "Box::waitFor" + deprecated + "rather use onStart input to wait for resources."},
      {[&] { b->dataChanged("E", KXValue(1), ""); },
       E + "Box Failed to call input: " +
           errorText("Box", "onInput_missing__",
                     "Function onInput_missing__ does not exist in module Box")},
      {[&] { b->dataChanged("Box__out", KXValue(1), ""); },
       E + "Box: Failed to call output: \"" +
           errorText("KXProxy", "constructor", "Module 'Nobody' not found.")},
      {[&] { b->addOutputLink("out", "Parent", "m"); },
       W + "Box::addOutputLink" + deprecated + "rather create a link with Ordavia."},
      {[&] { b->removeOutputLink("out", "Parent", "m"); },
       W + "Box::removeOutputLink" + deprecated + "rather create a link with Ordavia."},
      {[&] { module<KXMemory>("KXMemory")->exit(), b->_connectOutput("F"); },
       "error behavior Box : cannot subscribe to F e=" +
           errorText("KXMemory", "subscribeToMicroEvent", "The underlying module is invalid.")},
  };
  for (const auto& c : cases) {
    const std::size_t before = capture.records().size();
    std::string got;  // the error, or the box's lines logged
    try {
      c.action();
      const auto records = capture.records();
      for (std::size_t i = before; i < records.size(); ++i) {
        if (records[i].function.rfind("KX::KXBehavior::", 0) != 0) continue;
        got += (records[i].level == tu::log::warning ? "warning " : "error ") +
               records[i].category + " " +
               records[i].message.substr(0, records[i].message.size() - 1);
      }
    } catch (const KXError& error) {
      got = error.what();
    }
    EXPECT_EQ(got, c.expected);
  }
  EXPECT_EQ(timeline.getCurrentFrame() * 1000 + timeline.getFPS(), 1010);  // left as it was
  EXPECT_EQ(b->getParameter("i"), KXValue(7));  // the parent's, never set in the box
  b->setParameter("p", KXValue("set"));
  EXPECT_EQ(b->getParameter("p"), KXValue("set"));
  EXPECT_EQ(b->getParametersList(), (Strings{"i", "p"}));
  bare->shutdown();
}

TEST_F(BoxTest, TheHostLoadsAndUnloadsBoxesAndOwnsTheTimelinesItGives) {
  auto box = createModule<RecordingBox>(broker_, "Box");
  auto plain = createModule<KXBehavior>(broker_, "Plain");  // no onLoad: loads all the same
  box->setBoxStopped(true);
  host()->loadBehavior("Box");
  host()->loadBehavior("Plain");
  EXPECT_TRUE(plain->isLoaded());
  EXPECT_EQ(host()->getLoadedBehaviors(), (Strings{"Box", "Plain"}));
  host()->unloadBehavior("Box");
  // A failing onLoad leaves the box unloaded; a failing onUnload is logged, the box unloaded.
  box->failing = true;
  EXPECT_EQ(errorText([&] { host()->loadBehavior("Box"); }),
            errorText("RecordingBox", "onLoad", "refused"));
  box->setLoaded(true);
  tu::log::testing::LogCapture capture;
  host()->unloadBehavior("Box");
  EXPECT_FALSE(box->isLoaded());
  const auto records = capture.withFunction("KX::KXBehaviorManager::unloadBehavior");
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].message,
            "Box: onUnload failed: " + errorText("RecordingBox", "onUnload", "refused") + "\n");
  EXPECT_EQ(box->waitFor(4), (Strings{"onLoad loaded=1 stopped=0", "onUnload loaded=1 stopped=1",
                                      "onLoad loaded=1 stopped=0", "onUnload loaded=1 stopped=1"}));
  EXPECT_EQ(host()->getLoadedBehaviors(), Strings{"Plain"});
  host()->setTimeline("Box", 50, 25);
  host()->addTimelineLabel("Box", "middle", 25);
  plain->setParentFromName("Box");
  box->getTimeline()->goTo(std::string("middle"));
  EXPECT_EQ(host()->getTimelineFrame("Box"), 25);
  EXPECT_EQ(plain->getParentTimeline(), box->getTimeline());
  host()->removeTimeline("Box");
  EXPECT_FALSE(box->hasTimeline() || plain->hasParentTimeline());
}

TEST(SimpleTimelineTest, FramesFollowTheClockWhilePlaying) {
  KXSimpleTimeline::Clock::time_point now{};
  KXSimpleTimeline timeline(100, 10, [&] { return now; });
  timeline.addLabel("end", 90);
  const struct {
    std::function<void()> action;
    std::chrono::milliseconds elapse;
    int frame;
    bool playing;
  } steps[] = {
      {[] {}, 5s, 1, false},  // not started
      {[&] { timeline.play(); }, 1s, 11, true},
      {[&] { timeline.pause(); }, 1s, 11, false},
      {[&] { timeline.play(); }, 99ms, 11, true},  // not yet a whole frame
      {[&] { timeline.setFPS(20); }, 500ms, 21, true},
      {[&] { timeline.goTo(std::string("end")); }, 0s, 90, true},
      {[] {}, 60s, 100, false},                     // stopped on the last frame
      {[&] { timeline.play(); }, 1s, 100, false},   // nothing left to play
      {[&] { timeline.goTo(40); }, 1s, 40, false},  // ended: stays put
      {[&] { timeline.play(); }, 1s, 60, true},
      {[&] { timeline.stop(); }, 1s, 1, false},
  };
  for (std::size_t i = 0; i < std::size(steps); ++i) {
    steps[i].action();
    now += steps[i].elapse;
    EXPECT_EQ(timeline.getCurrentFrame(), steps[i].frame) << "step " << i;
    EXPECT_EQ(timeline.isPlaying(), steps[i].playing) << "step " << i;
  }
}

}  // namespace
}  // namespace testing
}  // namespace KX
