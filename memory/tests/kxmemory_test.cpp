// KXMemory's data, events, subscription bookkeeping and descriptions, called the way
// users call them: through a proxy, typed where the signature is fixed, generic for the
// names with two forms.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "log/tests/logtestsupport.h"
#include "memory/kxmemory.h"
#include "memory/tests/kxmemory_test_support.h"
#include "module/kxfunctor.h"
#include "value/kxerror.h"
#include "value/kxvalue.h"
#include "value/tests/value_test_util.h"

namespace KX {
namespace {

using testing::MemoryTest;
using testing_util::arrayOf;
using testing_util::errorText;
using tu::log::testing::LogCapture;
using Strings = std::vector<std::string>;

std::string memoryError(const std::string& method, const std::string& description) {
  return "\tKXMemory::" + method + "\n\t" + description;
}

// ---------------------------------------------------------------- data

TEST_F(MemoryTest, InsertedValuesReadBackThroughEitherForm) {
  proxy_->call<void>("insertData", "count", KXValue(5));
  EXPECT_EQ(proxy_->call<KXValue>("getData", "count"), KXValue(5));
  EXPECT_EQ(generic("getData", arrayOf("count")), KXValue(5));
  proxy_->call<void>("insertData", "count", KXValue(6));
  EXPECT_EQ(proxy_->call<KXValue>("getData", "count"), KXValue(6));
}

TEST_F(MemoryTest, DeprecatedGetDataFormWorksAndSaysSo) {
  LogCapture capture;
  proxy_->call<void>("insertData", "k", KXValue("v"));
  EXPECT_EQ(generic("getData", arrayOf("k", 0)), KXValue("v"));
  EXPECT_EQ(proxy_->call<KXValue>("getData", "k", 3), KXValue("v"));
  const auto records = capture.withFunction("KX::KXMemory::getData");
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].level, tu::log::warning);
  EXPECT_EQ(records[0].message,
            "getData(name, int) is deprecated. You should use getData(name).\n");
  // Its second argument is still checked.
  EXPECT_EQ(errorText([&] { generic("getData", arrayOf("k", "x")); }),
            "\tconvertFromKXValue::convertFromKXValue\n\tParameter type is String instead of int");
}

TEST_F(MemoryTest, UnknownNameIsAnErrorInBothForms) {
  EXPECT_EQ(errorText([&] { proxy_->call<KXValue>("getData", "nope"); }),
            memoryError("getData", "Data \"nope\" does not exist."));
  EXPECT_EQ(errorText([&] { generic("getData", arrayOf("nope")); }),
            memoryError("getData", "Data \"nope\" does not exist."));
  EXPECT_EQ(errorText([&] { generic("getData", arrayOf("nope", 1)); }),
            memoryError("getData", "Data \"nope\" does not exist."));
}

TEST_F(MemoryTest, WrongArgumentCountsOfTwoFormNamesAreRefused) {
  EXPECT_EQ(errorText([&] { generic("getData", arrayOf("a", 1, 2)); }),
            memoryError("getData", "Expected 1 or 2 arguments but received 3."));
  EXPECT_EQ(errorText([&] { generic("getData", arrayOf()); }),
            memoryError("getData", "Expected 1 or 2 arguments but received 0."));
  EXPECT_EQ(errorText([&] { generic("subscribeToEvent", arrayOf("a", "b")); }),
            memoryError("subscribeToEvent", "Expected 3 or 4 arguments but received 2."));
  EXPECT_EQ(errorText([&] { generic("declareEvent", arrayOf("a", "b", "c")); }),
            memoryError("declareEvent", "Expected 1 or 2 arguments but received 3."));
  EXPECT_EQ(errorText([&] { generic("insertData", arrayOf("a")); }),
            memoryError("insertData", "Expected 2 or 2 arguments but received 1."));
}

