#ifndef VELMO_THREAD_KXTHREADPOOL_H_
#define VELMO_THREAD_KXTHREADPOOL_H_

// Lock order of the pool and its workers (a lock may be taken while holding the ones
// before it, never the reverse):
//   1. a worker's own KXMutexRW, held while it takes a task:
//        worker lock -> queue mutex -> wake mutex
//      (the queue mutex is released before the wake mutex is taken);
//   2. the pool mutex is released before the wake mutex is taken (decrease, enqueue);
//   3. KXMonitor::taskFinished holds the monitor mutex while checkLoad takes the busy
//      count's KXMutexRW and, when growing, the pool mutex:
//        monitor mutex -> busy RW lock -> pool mutex
//      (checkLoad releases the busy lock before it takes the pool mutex).
// Tasks run outside every pool lock. Workers are joined outside every pool lock.

#include <deque>
#include <memory>
#include <vector>

#include "thread/kxmonitor.h"
#include "thread/kxmutex.h"
#include "thread/kxtask.h"
#include "thread/kxthread.h"

namespace KX {

// A pool of worker threads running KXTask objects in arrival order.
//
// Life: construct (through std::make_shared: workers refer back to the pool weakly),
// init(n) starts n workers, enqueue() hands tasks over, shutdown() drops the queue,
// stops and joins the workers. Destroying a pool that was not shut down prints a
// warning and shuts it down.
//
// Growth: when nearly every worker is busy (busy + 1 >= count), the monitor adds one
// worker, up to the maximum; shrinking is asked for with resize(-n) and done by the
// workers themselves at their next turn (decrease).
//
// Thread-safety: every member function may be called from any thread, including from
// a task running on this pool (shutdown from a task returns once the other workers
// have ended; the calling worker leaves when its task returns).
class KXThreadPool : public std::enable_shared_from_this<KXThreadPool> {
 public:
  // Workers above this count may be asked to leave by resize with a negative delta.
  static constexpr int kShrinkThreshold = 18;

  KXThreadPool(int initialThreadCount, int maxThreadCount, int checkPeriod, int tuning1,
               int tuning2);
  virtual ~KXThreadPool();
  KXThreadPool(const KXThreadPool&) = delete;
  KXThreadPool& operator=(const KXThreadPool&) = delete;

  // Creates the monitor and starts `threadCount` workers (at most the maximum) in
  // slots 0 to threadCount-1. Tasks queued before init run once workers exist. Throws
  // the launch KXError when a worker cannot be created; the workers already started
  // keep running. Later calls, and calls after shutdown, do nothing.
  void init(int threadCount);

  // Queues `task`; false when the task is empty or the pool has no workers (thread
  // count 0, or shut down), in which case the task never runs.
  bool enqueue(const std::shared_ptr<KXTask>& task);

  // Grows by `delta` workers (one at a time, up to the maximum: false when the maximum
  // stops it), or, with a negative delta, asks -delta workers to leave when more than
  // kShrinkThreshold exist (false when that would leave none: then all but one are
  // asked). False for a delta of 0 or a pool without workers. A launch failure throws.
  bool resize(int delta);

  // Called by `worker` at the top of each loop turn: true when it is to leave, in which
  // case it has already been taken out of the thread table.
  bool decrease(const std::shared_ptr<KXThread>& worker);

  // Takes the front task of the queue, or an empty pointer.
  std::shared_ptr<KXTask> pop();

  // Drops the queued tasks (they stay in state 0), stops every worker (calling the stop
  // hook of the task it holds), wakes them and joins them. A second call does nothing.
  void shutdown();

  // Adds `delta` to the busy count: workers call it around each task.
  void changeBusyCount(int delta);

  int getThreadCount() const;
  int getMaxThreadCount() const;
  int getBusyCount() const;
  int getQueueLength() const;
  int getToRemoveCount() const;
  bool isShutDown() const;
  // The load watcher, created by init; null before.
  KXMonitor* getMonitor() const;

 private:
  // Stores, launches and counts one worker in slot threadCount_; pool mutex held.
  void addWorker() VELMO_REQUIRES(*poolMutex_);

  // Constant after construction.
  const int maxThreadCount_;
  const int checkPeriod_;
  const int tuning1_;
  const int tuning2_;
  const std::shared_ptr<KXMutex> poolMutex_;
  const std::shared_ptr<KXMutexRW> busyLock_;
  const std::shared_ptr<KXMutex> queueMutex_;
  const std::shared_ptr<KXMutex> wakeMutex_;
  const std::shared_ptr<KXCondition> wakeCondition_;
  // Written under the queue mutex (queued) or the pool mutex (toRemove).
  const std::shared_ptr<KXPendingWork> pendingWork_;

  // Guarded by poolMutex_. Slots 0 to threadCount_-1 of threads_ hold the workers.
  int threadCount_ VELMO_GUARDED_BY(*poolMutex_);
  int toRemove_ VELMO_GUARDED_BY(*poolMutex_) = 0;
  bool initialised_ VELMO_GUARDED_BY(*poolMutex_) = false;
  bool shutDown_ VELMO_GUARDED_BY(*poolMutex_) = false;
  std::vector<std::shared_ptr<KXThread>> threads_ VELMO_GUARDED_BY(*poolMutex_);
  // Set once by init, under poolMutex_; workers start after it is set.
  std::unique_ptr<KXMonitor> monitor_;

  // Guarded by busyLock_.
  int busyCount_ VELMO_GUARDED_BY(*busyLock_) = 0;

  // Guarded by queueMutex_. Once closed_, nothing enters the queue again.
  std::deque<std::shared_ptr<KXTask>> queue_ VELMO_GUARDED_BY(*queueMutex_);
  bool closed_ VELMO_GUARDED_BY(*queueMutex_) = false;
};

}  // namespace KX

#endif  // VELMO_THREAD_KXTHREADPOOL_H_
