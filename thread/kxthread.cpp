#include "thread/kxthread.h"

#include <cxxabi.h>
#include <sched.h>

#include <exception>
#include <string>
#include <utility>

#include "log/log.h"
#include "thread/kxmonitor.h"
#include "thread/kxtask.h"
#include "thread/kxthreadpool.h"
#include "value/kxerror.h"

namespace KX {

std::atomic<std::size_t> KXThread::defaultStackSize_{0};

namespace {

const char kLaunchFailure[] =
    "Aborting creating thread, pthread_create error. Too much thread asked";

// The worker whose loop runs on this thread, so that a worker never joins itself.
thread_local const KXThread* currentWorker = nullptr;

// Thread names are for debuggers only; the kernel keeps 15 bytes of them.
void nameThisThread(const std::string& name) {
  pthread_setname_np(pthread_self(), name.substr(0, 15).c_str());
}

timeval wallClock() {
  timeval now{};
  gettimeofday(&now, nullptr);
  return now;
}

// Owns POSIX thread attributes for the length of a launch.
class ThreadAttributes {
 public:
  ThreadAttributes() : valid_(pthread_attr_init(&attributes_) == 0) {}
  ~ThreadAttributes() {
    if (valid_) pthread_attr_destroy(&attributes_);
  }
  ThreadAttributes(const ThreadAttributes&) = delete;
  ThreadAttributes& operator=(const ThreadAttributes&) = delete;

  // Null when the attributes could not be initialised: the thread then gets defaults.
  pthread_attr_t* get() { return valid_ ? &attributes_ : nullptr; }

