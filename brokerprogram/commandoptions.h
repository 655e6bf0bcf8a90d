#ifndef VELMO_BROKERPROGRAM_COMMANDOPTIONS_H_
#define VELMO_BROKERPROGRAM_COMMANDOPTIONS_H_

#include <string>
#include <vector>

namespace velmo {

// A command of the velmo program ("velmo COMMAND [options] ARGS..."), run against the
// tree of the broker at brokerIp:brokerPort.
struct CommandOptions {
  std::string command;  // tree, list, help, call or watch
  std::vector<std::string> arguments;
  std::string brokerIp = "127.0.0.1";
  int brokerPort = 9559;
  bool json = false;
  bool help = false;
};

// Whether `word` names a command (anything else leaves the program a broker).
bool isCommand(const std::string& word);

// Reads "COMMAND [--broker IP:PORT] [--json] [-h] ARGS..." (options anywhere after the
// command; "--" ends them). Throws std::invalid_argument with a message for the user on
// an unknown option, a bad address or a wrong number of arguments.
CommandOptions parseCommandOptions(const std::vector<std::string>& arguments);

// The text of "velmo COMMAND --help".
std::string commandUsage(const std::string& program);

}  // namespace velmo

#endif  // VELMO_BROKERPROGRAM_COMMANDOPTIONS_H_
