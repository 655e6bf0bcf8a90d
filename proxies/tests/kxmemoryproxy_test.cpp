// KXMemoryProxy against the module of its own broker (local) and of a parent broker over
// TCP (remote).
#include "proxies/kxmemoryproxy.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "broker/kxbroker.h"
#include "broker/kxbrokermanager.h"
#include "memory/kxmemory.h"
#include "memory/kxstandardmodules.h"
#include "module/kxmodulecore.h"
#include "module/kxproxy.h"
#include "proxies/tests/proxies_test_support.h"

namespace KX {
namespace testing {
namespace {

class MemoryProxyTest : public BrokerTreeTest, public ::testing::WithParamInterface<bool> {
 protected:
  void SetUp() override {
    BrokerTreeTest::SetUp();
    const auto memory = std::dynamic_pointer_cast<KXMemory>(root_->getModuleCore("KXMemory"));
    ASSERT_NE(memory, nullptr);
    memory->insertData("seed", KXValue("planted"));
    memory->setDescription("seed", "a seed");
    memory->declareEvent("Sprout", "gardener");
  }
};

// Each result type, each parameter type and both forms of the one-entry names.
TEST_P(MemoryProxyTest, TypedCallsGiveTypedResults) {
  KXMemoryProxy proxy(through(GetParam()));
  EXPECT_EQ(proxy.getGenericProxy()->isLocal(), !GetParam());
  struct Case {
    const char* what;
    std::function<KXValue()> run;
    KXValue expected;
  };
  const std::vector<Case> cases = {
      {"void insertData(string, value), value getData(string)",
       [&] {
         proxy.insertData("fresh", KXValue(7));
         return proxy.getData("fresh");
       },
       KXValue(7)},
      {"value getData(string, int)", [&] { return proxy.getData("seed", 0); }, KXValue("planted")},
      {"string getType(string)", [&] { return KXValue(proxy.getType("seed")); }, KXValue("String")},
      {"string getBrokerName()", [&] { return KXValue(proxy.getBrokerName()); },
       KXValue(rootName_)},
      {"vector<string> getDataList(string)", [&] { return stringsValue(proxy.getDataList("see")); },
       arrayOf("seed")},
      {"value getDescriptionList(vector<string>)",
       [&] { return proxy.getDescriptionList({"seed"}); },
       arrayOf(arrayOf("seed", "String", "a seed"))},
      {"value getListData(value)", [&] { return proxy.getListData(arrayOf("seed")); },
       arrayOf("planted")},
      {"bool ping()", [&] { return KXValue(proxy.ping()); }, KXValue(true)},
      {"bool wait(int, int) of no task", [&] { return KXValue(proxy.wait(12345, 0)); },
       KXValue(false)},
      {"void declareEvent(string, string)",
       [&] {
         proxy.declareEvent("Bloom", "gardener");
         return stringsValue(proxy.getExtractorEvent("gardener"));
       },
       arrayOf("Bloom", "Sprout")},
      {"void subscribeToEvent of three and of four strings",
       [&] {
         proxy.subscribeToEvent("Bloom", "Bee", "onChange");
         proxy.subscribeToEvent("Bloom", "Wasp", "hello", "onChange");
         return stringsValue(proxy.getSubscribers("Bloom"));
       },
       arrayOf("Bee", "Wasp")},
  };
  for (const auto& c : cases) {
    KXValue result;
    EXPECT_NO_THROW(result = c.run()) << c.what;
    EXPECT_EQ(result, c.expected) << c.what;
  }
}

INSTANTIATE_TEST_SUITE_P(Where, MemoryProxyTest, ::testing::Bool(), whereName);

using MemoryProxyLocalTest = MemoryProxyTest;

TEST_F(MemoryProxyLocalTest, TheDataPointerAddressesTheStoredValue) {
  KXMemoryProxy proxy(root_);
  const auto* value = static_cast<const KXValue*>(proxy.getDataPtr("seed"));
  ASSERT_NE(value, nullptr);
  EXPECT_EQ(*value, KXValue("planted"));
}

TEST_F(MemoryProxyLocalTest, TheDataPointerIsRefusedRemotelyWithoutSending) {
  KXMemoryProxy proxy(child_);
  // Nothing could be sent now: a call that tried would fail on the network.
  root_->shutdown();
  EXPECT_EQ(errorText([&] { proxy.getDataPtr("seed"); }),
            kxError("KXMemory", "getDataPtr", "Cannot be called remotely"));
}

TEST_F(MemoryProxyLocalTest, AModuleThatLeftIsInvalidForEveryMethod) {
  KXMemoryProxy proxy(root_);
  proxy.exit();
  const std::vector<std::string> none;
  const KXValue value(1);
  struct Case {
    const char* method;
    std::function<void()> call;
  };
  const std::vector<Case> cases = {
      {"declareEvent", [&] { proxy.declareEvent("e"); }},
      {"declareEvent", [&] { proxy.declareEvent("e", "x"); }},
      {"exit", [&] { proxy.exit(); }},
      {"getBrokerName", [&] { proxy.getBrokerName(); }},
      {"getData", [&] { proxy.getData("seed"); }},
      {"getData", [&] { proxy.getData("seed", 0); }},
      {"getDataList", [&] { proxy.getDataList(""); }},
      {"getDataListName", [&] { proxy.getDataListName(); }},
      {"getDataOnChange", [&] { proxy.getDataOnChange("seed", 1); }},
      {"getDataPtr", [&] { proxy.getDataPtr("seed"); }},
      {"getDescriptionList", [&] { proxy.getDescriptionList(none); }},
      {"getEventHistory", [&] { proxy.getEventHistory("seed"); }},
      {"getEventList", [&] { proxy.getEventList(); }},
      {"getExtractorEvent", [&] { proxy.getExtractorEvent("x"); }},
      {"getListData", [&] { proxy.getListData(value); }},
      {"getMethodHelp", [&] { proxy.getMethodHelp("ping"); }},
      {"getMethodList", [&] { proxy.getMethodList(); }},
      {"getMicroEventList", [&] { proxy.getMicroEventList(); }},
      {"getModuleHelp", [&] { proxy.getModuleHelp(); }},
      {"getSubscribers", [&] { proxy.getSubscribers("e"); }},
      {"getTimestamp", [&] { proxy.getTimestamp("seed"); }},
      {"getType", [&] { proxy.getType("seed"); }},
      {"getUsage", [&] { proxy.getUsage("ping"); }},
      {"insertData", [&] { proxy.insertData("k", value); }},
      {"insertListData", [&] { proxy.insertListData(value); }},
      {"isRunning", [&] { proxy.isRunning(2); }},
      {"ping", [&] { proxy.ping(); }},
      {"raiseEvent", [&] { proxy.raiseEvent("e", value); }},
      {"raiseMicroEvent", [&] { proxy.raiseMicroEvent("e", value); }},
      {"removeData", [&] { proxy.removeData("k"); }},
      {"removeMicroEvent", [&] { proxy.removeMicroEvent("e"); }},
      {"setDescription", [&] { proxy.setDescription("k", "d"); }},
      {"stop", [&] { proxy.stop(2); }},
      {"subscribeToEvent", [&] { proxy.subscribeToEvent("e", "m", "c"); }},
      {"subscribeToEvent", [&] { proxy.subscribeToEvent("e", "m", "t", "c"); }},
      {"subscribeToMicroEvent", [&] { proxy.subscribeToMicroEvent("e", "m", "t", "c"); }},
      {"unregisterModuleReference", [&] { proxy.unregisterModuleReference("m"); }},
      {"unsubscribeToEvent", [&] { proxy.unsubscribeToEvent("e", "m"); }},
      {"unsubscribeToMicroEvent", [&] { proxy.unsubscribeToMicroEvent("e", "m"); }},
      {"version", [&] { proxy.version(); }},
      {"wait", [&] { proxy.wait(2, 1); }},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(errorText(c.call), invalidModule("KXMemory", c.method)) << c.method;
  }
}

TEST_F(MemoryProxyLocalTest, AMethodTheModuleLacksFailsAsTheGenericProxysLookup) {
  // A module of that name with only the methods every module has.
  createModule<KXModule>(child_, "KXMemory");
  KXMemoryProxy proxy(child_);
  ASSERT_TRUE(proxy.getGenericProxy()->isLocal());
  EXPECT_TRUE(proxy.ping());
  EXPECT_EQ(
      errorText([&] { proxy.getData("seed"); }),
      kxError("KXProxy", "getMethodInfo", "Function getData does not exist in module KXMemory"));
  EXPECT_EQ(
      errorText([&] { proxy.getDataPtr("seed"); }),
      kxError("KXProxy", "getMethodInfo", "Function getDataPtr does not exist in module KXMemory"));
}

TEST_F(MemoryProxyLocalTest, ConstructorsReachTheModuleTheyName) {
  const auto generic = std::make_shared<KXProxy>(root_, "KXMemory");
  const KXMemoryProxy fromProxy(generic);
  EXPECT_EQ(fromProxy.getGenericProxy(), generic);
  const KXMemoryProxy copy = fromProxy;
  EXPECT_EQ(copy.getGenericProxy(), generic);

  KXMemoryProxy fromAddress("127.0.0.1", root_->getPort());
  EXPECT_FALSE(fromAddress.getGenericProxy()->isLocal());
  EXPECT_EQ(fromAddress.getBrokerName(), rootName_);
  EXPECT_EQ(fromAddress.getData("seed"), KXValue("planted"));
}

// What a proxy built by `make` reaches: its broker's name, or the error that stopped it.
std::string reached(const std::function<KXMemoryProxy()>& make) {
  try {
    return "broker " + make().getBrokerName();
  } catch (const KXError& error) {
    return error.what();
  }
}

TEST(MemoryProxyDefaultPortTest, AnAddressAloneMeansPort9559) {
  const std::string name = uniqueBrokerName("defaultPort");
  std::shared_ptr<KXBroker> onDefaultPort;
  try {
    onDefaultPort = KXBroker::createBroker(name, "127.0.0.1", 9559, "", 0, KXBroker::kKeepAlive);
  } catch (const KXError&) {
    // Another program holds the port.
  }
  if (onDefaultPort) {
    addStandardModules(onDefaultPort);
    EXPECT_EQ(reached([] { return KXMemoryProxy("127.0.0.1"); }), "broker " + name);
    onDefaultPort->shutdown();
    return;
  }
  // Whatever holds the port: the address alone reaches just what the address with port
  // 9559 reaches.
  EXPECT_EQ(reached([] { return KXMemoryProxy("127.0.0.1"); }),
            reached([] { return KXMemoryProxy("127.0.0.1", 9559); }));
}

// The process's brokers are all shut down first, so that the broker manager has no
// current broker unless the test makes one.
class MemoryProxyCurrentBrokerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const auto manager = KXBrokerManager::getInstance();
    for (const auto& broker : manager->getBrokers()) manager->removeBroker(broker);
  }
  void TearDown() override {
    if (broker_) broker_->shutdown();
  }

