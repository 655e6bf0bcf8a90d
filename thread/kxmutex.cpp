#include "thread/kxmutex.h"

#include <errno.h>
#include <string.h>
#include <sys/time.h>
#include <time.h>

#include <string>
#include <utility>

#include "value/kxerror.h"

namespace KX {

namespace {

std::string describe(int code) {
  char buffer[128];
  // GNU strerror_r may return a static text instead of filling the buffer.
  return ::strerror_r(code, buffer, sizeof buffer);
}

void check(int code, const char* module, const char* method) {
  if (code != 0) KX_THROW(module, method, describe(code));
}

}  // namespace

KXMutex::KXMutex() : mutex_(std::make_unique<pthread_mutex_t>()) {
  check(pthread_mutex_init(mutex_.get(), nullptr), "KXMutex", "KXMutex");
}

KXMutex::~KXMutex() { pthread_mutex_destroy(mutex_.get()); }

std::shared_ptr<KXMutex> KXMutex::create() { return std::make_shared<KXMutex>(); }

void KXMutex::lock() { check(pthread_mutex_lock(mutex_.get()), "KXMutex", "lock"); }

void KXMutex::unlock() { pthread_mutex_unlock(mutex_.get()); }

KXMutexRW::KXMutexRW() : lock_(std::make_unique<pthread_rwlock_t>()) {
  check(pthread_rwlock_init(lock_.get(), nullptr), "KXMutexRW", "KXMutexRW");
}

KXMutexRW::~KXMutexRW() { pthread_rwlock_destroy(lock_.get()); }

std::shared_ptr<KXMutexRW> KXMutexRW::create() { return std::make_shared<KXMutexRW>(); }

void KXMutexRW::readLock() { check(pthread_rwlock_rdlock(lock_.get()), "KXMutexRW", "readLock"); }

void KXMutexRW::writeLock() { check(pthread_rwlock_wrlock(lock_.get()), "KXMutexRW", "writeLock"); }

void KXMutexRW::unlock() { pthread_rwlock_unlock(lock_.get()); }

KXCondition::KXCondition() : condition_(std::make_unique<pthread_cond_t>()) {
  check(pthread_cond_init(condition_.get(), nullptr), "KXCondition", "KXCondition");
}

KXCondition::~KXCondition() { pthread_cond_destroy(condition_.get()); }

std::shared_ptr<KXCondition> KXCondition::create() { return std::make_shared<KXCondition>(); }

void KXCondition::wait(KXMutex& mutex) {
  check(pthread_cond_wait(condition_.get(), mutex.mutex_.get()), "KXCondition", "wait");
}

void KXCondition::wait(const std::shared_ptr<KXMutex>& mutex) {
  KX_ASSERT("KXCondition", mutex != nullptr);
  wait(*mutex);
}

bool KXCondition::timedWait(KXMutex& mutex, long milliseconds) {
  if (milliseconds < 0) milliseconds = 0;
  // Default condition attributes measure deadlines on the wall clock.
  timespec deadline{};
  clock_gettime(CLOCK_REALTIME, &deadline);
  deadline.tv_sec += milliseconds / 1000;
  deadline.tv_nsec += (milliseconds % 1000) * 1000000L;
  if (deadline.tv_nsec >= 1000000000L) {
    deadline.tv_sec += 1;
    deadline.tv_nsec -= 1000000000L;
  }
  int code = pthread_cond_timedwait(condition_.get(), mutex.mutex_.get(), &deadline);
  if (code == ETIMEDOUT) return false;
  check(code, "KXCondition", "timedWait");
  return true;
}

void KXCondition::signal() { pthread_cond_signal(condition_.get()); }

void KXCondition::broadcast() { pthread_cond_broadcast(condition_.get()); }

KXScopedLock::KXScopedLock(const std::shared_ptr<KXMutex>& mutex) : mutex_(mutex) {
  KX_ASSERT("KXScopedLock", mutex_ != nullptr);
  mutex_->lock();
}

KXScopedLock::~KXScopedLock() { mutex_->unlock(); }

KXScopedReadLock::KXScopedReadLock(const std::shared_ptr<KXMutexRW>& lock) : lock_(lock) {
  KX_ASSERT("KXScopedReadLock", lock_ != nullptr);
  lock_->readLock();
}

KXScopedReadLock::~KXScopedReadLock() { lock_->unlock(); }

KXScopedWriteLock::KXScopedWriteLock(const std::shared_ptr<KXMutexRW>& lock) : lock_(lock) {
  KX_ASSERT("KXScopedWriteLock", lock_ != nullptr);
  lock_->writeLock();
}

KXScopedWriteLock::~KXScopedWriteLock() { lock_->unlock(); }

}  // namespace KX
