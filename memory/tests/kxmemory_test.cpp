// KXMemory: its data, events and subscriptions, the refusals it answers with, the
// notifications (who is called, with what, on which thread, in which order, and what becomes
// of subscribers that are slow, fail, vanish or subscribe again), and addStandardModules.

#include "memory/kxmemory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <future>

#include "memory/kxstandardmodules.h"
#include "memory/tests/memorytestkit.h"
#include "module/kxfunctor.h"

namespace KX {
namespace testing {
namespace {

TEST_F(MemoryTest, EveryTypeIsStoredAsACopyAndReadBackInBothForms) {
  const struct {
    KXValue value;
    const char* type;
  } cases[] = {{KXValue(3), "Int"},          {KXValue(2.5f), "Float"}, {KXValue("text"), "String"},
               {arrayOf(1, "two"), "Array"}, {KXValue(true), "Bool"},  {KXValue(), "Invalid"}};
  for (const auto& c : cases) {  // one name: each set replaces the value and its type
    generic("insertData", arrayOf("k", c.value));
    EXPECT_EQ(proxy_->call<KXValue>("getData", "k"), c.value) << c.type;
    EXPECT_EQ(generic("getData", arrayOf("k")), c.value) << c.type;
    EXPECT_EQ(module_->getType("k"), c.type);
  }
  KXValue list = arrayOf(1, 2);
  proxy_->call<void>("insertData", "list", list);
  list[0] = 99;
  EXPECT_EQ(module_->getData("list"), arrayOf(1, 2));
}

TEST_F(MemoryTest, TheDeprecatedGetDataFormWorksAndSaysSo) {
  LogCapture capture;
  module_->insertData("k", KXValue("v"));
  EXPECT_EQ(generic("getData", arrayOf("k", 0)), KXValue("v"));
  const auto records = capture.withFunction("KX::KXMemory::getData");
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].level, tu::log::warning);
  EXPECT_EQ(records[0].message,
            "getData(name, int) is deprecated. You should use getData(name).\n");
  EXPECT_EQ(errorText([&] { generic("getData", arrayOf("k", "x")); }),  // still checked
            "\tconvertFromKXValue::convertFromKXValue\n\tParameter type is String instead of int");
}

TEST_F(MemoryTest, RefusalsNameTheMethodAndTheCause) {
  module_->insertData("k", KXValue(1));
  module_->subscribeToEvent("ev", "a", "cb");
  module_->subscribeToMicroEvent("micro", "a", "", "cb");
  const std::string no = "Data \"no\" does not exist.";
  const std::string pairs = "Expected an Array of [name, value] pairs";
  const std::string needs = "A subscription to \"ev\" needs a module name and a callback name.";
  const struct {
    std::string method;
    KXValue params;
    std::string text;
  } cases[] = {
      {"getData", arrayOf("no"), no},
      {"getData", arrayOf("no", 1), no},
      {"getType", arrayOf("no"), no},
      {"getTimestamp", arrayOf("no"), no},
      {"getEventHistory", arrayOf("no"), no},
      {"setDescription", arrayOf("no", "d"), no},
      {"getData", arrayOf(), "Expected 1 or 2 arguments but received 0."},
      {"getData", arrayOf("a", 1, 2), "Expected 1 or 2 arguments but received 3."},
      {"declareEvent", arrayOf("a", "b", "c"), "Expected 1 or 2 arguments but received 3."},
      {"insertData", arrayOf("a"), "Expected 2 or 2 arguments but received 1."},
      {"subscribeToEvent", arrayOf("a", "b"), "Expected 3 or 4 arguments but received 2."},
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
      {"unsubscribeToEvent", arrayOf("ev", "z"), "Module \"z\" is not subscribed to event \"ev\"."},
      {"unsubscribeToEvent", arrayOf("no", "a"), "Module \"a\" is not subscribed to event \"no\"."},
      // Event and micro event subscriptions are not ended for one another.
      {"unsubscribeToEvent", arrayOf("micro", "a"),
       "Module \"a\" is not subscribed to event \"micro\"."},
      {"unsubscribeToMicroEvent", arrayOf("ev", "a"),
       "Module \"a\" is not subscribed to micro event \"ev\"."},
      {"subscribeToEvent", arrayOf("ev", "", "cb"), needs},
      {"subscribeToMicroEvent", arrayOf("ev", "m", "msg", ""), needs},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(errorText([&] { generic(c.method, c.params); }), memoryError(c.method, c.text))
        << c.params.toString();
  }
  EXPECT_EQ(module_->getDataListName(), Strings{"k"});
  EXPECT_EQ(module_->getSubscribers("ev"), Strings{"a"});
  EXPECT_EQ(module_->getSubscribers("micro"), Strings{"a"});
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
  module_->removeData("alpha");
  module_->removeData("alpha");  // unknown by now: nothing happens
  EXPECT_EQ(proxy_->call<Strings>("getDataListName"), (Strings{"robot/arm", "robot/leg"}));
  // An empty list describes every name, sorted.
  EXPECT_EQ(module_->getDescriptionList({}),
            arrayOf(arrayOf("robot/arm", "Int", ""), arrayOf("robot/leg", "Float", "Leg angle")));
}

TEST_F(MemoryTest, HistoryKeepsTheLast32StampedValuesOldestFirst) {
  const auto now = [] {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
  };
  long long previous = now();
  for (int i = 0; i < 40; ++i) module_->insertData("h", KXValue(i));
  const long long after = now();
  const KXValue history = module_->getEventHistory("h");
  ASSERT_EQ(history.getSize(), 32);
  for (int i = 0; i < 32; ++i) {
    const int micros = static_cast<int>(history[i][2]);
    const long long stamp = static_cast<int>(history[i][1]) * 1000000LL + micros;
    EXPECT_EQ(history[i][0], KXValue(i + 8));
    EXPECT_TRUE(stamp >= previous && stamp <= after && micros < 1000000) << i;
    previous = stamp;
  }
  EXPECT_EQ(module_->getTimestamp("h"), history[31]);
}

TEST_F(MemoryTest, TheDataPointerIsStableUntilRemoved) {
  module_->insertData("k", KXValue(1));
  // The typed entry a typed proxy of this process finds (generic calls are refused).
  auto info = module_->findMethod("getDataPtr", {"string"}, false);
  auto* typed = dynamic_cast<detail::KXTypedFunctor<void*, std::string>*>(info->functor.get());
  ASSERT_NE(typed, nullptr);
  auto* stored = static_cast<KXValue*>(typed->invoke("k"));
  module_->insertData("k", KXValue("changed"));
  EXPECT_EQ(typed->invoke("k"), stored);
  EXPECT_EQ(*stored, KXValue("changed"));
  module_->removeData("k");
  EXPECT_EQ(errorText([&] { typed->invoke("k"); }),
            memoryError("getDataPtr", "Data \"k\" does not exist."));
}

TEST_F(MemoryTest, EventsAreDeclaredInBothFormsOrRaised) {
  generic("declareEvent", arrayOf("Face", "FaceExtractor"));
  proxy_->call<void>("declareEvent", "Sonar");
  generic("declareEvent", arrayOf("SoundDetected", "SoundExtractor"));
  generic("declareEvent", arrayOf("SoundLocated", "SoundExtractor"));
  generic("declareEvent", arrayOf("Face"));          // keeps the extractor recorded
  EXPECT_EQ(module_->getDataListName(), Strings{});  // declaring stores no value
  module_->raiseEvent("Connected", KXValue("child"));
  module_->raiseMicroEvent("box__out", KXValue(1));
  EXPECT_EQ(module_->getEventList(),
            (Strings{"Connected", "Face", "Sonar", "SoundDetected", "SoundLocated"}));
  EXPECT_EQ(module_->getMicroEventList(), Strings{"box__out"});
  EXPECT_EQ(module_->getDataListName(), (Strings{"Connected", "box__out"}));
  EXPECT_EQ(module_->getExtractorEvent("SoundExtractor"),
            (Strings{"SoundDetected", "SoundLocated"}));
  EXPECT_EQ(module_->getExtractorEvent("FaceExtractor"), Strings{"Face"});
  EXPECT_EQ(module_->getExtractorEvent("Nobody"), Strings{});
}

TEST_F(MemoryTest, SubscriptionsAreOnePerModuleAndEndOneByOneOrAllAtOnce) {
  generic("subscribeToEvent", arrayOf("ev", "b", "cb"));
  generic("subscribeToEvent", arrayOf("ev", "a", "msg", "cb"));
  generic("subscribeToEvent", arrayOf("ev", "a", "msg2", "cb2"));
  proxy_->call<void>("subscribeToEvent", "ev", "c", "m", "cb");
  module_->raiseMicroEvent("box__out", KXValue(1));
  module_->subscribeToMicroEvent("box__out", "a", "", "cb");
  module_->subscribeToMicroEvent("other", "c", "", "cb");
  EXPECT_EQ(module_->getSubscribers("ev"), (Strings{"a", "b", "c"}));
  EXPECT_EQ(module_->getEventList(), Strings{"ev"});
  EXPECT_EQ(module_->getMicroEventList(), (Strings{"box__out", "other"}));
  module_->unsubscribeToEvent("ev", "c");
  module_->unregisterModuleReference("b");
  module_->unregisterModuleReference("nobody");
  EXPECT_EQ(module_->getSubscribers("ev"), Strings{"a"});
  // Removing a micro event removes its value and its subscriptions.
  module_->removeMicroEvent("box__out");
  module_->removeMicroEvent("never");
  EXPECT_EQ(module_->getMicroEventList(), Strings{"other"});
  EXPECT_EQ(module_->getSubscribers("box__out"), Strings{});
  EXPECT_EQ(module_->getDataListName(), Strings{});
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
  auto first = std::async(std::launch::async, wait);
  auto second = std::async(std::launch::async, wait);
  // Lets them reach their wait; one that comes after the exit is refused with the same text.
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  module_->exit();
  const std::string exiting = memoryError(
      "getDataOnChange", "The module is exiting: stopped waiting for data \"k\" to change.");
  for (auto* waiter : {&first, &second}) {
    ASSERT_EQ(waiter->wait_for(kPatience), std::future_status::ready);
    EXPECT_EQ(waiter->get(), exiting);
  }
  EXPECT_EQ(wait(), exiting);
}

// ---------------------------------------------------------------- notifications

TEST_F(MemoryTest, SubscribersAreCalledOffTheCallersThreadWithNameValueAndMessage) {
  auto listener = addListener("listener");
  const struct {
    const char* method;
    KXValue params;
    const char* callback;
    const char* message;
  } cases[] = {
      {"subscribeToEvent", arrayOf("a", "listener", "onChange"), "onChange", ""},
      {"subscribeToEvent", arrayOf("b", "listener", "hello", "onOther"), "onOther", "hello"},
      {"subscribeToMicroEvent", arrayOf("c", "listener", "box", "onChange"), "onChange", "box"},
  };
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    const auto& c = cases[i];
    const std::string name = static_cast<const std::string&>(c.params[0]);
    generic(c.method, c.params);
    module_->insertData(name, arrayOf(name, 1.5f));
    ASSERT_TRUE(listener->waitFor(i + 1));
    const Call got = listener->calls()[i];
    EXPECT_EQ(got.callback + got.name + got.message, c.callback + name + c.message);
    EXPECT_EQ(got.value, arrayOf(name, 1.5f));
    EXPECT_NE(got.thread, std::this_thread::get_id());
  }
}

