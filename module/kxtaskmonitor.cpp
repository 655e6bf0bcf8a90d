#include "module/kxtaskmonitor.h"

#include <chrono>

#include "value/kxerror.h"

namespace KX {

namespace {

// Waits count in steps of this many milliseconds: the timeout is rounded up to a whole
// number of steps.
constexpr int kWaitStepMs = 40;

}  // namespace

namespace detail {

KXTaskInfo::KXTaskInfo(int id, const std::string& moduleName, const std::string& methodName)
    : id(id), moduleName(moduleName), methodName(methodName) {}

std::string KXTaskInfo::toString() const { return moduleName + "::" + methodName; }

}  // namespace detail

KXTaskMonitor::KXTaskMonitor() = default;

KXTaskMonitor::~KXTaskMonitor() = default;

void KXTaskMonitor::add(const std::shared_ptr<detail::KXTaskInfo>& info) {
  KX_ASSERT("KXTaskMonitor", info != nullptr);
  std::lock_guard<std::mutex> guard(mutex_);
  tasks_[info->id] = info;
}

void KXTaskMonitor::remove(int id) {
  {
    std::lock_guard<std::mutex> guard(mutex_);
    if (tasks_.erase(id) == 0) return;
  }
  removed_.notify_all();
}

std::shared_ptr<detail::KXTaskInfo> KXTaskMonitor::find(int id) {
  std::lock_guard<std::mutex> guard(mutex_);
  auto it = tasks_.find(id);
  return it == tasks_.end() ? nullptr : it->second;
}

void KXTaskMonitor::setThread(const std::shared_ptr<detail::KXTaskInfo>& info) {
  KX_ASSERT("KXTaskMonitor", info != nullptr);
  std::lock_guard<std::mutex> guard(mutex_);
  auto it = tasks_.find(info->id);
  if (it == tasks_.end()) return;
  it->second->thread_ = pthread_self();
  it->second->hasThread_ = true;
}

bool KXTaskMonitor::isRunning(int id) {
  std::lock_guard<std::mutex> guard(mutex_);
  return tasks_.count(id) != 0;
}

bool KXTaskMonitor::wait(int id, int timeoutMs) {
  std::unique_lock<std::mutex> guard(mutex_);
  auto ended = [this, id] { return tasks_.count(id) == 0; };
  if (timeoutMs <= 0) {
    removed_.wait(guard, ended);
    return false;
  }
  const int steps = (timeoutMs + kWaitStepMs - 1) / kWaitStepMs;
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(steps * kWaitStepMs);
  return !removed_.wait_until(guard, deadline, ended);
}

void KXTaskMonitor::stop(int id) {
  std::lock_guard<std::mutex> guard(mutex_);
  auto it = tasks_.find(id);
  if (it == tasks_.end()) {
    KX_THROW("KXTaskMonitor", "stop",
             "The method 'stop' has not been implement in your module. Module authors are "
             "encouraged to implement this method if they wish to allow long running methods "
             "to be stopped. Please see the documentation for further details.");
  }
  it->second->stopRequested_ = true;
}

bool KXTaskMonitor::isStopRequested(int id) {
  std::lock_guard<std::mutex> guard(mutex_);
  auto it = tasks_.find(id);
  return it != tasks_.end() && it->second->stopRequested_;
}

int KXTaskMonitor::getTaskIdForCurrentThread(const std::string& moduleName) {
  const pthread_t self = pthread_self();
  std::lock_guard<std::mutex> guard(mutex_);
  for (const auto& entry : tasks_) {
    const detail::KXTaskInfo& info = *entry.second;
    if (info.hasThread_ && pthread_equal(info.thread_, self) && info.moduleName == moduleName) {
      return entry.first;
    }
  }
  return -1;
}

std::vector<KXTaskMonitor::TaskEntry> KXTaskMonitor::getTaskList() {
  std::lock_guard<std::mutex> guard(mutex_);
  std::vector<TaskEntry> list;
  list.reserve(tasks_.size());
  for (const auto& entry : tasks_) {
    list.push_back(TaskEntry{entry.first, entry.second->moduleName, entry.second->methodName});
  }
  return list;
}

}  // namespace KX
