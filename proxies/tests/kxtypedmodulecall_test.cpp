// The calling machinery of the typed proxies, on a module of this process whose one
// published entry answers two forms.
#include "proxies/detail/kxtypedmodulecall.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "broker/kxbroker.h"
#include "module/kxlambdafunctor.h"
#include "module/kxmodulecore.h"
#include "module/kxproxy.h"
#include "proxies/tests/proxies_test_support.h"

namespace KX {
namespace testing {
namespace {

using detail::KXProxySignature;
using detail::KXTypedModuleCall;

// "count" is published as count(string, string) with the second parameter optional; its
// typed face is the one-argument form. It tells the faces apart: the typed one answers
// -1, the generic one the number of arguments.
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

class Shelf : public KXModule {
 public:
  Shelf(const std::shared_ptr<KXBroker>& broker, const std::string& name)
      : KXModule(broker, name), counter(std::make_shared<CountingFunctor>()) {
    functionName("count", "Shelf", "Counts its arguments");
    addParam("first", "any text");
    addParam("second", "any text", true);
    setReturn("count", "how many");
    bindMethod(counter, {"string", "string"}, "int");
  }

  const std::shared_ptr<CountingFunctor> counter;
};

// A module whose methods are no C++ functors, as far as callers know.
class GenericShelf : public Shelf {
 public:
  GenericShelf(const std::shared_ptr<KXBroker>& broker, const std::string& name)
      : Shelf(broker, name) {
    setRequiresGenericDispatch(true);
  }
};

constexpr KXProxySignature<int, std::string> kCountOne{"count", 0};
constexpr KXProxySignature<int, std::string, std::string> kCountTwo{"count", 1};
constexpr KXProxySignature<int, int> kCountInt{"count", 2};
constexpr KXProxySignature<void> kLate{"late", 3};

class TypedModuleCallTest : public ::testing::Test {
 protected:
  void SetUp() override {
    broker_ = KXBroker::createBroker(uniqueBrokerName("typedCall"), "127.0.0.1", 0, "", 0,
                                     KXBroker::kKeepAlive, "", false);
    ASSERT_NE(broker_, nullptr);
  }
  void TearDown() override { broker_->shutdown(); }

  template <typename T>
  std::shared_ptr<T> addShelf() {
    auto shelf = createModule<T>(broker_, "Shelf");
    proxy_ = std::make_shared<KXProxy>(broker_, "Shelf");
    return shelf;
  }
  std::shared_ptr<const KXTypedModuleCall> calls() const {
    return KXTypedModuleCall::create<kCountOne, kCountTwo, kCountInt, kLate>(proxy_, "Keeper");
  }

  std::shared_ptr<KXBroker> broker_;
  std::shared_ptr<KXProxy> proxy_;
};

TEST_F(TypedModuleCallTest, TheMatchingTypedFaceIsCalledDirectly) {
  const auto shelf = addShelf<Shelf>();
  EXPECT_EQ(calls()->call(kCountOne, "a"), -1);
  EXPECT_EQ(shelf->counter->typedCalls.load(), 1);
  EXPECT_EQ(shelf->counter->genericCalls.load(), 0);
}

TEST_F(TypedModuleCallTest, AnotherFormOfTheSameEntryGoesThroughTheGenericCall) {
  const auto shelf = addShelf<Shelf>();
  EXPECT_EQ(calls()->call(kCountTwo, "a", "b"), 2);
  EXPECT_EQ(shelf->counter->typedCalls.load(), 0);
  EXPECT_EQ(shelf->counter->genericCalls.load(), 1);
}

TEST_F(TypedModuleCallTest, AModuleWithoutCppFunctorsIsCalledGenerically) {
  const auto shelf = addShelf<GenericShelf>();
  EXPECT_EQ(calls()->call(kCountOne, "a"), 1);
  EXPECT_EQ(shelf->counter->typedCalls.load(), 0);
}

TEST_F(TypedModuleCallTest, AnUnpublishedSignatureFailsAsTheGenericProxysLookup) {
  const auto shelf = addShelf<Shelf>();
  const auto table = calls();
  struct Case {
    const char* what;
    std::function<void()> call;
    std::string error;
  };
  const std::vector<Case> cases = {
      {"other parameter types", [&] { table->call(kCountInt, 1); },
       kxError("KXProxy", "getMethodInfo", "Function count does not exist in module Shelf")},
      {"unknown name", [&] { table->call(kLate); },
       kxError("KXProxy", "getMethodInfo", "Function late does not exist in module Shelf")},
      {"parallel call", [&] { table->post(kLate); },
       kxError("KXProxy", "getMethodInfo", "Function late does not exist in module Shelf")},
  };
  for (const auto& c : cases) EXPECT_EQ(errorText(c.call), c.error) << c.what;
  EXPECT_EQ(shelf->counter->genericCalls.load() + shelf->counter->typedCalls.load(), 0);
}

TEST_F(TypedModuleCallTest, TheTableIsLookedUpOnceAtConstruction) {
  const auto shelf = addShelf<Shelf>();
  const auto before = calls();
  std::atomic<int> lateCalls{0};
  shelf->functionName("late", "Shelf", "Bound after the proxy looked");
  bindFunction<void>(*shelf, [&] { ++lateCalls; });

  EXPECT_EQ(errorText([&] { before->call(kLate); }),
            kxError("KXProxy", "getMethodInfo", "Function late does not exist in module Shelf"));
  calls()->call(kLate);
  EXPECT_EQ(lateCalls.load(), 1);
}

TEST_F(TypedModuleCallTest, AModuleThatLeftIsInvalidBeforeAnythingElse) {
  auto shelf = addShelf<Shelf>();
  const auto table = calls();
  shelf->exit();
  // Exiting, still alive.
  EXPECT_EQ(errorText([&] { table->call(kCountOne, "a"); }), invalidModule("Keeper", "count"));
  EXPECT_EQ(errorText([&] { table->call(kLate); }), invalidModule("Keeper", "late"));
  EXPECT_EQ(errorText([&] { table->post(kCountTwo, "a", "b"); }), invalidModule("Keeper", "count"));
  EXPECT_EQ(shelf->counter->genericCalls.load() + shelf->counter->typedCalls.load(), 0);
  // Gone.
  shelf.reset();
  EXPECT_EQ(errorText([&] { table->call(kCountTwo, "a", "b"); }), invalidModule("Keeper", "count"));
}

TEST_F(TypedModuleCallTest, ParallelCallsOfEitherFormRunAndAreWaitedFor) {
  const auto shelf = addShelf<Shelf>();
  const auto table = calls();
  const int one = table->post(kCountOne, "a");
  const int two = table->post(kCountTwo, "a", "b");
  EXPECT_NE(one, two);
  EXPECT_FALSE(proxy_->wait(one, 0));
  EXPECT_FALSE(proxy_->wait(two, 0));
  EXPECT_EQ(shelf->counter->genericCalls.load(), 2);
}

}  // namespace
}  // namespace testing
}  // namespace KX
