#include "proxies/kxmemoryproxy.h"
#include "proxies/kxresourcemanagerproxy.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "broker/kxbrokermanager.h"
#include "memory/kxstandardmodules.h"
#include "module/tests/proxy_test_support.h"
#include "proxies/detail/kxtypedmodulecall.h"

namespace KX {
namespace testing {
namespace {

using detail::KXProxySignature;
using detail::KXTypedModuleCall;

// "two" answers the first form through its typed face, the second only generically; the
// third is not published, "late" is bound after the table was made.
constexpr KXProxySignature<std::string, std::string> kOne{"two", 0};
constexpr KXProxySignature<std::string, std::string, int> kTwo{"two", 1};
constexpr KXProxySignature<std::string, int> kWrong{"two", 2};
constexpr KXProxySignature<void> kLate{"late", 3};

class TypedModuleCallTest : public CalcTest {
 protected:
  void SetUp() override {
    CalcTest::SetUp();
    functor_ = TwoFormFunctor::bind(*module_, "two");
    calls_ = KXTypedModuleCall::create<kOne, kTwo, kWrong, kLate>(proxy_, "Keeper");
  }
  std::shared_ptr<TwoFormFunctor> functor_;
  std::shared_ptr<const KXTypedModuleCall> calls_;
};

TEST_F(TypedModuleCallTest, TheTypedFaceIsCalledDirectlyOtherFormsGenerically) {
  EXPECT_EQ(calls_->call(kOne, "a"), "typed a");
  EXPECT_EQ(calls_->call(kTwo, "b", 2), "generic b, 2 arguments");
  EXPECT_FALSE(proxy_->wait(calls_->post(kOne, "c"), 5000));
  EXPECT_FALSE(proxy_->wait(calls_->post(kTwo, "d", 2), 5000));
  EXPECT_EQ(functor_->typedCalls * 10 + functor_->genericCalls, 13);
  // A module whose methods are no C++ functors, as far as callers know:
  TwoFormFunctor::bind(*createModule<Calculator>(broker_, "Generic", true), "two");
  const auto generic = std::make_shared<KXProxy>(broker_, "Generic");
  EXPECT_EQ(KXTypedModuleCall::create<kOne>(generic, "Keeper")->call(kOne, "e"),
            "generic e, 1 arguments");
}

// A signature missing from the table (looked up once) fails as the generic proxy's lookup;
// a module gone or exiting is reported before anything else.
TEST_F(TypedModuleCallTest, RefusalsOfMissingSignaturesAndInvalidModules) {
  int lateCalls = 0;
  module_->functionName("late", "Calculator", "Bound after the table was made");
  bindFunction<void>(*module_, [&] { ++lateCalls; });
  const auto missing = [](const std::string& name) {
    return errorText("KXProxy", "getMethodInfo",
                     "Function " + name + " does not exist in module Calc");
  };
  EXPECT_EQ(errorOf([&] { calls_->call(kWrong, 1); }), missing("two"));
  EXPECT_EQ(errorOf([&] { calls_->call(kLate); }), missing("late"));
  KXTypedModuleCall::create<kOne, kTwo, kWrong, kLate>(proxy_, "Keeper")->call(kLate);

  const auto invalid = [](const char* method) {
    return errorText("Keeper", method, "The underlying module is invalid.");
  };
  module_->exit();  // exiting, still alive
  EXPECT_EQ(errorOf([&] { calls_->call(kOne, "a"); }), invalid("two"));
  EXPECT_EQ(errorOf([&] { calls_->call(kLate); }), invalid("late"));
  module_.reset();  // gone
  EXPECT_EQ(errorOf([&] { calls_->call(kTwo, "a", 2); }), invalid("two"));
  EXPECT_EQ(lateCalls + functor_->typedCalls + functor_->genericCalls, 1);
}

// The standard modules on a root broker; the proxy under test on it (local) or on a child
// that reaches it over TCP (remote).
class TypedProxyTest : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    root_ = KXBroker::createBroker("proxiesRoot", "127.0.0.1", 0, "", 0, KXBroker::kKeepAlive);
    addStandardModules(root_);
    child_ = KXBroker::createBroker("proxiesChild", "127.0.0.1", 0, "127.0.0.1", root_->getPort(),
                                    KXBroker::kKeepAlive);
  }
  void TearDown() override {
    child_->shutdown();
    root_->shutdown();
  }
  const std::shared_ptr<KXBroker>& through() const { return GetParam() ? child_ : root_; }

