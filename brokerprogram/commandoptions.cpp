#include "brokerprogram/commandoptions.h"

#include <cctype>
#include <map>
#include <stdexcept>

#include "brokerprogram/brokeroptions.h"

namespace velmo {
namespace {

struct Arity {
  std::size_t least;
  std::size_t most;
};

const std::map<std::string, Arity>& commands() {
  static const std::map<std::string, Arity> table = {
      {"tree", {0, 0}},  {"list", {0, 1}},
      {"help", {1, 1}},  {"call", {1, static_cast<std::size_t>(-1)}},
      {"watch", {1, 1}},
  };
  return table;
}

}  // namespace

bool isCommand(const std::string& word) { return commands().count(word) != 0; }

CommandOptions parseCommandOptions(const std::vector<std::string>& arguments) {
  CommandOptions options;
  if (arguments.empty() || !isCommand(arguments[0])) {
    throw std::invalid_argument("no command");
  }
  options.command = arguments[0];
  bool optionsEnded = false;
  for (std::size_t i = 1; i < arguments.size(); ++i) {
    const std::string& word = arguments[i];
    // Arguments of a call may look like options (a negative number): "--" ends them.
    if (optionsEnded || word.size() < 2 || word[0] != '-' || std::isdigit(word[1])) {
      options.arguments.push_back(word);
    } else if (word == "--") {
      optionsEnded = true;
    } else if (word == "--json") {
      options.json = true;
    } else if (word == "-h" || word == "--help") {
      options.help = true;
    } else if (word == "--broker" || word.rfind("--broker=", 0) == 0) {
      std::string address;
      if (word == "--broker") {
        if (i + 1 >= arguments.size()) throw std::invalid_argument("--broker needs IP:PORT");
        address = arguments[++i];
      } else {
        address = word.substr(sizeof("--broker=") - 1);
      }
      const std::size_t colon = address.rfind(':');
      if (colon == std::string::npos || colon == 0) {
        throw std::invalid_argument("--broker: \"" + address + "\" is not IP:PORT");
      }
      options.brokerIp = address.substr(0, colon);
      options.brokerPort = parsePort("--broker", address.substr(colon + 1));
    } else {
      throw std::invalid_argument("unknown option \"" + word + "\"");
    }
  }
  const Arity arity = commands().at(options.command);
  const std::size_t count = options.arguments.size();
  if (!options.help && (count < arity.least || count > arity.most)) {
    throw std::invalid_argument("wrong number of arguments for \"" + options.command + "\"");
  }
  return options;
}

std::string commandUsage(const std::string& program) {
  return "Usage: " + program +
         " COMMAND [--broker IP:PORT] [--json] ARGS...\n"
         "Looks at and calls a running tree of brokers.\n"
         "\n"
         "  tree                       the brokers of the tree and their modules\n"
         "  list [MODULE]              every module of the tree, or MODULE's methods\n"
         "  help MODULE[.METHOD]       what a module or one of its methods does\n"
         "  call MODULE.METHOD ARGS... calls a method; each argument in the compact text\n"
         "                             form (1, -2.5, 0x1F, true, \"text\", [1, \"a\"]);\n"
         "                             any other word is taken as text\n"
         "  watch NAME                 prints each new value of NAME in KXMemory until\n"
         "                             Ctrl-C\n"
         "\n"
         "  --broker IP:PORT           the broker to ask (default: 127.0.0.1:9559)\n"
         "  --json                     results as JSON, for scripts\n"
         "  --                         what follows are arguments, not options\n"
         "\n"
         "Errors are printed with the framework's text; the exit status is then 1.\n";
}

}  // namespace velmo
