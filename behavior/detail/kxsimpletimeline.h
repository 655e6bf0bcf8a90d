#ifndef VELMO_BEHAVIOR_DETAIL_KXSIMPLETIMELINE_H_
#define VELMO_BEHAVIOR_DETAIL_KXSIMPLETIMELINE_H_

#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <string>

#include "behavior/kxtimeline.h"

namespace KX {

// The behaviour host's timeline: frames 1 to `size` played at `fps` frames per second,
// with named frames (labels). It runs on the clock, not on a thread: while playing, the
// current frame is the one reached since play (or the last goTo or setFPS) at the
// current rate; playing ends on the last frame (play from there does nothing until the
// timeline is moved). stop() goes back to frame 1.
//
// Errors (KXError, module "KXSimpleTimeline"): a size or rate below 1, a frame outside
// 1..size, an unknown label.
//
// Thread-safety: every member may be called from any thread.
class KXSimpleTimeline : public KXTimeline {
 public:
  using Clock = std::chrono::steady_clock;

  // `now` is the clock (tests pass their own).
  KXSimpleTimeline(int size, int fps, std::function<Clock::time_point()> now = Clock::now);
  ~KXSimpleTimeline() override;

  void play() override;
  void pause() override;
  void stop() override;
  void goTo(const std::string& label) override;
  void goTo(const int& frame) override;
  int getSize() override;
  int getFPS() override;
  void setFPS(int fps) override;

  // Names `frame` (replacing a label of the same name).
  void addLabel(const std::string& label, int frame);
  int getCurrentFrame();
  bool isPlaying();

 private:
  // The current frame at `now` (mutex_ held).
  int frameAt(Clock::time_point now) const;
  // Makes `frame` the new starting point of the clock (mutex_ held).
  void anchor(int frame, Clock::time_point now);
  void checkFrame(const char* method, int frame) const;

  const std::function<Clock::time_point()> now_;
  std::mutex mutex_;
  const int size_;
  int fps_;
  std::map<std::string, int> labels_;
  bool playing_ = false;
  int anchorFrame_ = 1;  // the frame at anchorTime_
  Clock::time_point anchorTime_;
};

}  // namespace KX

#endif  // VELMO_BEHAVIOR_DETAIL_KXSIMPLETIMELINE_H_
