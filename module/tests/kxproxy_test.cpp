// The proxy's typed and generic calls, the task monitor and parallel calls.
#include "module/kxproxy.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "broker/kxbrokermanager.h"
#include "module/kxpcalltask.h"
#include "module/kxtaskmonitor.h"
#include "module/tests/proxy_test_support.h"

namespace KX {
namespace testing {
namespace {

using ProxyTest = CalcTest;

const std::string kDeleted =
    errorText("KXProxy", "getModuleCore", "module is deleted, cannot call function of Calc");

std::string wrongArgument(const std::string& method, int position, const std::string& given,
                          const std::string& declared) {
  return errorText("KXProxy", "call/pCall",
                   "When trying to call module 'Calc' function '" + method + "' parameter #" +
                       std::to_string(position) + " is of type " + given + " instead of type " +
                       declared);
}

TEST_F(ProxyTest, FindsTheModuleInItsBrokerOrThroughTheSearch) {
  const KXModuleInfo info = proxy_->getModuleInfo();
  EXPECT_EQ(proxy_->getModuleName() + " " + proxy_->getBrokerName() + std::to_string(info.port),
            "Calc " + broker_->getName() + std::to_string(broker_->getPort()));
  EXPECT_EQ(KXProxy(broker_, "Calc", KXProxy::kSkipLocalBroker).call<int>("add", 40, 2), 42);
  const std::string notFound = errorText("KXProxy", "constructor", "Module 'Nowhere' not found.");
  EXPECT_EQ(errorOf([&] { KXProxy(broker_, "Nowhere", KXProxy::kSkipLocalBroker); }), notFound);
  // Nothing listens on port 1: the fallback broker cannot ask, so the module is not found.
  EXPECT_EQ(errorOf([] {
              KXProxy(KXBrokerManager::getInstance()->getEmptyBroker(), "Nowhere", "127.0.0.1", 1);
            }),
            notFound);
  EXPECT_EQ(errorOf([&] { KXProxy(broker_, "Nowhere", "127.0.0.1", 1); }),
            errorText("KXProxy", "exploreToGetModuleByName", "No network"));
}

TEST_F(ProxyTest, CallsGiveTheMethodsResultTypedOnesWithoutConversion) {
  const char* name = "Cy";
  TwoFormFunctor::bind(*module_, "two");
  const std::pair<KXValue, KXValue> cases[] = {
      {proxy_->call<int>("add", 2, 3), 5},
      {proxy_->call<float>("half", 3.0f), 1.5f},
      {proxy_->call<std::string>("greet", std::string("Ann")), "Hello Ann"},
      {proxy_->call<std::string>("greet", "Bob"), "Hello Bob"},  // a literal is a string
      {proxy_->call<std::string>("greet", name), "Hello Cy"},
      {proxy_->call<KXValue>("echo", args({1, "x"})), args({1, "x"})},
      {proxy_->call<std::string>("version"), "1.14"},
      {proxy_->call<std::string>("getBrokerName"), broker_->getName()},
      {proxy_->genericCall("add", args({20, 22})), 42},
      {proxy_->genericCall("twice", KXValue(21)), 42},  // a single value is wrapped
      {proxy_->genericCall("ping", KXValue()), true},   // Invalid is no argument
      // An entry of two forms: the typed face directly, the other generically.
      {proxy_->call<std::string>("two", "ann"), "typed ann"},
      {proxy_->call<std::string>("two", "bob", 3), "generic bob, 2 arguments"},
  };
  for (const auto& c : cases) EXPECT_EQ(shape(c.first), shape(c.second));
  KXValue value = args({1, "two"});
  proxy_->call<void>("keepValue", value);
  EXPECT_EQ(module_->valueSeen, &value);
  std::vector<std::string> words{"a", "b", "c"};
  EXPECT_EQ(proxy_->call<int>("countWords", words), 3);
  EXPECT_EQ(module_->wordsSeen, &words);
}

TEST_F(ProxyTest, RepeatedCallsFollowARebindAndTheirOwnModule) {
  auto other = createModule<Calculator>(broker_, "Calc2");
  KXProxy otherProxy(broker_, "Calc2");
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(proxy_->call<int>("add", i, 1) + 10 * otherProxy.call<int>("add", i, 2), 11 * i + 21);
  }
  EXPECT_EQ(module_->addCalls + 10 * other->addCalls, 33);
  // A rebind replaces the method (listed again) and keeps the old description alive.
  const std::shared_ptr<const KXMethodInfo> old = module_->getMethodInfo("add");
  module_->functionName("add", "Calculator", "Subtracts now");
  module_->bindMethod(&Calculator::subtract);
  EXPECT_EQ(proxy_->call<int>("add", 5, 3), 2);
  EXPECT_EQ(module_->getMethodList().back(), "add");
  KXValue result;
  old->functor->call(args({5, 3}), result);
  EXPECT_EQ(result, KXValue(8));
  module_->functionName("add", "Calculator", "Halves now");
  module_->bindMethod(&Calculator::half);
  EXPECT_EQ(errorOf([&] { proxy_->call<int>("add", 5, 3); }),
            errorText("Calc", "add",
                      "Function exists but parameters were wrong.  You tried: add(int, int)\n"));
  EXPECT_FLOAT_EQ(proxy_->call<float>("add", 5.0f), 2.5f);
}

TEST_F(ProxyTest, CallsThatDoNotFitTheMethodAreRefused) {
  const auto wrongResult = [](const std::string& method, const std::string& given,
                              const std::string& declared) {
    return errorText("KXProxy", "call",
                     "wrong return type for function '" + method + "' type is '" + given +
                         "' instead of '" + declared);
  };
  const std::string missing =
      errorText("Calc", "nope", "Function nope does not exist in module Calc");
  const std::pair<std::function<void()>, std::string> cases[] = {
      {[&] { proxy_->call<int>("half", 2.0f); }, wrongResult("half", "int", "float")},
      {[&] { proxy_->call<void>("add", 1, 2); }, wrongResult("add", "void", "int")},
      {[&] { proxy_->call<int>("add", 1.5f, 2); }, wrongArgument("add", 1, "float", "int")},
      {[&] { proxy_->call<int>("add", 1, "2"); }, wrongArgument("add", 2, "string", "int")},
      // No lax matching for typed calls: an int is no float.
      {[&] { proxy_->call<float>("half", 2); }, wrongArgument("half", 1, "int", "float")},
      {[&] { proxy_->pCall("add", 1, 2.5f); }, wrongArgument("add", 2, "float", "int")},
      {[&] { proxy_->call<int>("add", 1); },
       errorText("Calc", "add",
                 "Function exists but parameters were wrong.  You tried: add(int)\n")},
      {[&] { proxy_->call<int>("nope", 1); }, missing},
      {[&] { proxy_->genericCall("nope", KXValue()); }, missing},
      {[&] { proxy_->pCall("nope", 1); },
       errorText("KXProxy", "getMethodInfo", "Function nope does not exist in module Calc")},
      {[&] { proxy_->genericPCall("nope", KXValue()); },
       errorText("KXProxy", "genericPCall", "method not found")},
      // The method's own errors pass through unchanged.
      {[&] { proxy_->call<void>("fail"); }, errorText("Calculator", "fail", "deliberate failure")},
  };
  for (const auto& c : cases) EXPECT_EQ(errorOf(c.first), c.second);
  EXPECT_EQ(module_->addCalls, 0);
}

TEST_F(BrokerTest, AModuleWithGenericDispatchIsCalledThroughItsValues) {
  auto module = createModule<Calculator>(broker_, "GenericCalc", true);
  KXProxy proxy(broker_, "GenericCalc");
  KXValue value = args({1, 2});
  proxy.call<void>("keepValue", value);
  EXPECT_NE(module->valueSeen, &value);  // the method got a converted copy
  // The result is converted to the asked type by the value rules.
  EXPECT_FLOAT_EQ(proxy.call<float>("add", 1, 2), 3.0f);
  EXPECT_EQ(errorOf([&] { proxy.call<int>("greet", "Eve"); }),
            errorText("convertFromKXValue", "convertFromKXValue",
                      "Parameter type is String instead of int"));
  EXPECT_FALSE(proxy.wait(proxy.pCall("add", 1, 2), 0));
  EXPECT_EQ(module->addCalls, 2);
}

TEST_F(ProxyTest, CallsFailOnceTheModuleExitsOrIsGone) {
  module_->exit();  // exiting, still held here
  ::testing::internal::CaptureStdout();
  proxy_->call<void>("keepValue", KXValue(1));
  EXPECT_FALSE(proxy_->genericCall("add", args({1, 1})).isValid());
  EXPECT_EQ(errorOf([&] { proxy_->call<int>("add", 1, 1); }), kDeleted);  // no result to give
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            std::string(kExitingWarning) + kExitingWarning + kExitingWarning);
  EXPECT_TRUE(module_->valueSeen == nullptr && module_->addCalls == 0);
  broker_->shutdown();
  broker_.reset();
  EXPECT_EQ(errorOf([&] { proxy_->genericPCall("add", KXValue()); }),
            errorText("KXBroker", "no broker available", ""));
  module_.reset();
  const std::string notAModule =
      errorText("KXProxy", "getModule",
                "module is deleted or is not an KXModule, cannot call function of Calc");
  const std::pair<std::function<void()>, std::string> cases[] = {
      {[&] { proxy_->call<int>("add", 1, 1); }, kDeleted},
      {[&] { proxy_->genericCall("add", KXValue()); }, kDeleted},
      {[&] { proxy_->pCall("add", 1, 1); }, kDeleted},
      {[&] { proxy_->genericPCall("add", KXValue()); }, kDeleted},
      {[&] { proxy_->wait(2, 0); }, notAModule},
      {[&] { proxy_->stop(2); }, notAModule},
  };
  for (const auto& c : cases) EXPECT_EQ(errorOf(c.first), c.second);
}

std::shared_ptr<detail::KXTaskInfo> makeInfo(int id, const std::string& module = "Mod") {
  return std::make_shared<detail::KXTaskInfo>(id, module, "run" + std::to_string(id));
}

TEST(KXTaskMonitorTest, EntriesByIdWithTheirStopRequestAndThread) {
  KXTaskMonitor monitor;
  for (const auto& info : {makeInfo(10, "Else"), makeInfo(30), makeInfo(6), makeInfo(24)}) {
    if (info->id == 30) monitor.setThread(info);  // no entry yet: nothing recorded
    monitor.add(info);
    if (info->id != 30) monitor.setThread(info);
  }
  std::string list;
  for (const auto& entry : monitor.getTaskList()) list += monitor.find(entry.id)->toString() + " ";
  EXPECT_EQ(list, "Mod::run6 Else::run10 Mod::run24 Mod::run30 ");
  EXPECT_EQ(monitor.getTaskIdForCurrentThread("Mod"), 6);  // the lowest id of the module
  int elsewhere = 0;
  std::thread([&] { elsewhere = monitor.getTaskIdForCurrentThread("Mod"); }).join();
  EXPECT_EQ(elsewhere, -1);
  monitor.stop(6);
  EXPECT_TRUE(monitor.isStopRequested(6));
  monitor.add(makeInfo(6));  // replaces the entry, stop request and thread included
  EXPECT_FALSE(monitor.isStopRequested(6));
  EXPECT_EQ(monitor.getTaskIdForCurrentThread("Mod"), 24);
  monitor.remove(24);
  monitor.remove(24);  // an unknown id is no error
  EXPECT_EQ(monitor.getTaskIdForCurrentThread("Mod"), -1);
  EXPECT_EQ(errorOf([&] { monitor.stop(24); }), kStopText);
}

// Each kind, run on the test's thread: the entry ends also when the call fails, and the
// error leaves run() for the worker to log.
TEST_F(ProxyTest, EveryTaskEndsItsEntryAndLetsItsErrorOut) {
  const auto monitor = broker_->getTaskMonitor();
  const auto entry = [&] {
    const auto info = broker_->createTaskInfo("Calc", "m");
    monitor->add(info);
    return info;
  };
  const auto bound = [&](const KXValue& params) {
    return std::make_shared<KXPCallTask>(monitor, entry(), module_, module_->findMethod("add"),
                                         params);
  };
  const auto generic = [&](std::weak_ptr<KXModuleCore> core, const char* method) {
    return std::make_shared<GenericPCallTask>(monitor, entry(), core, method, args({2, 3}));
  };
  const std::pair<std::shared_ptr<detail::PCallBase>, std::string> cases[] = {
      {generic(module_, "add"), ""},
      {generic(std::make_shared<Calculator>(broker_, "Gone"), "add"),
       errorText("ThreadedLocalExecution", "getModuleCore", "module was destroyed")},
      {generic(module_, "nope"), errorText("KXProxy", "genericPCall", "method not found")},
      {generic(module_, "fail"), errorText("Calculator", "fail", "deliberate failure")},
      {bound(args({4, 5})), ""},
      {bound(args({"4", 5})), errorText("convertFromKXValue", "convertFromKXValue",
                                        "Parameter type is String instead of int")},
  };
  for (const auto& [task, expected] : cases) {
    EXPECT_EQ(expected.empty() ? (task->run(), "") : errorOf([&] { task->run(); }), expected);
    EXPECT_FALSE(monitor->isRunning(task->getTaskInfo()->id));
    task->stop();  // the call has ended: nothing to ask, no error
  }
  EXPECT_EQ(module_->addCalls, 2);
  // Stopping asks the call to stop; a task dropped unrun ends its entry, so waiters wake.
  auto task = bound(args({1, 1}));
  const int id = task->getTaskInfo()->id;
  task->stop();
  EXPECT_TRUE(monitor->isStopRequested(id));
  task.reset();
  EXPECT_FALSE(monitor->isRunning(id));
}

TEST_F(ProxyTest, ALongMethodFindsItsIdAndSeesTheStopRequest) {
  const int id = proxy_->pCall("runUntilStopped");
  EXPECT_EQ(module_->waitForOwnTaskId(), id);
  // The timeout counts in whole steps of 40 ms: 50 gives up after 80.
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(proxy_->wait(id, 50));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(80));
  std::thread waiter([&] { EXPECT_FALSE(proxy_->wait(id, 20000)); });  // every waiter wakes
  proxy_->stop(id);
  EXPECT_FALSE(proxy_->wait(id, 0));
  waiter.join();
  EXPECT_TRUE(module_->stoppedOnRequest);
  EXPECT_FALSE(proxy_->isRunning(id) || proxy_->wait(id, 20000));  // ended: false at once
  EXPECT_EQ(errorOf([&] { proxy_->stop(id); }), kStopText);
}

