// The velmo program's commands through the real binary, against a tree of two velmo
// processes: the tree seen from either broker, calls with values of each type (text and
// JSON), errors, and watch.
#include <signal.h>

#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "network/tests/process_test_support.h"

namespace KX {
namespace testing {
namespace {

struct Finished {
  std::optional<int> status;
  std::string output;
};

// Runs `velmo ARGUMENTS... --broker 127.0.0.1:PORT` to its end.
Finished velmo(int port, std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), VELMO_BROKER_PROGRAM);
  arguments.push_back("--broker");
  arguments.push_back("127.0.0.1:" + std::to_string(port));
  ChildProcess command(arguments);
  Finished run;
  run.status = command.waitExit();
  run.output = command.output();
  return run;
}

class CommandLineTest : public ::testing::Test {
 protected:
  void SetUp() override {
    rootPort_ = startRoot(root_);
    ASSERT_NE(rootPort_, 0);
    child_.emplace(std::vector<std::string>{VELMO_BROKER_PROGRAM, "--name", "child", "--ip",
                                            "127.0.0.1", "--port", "0", "--parent-ip", "127.0.0.1",
                                            "--parent-port", std::to_string(rootPort_)});
    // The child shows in the tree once it has registered.
    const std::regex childLine("child 127\\.0\\.0\\.1:(\\d+)");
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    std::smatch match;
    std::string tree;
    while (!std::regex_search(tree = velmo(rootPort_, {"tree"}).output, match, childLine)) {
      ASSERT_LT(std::chrono::steady_clock::now(), deadline) << tree;
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    childPort_ = std::stoi(match[1]);
  }

  ChildProcess root_{{VELMO_BROKER_PROGRAM, "--name", "root", "--ip", "127.0.0.1", "--port", "0"}};
  std::optional<ChildProcess> child_;
  int rootPort_ = 0;
  int childPort_ = 0;
};

TEST_F(CommandLineTest, TheTreeIsTheSameFromEitherBroker) {
  const std::string expected = "root 127.0.0.1:" + std::to_string(rootPort_) +
                               "\n  KXBehaviorManager\n  KXMemory\n  KXNetwork\n"
                               "  KXResourceManager\nchild 127.0.0.1:" +
                               std::to_string(childPort_) + "\n  KXBehaviorManager\n  KXNetwork\n";
  for (int port : {rootPort_, childPort_}) {
    const Finished tree = velmo(port, {"tree"});
    EXPECT_EQ(tree.status, 0);
    EXPECT_EQ(tree.output, expected);
  }
  EXPECT_EQ(velmo(childPort_, {"list", "--json"}).output,
            "[[\"KXBehaviorManager\",\"127.0.0.1:" + std::to_string(rootPort_) +
                "\"],[\"KXMemory\",\"127.0.0.1:" + std::to_string(rootPort_) +
                "\"],[\"KXNetwork\",\"127.0.0.1:" + std::to_string(rootPort_) +
                "\"],[\"KXResourceManager\",\"127.0.0.1:" + std::to_string(rootPort_) +
                "\"],[\"KXBehaviorManager\",\"127.0.0.1:" + std::to_string(childPort_) +
                "\"],[\"KXNetwork\",\"127.0.0.1:" + std::to_string(childPort_) + "\"]]\n");
}

TEST_F(CommandLineTest, ValuesGoInAndComeBackInTextAndJson) {
  const struct {
    std::string argument;
    std::string text;
    std::string json;
  } cases[] = {
      {"42", "42", "42"},
      {"-2.5", "-2.5", "-2.5"},
      {"0x1F", "31", "31"},
      {"true", "true", "true"},
      {"hello", "\"hello\"", "\"hello\""},  // a plain word is text
      {"\"x y\"", "\"x y\"", "\"x y\""},
      {"[1, [\"a\", false], 0.5]", "[1, [\"a\", false], 0.5]", "[1,[\"a\",false],0.5]"},
  };
  for (const auto& c : cases) {
    ASSERT_EQ(velmo(childPort_, {"call", "KXMemory.insertData", "v", c.argument}).status, 0);
    EXPECT_EQ(velmo(childPort_, {"call", "KXMemory.getData", "v"}).output, c.text + "\n");
    EXPECT_EQ(velmo(rootPort_, {"call", "--json", "KXMemory.getData", "v"}).output, c.json + "\n");
  }
}

TEST_F(CommandLineTest, ErrorsPrintTheFrameworksTextAndFail) {
  const struct {
    std::vector<std::string> arguments;
    int status;
    std::string output;
  } cases[] = {
      {{"call", "KXMemory.getData", "nope"},
       1,
       "\tKXMemory::getData\n\tData \"nope\" does not exist.\n"},
      {{"call", "Nobody.ping"}, 1, "\tKXProxy::constructor\n\tModule 'Nobody' not found.\n"},
      {{"call", "KXMemory"}, 1, "\tvelmo::call\n\t\"KXMemory\" is not MODULE.METHOD\n"},
  };
  for (const auto& c : cases) {
    const Finished run = velmo(rootPort_, c.arguments);
    EXPECT_EQ(run.status, c.status);
    EXPECT_EQ(run.output, c.output);
  }
}

TEST_F(CommandLineTest, WatchPrintsEachNewValueInOrderUntilInterrupted) {
  ChildProcess watch(
      {VELMO_BROKER_PROGRAM, "watch", "w", "--broker", "127.0.0.1:" + std::to_string(childPort_)});
  ASSERT_TRUE(watch.waitFor("Watching w (Ctrl-C to stop)\n")) << watch.output();
  std::string expected = "Watching w (Ctrl-C to stop)\n";
  for (int i = 0; i < 20; ++i) {
    ASSERT_EQ(velmo(rootPort_, {"call", "KXMemory.insertData", "w", std::to_string(i)}).status, 0);
    expected += std::to_string(i) + "\n";
  }
  EXPECT_TRUE(watch.waitFor("19\n")) << watch.output();
  watch.signal(SIGINT);
  EXPECT_EQ(watch.waitExit(), 0);
  EXPECT_EQ(watch.output(), expected);
  // It left the tree on its way out.
  EXPECT_EQ(velmo(rootPort_, {"tree"}).output.find("velmo-watch"), std::string::npos);
}

TEST_F(CommandLineTest, HelpDescribesAMethod) {
  const Finished help = velmo(rootPort_, {"help", "KXMemory.getDataOnChange"});
  EXPECT_EQ(help.status, 0);
  EXPECT_EQ(help.output.rfind("KXMemory.getDataOnChange(name, timeoutMs)\n  ", 0), 0u)
      << help.output;
}

}  // namespace
}  // namespace testing
}  // namespace KX
