#include "python/pytimeline.h"

#include <string>
#include <utility>

#include "behavior/kxtimeline.h"
#include "python/pygil.h"

namespace KX {
namespace {

// Runs `operation` on the timeline if it still exists, without the interpreter lock;
// `otherwise` when it is gone.
template <typename R, typename Operation>
R withTimeline(const std::weak_ptr<KXTimeline>& handle, R otherwise, Operation operation) {
  python::ScopedGILRelease release;
  const std::shared_ptr<KXTimeline> timeline = handle.lock();
  return timeline ? operation(*timeline) : otherwise;
}

template <typename Operation>
void withTimeline(const std::weak_ptr<KXTimeline>& handle, Operation operation) {
  withTimeline(handle, 0, [&](KXTimeline& timeline) {
    operation(timeline);
    return 0;
  });
}

}  // namespace

timeline::timeline(std::shared_ptr<KXTimeline> handle) : timeline_(std::move(handle)) {}

timeline::~timeline() = default;

void timeline::play() {
  withTimeline(timeline_, [](KXTimeline& t) { t.play(); });
}

void timeline::pause() {
  withTimeline(timeline_, [](KXTimeline& t) { t.pause(); });
}

void timeline::stop() {
  withTimeline(timeline_, [](KXTimeline& t) { t.stop(); });
}

void timeline::goTo(int frame) {
  withTimeline(timeline_, [frame](KXTimeline& t) { t.goTo(frame); });
}

void timeline::goTo(char* label) {
  const std::string text = label != nullptr ? label : "";
  withTimeline(timeline_, [&text](KXTimeline& t) { t.goTo(text); });
}

int timeline::getSize() {
  return withTimeline(timeline_, 0, [](KXTimeline& t) { return t.getSize(); });
}

int timeline::getFPS() {
  return withTimeline(timeline_, 0, [](KXTimeline& t) { return t.getFPS(); });
}

void timeline::setFPS(int fps) {
  withTimeline(timeline_, [fps](KXTimeline& t) { t.setFPS(fps); });
}

}  // namespace KX
