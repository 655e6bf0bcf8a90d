#include "network/detail/kxbrokerserve.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "network/detail/kxbrokerwriter.h"
#include "network/detail/kxdimerecords.h"
#include "network/detail/kxsoapio.h"
#include "network/detail/kxvaluesoap.h"

namespace KX {
namespace {

constexpr const char* kModule = "KXNetwork";
constexpr const char* kMethod = "BrokerConnection::serve";

// A Client fault that leaves the connection as the request left it: the runtime's own
// fault sending would close it.
int sendFault(struct soap* soap, const std::string& text, const std::string& detail) {
  soap_sender_fault(soap, text.c_str(), detail.empty() ? nullptr : detail.c_str());
  soap->error = SOAP_OK;
  soap->encodingStyle = nullptr;
  soap->header = nullptr;
  soap_serializefault(soap);
  return sendFramedMessage(soap, nullptr, SOAP_FAULT, [soap] { return soap_putfault(soap); });
}

// Writes and sends the answer to a request of `Op`.
template <typename Op>
int sendAnswer(struct soap* soap, const BrokerAnswer& answer) {
  const auto* typed = std::get_if<typename Op::Answer>(&answer);
  if (typed == nullptr) {
    KX_THROW(kModule, kMethod, std::string("the answer to ") + Op::kName + " is of another type");
  }
  std::string envelope;
  writeBrokerAnswer<Op>(envelope, *typed);
  std::vector<const KXValue*> attachments;
  if constexpr (carriesAttachments<Op>()) {
    collectBinaryLeaves(*typed, attachments);
  }
  return sendResponseEnvelope(soap, envelope, attachments);
}

// The module that a failing callVelmo or callVelmo2 names in its fault's detail.
std::string faultDetailOf(const BrokerRequest& request) {
  if (const auto* call = std::get_if<protocol::CallVelmo>(&request)) {
    return call->mod;
  }
  if (const auto* call = std::get_if<protocol::CallVelmo2>(&request)) {
    return call->mod;
  }
  return std::string();
}

// The bytes of the next request that arrived with this one (a pipelining client): the
// runtime writes the answer through the same buffer, so they are kept aside meanwhile and
// put back once the answer is sent.
class PendingInput {
 public:
  explicit PendingInput(struct soap* soap)
      : soap_(soap),
        bytes_(soap->buf + soap->bufidx, soap->buflen - soap->bufidx),
        ahead_(soap->ahead) {}
  ~PendingInput() {
    std::memcpy(soap_->buf, bytes_.data(), bytes_.size());
    soap_->bufidx = 0;
    soap_->buflen = bytes_.size();
    soap_->ahead = ahead_;
  }
  PendingInput(const PendingInput&) = delete;
  PendingInput& operator=(const PendingInput&) = delete;

