#ifndef VELMO_NETWORK_DETAIL_KXNETWORKSERVER_H_
#define VELMO_NETWORK_DETAIL_KXNETWORKSERVER_H_

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "network/detail/kxbrokerserve.h"
#include "network/detail/kxfileservice.h"
#include "network/detail/kxsoapcontext.h"

namespace KX {

class KXTask;

// A broker's listening socket and its connections: the accept loop hands every accepted
// connection to a serving task ("soap_serve") with its own copy of the server context,
// which serves the broker protocol (and HTTP GET, PUT, DELETE through the callbacks
// installed on the context) until the peer closes. stop() ends the accept loop and every
// connection being served, without waiting for their timeouts.
//
// Thread-safe. Lock order: the server's mutex alone; no lock is held while serving.
class KXNetworkServer : public std::enable_shared_from_this<KXNetworkServer> {
 public:
  // Serving: receive timeout 300 s, send timeout 60 s per connection.
  static constexpr int kServeReceiveSeconds = 300;
  static constexpr int kServeSendSeconds = 60;
  static constexpr int kBacklog = 1000;

  // `files` answers HTTP GET, PUT and DELETE on the same port; the server keeps it alive as
  // long as any of its connections is served.
  KXNetworkServer(BrokerRequestHandler handler, std::shared_ptr<const KXFileService> files);
  ~KXNetworkServer();
  KXNetworkServer(const KXNetworkServer&) = delete;
  KXNetworkServer& operator=(const KXNetworkServer&) = delete;

  // The listening context, to install HTTP callbacks on before listening.
  struct soap* context() const {
    return server_.get();
  }

  // Binds to ip:port ("" or "0.0.0.0": every interface). False when the port cannot be
  // bound.
  bool bind(const std::string& ip, int port);

  // Accepts connections (1 s accept timeout) until stop() or an accept error, handing each
  // to `enqueue` as a serving task; a connection that `enqueue` refuses is closed.
  // `keepGoing` is asked once per round.
  void acceptLoop(const std::function<bool()>& keepGoing,
                  const std::function<bool(const std::shared_ptr<KXTask>&)>& enqueue);

  // Ends the accept loop and shuts every connection being served down.
  void stop();

 private:
  class ServeTask;
  friend class ServeTask;

  bool track(ServeTask* task);
  void untrack(ServeTask* task);

  const BrokerRequestHandler handler_;
  const std::shared_ptr<const KXFileService> files_;
  KXSoapContext server_;
  std::atomic<bool> stopped_{false};
  mutable std::mutex mutex_;
  std::set<ServeTask*> serving_;  // guarded by mutex_
};

}  // namespace KX

#endif  // VELMO_NETWORK_DETAIL_KXNETWORKSERVER_H_
