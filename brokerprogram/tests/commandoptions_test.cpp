#include "brokerprogram/commandoptions.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace velmo {
namespace {

TEST(CommandOptionsTest, OptionsGoAnywhereAfterTheCommand) {
  const CommandOptions options =
      parseCommandOptions({"call", "M.m", "--json", "-3", "--broker=10.0.0.2:9600", "--", "--x"});
  EXPECT_EQ(options.command, "call");
  EXPECT_EQ(options.arguments, (std::vector<std::string>{"M.m", "-3", "--x"}));
  EXPECT_TRUE(options.json);
  EXPECT_EQ(options.brokerIp, "10.0.0.2");
  EXPECT_EQ(options.brokerPort, 9600);
  const CommandOptions defaults = parseCommandOptions({"tree"});
  EXPECT_EQ(defaults.brokerIp + ":" + std::to_string(defaults.brokerPort), "127.0.0.1:9559");
  EXPECT_TRUE(isCommand("watch"));
  EXPECT_FALSE(isCommand("--port"));
}

TEST(CommandOptionsTest, MistakesAreNamed) {
  const struct {
    std::vector<std::string> arguments;
    std::string error;
  } cases[] = {
      {{"tree", "extra"}, "wrong number of arguments for \"tree\""},
      {{"help"}, "wrong number of arguments for \"help\""},
      {{"call", "M.m", "--colour"}, "unknown option \"--colour\""},
      {{"list", "--broker"}, "--broker needs IP:PORT"},
      {{"list", "--broker", "9559"}, "--broker: \"9559\" is not IP:PORT"},
      {{"list", "--broker=h:99999"}, "--broker: \"99999\" is not a port (0 to 65535)"},
  };
  for (const auto& c : cases) {
    try {
      parseCommandOptions(c.arguments);
      ADD_FAILURE() << "accepted: " << c.error;
    } catch (const std::invalid_argument& error) {
      EXPECT_EQ(std::string(error.what()), c.error);
    }
  }
  EXPECT_TRUE(parseCommandOptions({"help", "--help"}).help);  // no arguments needed then
}

}  // namespace
}  // namespace velmo