TEST_F(MemoryTest, InsertDataTakesEveryValueType) {
  generic("insertData", arrayOf("i", 3));
  generic("insertData", arrayOf("f", 2.5f));
  generic("insertData", arrayOf("s", "text"));
  generic("insertData", arrayOf("a", arrayOf(1, "two")));
  generic("insertData", arrayOf("b", true));
  EXPECT_EQ(proxy_->call<KXValue>("getData", "i"), KXValue(3));
  EXPECT_EQ(proxy_->call<KXValue>("getData", "f"), KXValue(2.5f));
  EXPECT_EQ(proxy_->call<KXValue>("getData", "s"), KXValue("text"));
  EXPECT_EQ(proxy_->call<KXValue>("getData", "a"), arrayOf(1, "two"));
  EXPECT_EQ(proxy_->call<std::string>("getType", "i"), "Int");
  EXPECT_EQ(proxy_->call<std::string>("getType", "f"), "Float");
  EXPECT_EQ(proxy_->call<std::string>("getType", "s"), "String");
  EXPECT_EQ(proxy_->call<std::string>("getType", "a"), "Array");
  EXPECT_EQ(proxy_->call<std::string>("getType", "b"), "Bool");
  EXPECT_EQ(errorText([&] { proxy_->call<std::string>("getType", "zz"); }),
            memoryError("getType", "Data \"zz\" does not exist."));
}

TEST_F(MemoryTest, StoredValueIsACopy) {
  KXValue original = arrayOf(1, 2);
  proxy_->call<void>("insertData", "list", original);
  original[0] = 99;
  EXPECT_EQ(proxy_->call<KXValue>("getData", "list"), arrayOf(1, 2));
}

TEST_F(MemoryTest, InsertListDataStoresEveryPair) {
  proxy_->call<void>("insertListData", arrayOf(arrayOf("a", 1), arrayOf("b", "two")));
  EXPECT_EQ(proxy_->call<KXValue>("getListData", arrayOf("a", "b", "missing")),
            arrayOf(1, "two", KXValue()));
  EXPECT_EQ(proxy_->call<KXValue>("getListData", arrayOf()), arrayOf());
}

TEST_F(MemoryTest, InsertListDataRefusesOtherShapesWhole) {
  EXPECT_EQ(
      errorText([&] {
        proxy_->call<void>("insertListData", arrayOf(arrayOf("a", 1), arrayOf("b", 2, 3)));
      }),
      memoryError("insertListData",
                  "Expected an Array of [name, value] pairs, but element 1 is [\"b\", 2, 3]."));
  EXPECT_EQ(errorText([&] { proxy_->call<void>("insertListData", arrayOf(arrayOf(1, 2))); }),
            memoryError("insertListData",
                        "Expected an Array of [name, value] pairs, but element 0 is [1, 2]."));
  EXPECT_EQ(errorText([&] { proxy_->call<void>("insertListData", KXValue("a")); }),
            memoryError("insertListData",
                        "Expected an Array of [name, value] pairs but received a String."));
  // Nothing of a refused list was stored.
  EXPECT_EQ(proxy_->call<Strings>("getDataListName"), Strings{});
}

TEST_F(MemoryTest, GetListDataNeedsAnArray) {
  EXPECT_EQ(errorText([&] { proxy_->call<KXValue>("getListData", KXValue(3)); }),
            memoryError("getListData", "Expected an Array of names but received a Int."));
}

TEST_F(MemoryTest, NamesAreListedSortedAndFiltered) {
  for (const char* name : {"robot/leg", "alpha", "robot/arm", "zeta"}) {
    proxy_->call<void>("insertData", name, KXValue(1));
  }
  EXPECT_EQ(proxy_->call<Strings>("getDataListName"),
            (Strings{"alpha", "robot/arm", "robot/leg", "zeta"}));
  EXPECT_EQ(proxy_->call<Strings>("getDataList", "robot"), (Strings{"robot/arm", "robot/leg"}));
  EXPECT_EQ(proxy_->call<Strings>("getDataList", "a"), (Strings{"alpha", "robot/arm", "zeta"}));
  EXPECT_EQ(proxy_->call<Strings>("getDataList", "none"), Strings{});
  EXPECT_EQ(proxy_->call<Strings>("getDataList", ""),
            (Strings{"alpha", "robot/arm", "robot/leg", "zeta"}));
}

TEST_F(MemoryTest, RemovedDataIsGone) {
  proxy_->call<void>("insertData", "k", KXValue(1));
  proxy_->call<void>("removeData", "k");
  EXPECT_EQ(errorText([&] { proxy_->call<KXValue>("getData", "k"); }),
            memoryError("getData", "Data \"k\" does not exist."));
  EXPECT_EQ(proxy_->call<Strings>("getDataListName"), Strings{});
  EXPECT_NO_THROW(proxy_->call<void>("removeData", "k"));
}