 private:
  pthread_attr_t attributes_{};
  bool valid_;
};

}  // namespace

KXThread::KXThread(std::shared_ptr<KXCondition> wakeCondition, std::shared_ptr<KXMutex> wakeMutex,
                   int index, std::weak_ptr<KXThreadPool> pool,
                   std::shared_ptr<const KXPendingWork> pendingWork)
    : wakeCondition_(std::move(wakeCondition)),
      wakeMutex_(std::move(wakeMutex)),
      pool_(std::move(pool)),
      pendingWork_(std::move(pendingWork)),
      index_(index),
      lock_(KXMutexRW::create()) {
  KX_ASSERT("KXThread", wakeCondition_ != nullptr && wakeMutex_ != nullptr);
  std::size_t unset = 0;
  defaultStackSize_.compare_exchange_strong(unset, kDefaultStackSize);
}

KXThread::~KXThread() { join(); }

void KXThread::setDefaultStackSize(std::size_t bytes) { defaultStackSize_.store(bytes); }

std::size_t KXThread::getDefaultStackSize() { return defaultStackSize_.load(); }

void KXThread::launch() {
  if (joinable_.load()) KX_THROW("KXThread", "launch", "the thread is already running");
  ThreadAttributes attributes;
  pthread_attr_t* attr = attributes.get();
  if (attr != nullptr) {
    pthread_attr_setstacksize(attr, defaultStackSize_.load());
  }
  {
    KXScopedWriteLock guard(lock_);
    startTime_ = wallClock();
  }
  if (attr != nullptr) {
    sched_param parameters{};
    parameters.sched_priority = 0;
    pthread_attr_setinheritsched(attr, PTHREAD_EXPLICIT_SCHED);
    pthread_attr_setschedpolicy(attr, SCHED_OTHER);
    pthread_attr_setschedparam(attr, &parameters);
  }

  // Set before the thread exists, so that whichever owner is last can join or detach it.
  self_ = shared_from_this();
  joinable_.store(true);
  if (pthread_create(&handle_, attr, &KXThread::threadMain, this) != 0) {
    joinable_.store(false);
    self_.reset();
    tu::log::LogStream(tu::log::error, "", "KX::KXThread::launch", 0, "core.thread")
        << kLaunchFailure << std::endl;
    throw KXError("pthread", "pthread", kLaunchFailure, __FILE__, __LINE__);
  }
}

void* KXThread::threadMain(void* argument) {
  std::shared_ptr<KXThread> self = std::move(static_cast<KXThread*>(argument)->self_);
  currentWorker = self.get();
  try {
    self->loop();
  } catch (const std::exception&) {
    tu::log::LogStream(tu::log::error, "", "KX::_KX_Thread_Pool_Atom", 0, "KXThread")
        << "cannot create thread" << std::endl;
  }
  // When this is the last reference, the destructor runs here and detaches the thread.
  self.reset();
  currentWorker = nullptr;
  return nullptr;
}

bool KXThread::hasWork() const {
  if (stopRequested_.load()) return true;
  // A worker outside any pool has no queue: only stop() gives it something to do.
  if (pendingWork_ == nullptr) return false;
  return pendingWork_->queued.load() > 0 || pendingWork_->toRemove.load() > 0;
}

void KXThread::loop() {
  nameThisThread("KXThread [new]");
  const std::shared_ptr<KXThread> self = shared_from_this();
  while (!stopRequested_.load()) {
    std::shared_ptr<KXTask> task;
    {
      std::shared_ptr<KXThreadPool> pool = pool_.lock();
      if (pool != nullptr && pool->decrease(self)) break;

      KXScopedWriteLock guard(lock_);
      if (pool != nullptr && !stopRequested_.load()) task = pool->pop();
      if (task != nullptr) {
        currentTask_ = task;
        task->setRunner(self, pthread_self());
      }
    }

    if (task == nullptr) {
      if (stopRequested_.load()) break;
      KXScopedLock guard(wakeMutex_);
      if (!hasWork()) {
        nameThisThread("KXThread [sleeping]");
        do {
          wakeCondition_->wait(*wakeMutex_);
        } while (!hasWork());
        nameThisThread("KXThread [idle]");
      }
      continue;
    }

    task.reset();  // runTask works on currentTask_; keep no second reference here
    changeBusyCount(1);
    runTask();
    changeBusyCount(-1);
  }
}

void KXThread::changeBusyCount(int delta) {
  if (std::shared_ptr<KXThreadPool> pool = pool_.lock()) pool->changeBusyCount(delta);
}

void KXThread::runTask() {
  std::shared_ptr<KXTask> task;
  {
    KXScopedReadLock guard(lock_);
    task = currentTask_;
  }
  if (task == nullptr) return;

  // run() goes on outside the worker's lock, so that stop() can reach the task's stop
  // hook while it runs.
  const std::string name = task->getName();
  task->setState(KXTask::kRunning);
  nameThisThread("KXTask: " + name + " [running]");
  try {
    task->run();
  } catch (const abi::__forced_unwind&) {
    throw;  // the thread is being exited: let the unwinding through
  } catch (const std::exception& error) {
    tu::log::LogStream(tu::log::error, "", "KX::KXThread::runTask", 0, "KXThread")
        << "Error caught: " << error.what() << std::endl;
  } catch (...) {
    tu::log::LogStream(tu::log::error, "", "KX::KXThread::runTask", 0, "KXThread")
        << "Error caught: unknown exception" << std::endl;
  }
  nameThisThread("KXTask: " + name + " [finished]");

  task->setCompletionTime(wallClock());
  task->setState(KXTask::kFinished);
  if (std::shared_ptr<KXThreadPool> pool = pool_.lock()) {
    if (KXMonitor* monitor = pool->getMonitor()) monitor->taskFinished(task);
  }

  KXScopedWriteLock guard(lock_);
  currentTask_.reset();
}

void KXThread::stop() {
  std::shared_ptr<KXTask> task;
  {
    KXScopedWriteLock guard(lock_);
    stopRequested_.store(true);
    task = currentTask_;
  }
  {
    // A sleeping worker outside any pool has no one else to wake it.
    KXScopedLock guard(wakeMutex_);
    wakeCondition_->broadcast();
  }
  // Called after the lock is released: a hook may call back into the pool or wait for
  // its run() to notice, and neither must hold up this worker.
  if (task != nullptr) task->stop();
}

void KXThread::join() {
  if (!joinable_.exchange(false)) return;
  if (currentWorker == this) {
    pthread_detach(pthread_self());
  } else {
    pthread_join(handle_, nullptr);
  }
}

int KXThread::getIndex() const { return index_.load(); }

void KXThread::setIndex(int index) { index_.store(index); }

bool KXThread::isStopRequested() const { return stopRequested_.load(); }

std::shared_ptr<KXTask> KXThread::getCurrentTask() const {
  KXScopedReadLock guard(lock_);
  return currentTask_;
}

timeval KXThread::getStartTime() const {
  KXScopedReadLock guard(lock_);
  return startTime_;
}

}  // namespace KX
