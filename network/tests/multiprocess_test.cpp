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

// The root program, two children, and this process as a grandchild under the second.
TEST(ProcessTest, AGrandchildCallsAModuleOnASiblingBranch) {
  ChildProcess root(rootCommand());
  const int rootPort = startRoot(root);
  int portA = 0;
  int portB = 0;
  const auto nodeA = startNode("nodeA", rootPort, "OnA", portA);
  const auto nodeB = startNode("nodeB", rootPort, "OnB", portB);
  ASSERT_TRUE(rootPort != 0 && portA != 0 && portB != 0);
  auto leaf =
      KXBroker::createBroker("leaf", "127.0.0.1", 0, "127.0.0.1", portB, KXBroker::kKeepAlive);
  {
    KXProxy proxy(leaf, "OnA");
    EXPECT_EQ(proxy.getBrokerName(), "nodeA");
    EXPECT_EQ(proxy.getModuleInfo().port, portA);
    EXPECT_EQ(proxy.call<int>("add", 40, 2), 42);
  }
  // Searches never come back down the branch they came from, and never loop.
  EXPECT_EQ(errorOf([&] { KXProxy nowhere(leaf, "Nowhere"); }),
            errorText("KXProxy", "constructor", "Module 'Nowhere' not found."));
  leaf->shutdown();
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
  wire::WireConnection pages(nodePort);
  pages.sendAll("GET /index.xml HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(nodePort) +
                "\r\n\r\n");
  EXPECT_NE(pages.read().value_or(wire::HttpReply{}).body.find("<name>Keep</name>"),
            std::string::npos);
  auto caller = KXBroker::createBroker("caller", "127.0.0.1", 0, "", 0, KXBroker::kKeepAlive);
  EXPECT_EQ(KXProxy(caller, "Keep", "127.0.0.1", nodePort).call<int>("add", 1, 2), 3);
  caller->shutdown();
  node->signal(SIGTERM);
  EXPECT_EQ(node->waitExit(), 0);
}

}  // namespace
}  // namespace testing
}  // namespace KX