TEST_F(MemoryTest, TimestampCarriesValueAndTimeOfTheLastSet) {
  const auto before = std::chrono::system_clock::now();
  proxy_->call<void>("insertData", "k", KXValue("v"));
  const auto after = std::chrono::system_clock::now();
  const KXValue stamp = proxy_->call<KXValue>("getTimestamp", "k");
  ASSERT_EQ(stamp.getSize(), 3);
  EXPECT_EQ(stamp[0], KXValue("v"));
  const auto toMicros = [](std::chrono::system_clock::time_point t) {
    return std::chrono::duration_cast<std::chrono::microseconds>(t.time_since_epoch()).count();
  };
  const long long stamped =
      static_cast<long long>(static_cast<int>(stamp[1])) * 1000000 + static_cast<int>(stamp[2]);
  EXPECT_GE(stamped, toMicros(before));
  EXPECT_LE(stamped, toMicros(after));
  EXPECT_GE(static_cast<int>(stamp[2]), 0);
  EXPECT_LT(static_cast<int>(stamp[2]), 1000000);
  EXPECT_EQ(errorText([&] { proxy_->call<KXValue>("getTimestamp", "x"); }),
            memoryError("getTimestamp", "Data \"x\" does not exist."));
}

TEST_F(MemoryTest, DescriptionsAreListedWithTypes) {
  proxy_->call<void>("insertData", "speed", KXValue(1.5f));
  proxy_->call<void>("insertData", "name", KXValue("nao"));
  proxy_->call<void>("setDescription", "speed", "Walking speed in m/s");
  EXPECT_EQ(proxy_->call<KXValue>("getDescriptionList", Strings{"speed", "name", "ghost"}),
            arrayOf(arrayOf("speed", "Float", "Walking speed in m/s"),
                    arrayOf("name", "String", ""), arrayOf("ghost", "Invalid", "")));
  // An empty list describes every name, sorted.
  EXPECT_EQ(
      proxy_->call<KXValue>("getDescriptionList", Strings{}),
      arrayOf(arrayOf("name", "String", ""), arrayOf("speed", "Float", "Walking speed in m/s")));
  EXPECT_EQ(errorText([&] { proxy_->call<void>("setDescription", "ghost", "d"); }),
            memoryError("setDescription", "Data \"ghost\" does not exist."));
}

TEST_F(MemoryTest, HistoryKeepsTheLast32ValuesOldestFirst) {
  for (int i = 0; i < 40; ++i) proxy_->call<void>("insertData", "h", KXValue(i));
  const KXValue history = proxy_->call<KXValue>("getEventHistory", "h");
  ASSERT_EQ(history.getSize(), 32);
  long long previous = 0;
  for (int i = 0; i < 32; ++i) {
    ASSERT_EQ(history[i].getSize(), 3);
    EXPECT_EQ(history[i][0], KXValue(i + 8));
    const long long time = static_cast<long long>(static_cast<int>(history[i][1])) * 1000000 +
                           static_cast<int>(history[i][2]);
    EXPECT_GE(time, previous);
    previous = time;
  }
  proxy_->call<void>("insertData", "short", KXValue("x"));
  const KXValue one = proxy_->call<KXValue>("getEventHistory", "short");
  ASSERT_EQ(one.getSize(), 1);
  EXPECT_EQ(one[0][0], KXValue("x"));
  EXPECT_EQ(errorText([&] { proxy_->call<KXValue>("getEventHistory", "none"); }),
            memoryError("getEventHistory", "Data \"none\" does not exist."));
}

// ---------------------------------------------------------------- getDataPtr

