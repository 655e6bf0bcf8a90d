// Brokers in separate processes: the broker program `velmo` as the root, test nodes as
// children, and this process as a grandchild.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "broker/kxbroker.h"
#include "module/kxproxy.h"
#include "module/tests/proxy_test_support.h"
#include "network/tests/process_test_support.h"
#include "network/tests/wire_test_support.h"

namespace KX {
namespace testing {
namespace {

std::vector<std::string> rootCommand() {
  return {VELMO_BROKER_PROGRAM, "--ip", "127.0.0.1", "--port", "0"};
}

std::unique_ptr<ChildProcess> startNode(const std::string& name, int parentPort,
                                        const std::string& module, int& port) {
  auto node = std::make_unique<ChildProcess>(
      std::vector<std::string>{VELMO_TEST_NODE, name, std::to_string(parentPort), module});
  port = node->numberAfter("READY ");
  return node;
}

// The body of a page of the broker on `port`.
std::string page(int port, const std::string& path) {
  wire::WireConnection connection(port);
  connection.request("GET", path);
  return connection.read().value_or(wire::HttpReply{}).body;
}

// The root program, two children, and this process as a grandchild under the second.
class ProcessTreeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(rootPort_ = startRoot(root_), 0);
    nodeA_ = startNode("nodeA", rootPort_, "OnA", portA_);
    nodeB_ = startNode("nodeB", rootPort_, "OnB", portB_);
    ASSERT_TRUE(portA_ != 0 && portB_ != 0);
    leaf_ =
        KXBroker::createBroker("leaf", "127.0.0.1", 0, "127.0.0.1", portB_, KXBroker::kKeepAlive);
  }

  void TearDown() override {
    if (leaf_) leaf_->shutdown();
  }

