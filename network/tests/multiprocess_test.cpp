// Brokers in separate processes: the broker program `velmo` as the root, test nodes as
// children, and this process as a grandchild.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <thread>

#include "broker/kxbroker.h"
#include "module/kxproxy.h"
#include "module/tests/proxy_test_support.h"
#include "network/tests/process_test_support.h"
#include "network/tests/socket_test_support.h"

namespace KX {
namespace testing {
namespace {

std::vector<std::string> rootCommand() {
  return {VELMO_BROKER_PROGRAM, "--ip", "127.0.0.1", "--port", "0"};
}

std::vector<std::string> nodeCommand(const std::string& name, int parentPort,
                                     const std::string& module) {
  return {VELMO_TEST_NODE, name, std::to_string(parentPort), module};
}

// One HTTP GET on a fresh connection; the whole answer.
std::string httpGet(int port, const std::string& path) {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  std::string answer;
  if (connectLoopback(fd, port, 10)) {
    const std::string request = "GET " + path +
                                " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port) +
                                "\r\nConnection: close\r\n\r\n";
    if (::send(fd, request.data(), request.size(), MSG_NOSIGNAL) ==
        static_cast<ssize_t>(request.size())) {
      char buffer[4096];
      ssize_t got = 0;
      while ((got = ::recv(fd, buffer, sizeof(buffer), 0)) > 0) {
        answer.append(buffer, static_cast<std::size_t>(got));
      }
    }
  }
  ::close(fd);
  return answer;
}

KXValue binaryOf(const std::string& bytes) {
  KXValue value;
  value.setBinary(bytes.data(), bytes.size());
  return value;
}

// The root program, two children, and this process as a grandchild under the second.
class ProcessTreeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    rootPort_ = startRoot(root_);
    ASSERT_NE(rootPort_, 0);
    nodeA_ = std::make_unique<ChildProcess>(nodeCommand("nodeA", rootPort_, "OnA"));
    nodeB_ = std::make_unique<ChildProcess>(nodeCommand("nodeB", rootPort_, "OnB"));
    portA_ = readyPort(*nodeA_);
    portB_ = readyPort(*nodeB_);
    ASSERT_NE(portA_, 0);
    ASSERT_NE(portB_, 0);
    leaf_ =
        KXBroker::createBroker("leaf", "127.0.0.1", 0, "127.0.0.1", portB_, KXBroker::kKeepAlive);
  }

  void TearDown() override {
    if (leaf_) leaf_->shutdown();
  }