TEST_F(MemoryTest, DataPointerIsStableUntilRemovedAndLocalOnly) {
  proxy_->call<void>("insertData", "k", KXValue(1));
  // The typed local entry, as a typed proxy in this process finds it.
  auto info = memory_->findMethod("getDataPtr", {"string"}, false);
  EXPECT_EQ(info->returnValue.type, "void *");
  auto* typed = dynamic_cast<detail::KXTypedFunctor<void*, std::string>*>(info->functor.get());
  ASSERT_NE(typed, nullptr);
  auto* stored = static_cast<KXValue*>(typed->invoke("k"));
  ASSERT_NE(stored, nullptr);
  EXPECT_EQ(*stored, KXValue(1));
  proxy_->call<void>("insertData", "k", KXValue("changed"));
  EXPECT_EQ(typed->invoke("k"), stored);
  EXPECT_EQ(*stored, KXValue("changed"));
  EXPECT_EQ(memory_->getDataPtr("k"), stored);

  EXPECT_EQ(errorText([&] { generic("getDataPtr", arrayOf("k")); }),
            memoryError("getDataPtr", "Cannot be called remotely"));
  EXPECT_EQ(errorText([&] { typed->invoke("none"); }),
            memoryError("getDataPtr", "Data \"none\" does not exist."));
}

// ---------------------------------------------------------------- events

TEST_F(MemoryTest, EventsAreDeclaredInBothFormsAndListed) {
  generic("declareEvent", arrayOf("FaceDetected", "FaceExtractor"));
  generic("declareEvent", arrayOf("Bumper"));
  proxy_->call<void>("declareEvent", "Sonar");  // the typed one-argument form
  generic("declareEvent", arrayOf("SoundDetected", "SoundExtractor"));
  generic("declareEvent", arrayOf("SoundLocated", "SoundExtractor"));
  // Declaring again without an extractor keeps the recorded one.
  generic("declareEvent", arrayOf("FaceDetected"));
  EXPECT_EQ(proxy_->call<Strings>("getEventList"),
            (Strings{"Bumper", "FaceDetected", "Sonar", "SoundDetected", "SoundLocated"}));
  EXPECT_EQ(proxy_->call<Strings>("getExtractorEvent", "SoundExtractor"),
            (Strings{"SoundDetected", "SoundLocated"}));
  EXPECT_EQ(proxy_->call<Strings>("getExtractorEvent", "FaceExtractor"), Strings{"FaceDetected"});
  EXPECT_EQ(proxy_->call<Strings>("getExtractorEvent", "Nobody"), Strings{});
  // Declaring stores no value.
  EXPECT_EQ(proxy_->call<Strings>("getDataListName"), Strings{});
}

TEST_F(MemoryTest, RaisingDeclaresAndStores) {
  proxy_->call<void>("raiseEvent", "ClientConnected", KXValue("child"));
  proxy_->call<void>("raiseMicroEvent", "box__onStopped", KXValue(1));
  EXPECT_EQ(proxy_->call<Strings>("getEventList"), Strings{"ClientConnected"});
  EXPECT_EQ(proxy_->call<Strings>("getMicroEventList"), Strings{"box__onStopped"});
  EXPECT_EQ(proxy_->call<KXValue>("getData", "ClientConnected"), KXValue("child"));
  EXPECT_EQ(proxy_->call<KXValue>("getData", "box__onStopped"), KXValue(1));
  proxy_->call<void>("raiseEvent", "ClientDisconnected", KXValue("child"));
  EXPECT_EQ(proxy_->call<Strings>("getEventList"),
            (Strings{"ClientConnected", "ClientDisconnected"}));
}

TEST_F(MemoryTest, RemovingAMicroEventRemovesValueAndSubscriptions) {
  proxy_->call<void>("raiseMicroEvent", "b__out", KXValue(1));
  proxy_->call<void>("subscribeToMicroEvent", "b__out", "box", "", "_dataChanged");
  proxy_->call<void>("subscribeToMicroEvent", "other", "box", "", "_dataChanged");
  proxy_->call<void>("removeMicroEvent", "b__out");
  EXPECT_EQ(proxy_->call<Strings>("getMicroEventList"), Strings{"other"});
  EXPECT_EQ(proxy_->call<Strings>("getSubscribers", "b__out"), Strings{});
  EXPECT_EQ(proxy_->call<Strings>("getSubscribers", "other"), Strings{"box"});
  EXPECT_EQ(errorText([&] { proxy_->call<KXValue>("getData", "b__out"); }),
            memoryError("getData", "Data \"b__out\" does not exist."));
  EXPECT_NO_THROW(proxy_->call<void>("removeMicroEvent", "never"));
}

// ---------------------------------------------------------------- subscription bookkeeping

