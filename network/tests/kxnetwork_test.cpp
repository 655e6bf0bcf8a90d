// Brokers of one process talking over their network services, as brokers of different
// processes do: every call below crosses a real TCP connection on 127.0.0.1.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "broker/kxbroker.h"
#include "broker/kxnetworkservice.h"
#include "module/kxproxy.h"
#include "module/tests/proxy_test_support.h"
#include "network/kxnetwork.h"

namespace KX {
namespace testing {
namespace {

std::shared_ptr<KXBroker> rootBroker(const std::string& name) {
  return KXBroker::createBroker(name, "127.0.0.1", 0, "", 0, KXBroker::kKeepAlive);
}

std::shared_ptr<KXBroker> childBroker(const std::string& name, const KXBroker& parent) {
  return KXBroker::createBroker(name, "127.0.0.1", 0, "127.0.0.1", parent.getPort(),
                                KXBroker::kKeepAlive);
}

class NetworkTreeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = rootBroker("root");
    calc_ = createModule<Calculator>(root_, "Calc");
    child_ = childBroker("child", *root_);
  }
  void TearDown() override {
    if (child_) child_->shutdown();
    if (root_) root_->shutdown();
  }

  std::shared_ptr<KXBroker> root_;
  std::shared_ptr<Calculator> calc_;
  std::shared_ptr<KXBroker> child_;
};

TEST_F(NetworkTreeTest, AChildCallsAModuleOfItsParent) {
  KXProxy proxy(child_, "Calc");
  EXPECT_FALSE(proxy.isLocal());
  EXPECT_EQ(proxy.getBrokerName(), "root");
  EXPECT_EQ(proxy.call<int>("add", 2, 3), 5);
  EXPECT_EQ(proxy.call<std::string>("greet", "Bob"), "Hello Bob");
  const KXValue echoed = proxy.genericCall("echo", args({KXValue("key42")}));
  EXPECT_EQ(echoed, KXValue("key42"));
}

}  // namespace
}  // namespace testing
}  // namespace KX
