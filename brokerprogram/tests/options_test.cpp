// What the velmo program reads before it starts: its options, the token file, and what it
// says about who may reach it.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "brokerprogram/accessoptions.h"
#include "brokerprogram/brokeroptions.h"
#include "brokerprogram/commandoptions.h"

namespace velmo {
namespace {

// The text a user reads when `read` throws, else "accepted".
std::string outcome(const std::function<void()>& read) {
  try {
    read();
  } catch (const std::exception& error) {
    return error.what();
  }
  return "accepted";
}

TEST(OptionsTest, EachOptionTakesItsValueAnywhereAndInBothForms) {
  const BrokerOptions broker =
      parseBrokerOptions({"--name", "arm", "--ip=127.0.0.1", "--port", "0", "--parent-ip",
                          "10.0.0.2", "--parent-port=9600", "--allow-host", "robot.lan",
                          "--token-file=/etc/velmo/token", "--allow-host=arm.local"});
  EXPECT_EQ(broker.name + " " + broker.ip + ":" + std::to_string(broker.port) + " " +
                broker.parentIp + ":" + std::to_string(broker.parentPort) + " " + broker.tokenFile,
            "arm 127.0.0.1:0 10.0.0.2:9600 /etc/velmo/token");
  EXPECT_EQ(broker.allowedHosts, (std::vector<std::string>{"robot.lan", "arm.local"}));
  EXPECT_TRUE(!broker.help && parseBrokerOptions({"--port", "1", "-h"}).help);
  const CommandOptions command =
      parseCommandOptions({"call", "M.m", "--json", "-3", "--broker=10.0.0.2:9600", "--", "--x"});
  EXPECT_EQ(command.arguments, (std::vector<std::string>{"M.m", "-3", "--x"}));
  EXPECT_TRUE(command.json && parseCommandOptions({"help", "--help"}).help);
  EXPECT_EQ(command.brokerIp + ":" + std::to_string(command.brokerPort), "10.0.0.2:9600");
}

TEST(OptionsTest, MistakesAreNamed) {
  const struct {
    bool command;  // else the broker's options
    std::vector<std::string> arguments;
    std::string text;
  } cases[] = {
      {false, {"--colour"}, "unknown option \"--colour\""},
      {false, {"--port"}, "--port needs a value"},
      {false, {"--port", "65536"}, "--port: \"65536\" is not a port (0 to 65535)"},
      {false, {"--parent-port=-1"}, "--parent-port: \"-1\" is not a port (0 to 65535)"},
      {false, {"--port", "95x"}, "--port: \"95x\" is not a port (0 to 65535)"},
      {false, {"--port="}, "--port: \"\" is not a port (0 to 65535)"},
      {false, {"--name="}, "--name: a broker needs a name"},
      {false, {"--port", "65535"}, "accepted"},
      {true, {"tree", "extra"}, "wrong number of arguments for \"tree\""},
      {true, {"call", "M.m", "--colour"}, "unknown option \"--colour\""},
      {true, {"list", "--broker"}, "--broker needs IP:PORT"},
      {true, {"list", "--broker", "9559"}, "--broker: \"9559\" is not IP:PORT"},
      {true, {"list", "--broker=h:99999"}, "--broker: \"99999\" is not a port (0 to 65535)"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(outcome([&c] {
                c.command ? (void)parseCommandOptions(c.arguments)
                          : (void)parseBrokerOptions(c.arguments);
              }),
              c.text);
  }
}

TEST(OptionsTest, OnlyAPrivateTokenFileGivesItsFirstLine) {
  const std::string path = ::testing::TempDir() + "velmo-token-" + std::to_string(getpid());
  const auto read = [&path](const std::string& content, unsigned mode) {
    std::ofstream(path) << content;
    std::filesystem::permissions(path, static_cast<std::filesystem::perms>(mode));
    return outcome([&path] { EXPECT_EQ(readTokenFile(path), "s3cret-1"); });
  };
  const std::string named = "the token file " + path;
  const std::string shared = " can be read by other users (mode 06";
  EXPECT_EQ(read("  s3cret-1 \r\nsecond line\n", 0600), "accepted");
  EXPECT_EQ(read("s3cret-1", 0640), named + shared + "40); make it private: chmod 600 " + path);
  EXPECT_EQ(read("s3cret-1", 0604), named + shared + "04); make it private: chmod 600 " + path);
  EXPECT_EQ(read("\n", 0600), named + ": the token is empty");
  EXPECT_EQ(read("a b", 0400), named + ": the token may hold only letters, digits and \"-._~+/=\"");
  std::filesystem::remove(path);
  EXPECT_EQ(outcome([] { readTokenFile("/tmp"); }), "the token file /tmp is not a file");
  EXPECT_EQ(outcome([] { readTokenFile("/nonexistent"); }),
            "the token file /nonexistent cannot be read: No such file or directory");
}

TEST(OptionsTest, TheProgramWarnsOnlyWhenEveryInterfaceListensWithoutAToken) {
  EXPECT_EQ(accessNotice("0.0.0.0", 9559, "").lines,
            (std::vector<std::string>{"Listening on every interface, port 9559",
                                      "No token is required"}));
  EXPECT_EQ(accessNotice("", 9559, "").warning,
            "Anyone who can reach this machine can use this broker: listen on one address (--ip "
            "127.0.0.1), or require a token (VELMO_TOKEN or --token-file)");
  EXPECT_EQ(accessNotice("10.0.0.2", 80, "").warning + accessNotice("", 1, "t").warning, "");
  // The link a person opens reaches this machine whatever the interfaces listened on.
  EXPECT_EQ(accessNotice("0.0.0.0", 9559, "t0k").lines.back(),
            "A token is required for every request; open http://127.0.0.1:9559/?token=t0k in a "
            "browser; programs send the token of VELMO_TOKEN");
}

}  // namespace
}  // namespace velmo