TEST_F(ProxyTest, IdsPostedFromManyThreadsAreUniqueAndWrapAfterTheLargest) {
  constexpr int kLast = 2147483646 - 2 * 16;
  broker_->resetTaskIds(kLast);
  std::vector<std::vector<int>> ids(4);
  std::vector<std::thread> posters;
  for (auto& own : ids) {
    posters.emplace_back([&] {
      for (int i = 0; i < 8; ++i) own.push_back(proxy_->post("add", i, i));
    });
  }
  for (auto& poster : posters) poster.join();
  std::set<int> unique, expected;
  for (const auto& own : ids) unique.insert(own.begin(), own.end());
  for (int k = 1; k <= 16; ++k) expected.insert({kLast + 2 * k, 2 * k});
  EXPECT_EQ(unique, expected);
  for (int id : unique) EXPECT_FALSE(proxy_->wait(id, 0));
  EXPECT_EQ(module_->addCalls, 32);
}

// Threads calling one module (through one shared proxy and their own) while the broker shuts
// down: each call is right until one fails with a KXError, or a generic one comes back empty.
std::string callOnce(KXProxy& proxy, int kind, int i) {
  try {
    if (kind == 0) return proxy.call<int>("add", i, 7) == i + 7 ? "" : "wrong";
    if (kind == 1) {
      const KXValue result = proxy.genericCall("add", args({i, 3}));
      return result == KXValue(i + 3) ? "" : result.isValid() ? "wrong" : "empty";
    }
    const int id = i % 2 ? proxy.genericPCall("twice", KXValue(i)) : proxy.pCall("add", i, 1);
    return id > 0 && id % 2 == 0 && !proxy.wait(id, 20000) ? "" : "wrong";
  } catch (const KXError&) {
    return "error";
  }
}

