#include "brokerprogram/brokeroptions.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace velmo {
namespace {

std::string refusal(const std::vector<std::string>& arguments) {
  try {
    parseBrokerOptions(arguments);
  } catch (const std::invalid_argument& error) {
    return error.what();
  }
  return "accepted";
}

TEST(BrokerOptionsTest, DefaultsMakeTheRootBrokerVelmoOn9559) {
  const BrokerOptions options = parseBrokerOptions({});
  EXPECT_EQ(options.name, "Velmo");
  EXPECT_EQ(options.ip, "");
  EXPECT_EQ(options.port, 9559);
  EXPECT_EQ(options.parentIp, "");
  EXPECT_FALSE(options.help);
}

TEST(BrokerOptionsTest, EveryOptionTakesItsValueInBothForms) {
  const BrokerOptions options =
      parseBrokerOptions({"--name", "arm", "--ip=127.0.0.1", "--port", "0", "--parent-ip",
                          "10.0.0.2", "--parent-port=9600", "--allow-host", "robot.lan",
                          "--token-file=/etc/velmo/token", "--allow-host=arm.local"});
  EXPECT_EQ(options.name, "arm");
  EXPECT_EQ(options.ip, "127.0.0.1");
  EXPECT_EQ(options.port, 0);
  EXPECT_EQ(options.parentIp, "10.0.0.2");
  EXPECT_EQ(options.parentPort, 9600);
  EXPECT_EQ(options.allowedHosts, (std::vector<std::string>{"robot.lan", "arm.local"}));
  EXPECT_EQ(options.tokenFile, "/etc/velmo/token");
  EXPECT_TRUE(parseBrokerOptions({"-h"}).help);
  EXPECT_TRUE(parseBrokerOptions({"--port", "1", "--help"}).help);
}

TEST(BrokerOptionsTest, MistakesAreNamed) {
  EXPECT_EQ(refusal({"--colour"}), "unknown option \"--colour\"");
  EXPECT_EQ(refusal({"--port"}), "--port needs a value");
  EXPECT_EQ(refusal({"--port", "65536"}), "--port: \"65536\" is not a port (0 to 65535)");
  EXPECT_EQ(refusal({"--parent-port=-1"}), "--parent-port: \"-1\" is not a port (0 to 65535)");
  EXPECT_EQ(refusal({"--port", "95x"}), "--port: \"95x\" is not a port (0 to 65535)");
  EXPECT_EQ(refusal({"--port="}), "--port: \"\" is not a port (0 to 65535)");
  EXPECT_EQ(refusal({"--name="}), "--name: a broker needs a name");
  EXPECT_EQ(refusal({"--port", "65535"}), "accepted");
  EXPECT_EQ(refusal({"--token-file"}), "--token-file needs a value");
}

TEST(BrokerOptionsTest, UsageNamesEveryOption) {
  const std::string usage = brokerUsage("velmo");
  for (const char* option : {"--name", "--ip", "--port", "--parent-ip", "--parent-port",
                             "--allow-host", "--token-file", "--help"}) {
    EXPECT_NE(usage.find(option), std::string::npos) << option;
  }
  EXPECT_EQ(usage.rfind("Usage: velmo [options]\n", 0), 0u);
}

}  // namespace
}  // namespace velmo
