#ifndef VELMO_BEHAVIOR_KXTIMELINE_H_
#define VELMO_BEHAVIOR_KXTIMELINE_H_

#include <string>

namespace KX {

// A sequence of frames played at a frame rate, with labelled positions. The host that
// runs the behaviours implements it; boxes only hold handles to it (std::shared_ptr to
// their own, std::weak_ptr to their parent's). What the operations mean (frame numbering,
// what stop resets, what the size counts) is the host's business.
class KXTimeline {
 public:
  virtual ~KXTimeline();
  virtual void play() = 0;
  virtual void pause() = 0;
  virtual void stop() = 0;
  // Positions on the frame that carries `label`.
  virtual void goTo(const std::string& label) = 0;
  virtual void goTo(const int& frame) = 0;
  virtual int getSize() = 0;
  virtual int getFPS() = 0;
  virtual void setFPS(int fps) = 0;

 protected:
  KXTimeline() = default;
  KXTimeline(const KXTimeline&) = default;
  KXTimeline& operator=(const KXTimeline&) = default;
};

}  // namespace KX

#endif  // VELMO_BEHAVIOR_KXTIMELINE_H_