 private:
  struct soap* const soap_;
  const std::string bytes_;
  const soap_wchar ahead_;
};

// The peer's address as text ("" when the socket cannot say).
std::string peerAddress(SOAP_SOCKET socket) {
  sockaddr_storage address{};
  socklen_t length = sizeof(address);
  if (getpeername(socket, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    return std::string();
  }
  char host[INET6_ADDRSTRLEN] = {0};
  if (address.ss_family == AF_INET) {
    inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in*>(&address)->sin_addr, host, sizeof(host));
  } else if (address.ss_family == AF_INET6) {
    const in6_addr& ip6 = reinterpret_cast<sockaddr_in6*>(&address)->sin6_addr;
    // An IPv4 peer on a dual-stack socket is shown in dotted form.
    if (IN6_IS_ADDR_V4MAPPED(&ip6)) {
      inet_ntop(AF_INET, &ip6.s6_addr[12], host, sizeof(host));
    } else {
      inet_ntop(AF_INET6, &ip6, host, sizeof(host));
    }
  }
  return host;
}

// Serves one request whose HTTP header has been read. Returns SOAP_OK when the connection
// can carry the next request, else the runtime's error code.
int serveRequest(struct soap* soap, const BrokerRequestHandler& handler,
                 const std::string& peerIp) {
  // Requests come as HTTP POSTs framed by a length, chunks or DIME records; anything else
  // (bytes that are no HTTP at all, say) has no end that we could wait for.
  if (soap->status != SOAP_POST) {
    return soap->error = SOAP_HTTP_ERROR;
  }
  std::string envelope;
  const bool complete = readSoapEnvelope(soap, envelope);
  if (!complete || finishSoapReceive(soap) != SOAP_OK) {
    return soap->error != SOAP_OK ? soap->error : (soap->error = SOAP_EOF);
  }
  // The answer is SOAP 1.1 whatever the request claimed; the reader has checked it.
  soap_set_version(soap, 1);
  const PendingInput pending(soap);

  BrokerRequest request;
  try {
    request = parseBrokerRequest(envelope);
  } catch (const KXBrokerMessageError& error) {
    // The rest of an oversized message was never read: the connection cannot go on.
    if (envelope.size() > kBrokerMessageMaxBytes) {
      soap->keep_alive = 0;
    }
    return sendFault(soap, error.faultString(), std::string());
  }
  envelope.clear();
  envelope.shrink_to_fit();

  const bool oneWay =
      std::visit([](const auto& op) { return isOneWay<std::decay_t<decltype(op)>>(); }, request);
  const std::string detail = faultDetailOf(request);
  BrokerAnswer answer;
  try {
    std::visit(
        [soap](auto& op) {
          if constexpr (carriesAttachments<std::decay_t<decltype(op)>>()) {
            takeAttachments(soap, op.p);
          }
        },
        request);
    answer = handler(request, BrokerPeer{soap->endpoint, peerIp});
  } catch (const KXError& error) {
    return oneWay ? SOAP_OK : sendFault(soap, error.description(), detail);
  } catch (const std::exception& error) {
    return oneWay ? SOAP_OK : sendFault(soap, error.what(), std::string());
  }
  try {
    return std::visit(
        [soap, &answer](const auto& op) {
          using Op = std::decay_t<decltype(op)>;
          if constexpr (isOneWay<Op>()) {
            return SOAP_OK;
          } else {
            return sendAnswer<Op>(soap, answer);
          }
        },
        request);
  } catch (const KXError& error) {
    // Nothing has been sent yet when an answer cannot be built: the fault takes its place.
    soap_clr_dime(soap);
    return sendFault(soap, error.description(), std::string());
  }
}

}  // namespace

BrokerConnection::BrokerConnection(struct soap* soap)
    : soap_(soap), peerIp_(peerAddress(soap->socket)) {
  // Counted down as the generated skeleton does: max_keep_alive requests. Without a limit
  // the answers say "keep-alive" with no count of requests left.
  soap->keep_alive = soap->max_keep_alive > 0 ? soap->max_keep_alive + 1 : -1;
}

BrokerConnection::State BrokerConnection::serve(const BrokerRequestHandler& handler,
                                                Rounds rounds) {
  struct soap* soap = soap_;
  do {
    if (rounds == Rounds::UntilIdle && !receiveWithinWake(soap)) {
      return State::Idle;
    }
    startRequestClock(soap);
    if (soap->keep_alive > 0 && soap->max_keep_alive > 0) {
      --soap->keep_alive;
    }
    soap->error = SOAP_OK;
    if (beginSoapReceive(soap) != SOAP_OK) {
      if (soap->error >= SOAP_STOP) {
        // Handled by an HTTP callback (GET, PUT, ...): the connection goes on.
        soap_destroy(soap);
        soap_end(soap);
        continue;
      }
      // A peer that closes between requests ends the connection normally; anything else
      // is answered as the runtime answers bad HTTP, which closes the connection.
      if (soap->error == SOAP_EOF) {
        soap->keep_alive = 0;
        soap_closesock(soap);
      } else {
        soap_set_version(soap, 1);
        soap_send_fault(soap);
      }
      soap_destroy(soap);
      soap_end(soap);
      return State::Closed;
    }
    const int result = serveRequest(soap, handler, peerIp_);
    endSoapMessage(soap);
    if (result != SOAP_OK) {
      soap->keep_alive = 0;
      soap_closesock(soap);
      return State::Closed;
    }
  } while (soap->keep_alive != 0);
  soap_closesock(soap);
  return State::Closed;
}

}  // namespace KX
