// The velmo program through its real binary: what it says when it cannot start, and its
// commands against a tree of two velmo processes.
#include <signal.h>

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "network/tests/process_test_support.h"

namespace KX {
namespace testing {
namespace {

struct Finished {
  std::optional<int> status;
  std::string output;
};

// Runs `velmo ARGUMENTS...` to its end; with a port, against the broker there.
Finished velmo(int port, std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), VELMO_BROKER_PROGRAM);
  if (port != 0)
    arguments.insert(arguments.end(), {"--broker", "127.0.0.1:" + std::to_string(port)});
  ChildProcess command(arguments);
  const std::optional<int> status = command.waitExit();
  return {status, command.output()};
}

TEST(ProgramStartTest, AMistakeIsNamedAndEndsTheProgram) {
  const std::string program = VELMO_BROKER_PROGRAM;
  Finished run = velmo(0, {"--colour"});
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.output.rfind(program + ": unknown option \"--colour\"\nUsage: " + program, 0), 0u);
  run = velmo(0, {"--allow-host", "a:b"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.output, program + ": \"a:b\" is not a host name.\n");
}

class CommandLineTest : public ::testing::Test {
 protected:
  void SetUp() override {
    rootPort_ = startRoot(root_);
    ASSERT_NE(rootPort_, 0);
    child_.emplace(std::vector<std::string>{VELMO_BROKER_PROGRAM, "--name", "child", "--ip",
                                            "127.0.0.1", "--port", "0", "--parent-ip", "127.0.0.1",
                                            "--parent-port", std::to_string(rootPort_)});
    // In the tree once the root says so.
    childPort_ = root_.numberAfter("Client \"child\" connected from 127.0.0.1:");
    ASSERT_NE(childPort_, 0);
  }

  ChildProcess root_{{VELMO_BROKER_PROGRAM, "--name", "root", "--ip", "127.0.0.1", "--port", "0"}};
  std::optional<ChildProcess> child_;
  int rootPort_ = 0;
  int childPort_ = 0;
};

TEST_F(CommandLineTest, TheTreeIsTheSameFromEitherBroker) {
  const std::string root = "127.0.0.1:" + std::to_string(rootPort_);
  const std::string child = "127.0.0.1:" + std::to_string(childPort_);
  const std::string expected = "root " + root +
                               "\n  KXBehaviorManager\n  KXMemory\n  KXNetwork\n"
                               "  KXResourceManager\nchild " +
                               child + "\n  KXBehaviorManager\n  KXNetwork\n";
  for (int port : {rootPort_, childPort_}) {
    const Finished tree = velmo(port, {"tree"});
    EXPECT_EQ(tree.status, 0);
    EXPECT_EQ(tree.output, expected);
  }
  EXPECT_EQ(velmo(childPort_, {"list", "--json"}).output,
            "[[\"KXBehaviorManager\",\"" + root + "\"],[\"KXMemory\",\"" + root +
                "\"],[\"KXNetwork\",\"" + root + "\"],[\"KXResourceManager\",\"" + root +
                "\"],[\"KXBehaviorManager\",\"" + child + "\"],[\"KXNetwork\",\"" + child +
                "\"]]\n");
}

TEST_F(CommandLineTest, ValuesGoInAndComeBackInTextAndJson) {
  const struct {
    std::string argument;
    std::string text;
    std::string json;
  } cases[] = {
      {"42", "42", "42"},
      {"0x1F", "31", "31"},
      {"true", "true", "true"},
      {"hello", "\"hello\"", "\"hello\""},  // a plain word is text
      {"[1, [\"a\", false], 0.5]", "[1, [\"a\", false], 0.5]", "[1,[\"a\",false],0.5]"},
  };
  for (const auto& c : cases) {
    ASSERT_EQ(velmo(childPort_, {"call", "KXMemory.insertData", "v", c.argument}).status, 0);
    EXPECT_EQ(velmo(childPort_, {"call", "KXMemory.getData", "v"}).output, c.text + "\n");
    EXPECT_EQ(velmo(rootPort_, {"call", "--json", "KXMemory.getData", "v"}).output, c.json + "\n");
  }
}

TEST_F(CommandLineTest, ErrorsPrintTheFrameworksTextAndFail) {
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{"call", "KXMemory.getData", "nope"},
       "\tKXMemory::getData\n\tData \"nope\" does not exist.\n"},
      {{"call", "Nobody.ping"}, "\tKXProxy::constructor\n\tModule 'Nobody' not found.\n"},
      {{"call", "KXMemory"}, "\tvelmo::call\n\t\"KXMemory\" is not MODULE.METHOD\n"},
  };
  for (const auto& [arguments, output] : cases) {
    const Finished run = velmo(rootPort_, arguments);
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.output, output);
  }
  const Finished help = velmo(rootPort_, {"help", "KXMemory.getDataOnChange"});
  EXPECT_EQ(help.status, 0);
  EXPECT_EQ(help.output.rfind("KXMemory.getDataOnChange(name, timeoutMs)\n  ", 0), 0u)
      << help.output;
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

}  // namespace
}  // namespace testing
}  // namespace KX
