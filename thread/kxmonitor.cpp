#include "thread/kxmonitor.h"

#include <iostream>

#include "thread/kxtask.h"
#include "thread/kxthreadpool.h"
#include "value/kxerror.h"

namespace KX {

KXMonitor::KXMonitor(KXThreadPool& pool, int checkPeriod, int tuning1, int tuning2)
    : pool_(pool),
      checkPeriod_(checkPeriod),
      tuning1_(tuning1),
      tuning2_(tuning2),
      mutex_(KXMutex::create()) {}

KXMonitor::~KXMonitor() = default;

void KXMonitor::taskFinished(const std::shared_ptr<KXTask>& task) {
  KXScopedLock guard(mutex_);
  if (task != nullptr) {
    const timeval created = task->getCreationTime();
    const timeval completed = task->getCompletionTime();
    const long elapsed =
        (completed.tv_sec - created.tv_sec) * 1000000L + (completed.tv_usec - created.tv_usec);
    totalMicroseconds_ += elapsed;
    totalSeconds_ += totalMicroseconds_ / 1000000L;
    totalMicroseconds_ %= 1000000L;
    if (totalMicroseconds_ < 0) {
      totalMicroseconds_ += 1000000L;
      totalSeconds_ -= 1;
    }
  }
  ++finishedCount_;
  if (finishedCount_ >= checkPeriod_) {
    finishedCount_ = 0;
    checkLoad();
  }
}

void KXMonitor::checkLoad() {
  const int threads = pool_.getThreadCount();
  const int busy = pool_.getBusyCount();
  if (busy >= kBusyLimit) {
    std::cout << "INFO: Thread limit reached: (" << busy << "/" << threads + 5 << ")" << std::endl;
    return;
  }
  if (busy + 1 >= threads) {
    try {
      pool_.resize(1);
    } catch (const KXError&) {
      // Growth is opportunistic: the launch has logged the failure, and the task waits
      // for a worker that is already there.
    }
  }
}

int KXMonitor::getFinishedCount() const {
  KXScopedLock guard(mutex_);
  return finishedCount_;
}

long KXMonitor::getTotalSeconds() const {
  KXScopedLock guard(mutex_);
  return totalSeconds_;
}

long KXMonitor::getTotalMicroseconds() const {
  KXScopedLock guard(mutex_);
  return totalMicroseconds_;
}

int KXMonitor::getCheckPeriod() const { return checkPeriod_; }

int KXMonitor::getTuning1() const { return tuning1_; }

int KXMonitor::getTuning2() const { return tuning2_; }

}  // namespace KX
