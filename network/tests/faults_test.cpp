// Brokers on hosts of their own: the broker program as the root in one network namespace,
// test nodes as its children in two others, and this process on the switch between them.
// Links are cut, made lossy or slow and brokers killed while the tree is watched through
// the brokers' logs and called from here. Needs root; skipped otherwise.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "broker/kxbroker.h"
#include "module/kxproxy.h"
#include "module/tests/proxy_test_support.h"
#include "network/tests/netns_test_support.h"
#include "network/tests/process_test_support.h"
#include "value/kxerror.h"

namespace KX {
namespace testing {
namespace {

using std::chrono::seconds;

constexpr int kRootPort = 9559;
// A child is missed once silent for more than 10 s, then reported five times a second
// apart before it is lost: some 17 s after its last beat, given more under sanitizers.
constexpr seconds kLossPatience{45};
// A start, a registration, a search or a call: a second or two, given more.
constexpr seconds kStepPatience{20};
// Between brokers every connection gives up after 10 s: nothing may take longer.
constexpr seconds kConnectionTimeout{10};

// What a call came to: its result as text, or the kind and text of its error.
struct Outcome {
  std::string kind;
  std::string text;
};

template <typename Call>
Outcome outcomeOf(Call call) {
  try {
    return {"result", call()};
  } catch (const KXNetworkError& error) {
    return {"KXNetworkError", error.what()};
  } catch (const KXError& error) {
    return {"KXError", error.what()};
  }
}

std::string moduleOf(const std::string& node) { return "On" + node.substr(4); }

class FaultTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) {
      GTEST_SKIP() << "needs root: the test builds network namespaces of its own";
    }
    network_ = std::make_unique<TestNetwork>(std::vector<std::string>{"root", "nodeA", "nodeB"});
    if (!network_->unavailable().empty()) {
      GTEST_SKIP() << "cannot build network namespaces and links: " << network_->unavailable();
    }
    caller_ =
        KXBroker::createBroker("caller", TestNetwork::ownAddress(), 0, "", 0, KXBroker::kKeepAlive);
  }

  void TearDown() override {
    if (caller_) caller_->shutdown();
  }

  void startRoot() {
    root_ = std::make_unique<ChildProcess>(network_->inside(
        "root", {VELMO_BROKER_PROGRAM, "--ip", rootIp(), "--port", std::to_string(kRootPort)}));
    ASSERT_EQ(testing::startRoot(*root_, rootIp()), kRootPort) << root_->output();
  }

  // The root, then each of `nodes` as its child hosting the module moduleOf(node).
  void startTree(const std::vector<std::string>& nodes) {
    ASSERT_NO_FATAL_FAILURE(startRoot());
    for (const std::string& node : nodes) {
      auto process = std::make_unique<ChildProcess>(
          network_->inside(node, {VELMO_TEST_NODE, node, std::to_string(kRootPort), moduleOf(node),
                                  network_->address(node), rootIp()}));
      ports_[node] = process->numberAfter("READY ");
      ASSERT_NE(ports_[node], 0) << process->output();
      nodes_[node] = std::move(process);
      ASSERT_TRUE(root_->waitFor("Client \"" + node + "\" connected", kStepPatience))
          << root_->output();
    }
  }

  std::string rootIp() const { return network_->address("root"); }

  // add(a, b) on the node's module, found through the broker at ip:port.
  Outcome add(const std::string& node, const std::string& ip, int port, int a, int b) {
    return within(kStepPatience, [=] {
      return outcomeOf([&] {
        return std::to_string(KXProxy(caller_, moduleOf(node), ip, port).call<int>("add", a, b));
      });
    });
  }

  // Runs `work` on a thread of its own and waits for it at most `patience`: a call that
  // hangs fails the test rather than hanging it (the caller's broker is then shut down,
  // which ends every call it has open).
  template <typename Work>
  auto within(seconds patience, Work work) -> decltype(work()) {
    auto done = std::async(std::launch::async, std::move(work));
    if (done.wait_for(patience) != std::future_status::ready) {
      ADD_FAILURE() << "still waiting after " << patience.count() << " s";
      caller_->shutdown();
    }
    return done.get();
  }

