// KXMemory's notifications: who is called, with what, on which thread, in which order,
// and what happens to subscribers that fail, vanish or subscribe again.

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "log/tests/logtestsupport.h"
#include "memory/kxmemory.h"
#include "memory/tests/kxmemory_test_support.h"
#include "value/kxerror.h"
#include "value/kxvalue.h"
#include "value/tests/value_test_util.h"

namespace KX {
namespace {

using testing::Latch;
using testing::Listener;
using testing::MemoryTest;
using testing::Notification;
using testing_util::arrayOf;
using tu::log::testing::ScopedLogHandler;
using Strings = std::vector<std::string>;

constexpr char kNotify[] = "KX::KXMemory::notify";

// Collects the warnings of the notifier and counts down a latch for each one whose text
// contains `watched`.
class NotifyWarnings {
 public:
  NotifyWarnings(std::string watched, int expected)
      : watched_(std::move(watched)),
        latch_(expected),
        registration_("memory-notify-test",
                      [this](tu::log::LogLevel level, const tu::log::LogTime&, const char* category,
                             const char* message, const char*, const char* function, int) {
                        if (std::string(function) != kNotify) return;
                        std::lock_guard<std::mutex> lock(mutex_);
                        messages_.push_back(message);
                        levels_.push_back(level);
                        categories_.push_back(category);
                        if (messages_.back().find(watched_) != std::string::npos) {
                          latch_.countDown();
                        }
                      }) {}

  bool wait() { return latch_.wait(); }
  Strings messages() {
    std::lock_guard<std::mutex> lock(mutex_);
    return messages_;
  }
  bool allWarningsOfTheMemory() {
    std::lock_guard<std::mutex> lock(mutex_);
    for (std::size_t i = 0; i < levels_.size(); ++i) {
      if (levels_[i] != tu::log::warning || categories_[i] != "core.memory") return false;
    }
    return true;
  }

