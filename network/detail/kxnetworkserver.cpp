#include "network/detail/kxnetworkserver.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>
#include <utility>

#include "log/log.h"
#include "thread/kxtask.h"

namespace KX {

namespace {

constexpr char kCategory[] = "core.common.network";

// A serving context's sockets are closed by its task, not by the runtime: the task closes
// its socket under the server's lock, so that stop() never shuts down a descriptor that
// was closed and handed out again. Here the runtime only ends the exchange.
int shutdownOnly(struct soap* /*soap*/, SOAP_SOCKET socket) {
  ::shutdown(socket, SHUT_RDWR);
  return SOAP_OK;
}

bool isTransientAcceptError(int error) {
  return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM ||
         error == ECONNABORTED || error == EINTR || error == EPROTO || error == EPERM;
}

constexpr std::chrono::milliseconds kAcceptRetryPause{100};

}  // namespace

// Serves one accepted connection on a pool thread.
class KXNetworkServer::ServeTask : public KXTask {
 public:
  ServeTask(std::shared_ptr<KXNetworkServer> server, KXSoapContext context)
      : server_(std::move(server)), context_(std::move(context)), socket_(context_->socket) {
    setName("soap_serve");
    context_->fclosesocket = shutdownOnly;
    // The copy shares the listening socket; only the server closes it.
    context_->master = SOAP_INVALID_SOCKET;
  }

  ~ServeTask() override { closeSocket(); }

  void run() override {
    if (server_->track(this)) {
      struct soap* soap = context_.get();
      soap->recv_timeout = kServeReceiveSeconds;
      soap->send_timeout = kServeSendSeconds;
      soap->bufidx = 0;
      soap->buflen = 0;
      serveBrokerConnection(soap, server_->handler_);
      server_->untrack(this);
    }
    closeSocket();
  }

  // Ends the exchange at once: the serving loop sees the connection closed.
  void stop() override { shutdownSocket(); }

  // Called under the server's mutex (or once the task is untracked).
  void shutdownSocket() {
    std::lock_guard<std::mutex> guard(socketMutex_);
    if (socket_ >= 0) {
      ::shutdown(socket_, SHUT_RDWR);
    }
  }

 private:
  void closeSocket() {
    std::lock_guard<std::mutex> guard(socketMutex_);
    if (socket_ >= 0) {
      ::close(socket_);
      socket_ = -1;
      context_->socket = SOAP_INVALID_SOCKET;
    }
  }

  const std::shared_ptr<KXNetworkServer> server_;
  KXSoapContext context_;
  std::mutex socketMutex_;
  int socket_;  // guarded by socketMutex_
};

KXNetworkServer::KXNetworkServer(BrokerRequestHandler handler,
                                 std::shared_ptr<const KXFileService> files)
    : handler_(std::move(handler)), files_(std::move(files)) {
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
  return soap_valid_socket(soap_bind(server_.get(), host, port, kBacklog));
}

void KXNetworkServer::acceptLoop(
    const std::function<bool()>& keepGoing,
    const std::function<bool(const std::shared_ptr<KXTask>&)>& enqueue) {
  struct soap* server = server_.get();
  while (!stopped_.load() && keepGoing()) {
    const SOAP_SOCKET socket = soap_accept(server);
    if (!soap_valid_socket(socket)) {
      if (stopped_.load()) {
        break;
      }
      if (server->errnum == 0) {
        continue;  // the 1 s timeout: look at the stop conditions again
      }
      if (isTransientAcceptError(server->errnum)) {
        // Out of descriptors or memory for a moment, or a client that gave up while
        // queued: the server stays up and tries again.
        TU_LOG(tu::log::warning, kCategory, "KX::KXNetwork::listenRequest")
            << "accept failed (" << std::strerror(server->errnum) << "), retrying" << std::endl;
        std::this_thread::sleep_for(kAcceptRetryPause);
        continue;
      }
      break;
    }
    std::shared_ptr<ServeTask> task;
    try {
      task = std::make_shared<ServeTask>(shared_from_this(), KXSoapContext::copyOf(server_));
    } catch (const std::exception&) {
      ::close(socket);
      server->socket = SOAP_INVALID_SOCKET;
      break;  // no copy of the context: the loop ends
    }
    // The accepted socket belongs to the task now.
    server->socket = SOAP_INVALID_SOCKET;
    if (!enqueue(task)) {
      TU_LOG(tu::log::error, kCategory, "KX::KXNetwork::listenRequest")
          << "No more connection or thread available" << std::endl;
    }
  }
}

void KXNetworkServer::stop() {
  if (stopped_.exchange(true)) {
    return;
  }
  // Wakes the accept loop at once: accept fails on a listening socket shut down.
  if (soap_valid_socket(server_->master)) {
    ::shutdown(server_->master, SHUT_RDWR);
  }
  std::lock_guard<std::mutex> guard(mutex_);
  for (ServeTask* task : serving_) {
    task->shutdownSocket();
  }
}

bool KXNetworkServer::track(ServeTask* task) {
  std::lock_guard<std::mutex> guard(mutex_);
  if (stopped_.load()) {
    return false;
  }
  serving_.insert(task);
  return true;
}

void KXNetworkServer::untrack(ServeTask* task) {
  std::lock_guard<std::mutex> guard(mutex_);
  serving_.erase(task);
}

}  // namespace KX
