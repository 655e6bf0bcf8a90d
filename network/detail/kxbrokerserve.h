#ifndef VELMO_NETWORK_DETAIL_KXBROKERSERVE_H_
#define VELMO_NETWORK_DETAIL_KXBROKERSERVE_H_

// Serving the broker protocol on one accepted connection with our own reading of requests:
// the runtime does the HTTP framing, keep-alive and DIME; the request envelope is read by
// parseBrokerRequest (children by position, whatever their names) and the answer written by
// writeBrokerAnswer, framed as gSOAP's own serving skeleton frames it.

#include <stdsoap2.h>

#include <functional>
#include <string>

#include "network/detail/kxbrokermessage.h"

namespace KX {

// Where a request came from: the endpoint it addressed ("http://" + its Host header + its
// path, which names the serving broker by its port) and the peer's IP address.
struct BrokerPeer {
  std::string endpoint;
  std::string ip;
};

// Carries out one request and returns its answer, which must be of the type of the
// operation's Answer (another type is answered with a fault); `request` may be consumed.
// Raising KXError answers with a Client fault whose string is the error's description, and
// whose detail is the module named by the request for callVelmo and callVelmo2 (the caller
// tells a module's own error from a transport failure that way); any other exception with
// its what(). One-way operations answer nothing, whatever happens. A handler may serve
// several connections at once, from several threads.
using BrokerRequestHandler =
    std::function<BrokerAnswer(BrokerRequest& request, const BrokerPeer& peer)>;

// One accepted connection of the broker protocol, served in rounds: a round serves the
// requests that arrive one after the other, and ends when the connection closes or, for a
// connection set up by useKernelTimeouts, when no request has begun within its wake time
// (the connection is then idle, still open, and the next round serves it once its next
// request arrives).
//
// A request that cannot be read or carried out gets its fault and the connection goes on
// serving; on a connection set up by useKernelTimeouts, one that does not come whole in
// time (startRequestClock) ends the connection. At most soap->max_keep_alive requests are
// served (0: no limit). Binary leaves of a callVelmo parameter take the DIME attachments
// received, in walk order; the Binary leaves of its result go out as attachments
// ("application/octet-stream", id "image"). Message data are freed after every request.
// Not thread-safe: one round at a time.
class BrokerConnection {
 public:
  enum class State { Idle, Closed };

  enum class Rounds { UntilIdle, UntilClosed };

  // `soap`: a copy of the server context bound to an accepted socket; it outlives this.
  explicit BrokerConnection(struct soap* soap);

  // Serves one round. Closed when the peer closed the connection, keep-alive ended, or the
  // HTTP framing or the socket failed (the socket is then closed).
  State serve(const BrokerRequestHandler& handler, Rounds rounds);

 private:
  struct soap* const soap_;
  const std::string peerIp_;  // the peer of a connection does not change
};

}  // namespace KX

#endif  // VELMO_NETWORK_DETAIL_KXBROKERSERVE_H_
