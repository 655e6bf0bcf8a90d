// KXMemory: data, events and subscriptions, the refusals it answers with, notifications
// (who is called, with what, on which thread, in which order, and what becomes of
// subscribers that are slow, fail, vanish or subscribe again), and addStandardModules.

#include "memory/kxmemory.h"

#include <algorithm>
#include <ctime>
#include <functional>
#include <future>

#include "memory/kxstandardmodules.h"
#include "memory/tests/memorytestkit.h"

namespace KX {
namespace testing {
namespace {

TEST_F(MemoryTest, EveryTypeIsStoredAsACopyAndReadBackInEveryForm) {
  const struct {
    KXValue value;
    const char* type;
  } cases[] = {{KXValue(3), "Int"},          {KXValue(2.5f), "Float"}, {KXValue("text"), "String"},
               {arrayOf(1, "two"), "Array"}, {KXValue(true), "Bool"},  {KXValue(), "Invalid"}};
  for (const auto& c : cases) {  // one name: each set replaces the value and its type
    proxy_->genericCall("insertData", arrayOf("k", c.value));
    EXPECT_EQ(proxy_->call<KXValue>("getData", "k"), c.value) << c.type;
    EXPECT_EQ(proxy_->genericCall("getData", arrayOf("k", 0)), c.value)
        << c.type;  // deprecated form
    EXPECT_EQ(module_->getType("k"), c.type);
  }
  KXValue list = arrayOf(1, 2);
  proxy_->call<void>("insertData", "list", list);
  list[0] = 99;
  EXPECT_EQ(module_->getData("list"), arrayOf(1, 2));
}

TEST_F(MemoryTest, RefusalsNameTheMethodAndTheCause) {
  LogCapture capture;
  module_->insertData("k", KXValue(1));
  module_->subscribeToEvent("ev", "a", "cb");
  module_->subscribeToMicroEvent("micro", "a", "", "cb");
  const std::string no = "Data \"no\" does not exist.";
  const std::string pairs = "Expected an Array of [name, value] pairs";
  const std::string needs = "A subscription to \"ev\" needs a module name and a callback name.";
  expectRefusals(
      *module_,
      {
          {"getData", arrayOf("no"), no},
          {"getData", arrayOf("no", 1), no},
          {"setDescription", arrayOf("no", "d"), no},
          {"getData", arrayOf(), "Expected 1 or 2 arguments but received 0."},
          {"declareEvent", arrayOf("a", "b", "c"), "Expected 1 or 2 arguments but received 3."},
          {"insertData", arrayOf("a"), "Expected 2 or 2 arguments but received 1."},
          {"getDataPtr", arrayOf("k"), "Cannot be called remotely"},
          // A list is checked whole: its valid first pair is not stored either.
          {"insertListData", arrayOf(arrayOf(arrayOf("a", 1), arrayOf("b", 2, 3))),
           pairs + ", but element 1 is [\"b\", 2, 3]."},
          {"insertListData", arrayOf(arrayOf(arrayOf(1, 2))), pairs + ", but element 0 is [1, 2]."},
          {"insertListData", arrayOf("a"), pairs + " but received a String."},
          {"getListData", arrayOf(3), "Expected an Array of names but received a Int."},
          {"getDataOnChange", arrayOf("k", -1),
           "The timeout must be 0 (no limit) or a positive number of milliseconds, not -1."},
          {"getDataOnChange", arrayOf("k", 30),
           "Timed out after 30 ms waiting for data \"k\" to change."},
          {"unsubscribeToEvent", arrayOf("ev", "z"),
           "Module \"z\" is not subscribed to event \"ev\"."},
          {"unsubscribeToEvent", arrayOf("no", "a"),
           "Module \"a\" is not subscribed to event \"no\"."},
          // Event and micro event subscriptions are not ended for one another.
          {"unsubscribeToEvent", arrayOf("micro", "a"),
           "Module \"a\" is not subscribed to event \"micro\"."},
          {"unsubscribeToMicroEvent", arrayOf("ev", "a"),
           "Module \"a\" is not subscribed to micro event \"ev\"."},
          {"subscribeToEvent", arrayOf("ev", "", "cb"), needs},
          {"subscribeToMicroEvent", arrayOf("ev", "m", "msg", ""), needs},
      });
  EXPECT_EQ(module_->getDataListName(), Strings{"k"});
  EXPECT_EQ(module_->getSubscribers("ev"), Strings{"a"});
  EXPECT_EQ(module_->getSubscribers("micro"), Strings{"a"});
  EXPECT_EQ(capture.withFunction("KX::KXMemory::getData").at(0).message,
            "getData(name, int) is deprecated. You should use getData(name).\n");
}

TEST_F(MemoryTest, NamesAreListedFilteredDescribedAndRemoved) {
  proxy_->call<void>("insertListData", arrayOf(arrayOf("robot/leg", 1.5f), arrayOf("alpha", "a")));
  module_->insertData("robot/arm", KXValue(1));
  module_->setDescription("robot/leg", "Leg angle");
  // An unknown name, and a name that is no String, read Invalid.
  EXPECT_EQ(proxy_->call<KXValue>("getListData", arrayOf("alpha", "missing", 7, "robot/arm")),
            arrayOf("a", KXValue(), KXValue(), 1));
  EXPECT_EQ(module_->getDataList("robot"), (Strings{"robot/arm", "robot/leg"}));
  EXPECT_EQ(module_->getDataList("none"), Strings{});
  EXPECT_EQ(module_->getDescriptionList({"robot/leg", "ghost"}),
            arrayOf(arrayOf("robot/leg", "Float", "Leg angle"), arrayOf("ghost", "Invalid", "")));
  // The local address of a value stays valid while the name is set again.
  auto* leg = static_cast<KXValue*>(module_->getDataPtr("robot/leg"));
  module_->insertData("robot/leg", KXValue(2.5f));
  EXPECT_EQ(*leg, KXValue(2.5f));
  module_->removeData("alpha");
  module_->removeData("alpha");  // unknown by now: nothing happens
  EXPECT_EQ(proxy_->call<Strings>("getDataListName"), (Strings{"robot/arm", "robot/leg"}));
  // An empty list describes every name, sorted.
  EXPECT_EQ(module_->getDescriptionList({}),
            arrayOf(arrayOf("robot/arm", "Int", ""), arrayOf("robot/leg", "Float", "Leg angle")));
}

TEST_F(MemoryTest, EventsAndSubscriptionsAreDeclaredListedAndEnded) {
  proxy_->genericCall("declareEvent", arrayOf("Face", "FaceExtractor"));
  proxy_->call<void>("declareEvent", "Sonar");
  proxy_->genericCall("declareEvent", arrayOf("Sound", "FaceExtractor"));
  proxy_->genericCall("declareEvent", arrayOf("Face"));  // keeps the extractor recorded
  EXPECT_EQ(module_->getExtractorEvent("FaceExtractor"), (Strings{"Face", "Sound"}));
  EXPECT_EQ(module_->getDataListName(), Strings{});  // declaring stores no value
  // Raising and subscribing declare too; one subscription per module and name.
  module_->raiseEvent("Connected", KXValue("child"));
  module_->raiseMicroEvent("box__out", KXValue(1));
  proxy_->genericCall("subscribeToEvent", arrayOf("ev", "b", "cb"));
  proxy_->genericCall("subscribeToEvent", arrayOf("ev", "a", "msg", "cb"));
  proxy_->call<void>("subscribeToEvent", "ev", "a", "msg2", "cb2");
  module_->subscribeToEvent("ev", "c", "cb");
  module_->subscribeToMicroEvent("box__out", "a", "", "cb");
  module_->subscribeToMicroEvent("other", "c", "", "cb");
  EXPECT_EQ(module_->getEventList(), (Strings{"Connected", "Face", "Sonar", "Sound", "ev"}));
  EXPECT_EQ(module_->getMicroEventList(), (Strings{"box__out", "other"}));
  EXPECT_EQ(module_->getSubscribers("ev"), (Strings{"a", "b", "c"}));
  module_->unsubscribeToEvent("ev", "c");
  module_->unregisterModuleReference("b");
  EXPECT_EQ(module_->getSubscribers("ev"), Strings{"a"});
  // Removing a micro event removes its value and its subscriptions.
  module_->removeMicroEvent("box__out");
  module_->removeMicroEvent("never");
  EXPECT_EQ(module_->getMicroEventList(), Strings{"other"});
  EXPECT_EQ(module_->getSubscribers("box__out"), Strings{});
  EXPECT_EQ(module_->getDataListName(), Strings{"Connected"});
}

TEST_F(MemoryTest, GetDataOnChangeReturnsTheNextValueUntilTheExit) {
  auto next = std::async(std::launch::async,
                         [this] { return proxy_->call<KXValue>("getDataOnChange", "k", 0); });
  // The wait cannot be seen from outside: set until the waiter has taken a value (any of
  // them is a right answer, none was set before it waited).
  bool answered = false;
  for (int i = 0; i < 20000 && !answered; ++i) {
    module_->insertData("k", KXValue(i));
    answered = next.wait_for(std::chrono::milliseconds(1)) == std::future_status::ready;
  }
  ASSERT_TRUE(answered);
  EXPECT_EQ(next.get().getType(), KXValue::TypeInt);
  // On the module itself: the module core refuses calls through a proxy after the exit.
  const auto wait = [this] { return errorText([this] { module_->getDataOnChange("k", 0); }); };
  auto waiting = std::async(std::launch::async, wait);
  // Lets it reach its wait; coming after the exit, it is refused with the same text.
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  module_->exit();
  const std::string exiting =
      errorText("KXMemory", "getDataOnChange",
                "The module is exiting: stopped waiting for data \"k\" to change.");
  ASSERT_EQ(waiting.wait_for(kPatience), std::future_status::ready);
  EXPECT_EQ(waiting.get(), exiting);
  EXPECT_EQ(wait(), exiting);
}

// ---------------------------------------------------------------- notifications

// Four threads raise while three subscribers are called back: each subscriber sees every
// value once, each raiser's in its order, all of them the same interleaving, which the
// history's last 32 stamped values, oldest first, agree with.
TEST_F(MemoryTest, EverySubscriberSeesEveryValueInSetOrderUnderConcurrentRaisers) {
  constexpr int kRaisers = 4, kEach = 250;
  std::vector<std::shared_ptr<Listener>> listeners;
  for (const char* name : {"l0", "l1", "l2"}) {
    listeners.push_back(createModule<Listener>(broker_, name));
    module_->subscribeToMicroEvent("ev", name, "", "onChange");
  }
  const std::time_t start = std::time(nullptr);
  std::vector<std::thread> raisers;
  for (int raiser = 0; raiser < kRaisers; ++raiser) {
    raisers.emplace_back([this, raiser] {
      for (int i = 0; i < kEach; ++i) module_->raiseMicroEvent("ev", arrayOf(raiser, i));
    });
  }
  for (auto& raiser : raisers) raiser.join();
  std::vector<KXValue> first;
  for (const auto& listener : listeners) {
    ASSERT_TRUE(listener->waitFor(kRaisers * kEach));
    std::vector<int> next(kRaisers, 0);
    std::vector<KXValue> order;
    for (const Call& call : listener->calls()) {
      EXPECT_EQ(static_cast<int>(call.value[1]), next.at(static_cast<int>(call.value[0]))++);
      order.push_back(call.value);
    }
    EXPECT_EQ(next, std::vector<int>(kRaisers, kEach));
    if (first.empty()) first = order;
    EXPECT_EQ(order, first);
  }
  const KXValue history = module_->getEventHistory("ev");
  ASSERT_EQ(history.getSize(), 32);
  long long stamp = start * 1000000LL;
  for (int i = 0; i < 32; ++i) {
    EXPECT_EQ(history[i][0], first[first.size() - 32 + i]);
    const int micros = static_cast<int>(history[i][2]);
    const long long previous =
        std::exchange(stamp, history[i][1].operator int() * 1000000LL + micros);
    EXPECT_TRUE(previous <= stamp && stamp < (std::time(nullptr) + 1) * 1000000LL &&
                micros < 1000000)
        << i;
  }
  EXPECT_EQ(module_->getTimestamp("ev"), history[31]);
}

// While one delivery is held, the other subscriber gets everything; subscribing again
// replaces message and callback for the queued deliveries, keeping their order.
TEST_F(MemoryTest, SubscribersAreCalledInTurnOffTheCallersThreadWithNameValueAndMessage) {
  auto slow = createModule<Listener>(broker_, "slow");
  auto quick = createModule<Listener>(broker_, "quick");
  proxy_->genericCall("subscribeToEvent", arrayOf("ev", "slow", "first", "onChange"));
  proxy_->genericCall("subscribeToEvent", arrayOf("ev", "quick", "onChange"));
  slow->setGate(true);
  for (int i = 1; i <= 3; ++i) module_->raiseEvent("ev", KXValue(i));
  ASSERT_TRUE(quick->waitFor(3) && slow->waitFor(1));
  EXPECT_EQ(quick->ints(), (std::vector<int>{1, 2, 3}));
  EXPECT_EQ(slow->ints(), std::vector<int>{1});  // held in its first callback
  module_->subscribeToEvent("ev", "slow", "second", "onOther");
  slow->setGate(false);
  module_->insertData("ev", KXValue(4));
  ASSERT_TRUE(slow->waitFor(4) && quick->waitFor(4));
  EXPECT_EQ(slow->ints(), (std::vector<int>{1, 2, 3, 4}));
  Strings calls;
  for (const auto& listener : {slow, quick}) {
    for (const Call& call : listener->calls()) {
      EXPECT_NE(call.thread, std::this_thread::get_id());
      calls.push_back(call.callback + " " + call.name + " " + call.message);
    }
  }
  EXPECT_EQ(calls, (Strings{"onChange ev first", "onOther ev second", "onOther ev second",
                            "onOther ev second", "onChange ev ", "onChange ev ", "onChange ev ",
                            "onChange ev "}));
}

// Once missed: a delivery to a module that had left went through the broker's stale proxy
// to it, instead of finding it gone and dropping its subscription.
TEST_F(MemoryTest, FailuresAreLoggedAndASubscriberWhoseModuleIsGoneIsDropped) {
  LogCapture capture;
  auto stays = createModule<Listener>(broker_, "stays");
  auto leaves = createModule<Listener>(broker_, "leaves");
  auto fails = createModule<Listener>(broker_, "fails");
  module_->subscribeToEvent("ev", "fails", "onFail");
  module_->subscribeToEvent("ev", "leaves", "onChange");
  module_->subscribeToEvent("ev", "stays", "onChange");
  module_->raiseEvent("ev", KXValue(1));
  ASSERT_TRUE(leaves->waitFor(1));
  leaves->exit();
  leaves.reset();
  module_->raiseEvent("ev", KXValue(2));
  const char* notify = "KX::KXMemory::notify";
  ASSERT_TRUE(eventually([&] { return capture.withFunction(notify).size() == 4; }));
  Strings messages;
  for (const auto& record : capture.withFunction(notify)) {
    EXPECT_EQ(record.level, tu::log::warning);
    EXPECT_EQ(record.category, "core.memory");
    messages.push_back(record.message);
  }
  std::sort(messages.begin(), messages.end());
  const std::string failed =
      "Cannot notify module \"fails\" (callback \"onFail\") of a change "
      "of \"ev\": \tfails::onFail\n\trefused ev\n";
  EXPECT_EQ(messages, (Strings{failed, failed,
                               "Cannot notify module \"leaves\" (callback \"onChange\") of a "
                               "change of \"ev\": \tKXProxy::constructor\n\tModule 'leaves' "
                               "not found.\n",
                               "Module \"leaves\" no longer exists: its subscription to \"ev\" "
                               "is dropped.\n"}));
  EXPECT_EQ(module_->getSubscribers("ev"), (Strings{"fails", "stays"}));
  ASSERT_TRUE(stays->waitFor(2));
  EXPECT_EQ(stays->ints(), (std::vector<int>{1, 2}));
}

TEST(MemoryDropTest, QueuedDeliveriesAreDroppedByUnsubscribingRemovingOrExiting) {
  const std::function<void(KXMemory&)> drops[] = {
      [](KXMemory& m) { m.unsubscribeToMicroEvent("box__out", "listener"); },
      [](KXMemory& m) { m.unregisterModuleReference("listener"); },
      [](KXMemory& m) { m.removeMicroEvent("box__out"); },
      [](KXMemory& m) { m.exit(); },
  };
  for (std::size_t i = 0; i < std::size(drops); ++i) {
    auto broker =
        KXBroker::createBroker("drop", "127.0.0.1", 0, "", 0, KXBroker::kKeepAlive, "", false);
    auto memory = createModule<KXMemory>(broker, "KXMemory");
    auto listener = createModule<Listener>(broker, "listener");
    memory->subscribeToMicroEvent("box__out", "listener", "", "onChange");
    listener->setGate(true);
    for (int value = 0; value < 5; ++value) memory->raiseMicroEvent("box__out", KXValue(value));
    ASSERT_TRUE(listener->waitFor(1));  // one under way, four queued
    drops[i](*memory);
    listener->setGate(false);
    broker->shutdown();  // joins the pool's workers: whatever was to run has run
    EXPECT_EQ(listener->ints(), std::vector<int>{0}) << "drop " << i;
  }
}

TEST_F(MemoryTest, StandardModulesAreAddedWhereMissingAndKeptWhereThere) {
  addStandardModules(broker_);
  const auto resources = broker_->getModuleCore("KXResourceManager");
  EXPECT_NE(std::dynamic_pointer_cast<KXResourceManager>(resources), nullptr);
  addStandardModules(broker_);
  EXPECT_EQ(broker_->getModuleCore("KXResourceManager"), resources);
  EXPECT_EQ(broker_->getModuleCore("KXMemory"), module_);
}

}  // namespace
}  // namespace testing
}  // namespace KX