TEST_F(MemoryTest, SubscribersAreListedOncePerModule) {
  generic("subscribeToEvent", arrayOf("ev", "b", "cb"));
  generic("subscribeToEvent", arrayOf("ev", "a", "msg", "cb"));
  generic("subscribeToEvent", arrayOf("ev", "a", "msg2", "cb2"));
  proxy_->call<void>("subscribeToEvent", "ev", "c", "m", "cb");  // typed four-argument form
  EXPECT_EQ(proxy_->call<Strings>("getSubscribers", "ev"), (Strings{"a", "b", "c"}));
  EXPECT_EQ(proxy_->call<Strings>("getEventList"), Strings{"ev"});
  EXPECT_EQ(proxy_->call<Strings>("getSubscribers", "nothing"), Strings{});
}

TEST_F(MemoryTest, UnsubscribingRemovesOnlyThatSubscription) {
  generic("subscribeToEvent", arrayOf("ev", "a", "cb"));
  generic("subscribeToEvent", arrayOf("ev", "b", "cb"));
  proxy_->call<void>("subscribeToMicroEvent", "micro", "a", "", "cb");
  proxy_->call<void>("unsubscribeToEvent", "ev", "a");
  EXPECT_EQ(proxy_->call<Strings>("getSubscribers", "ev"), Strings{"b"});
  proxy_->call<void>("unsubscribeToMicroEvent", "micro", "a");
  EXPECT_EQ(proxy_->call<Strings>("getSubscribers", "micro"), Strings{});
}

TEST_F(MemoryTest, UnknownSubscriptionsCannotBeEnded) {
  generic("subscribeToEvent", arrayOf("ev", "a", "cb"));
  proxy_->call<void>("subscribeToMicroEvent", "micro", "a", "", "cb");
  EXPECT_EQ(errorText([&] { proxy_->call<void>("unsubscribeToEvent", "ev", "z"); }),
            memoryError("unsubscribeToEvent", "Module \"z\" is not subscribed to event \"ev\"."));
  EXPECT_EQ(errorText([&] { proxy_->call<void>("unsubscribeToEvent", "none", "a"); }),
            memoryError("unsubscribeToEvent", "Module \"a\" is not subscribed to event \"none\"."));
  // A micro event subscription is not ended as an event one, nor the reverse.
  EXPECT_EQ(
      errorText([&] { proxy_->call<void>("unsubscribeToEvent", "micro", "a"); }),
      memoryError("unsubscribeToEvent", "Module \"a\" is not subscribed to event \"micro\"."));
  EXPECT_EQ(errorText([&] { proxy_->call<void>("unsubscribeToMicroEvent", "ev", "a"); }),
            memoryError("unsubscribeToMicroEvent",
                        "Module \"a\" is not subscribed to micro event \"ev\"."));
  EXPECT_EQ(proxy_->call<Strings>("getSubscribers", "ev"), Strings{"a"});
  EXPECT_EQ(proxy_->call<Strings>("getSubscribers", "micro"), Strings{"a"});
}

TEST_F(MemoryTest, SubscriptionsNeedModuleAndCallback) {
  EXPECT_EQ(errorText([&] { generic("subscribeToEvent", arrayOf("ev", "", "cb")); }),
            memoryError("subscribeToEvent",
                        "A subscription to \"ev\" needs a module name and a callback name."));
  EXPECT_EQ(errorText([&] { proxy_->call<void>("subscribeToMicroEvent", "ev", "m", "msg", ""); }),
            memoryError("subscribeToMicroEvent",
                        "A subscription to \"ev\" needs a module name and a callback name."));
  EXPECT_EQ(proxy_->call<Strings>("getSubscribers", "ev"), Strings{});
}

TEST_F(MemoryTest, UnregisteringAModuleDropsAllItsSubscriptions) {
  generic("subscribeToEvent", arrayOf("e1", "gone", "cb"));
  generic("subscribeToEvent", arrayOf("e1", "stays", "cb"));
  proxy_->call<void>("subscribeToMicroEvent", "m1", "gone", "", "cb");
  proxy_->call<void>("unregisterModuleReference", "gone");
  EXPECT_EQ(proxy_->call<Strings>("getSubscribers", "e1"), Strings{"stays"});
  EXPECT_EQ(proxy_->call<Strings>("getSubscribers", "m1"), Strings{});
  EXPECT_NO_THROW(proxy_->call<void>("unregisterModuleReference", "nobody"));
}

