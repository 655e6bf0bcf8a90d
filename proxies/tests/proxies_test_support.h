#ifndef VELMO_PROXIES_TESTS_PROXIES_TEST_SUPPORT_H_
#define VELMO_PROXIES_TESTS_PROXIES_TEST_SUPPORT_H_

// The typed proxy tests' kit: error texts, broker names, and a root broker hosting the
// standard modules with a child broker that reaches them over TCP on 127.0.0.1.

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>

#include "broker/kxbroker.h"
#include "memory/kxstandardmodules.h"
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

// A name no other broker of this process carries.
inline std::string uniqueBrokerName(const std::string& prefix) {
  static std::atomic<int> counter{0};
  return prefix + std::to_string(++counter);
}

// The parameter: whether the proxy under test is remote (on the child) or local (on the root).
class BrokerTreeTest : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    root_ = KXBroker::createBroker(rootName_, "127.0.0.1", 0, "", 0, KXBroker::kKeepAlive);
    addStandardModules(root_);
    child_ = KXBroker::createBroker(uniqueBrokerName("proxiesChild"), "127.0.0.1", 0, "127.0.0.1",
                                    root_->getPort(), KXBroker::kKeepAlive);
  }
  void TearDown() override {
    if (child_) child_->shutdown();
    if (root_) root_->shutdown();
  }
  const std::shared_ptr<KXBroker>& through() const { return GetParam() ? child_ : root_; }

  const std::string rootName_ = uniqueBrokerName("proxiesRoot");
  std::shared_ptr<KXBroker> root_;
  std::shared_ptr<KXBroker> child_;
};

}  // namespace testing
}  // namespace KX

#endif  // VELMO_PROXIES_TESTS_PROXIES_TEST_SUPPORT_H_
