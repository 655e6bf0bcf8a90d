#include "thread/kxtask.h"

namespace KX {

namespace {

timeval wallClock() {
  timeval now{};
  gettimeofday(&now, nullptr);
  return now;
}

}  // namespace

KXTask::KXTask() : creationTime_(wallClock()) {}

KXTask::~KXTask() = default;

void KXTask::stop() {}

std::string KXTask::getName() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return name_;
}

void KXTask::setName(const std::string& name) {
  std::lock_guard<std::mutex> guard(mutex_);
  name_ = name;
}

std::int32_t KXTask::getState() const { return state_.load(); }

void KXTask::setState(std::int32_t state) { state_.store(state); }

timeval KXTask::getCreationTime() const { return creationTime_; }

timeval KXTask::getCompletionTime() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return completionTime_;
}

void KXTask::setCompletionTime(const timeval& time) {
  std::lock_guard<std::mutex> guard(mutex_);
  completionTime_ = time;
}

std::weak_ptr<KXThread> KXTask::getRunner() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return runner_;
}

pthread_t KXTask::getRunnerId() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return runnerId_;
}

void KXTask::setRunner(const std::weak_ptr<KXThread>& runner, pthread_t id) {
  std::lock_guard<std::mutex> guard(mutex_);
  runner_ = runner;
  runnerId_ = id;
}

}  // namespace KX
