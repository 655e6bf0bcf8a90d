// The behaviour tests' kit: a broker per test, a box that records what its input
// receives, and the text of a KXError.
#ifndef VELMO_BEHAVIOR_TESTS_BEHAVIORTESTKIT_H_
#define VELMO_BEHAVIOR_TESTS_BEHAVIORTESTKIT_H_

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "behavior/kxbehavior.h"
#include "broker/kxbroker.h"
#include "memory/kxmemory.h"
#include "memory/kxstandardmodules.h"
#include "value/kxvalue.h"

namespace KX {
namespace testing {

constexpr std::chrono::seconds kDeliveryTimeout{30};

inline std::string kxError(const std::string& module, const std::string& method,
                           const std::string& description) {
  return "\t" + module + "::" + method + "\n\t" + description;
}

// A box whose input "onData" records every value it receives.
class RecordingBox : public KXBehavior {
 public:
  RecordingBox(const std::shared_ptr<KXBroker>& broker, const std::string& name)
      : KXBehavior(broker, name) {
    functionName("onInput_onData__", "RecordingBox", "Records the value.");
    addParam("value", "the value received");
    bindMethod(&RecordingBox::onData);
  }
  void onData(const KXValue& value) {
    if (!isEnabled()) return;  // an input method may use its own box
    std::lock_guard<std::mutex> lock(mutex_);
    received_.push_back(value);
    changed_.notify_all();
  }
  // The values received, once `count` have arrived or after `timeout` (then fewer).
  std::vector<KXValue> waitFor(std::size_t count, std::chrono::seconds timeout) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, timeout, [&] { return received_.size() >= count; });
    return received_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<KXValue> received_;
};

// A broker of this process under a name of its own, with the standard modules or not.
class BrokerTest : public ::testing::Test {
 protected:
  explicit BrokerTest(bool withStandardModules = true) : standard_(withStandardModules) {}
  void SetUp() override {
    static std::atomic<int> counter{0};
    broker_ = KXBroker::createBroker("behaviorTest" + std::to_string(++counter), "127.0.0.1", 0, "",
                                     0, KXBroker::kKeepAlive, "", false);
    if (standard_) addStandardModules(broker_);
  }
  void TearDown() override { broker_->shutdown(); }
  std::shared_ptr<KXMemory> memory() const {
    return std::dynamic_pointer_cast<KXMemory>(broker_->getModuleCore("KXMemory"));
  }
  const bool standard_;
  std::shared_ptr<KXBroker> broker_;
};

class BareBrokerTest : public BrokerTest {
 protected:
  BareBrokerTest() : BrokerTest(false) {}
};

using BoxTest = BrokerTest;

}  // namespace testing
}  // namespace KX

#endif  // VELMO_BEHAVIOR_TESTS_BEHAVIORTESTKIT_H_
