// velmo: runs one broker until SIGINT or SIGTERM, then shuts it down in order.
#include <pthread.h>
#include <signal.h>

#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "behavior/kxbehaviormanager.h"
#include "broker/kxbroker.h"
#include "brokerprogram/brokeroptions.h"
#include "memory/kxstandardmodules.h"
#include "value/kxerror.h"

int main(int argc, char** argv) {
  velmo::BrokerOptions options;
  try {
    options = velmo::parseBrokerOptions(std::vector<std::string>(argv + 1, argv + argc));
  } catch (const std::invalid_argument& error) {
    std::cerr << argv[0] << ": " << error.what() << "\n" << velmo::brokerUsage(argv[0]);
    return 2;
  }
  if (options.help) {
    std::cout << velmo::brokerUsage(argv[0]);
    return 0;
  }

  // The signals are taken by this thread alone, with sigwait: every thread the broker
  // starts inherits the mask, so none is interrupted by them.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
  // A peer that disconnects is reported by the network code, not by a signal.
  signal(SIGPIPE, SIG_IGN);

  std::shared_ptr<KX::KXBroker> broker;
  try {
    broker = KX::KXBroker::createBroker(options.name, options.ip, options.port, options.parentIp,
                                        options.parentIp.empty() ? 0 : options.parentPort, 0);
    if (options.parentIp.empty()) {
      KX::addStandardModules(broker);
    }
    KX::addBehaviorManager(broker);
  } catch (const KX::KXError& error) {
    std::cerr << argv[0] << ": cannot start the broker:\n" << error.what() << std::endl;
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
