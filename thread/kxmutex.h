#ifndef VELMO_THREAD_KXMUTEX_H_
#define VELMO_THREAD_KXMUTEX_H_

#include <pthread.h>

#include <memory>

#include "thread/kxthreadsafety.h"

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
class VELMO_CAPABILITY("mutex") KXMutex {
 public:
  KXMutex();
  virtual ~KXMutex();
  KXMutex(const KXMutex&) = delete;
  KXMutex& operator=(const KXMutex&) = delete;

  static std::shared_ptr<KXMutex> create();

  void lock() VELMO_ACQUIRE();
  void unlock() VELMO_RELEASE();

 private:
  friend class KXCondition;
  std::unique_ptr<pthread_mutex_t> mutex_;
};

// A reader/writer lock: many readers at once, or one writer.
class VELMO_CAPABILITY("mutex") KXMutexRW {
 public:
  KXMutexRW();
  virtual ~KXMutexRW();
  KXMutexRW(const KXMutexRW&) = delete;
  KXMutexRW& operator=(const KXMutexRW&) = delete;

  static std::shared_ptr<KXMutexRW> create();

  void readLock() VELMO_ACQUIRE_SHARED();
  void writeLock() VELMO_ACQUIRE();
  // Releases whichever side the calling thread holds.
  void unlock() VELMO_RELEASE_GENERIC();

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
  void wait(KXMutex& mutex) VELMO_REQUIRES(mutex);
  void wait(const std::shared_ptr<KXMutex>& mutex) VELMO_REQUIRES(*mutex);
  // As wait, giving up after `milliseconds` of the wall clock; returns false on timeout.
  bool timedWait(KXMutex& mutex, long milliseconds) VELMO_REQUIRES(mutex);
  // Wakes one waiter.
  void signal();
  // Wakes every waiter.
  void broadcast();

 private:
  std::unique_ptr<pthread_cond_t> condition_;
};

// Holds a KXMutex locked for its lifetime.
class VELMO_SCOPED_CAPABILITY KXScopedLock {
 public:
  explicit KXScopedLock(const std::shared_ptr<KXMutex>& mutex) VELMO_ACQUIRE(*mutex);
  ~KXScopedLock() VELMO_RELEASE();
  KXScopedLock(const KXScopedLock&) = delete;
  KXScopedLock& operator=(const KXScopedLock&) = delete;

 private:
  std::shared_ptr<KXMutex> mutex_;
};

// Holds the shared (read) side of a KXMutexRW for its lifetime.
class VELMO_SCOPED_CAPABILITY KXScopedReadLock {
 public:
  explicit KXScopedReadLock(const std::shared_ptr<KXMutexRW>& lock) VELMO_ACQUIRE_SHARED(*lock);
  ~KXScopedReadLock() VELMO_RELEASE();
  KXScopedReadLock(const KXScopedReadLock&) = delete;
  KXScopedReadLock& operator=(const KXScopedReadLock&) = delete;

 private:
  std::shared_ptr<KXMutexRW> lock_;
};

// Holds the exclusive (write) side of a KXMutexRW for its lifetime.
class VELMO_SCOPED_CAPABILITY KXScopedWriteLock {
 public:
  explicit KXScopedWriteLock(const std::shared_ptr<KXMutexRW>& lock) VELMO_ACQUIRE(*lock);
  ~KXScopedWriteLock() VELMO_RELEASE();
  KXScopedWriteLock(const KXScopedWriteLock&) = delete;
  KXScopedWriteLock& operator=(const KXScopedWriteLock&) = delete;

 private:
  std::shared_ptr<KXMutexRW> lock_;
};

}  // namespace KX

#endif  // VELMO_THREAD_KXMUTEX_H_
