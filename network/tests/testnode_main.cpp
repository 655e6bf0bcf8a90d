// velmo_testnode <broker name> <parent port> <module name>: a child of the broker on
// 127.0.0.1:<parent port> hosting a test module; prints "READY <port>", runs until SIGTERM.
#include <pthread.h>
#include <signal.h>

#include <iostream>
#include <string>

#include "broker/kxbroker.h"
#include "module/tests/proxy_test_support.h"
#include "value/kxerror.h"

int main(int argc, char** argv) {
  if (argc != 4) {
    std::cerr << "usage: " << argv[0] << " <broker name> <parent port> <module name>\n";
    return 2;
  }
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
  signal(SIGPIPE, SIG_IGN);
  std::shared_ptr<KX::KXBroker> broker;
  try {
    broker =
        KX::KXBroker::createBroker(argv[1], "127.0.0.1", 0, "127.0.0.1", std::stoi(argv[2]), 0);
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
