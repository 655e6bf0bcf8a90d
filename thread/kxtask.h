#ifndef VELMO_THREAD_KXTASK_H_
#define VELMO_THREAD_KXTASK_H_

#include <pthread.h>
#include <sys/time.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

namespace KX {

class KXThread;

// The unit of asynchronous work of the thread pool. Subclasses implement run(); the
// creator names the task (the name shows in the worker's thread name) and hands it to
// KXThreadPool::enqueue through a std::shared_ptr. The pool moves the state from
// created (0) to running (1) to finished (2); a task dropped from the queue stays at 0.
// Every accessor is thread-safe, so the creator may watch the task while a worker
// runs it.
class KXTask {
 public:
  static constexpr std::int32_t kCreated = 0;
  static constexpr std::int32_t kRunning = 1;
  static constexpr std::int32_t kFinished = 2;

  // Takes the creation time from the wall clock.
  KXTask();
  virtual ~KXTask();
  KXTask(const KXTask&) = delete;
  KXTask& operator=(const KXTask&) = delete;

  // The work. Errors thrown here are logged by the worker, which carries on.
  virtual void run() = 0;
  // Called when the pool stops the worker that holds this task, possibly while run()
  // is still going on another thread: a long run() should watch for it and return.
  virtual void stop();
  virtual std::string getName() const;

  void setName(const std::string& name);

  std::int32_t getState() const;
  void setState(std::int32_t state);

  timeval getCreationTime() const;
  timeval getCompletionTime() const;
  void setCompletionTime(const timeval& time);

  // The worker that took the task, and its POSIX thread; empty/null until then.
  std::weak_ptr<KXThread> getRunner() const;
  pthread_t getRunnerId() const;
  void setRunner(const std::weak_ptr<KXThread>& runner, pthread_t id);

 private:
  std::atomic<std::int32_t> state_{kCreated};
  const timeval creationTime_;

  // Guards the fields below.
  mutable std::mutex mutex_;
  std::string name_ = "undefined";
  timeval completionTime_{};
  std::weak_ptr<KXThread> runner_;
  pthread_t runnerId_{};
};

}  // namespace KX

#endif  // VELMO_THREAD_KXTASK_H_
