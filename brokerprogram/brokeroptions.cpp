#include "brokerprogram/brokeroptions.h"

#include <stdexcept>

namespace velmo {

int parsePort(const std::string& option, const std::string& text) {
  std::size_t used = 0;
  int port = -1;
  try {
    port = std::stoi(text, &used);
  } catch (const std::exception&) {
    used = 0;
  }
  if (used != text.size() || text.empty() || port < 0 || port > 65535) {
    throw std::invalid_argument(option + ": \"" + text + "\" is not a port (0 to 65535)");
  }
  return port;
}

BrokerOptions parseBrokerOptions(const std::vector<std::string>& arguments) {
  BrokerOptions options;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    std::string option = arguments[i];
    std::string value;
    bool hasValue = false;
    // --option=value and --option value are both taken.
    const std::size_t equals = option.find('=');
    if (option.rfind("--", 0) == 0 && equals != std::string::npos) {
      value = option.substr(equals + 1);
      option = option.substr(0, equals);
      hasValue = true;
    }
    if (option == "-h" || option == "--help") {
      options.help = true;
      continue;
    }
    const bool known = option == "--name" || option == "--ip" || option == "--port" ||
                       option == "--parent-ip" || option == "--parent-port" ||
                       option == "--allow-host" || option == "--token-file";
    if (!known) {
      throw std::invalid_argument("unknown option \"" + arguments[i] + "\"");
    }
    if (!hasValue) {
      if (i + 1 >= arguments.size()) {
        throw std::invalid_argument(option + " needs a value");
      }
      value = arguments[++i];
    }
    if (option == "--name") {
      if (value.empty()) {
        throw std::invalid_argument("--name: a broker needs a name");
      }
      options.name = value;
    } else if (option == "--ip") {
      options.ip = value;
    } else if (option == "--port") {
      options.port = parsePort(option, value);
    } else if (option == "--parent-ip") {
      options.parentIp = value;
    } else if (option == "--allow-host") {
      options.allowedHosts.push_back(value);
    } else if (option == "--token-file") {
      options.tokenFile = value;
    } else {
      options.parentPort = parsePort(option, value);
    }
  }
  return options;
}

std::string brokerUsage(const std::string& program) {
  return "Usage: " + program +
         " [options]\n"
         "Runs a Velmo broker until SIGINT (Ctrl-C) or SIGTERM.\n"
         "\n"
         "  --name NAME          the broker's name (default: Velmo)\n"
         "  --ip IP              the address to listen on (default: every interface)\n"
         "  --port PORT          the port to listen on; 0 picks a free one from 54010\n"
         "                       (default: 9559)\n"
         "  --parent-ip IP       run as a child of the broker at this address\n"
         "                       (default: none, a root broker)\n"
         "  --parent-port PORT   the parent broker's port (default: 9559)\n"
         "  --allow-host NAME    answer requests that name this host (repeatable; also\n"
         "                       VELMO_ALLOWED_HOSTS=a,b); addresses, localhost and this\n"
         "                       machine's names are always answered\n"
         "  --token-file FILE    require the token kept in FILE (private to its owner) of\n"
         "                       every request, and send it; default: VELMO_TOKEN\n"
         "  -h, --help           this text\n"
         "\n"
         "A root broker hosts the KXMemory and KXResourceManager modules; a child broker\n"
         "reaches its root's. Its pages: http://IP:PORT/index.xml\n"
         "Logging: VERBOSE=0..6 (default 4), CONTEXT, CLICOLOR.\n"
         "\n"
         "Commands (velmo COMMAND --help): tree, list, help, call, watch.\n";
}

}  // namespace velmo
