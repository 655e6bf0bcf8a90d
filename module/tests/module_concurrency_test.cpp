// Many threads calling one module through proxies while the broker shuts down: every call
// either gives the right result or fails with a KXError, and nothing crashes or hangs.

#include <gtest/gtest.h>

#include <atomic>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "broker/kxbroker.h"
#include "module/kxproxy.h"
#include "module/tests/proxy_test_support.h"

namespace KX {
namespace {

using testing::BrokerTest;
using testing::Calculator;
using testing::Latch;

constexpr int kThreads = 16;
// Successful calls each thread makes before the broker is shut down.
constexpr int kCallsBeforeShutdown = 100;
// Bound of every thread's loop. Fast threads keep calling until the slowest ones have
// warmed up and the shutdown has begun (millions of calls on a loaded machine); once the
// module has exited every call fails, which is what ends a loop.
constexpr int kMaxCalls = 50000000;

enum class Outcome { kRight, kWrong, kError, kNoResult };

struct ThreadReport {
  int right = 0;
  int wrong = 0;
  int errors = 0;
  int noResult = 0;  // a generic call refused by the exiting module (Invalid result)
  bool endedByFailure = false;
};

// One call of the kind given to the thread, with arguments that vary per call.
Outcome callOnce(KXProxy& proxy, int kind, int i) {
  try {
    switch (kind) {
      case 0:
        return proxy.call<int>("add", i, 7) == i + 7 ? Outcome::kRight : Outcome::kWrong;
      case 1: {
        KXValue params;
        params.arraySetSize(2);
        params[0] = i;
        params[1] = 3;
        const KXValue result = proxy.genericCall("add", params);
        if (!result.isValid()) return Outcome::kNoResult;
        return result.getType() == KXValue::TypeInt && static_cast<int>(result) == i + 3
                   ? Outcome::kRight
                   : Outcome::kWrong;
      }
      case 2: {
        const std::string who = "n" + std::to_string(i);
        return proxy.call<std::string>("greet", who) == "Hello " + who ? Outcome::kRight
                                                                       : Outcome::kWrong;
      }
      default: {
        const int id =
            i % 2 == 0 ? proxy.pCall("add", i, 1) : proxy.genericPCall("twice", KXValue(i));
        if (id <= 0 || id % 2 != 0) return Outcome::kWrong;
        // Ended (false) once the call has run or was dropped.
        return proxy.wait(id, 0) ? Outcome::kWrong : Outcome::kRight;
      }
    }
  } catch (const KXError&) {
    return Outcome::kError;
  }
}

TEST_F(BrokerTest, ProxiesCallOneModuleFromManyThreadsWhileTheBrokerShutsDown) {
  createModule<Calculator>(broker_, "Calc");  // held by the broker only
  std::vector<std::shared_ptr<KXProxy>> proxies;
  const auto shared = std::make_shared<KXProxy>(broker_, "Calc");
  for (int t = 0; t < kThreads; ++t) {
    // Half the threads share one proxy, the others have their own.
    proxies.push_back(t % 2 == 0 ? std::make_shared<KXProxy>(broker_, "Calc") : shared);
  }

  Latch warmedUp(kThreads);
  std::vector<ThreadReport> reports(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      ThreadReport& report = reports[t];
      for (int i = 0; i < kMaxCalls; ++i) {
        const Outcome outcome = callOnce(*proxies[t], t % 4, i);
        if (outcome == Outcome::kRight) {
          if (++report.right == kCallsBeforeShutdown) warmedUp.countDown();
          continue;
        }
        if (outcome == Outcome::kWrong) ++report.wrong;
        if (outcome == Outcome::kError) ++report.errors;
        if (outcome == Outcome::kNoResult) ++report.noResult;
        report.endedByFailure = true;
        // One failure is enough: the module is going away (or something is wrong, and the
        // checks below say so; the stopper must not wait for this thread then).
        if (report.right < kCallsBeforeShutdown) warmedUp.countDown();
        break;
      }
    });
  }

  std::thread stopper([&] {
    EXPECT_TRUE(warmedUp.wait());
    broker_->shutdown();
  });
  stopper.join();
  for (auto& thread : threads) thread.join();

  int right = 0;
  int errors = 0;
  int noResult = 0;
  for (int t = 0; t < kThreads; ++t) {
    const ThreadReport& report = reports[t];
    EXPECT_EQ(report.wrong, 0) << "thread " << t;
    EXPECT_GE(report.right, kCallsBeforeShutdown) << "thread " << t;
    EXPECT_TRUE(report.endedByFailure) << "thread " << t;
    EXPECT_EQ(report.errors + report.noResult, 1) << "thread " << t;
    right += report.right;
    errors += report.errors;
    noResult += report.noResult;
  }
  // Generic calls alone may end with the exiting module's empty answer; typed ones fail.
  EXPECT_GE(errors, kThreads * 3 / 4);
  RecordProperty("rightCalls", right);
  RecordProperty("failedCalls", errors);
  RecordProperty("emptyResults", noResult);
  std::cout << "calls: " << right << " right, " << errors << " failed with KXError, " << noResult
            << " empty results" << std::endl;
}

}  // namespace
}  // namespace KX
