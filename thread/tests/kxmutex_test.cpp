#include "thread/kxmutex.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "thread_test_support.h"
#include "value/kxerror.h"

namespace KX {
namespace {

using testing::Latch;

TEST(KXMutexTest, ScopedLockSerialisesIncrements) {
  auto mutex = KXMutex::create();
  ASSERT_NE(mutex, nullptr);
  long counter = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 20000; ++i) {
        KXScopedLock guard(mutex);
        ++counter;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(counter, 80000);
}

TEST(KXMutexTest, FactoriesReturnDistinctObjects) {
  EXPECT_NE(KXMutex::create(), KXMutex::create());
  EXPECT_NE(KXMutexRW::create(), KXMutexRW::create());
  EXPECT_NE(KXCondition::create(), KXCondition::create());
}

TEST(KXMutexTest, LockersKeepTheirLockAlive) {
  auto mutex = KXMutex::create();
  auto rw = KXMutexRW::create();
  std::weak_ptr<KXMutex> weakMutex = mutex;
  std::weak_ptr<KXMutexRW> weakRw = rw;
  {
    KXScopedLock guard(mutex);
    KXScopedReadLock readGuard(rw);
    mutex.reset();
    rw.reset();
    EXPECT_FALSE(weakMutex.expired());
    EXPECT_FALSE(weakRw.expired());
  }
  EXPECT_TRUE(weakMutex.expired());
  EXPECT_TRUE(weakRw.expired());
}

TEST(KXMutexTest, LockerReleasesOnScopeExit) {
  auto mutex = KXMutex::create();
  { KXScopedLock guard(mutex); }
  // A second thread can take the mutex only if the locker released it.
  bool taken = false;
  std::thread other([&] {
    KXScopedLock guard(mutex);
    taken = true;
  });
  other.join();
  EXPECT_TRUE(taken);

  auto rw = KXMutexRW::create();
  { KXScopedWriteLock guard(rw); }
  { KXScopedWriteLock again(rw); }
  { KXScopedReadLock reader(rw); }
  bool written = false;
  std::thread writer([&] {
    KXScopedWriteLock guard(rw);
    written = true;
  });
  writer.join();
  EXPECT_TRUE(written);
}

TEST(KXMutexTest, NullLockIsRejected) {
  try {
    KXScopedLock guard(nullptr);
    FAIL() << "a null mutex was accepted";
  } catch (const KXError& error) {
    EXPECT_EQ(std::string(error.what()).rfind("\tKXScopedLock::Assert failed\n\t", 0), 0u)
        << error.what();
  }
  EXPECT_THROW(KXScopedReadLock(nullptr), KXError);
  EXPECT_THROW(KXScopedWriteLock(nullptr), KXError);
}

// Sixteen threads share one KXMutexRW: writers keep two fields equal and must be alone;
// readers must see the fields equal and may overlap with one another.
TEST(KXMutexRWTest, ReadersShareWritersExclude) {
  auto rw = KXMutexRW::create();
  long first = 0;
  long second = 0;
  std::atomic<int> readersInside{0};
  std::atomic<int> writersInside{0};
  std::atomic<int> violations{0};
  std::atomic<int> torn{0};

  std::vector<std::thread> threads;
  for (int t = 0; t < 16; ++t) {
    const bool writer = t % 4 == 0;
    threads.emplace_back([&, writer] {
      for (int i = 0; i < 2000; ++i) {
        if (writer) {
          KXScopedWriteLock guard(rw);
          if (writersInside.fetch_add(1) != 0 || readersInside.load() != 0) ++violations;
          ++first;
          std::this_thread::yield();
          ++second;
          writersInside.fetch_sub(1);
        } else {
          KXScopedReadLock guard(rw);
          readersInside.fetch_add(1);
          if (writersInside.load() != 0) ++violations;
          if (first != second) ++torn;
          readersInside.fetch_sub(1);
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(violations.load(), 0);
  EXPECT_EQ(torn.load(), 0);
  EXPECT_EQ(first, 4 * 2000);
  EXPECT_EQ(second, 4 * 2000);
}

TEST(KXMutexRWTest, ReadersHoldTheLockTogether) {
  constexpr int kReaders = 12;
  auto rw = KXMutexRW::create();
  Latch allInside(kReaders);
  std::atomic<int> sawEveryone{0};
  std::vector<std::thread> readers;
  for (int t = 0; t < kReaders; ++t) {
    readers.emplace_back([&] {
      KXScopedReadLock guard(rw);
      allInside.countDown();
      // Only possible if every reader holds the read side at the same time.
      if (allInside.wait()) ++sawEveryone;
    });
  }
  for (auto& reader : readers) reader.join();
  EXPECT_EQ(sawEveryone.load(), kReaders);
}

TEST(KXMutexRWTest, WriterWaitsForReader) {
  auto rw = KXMutexRW::create();
  std::atomic<bool> readerDone{false};
  std::atomic<bool> writerSawReaderDone{false};
  Latch readerInside(1);
  rw->readLock();
  std::thread writer([&] {
    readerInside.wait();
    KXScopedWriteLock guard(rw);
    writerSawReaderDone = readerDone.load();
  });
  readerInside.countDown();
  // Give the writer every chance to get in wrongly: it may only enter after unlock.
  for (int i = 0; i < 100; ++i) std::this_thread::yield();
  readerDone = true;
  rw->unlock();
  writer.join();
  EXPECT_TRUE(writerSawReaderDone.load());
}

TEST(KXConditionTest, SignalWakesAWaiter) {
  auto mutex = KXMutex::create();
  auto condition = KXCondition::create();
  bool ready = false;
  bool woke = false;
  std::thread waiter([&] {
    KXScopedLock guard(mutex);
    while (!ready) condition->wait(mutex);
    woke = true;
  });
  {
    KXScopedLock guard(mutex);
    ready = true;
    condition->signal();
  }
  waiter.join();
  EXPECT_TRUE(woke);
}

TEST(KXConditionTest, BroadcastWakesEveryWaiter) {
  constexpr int kWaiters = 5;
  auto mutex = KXMutex::create();
  auto condition = KXCondition::create();
  bool go = false;
  int waiting = 0;
  int woken = 0;
  auto allWaiting = KXCondition::create();
  std::vector<std::thread> waiters;
  for (int t = 0; t < kWaiters; ++t) {
    waiters.emplace_back([&] {
      KXScopedLock guard(mutex);
      ++waiting;
      allWaiting->signal();
      while (!go) condition->wait(*mutex);
      ++woken;
    });
  }
  {
    KXScopedLock guard(mutex);
    while (waiting < kWaiters) allWaiting->wait(*mutex);
    go = true;
    // One broadcast must reach all of them: nobody signals again.
    condition->broadcast();
  }
  for (auto& waiter : waiters) waiter.join();
  EXPECT_EQ(woken, kWaiters);
}

TEST(KXConditionTest, TimedWaitReportsTimeoutAndSignal) {
  auto mutex = KXMutex::create();
  auto condition = KXCondition::create();
  {
    KXScopedLock guard(mutex);
    EXPECT_FALSE(condition->timedWait(*mutex, 5));
    EXPECT_FALSE(condition->timedWait(*mutex, -1));
  }
  bool inside = false;
  bool signalled = false;
  auto waiterInside = KXCondition::create();
  std::thread waiter([&] {
    KXScopedLock guard(mutex);
    inside = true;
    waiterInside->signal();
    // The mutex is held from `inside` until the wait starts, so the broadcast below
    // reaches this wait.
    signalled = condition->timedWait(*mutex, 20000);
  });
  {
    KXScopedLock guard(mutex);
    while (!inside) waiterInside->wait(*mutex);
    condition->broadcast();
  }
  waiter.join();
  EXPECT_TRUE(signalled);
}

}  // namespace
}  // namespace KX
