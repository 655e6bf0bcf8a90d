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

// Serves the requests arriving on the connection of `soap` (a copy of the server context
// bound to an accepted socket), one after the other while the connection is kept alive,
// at most soap->max_keep_alive of them (0: no limit). A request that cannot be read or
// carried out gets its fault and the connection goes on serving. Binary leaves of a
// callVelmo parameter take the DIME attachments received, in walk order; the Binary leaves
// of its result go out as attachments ("application/octet-stream", id "image"). Message
// data are freed after every request. Returns SOAP_OK when the peer closed the connection
// or keep-alive ended, else the runtime's error code (HTTP framing or socket failure, after
// which the connection is closed).
int serveBrokerConnection(struct soap* soap, const BrokerRequestHandler& handler);

// The description part of a KXError's text (what follows the module and method line).
std::string kxErrorDescription(const KXError& error);

}  // namespace KX

#endif  // VELMO_NETWORK_DETAIL_KXBROKERSERVE_H_
