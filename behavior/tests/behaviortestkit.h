// The behaviour tests' kit: a broker per test hosting the standard modules and a behaviour
// host, and a box that records its input and its loading.
#ifndef VELMO_BEHAVIOR_TESTS_BEHAVIORTESTKIT_H_
#define VELMO_BEHAVIOR_TESTS_BEHAVIORTESTKIT_H_

#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>

#include "behavior/kxbehavior.h"
#include "behavior/kxbehaviormanager.h"
#include "memory/kxmemory.h"
#include "memory/kxresourcemanager.h"
#include "memory/kxstandardmodules.h"
#include "module/tests/proxy_test_support.h"

namespace KX {
namespace testing {

using Strings = std::vector<std::string>;
using testing_util::arrayOf;

// A box with an input "onData" and the methods onLoad and onUnload: it records their calls
// (the value, or the box's state), refusing onLoad and onUnload while `failing`.
class RecordingBox : public KXBehavior {
 public:
  RecordingBox(const std::shared_ptr<KXBroker>& broker, const std::string& name)
      : KXBehavior(broker, name) {
    for (const char* method : {"onInput_onData__", "onLoad", "onUnload"}) {
      functionName(method, "RecordingBox", "Recorded by execute");
      bindMethod(&RecordingBox::isLoaded);  // found by the host; execute answers the calls
    }
  }
  void execute(const std::string& method, const KXValue& params, KXValue& result) override {
    if (method != "onInput_onData__" && method != "onLoad" && method != "onUnload") {
      return KXBehavior::execute(method, params, result);
    }
    std::lock_guard<std::mutex> lock(mutex_);
    records_.push_back(method[2] == 'I' ? params[0].toString()
                                        : method + " loaded=" + std::to_string(isLoaded()) +
                                              " stopped=" + std::to_string(isBoxStopped()));
    changed_.notify_all();
    if (failing && method[2] != 'I') KX_THROW("RecordingBox", method, "refused");
  }
  // What was recorded, once `count` records are there or the patience is over.
  Strings waitFor(std::size_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, kPatience, [&] { return records_.size() >= count; });
    return records_;
  }
  bool failing = false;

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  Strings records_;
};

class BoxTest : public BrokerTest {
 protected:
  void SetUp() override {
    BrokerTest::SetUp();
    addStandardModules(broker_);
    addBehaviorManager(broker_);
  }
  template <typename Module>
  std::shared_ptr<Module> module(const std::string& name) const {
    return std::dynamic_pointer_cast<Module>(broker_->getModuleCore(name));
  }
  std::shared_ptr<KXBehaviorManager> host() const {
    return module<KXBehaviorManager>("KXBehaviorManager");
  }
};

}  // namespace testing
}  // namespace KX

#endif  // VELMO_BEHAVIOR_TESTS_BEHAVIORTESTKIT_H_
