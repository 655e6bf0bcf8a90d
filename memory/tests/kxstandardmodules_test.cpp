// addStandardModules: the call that gives a broker its "KXMemory" and "KXResourceManager".

#include "memory/kxstandardmodules.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "broker/kxbroker.h"
#include "memory/kxmemory.h"
#include "memory/kxresourcemanager.h"
#include "module/kxproxy.h"
#include "value/kxvalue.h"

namespace KX {
namespace {

using Strings = std::vector<std::string>;

class StandardModulesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    broker_ =
        KXBroker::createBroker("test", "127.0.0.1", 0, "", 0, KXBroker::kKeepAlive, "", false);
    ASSERT_NE(broker_, nullptr);
  }
  void TearDown() override {
    if (broker_) broker_->shutdown();
  }

  std::shared_ptr<KXBroker> broker_;
};

TEST_F(StandardModulesTest, RegistersBothModules) {
  addStandardModules(broker_);
  EXPECT_NE(std::dynamic_pointer_cast<KXMemory>(broker_->getModuleCore("KXMemory")), nullptr);
  EXPECT_NE(
      std::dynamic_pointer_cast<KXResourceManager>(broker_->getModuleCore("KXResourceManager")),
      nullptr);
  KXProxy memory(broker_, "KXMemory");
  memory.call<void>("insertData", "k", KXValue(1));
  EXPECT_EQ(memory.call<KXValue>("getData", "k"), KXValue(1));
  KXProxy resources(broker_, "KXResourceManager");
  EXPECT_TRUE(resources.call<bool>("ping"));
  const Strings methods = resources.call<Strings>("getMethodList");
  EXPECT_NE(std::find(methods.begin(), methods.end(), "waitForResource"), methods.end());
}

TEST_F(StandardModulesTest, KeepsModulesAlreadyThere) {
  auto memory = createModule<KXMemory>(broker_, "KXMemory");
  memory->insertData("kept", KXValue("yes"));
  auto resources = createModule<KXResourceManager>(broker_, "KXResourceManager");
  addStandardModules(broker_);
  EXPECT_EQ(broker_->getModuleCore("KXMemory"), memory);
  EXPECT_EQ(broker_->getModuleCore("KXResourceManager"), resources);
  EXPECT_FALSE(memory->isExiting());
  EXPECT_EQ(memory->getData("kept"), KXValue("yes"));
}

TEST_F(StandardModulesTest, AddsOnlyWhatIsMissing) {
  auto memory = createModule<KXMemory>(broker_, "KXMemory");
  addStandardModules(broker_);
  EXPECT_EQ(broker_->getModuleCore("KXMemory"), memory);
  EXPECT_NE(broker_->getModuleCore("KXResourceManager"), nullptr);
  // A second call changes nothing.
  const auto resources = broker_->getModuleCore("KXResourceManager");
  addStandardModules(broker_);
  EXPECT_EQ(broker_->getModuleCore("KXResourceManager"), resources);
  EXPECT_EQ(broker_->getModuleCore("KXMemory"), memory);
}

}  // namespace
}  // namespace KX
