#ifndef VELMO_NETWORK_DETAIL_KXNETWORKSERVER_H_
#define VELMO_NETWORK_DETAIL_KXNETWORKSERVER_H_

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "network/detail/kxbrokerserve.h"
#include "network/detail/kxfileservice.h"
#include "network/detail/kxsoapcontext.h"

namespace KX {

class KXTask;

// How long a served connection waits for its peer.
struct ServeTimeouts {
  // For a request to come, for each of its bytes, and for the whole request (one second
  // more for every kSlowestRequestRate bytes of it).
  int receiveSeconds = 300;
  int sendSeconds = 60;
};

// A broker's listening socket and its connections. A connection holds a pool worker only
// while requests come: one loop (serveLoop) accepts connections and watches the idle ones
// in one epoll set, and hands a connection to a serving task ("soap_serve") when its next
// (or first) request arrives. The task serves the broker protocol (and HTTP GET, PUT,
// DELETE through the callbacks installed on the context) with its own copy of the server
// context while requests follow each other, and gives the connection back once none has
// begun within kLinger. An idle connection is closed after the receive timeout. stop()
// ends the loop and every connection, without waiting for their timeouts.
//
// Thread-safe. Lock order: the server's mutex, then a connection's socket mutex; no lock is
// held while serving.
class KXNetworkServer : public std::enable_shared_from_this<KXNetworkServer> {
 public:
  static constexpr int kBacklog = 1000;
  // How long a serving task waits for a connection's next request before giving the
  // connection back: long enough for a client that calls in a loop, short enough that
  // clients which stay idle do not hold workers.
  static constexpr std::chrono::milliseconds kLinger{2};

  // `files` answers HTTP GET, PUT and DELETE on the same port; the server keeps it alive as
  // long as any of its connections is served.
  KXNetworkServer(BrokerRequestHandler handler, std::shared_ptr<const KXFileService> files,
                  ServeTimeouts timeouts = ServeTimeouts());
  ~KXNetworkServer();
  KXNetworkServer(const KXNetworkServer&) = delete;
  KXNetworkServer& operator=(const KXNetworkServer&) = delete;

  // The listening context, to install HTTP callbacks on before listening.
  struct soap* context() const {
    return server_.get();
  }

  // Binds to ip:port ("" or "0.0.0.0": every interface; port 0: one the system picks).
  // False when the port cannot be bound.
  bool bind(const std::string& ip, int port);

  // The port bound, 0 before.
  int port() const;

  // Accepts connections and watches the idle ones until stop(), an accept error or a false
  // `keepGoing` (asked at least once a second), handing each connection that is new or has
  // a request coming to `enqueue` as a serving task; a connection that `enqueue` refuses
  // is closed. The idle connections are closed when the loop ends.
  void serveLoop(const std::function<bool()>& keepGoing,
                 const std::function<bool(const std::shared_ptr<KXTask>&)>& enqueue);

  // Serves `socket`, a connected stream socket that it takes over (and closes), as it
  // serves an accepted connection, on the calling thread and until the connection ends: a
  // way to feed the server a connection's bytes without listening (the fuzzing targets).
  // Returns once every request has been served and the peer has shut down its sending
  // side; a peer that stays connected and silent keeps it serving.
  void serveConnection(int socket);

  // Ends the loop and shuts every connection down.
  void stop();

  // Connections open, served or idle.
  std::size_t openConnectionCount() const;

 private:
  class Connection;
  class ServeTask;

  // Serves a round of `connection` on a pool thread, then gives it back when it is idle.
  void serve(const std::shared_ptr<Connection>& connection);
  // Watches `connection` for its next request; false when the loop has ended.
  bool park(const std::shared_ptr<Connection>& connection);
  // Takes the idle connection on `socket` back from the watch; null when it is not there.
  std::shared_ptr<Connection> unpark(int socket);
  // Closes the idle connections whose receive timeout has passed (all with `all`).
  void closeIdle(std::chrono::steady_clock::time_point now, bool all);
  // Accepts the connection waiting; false when the listening socket failed for good.
  bool accept(const std::function<bool(const std::shared_ptr<KXTask>&)>& enqueue);
  void hand(const std::shared_ptr<Connection>& connection,
            const std::function<bool(const std::shared_ptr<KXTask>&)>& enqueue);

  void track(Connection* connection);
  void untrack(Connection* connection);

  const BrokerRequestHandler handler_;
  const std::shared_ptr<const KXFileService> files_;
  const ServeTimeouts timeouts_;
  KXSoapContext server_;
  std::atomic<bool> stopped_{false};
  mutable std::mutex mutex_;
  std::set<Connection*> open_;  // guarded by mutex_: every connection, served or idle
  int watch_ = -1;              // guarded by mutex_: the epoll set while the loop runs
  // Guarded by mutex_: the idle connections, by socket; they are owned here while idle.
  std::map<int, std::shared_ptr<Connection>> idle_;
};

}  // namespace KX

#endif  // VELMO_NETWORK_DETAIL_KXNETWORKSERVER_H_