  std::unique_ptr<TestNetwork> network_;
  std::unique_ptr<ChildProcess> root_;
  std::map<std::string, std::unique_ptr<ChildProcess>> nodes_;
  std::map<std::string, int> ports_;
  std::shared_ptr<KXBroker> caller_;
};

TEST_F(FaultTest, ACutChildIsReportedThenLostWhileItsSiblingStays) {
  ASSERT_NO_FATAL_FAILURE(startTree({"nodeA", "nodeB"}));
  network_->cut("nodeA");
  EXPECT_TRUE(root_->waitFor("Client \"nodeA\" is not responding...", kLossPatience))
      << root_->output();
  EXPECT_TRUE(root_->waitFor("Client \"nodeA\" was lost", kStepPatience)) << root_->output();
  EXPECT_TRUE(nodes_["nodeA"]->waitFor("heartbeat to the parent failed: ", kStepPatience))
      << nodes_["nodeA"]->output();
  const std::string log = root_->output();
  EXPECT_LT(log.find("Client \"nodeA\" is not responding..."),
            log.find("Client \"nodeA\" was lost"));
  EXPECT_EQ(log.find("Client \"nodeB\" is not responding..."), std::string::npos) << log;
  const Outcome sibling = add("nodeB", rootIp(), kRootPort, 2, 3);
  EXPECT_EQ(sibling.kind + " " + sibling.text, "result 5");
}

TEST_F(FaultTest, AHealedChildRegistersAgainAndIsFoundFromEverywhere) {
  ASSERT_NO_FATAL_FAILURE(startTree({"nodeA", "nodeB"}));
  network_->cut("nodeA");
  ASSERT_TRUE(root_->waitFor("Client \"nodeA\" was lost", kLossPatience)) << root_->output();
  const std::size_t healed = root_->output().size();
  network_->heal("nodeA");
  EXPECT_TRUE(root_->waitFor("Client \"nodeA\" connected", kStepPatience, healed))
      << root_->output() << "\n---- nodeA:\n"
      << nodes_["nodeA"]->output();
  const struct {
    const char* from;
    std::string ip;
    int port;
  } searches[] = {
      {"the root", rootIp(), kRootPort},
      {"the sibling", network_->address("nodeB"), ports_["nodeB"]},
  };
  for (const auto& search : searches) {
    const Outcome found = add("nodeA", search.ip, search.port, 40, 2);
    EXPECT_EQ(found.kind + " " + found.text, "result 42") << "from " << search.from;
  }
}

TEST_F(FaultTest, CallersOfAKilledBrokerGetNetworkErrorsAtOnce) {
  ASSERT_NO_FATAL_FAILURE(startTree({"nodeA"}));
  constexpr int kCallers = 4;
  std::atomic<int> bound{0};
  std::vector<std::future<Outcome>> calls;
  for (int i = 0; i < kCallers; ++i) {
    calls.push_back(std::async(std::launch::async, [&] {
      return outcomeOf([&] {
        KXProxy proxy(caller_, "OnA", rootIp(), kRootPort);
        ++bound;
        proxy.call<void>("pause", 60000);  // far longer than the test waits
        return std::string("returned");
      });
    }));
  }
  KXProxy idle(caller_, "OnA", rootIp(), kRootPort);
  ASSERT_EQ(idle.call<int>("add", 1, 1), 2);
  ASSERT_TRUE(eventually([&] { return bound == kCallers; }));
  std::this_thread::sleep_for(std::chrono::milliseconds(300));  // lets the calls arrive
  nodes_["nodeA"]->signal(SIGKILL);
  nodes_["nodeA"]->waitExit(kStepPatience);

  const std::string lostCall =
      errorText("KXNetwork", "callMethod", "Error calling remote module method OnA::pause: ");
  for (auto& call : calls) {
    ASSERT_EQ(call.wait_for(kConnectionTimeout), std::future_status::ready);
    const Outcome outcome = call.get();
    EXPECT_EQ(outcome.kind, "KXNetworkError") << outcome.text;
    EXPECT_EQ(outcome.text.substr(0, lostCall.size()), lostCall);
  }
  // Afterwards: a call on a proxy bound before, and a search that meets the dead child.
  const struct {
    const char* what;
    std::function<std::string()> call;
    Outcome expected;
  } later[] = {
      {"an earlier proxy",
       [&] { return std::to_string(idle.call<int>("add", 1, 2)); },
       {"KXNetworkError",
        errorText("KXNetwork", "callMethod", "Error calling remote module method OnA::add: ")}},
      {"a new search",
       [&] {
         return std::to_string(KXProxy(caller_, "OnA", rootIp(), kRootPort).call<int>("add", 1, 2));
       },
       {"KXError", errorText("KXProxy", "constructor", "Module 'OnA' not found.")}},
  };
  for (const auto& c : later) {
    const Outcome outcome = within(kConnectionTimeout, [&] { return outcomeOf(c.call); });
    EXPECT_EQ(outcome.kind, c.expected.kind) << c.what << ": " << outcome.text;
    EXPECT_EQ(outcome.text.substr(0, c.expected.text.size()), c.expected.text) << c.what;
  }
}