TEST_F(BrokerTest, CallsFromManyThreadsWhileTheModuleExits) {
  constexpr int kThreads = 6;
  constexpr int kWarmUp = 50;                 // right calls of each thread before the shutdown
  createModule<Calculator>(broker_, "Calc");  // held by the broker only
  const auto shared = std::make_shared<KXProxy>(broker_, "Calc");
  Latch warmedUp(kThreads);
  std::vector<std::string> ending(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    const auto proxy = t % 2 ? shared : std::make_shared<KXProxy>(broker_, "Calc");
    threads.emplace_back([&, t, proxy] {
      const auto deadline = std::chrono::steady_clock::now() + kPatience;
      int right = 0;
      while (ending[t].empty() && std::chrono::steady_clock::now() < deadline) {
        ending[t] = callOnce(*proxy, t % 3, right);
        if (ending[t].empty() && ++right == kWarmUp) warmedUp.countDown();
      }
      if (right < kWarmUp) ending[t] += " before warming up", warmedUp.countDown();
    });
  }
  EXPECT_TRUE(warmedUp.wait());
  ::testing::internal::CaptureStdout();  // the exiting module's warnings
  broker_->shutdown();
  for (auto& thread : threads) thread.join();
  ::testing::internal::GetCapturedStdout();
  for (int t = 0; t < kThreads; ++t)
    EXPECT_EQ(ending[t], t % 3 == 1 && ending[t] == "empty" ? "empty" : "error") << t;
}

}  // namespace
}  // namespace testing
}  // namespace KX
