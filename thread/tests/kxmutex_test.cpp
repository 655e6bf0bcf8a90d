#include "thread/kxmutex.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "thread/kxconditionmanager.h"
#include "thread_test_support.h"
#include "value/tests/value_test_util.h"

namespace KX {
namespace {

using testing::Latch;

void onThreads(int count, const std::function<void(int)>& body) {
  std::vector<std::thread> threads;
  for (int t = 0; t < count; ++t) threads.emplace_back(body, t);
  for (auto& thread : threads) thread.join();
}

TEST(KXMutexTest, LockersRefuseANullLock) {
  const std::pair<std::string, std::function<void()>> kLockers[] = {
      {"KXScopedLock", [] { KXScopedLock guard(nullptr); }},
      {"KXScopedReadLock", [] { KXScopedReadLock guard(nullptr); }},
      {"KXScopedWriteLock", [] { KXScopedWriteLock guard(nullptr); }}};
  for (const auto& [name, lock] : kLockers) {
    EXPECT_EQ(testing_util::errorText(lock).rfind("\t" + name + "::Assert failed\n\t", 0), 0u);
  }
}

TEST(KXMutexTest, MutexExcludesReadersShareWritersExclude) {
  auto rw = KXMutexRW::create();
  Latch allInside(4);
  std::atomic<int> violations{0};
  onThreads(4, [&](int) {
    KXScopedReadLock guard(rw);
    allInside.countDown();
    if (!allInside.wait()) ++violations;  // every reader must be inside at once
  });
  auto mutex = KXMutex::create();
  long first = 0, second = 0, counter = 0;
  onThreads(8, [&](int t) {
    for (int i = 0; i < 2000; ++i) {
      if (t % 2 == 0) {
        KXScopedWriteLock guard(rw);
        ++first;
        std::this_thread::yield();
        ++second;
      } else {
        KXScopedReadLock guard(rw);
        if (first != second) ++violations;
      }
      KXScopedLock guard(mutex);
      ++counter;
    }
  });
  EXPECT_EQ(violations.load(), 0);
  EXPECT_EQ(counter, 8 * 2000);
}

// One broadcast must reach every waiter; a timed wait (the last waiter's) tells a timeout,
// its deadline carried into seconds, from a wake-up.
TEST(KXConditionTest, BroadcastWakesEveryWaiterAndTimedWaitTellsATimeout) {
  auto mutex = KXMutex::create();
  auto condition = KXCondition::create();
  int waiting = 0, woken = 0;
  onThreads(5, [&](int t) {
    for (bool all = false; t == 4 && !all;) {
      KXScopedLock guard(mutex);
      all = waiting == 4;  // under the mutex: then all four are inside their wait
      if (all) condition->broadcast();
    }
    if (t == 4) return;
    KXScopedLock guard(mutex);
    EXPECT_FALSE(t == 3 && (condition->timedWait(*mutex, 999) || condition->timedWait(*mutex, -1)));
    ++waiting;
    woken += t < 3 ? (condition->wait(mutex), 1) : condition->timedWait(*mutex, 20000);
  });
  EXPECT_EQ(woken, 4);
}

// A trigger wakes the threads waiting on its name at that moment: not later ones, not those
// of other names. A wait on a name never added (the empty one never is) returns at once.
TEST(KXConditionManagerTest, TriggerWakesTheCurrentWaitersOfItsNameOnly) {
  KXConditionManager manager;
  for (const char* name : {"remote", "heartBeat", ""}) manager.add(name);
  manager.trigger("heartBeat");  // nobody waits yet: must not be remembered
  Latch remoteWoken(3), beatWoken(1), strayWoken(1);
  std::thread waiters([&] {
    onThreads(5, [&](int t) {
      if (t < 4) {
        manager.wait(t < 3 ? "remote" : "heartBeat");
        (t < 3 ? remoteWoken : beatWoken).countDown();
      } else {
        manager.wait("never-added");
        manager.wait("");
        strayWoken.countDown();
      }
    });
  });
  // A trigger reaches only those already waiting: trigger until they report (bounded).
  auto triggerUntil = [&manager](const char* name, Latch& woken) {
    for (int round = 0; round < 20000; ++round) {
      manager.trigger(name);
      if (woken.wait(std::chrono::milliseconds(1))) return true;
    }
    return false;
  };
  EXPECT_TRUE(strayWoken.wait(std::chrono::seconds(5)));
  EXPECT_TRUE(triggerUntil("remote", remoteWoken));
  EXPECT_FALSE(beatWoken.wait(std::chrono::milliseconds(20)));
  EXPECT_TRUE(triggerUntil("heartBeat", beatWoken));
  triggerUntil("", strayWoken);  // frees a wait that blocked wrongly
  waiters.join();
}

}  // namespace
}  // namespace KX