// Four threads raise while three subscribers are called back: each subscriber sees every
// value once, each raiser's values in its order, and all of them the same interleaving.
TEST_F(MemoryTest, EverySubscriberSeesEveryValueInSetOrderUnderConcurrentRaisers) {
  constexpr int kRaisers = 4;
  constexpr int kEach = 250;
  std::vector<std::shared_ptr<Listener>> listeners;
  for (const char* name : {"l0", "l1", "l2"}) {
    listeners.push_back(addListener(name));
    module_->subscribeToMicroEvent("ev", name, "", "onChange");
  }
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
      const int raiser = static_cast<int>(call.value[0]);
      ASSERT_TRUE(raiser >= 0 && raiser < kRaisers);
      EXPECT_EQ(static_cast<int>(call.value[1]), next[raiser]++);
      order.push_back(call.value);
    }
    EXPECT_EQ(next, std::vector<int>(kRaisers, kEach));
    if (first.empty()) first = order;
    EXPECT_EQ(order, first);
  }
  const KXValue history = module_->getEventHistory("ev");
  for (int i = 0; i < 32; ++i) EXPECT_EQ(history[i][0], first[first.size() - 32 + i]);
}

// While one delivery is held, the other subscriber gets everything, and subscribing again
// replaces message and callback for the queued deliveries, keeping their order.
TEST_F(MemoryTest, ASlowSubscriberDelaysNoOneAndMaySubscribeAgain) {
  auto slow = addListener("slow");
  auto quick = addListener("quick");
  module_->subscribeToEvent("ev", "slow", "first", "onChange");
  module_->subscribeToEvent("ev", "quick", "onChange");
  slow->setGate(true);
  for (int i = 1; i <= 3; ++i) module_->raiseEvent("ev", KXValue(i));
  ASSERT_TRUE(quick->waitFor(3));
  EXPECT_EQ(quick->ints(), (std::vector<int>{1, 2, 3}));
  EXPECT_EQ(slow->ints(), std::vector<int>{1});  // held in its first callback
  module_->subscribeToEvent("ev", "slow", "second", "onOther");
  slow->setGate(false);
  module_->raiseEvent("ev", KXValue(4));
  ASSERT_TRUE(slow->waitFor(4));
  EXPECT_EQ(slow->ints(), (std::vector<int>{1, 2, 3, 4}));
  Strings callbacks;
  for (const Call& call : slow->calls()) callbacks.push_back(call.callback + " " + call.message);
  EXPECT_EQ(callbacks,
            (Strings{"onChange first", "onOther second", "onOther second", "onOther second"}));
}

