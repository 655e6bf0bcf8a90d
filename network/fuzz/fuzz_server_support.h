#ifndef VELMO_NETWORK_FUZZ_FUZZ_SERVER_SUPPORT_H_
#define VELMO_NETWORK_FUZZ_FUZZ_SERVER_SUPPORT_H_

// The fuzzing targets' kit for the broker's port: a broker of this process hosting one
// module, and a server of its port that is fed one connection's bytes per input.

#include <sys/socket.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <variant>

#include "broker/kxbroker.h"
#include "log/log.h"
#include "module/kxmodulecore.h"
#include "network/detail/kxaccesspolicy.h"
#include "network/detail/kxbrokerdispatch.h"
#include "network/detail/kxfileservice.h"
#include "network/detail/kxnetworkserver.h"
#include "value/kxerror.h"

namespace KX {
namespace fuzzing {

// The port the broker says it has, which requests name in their Host header.
constexpr int kBrokerPort = 9559;

// A connection carries at most this many bytes: they are all queued in its socket before the
// server reads (see serveBytes), and a socket pair holds this much at least.
constexpr std::size_t kMaxConnectionBytes = 64 * 1024;

// The module that calls reach, with a method for each kind of outcome (the argument back, a
// typed result, an error) and none that waits. Its exit leaves it registered, so that every
// input finds the same module.
class EchoModule : public KXModuleCore {
 public:
  EchoModule(const std::shared_ptr<KXBroker>& broker, const std::string& name)
      : KXModuleCore(broker, name) {
    setModuleDescription("Answers <fuzzed> & calls");
    functionName("echo", "EchoModule", "Returns its argument");
    addParam("value", "any value");
    setReturn("value", "the argument");
    bindMethod(&EchoModule::echo);
    functionName("join", "EchoModule", "Joins two texts");
    addParam("a", "first text");
    addParam("b", "second text");
    setReturn("joined", "a then b");
    bindMethod(&EchoModule::join);
    functionName("fail", "EchoModule", "Raises an error saying why");
    addParam("why", "the error's description");
    bindMethod(&EchoModule::fail);
  }

  KXValue echo(const KXValue& value) { return value; }
  std::string join(const std::string& a, const std::string& b) { return a + b; }
  int fail(const std::string& why) { KX_THROW(getName(), "fail", why); }
  void exit() override {}
};

// The process's broker, hosting "Echo", made on first use. It has no network: nothing an
// input asks for (registering a child, looking up the tree) leaves the process.
inline const std::shared_ptr<KXBroker>& fuzzBroker() {
  static const std::shared_ptr<KXBroker> broker = [] {
    // A log line per refused request would take most of the time.
    tu::log::setVerbosity(tu::log::silent);
    std::shared_ptr<KXBroker> made =
        KXBroker::createBroker("fuzz", "127.0.0.1", kBrokerPort, "", 0,
                               KXBroker::kKeepAlive | KXBroker::kSingleThreaded, "", false);
    createModule<EchoModule>(made, "Echo");
    return made;
  }();
  return broker;
}

// The broker protocol as a broker's port carries it out, but for exit, which would shut the
// broker down for every later input.
inline BrokerAnswer carryOut(BrokerRequest& request, const BrokerPeer& peer) {
  if (std::holds_alternative<protocol::Exit>(request)) return protocol::NoAnswer();
  return carryOutBrokerRequest(request, peer);
}

// The pages of the broker that a request addresses, as a broker's port renders them.
inline std::string brokerPage(const std::string& endpoint, const std::string& path) {
  const std::shared_ptr<KXBroker> broker = brokerForEndpoint(endpoint);
  return broker ? broker->getPage(path) : std::string("Broker not found");
}

// A server of the broker's port for fuzzBroker(): the broker protocol, the files under
// `roots`, the pages, and the access rules (requiring `token` unless it is empty).
inline std::shared_ptr<KXNetworkServer> makeServer(
    std::map<std::string, std::filesystem::path> roots, const std::string& token) {
  fuzzBroker();
  auto access = std::make_shared<const KXAccessPolicy>(std::set<std::string>{"velmo-fuzz"}, token,
                                                       kBrokerPort);
  auto files =
      std::make_shared<const KXFileService>(std::move(roots), &brokerPage, std::move(access));
  return std::make_shared<KXNetworkServer>(&carryOut, std::move(files));
}

// Reads and drops what the server answers on the connections handed to it, one at a time,
// each until the server closes its end. One thread for the whole run: starting one per
// input took longer than serving the input.
class AnswerDrain {
 public:
  AnswerDrain() : thread_([this] { run(); }) {}
  ~AnswerDrain() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stopping_ = true;
    }
    changed_.notify_all();
    thread_.join();
  }
  AnswerDrain(const AnswerDrain&) = delete;
  AnswerDrain& operator=(const AnswerDrain&) = delete;

  // Starts draining `socket`; returns at once.
  void start(int socket) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      socket_ = socket;
    }
    changed_.notify_all();
  }

  // Waits until the server has closed the connection being drained.
  void wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return socket_ < 0; });
  }

 private:
  void run() {
    for (;;) {
      int socket;
      {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [this] { return stopping_ || socket_ >= 0; });
        if (socket_ < 0) return;
        socket = socket_;
      }
      char answer[65536];
      while (::recv(socket, answer, sizeof(answer), 0) > 0) {
      }
      {
        std::lock_guard<std::mutex> lock(mutex_);
        socket_ = -1;
      }
      changed_.notify_all();
    }
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  int socket_ = -1;        // guarded by mutex_: the connection being drained, -1 when none
  bool stopping_ = false;  // guarded by mutex_
  std::thread thread_;
};

// A socket, closed with its owner.
class OwnedSocket {
 public:
  explicit OwnedSocket(int socket) : socket_(socket) {}
  ~OwnedSocket() { ::close(socket_); }
  OwnedSocket(const OwnedSocket&) = delete;
  OwnedSocket& operator=(const OwnedSocket&) = delete;
  int get() const { return socket_; }

 private:
  const int socket_;
};

// Serves `bytes` (at most kMaxConnectionBytes) as all that a connection brings, through
// the server's own serving of an accepted connection. The connection is an AF_UNIX socket
// pair rather than the runtime's I/O callbacks: the server reads and writes the socket
// itself in places (the wait for a next request, answers with attachments). Queued whole
// before the server reads, the bytes come in the same reads on every run; the client's end
// shut for sending makes the end of the input an end of file at once, where a silent client
// would cost a wait of KXNetworkServer::kLinger.
inline void serveBytes(KXNetworkServer& server, const std::string& bytes) {
  static AnswerDrain drain;
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
    std::perror("socketpair");
    std::abort();
  }
  const OwnedSocket client(ends[0]);
  if (::send(client.get(), bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL) !=
      static_cast<ssize_t>(bytes.size())) {
    std::fprintf(stderr, "a socket pair cannot hold the %zu bytes of the input\n", bytes.size());
    std::abort();
  }
  ::shutdown(client.get(), SHUT_WR);
  drain.start(client.get());
  server.serveConnection(ends[1]);
  drain.wait();
}

}  // namespace fuzzing
}  // namespace KX

#endif  // VELMO_NETWORK_FUZZ_FUZZ_SERVER_SUPPORT_H_
