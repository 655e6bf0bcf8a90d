// The host's timeline on a clock of the test's own: where play, pause, stop, goTo and a
// change of rate leave it, and the errors it refuses with.
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <string>

#include "behavior/kxsimpletimeline.h"
#include "behavior/tests/behaviortestkit.h"
#include "value/tests/value_test_util.h"

namespace KX {
namespace testing {
namespace {

using testing_util::errorText;
using namespace std::chrono_literals;

class SimpleTimelineTest : public ::testing::Test {
 protected:
  KXSimpleTimeline::Clock::time_point now_{};
  // 100 frames at 10 frames per second, on the test's clock.
  KXSimpleTimeline timeline_{100, 10, [this] { return now_; }};
};

TEST_F(SimpleTimelineTest, FramesFollowTheClockWhilePlaying) {
  struct Step {
    std::function<void(KXSimpleTimeline&)> action;
    std::chrono::milliseconds elapse;
    int frame;
    bool playing;
  };
  const Step steps[] = {
      {[](KXSimpleTimeline&) {}, 5s, 1, false},  // not started
      {[](KXSimpleTimeline& t) { t.play(); }, 1s, 11, true},
      {[](KXSimpleTimeline& t) { t.pause(); }, 1s, 11, false},
      {[](KXSimpleTimeline& t) { t.play(); }, 99ms, 11, true},  // not yet a whole frame
      {[](KXSimpleTimeline& t) { t.setFPS(20); }, 500ms, 21, true},
      {[](KXSimpleTimeline& t) { t.goTo(std::string("end")); }, 0s, 90, true},
      {[](KXSimpleTimeline&) {}, 60s, 100, false},               // stopped on the last frame
      {[](KXSimpleTimeline& t) { t.play(); }, 1s, 100, false},   // nothing left to play
      {[](KXSimpleTimeline& t) { t.goTo(40); }, 1s, 40, false},  // ended: stays put
      {[](KXSimpleTimeline& t) { t.play(); }, 1s, 60, true},
      {[](KXSimpleTimeline& t) { t.stop(); }, 1s, 1, false},
  };
  timeline_.addLabel("end", 90);
  for (std::size_t i = 0; i < std::size(steps); ++i) {
    steps[i].action(timeline_);
    now_ += steps[i].elapse;
    EXPECT_EQ(timeline_.getCurrentFrame(), steps[i].frame) << "step " << i;
    EXPECT_EQ(timeline_.isPlaying(), steps[i].playing) << "step " << i;
  }
  EXPECT_EQ(timeline_.getFPS(), 20);
  EXPECT_EQ(timeline_.getSize(), 100);
}

TEST_F(SimpleTimelineTest, RefusesWhatIsOutsideTheTimeline) {
  const struct {
    std::function<void()> action;
    std::string error;
  } cases[] = {
      {[] { KXSimpleTimeline(0, 10); },
       kxError("KXSimpleTimeline", "KXSimpleTimeline", "A timeline has at least 1 frame.")},
      {[] { KXSimpleTimeline(10, 0); }, kxError("KXSimpleTimeline", "KXSimpleTimeline",
                                                "The rate must be at least 1 frame per second.")},
      {[&] { timeline_.setFPS(-1); },
       kxError("KXSimpleTimeline", "setFPS", "The rate must be at least 1 frame per second.")},
      {[&] { timeline_.goTo(0); },
       kxError("KXSimpleTimeline", "goTo", "Frame 0 is outside the timeline (1 to 100).")},
      {[&] { timeline_.goTo(101); },
       kxError("KXSimpleTimeline", "goTo", "Frame 101 is outside the timeline (1 to 100).")},
      {[&] { timeline_.addLabel("x", 101); },
       kxError("KXSimpleTimeline", "addLabel", "Frame 101 is outside the timeline (1 to 100).")},
      {[&] { timeline_.goTo(std::string("nowhere")); },
       kxError("KXSimpleTimeline", "goTo", "Label \"nowhere\" does not exist.")},
  };
  for (const auto& c : cases) EXPECT_EQ(errorText(c.action), c.error);
  EXPECT_EQ(timeline_.getCurrentFrame(), 1);
  EXPECT_EQ(timeline_.getFPS(), 10);
}

}  // namespace
}  // namespace testing
}  // namespace KX
