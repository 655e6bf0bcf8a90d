// The typed proxies (KXMemoryProxy with its parallel forms, KXResourceManagerProxy) against
// the module of their own broker (local) and of a parent broker over TCP (remote).
#include "proxies/kxmemoryproxy.h"
#include "proxies/kxresourcemanagerproxy.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "broker/kxbrokermanager.h"
#include "module/kxproxy.h"
#include "proxies/tests/proxies_test_support.h"

namespace KX {
namespace testing {
namespace {

using TypedProxyTest = BrokerTreeTest;

// One call per result type and per kind of parameter; the calls without a result are
// checked through what they stored.
TEST_P(TypedProxyTest, MemoryCallsGiveTypedResults) {
  KXMemoryProxy proxy(through());
  EXPECT_EQ(proxy.getGenericProxy()->isLocal(), !GetParam());
  proxy.insertData("seed", KXValue("planted"));
  proxy.setDescription("seed", "a seed");
  proxy.declareEvent("Bloom", "gardener");
  proxy.subscribeToEvent("Bloom", "Bee", "onChange");
  proxy.subscribeToEvent("Bloom", "Wasp", "hello", "onChange");
  const int posted = proxy.post.insertData("posted", KXValue(5));
  struct Case {
    const char* what;
    std::function<KXValue()> run;
    KXValue expected;
  };
  const std::vector<Case> cases = {
      {"getData(string)", [&] { return proxy.getData("seed"); }, KXValue("planted")},
      {"getData(string, int)", [&] { return proxy.getData("seed", 0); }, KXValue("planted")},
      {"getBrokerName", [&] { return KXValue(proxy.getBrokerName()); }, KXValue(rootName_)},
      {"getDescriptionList", [&] { return proxy.getDescriptionList({"seed"}); },
       arrayOf(arrayOf("seed", "String", "a seed"))},
      {"wait for a post", [&] { return KXValue(proxy.wait(posted, 5000)); }, KXValue(false)},
      {"getData of the post", [&] { return proxy.getData("posted"); }, KXValue(5)},
      {"getExtractorEvent", [&] { return KXValue(proxy.getExtractorEvent("gardener")); },
       arrayOf("Bloom")},
      {"getSubscribers", [&] { return KXValue(proxy.getSubscribers("Bloom")); },
       arrayOf("Bee", "Wasp")},
  };
  for (const auto& c : cases) {
    KXValue result;
    EXPECT_NO_THROW(result = c.run()) << c.what;
    EXPECT_EQ(result, c.expected) << c.what;
  }
}

TEST_P(TypedProxyTest, MemoryDataPointerIsForLocalModulesOnly) {
  KXMemoryProxy proxy(through());
  proxy.insertData("seed", KXValue("planted"));
  if (!GetParam()) {
    const auto* value = static_cast<const KXValue*>(proxy.getDataPtr("seed"));
    ASSERT_NE(value, nullptr);
    EXPECT_EQ(*value, KXValue("planted"));
    return;
  }
  root_->shutdown();  // a call that tried to send would now fail on the network
  EXPECT_EQ(errorText([&] { proxy.getDataPtr("seed"); }),
            kxError("KXMemory", "getDataPtr", "Cannot be called remotely"));
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
  EXPECT_EQ(errorText([&] { manager.areResourcesFree({"leg"}); }),
            kxError("KXResourceManager", "areResourcesFree", "Resource \"leg\" does not exist."));
}

INSTANTIATE_TEST_SUITE_P(Where, TypedProxyTest, ::testing::Bool(),
                         [](const auto& where) { return where.param ? "Remote" : "Local"; });

using TypedProxyLocalTest = BrokerTreeTest;

// What a proxy built by `make` reaches: its broker's name, or the error that stopped it.
std::string reached(const std::function<KXMemoryProxy()>& make) {
  try {
    return "broker " + make().getBrokerName();
  } catch (const KXError& error) {
    return error.what();
  }
}

TEST_F(TypedProxyLocalTest, MemoryConstructorsReachTheModuleTheyName) {
  const auto generic = std::make_shared<KXProxy>(root_, "KXMemory");
  const KXMemoryProxy fromProxy(generic);
  EXPECT_EQ(KXMemoryProxy(fromProxy).getGenericProxy(), generic);
  EXPECT_EQ(reached([&] { return KXMemoryProxy("127.0.0.1", root_->getPort()); }),
            "broker " + rootName_);

  // An address alone means port 9559; if another program holds it, whatever answers there.
  const std::string name = uniqueBrokerName("defaultPort");
  std::shared_ptr<KXBroker> ours;
  try {
    ours = KXBroker::createBroker(name, "127.0.0.1", 9559, "", 0, KXBroker::kKeepAlive);
    addStandardModules(ours);
  } catch (const KXError&) {
  }
  const std::string alone = reached([] { return KXMemoryProxy("127.0.0.1"); });
  const std::string onPort = reached([] { return KXMemoryProxy("127.0.0.1", 9559); });
  if (ours) ours->shutdown();
  EXPECT_EQ(alone, ours ? "broker " + name : onPort);
}

TEST(MemoryProxyCurrentBrokerTest, TheCurrentBrokerIsUsedAndWithoutOneCallsFail) {
  const auto manager = KXBrokerManager::getInstance();
  for (const auto& broker : manager->getBrokers()) manager->removeBroker(broker);
  KXMemoryProxy proxy;  // constructs all the same
  const std::string noBroker = kxError("KXBrokerManager", "getRandomBroker",
                                       "There is no current broker defined in BrokerManager.");
  EXPECT_EQ(errorText([&] { proxy.ping(); }), noBroker);
  EXPECT_EQ(errorText([&] { proxy.post.ping(); }), noBroker);

  const std::string name = uniqueBrokerName("current");
  const auto broker =
      KXBroker::createBroker(name, "127.0.0.1", 0, "", 0, KXBroker::kKeepAlive, "", false);
  addStandardModules(broker);
  const std::string current = reached([] { return KXMemoryProxy(); });
  broker->shutdown();
  EXPECT_EQ(current, "broker " + name);
}

}  // namespace
}  // namespace testing
}  // namespace KX
