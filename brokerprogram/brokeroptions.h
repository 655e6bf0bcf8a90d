#ifndef VELMO_BROKERPROGRAM_BROKEROPTIONS_H_
#define VELMO_BROKERPROGRAM_BROKEROPTIONS_H_

#include <string>
#include <vector>

namespace velmo {

// What the broker program is asked to run.
struct BrokerOptions {
  std::string name = "Velmo";
  std::string ip;  // empty: every interface
  int port = 9559;
  std::string parentIp;  // empty: a root broker
  int parentPort = 9559;
  std::vector<std::string> allowedHosts;  // --allow-host, in order
  std::string tokenFile;                  // empty: the token of VELMO_TOKEN, if any
  bool help = false;
};

// Reads the command line (without the program name). Throws std::invalid_argument with
// a message for the user on an unknown option, a missing value or a bad port.
BrokerOptions parseBrokerOptions(const std::vector<std::string>& arguments);

// `text` as a port number (0 to 65535); std::invalid_argument naming `option` otherwise.
int parsePort(const std::string& option, const std::string& text);

// The text of --help.
std::string brokerUsage(const std::string& program);

}  // namespace velmo

#endif  // VELMO_BROKERPROGRAM_BROKEROPTIONS_H_