TEST_F(FaultTest, ChildrenComeBackUnderARestartedRoot) {
  ASSERT_NO_FATAL_FAILURE(startTree({"nodeA", "nodeB"}));
  root_->signal(SIGKILL);
  root_->waitExit(kStepPatience);
  for (const char* node : {"nodeA", "nodeB"}) {
    EXPECT_TRUE(nodes_[node]->waitFor("heartbeat to the parent failed: ", kStepPatience))
        << nodes_[node]->output();
  }
  ASSERT_NO_FATAL_FAILURE(startRoot());
  for (const char* node : {"nodeA", "nodeB"}) {
    EXPECT_TRUE(root_->waitFor("Client \"" + std::string(node) + "\" connected", kStepPatience))
        << root_->output() << "\n---- " << node << ":\n"
        << nodes_[node]->output();
    const Outcome found = add(node, rootIp(), kRootPort, 20, 22);
    EXPECT_EQ(found.kind + " " + found.text, "result 42") << node;
  }
}

// A link that drops packets or holds them back: calls take longer, and answer the same.
struct LinkFault {
  const char* name;
  void (TestNetwork::*apply)(const std::string& host);
  // What the fault did: packets dropped or held back (none would mean no fault).
  long (TestNetwork::*evidence)(const std::string& host) const;
  bool needsNft;
};

void PrintTo(const LinkFault& fault, std::ostream* out) { *out << fault.name; }

class LinkFaultTest : public FaultTest, public ::testing::WithParamInterface<LinkFault> {};

TEST_P(LinkFaultTest, CallsStayCorrect) {
  if (GetParam().needsNft && !TestNetwork::hasNft()) {
    GTEST_SKIP() << "needs nft (Debian package nftables) to drop packets";
  }
  ASSERT_NO_FATAL_FAILURE(startTree({"nodeA"}));
  KXProxy proxy(caller_, "OnA", rootIp(), kRootPort);  // bound while the link is sound
  (network_.get()->*GetParam().apply)("nodeA");

  KXValue bytes;
  std::vector<unsigned char> pattern(24 * 1024);
  for (std::size_t i = 0; i < pattern.size(); ++i) pattern[i] = static_cast<unsigned char>(i * 7);
  bytes.setBinary(pattern.data(), pattern.size());
  const KXValue values[] = {KXValue(42), KXValue(-1.5f), KXValue("across a bad link"),
                            args({1, "x", args({2.5f})}), bytes};
  constexpr int kRounds = 3;
  const std::vector<KXValue> echoed = within(seconds(90), [&] {
    std::vector<KXValue> answers;
    for (int round = 0; round < kRounds; ++round) {
      for (const KXValue& value : values)
        answers.push_back(proxy.genericCall("echo", args({value})));
    }
    return answers;
  });
  ASSERT_EQ(echoed.size(), kRounds * std::size(values));
  for (std::size_t i = 0; i < echoed.size(); ++i) {
    EXPECT_EQ(echoed[i], values[i % std::size(values)]) << "call " << i;
  }
  EXPECT_GT((network_.get()->*GetParam().evidence)("nodeA"), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Links, LinkFaultTest,
    ::testing::Values(LinkFault{"Lossy", &TestNetwork::addLoss, &TestNetwork::droppedPackets, true},
                      LinkFault{"Slow", &TestNetwork::addSlowness, &TestNetwork::throttledPackets,
                                false}),
    [](const ::testing::TestParamInfo<LinkFault>& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace testing
}  // namespace KX