 private:
  const std::string watched_;
  Latch latch_;
  std::mutex mutex_;
  Strings messages_;
  std::vector<tu::log::LogLevel> levels_;
  Strings categories_;
  ScopedLogHandler registration_;  // last: unregistered before the rest goes away
};

std::vector<int> intsOf(const std::vector<Notification>& received) {
  std::vector<int> values;
  for (const auto& notification : received) values.push_back(static_cast<int>(notification.value));
  return values;
}

TEST_F(MemoryTest, SubscribersAreCalledWithNameValueAndMessage) {
  auto listener = addListener("listener");
  generic("subscribeToEvent", arrayOf("ev", "listener", "onChange"));
  generic("subscribeToEvent", arrayOf("other", "listener", "hello", "onOther"));
  proxy_->call<void>("subscribeToMicroEvent", "micro", "listener", "box", "onChange");
  proxy_->call<void>("raiseEvent", "ev", arrayOf(1, "a"));
  ASSERT_TRUE(listener->waitFor(1));
  proxy_->call<void>("insertData", "other", KXValue(2.5f));
  ASSERT_TRUE(listener->waitFor(2));
  proxy_->call<void>("raiseMicroEvent", "micro", KXValue("go"));
  ASSERT_TRUE(listener->waitFor(3));
  const auto received = listener->received();
  ASSERT_EQ(received.size(), 3u);
  // The typed three-argument form: (name, module, callback), an empty message.
  proxy_->call<void>("subscribeToEvent", "typed", "listener", "onOther");
  proxy_->call<void>("raiseEvent", "typed", KXValue(7));
  ASSERT_TRUE(listener->waitFor(4));
  const Notification typed = listener->received()[3];
  EXPECT_EQ(typed.callback, "onOther");
  EXPECT_EQ(typed.name, "typed");
  EXPECT_EQ(typed.value, KXValue(7));
  EXPECT_EQ(typed.message, "");
  EXPECT_EQ(received[0].callback, "onChange");
  EXPECT_EQ(received[0].name, "ev");
  EXPECT_EQ(received[0].value, arrayOf(1, "a"));
  EXPECT_EQ(received[0].message, "");
  EXPECT_EQ(received[1].callback, "onOther");
  EXPECT_EQ(received[1].name, "other");
  EXPECT_EQ(received[1].value, KXValue(2.5f));
  EXPECT_EQ(received[1].message, "hello");
  EXPECT_EQ(received[2].name, "micro");
  EXPECT_EQ(received[2].value, KXValue("go"));
  EXPECT_EQ(received[2].message, "box");
}

TEST_F(MemoryTest, DeliveriesNeverRunOnTheCallersThread) {
  auto listener = addListener("listener");
  generic("subscribeToEvent", arrayOf("ev", "listener", "onChange"));
  for (int i = 0; i < 20; ++i) proxy_->call<void>("raiseEvent", "ev", KXValue(i));
  memory_->insertData("ev", KXValue(20));  // a direct call as well
  ASSERT_TRUE(listener->waitFor(21));
  for (const auto& notification : listener->received()) {
    EXPECT_NE(notification.thread, std::this_thread::get_id());
  }
}

TEST_F(MemoryTest, InsertListDataNotifiesEachPairInOrder) {
  auto listener = addListener("listener");
  generic("subscribeToEvent", arrayOf("a", "listener", "onChange"));
  proxy_->call<void>("insertListData",
                     arrayOf(arrayOf("a", 1), arrayOf("b", 9), arrayOf("a", 2), arrayOf("a", 3)));
  ASSERT_TRUE(listener->waitFor(3));
  EXPECT_EQ(intsOf(listener->received()), (std::vector<int>{1, 2, 3}));
}

TEST_F(MemoryTest, EachSubscriberSeesEveryValueInSetOrderUnderConcurrentRaisers) {
  constexpr int kRaisers = 4;
  constexpr int kPerRaiser = 250;
  constexpr std::size_t kTotal = kRaisers * kPerRaiser;
  std::vector<std::shared_ptr<Listener>> listeners;
  for (const char* name : {"l0", "l1", "l2"}) {
    listeners.push_back(addListener(name));
    proxy_->call<void>("subscribeToMicroEvent", "ev", name, "", "onChange");
  }
  std::vector<std::thread> raisers;
  for (int raiser = 0; raiser < kRaisers; ++raiser) {
    raisers.emplace_back([this, raiser] {
      KXProxy proxy(broker_, "KXMemory");
      for (int i = 0; i < kPerRaiser; ++i) {
        proxy.call<void>("raiseMicroEvent", "ev", arrayOf(raiser, i));
      }
    });
  }
  for (auto& raiser : raisers) raiser.join();

  std::vector<KXValue> firstOrder;
  for (const auto& listener : listeners) {
    ASSERT_TRUE(listener->waitFor(kTotal));
    const auto received = listener->received();
    ASSERT_EQ(received.size(), kTotal);
    std::vector<int> next(kRaisers, 0);
    std::vector<KXValue> order;
    for (const auto& notification : received) {
      const int raiser = static_cast<int>(notification.value[0]);
      ASSERT_GE(raiser, 0);
      ASSERT_LT(raiser, kRaisers);
      // Each raiser's values arrive in the order it set them, none missing or repeated.
      EXPECT_EQ(static_cast<int>(notification.value[1]), next[raiser]++);
      order.push_back(notification.value);
    }
    for (int raiser = 0; raiser < kRaisers; ++raiser) EXPECT_EQ(next[raiser], kPerRaiser);
    // And every subscriber sees the same interleaving: the order in which they were set.
    if (firstOrder.empty()) {
      firstOrder = order;
    } else {
      EXPECT_EQ(order, firstOrder);
    }
  }
  // The history agrees with that order on its last values.
  const KXValue history = proxy_->call<KXValue>("getEventHistory", "ev");
  ASSERT_EQ(history.getSize(), 32);
  for (int i = 0; i < 32; ++i) EXPECT_EQ(history[i][0], firstOrder[kTotal - 32 + i]);
}

TEST_F(MemoryTest, ASlowSubscriberDelaysNoOneElse) {
  auto slow = addListener("slow");
  auto quick = addListener("quick");
  generic("subscribeToEvent", arrayOf("ev", "slow", "onChange"));
  generic("subscribeToEvent", arrayOf("ev", "quick", "onChange"));
  slow->closeGate();
  for (int i = 0; i < 5; ++i) proxy_->call<void>("raiseEvent", "ev", KXValue(i));
  ASSERT_TRUE(quick->waitFor(5));
  EXPECT_EQ(intsOf(quick->received()), (std::vector<int>{0, 1, 2, 3, 4}));
  ASSERT_TRUE(slow->waitFor(1));
  EXPECT_EQ(slow->received().size(), 1u);  // still held in its first callback
  slow->openGate();
  ASSERT_TRUE(slow->waitFor(5));
  EXPECT_EQ(intsOf(slow->received()), (std::vector<int>{0, 1, 2, 3, 4}));
}

TEST_F(MemoryTest, AFailingSubscriberIsLoggedAndHurtsNoOne) {
  NotifyWarnings warnings("Cannot notify module \"bad\"", 3);
  auto bad = addListener("bad");
  auto good = addListener("good");
  generic("subscribeToEvent", arrayOf("ev", "bad", "onFail"));
  generic("subscribeToEvent", arrayOf("ev", "good", "onChange"));
  for (int i = 0; i < 3; ++i) proxy_->call<void>("raiseEvent", "ev", KXValue(i));
  ASSERT_TRUE(good->waitFor(3));
  EXPECT_EQ(intsOf(good->received()), (std::vector<int>{0, 1, 2}));
  ASSERT_TRUE(warnings.wait());
  EXPECT_EQ(intsOf(bad->received()), (std::vector<int>{0, 1, 2}));
  const Strings messages = warnings.messages();
  ASSERT_EQ(messages.size(), 3u);
  EXPECT_EQ(messages[0],
            "Cannot notify module \"bad\" (callback \"onFail\") of a change of \"ev\": "
            "\tbad::onFail\n\trefused ev\n");
  EXPECT_TRUE(warnings.allWarningsOfTheMemory());
  // Its module still exists: it stays subscribed.
  EXPECT_EQ(proxy_->call<Strings>("getSubscribers", "ev"), (Strings{"bad", "good"}));
}

TEST_F(MemoryTest, ASubscriberWhoseModuleIsGoneIsDropped) {
  NotifyWarnings warnings("no longer exists", 1);
  auto stays = addListener("stays");
  auto leaves = addListener("leaves");
  generic("subscribeToEvent", arrayOf("ev", "leaves", "onChange"));
  generic("subscribeToEvent", arrayOf("ev", "stays", "onChange"));
  proxy_->call<void>("raiseEvent", "ev", KXValue(1));
  ASSERT_TRUE(leaves->waitFor(1));
  leaves->exit();  // the broker forgets its proxy to it
  leaves.reset();
  proxy_->call<void>("raiseEvent", "ev", KXValue(2));
  ASSERT_TRUE(warnings.wait());
  const Strings messages = warnings.messages();
  ASSERT_EQ(messages.size(), 2u);
  EXPECT_EQ(messages[0],
            "Cannot notify module \"leaves\" (callback \"onChange\") of a change of \"ev\": "
            "\tKXProxy::constructor\n\tModule 'leaves' not found.\n");
  EXPECT_EQ(messages[1],
            "Module \"leaves\" no longer exists: its subscription to \"ev\" is dropped.\n");
  EXPECT_EQ(proxy_->call<Strings>("getSubscribers", "ev"), Strings{"stays"});
  ASSERT_TRUE(stays->waitFor(2));
  EXPECT_EQ(intsOf(stays->received()), (std::vector<int>{1, 2}));
}

TEST_F(MemoryTest, ASubscriberThatNeverExistedIsDropped) {
  NotifyWarnings warnings("no longer exists", 1);
  proxy_->call<void>("subscribeToMicroEvent", "ev", "ghost", "", "onChange");
  proxy_->call<void>("raiseMicroEvent", "ev", KXValue(1));
  ASSERT_TRUE(warnings.wait());
  const Strings messages = warnings.messages();
  ASSERT_EQ(messages.size(), 2u);
  EXPECT_EQ(messages[0],
            "Cannot notify module \"ghost\" (callback \"onChange\") of a change of \"ev\": "
            "\tKXProxy::constructor\n\tModule 'ghost' not found.\n");
  EXPECT_EQ(proxy_->call<Strings>("getSubscribers", "ev"), Strings{});
}

TEST_F(MemoryTest, SubscribingAgainReplacesMessageAndCallbackKeepingTheQueue) {
  auto listener = addListener("listener");
  generic("subscribeToEvent", arrayOf("ev", "listener", "first", "onChange"));
  listener->closeGate();
  proxy_->call<void>("raiseEvent", "ev", KXValue(1));
  ASSERT_TRUE(listener->waitFor(1));  // held in the first delivery
  proxy_->call<void>("raiseEvent", "ev", KXValue(2));
  proxy_->call<void>("raiseEvent", "ev", KXValue(3));
  generic("subscribeToEvent", arrayOf("ev", "listener", "second", "onOther"));
  EXPECT_EQ(proxy_->call<Strings>("getSubscribers", "ev"), Strings{"listener"});
  listener->openGate();
  ASSERT_TRUE(listener->waitFor(3));
  proxy_->call<void>("raiseEvent", "ev", KXValue(4));
  ASSERT_TRUE(listener->waitFor(4));
  const auto received = listener->received();
  ASSERT_EQ(received.size(), 4u);
  EXPECT_EQ(intsOf(received), (std::vector<int>{1, 2, 3, 4}));
  EXPECT_EQ(received[0].callback, "onChange");
  EXPECT_EQ(received[0].message, "first");
  for (std::size_t i = 1; i < received.size(); ++i) {
    EXPECT_EQ(received[i].callback, "onOther");
    EXPECT_EQ(received[i].message, "second");
  }
}

TEST_F(MemoryTest, UnsubscribedModulesAreNotCalled) {
  auto listener = addListener("listener");
  auto witness = addListener("witness");
  generic("subscribeToEvent", arrayOf("ev", "listener", "onChange"));
  generic("subscribeToEvent", arrayOf("ev", "witness", "onChange"));
  proxy_->call<void>("unsubscribeToEvent", "ev", "listener");
  proxy_->call<void>("raiseEvent", "ev", KXValue(1));
  ASSERT_TRUE(witness->waitFor(1));
  // A delivery to the listener would have been queued on the pool before the witness's
  // (subscribers are served in name order); joining the workers settles it.
  broker_->shutdown();
  EXPECT_TRUE(listener->received().empty());
}

TEST_F(MemoryTest, ExitDropsQueuedDeliveries) {
  auto listener = addListener("listener");
  generic("subscribeToEvent", arrayOf("ev", "listener", "onChange"));
  listener->closeGate();
  for (int i = 0; i < 10; ++i) proxy_->call<void>("raiseEvent", "ev", KXValue(i));
  ASSERT_TRUE(listener->waitFor(1));  // the first delivery is under way, nine are queued
  proxy_->call<void>("exit");
  EXPECT_EQ(broker_->getModuleCore("KXMemory"), nullptr);
  listener->openGate();
  // Shutting the broker down joins its workers: whatever was going to run has run.
  broker_->shutdown();
  EXPECT_EQ(intsOf(listener->received()), std::vector<int>{0});
}

TEST_F(MemoryTest, RemovingAMicroEventDropsItsQueuedDeliveries) {
  auto listener = addListener("listener");
  proxy_->call<void>("subscribeToMicroEvent", "box__out", "listener", "", "onChange");
  listener->closeGate();
  for (int i = 0; i < 5; ++i) proxy_->call<void>("raiseMicroEvent", "box__out", KXValue(i));
  ASSERT_TRUE(listener->waitFor(1));
  proxy_->call<void>("removeMicroEvent", "box__out");
  listener->openGate();
  broker_->shutdown();
  EXPECT_EQ(intsOf(listener->received()), std::vector<int>{0});
}

}  // namespace
}  // namespace KX