// ---------------------------------------------------------------- getDataOnChange

TEST_F(MemoryTest, GetDataOnChangeReturnsTheNextValue) {
  auto waiting = std::async(std::launch::async,
                            [this] { return proxy_->call<KXValue>("getDataOnChange", "k", 0); });
  // The waiter cannot be seen from outside: keep setting until it has taken one of the
  // values (every one of them is a valid answer).
  bool answered = false;
  for (int i = 0; i < 20000 && !answered; ++i) {
    proxy_->call<void>("insertData", "k", KXValue(i));
    answered = waiting.wait_for(std::chrono::milliseconds(1)) == std::future_status::ready;
  }
  ASSERT_TRUE(answered);
  const KXValue value = waiting.get();
  ASSERT_EQ(value.getType(), KXValue::TypeInt);
  EXPECT_GE(static_cast<int>(value), 0);
}

TEST_F(MemoryTest, GetDataOnChangeTimesOut) {
  proxy_->call<void>("insertData", "k", KXValue(1));
  EXPECT_EQ(
      errorText([&] { proxy_->call<KXValue>("getDataOnChange", "k", 30); }),
      memoryError("getDataOnChange", "Timed out after 30 ms waiting for data \"k\" to change."));
  EXPECT_EQ(errorText([&] { proxy_->call<KXValue>("getDataOnChange", "k", -1); }),
            memoryError("getDataOnChange",
                        "The timeout must be 0 (no limit) or a positive number of "
                        "milliseconds, not -1."));
  // A timed-out waiter is forgotten: later sets still work.
  proxy_->call<void>("insertData", "k", KXValue(2));
  EXPECT_EQ(proxy_->call<KXValue>("getData", "k"), KXValue(2));
}

TEST_F(MemoryTest, ExitEndsEveryWait) {
  const std::string exiting = memoryError(
      "getDataOnChange", "The module is exiting: stopped waiting for data \"k\" to change.");
  // Called on the module itself: a call through the proxy that arrived after the exit
  // would be refused by the module core before it could wait.
  std::vector<std::future<std::string>> waiters;
  for (int i = 0; i < 3; ++i) {
    waiters.push_back(std::async(std::launch::async, [this] {
      return errorText([this] { memory_->getDataOnChange("k", 0); });
    }));
  }
  memory_->exit();
  for (auto& waiter : waiters) {
    ASSERT_EQ(waiter.wait_for(KX::testing::kPatience), std::future_status::ready);
    EXPECT_EQ(waiter.get(), exiting);
  }
  EXPECT_EQ(errorText([&] { memory_->getDataOnChange("k", 10); }), exiting);
  EXPECT_EQ(broker_->getModuleCore("KXMemory"), nullptr);
}

// ---------------------------------------------------------------- descriptions

// Parameter names of every published method, in order.
const std::map<std::string, Strings>& expectedParameters() {
  static const std::map<std::string, Strings> parameters{
      {"declareEvent", {"name", "extractorName"}},
      {"getData", {"name", "deprecatedParameter"}},
      {"getDataList", {"filter"}},
      {"getDataListName", {}},
      {"getDataOnChange", {"name", "timeoutMs"}},
      {"getDataPtr", {"name"}},
      {"getDescriptionList", {"names"}},
      {"getEventHistory", {"name"}},
      {"getEventList", {}},
      {"getExtractorEvent", {"extractorName"}},
      {"getListData", {"names"}},
      {"getMicroEventList", {}},
      {"getSubscribers", {"name"}},
      {"getTimestamp", {"name"}},
      {"getType", {"name"}},
      {"insertData", {"name", "value"}},
      {"insertListData", {"list"}},
      {"raiseEvent", {"name", "value"}},
      {"raiseMicroEvent", {"name", "value"}},
      {"removeData", {"name"}},
      {"removeMicroEvent", {"name"}},
      {"setDescription", {"name", "description"}},
      {"subscribeToEvent", {"name", "module", "message", "callback"}},
      {"subscribeToMicroEvent", {"name", "module", "message", "callback"}},
      {"unregisterModuleReference", {"module"}},
      {"unsubscribeToEvent", {"name", "module"}},
      {"unsubscribeToMicroEvent", {"name", "module"}},
  };
  return parameters;
}

