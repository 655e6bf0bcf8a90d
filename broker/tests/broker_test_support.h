#ifndef VELMO_BROKER_TESTS_BROKER_TEST_SUPPORT_H_
#define VELMO_BROKER_TESTS_BROKER_TEST_SUPPORT_H_

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "broker/kxbroker.h"
#include "log/tests/logtestsupport.h"
#include "module/kxmodulecore.h"
#include "thread/tests/thread_test_support.h"
#include "value/kxerror.h"
#include "value/tests/value_test_util.h"

namespace KX {
namespace testing {

using Names = std::vector<std::string>;
using testing_util::arrayOf;
using testing_util::errorText;
using tu::log::testing::LogCapture;

// A module with methods to call, post and show on the pages. Its exits are counted;
// `onExit`, when given, runs instead of the usual exit (which unregisters the module): to
// throw from exit, or to stay registered.
class Calculator : public KXModule {
 public:
  Calculator(const std::shared_ptr<KXBroker>& broker, const std::string& name,
             std::function<void()> onExit = {})
      : KXModule(broker, name), onExit_(std::move(onExit)) {
    setModuleDescription("Adds <&> things");
    functionName("add", "Calculator", "Adds two numbers");
    addParam("a", "first term");
    addParam("b", "second term");
    setReturn("sum", "a + b");
    bindMethod(&Calculator::add);
    functionName("note", "Calculator", "Keeps a note");
    bindMethod(&Calculator::note);
    functionName("fail", "Calculator", "Throws its argument");
    bindMethod(&Calculator::fail);
    functionName("block", "Calculator", "Blocks until released");
    bindMethod(&Calculator::block);
  }

  int add(const int& a, const int& b) { return a + b; }
  void note(const std::string& /*text*/) { ++notes; }
  int fail(const std::string& why) { KX_THROW(getName(), "fail", why); }
  bool block() {
    started.countDown();
    return release.wait();
  }
  void exit() override {
    ++exitCount;
    onExit_ ? onExit_() : KXModule::exit();
  }
  std::atomic<int> exitCount{0}, notes{0};
  Latch started{1}, release{1};

 private:
  std::function<void()> onExit_;
};

// The messages that `function` logged, in order.
inline Names logged(LogCapture& capture, const std::string& function) {
  Names messages;
  for (const auto& record : capture.withFunction(function)) messages.push_back(record.message);
  return messages;
}

}  // namespace testing
}  // namespace KX

#endif  // VELMO_BROKER_TESTS_BROKER_TEST_SUPPORT_H_
