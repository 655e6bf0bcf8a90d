#include "thread/kxthreadpool.h"

#include <algorithm>
#include <iostream>
#include <utility>

#include "value/kxerror.h"

namespace KX {

KXThreadPool::KXThreadPool(int initialThreadCount, int maxThreadCount, int checkPeriod, int tuning1,
                           int tuning2)
    : maxThreadCount_(std::max(maxThreadCount, 0)),
      checkPeriod_(checkPeriod),
      tuning1_(tuning1),
      tuning2_(tuning2),
      poolMutex_(KXMutex::create()),
      busyLock_(KXMutexRW::create()),
      queueMutex_(KXMutex::create()),
      wakeMutex_(KXMutex::create()),
      wakeCondition_(KXCondition::create()),
      pendingWork_(std::make_shared<KXPendingWork>()),
      threadCount_(initialThreadCount) {
  threads_.reserve(maxThreadCount_);
  threads_.resize(maxThreadCount_);
}

KXThreadPool::~KXThreadPool() {
  bool running;
  {
    KXScopedLock guard(poolMutex_);
    running = threadCount_ != 0;
  }
  if (running) {
    std::cout << "KXThreadPool::~KXThreadPool : trying to delete a Thread Pool without shutting "
                 "it down. Shutting down the Thread Pool "
              << std::endl;
    shutdown();
  }
}

void KXThreadPool::init(int threadCount) {
  if (weak_from_this().expired()) {
    KX_THROW("KXThreadPool", "init", "the pool must be owned by a std::shared_ptr");
  }
  KXScopedLock guard(poolMutex_);
  if (initialised_ || shutDown_) return;
  initialised_ = true;
  monitor_ = std::make_unique<KXMonitor>(*this, checkPeriod_, tuning1_, tuning2_);
  const int wanted = std::min(std::max(threadCount, 0), maxThreadCount_);
  threadCount_ = 0;
  while (threadCount_ < wanted) addWorker();
}

void KXThreadPool::addWorker() {
  auto worker = std::make_shared<KXThread>(wakeCondition_, wakeMutex_, threadCount_,
                                           weak_from_this(), pendingWork_);
  threads_[threadCount_] = worker;
  try {
    worker->launch();
  } catch (...) {
    threads_[threadCount_].reset();
    throw;
  }
  ++threadCount_;
}

bool KXThreadPool::enqueue(const std::shared_ptr<KXTask>& task) {
  if (task == nullptr) return false;
  KXMonitor* monitor;
  {
    KXScopedLock guard(poolMutex_);
    if (threadCount_ == 0 || shutDown_) return false;
    monitor = monitor_.get();
  }
  {
    KXScopedLock guard(queueMutex_);
    if (closed_) return false;
    queue_.push_back(task);
    pendingWork_->queued.store(static_cast<int>(queue_.size()));
  }
  // Before init there is no monitor, and no worker to grow beside.
  if (monitor != nullptr) monitor->checkLoad();
  {
    KXScopedLock guard(wakeMutex_);
    wakeCondition_->signal();
  }
  return true;
}

std::shared_ptr<KXTask> KXThreadPool::pop() {
  std::shared_ptr<KXTask> task;
  bool more;
  {
    KXScopedLock guard(queueMutex_);
    if (queue_.empty()) return task;
    task = std::move(queue_.front());
    queue_.pop_front();
    more = !queue_.empty();
    pendingWork_->queued.store(static_cast<int>(queue_.size()));
  }
  // Another sleeping worker looks at what is left. With nothing left it would only go
  // back to sleep, so it is left alone.
  if (more) {
    KXScopedLock guard(wakeMutex_);
    wakeCondition_->signal();
  }
  return task;
}

bool KXThreadPool::resize(int delta) {
  KXScopedLock guard(poolMutex_);
  if (!initialised_ || shutDown_ || threadCount_ == 0 || delta == 0) return false;
  if (delta > 0) {
    toRemove_ = 0;
    pendingWork_->toRemove.store(0);
    for (int added = 0; added < delta; ++added) {
      if (threadCount_ >= maxThreadCount_) return false;
      addWorker();
    }
    return true;
  }
  if (threadCount_ > kShrinkThreshold) {
    bool complete = true;
    toRemove_ = -delta;
    if (threadCount_ + delta < 1) {
      toRemove_ = threadCount_ - 1;
      complete = false;
    }
    pendingWork_->toRemove.store(toRemove_);
    return complete;
  }
  return true;
}

bool KXThreadPool::decrease(const std::shared_ptr<KXThread>& worker) {
  // The leaving worker's last table reference is released after the pool mutex.
  std::shared_ptr<KXThread> leaving;
  {
    KXScopedLock guard(poolMutex_);
    if (toRemove_ <= 0 || threadCount_ <= 0) return false;
    const int slot = worker->getIndex();
    if (slot < 0 || slot >= threadCount_ || threads_[slot] != worker) return false;
    const int last = threadCount_ - 1;
    leaving = std::move(threads_[slot]);
    if (slot != last) {
      threads_[slot] = std::move(threads_[last]);
      threads_[slot]->setIndex(slot);
    }
    std::cout << "KXThreadPool::decrease" << std::endl;
    --threadCount_;
    --toRemove_;
    pendingWork_->toRemove.store(toRemove_);
  }
  KXScopedLock guard(wakeMutex_);
  wakeCondition_->signal();
  return true;
}

void KXThreadPool::shutdown() {
  std::vector<std::shared_ptr<KXThread>> workers;
  {
    KXScopedLock guard(poolMutex_);
    if (shutDown_) return;
    shutDown_ = true;
    workers.assign(threads_.begin(), threads_.begin() + std::max(threadCount_, 0));
  }

  // Dropped tasks are released outside the queue mutex: their destructors are user code.
  std::deque<std::shared_ptr<KXTask>> dropped;
  {
    KXScopedLock guard(queueMutex_);
    closed_ = true;
    dropped.swap(queue_);
    pendingWork_->queued.store(0);
  }
  dropped.clear();

  for (const auto& worker : workers) worker->stop();

  {
    KXScopedLock guard(wakeMutex_);
    wakeCondition_->broadcast();
  }

  // Workers that left through decrease meanwhile are no longer in the table; they end
  // on their own.
  workers.clear();
  {
    KXScopedLock guard(poolMutex_);
    for (int slot = 0; slot < threadCount_; ++slot) {
      workers.push_back(std::move(threads_[slot]));
    }
    threadCount_ = 0;
    toRemove_ = 0;
    pendingWork_->toRemove.store(0);
  }
  // Joined outside every pool lock: a finishing task may still call into the pool. A
  // worker calling shutdown from its own task is detached instead, and leaves its loop
  // when that task returns.
  for (const auto& worker : workers) worker->join();
}

void KXThreadPool::changeBusyCount(int delta) {
  KXScopedWriteLock guard(busyLock_);
  busyCount_ += delta;
}

int KXThreadPool::getThreadCount() const {
  KXScopedLock guard(poolMutex_);
  return threadCount_;
}

int KXThreadPool::getMaxThreadCount() const { return maxThreadCount_; }

int KXThreadPool::getBusyCount() const {
  KXScopedReadLock guard(busyLock_);
  return busyCount_;
}

int KXThreadPool::getQueueLength() const {
  KXScopedLock guard(queueMutex_);
  return static_cast<int>(queue_.size());
}

int KXThreadPool::getToRemoveCount() const {
  KXScopedLock guard(poolMutex_);
  return toRemove_;
}

bool KXThreadPool::isShutDown() const {
  KXScopedLock guard(poolMutex_);
  return shutDown_;
}

KXMonitor* KXThreadPool::getMonitor() const {
  KXScopedLock guard(poolMutex_);
  return monitor_.get();
}

}  // namespace KX