TEST_F(MemoryTest, EveryMethodIsDescribedForUsers) {
  const Strings methods = proxy_->call<Strings>("getMethodList");
  for (const auto& expected : expectedParameters()) {
    SCOPED_TRACE(expected.first);
    EXPECT_EQ(std::count(methods.begin(), methods.end(), expected.first), 1);
    const KXValue help = proxy_->call<KXValue>("getMethodHelp", expected.first);
    ASSERT_EQ(help.getSize(), 5);
    EXPECT_EQ(help[0], KXValue(expected.first));
    EXPECT_GT(help[1].getSize(), 20);
    if (expected.second.empty()) {
      EXPECT_FALSE(help[2].isValid());
      continue;
    }
    ASSERT_EQ(help[2].getSize(), static_cast<int>(2 * expected.second.size()));
    for (std::size_t i = 0; i < expected.second.size(); ++i) {
      EXPECT_EQ(help[2][static_cast<int>(2 * i)], KXValue(expected.second[i]));
      EXPECT_GT(help[2][static_cast<int>(2 * i + 1)].getSize(), 5);
    }
  }
  EXPECT_GT(proxy_->call<KXValue>("getModuleHelp")[0].getSize(), 20);
}

TEST_F(MemoryTest, TwoFormNamesDescribeBothForms) {
  const KXValue getData = proxy_->call<KXValue>("getMethodHelp", "getData");
  EXPECT_NE(static_cast<const std::string&>(getData[1]).find("getData(name, deprecatedParameter)"),
            std::string::npos);
  const KXValue subscribe = proxy_->call<KXValue>("getMethodHelp", "subscribeToEvent");
  const std::string& text = static_cast<const std::string&>(subscribe[1]);
  EXPECT_NE(text.find("subscribeToEvent(name, module, callback)"), std::string::npos);
  EXPECT_NE(text.find("subscribeToEvent(name, module, message, callback)"), std::string::npos);
  const KXMethodInfo info = memory_->getMethodHelpObject("subscribeToEvent");
  EXPECT_TRUE(info.parameters[2].optional);
  EXPECT_FALSE(info.parameters[3].optional);
  EXPECT_TRUE(memory_->getMethodHelpObject("declareEvent").parameters[1].optional);
  EXPECT_TRUE(memory_->getMethodHelpObject("getData").parameters[1].optional);
}

// Every signature a typed proxy of this process looks up is found, by name and types.
TEST_F(MemoryTest, EverySignatureIsFoundByItsTypes) {
  const std::vector<std::pair<std::string, Strings>> signatures{
      {"declareEvent", {"string"}},
      {"declareEvent", {"string", "string"}},
      {"getData", {"string"}},
      {"getData", {"string", "int"}},
      {"getDataList", {"string"}},
      {"getDataListName", {}},
      {"getDataOnChange", {"string", "int"}},
      {"getDataPtr", {"string"}},
      {"getDescriptionList", {"vector<string>"}},
      {"getEventHistory", {"string"}},
      {"getEventList", {}},
      {"getExtractorEvent", {"string"}},
      {"getListData", {"array"}},
      {"getMicroEventList", {}},
      {"getSubscribers", {"string"}},
      {"getTimestamp", {"string"}},
      {"getType", {"string"}},
      {"insertData", {"string", "int"}},
      {"insertData", {"string", "float"}},
      {"insertData", {"string", "string"}},
      {"insertData", {"string", "array"}},
      {"insertListData", {"array"}},
      {"raiseEvent", {"string", "array"}},
      {"raiseMicroEvent", {"string", "array"}},
      {"removeData", {"string"}},
      {"removeMicroEvent", {"string"}},
      {"setDescription", {"string", "string"}},
      {"subscribeToEvent", {"string", "string", "string"}},
      {"subscribeToEvent", {"string", "string", "string", "string"}},
      {"subscribeToMicroEvent", {"string", "string", "string", "string"}},
      {"unregisterModuleReference", {"string"}},
      {"unsubscribeToEvent", {"string", "string"}},
      {"unsubscribeToMicroEvent", {"string", "string"}},
  };
  for (const auto& signature : signatures) {
    SCOPED_TRACE(signatureText(signature.first, signature.second));
    EXPECT_EQ(memory_->findMethod(signature.first, signature.second, true)->methodName,
              signature.first);
  }
}

}  // namespace
}  // namespace KX
