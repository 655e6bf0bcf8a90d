#ifndef VELMO_MEMORY_TESTS_KXMEMORY_TEST_SUPPORT_H_
#define VELMO_MEMORY_TESTS_KXMEMORY_TEST_SUPPORT_H_

// A broker hosting "KXMemory" and a subscriber module that records its notifications.

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "broker/kxbroker.h"
#include "memory/kxmemory.h"
#include "module/kxmodulecore.h"
#include "module/kxproxy.h"
#include "thread/tests/thread_test_support.h"
#include "value/kxerror.h"
#include "value/kxvalue.h"

namespace KX {
namespace testing {

// One callback as the subscriber received it.
struct Notification {
  std::string callback;
  std::string name;
  KXValue value;
  std::string message;
  std::thread::id thread;
};

// Subscribes nothing itself: tests subscribe it by name. Its callbacks "onChange" and
// "onOther" record what they receive; "onFail" records, then throws. When gated, each
// callback first reports that it started and waits for the gate to open.
class Listener : public KXModule {
 public:
  Listener(const std::shared_ptr<KXBroker>& broker, const std::string& name)
      : KXModule(broker, name) {
    functionName("onChange", "Listener", "Records a notification");
    addParam("name", "the data name");
    addParam("value", "the value");
    addParam("message", "the subscription's message");
    bindMethod(&Listener::onChange);

    functionName("onOther", "Listener", "Records a notification under another callback");
    addParam("name", "the data name");
    addParam("value", "the value");
    addParam("message", "the subscription's message");
    bindMethod(&Listener::onOther);

    functionName("onFail", "Listener", "Records a notification, then fails");
    addParam("name", "the data name");
    addParam("value", "the value");
    addParam("message", "the subscription's message");
    bindMethod(&Listener::onFail);
  }

  void onChange(const std::string& name, const KXValue& value, const std::string& message) {
    record("onChange", name, value, message);
  }
  void onOther(const std::string& name, const KXValue& value, const std::string& message) {
    record("onOther", name, value, message);
  }
  void onFail(const std::string& name, const KXValue& value, const std::string& message) {
    record("onFail", name, value, message);
    KX_THROW(getName(), "onFail", "refused " + name);
  }

  // Makes every later callback wait for openGate() after reporting its start.
  void closeGate() {
    std::lock_guard<std::mutex> lock(mutex_);
    gated_ = true;
  }
  void openGate() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      gated_ = false;
    }
    changed_.notify_all();
  }

  // Waits (bounded) until `count` callbacks have been recorded; false on timeout.
  bool waitFor(std::size_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, kPatience, [&] { return received_.size() >= count; });
  }

  std::vector<Notification> received() {
    std::lock_guard<std::mutex> lock(mutex_);
    return received_;
  }

 private:
  void record(const char* callback, const std::string& name, const KXValue& value,
              const std::string& message) {
    std::unique_lock<std::mutex> lock(mutex_);
    received_.push_back(Notification{callback, name, value, message, std::this_thread::get_id()});
    changed_.notify_all();
    changed_.wait_for(lock, kPatience, [&] { return !gated_; });
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  bool gated_ = false;                  // guarded by mutex_
  std::vector<Notification> received_;  // guarded by mutex_
};

class MemoryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    broker_ =
        KXBroker::createBroker("test", "127.0.0.1", 0, "", 0, KXBroker::kKeepAlive, "", false);
    ASSERT_NE(broker_, nullptr);
    memory_ = createModule<KXMemory>(broker_, "KXMemory");
    proxy_ = std::make_shared<KXProxy>(broker_, "KXMemory");
  }
  void TearDown() override {
    proxy_.reset();
    memory_.reset();
    if (broker_) broker_->shutdown();
  }

  KXValue generic(const std::string& method, const KXValue& params) {
    return proxy_->genericCall(method, params);
  }

  std::shared_ptr<Listener> addListener(const std::string& name) {
    return createModule<Listener>(broker_, name);
  }

  std::shared_ptr<KXBroker> broker_;
  std::shared_ptr<KXMemory> memory_;
  std::shared_ptr<KXProxy> proxy_;
};

}  // namespace testing
}  // namespace KX

#endif  // VELMO_MEMORY_TESTS_KXMEMORY_TEST_SUPPORT_H_