  std::shared_ptr<KXBroker> broker_;
};

TEST_F(MemoryProxyCurrentBrokerTest, WithoutABrokerEveryUseThrowsTheManagersError) {
  std::unique_ptr<KXMemoryProxy> proxy;
  ASSERT_NO_THROW(proxy = std::make_unique<KXMemoryProxy>());
  const std::string noBroker = kxError("KXBrokerManager", "getRandomBroker",
                                       "There is no current broker defined in BrokerManager.");
  EXPECT_EQ(errorText([&] { proxy->getGenericProxy(); }), noBroker);
  EXPECT_EQ(errorText([&] { proxy->ping(); }), noBroker);
  EXPECT_EQ(errorText([&] { proxy->getDataPtr("seed"); }), noBroker);
  EXPECT_EQ(errorText([&] { proxy->post.ping(); }), noBroker);
}

TEST_F(MemoryProxyCurrentBrokerTest, TheCurrentBrokersModuleIsUsed) {
  const std::string name = uniqueBrokerName("current");
  broker_ = KXBroker::createBroker(name, "127.0.0.1", 0, "", 0, KXBroker::kKeepAlive, "", false);
  {
    KXMemoryProxy withoutModule;
    EXPECT_EQ(errorText([&] { withoutModule.ping(); }),
              kxError("KXProxy", "constructor", "Module 'KXMemory' not found."));
  }
  addStandardModules(broker_);
  KXMemoryProxy proxy;
  EXPECT_TRUE(proxy.getGenericProxy()->isLocal());
  EXPECT_EQ(proxy.getBrokerName(), name);
}

}  // namespace
}  // namespace testing
}  // namespace KX
