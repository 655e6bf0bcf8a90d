#ifndef VELMO_BROKER_TESTS_BROKER_TEST_SUPPORT_H_
#define VELMO_BROKER_TESTS_BROKER_TEST_SUPPORT_H_

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "broker/kxbroker.h"
#include "log/tests/logtestsupport.h"
#include "module/kxmodulecore.h"
#include "thread/tests/thread_test_support.h"
#include "value/kxerror.h"

namespace KX {
namespace testing {

// Records, in order, the names of the modules whose exit ran.
class ExitJournal {
 public:
  void record(const std::string& name) {
    std::lock_guard<std::mutex> guard(mutex_);
    names_.push_back(name);
  }
  std::vector<std::string> names() {
    std::lock_guard<std::mutex> guard(mutex_);
    return names_;
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> names_;
};

// A module with a few methods to call, post and show on the pages. Counts its exits and,
// when given a journal, records them there.
class Calculator : public KXModule {
 public:
  Calculator(const std::shared_ptr<KXBroker>& broker, const std::string& name,
             std::shared_ptr<ExitJournal> journal = nullptr)
      : KXModule(broker, name), broker_(broker), journal_(std::move(journal)) {
    setModuleDescription("Adds <&> things");

    functionName("add", "Calculator", "Adds two numbers");
    addParam("a", "first term");
    addParam("b", "second term");
    setReturn("sum", "a + b");
    bindMethod(&Calculator::add);

    functionName("note", "Calculator", "Keeps a note");
    addParam("text", "what to keep");
    bindMethod(&Calculator::note);

    functionName("fail", "Calculator", "Throws its argument");
    addParam("why", "the description of the error");
    setReturn("never", "nothing is returned");
    bindMethod(&Calculator::fail);
  }

  int add(const int& a, const int& b) { return a + b; }
  void note(const std::string& text) {
    std::lock_guard<std::mutex> guard(mutex_);
    notes_.push_back(text);
  }
  int fail(const std::string& why) { KX_THROW(getName(), "fail", why); }

  void exit() override {
    ++exitCount_;
    if (journal_) journal_->record(getName());
    KXModule::exit();
    if (auto broker = broker_.lock()) {
      unregisteredByExit_ = broker->getModuleCore(getName()).get() != this;
    }
  }

  int exitCount() const { return exitCount_.load(); }
  // Whether the broker's table no longer held this module once its exit had run.
  bool unregisteredByExit() const { return unregisteredByExit_.load(); }
  std::vector<std::string> notes() {
    std::lock_guard<std::mutex> guard(mutex_);
    return notes_;
  }

 private:
  std::weak_ptr<KXBroker> broker_;
  std::shared_ptr<ExitJournal> journal_;
  std::atomic<int> exitCount_{0};
  std::atomic<bool> unregisteredByExit_{false};
  std::mutex mutex_;
  std::vector<std::string> notes_;
};

// A module whose "block" method reports that it started and waits to be released.
class Blocker : public KXModule {
 public:
  Blocker(const std::shared_ptr<KXBroker>& broker, const std::string& name)
      : KXModule(broker, name),
        started_(std::make_shared<Latch>(1)),
        release_(std::make_shared<Latch>(1)) {
    functionName("block", "Blocker", "Blocks until released");
    setReturn("released", "true when released in time");
    bindMethod(&Blocker::block);
  }

  bool block() {
    started_->countDown();
    return release_->wait();
  }

  Latch& started() { return *started_; }
  void release() { release_->countDown(); }

 private:
  std::shared_ptr<Latch> started_;
  std::shared_ptr<Latch> release_;
};

// A module whose method shuts its own broker down, from the broker's pool when posted.
class Stopper : public KXModule {
 public:
  Stopper(const std::shared_ptr<KXBroker>& broker, const std::string& name)
      : KXModule(broker, name), done_(std::make_shared<Latch>(1)) {
    functionName("stopBroker", "Stopper", "Shuts the broker down");
    bindMethod(&Stopper::stopBroker);
  }

  void stopBroker() {
    getParentBroker()->shutdown();
    done_->countDown();
  }

  Latch& done() { return *done_; }

 private:
  std::shared_ptr<Latch> done_;
};

// A module whose exit runs a given action instead of the usual one (which would
// unregister it): to throw from exit, or to leave the module registered.
class OddExit : public KXModule {
 public:
  OddExit(const std::shared_ptr<KXBroker>& broker, const std::string& name,
          std::function<void()> onExit)
      : KXModule(broker, name), onExit_(std::move(onExit)) {}

  void exit() override {
    ++exitCount_;
    onExit_();
  }
  int exitCount() const { return exitCount_.load(); }

 private:
  std::function<void()> onExit_;
  std::atomic<int> exitCount_{0};
};

// The messages that `function` logged, in order.
inline std::vector<std::string> messagesOf(tu::log::testing::LogCapture& capture,
                                           const std::string& function) {
  std::vector<std::string> messages;
  for (const auto& record : capture.withFunction(function)) {
    messages.push_back(record.message);
  }
  return messages;
}

// The messages logged by `function` that begin with `prefix`, in order.
inline std::vector<std::string> messagesStartingWith(tu::log::testing::LogCapture& capture,
                                                     const std::string& function,
                                                     const std::string& prefix) {
  std::vector<std::string> messages;
  for (const auto& message : messagesOf(capture, function)) {
    if (message.compare(0, prefix.size(), prefix) == 0) messages.push_back(message);
  }
  return messages;
}

}  // namespace testing
}  // namespace KX

#endif  // VELMO_BROKER_TESTS_BROKER_TEST_SUPPORT_H_