  ChildProcess root_{rootCommand()};
  int rootPort_ = 0;
  std::unique_ptr<ChildProcess> nodeA_;
  std::unique_ptr<ChildProcess> nodeB_;
  int portA_ = 0;
  int portB_ = 0;
  std::shared_ptr<KXBroker> leaf_;
};

TEST_F(ProcessTreeTest, AGrandchildCallsAModuleOnASiblingBranch) {
  KXProxy proxy(leaf_, "OnA");
  EXPECT_FALSE(proxy.isLocal());
  EXPECT_EQ(proxy.getBrokerName(), "nodeA");
  EXPECT_EQ(proxy.getModuleInfo().port, portA_);
  EXPECT_EQ(proxy.call<int>("add", 40, 2), 42);
  EXPECT_EQ(proxy.call<std::string>("greet", "tree"), "Hello tree");
  EXPECT_EQ(proxy.genericCall("echo", args({KXValue("key42")})), KXValue("key42"));
  EXPECT_EQ(errorOf([&] { proxy.call<void>("fail"); }),
            errorText("OnA", "fail", "deliberate failure"));
  // The root's memory module is found upwards, from this process.
  KXProxy memory(leaf_, "KXMemory");
  EXPECT_EQ(memory.getBrokerName(), "Velmo");
  memory.call<void>("insertData", "fromLeaf", 7);
  EXPECT_EQ(memory.genericCall("getData", args({KXValue("fromLeaf")})), KXValue(7));
}

TEST_F(ProcessTreeTest, BinaryValuesCrossProcessesAsAttachments) {
  KXProxy proxy(leaf_, "OnA");
  std::string large(1 << 20, '\0');
  for (std::size_t i = 0; i < large.size(); ++i) large[i] = static_cast<char>(i % 251);
  const KXValue value =
      args({binaryOf("one"), args({binaryOf(large), KXValue(3)}), binaryOf("three")});
  EXPECT_EQ(proxy.genericCall("echo", args({value})), value);
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
  const int pause = proxy.genericPCall("pause", args({KXValue(50)}));
  EXPECT_FALSE(proxy.wait(pause, 0));
}

TEST_F(ProcessTreeTest, TheRootListsTheWholeTree) {
  const std::string page = httpGet(rootPort_, "/index.xml");
  EXPECT_NE(page.find("<name>nodeA</name>"), std::string::npos) << page;
  EXPECT_NE(page.find("<name>nodeB</name>"), std::string::npos) << page;
  const std::string pageB = httpGet(portB_, "/index.xml");
  EXPECT_NE(pageB.find("<name>leaf</name>"), std::string::npos) << pageB;
  KXProxy proxy(leaf_, "OnB");
  EXPECT_EQ(proxy.call<int>("twice", 21), 42);
  // Every broker of the tree, seen from the root's own page of modules.
  const std::string full = httpGet(rootPort_, "/?evalKXMemory.getData([\"ClientConnected\"])");
  EXPECT_NE(full.find("127.0.0.1"), std::string::npos) << full;
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
  ASSERT_NE(memory, std::string::npos) << output;
  ASSERT_NE(network, std::string::npos) << output;
  EXPECT_LT(memory, network);
  EXPECT_NE(output.find("Exit", network), std::string::npos) << output;
}

TEST(ProcessTest, APortHeldByAnotherProcessIsRefused) {
  PortHolder holder;
  const std::string port = std::to_string(holder.port());

  ChildProcess broker({VELMO_BROKER_PROGRAM, "--ip", "127.0.0.1", "--port", port});
  EXPECT_EQ(broker.waitExit(), 1);
  EXPECT_NE(
      broker.output().find("Port " + port + " is not free. Another broker is using this port."),
      std::string::npos)
      << broker.output();
}

TEST(ProcessTest, AFrozenChildIsReportedThenLost) {
  ChildProcess root(rootCommand());
  const int rootPort = startRoot(root);
  ASSERT_NE(rootPort, 0);
  ChildProcess node(nodeCommand("frozen", rootPort, "Ice"));
  ASSERT_NE(readyPort(node), 0);
  ASSERT_TRUE(root.waitFor("Client \"frozen\" connected"));
  node.signal(SIGSTOP);
  // Silent for more than 10 s: reported on each check, then dropped after five.
  EXPECT_TRUE(root.waitFor("Client \"frozen\" is not responding...", std::chrono::seconds(30)))
      << root.output();
  EXPECT_TRUE(root.waitFor("Client \"frozen\" was lost", std::chrono::seconds(30)))
      << root.output();
  EXPECT_TRUE(root.waitFor("Client \"frozen\" unregistered", std::chrono::seconds(5)));
  const std::string output = root.output();
  std::size_t reports = 0;
  for (std::size_t at = output.find("is not responding..."); at != std::string::npos;
       at = output.find("is not responding...", at + 1)) {
    ++reports;
  }
  EXPECT_EQ(reports, 5u) << output;
  node.signal(SIGCONT);
}

TEST(ProcessTest, AChildOutlivesItsParent) {
  ChildProcess root(rootCommand());
  const int rootPort = startRoot(root);
  ASSERT_NE(rootPort, 0);
  ChildProcess node(nodeCommand("survivor", rootPort, "Keep"));
  const int nodePort = readyPort(node);
  ASSERT_NE(nodePort, 0);
  root.signal(SIGKILL);
  root.waitExit();
  EXPECT_TRUE(node.waitFor("heartbeat to the parent failed", std::chrono::seconds(15)))
      << node.output();
  // It goes on serving its own modules.
  const std::string page = httpGet(nodePort, "/index.xml");
  EXPECT_NE(page.find("<name>Keep</name>"), std::string::npos) << page;
  auto caller = KXBroker::createBroker("caller", "127.0.0.1", 0, "", 0, KXBroker::kKeepAlive);
  {
    KXProxy proxy("Keep", "127.0.0.1", nodePort);
    EXPECT_EQ(proxy.call<int>("add", 1, 2), 3);
  }
  caller->shutdown();
  node.signal(SIGTERM);
  EXPECT_EQ(node.waitExit(), 0);
}

}  // namespace
}  // namespace testing
}  // namespace KX
