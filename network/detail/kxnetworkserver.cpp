#include "network/detail/kxnetworkserver.h"

#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "log/log.h"
#include "network/detail/kxsoapio.h"
#include "thread/kxtask.h"
#include "value/kxerror.h"

namespace KX {

namespace {

constexpr char kCategory[] = "core.common.network";
constexpr char kFunction[] = "KX::KXNetwork::listenRequest";

// A serving context's sockets are closed by their connection, not by the runtime: the
// connection closes its socket under its lock, so that stop() never shuts down a
// descriptor that was closed and handed out again. Here the runtime only ends the exchange.
int shutdownOnly(struct soap* /*soap*/, SOAP_SOCKET socket) {
  ::shutdown(socket, SHUT_RDWR);
  return SOAP_OK;
}

bool isTransientAcceptError(int error) {
  return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM ||
         error == ECONNABORTED || error == EINTR || error == EPROTO || error == EPERM;
}

constexpr std::chrono::milliseconds kAcceptRetryPause{100};

// The loop looks at its stop conditions and the idle connections' timeouts this often.
constexpr std::chrono::milliseconds kRound{1000};

// An epoll set, closed with its owner.
class EpollSet {
 public:
  EpollSet() : fd_(::epoll_create1(EPOLL_CLOEXEC)) {}
  ~EpollSet() {
    if (fd_ >= 0) ::close(fd_);
  }
  EpollSet(const EpollSet&) = delete;
  EpollSet& operator=(const EpollSet&) = delete;
  int fd() const { return fd_; }

 private:
  const int fd_;
};

}  // namespace

// One accepted connection, served in rounds by tasks and watched between them.
class KXNetworkServer::Connection {
 public:
  Connection(KXNetworkServer& server, KXSoapContext context)
      : server_(server),
        context_(prepared(std::move(context), server.timeouts_)),
        socket_(context_->socket),
        broker_(context_.get()) {
    server_.track(this);
  }

  ~Connection() {
    {
      std::lock_guard<std::mutex> guard(socketMutex_);
      ::close(socket_);
      context_->socket = SOAP_INVALID_SOCKET;
      closed_ = true;
    }
    server_.untrack(this);
  }

  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  int socket() const { return socket_; }

  BrokerConnection::State serve(const BrokerRequestHandler& handler) {
    return broker_.serve(handler, BrokerConnection::Rounds::UntilIdle);
  }

  // Ends the exchange at once: the serving round sees the connection closed, the watch
  // sees it readable.
  void shutdownSocket() {
    std::lock_guard<std::mutex> guard(socketMutex_);
    if (!closed_) ::shutdown(socket_, SHUT_RDWR);
  }

  // Guarded by the server's mutex.
  std::chrono::steady_clock::time_point idleUntil;
  bool watched = false;  // added to the epoll set once

 private:
  static KXSoapContext prepared(KXSoapContext context, const ServeTimeouts& timeouts) {
    context->fclosesocket = shutdownOnly;
    // The copy shares the listening socket; only the server closes it.
    context->master = SOAP_INVALID_SOCKET;
    useKernelTimeouts(context.get(), kLinger, timeouts.receiveSeconds, timeouts.sendSeconds);
    context->bufidx = 0;
    context->buflen = 0;
    return context;
  }

  KXNetworkServer& server_;  // outlives its connections: they are owned by it or its tasks
  KXSoapContext context_;
  const int socket_;
  BrokerConnection broker_;
  std::mutex socketMutex_;
  bool closed_ = false;  // guarded by socketMutex_
};

// Serves one round of a connection on a pool thread.
class KXNetworkServer::ServeTask : public KXTask {
 public:
  ServeTask(std::shared_ptr<KXNetworkServer> server, std::shared_ptr<Connection> connection)
      : server_(std::move(server)), connection_(std::move(connection)) {
    setName("soap_serve");
  }

  void run() override { server_->serve(connection_); }

  void stop() override { connection_->shutdownSocket(); }

