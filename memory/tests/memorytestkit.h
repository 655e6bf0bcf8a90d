#ifndef VELMO_MEMORY_TESTS_MEMORYTESTKIT_H_
#define VELMO_MEMORY_TESTS_MEMORYTESTKIT_H_

// The memory tests' kit: a broker hosting the module under test, a module that records the
// callbacks it receives, and the texts of errors.

#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <vector>

#include "log/tests/logtestsupport.h"
#include "memory/kxmemory.h"
#include "memory/kxresourcemanager.h"
#include "module/tests/proxy_test_support.h"

namespace KX {
namespace testing {

using Strings = std::vector<std::string>;
using testing_util::arrayOf;
using tu::log::testing::LogCapture;

// A generic call that `module` refuses with KXError(<its name>, <method>, <text>).
struct Refusal {
  std::string method;
  KXValue params;
  std::string text;
};
inline void expectRefusals(KXModuleCore& module, const std::vector<Refusal>& refusals) {
  KXProxy proxy(module.getParentBroker(), module.getName());
  for (const Refusal& r : refusals) {
    EXPECT_EQ(errorText([&] { proxy.genericCall(r.method, r.params); }),
              "\t" + module.getName() + "::" + r.method + "\n\t" + r.text)
        << r.params.toString();
  }
}

struct Call {
  std::string callback;
  std::string name;  // the data name, or the wanted resource
  KXValue value;     // or the requester
  std::string message;
  std::thread::id thread;
};

// Records every call it receives: notifications (name, value, message) and the resource
// manager's conflict callbacks (resource, requester). A call of "onFail" is then refused.
// While the gate is closed, a recorded call waits.
class Listener : public KXModule {
 public:
  using KXModule::KXModule;
  void execute(const std::string& method, const KXValue& params, KXValue&) override {
    const std::string name = static_cast<const std::string&>(params[0]);
    std::unique_lock<std::mutex> lock(mutex_);
    calls_.push_back(Call{method, name, params[1],
                          params.getSize() > 2 ? static_cast<const std::string&>(params[2]) : "",
                          std::this_thread::get_id()});
    changed_.notify_all();
    changed_.wait_for(lock, kPatience, [&] { return !gated_; });
    if (method == "onFail") KX_THROW(getName(), method, "refused " + name);
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

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool gated_ = false;       // guarded by mutex_
  std::vector<Call> calls_;  // guarded by mutex_
};

// A broker of this process hosting `Module` under its usual name, and a proxy to it.
template <typename Module>
class ModuleTest : public BrokerTest {
 protected:
  explicit ModuleTest(std::string name) : name_(std::move(name)) {}
  void SetUp() override {
    BrokerTest::SetUp();
    module_ = createModule<Module>(broker_, name_);
    proxy_ = std::make_shared<KXProxy>(broker_, name_);
  }

  const std::string name_;
  std::shared_ptr<Module> module_;
  std::shared_ptr<KXProxy> proxy_;
};

struct MemoryTest : ModuleTest<KXMemory> {
  MemoryTest() : ModuleTest("KXMemory") {}
};

}  // namespace testing
}  // namespace KX

#endif  // VELMO_MEMORY_TESTS_MEMORYTESTKIT_H_