  ChildProcess root_{rootCommand()};
  int rootPort_ = 0;
  int portA_ = 0;
  int portB_ = 0;
  std::unique_ptr<ChildProcess> nodeA_;
  std::unique_ptr<ChildProcess> nodeB_;
  std::shared_ptr<KXBroker> leaf_;
};

TEST_F(ProcessTreeTest, AGrandchildCallsAModuleOnASiblingBranch) {
  KXProxy proxy(leaf_, "OnA");
  EXPECT_FALSE(proxy.isLocal());
  EXPECT_EQ(proxy.getBrokerName(), "nodeA");
  EXPECT_EQ(proxy.getModuleInfo().port, portA_);
  EXPECT_EQ(proxy.call<int>("add", 40, 2), 42);
  EXPECT_EQ(errorOf([&] { proxy.call<void>("fail"); }),
            errorText("OnA", "fail", "deliberate failure"));
  // Values of every kind, Binary ones as attachments.
  std::string large(1 << 20, '\0');
  for (std::size_t i = 0; i < large.size(); ++i) large[i] = static_cast<char>(i % 251);
  const KXValue value = args({binaryOf("one"), args({binaryOf(large), 3, 2.5f, true}), "three"});
  EXPECT_EQ(proxy.genericCall("echo", args({value})), value);
  // The root's memory module is found upwards, from this process.
  KXProxy memory(leaf_, "KXMemory");
  EXPECT_EQ(memory.getBrokerName(), "Velmo");
  memory.call<void>("insertData", "fromLeaf", 7);
  EXPECT_EQ(memory.genericCall("getData", args({"fromLeaf"})), KXValue(7));
}

TEST_F(ProcessTreeTest, ParallelCallsAcrossProcesses) {
  KXProxy proxy(leaf_, "OnA");
  const int id = proxy.pCall("runUntilStopped");
  ASSERT_GT(id, 0);
  EXPECT_TRUE(eventually([&] { return proxy.isRunning(id); }));
  EXPECT_TRUE(proxy.wait(id, 40));  // still running: the wait timed out
  proxy.stop(id);
  EXPECT_FALSE(proxy.wait(id, 0));
  EXPECT_FALSE(proxy.isRunning(id));
  EXPECT_FALSE(proxy.wait(proxy.genericPCall("pause", args({50})), 0));
}

TEST_F(ProcessTreeTest, TheRootListsTheWholeTree) {
  const std::string root = page(rootPort_, "/index.xml");
  EXPECT_NE(root.find("<name>nodeA</name>"), std::string::npos) << root;
  EXPECT_NE(root.find("<name>nodeB</name>"), std::string::npos) << root;
  EXPECT_NE(page(portB_, "/index.xml").find("<name>leaf</name>"), std::string::npos);
  EXPECT_NE(page(rootPort_, "/?evalKXMemory.getData([\"ClientConnected\"])").find("127.0.0.1"),
            std::string::npos);
}

TEST_F(ProcessTreeTest, AChildStoppedBySigtermLeavesItsParent) {
  nodeA_->signal(SIGTERM);
  EXPECT_EQ(nodeA_->waitExit(), 0);
  EXPECT_TRUE(root_.waitFor("Client \"nodeA\" unregistered")) << root_.output();
  EXPECT_EQ(errorOf([&] { KXProxy proxy(leaf_, "OnA"); }),
            errorText("KXProxy", "constructor", "Module 'OnA' not found."));
}

TEST(ProcessTest, TheBrokerProgramStopsInOrderOnSigterm) {
  ChildProcess root(rootCommand());
  ASSERT_NE(startRoot(root), 0);
  root.signal(SIGTERM);
  EXPECT_EQ(root.waitExit(), 0);
  const std::string output = root.output();
  const std::size_t memory = output.find("Stopping KXMemory");
  const std::size_t network = output.find("Stopping KXNetwork");
  EXPECT_LT(memory, network) << output;
  EXPECT_NE(output.find("Exit", network), std::string::npos) << output;
}

TEST(ProcessTest, APortHeldByAnotherProcessIsRefused) {
  PortHolder holder;
  const std::string port = std::to_string(holder.port());
  ChildProcess broker({VELMO_BROKER_PROGRAM, "--ip", "127.0.0.1", "--port", port});
  EXPECT_EQ(broker.waitExit(), 1);
  EXPECT_TRUE(broker.waitFor("Port " + port + " is not free. Another broker is using this port."))
      << broker.output();
}

// Heartbeat silence was once compared below one second, so that a child checked exactly
// 10 s after its beat counted as silent: exactly five reports, then the loss.
TEST(ProcessTest, AFrozenChildIsReportedThenLost) {
  ChildProcess root(rootCommand());
  int nodePort = 0;
  const auto node = startNode("frozen", startRoot(root), "Ice", nodePort);
  ASSERT_NE(nodePort, 0);
  ASSERT_TRUE(root.waitFor("Client \"frozen\" connected"));
  node->signal(SIGSTOP);
  EXPECT_TRUE(root.waitFor("Client \"frozen\" was lost", std::chrono::seconds(60)))
      << root.output();
  EXPECT_TRUE(root.waitFor("Client \"frozen\" unregistered", std::chrono::seconds(5)));
  const std::string output = root.output();
  std::size_t reports = 0;
  for (std::size_t at = 0;
       (at = output.find("Client \"frozen\" is not responding...", at)) != std::string::npos;
       ++at) {
    ++reports;
  }
  EXPECT_EQ(reports, 5u) << output;
  node->signal(SIGCONT);
}

TEST(ProcessTest, AChildOutlivesItsParent) {
  ChildProcess root(rootCommand());
  int nodePort = 0;
  const auto node = startNode("survivor", startRoot(root), "Keep", nodePort);
  ASSERT_NE(nodePort, 0);
  root.signal(SIGKILL);
  root.waitExit();
  // One line: the error's description, not its multi-line text.
  EXPECT_TRUE(node->waitFor("heartbeat to the parent failed: Error calling remote module method ",
                            std::chrono::seconds(15)))
      << node->output();
  // It goes on serving its own modules.
  EXPECT_NE(page(nodePort, "/index.xml").find("<name>Keep</name>"), std::string::npos);
  auto caller = KXBroker::createBroker("caller", "127.0.0.1", 0, "", 0, KXBroker::kKeepAlive);
  EXPECT_EQ(KXProxy("Keep", "127.0.0.1", nodePort).call<int>("add", 1, 2), 3);
  caller->shutdown();
  node->signal(SIGTERM);
  EXPECT_EQ(node->waitExit(), 0);
}

}  // namespace
}  // namespace testing
}  // namespace KX