// Once missed: a delivery to a module that had left went through the broker's stale proxy
// to it, instead of finding it gone and dropping its subscription.
TEST_F(MemoryTest, FailuresAreLoggedAndASubscriberWhoseModuleIsGoneIsDropped) {
  LogCapture capture;
  auto stays = addListener("stays");
  auto leaves = addListener("leaves");
  auto fails = addListener("fails");
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
  const std::string cannot = "Cannot notify module \"";
  EXPECT_EQ(messages, (Strings{cannot + "fails\" (callback \"onFail\") of a change of \"ev\": "
                                        "\tfails::onFail\n\trefused ev\n",
                               cannot + "fails\" (callback \"onFail\") of a change of \"ev\": "
                                        "\tfails::onFail\n\trefused ev\n",
                               cannot + "leaves\" (callback \"onChange\") of a change of \"ev\": "
                                        "\tKXProxy::constructor\n\tModule 'leaves' not found.\n",
                               "Module \"leaves\" no longer exists: its subscription to \"ev\" "
                               "is dropped.\n"}));
  EXPECT_EQ(module_->getSubscribers("ev"), (Strings{"fails", "stays"}));
  ASSERT_TRUE(stays->waitFor(2));
  EXPECT_EQ(stays->ints(), (std::vector<int>{1, 2}));
  EXPECT_EQ(fails->ints(), (std::vector<int>{1, 2}));
}