  std::shared_ptr<KXBroker> root_;
  std::shared_ptr<KXBroker> child_;
};

TEST_P(TypedProxyTest, MemoryCallsGiveTypedResults) {
  KXMemoryProxy proxy(through());
  EXPECT_EQ(proxy.getGenericProxy()->isLocal(), !GetParam());
  proxy.insertData("seed", KXValue("planted"));
  proxy.setDescription("seed", "a seed");
  proxy.declareEvent("Bloom", "gardener");
  proxy.subscribeToEvent("Bloom", "Bee", "onChange");
  proxy.subscribeToEvent("Bloom", "Wasp", "hello", "onChange");
  const int posted = proxy.post.insertData("posted", KXValue(5));
  const std::pair<KXValue, KXValue> cases[] = {
      // in order: the post is waited for first
      {proxy.getData("seed"), "planted"},
      {proxy.getData("seed", 0), "planted"},
      {proxy.getBrokerName(), "proxiesRoot"},
      {proxy.getDescriptionList({"seed"}), args({args({"seed", "String", "a seed"})})},
      {proxy.wait(posted, 5000), false},
      {proxy.getData("posted"), 5},
      {proxy.getExtractorEvent("gardener"), args({"Bloom"})},
      {proxy.getSubscribers("Bloom"), args({"Bee", "Wasp"})},
  };
  for (const auto& c : cases) EXPECT_EQ(shape(c.first), shape(c.second));
  if (!GetParam()) {
    EXPECT_EQ(*static_cast<const KXValue*>(proxy.getDataPtr("seed")), KXValue("planted"));
    return;
  }
  root_->shutdown();  // a call that tried to send would now fail on the network
  EXPECT_EQ(errorOf([&] { proxy.getDataPtr("seed"); }),
            errorText("KXMemory", "getDataPtr", "Cannot be called remotely"));
}

TEST_P(TypedProxyTest, ResourcesAreCreatedTakenReleasedAndDeleted) {
  KXResourceManagerProxy manager(through());
  manager.createResourcesList({"arm", "leg"}, "");
  EXPECT_TRUE(manager.areResourcesFree({"arm", "leg"}));
  manager.waitForResourcesTree({"arm"}, "owner", "", 1);
  EXPECT_FALSE(manager.areResourcesFree({"arm"}));
  manager.releaseResources({"arm"}, "owner");
  EXPECT_TRUE(manager.areResourcesFree({"arm"}));
  manager.deleteResource("leg", false);
  EXPECT_EQ(errorOf([&] { manager.areResourcesFree({"leg"}); }),
            errorText("KXResourceManager", "areResourcesFree", "Resource \"leg\" does not exist."));
}

INSTANTIATE_TEST_SUITE_P(Where, TypedProxyTest, ::testing::Bool(),
                         [](const auto& where) { return where.param ? "Remote" : "Local"; });

TEST(MemoryProxyConstructionTest, ThroughAProxyAnAddressOrTheCurrentBroker) {
  const auto manager = KXBrokerManager::getInstance();
  for (const auto& broker : manager->getBrokers()) manager->removeBroker(broker);
  KXMemoryProxy without;  // constructs all the same; its calls fail
  EXPECT_EQ(errorOf([&] { without.ping(); }),
            errorText("KXBrokerManager", "getRandomBroker",
                      "There is no current broker defined in BrokerManager."));
  const auto broker =
      KXBroker::createBroker("current", "127.0.0.1", 0, "", 0, KXBroker::kKeepAlive);
  addStandardModules(broker);
  EXPECT_EQ(KXMemoryProxy().getBrokerName(), "current");
  EXPECT_EQ(KXMemoryProxy("127.0.0.1", broker->getPort()).getBrokerName(), "current");
  broker->shutdown();
}

}  // namespace
}  // namespace testing
}  // namespace KX
