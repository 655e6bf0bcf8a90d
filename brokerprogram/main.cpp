// velmo: runs one broker until SIGINT or SIGTERM, then shuts it down in order; or, given
// a command (velmo tree, list, help, call, watch), looks at and calls a running tree.
#include <pthread.h>
#include <signal.h>

#include <iostream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "behavior/kxbehaviormanager.h"
#include "broker/kxbroker.h"
#include "brokerprogram/accessoptions.h"
#include "brokerprogram/brokeroptions.h"
#include "brokerprogram/commandoptions.h"
#include "brokerprogram/commands.h"
#include "log/log.h"
#include "memory/kxstandardmodules.h"
#include "network/kxaccesssettings.h"
#include "value/kxerror.h"

namespace {

// The stop signals are taken by the calling thread alone, with sigwait: every thread
// started afterwards inherits the mask, so none is interrupted by them.
sigset_t blockStopSignals() {
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
  return stopSignals;
}

// Takes the token file and the allowed host names for the brokers of this process; false
// (after saying why) when one cannot be used.
bool applyAccessOptions(const std::string& program, const velmo::BrokerOptions& options) {
  try {
    if (!options.tokenFile.empty()) KX::setTreeToken(velmo::readTokenFile(options.tokenFile));
    for (const std::string& name : options.allowedHosts) KX::allowHostName(name);
    KX::accessSettings();  // a bad VELMO_TOKEN or VELMO_ALLOWED_HOSTS is reported here
  } catch (const KX::KXError& error) {
    std::cerr << program << ": " << error.description() << std::endl;
    return false;
  } catch (const std::runtime_error& error) {
    std::cerr << program << ": " << error.what() << std::endl;
    return false;
  }
  return true;
}

// ip: the address asked for (a child learns another from its parent, but listens there).
void announceAccess(const std::string& ip, int port) {
  const velmo::AccessNotice notice = velmo::accessNotice(ip, port, KX::accessSettings().token);
  for (const std::string& line : notice.lines) {
    TU_LOG(tu::log::info, "velmo", "main") << line << std::endl;
  }
  if (!notice.warning.empty()) {
    TU_LOG(tu::log::warning, "velmo", "main") << notice.warning << std::endl;
  }
}

// Reads the options with `parse`. Gives the exit status when the program is done already:
// 2 after a mistake (said, with the usage), 0 after --help.
template <typename Options>
std::optional<int> readOptions(const std::string& program,
                               const std::vector<std::string>& arguments,
                               Options (*parse)(const std::vector<std::string>&),
                               std::string (*usage)(const std::string&), Options& options) {
  try {
    options = parse(arguments);
  } catch (const std::invalid_argument& error) {
    std::cerr << program << ": " << error.what() << "\n" << usage(program);
    return 2;
  }
  if (options.help) {
    std::cout << usage(program);
    return 0;
  }
  return std::nullopt;
}

int runBroker(const std::string& program, const std::vector<std::string>& arguments) {
  velmo::BrokerOptions options;
  if (const std::optional<int> done =
          readOptions(program, arguments, velmo::parseBrokerOptions, velmo::brokerUsage, options)) {
    return *done;
  }

  if (!applyAccessOptions(program, options)) return 1;

  sigset_t stopSignals = blockStopSignals();
  std::shared_ptr<KX::KXBroker> broker;
  try {
    broker = KX::KXBroker::createBroker(options.name, options.ip, options.port, options.parentIp,
                                        options.parentIp.empty() ? 0 : options.parentPort, 0);
    if (options.parentIp.empty()) {
      KX::addStandardModules(broker);
    }
    KX::addBehaviorManager(broker);
    announceAccess(options.ip, broker->getPort());
  } catch (const KX::KXError& error) {
    std::cerr << program << ": cannot start the broker:\n" << error.what() << std::endl;
    if (broker) {
      broker->shutdown();
    }
    return 1;
  }

  int received = 0;
  sigwait(&stopSignals, &received);
  broker->shutdown();
  return 0;
}

int runCommand(const std::string& program, const std::vector<std::string>& arguments) {
  velmo::CommandOptions options;
  if (const std::optional<int> done = readOptions(program, arguments, velmo::parseCommandOptions,
                                                  velmo::commandUsage, options)) {
    return *done;
  }
  // Results go to standard output, where the framework's log lines would mix with them:
  // those are only shown when VERBOSE asks for them.
  tu::log::setVerbosity(tu::log::silent);
  if (options.command == "watch") blockStopSignals();
  return velmo::runCommand(options, std::cout, std::cerr);
}

}  // namespace

int main(int argc, char** argv) {
  // A peer that disconnects is reported by the network code, not by a signal.
  signal(SIGPIPE, SIG_IGN);
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  if (!arguments.empty() && velmo::isCommand(arguments[0])) return runCommand(argv[0], arguments);
  return runBroker(argv[0], arguments);
}
