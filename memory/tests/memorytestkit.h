#ifndef VELMO_MEMORY_TESTS_MEMORYTESTKIT_H_
#define VELMO_MEMORY_TESTS_MEMORYTESTKIT_H_

// The memory tests' kit: a broker hosting the module under test, a module that records the
// callbacks it receives, and the texts of errors.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "broker/kxbroker.h"
#include "log/tests/logtestsupport.h"
#include "memory/kxmemory.h"
#include "memory/kxresourcemanager.h"
#include "module/kxproxy.h"
#include "thread/tests/thread_test_support.h"
#include "value/tests/value_test_util.h"

namespace KX {
namespace testing {

using Strings = std::vector<std::string>;
using testing_util::arrayOf;
using testing_util::errorText;
using tu::log::testing::LogCapture;

inline std::string memoryError(const std::string& method, const std::string& description) {
  return "\tKXMemory::" + method + "\n\t" + description;
}
inline std::string managerError(const std::string& method, const std::string& description) {
  return "\tKXResourceManager::" + method + "\n\t" + description;
}

inline std::shared_ptr<KXBroker> newBroker() {
  return KXBroker::createBroker("test", "127.0.0.1", 0, "", 0, KXBroker::kKeepAlive, "", false);
}

// Polls `condition`, bounded by the patience: for effects with nothing to wait on, such as
// a record logged by a pool worker.
template <typename Condition>
bool eventually(Condition condition) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

struct Call {
  std::string callback;
  std::string name;  // the data name, or the wanted resource
  KXValue value;     // or the requester
  std::string message;
  std::thread::id thread;
};

// Records the calls of its notification callbacks "onChange", "onOther" and "onFail" (which
// then throws) and of the resource manager's conflict callback "onConflict" (which first
// releases the resource when `releases`). While the gate is closed, a recorded call waits.
class Listener : public KXModule {
 public:
  Listener(const std::shared_ptr<KXBroker>& broker, const std::string& name)
      : KXModule(broker, name) {
    const auto describe = [this](const char* callback) {
      functionName(callback, "Listener", "Records a notification");
      addParam("name", "the data name");
      addParam("value", "the value");
      addParam("message", "the subscription's message");
    };
    describe(kNotified[0]);
    bindMethod(&Listener::on<0>);
    describe(kNotified[1]);
    bindMethod(&Listener::on<1>);
    describe(kNotified[2]);
    bindMethod(&Listener::on<2>);
    functionName("onConflict", "Listener", "Records that someone wants a resource held here");
    addParam("resource", "the wanted resource");
    addParam("requester", "who wants it");
    bindMethod(&Listener::onConflict);
  }
  static constexpr const char* kNotified[] = {"onChange", "onOther", "onFail"};
  template <int kIndex>
  void on(const std::string& name, const KXValue& value, const std::string& message) {
    record(kNotified[kIndex], name, value, message);
    if (kIndex == 2) KX_THROW(getName(), "onFail", "refused " + name);
  }
  void onConflict(const std::string& resource, const std::string& requester) {
    if (releases) {
      KXProxy(getParentBroker(), "KXResourceManager")
          .call<void>("releaseResource", resource, getName());
    }
    record("onConflict", resource, KXValue(requester), "");
  }

  void setGate(bool closed) {
    std::lock_guard<std::mutex> lock(mutex_);
    gated_ = closed;
    changed_.notify_all();
  }
  // False when fewer than `count` calls came within the patience.
  bool waitFor(std::size_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, kPatience, [&] { return calls_.size() >= count; });
  }
  std::vector<Call> calls() {
    std::lock_guard<std::mutex> lock(mutex_);
    return calls_;
  }
  std::vector<int> ints() {
    std::vector<int> values;
    for (const Call& call : calls()) values.push_back(static_cast<int>(call.value));
    return values;
  }
  std::atomic<bool> releases{false};

 private:
  void record(const char* callback, const std::string& name, const KXValue& value,
              const std::string& message) {
    std::unique_lock<std::mutex> lock(mutex_);
    calls_.push_back(Call{callback, name, value, message, std::this_thread::get_id()});
    changed_.notify_all();
    changed_.wait_for(lock, kPatience, [&] { return !gated_; });
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  bool gated_ = false;       // guarded by mutex_
  std::vector<Call> calls_;  // guarded by mutex_
};

// A broker of this process hosting `Module` under its usual name, and a proxy to it.
template <typename Module>
class ModuleTest : public ::testing::Test {
 protected:
  explicit ModuleTest(std::string name) : name_(std::move(name)) {}
  void SetUp() override {
    broker_ = newBroker();
    module_ = createModule<Module>(broker_, name_);
    proxy_ = std::make_shared<KXProxy>(broker_, name_);
  }
  void TearDown() override { broker_->shutdown(); }
  KXValue generic(const std::string& method, const KXValue& params) {
    return proxy_->genericCall(method, params);
  }
  std::shared_ptr<Listener> addListener(const std::string& name) {
    return createModule<Listener>(broker_, name);
  }

  const std::string name_;
  std::shared_ptr<KXBroker> broker_;
  std::shared_ptr<Module> module_;
  std::shared_ptr<KXProxy> proxy_;
};

struct MemoryTest : ModuleTest<KXMemory> {
  MemoryTest() : ModuleTest("KXMemory") {}
};

}  // namespace testing
}  // namespace KX

#endif  // VELMO_MEMORY_TESTS_MEMORYTESTKIT_H_
