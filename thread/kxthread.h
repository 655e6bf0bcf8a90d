#ifndef VELMO_THREAD_KXTHREAD_H_
#define VELMO_THREAD_KXTHREAD_H_

#include <pthread.h>
#include <sys/time.h>

#include <atomic>
#include <cstddef>
#include <memory>

#include "thread/kxmutex.h"

namespace KX {

class KXTask;
class KXThreadPool;

// What a worker looks at, under the pool's wake mutex, before it sleeps on the wake
// condition. The pool updates these before it signals, so a worker never sleeps
// through work that was announced while it was deciding to sleep.
struct KXPendingWork {
  std::atomic<int> queued{0};    // tasks waiting in the pool's queue
  std::atomic<int> toRemove{0};  // workers asked to leave at their next turn
};

// One worker of a KXThreadPool: a POSIX thread that takes tasks from its pool's queue
// and runs them one at a time, sleeping on the pool's wake condition when there is
// nothing to do.
//
// Ownership: held through std::shared_ptr by the pool's thread table, and by the
// running POSIX thread itself, which drops its reference when it leaves its loop. The
// last owner joins the POSIX thread, or detaches it when that owner is the worker's own
// thread. The worker refers to its pool weakly and keeps it alive only for the moment
// of each call into it, never across a task's run().
//
// Thread-safety: every member function may be called from any thread.
class KXThread : public std::enable_shared_from_this<KXThread> {
 public:
  // Worker stacks are fixed at this size so that a process can hold 200 workers.
  static constexpr std::size_t kDefaultStackSize = 0xA0000;

  KXThread(std::shared_ptr<KXCondition> wakeCondition, std::shared_ptr<KXMutex> wakeMutex,
           int index, std::weak_ptr<KXThreadPool> pool,
           std::shared_ptr<const KXPendingWork> pendingWork = nullptr);
  virtual ~KXThread();
  KXThread(const KXThread&) = delete;
  KXThread& operator=(const KXThread&) = delete;

  // Starts the POSIX thread running the worker loop. The object must be owned by a
  // std::shared_ptr. Throws KXError("pthread", "pthread", ...) when the thread cannot
  // be created; the failure is logged first. A worker is launched once.
  void launch();
  // Asks the worker to leave its loop and calls the stop hook of the task it holds,
  // which may still be running: the hook is how a long task learns to end.
  void stop();
  // Runs the current task, if any, and reports it to the pool's monitor.
  void runTask();
  // Waits for the POSIX thread to end; on the worker's own thread, detaches it instead.
  // Later calls do nothing.
  void join();

  int getIndex() const;
  void setIndex(int index);
  bool isStopRequested() const;
  std::shared_ptr<KXTask> getCurrentTask() const;
  timeval getStartTime() const;

  // The stack size given to every worker launched from now on. The first KXThread
  // constructed sets it to kDefaultStackSize while it is still 0.
  static void setDefaultStackSize(std::size_t bytes);
  static std::size_t getDefaultStackSize();

 private:
  static void* threadMain(void* argument);
  void loop();
  // True when a sleeping worker must wake up: read under the wake mutex.
  bool hasWork() const;
  void changeBusyCount(int delta);

  // Constant after construction.
  const std::shared_ptr<KXCondition> wakeCondition_;
  const std::shared_ptr<KXMutex> wakeMutex_;
  const std::weak_ptr<KXThreadPool> pool_;
  const std::shared_ptr<const KXPendingWork> pendingWork_;

  // Written by the pool under its own mutex; read by anyone.
  std::atomic<int> index_;
  // Read without a lock by a worker about to sleep, which holds the wake mutex.
  std::atomic<bool> stopRequested_{false};

  // Guards startTime_ and currentTask_. Lock order: this lock, then the pool's queue
  // mutex, then its wake mutex.
  const std::shared_ptr<KXMutexRW> lock_;
  timeval startTime_ VELMO_GUARDED_BY(*lock_){};
  std::shared_ptr<KXTask> currentTask_ VELMO_GUARDED_BY(*lock_);

  // Set by launch; read by join, which runs after launch.
  pthread_t handle_{};
  std::atomic<bool> joinable_{false};
  // The POSIX thread's own reference, handed over from launch to threadMain.
  std::shared_ptr<KXThread> self_;

  static std::atomic<std::size_t> defaultStackSize_;
};

}  // namespace KX

#endif  // VELMO_THREAD_KXTHREAD_H_
