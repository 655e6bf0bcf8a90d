#ifndef VELMO_NETWORK_DETAIL_KXBROKERDISPATCH_H_
#define VELMO_NETWORK_DETAIL_KXBROKERDISPATCH_H_

#include <memory>
#include <string>

#include "network/detail/kxbrokerprotocol.h"
#include "network/detail/kxbrokerserve.h"

namespace KX {

class KXBroker;

// Carries out one broker-protocol request on the broker of this process that the request
// addresses: the first whose ":<port>/" occurs in the endpoint, else the broker manager's
// first broker. With no broker at all the request does nothing and gets the default
// (empty) answer. Failures raise KXError with the operation's fault message; a callVelmo
// or callVelmo2 whose method raises, the method's own error (the serving code answers
// with its description, and the module's name as detail).
// Reentrant: serves any number of connections at once.
BrokerAnswer carryOutBrokerRequest(BrokerRequest& request, const BrokerPeer& peer);

// The broker of this process that `endpoint` addresses, as above; null when there is none.
std::shared_ptr<KXBroker> brokerForEndpoint(const std::string& endpoint);

}  // namespace KX

#endif  // VELMO_NETWORK_DETAIL_KXBROKERDISPATCH_H_
