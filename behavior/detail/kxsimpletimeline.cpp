#include "behavior/detail/kxsimpletimeline.h"

#include <algorithm>
#include <utility>

#include "value/kxerror.h"

namespace KX {
namespace {

constexpr char kModule[] = "KXSimpleTimeline";

void checkRate(const char* method, int fps) {
  if (fps < 1) KX_THROW(kModule, method, "The rate must be at least 1 frame per second.");
}

}  // namespace

KXSimpleTimeline::KXSimpleTimeline(int size, int fps, std::function<Clock::time_point()> now)
    : now_(std::move(now)), size_(size), fps_(fps), anchorTime_(now_()) {
  if (size < 1) KX_THROW(kModule, "KXSimpleTimeline", "A timeline has at least 1 frame.");
  checkRate("KXSimpleTimeline", fps);
}

KXSimpleTimeline::~KXSimpleTimeline() = default;

int KXSimpleTimeline::frameAt(Clock::time_point now) const {
  if (!playing_) return anchorFrame_;
  const auto elapsed = std::chrono::duration_cast<std::chrono::microseconds>(now - anchorTime_);
  const long long advanced = elapsed.count() * fps_ / 1000000;
  return static_cast<int>(std::min<long long>(size_, anchorFrame_ + advanced));
}

void KXSimpleTimeline::anchor(int frame, Clock::time_point now) {
  // Having reached the last frame ends playing: moving on from there does not resume it.
  if (playing_ && frameAt(now) == size_) playing_ = false;
  anchorFrame_ = frame;
  anchorTime_ = now;
}

void KXSimpleTimeline::checkFrame(const char* method, int frame) const {
  if (frame < 1 || frame > size_) {
    KX_THROW(kModule, method,
             "Frame " + std::to_string(frame) + " is outside the timeline (1 to " +
                 std::to_string(size_) + ").");
  }
}

void KXSimpleTimeline::play() {
  std::lock_guard<std::mutex> lock(mutex_);
  const Clock::time_point now = now_();
  anchor(frameAt(now), now);
  playing_ = anchorFrame_ < size_;
}

void KXSimpleTimeline::pause() {
  std::lock_guard<std::mutex> lock(mutex_);
  const Clock::time_point now = now_();
  anchor(frameAt(now), now);
  playing_ = false;
}

void KXSimpleTimeline::stop() {
  std::lock_guard<std::mutex> lock(mutex_);
  anchor(1, now_());
  playing_ = false;
}

void KXSimpleTimeline::goTo(const std::string& label) {
  std::lock_guard<std::mutex> lock(mutex_);
  const auto found = labels_.find(label);
  if (found == labels_.end()) {
    KX_THROW(kModule, "goTo", "Label \"" + label + "\" does not exist.");
  }
  anchor(found->second, now_());
}

void KXSimpleTimeline::goTo(const int& frame) {
  std::lock_guard<std::mutex> lock(mutex_);
  checkFrame("goTo", frame);
  anchor(frame, now_());
}

int KXSimpleTimeline::getSize() { return size_; }

int KXSimpleTimeline::getFPS() {
  std::lock_guard<std::mutex> lock(mutex_);
  return fps_;
}

void KXSimpleTimeline::setFPS(int fps) {
  checkRate("setFPS", fps);
  std::lock_guard<std::mutex> lock(mutex_);
  // Frames already played stay played: the new rate counts from here.
  const Clock::time_point now = now_();
  anchor(frameAt(now), now);
  fps_ = fps;
}

void KXSimpleTimeline::addLabel(const std::string& label, int frame) {
  std::lock_guard<std::mutex> lock(mutex_);
  checkFrame("addLabel", frame);
  labels_[label] = frame;
}

int KXSimpleTimeline::getCurrentFrame() {
  std::lock_guard<std::mutex> lock(mutex_);
  return frameAt(now_());
}

bool KXSimpleTimeline::isPlaying() {
  std::lock_guard<std::mutex> lock(mutex_);
  return playing_ && frameAt(now_()) < size_;
}

}  // namespace KX
