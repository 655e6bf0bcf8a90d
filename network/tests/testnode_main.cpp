// velmo_testnode <broker name> <parent port> <module name> [<ip> <parent ip>]: a child of
// the broker on <parent ip>:<parent port> hosting a test module, listening on <ip> (both
// 127.0.0.1 unless given); prints "READY <port>", runs until SIGTERM.
#include <pthread.h>
#include <signal.h>

#include <iostream>
#include <string>

#include "broker/kxbroker.h"
#include "module/tests/proxy_test_support.h"
#include "value/kxerror.h"

int main(int argc, char** argv) {
  if (argc != 4 && argc != 6) {
    std::cerr << "usage: " << argv[0]
              << " <broker name> <parent port> <module name> [<ip> <parent ip>]\n";
    return 2;
  }
  const std::string ip = argc == 6 ? argv[4] : "127.0.0.1";
  const std::string parentIp = argc == 6 ? argv[5] : "127.0.0.1";
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
  signal(SIGPIPE, SIG_IGN);
  std::shared_ptr<KX::KXBroker> broker;
  try {
    broker = KX::KXBroker::createBroker(argv[1], ip, 0, parentIp, std::stoi(argv[2]), 0);
    KX::createModule<KX::testing::Calculator>(broker, argv[3]);
  } catch (const KX::KXError& error) {
    std::cerr << "cannot start: " << error.what() << std::endl;
    return 1;
  }
  std::cout << "READY " << broker->getPort() << std::endl;
  int received = 0;
  sigwait(&stopSignals, &received);
  broker->shutdown();
  return 0;
}