TEST(MemoryDropTest, QueuedDeliveriesAreDroppedByUnsubscribingRemovingOrExiting) {
  const struct {
    const char* name;
    std::function<void(KXMemory&)> drop;
  } cases[] = {
      {"unsubscribe", [](KXMemory& m) { m.unsubscribeToMicroEvent("box__out", "listener"); }},
      {"unregister", [](KXMemory& m) { m.unregisterModuleReference("listener"); }},
      {"remove", [](KXMemory& m) { m.removeMicroEvent("box__out"); }},
      {"exit", [](KXMemory& m) { m.exit(); }},
  };
  for (const auto& c : cases) {
    auto broker = newBroker();
    auto memory = createModule<KXMemory>(broker, "KXMemory");
    auto listener = createModule<Listener>(broker, "listener");
    memory->subscribeToMicroEvent("box__out", "listener", "", "onChange");
    listener->setGate(true);
    for (int i = 0; i < 5; ++i) memory->raiseMicroEvent("box__out", KXValue(i));
    ASSERT_TRUE(listener->waitFor(1));  // one under way, four queued
    c.drop(*memory);
    listener->setGate(false);
    broker->shutdown();  // joins the pool's workers: whatever was to run has run
    EXPECT_EQ(listener->ints(), std::vector<int>{0}) << c.name;
  }
}

TEST(StandardModulesTest, AddsWhatIsMissingAndKeepsWhatIsThere) {
  auto broker = newBroker();
  auto memory = createModule<KXMemory>(broker, "KXMemory");
  memory->insertData("kept", KXValue("yes"));
  addStandardModules(broker);
  const auto resources = broker->getModuleCore("KXResourceManager");
  EXPECT_NE(std::dynamic_pointer_cast<KXResourceManager>(resources), nullptr);
  addStandardModules(broker);
  EXPECT_EQ(broker->getModuleCore("KXResourceManager"), resources);
  EXPECT_EQ(broker->getModuleCore("KXMemory"), memory);
  EXPECT_EQ(memory->getData("kept"), KXValue("yes"));
  broker->shutdown();
}

}  // namespace
}  // namespace testing
}  // namespace KX
