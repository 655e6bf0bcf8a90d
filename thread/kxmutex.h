#ifndef VELMO_THREAD_KXMUTEX_H_
#define VELMO_THREAD_KXMUTEX_H_

#include <pthread.h>

#include <memory>

// Shared lock and condition wrappers over POSIX objects, and their scoped lockers.
//
// Every wrapper owns one separately allocated POSIX object, created with default
// attributes and destroyed with the wrapper. Wrappers are never copied: users share
// them through the std::shared_ptr that `create()` returns. Lock them through the
// scoped lockers below, which keep their own reference to the lock so that it outlives
// every critical section using it, even when its owner drops it meanwhile.
// All operations are thread-safe. Creating, locking or waiting throws KX::KXError when
// the POSIX call fails; unlocking never throws, so that lockers can unlock while unwinding.
namespace KX {

class KXCondition;

// A plain (non-recursive) mutex.
class KXMutex {
 public:
  KXMutex();
  virtual ~KXMutex();
  KXMutex(const KXMutex&) = delete;
  KXMutex& operator=(const KXMutex&) = delete;

  static std::shared_ptr<KXMutex> create();

  void lock();
  void unlock();

 private:
  friend class KXCondition;
  std::unique_ptr<pthread_mutex_t> mutex_;
};

// A reader/writer lock: many readers at once, or one writer.
class KXMutexRW {
 public:
  KXMutexRW();
  virtual ~KXMutexRW();
  KXMutexRW(const KXMutexRW&) = delete;
  KXMutexRW& operator=(const KXMutexRW&) = delete;

  static std::shared_ptr<KXMutexRW> create();

  void readLock();
  void writeLock();
  // Releases whichever side the calling thread holds.
  void unlock();

 private:
  std::unique_ptr<pthread_rwlock_t> lock_;
};

// A condition variable, used with a KXMutex that the caller already holds. Waits may
// wake spuriously: wait in a loop on the predicate that the mutex guards.
class KXCondition {
 public:
  KXCondition();
  virtual ~KXCondition();
  KXCondition(const KXCondition&) = delete;
  KXCondition& operator=(const KXCondition&) = delete;

  static std::shared_ptr<KXCondition> create();

  // Atomically releases `mutex`, waits for a signal, and takes `mutex` back.
  void wait(KXMutex& mutex);
  void wait(const std::shared_ptr<KXMutex>& mutex);
  // As wait, giving up after `milliseconds` of the wall clock; returns false on timeout.
  bool timedWait(KXMutex& mutex, long milliseconds);
  // Wakes one waiter.
  void signal();
  // Wakes every waiter.
  void broadcast();

 private:
  std::unique_ptr<pthread_cond_t> condition_;
};

// Holds a KXMutex locked for its lifetime.
class KXScopedLock {
 public:
  explicit KXScopedLock(std::shared_ptr<KXMutex> mutex);
  ~KXScopedLock();
  KXScopedLock(const KXScopedLock&) = delete;
  KXScopedLock& operator=(const KXScopedLock&) = delete;

 private:
  std::shared_ptr<KXMutex> mutex_;
};

// Holds the shared (read) side of a KXMutexRW for its lifetime.
class KXScopedReadLock {
 public:
  explicit KXScopedReadLock(std::shared_ptr<KXMutexRW> lock);
  ~KXScopedReadLock();
  KXScopedReadLock(const KXScopedReadLock&) = delete;
  KXScopedReadLock& operator=(const KXScopedReadLock&) = delete;

 private:
  std::shared_ptr<KXMutexRW> lock_;
};

// Holds the exclusive (write) side of a KXMutexRW for its lifetime.
class KXScopedWriteLock {
 public:
  explicit KXScopedWriteLock(std::shared_ptr<KXMutexRW> lock);
  ~KXScopedWriteLock();
  KXScopedWriteLock(const KXScopedWriteLock&) = delete;
  KXScopedWriteLock& operator=(const KXScopedWriteLock&) = delete;

 private:
  std::shared_ptr<KXMutexRW> lock_;
};

}  // namespace KX

#endif  // VELMO_THREAD_KXMUTEX_H_
