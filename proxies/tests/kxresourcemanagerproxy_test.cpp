// KXResourceManagerProxy against the module of its own broker (local) and of a parent
// broker over TCP (remote).
#include "proxies/kxresourcemanagerproxy.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "broker/kxbroker.h"
#include "module/kxproxy.h"
#include "proxies/tests/proxies_test_support.h"

namespace KX {
namespace testing {
namespace {

class ResourceManagerProxyTest : public BrokerTreeTest,
                                 public ::testing::WithParamInterface<bool> {};

TEST_P(ResourceManagerProxyTest, ResourcesAreCreatedTakenReleasedAndDeleted) {
  KXResourceManagerProxy manager(through(GetParam()));
  manager.createResourcesList({"arm", "leg"}, "");
  EXPECT_TRUE(manager.areResourcesFree({"arm", "leg"}));

  manager.waitForResourcesTree({"arm"}, "owner", "", 1);
  EXPECT_FALSE(manager.areResourcesFree({"arm", "leg"}));
  EXPECT_EQ(manager.ownersGet(), arrayOf(arrayOf("arm", "owner")));
  EXPECT_TRUE(manager.isInGroup("arm", "arm"));

  manager.releaseResources({"arm"}, "owner");
  EXPECT_TRUE(manager.areResourcesFree({"arm"}));

  manager.deleteResource("leg", false);
  EXPECT_EQ(errorText([&] { manager.isResourceFree("leg"); }),
            kxError("KXResourceManager", "isResourceFree", "Resource \"leg\" does not exist."));
}

INSTANTIATE_TEST_SUITE_P(Where, ResourceManagerProxyTest, ::testing::Bool(), whereName);

using ResourceManagerProxyLocalTest = ResourceManagerProxyTest;

TEST_F(ResourceManagerProxyLocalTest, AModuleThatLeftIsInvalid) {
  KXResourceManagerProxy manager(root_);
  manager.exit();
  EXPECT_EQ(errorText([&] { manager.releaseResources({"arm"}, "owner"); }),
            invalidModule("KXResourceManager", "releaseResources"));
}

}  // namespace
}  // namespace testing
}  // namespace KX
