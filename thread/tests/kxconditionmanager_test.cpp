#include "thread/kxconditionmanager.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "thread_test_support.h"

namespace KX {
namespace {

using testing::Latch;

// A trigger reaches only threads already waiting, so keep triggering until the waiters
// report that they woke (bounded).
bool triggerUntil(KXConditionManager& manager, const std::string& name, Latch& woken) {
  for (int round = 0; round < 20000; ++round) {
    manager.trigger(name);
    if (woken.wait(std::chrono::milliseconds(1))) return true;
  }
  return false;
}

// Runs `wait` on its own thread: true when it returned within the patience bound.
bool waitReturns(KXConditionManager& manager, const std::string& name) {
  auto returned = std::make_shared<Latch>(1);
  std::thread waiter([&manager, name, returned] {
    manager.wait(name);
    returned->countDown();
  });
  if (returned->wait(std::chrono::seconds(5))) {
    waiter.join();
    return true;
  }
  // Blocked for good: unblock it if the name exists after all, then give up on it.
  manager.trigger(name);
  waiter.detach();
  return false;
}

TEST(KXConditionManagerTest, WaitOnUnknownNameReturnsAtOnce) {
  KXConditionManager manager;
  manager.add("remote");
  EXPECT_TRUE(waitReturns(manager, "never-added"));
  manager.trigger("never-added");
  EXPECT_TRUE(waitReturns(manager, "never-added"));
  EXPECT_TRUE(waitReturns(manager, "Remote"));
}

TEST(KXConditionManagerTest, EmptyNameIsIgnored) {
  KXConditionManager manager;
  manager.add("");
  // Had "" been registered, the wait would block until a trigger.
  EXPECT_TRUE(waitReturns(manager, ""));
}

TEST(KXConditionManagerTest, TriggerWakesAWaiter) {
  KXConditionManager manager;
  manager.add("firstBeat");
  Latch woken(1);
  std::thread waiter([&] {
    manager.wait("firstBeat");
    woken.countDown();
  });
  EXPECT_TRUE(triggerUntil(manager, "firstBeat", woken));
  waiter.join();
}

TEST(KXConditionManagerTest, TriggerWakesOnlyItsOwnName) {
  KXConditionManager manager;
  manager.add("heartBeat");
  manager.add("remote");
  Latch woken(1);
  std::thread waiter([&] {
    manager.wait("heartBeat");
    woken.countDown();
  });
  for (int i = 0; i < 200; ++i) manager.trigger("remote");
  EXPECT_FALSE(woken.wait(std::chrono::milliseconds(20)));
  EXPECT_TRUE(triggerUntil(manager, "heartBeat", woken));
  waiter.join();
}

TEST(KXConditionManagerTest, TriggerWakesEveryWaiter) {
  constexpr int kWaiters = 4;
  KXConditionManager manager;
  manager.add("remote");
  Latch woken(kWaiters);
  std::vector<std::thread> waiters;
  for (int t = 0; t < kWaiters; ++t) {
    waiters.emplace_back([&] {
      manager.wait("remote");
      woken.countDown();
    });
  }
  EXPECT_TRUE(triggerUntil(manager, "remote", woken));
  for (auto& waiter : waiters) waiter.join();
}

}  // namespace
}  // namespace KX
