#ifndef VELMO_PROXIES_TESTS_PROXIES_TEST_SUPPORT_H_
#define VELMO_PROXIES_TESTS_PROXIES_TEST_SUPPORT_H_

// Brokers for the typed proxy tests: a root broker hosting the standard modules, and a
// child broker of it that reaches them over a real TCP connection on 127.0.0.1.

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "broker/kxbroker.h"
#include "broker/kxbrokermanager.h"
#include "memory/kxstandardmodules.h"
#include "value/kxerror.h"
#include "value/kxvalue.h"
#include "value/tests/value_test_util.h"

namespace KX {
namespace testing {

using testing_util::arrayOf;
using testing_util::errorText;

// The text of KXError(module, method, description).
inline std::string kxError(const std::string& module, const std::string& method,
                           const std::string& description) {
  return "\t" + module + "::" + method + "\n\t" + description;
}

inline std::string invalidModule(const std::string& module, const std::string& method) {
  return kxError(module, method, "The underlying module is invalid.");
}

// A name no other broker of this process carries.
inline std::string uniqueBrokerName(const std::string& prefix) {
  static std::atomic<int> counter{0};
  return prefix + std::to_string(++counter);
}

// A root broker listening on a free port of 127.0.0.1.
inline std::shared_ptr<KXBroker> rootBroker(const std::string& name) {
  return KXBroker::createBroker(name, "127.0.0.1", 0, "", 0, KXBroker::kKeepAlive);
}

inline KXValue stringsValue(const std::vector<std::string>& strings) {
  KXValue array;
  array.arraySetSize(0);
  for (const auto& text : strings) array.arrayPush(KXValue(text));
  return array;
}

// "root" hosts KXMemory and KXResourceManager; "child" hosts nothing and reaches them
// through the network. Both are shut down at the end.
class BrokerTreeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    rootName_ = uniqueBrokerName("proxiesRoot");
    root_ = rootBroker(rootName_);
    ASSERT_NE(root_, nullptr);
    addStandardModules(root_);
    child_ = KXBroker::createBroker(uniqueBrokerName("proxiesChild"), "127.0.0.1", 0, "127.0.0.1",
                                    root_->getPort(), KXBroker::kKeepAlive);
    ASSERT_NE(child_, nullptr);
  }
  void TearDown() override {
    if (child_) child_->shutdown();
    if (root_) root_->shutdown();
  }

  // The broker a proxy reaches the modules through: the root itself (local) or the
  // child (remote).
  const std::shared_ptr<KXBroker>& through(bool remote) const { return remote ? child_ : root_; }

  std::string rootName_;
  std::shared_ptr<KXBroker> root_;
  std::shared_ptr<KXBroker> child_;
};

// Local or remote, as the name of a parameterised case.
inline std::string whereName(const ::testing::TestParamInfo<bool>& info) {
  return info.param ? "Remote" : "Local";
}

}  // namespace testing
}  // namespace KX

#endif  // VELMO_PROXIES_TESTS_PROXIES_TEST_SUPPORT_H_
