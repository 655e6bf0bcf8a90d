// The calling machinery of the typed proxies, on a module of this process whose one
// published entry answers two forms.
#include "proxies/detail/kxtypedmodulecall.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>

#include "proxies/tests/proxies_test_support.h"

namespace KX {
namespace testing {
namespace {

using detail::KXProxySignature;
using detail::KXTypedModuleCall;

// "count" is published as count(string, string) with the second parameter optional; its
// typed face is the one-argument form. The typed face answers -1, the generic call the
// number of arguments.
class CountingFunctor final : public detail::KXTypedFunctor<int, std::string> {
 public:
  void call(const KXValue& params, KXValue& result) override {
    ++genericCalls;
    result = KXValue(params.getSize());
  }
  int invoke(const std::string&) override {
    ++typedCalls;
    return -1;
  }
  std::atomic<int> typedCalls{0};
  std::atomic<int> genericCalls{0};
};

// `generic`: its methods are no C++ functors, as far as callers know.
class Shelf : public KXModule {
 public:
  Shelf(const std::shared_ptr<KXBroker>& broker, const std::string& name, bool generic)
      : KXModule(broker, name), counter(std::make_shared<CountingFunctor>()) {
    functionName("count", "Shelf", "Counts its arguments");
    addParam("first", "any text");
    addParam("second", "any text", true);
    setReturn("count", "how many");
    bindMethod(counter, {"string", "string"}, "int");
    setRequiresGenericDispatch(generic);
  }
  int calls() const { return counter->typedCalls + counter->genericCalls; }
  const std::shared_ptr<CountingFunctor> counter;
};

constexpr KXProxySignature<int, std::string> kCountOne{"count", 0};
constexpr KXProxySignature<int, std::string, std::string> kCountTwo{"count", 1};
constexpr KXProxySignature<int, int> kCountInt{"count", 2};
constexpr KXProxySignature<void> kLate{"late", 3};

std::string noFunction(const std::string& name) {
  return kxError("KXProxy", "getMethodInfo",
                 "Function " + name + " does not exist in module Shelf");
}

class TypedModuleCallTest : public ::testing::Test {
 protected:
  void TearDown() override { broker_->shutdown(); }
  std::shared_ptr<const KXTypedModuleCall> table() const {
    return KXTypedModuleCall::create<kCountOne, kCountTwo, kCountInt, kLate>(proxy_, "Keeper");
  }

  // Without network: nothing here leaves the process.
  const std::shared_ptr<KXBroker> broker_ = KXBroker::createBroker(
      uniqueBrokerName("typedCall"), "127.0.0.1", 0, "", 0, KXBroker::kKeepAlive, "", false);
  std::shared_ptr<Shelf> shelf_ = createModule<Shelf>(broker_, "Shelf", false);
  const std::shared_ptr<KXProxy> proxy_ = std::make_shared<KXProxy>(broker_, "Shelf");
};

TEST_F(TypedModuleCallTest, TheMatchingTypedFaceIsCalledDirectlyAnotherFormGenerically) {
  EXPECT_EQ(table()->call(kCountOne, "a"), -1);
  EXPECT_EQ(table()->call(kCountTwo, "a", "b"), 2);
  EXPECT_EQ(shelf_->counter->typedCalls, 1);
  EXPECT_EQ(shelf_->counter->genericCalls, 1);
}

TEST_F(TypedModuleCallTest, AModuleRequiringGenericDispatchIsCalledGenerically) {
  const auto generic = createModule<Shelf>(broker_, "GenericShelf", true);
  const auto proxy = std::make_shared<KXProxy>(broker_, "GenericShelf");
  EXPECT_EQ(KXTypedModuleCall::create<kCountOne>(proxy, "Keeper")->call(kCountOne, "a"), 1);
  EXPECT_EQ(generic->counter->typedCalls, 0);
}

// The table is looked up once: a method bound later is missing from an older table.
TEST_F(TypedModuleCallTest, ASignatureMissingFromTheTableFailsAsTheGenericProxysLookup) {
  const auto before = table();
  std::atomic<int> lateCalls{0};
  shelf_->functionName("late", "Shelf", "Bound after the table was made");
  bindFunction<void>(*shelf_, [&] { ++lateCalls; });
  EXPECT_EQ(errorText([&] { before->call(kCountInt, 1); }), noFunction("count"));
  EXPECT_EQ(errorText([&] { before->call(kLate); }), noFunction("late"));
  EXPECT_EQ(errorText([&] { before->post(kLate); }), noFunction("late"));
  EXPECT_EQ(shelf_->calls() + lateCalls, 0);
  table()->call(kLate);
  EXPECT_EQ(lateCalls, 1);
}

TEST_F(TypedModuleCallTest, AnInvalidModuleIsReportedBeforeAnythingElse) {
  const auto calls = table();
  const auto invalid = [](const char* method) {
    return kxError("Keeper", method, "The underlying module is invalid.");
  };
  shelf_->exit();  // exiting, still alive
  EXPECT_EQ(errorText([&] { calls->call(kCountOne, "a"); }), invalid("count"));
  EXPECT_EQ(errorText([&] { calls->call(kLate); }), invalid("late"));
  EXPECT_EQ(errorText([&] { calls->post(kCountTwo, "a", "b"); }), invalid("count"));
  EXPECT_EQ(shelf_->calls(), 0);
  shelf_.reset();  // gone
  EXPECT_EQ(errorText([&] { calls->call(kCountTwo, "a", "b"); }), invalid("count"));
}

TEST_F(TypedModuleCallTest, PostsOfEitherFormRunAndAreWaitedFor) {
  const int one = table()->post(kCountOne, "a");
  const int two = table()->post(kCountTwo, "a", "b");
  EXPECT_NE(one, two);
  EXPECT_FALSE(proxy_->wait(one, 5000));
  EXPECT_FALSE(proxy_->wait(two, 5000));
  EXPECT_EQ(shelf_->calls(), 2);
}

}  // namespace
}  // namespace testing
}  // namespace KX
