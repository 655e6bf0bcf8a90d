// peer_bench_network_server: the remote side of peer_bench_network. One broker on
// 127.0.0.1 (a free port) hosting the module "Echo", whose `echo` returns its argument.
//
// Prints "READY <port>" as its first stdout line, then sends its own stdout to stderr (the
// benchmark stops reading the pipe once it has the port, so later log lines must not land
// in it). Runs until stdin reaches its end or SIGTERM/SIGINT arrives, then shuts the
// broker down.
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>

#include "broker/kxbroker.h"
#include "log/log.h"
#include "module/kxmodulecore.h"
#include "value/kxerror.h"
#include "value/kxvalue.h"

namespace {

using KX::KXBroker;
using KX::KXValue;

class Echo : public KX::KXModule {
 public:
  Echo(const std::shared_ptr<KXBroker>& broker, const std::string& name) : KXModule(broker, name) {
    setModuleDescription("Returns what it is given, for the network benchmark");
    functionName("echo", "Echo", "Returns its argument");
    addParam("value", "any value");
    setReturn("value", "the same value");
    bindMethod(&Echo::echo);
  }

  KXValue echo(const KXValue& value) { return value; }
};

// Blocks until stdin ends or one of `signals` arrives (taken through `signalFd`).
void waitForStop(int signalFd) {
  pollfd watched[2] = {{STDIN_FILENO, POLLIN, 0}, {signalFd, POLLIN, 0}};
  char buffer[256];
  for (;;) {
    const int ready = poll(watched, 2, -1);
    if (ready < 0) {
      if (errno == EINTR) continue;
      return;
    }
    if (watched[1].revents != 0) return;
    if (watched[0].revents != 0) {
      // Whatever the benchmark writes is ignored; its end (or an error) means stop.
      const ssize_t got = read(STDIN_FILENO, buffer, sizeof buffer);
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) return;
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  // The stop signals are read from a signalfd by this thread only: every thread the broker
  // starts inherits the mask.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
  signal(SIGPIPE, SIG_IGN);
  const int signalFd = signalfd(-1, &stopSignals, SFD_CLOEXEC);
  if (signalFd < 0) {
    std::perror("peer_bench_network_server: signalfd");
    return 1;
  }

  // Only what goes wrong: starting and stopping thousands of modules would drown it.
  tu::log::setVerbosity(tu::log::warning);
  std::shared_ptr<KXBroker> broker;
  try {
    broker = KXBroker::createBroker("benchServer", "127.0.0.1", 0, "", 0, KXBroker::kKeepAlive);
    KX::createModule<Echo>(broker, "Echo");
    // An optional count of modules in all: the others are there to be looked past.
    const long modules = argc > 1 ? std::strtol(argv[1], nullptr, 10) : 1;
    for (long i = 1; i < modules; ++i) {
      KX::createModule<Echo>(broker, "Filler" + std::to_string(i));
    }
  } catch (const KX::KXError& error) {
    std::cerr << "peer_bench_network_server: cannot start the broker:\n"
              << error.what() << std::endl;
    if (broker) broker->shutdown();
    close(signalFd);
    return 1;
  }

  std::printf("READY %d\n", broker->getPort());
  std::fflush(stdout);
  dup2(STDERR_FILENO, STDOUT_FILENO);

  waitForStop(signalFd);
  broker->shutdown();
  close(signalFd);
  return 0;
}
