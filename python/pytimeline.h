#ifndef VELMO_PYTHON_PYTIMELINE_H_
#define VELMO_PYTHON_PYTIMELINE_H_

#include <memory>

namespace KX {

class KXTimeline;

// Python's `timeline`: drives a box's timeline through a weak handle, so it never keeps
// the timeline alive. Once the host drops the timeline every operation does nothing
// (getSize and getFPS answer 0). Called by Python with the interpreter lock held;
// every operation releases it around the timeline's own call, which may block or run
// the box's Python code.
class timeline {
 public:
  explicit timeline(std::shared_ptr<KXTimeline> handle);
  virtual ~timeline();

  void play();
  void pause();
  void stop();
  void goTo(int frame);
  void goTo(char* label);  // None is the empty label
  int getSize();
  int getFPS();
  void setFPS(int fps);

 private:
  std::weak_ptr<KXTimeline> timeline_;
};

}  // namespace KX

#endif  // VELMO_PYTHON_PYTIMELINE_H_
