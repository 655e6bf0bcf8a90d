// The parallel forms of KXMemoryProxy, locally and over TCP.
#include "proxies/kxmemoryproxyposthandler.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "broker/kxbroker.h"
#include "proxies/kxmemoryproxy.h"
#include "proxies/tests/proxies_test_support.h"

namespace KX {
namespace testing {
namespace {

class MemoryProxyPostTest : public BrokerTreeTest, public ::testing::WithParamInterface<bool> {};

TEST_P(MemoryProxyPostTest, PostedCallsRunAndTheirIdsAreWaitedFor) {
  KXMemoryProxy proxy(through(GetParam()));
  const int insert = proxy.post.insertData("posted", KXValue(5));
  EXPECT_FALSE(proxy.wait(insert, 0));
  EXPECT_EQ(proxy.getData("posted"), KXValue(5));

  // Forms that share one entry of the module.
  const int subscribe = proxy.post.subscribeToEvent("Bloom", "Bee", "onChange");
  const int deprecated = proxy.post.getData("posted", 0);
  EXPECT_FALSE(proxy.wait(subscribe, 0));
  EXPECT_FALSE(proxy.wait(deprecated, 0));
  EXPECT_EQ(proxy.getSubscribers("Bloom"), std::vector<std::string>{"Bee"});

  // Task ids are even and never repeat.
  for (const int id : {insert, subscribe, deprecated}) EXPECT_EQ(id % 2, 0) << id;
  EXPECT_NE(insert, subscribe);
  EXPECT_NE(subscribe, deprecated);
}

INSTANTIATE_TEST_SUITE_P(Where, MemoryProxyPostTest, ::testing::Bool(), whereName);

}  // namespace
}  // namespace testing
}  // namespace KX