 private:
  // Declared first: the connection, destroyed before it, reaches the server on the way.
  const std::shared_ptr<KXNetworkServer> server_;
  const std::shared_ptr<Connection> connection_;
};

KXNetworkServer::KXNetworkServer(BrokerRequestHandler handler,
                                 std::shared_ptr<const KXFileService> files, ServeTimeouts timeouts)
    : handler_(std::move(handler)), files_(std::move(files)), timeouts_(timeouts) {
  if (files_) {
    files_->install(server_.get());
  }
  server_->accept_timeout = 1;
  // A proxy keeps its connection for all its calls: no limit on the requests of one
  // connection (message data are freed after each).
  server_->max_keep_alive = 0;
}

KXNetworkServer::~KXNetworkServer() = default;

bool KXNetworkServer::bind(const std::string& ip, int port) {
  const char* host = (ip.empty() || ip == "0.0.0.0") ? nullptr : ip.c_str();
  // A broker restarted on its port must not wait for the connections its killed
  // predecessor left in TIME-WAIT; a port another socket listens on stays refused.
  server_->bind_flags = SO_REUSEADDR;
  return soap_valid_socket(soap_bind(server_.get(), host, port, kBacklog));
}

int KXNetworkServer::port() const {
  sockaddr_storage address{};
  socklen_t length = sizeof(address);
  if (!soap_valid_socket(server_->master) ||
      ::getsockname(server_->master, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    return 0;
  }
  return ntohs(address.ss_family == AF_INET6
                   ? reinterpret_cast<const sockaddr_in6&>(address).sin6_port
                   : reinterpret_cast<const sockaddr_in&>(address).sin_port);
}

void KXNetworkServer::serveLoop(
    const std::function<bool()>& keepGoing,
    const std::function<bool(const std::shared_ptr<KXTask>&)>& enqueue) {
  const EpollSet watch;
  const int master = server_->master;
  epoll_event listening{};
  listening.events = EPOLLIN;
  listening.data.fd = master;
  if (watch.fd() < 0 || ::epoll_ctl(watch.fd(), EPOLL_CTL_ADD, master, &listening) != 0) {
    TU_LOG(tu::log::error, kCategory, kFunction)
        << "cannot watch connections: " << std::strerror(errno) << std::endl;
    return;
  }
  {
    std::lock_guard<std::mutex> guard(mutex_);
    watch_ = watch.fd();
  }
  std::array<epoll_event, 64> events;
  auto nextSweep = std::chrono::steady_clock::now() + kRound;
  bool listeningOk = true;
  while (listeningOk && !stopped_.load() && keepGoing()) {
    const int ready = ::epoll_wait(watch.fd(), events.data(), static_cast<int>(events.size()),
                                   static_cast<int>(kRound.count()));
    if (ready < 0 && errno != EINTR) {
      break;
    }
    for (int i = 0; i < ready && listeningOk && !stopped_.load(); ++i) {
      if (events[i].data.fd == master) {
        listeningOk = accept(enqueue);
      } else if (std::shared_ptr<Connection> connection = unpark(events[i].data.fd)) {
        // A peer that left without a request to serve needs no worker to be closed.
        const bool left = (events[i].events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0;
        if (!left || inputOf(connection->socket()) == SocketInput::Bytes) {
          hand(connection, enqueue);
        }
      }
    }
    const auto now = std::chrono::steady_clock::now();
    if (now >= nextSweep) {
      closeIdle(now, false);
      nextSweep = now + kRound;
    }
  }
  closeIdle(std::chrono::steady_clock::now(), true);
}

bool KXNetworkServer::accept(const std::function<bool(const std::shared_ptr<KXTask>&)>& enqueue) {
  struct soap* server = server_.get();
  const SOAP_SOCKET socket = soap_accept(server);
  if (!soap_valid_socket(socket)) {
    if (stopped_.load()) {
      return false;
    }
    if (server->errnum == 0) {
      return true;  // taken by the time we asked
    }
    if (isTransientAcceptError(server->errnum)) {
      // Out of descriptors or memory for a moment, or a client that gave up while
      // queued: the server stays up and tries again.
      TU_LOG(tu::log::warning, kCategory, kFunction)
          << "accept failed (" << std::strerror(server->errnum) << "), retrying" << std::endl;
      std::this_thread::sleep_for(kAcceptRetryPause);
      return true;
    }
    return false;
  }
  std::shared_ptr<Connection> connection;
  try {
    connection = std::make_shared<Connection>(*this, KXSoapContext::copyOf(server_));
  } catch (const std::exception&) {
    ::close(socket);
    server->socket = SOAP_INVALID_SOCKET;
    return false;  // no copy of the context: the loop ends
  }
  // The accepted socket belongs to the connection now.
  server->socket = SOAP_INVALID_SOCKET;
  // A connection whose first request is not there yet waits without a worker: a burst of
  // clients that connect and stay silent must not grow the pool.
  if (inputOf(connection->socket()) != SocketInput::Nothing || !park(connection)) {
    hand(connection, enqueue);
  }
  return true;
}

void KXNetworkServer::hand(const std::shared_ptr<Connection>& connection,
                           const std::function<bool(const std::shared_ptr<KXTask>&)>& enqueue) {
  if (!enqueue(std::make_shared<ServeTask>(shared_from_this(), connection))) {
    TU_LOG(tu::log::error, kCategory, kFunction)
        << "No more connection or thread available" << std::endl;
  }
}

void KXNetworkServer::serve(const std::shared_ptr<Connection>& connection) {
  // A connection that is neither served nor watched is closed with its last owner.
  if (!stopped_.load() && connection->serve(handler_) == BrokerConnection::State::Idle) {
    park(connection);
  }
}

void KXNetworkServer::serveConnection(int socket) {
  std::optional<KXSoapContext> context;
  try {
    context.emplace(KXSoapContext::copyOf(server_));
  } catch (const KXError&) {
    ::close(socket);
    throw;
  }
  (*context)->socket = socket;
  Connection connection(*this, std::move(*context));
  while (connection.serve(handler_) == BrokerConnection::State::Idle) {
  }
}

bool KXNetworkServer::park(const std::shared_ptr<Connection>& connection) {
  std::lock_guard<std::mutex> guard(mutex_);
  if (watch_ < 0 || stopped_.load()) {
    return false;
  }
  const int socket = connection->socket();
  connection->idleUntil =
      std::chrono::steady_clock::now() + std::chrono::seconds(timeouts_.receiveSeconds);
  // Once: the next request wakes the loop, which takes the connection back before it
  // watches the socket again.
  epoll_event event{};
  event.events = EPOLLIN | EPOLLRDHUP | EPOLLONESHOT;
  event.data.fd = socket;
  if (::epoll_ctl(watch_, connection->watched ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, socket, &event) !=
      0) {
    return false;
  }
  connection->watched = true;
  idle_[socket] = connection;
  return true;
}

std::shared_ptr<KXNetworkServer::Connection> KXNetworkServer::unpark(int socket) {
  std::lock_guard<std::mutex> guard(mutex_);
  const auto found = idle_.find(socket);
  if (found == idle_.end()) {
    return nullptr;
  }
  std::shared_ptr<Connection> connection = std::move(found->second);
  idle_.erase(found);
  return connection;
}

void KXNetworkServer::closeIdle(std::chrono::steady_clock::time_point now, bool all) {
  // Closed outside the lock: a connection's end takes it.
  std::vector<std::shared_ptr<Connection>> closing;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    for (auto it = idle_.begin(); it != idle_.end();) {
      if (all || it->second->idleUntil <= now) {
        closing.push_back(std::move(it->second));
        it = idle_.erase(it);
      } else {
        ++it;
      }
    }
    if (all) {
      watch_ = -1;
    }
  }
}

void KXNetworkServer::stop() {
  if (stopped_.exchange(true)) {
    return;
  }
  // Wakes the loop at once: the listening socket shut down is readable.
  if (soap_valid_socket(server_->master)) {
    ::shutdown(server_->master, SHUT_RDWR);
  }
  std::lock_guard<std::mutex> guard(mutex_);
  for (Connection* connection : open_) {
    connection->shutdownSocket();
  }
}

std::size_t KXNetworkServer::openConnectionCount() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return open_.size();
}

void KXNetworkServer::track(Connection* connection) {
  std::lock_guard<std::mutex> guard(mutex_);
  open_.insert(connection);
}

void KXNetworkServer::untrack(Connection* connection) {
  std::lock_guard<std::mutex> guard(mutex_);
  open_.erase(connection);
}

}  // namespace KX
