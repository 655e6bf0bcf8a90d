#ifndef VELMO_THREAD_KXMONITOR_H_
#define VELMO_THREAD_KXMONITOR_H_

#include <memory>

#include "thread/kxmutex.h"

namespace KX {

class KXTask;
class KXThreadPool;

// The load watcher of a KXThreadPool, which owns it. It adds up the time of finished
// tasks and decides when the pool grows: at each enqueue, and after every
// `checkPeriod` finished tasks. The two tuning numbers are kept as configuration and
// drive no rule. Thread-safe.
class KXMonitor {
 public:
  // Busy workers at which the pool stops growing and says so on standard output.
  static constexpr int kBusyLimit = 190;

  // `pool` must outlive the monitor.
  KXMonitor(KXThreadPool& pool, int checkPeriod, int tuning1, int tuning2);
  virtual ~KXMonitor();
  KXMonitor(const KXMonitor&) = delete;
  KXMonitor& operator=(const KXMonitor&) = delete;

  // Adds the task's run time (completion minus creation) to the total; every
  // `checkPeriod` tasks, runs checkLoad.
  void taskFinished(const std::shared_ptr<KXTask>& task);

  // Grows the pool by one worker when busy + 1 >= thread count, unless busy has reached
  // kBusyLimit, in which case it prints "INFO: Thread limit reached: (busy/count+5)".
  // A worker that cannot be created leaves the pool as it is (the launch logged why).
  // Growth is a hint: two checks at once may each add a worker, within the pool's maximum.
  void checkLoad();

  int getFinishedCount() const;
  // Running total of task time: seconds, and microseconds below 1,000,000.
  long getTotalSeconds() const;
  long getTotalMicroseconds() const;
  int getCheckPeriod() const;
  int getTuning1() const;
  int getTuning2() const;

 private:
  // Constant after construction.
  KXThreadPool& pool_;
  const int checkPeriod_;
  const int tuning1_;
  const int tuning2_;
  const std::shared_ptr<KXMutex> mutex_;

  // Guarded by mutex_.
  int finishedCount_ VELMO_GUARDED_BY(*mutex_) = 0;
  long totalSeconds_ VELMO_GUARDED_BY(*mutex_) = 0;
  long totalMicroseconds_ VELMO_GUARDED_BY(*mutex_) = 0;
};

}  // namespace KX

#endif  // VELMO_THREAD_KXMONITOR_H_
