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

#include "kxsoapH.h"
#include "network/detail/kxbrokersoap.h"
#include "network/detail/kxsoapio.h"
#include "network/detail/kxvaluesoap.h"

namespace KX {
namespace {

constexpr const char* kModule = "KXNetwork";
constexpr const char* kMethod = "serveBrokerConnection";

// Writes one message (a response or a fault) framed as the generated skeleton frames its
// responses: counted first when the length must be known, then sent with its HTTP header.
template <typename PutBody>
int sendMessage(struct soap* soap, int status, const PutBody& putBody) {
  if (soap_begin_count(soap) != SOAP_OK) {
    return soap->error;
  }
  if ((soap->mode & SOAP_IO_LENGTH) != 0) {
    if (soap_envelope_begin_out(soap) != SOAP_OK || soap_putheader(soap) != SOAP_OK ||
        soap_body_begin_out(soap) != SOAP_OK || putBody() != SOAP_OK ||
        soap_body_end_out(soap) != SOAP_OK || soap_envelope_end_out(soap) != SOAP_OK) {
      return soap->error;
    }
  }
  if (soap_end_count(soap) != SOAP_OK || soap_response(soap, status) != SOAP_OK ||
      soap_envelope_begin_out(soap) != SOAP_OK || soap_putheader(soap) != SOAP_OK ||
      soap_body_begin_out(soap) != SOAP_OK || putBody() != SOAP_OK ||
      soap_body_end_out(soap) != SOAP_OK || soap_envelope_end_out(soap) != SOAP_OK ||
      soap_end_send(soap) != SOAP_OK) {
    return soap->error;
  }
  return SOAP_OK;
}

template <typename Response>
int sendResponse(struct soap* soap, const Response& response, const char* tag,
                 void (*serialize)(struct soap*, const Response*),
                 int (*put)(struct soap*, const Response*, const char*, const char*)) {
  soap->encodingStyle = "";  // SOAP encoding, as the skeleton answers
  soap_serializeheader(soap);
  serialize(soap, &response);
  return sendMessage(soap, SOAP_OK, [&] { return put(soap, &response, tag, ""); });
}

// A Client fault that leaves the connection as the request left it: the runtime's own
// fault sending would close it.
int sendFault(struct soap* soap, const std::string& text, const std::string& detail) {
  soap_sender_fault(soap, text.c_str(), detail.empty() ? nullptr : detail.c_str());
  soap->error = SOAP_OK;
  soap->encodingStyle = nullptr;
  soap->header = nullptr;
  soap_serializefault(soap);
  return sendMessage(soap, SOAP_FAULT, [soap] { return soap_putfault(soap); });
}

// The index-th item of a handler's answer, null when the answer has fewer items. An item
// of another type than the operation's is the handler's mistake and is refused.
template <typename T>
const T* itemOf(const BrokerResponse& response, std::size_t index) {
  if (index >= response.items.size()) {
    return nullptr;
  }
  const T* item = std::get_if<T>(&response.items[index]);
  if (item == nullptr) {
    KX_THROW(kModule, kMethod,
             std::string("answer to ") + brokerOperationName(response.op) +
                 " holds an item of the wrong type at position " + std::to_string(index));
  }
  return item;
}

char* textOf(struct soap* soap, const std::string* text) {
  return soap_strdup(soap, text == nullptr ? "" : text->c_str());
}

char* valueOf(struct soap* soap, const KXValue* value) {
  return value == nullptr ? nullptr : kxValueToSoap(soap, *value);
}

void recordOf(struct soap* soap, const KXModuleInfo* info, kx__KXModuleInfo& record) {
  kxModuleInfoToSoap(soap, info == nullptr ? KXModuleInfo() : *info, record);
}

int intOf(const int* value) { return value == nullptr ? 0 : *value; }

// Every item of a list answer, as records allocated in the context.
kx__KXModuleInfo* recordsOf(struct soap* soap, const BrokerResponse& response, int& size) {
  size = static_cast<int>(response.items.size());
  if (size == 0) {
    return nullptr;
  }
  kx__KXModuleInfo* records = soap_new_kx__KXModuleInfo(soap, size);
  for (int i = 0; i < size; ++i) {
    recordOf(soap, itemOf<KXModuleInfo>(response, static_cast<std::size_t>(i)), records[i]);
  }
  return records;
}

// soapcpp2 names a response after its operation: the type kxbroker__<op>Response and its
// soap_default_/soap_serialize_/soap_put_ functions. These two build one and send it.
#define KX_NEW_RESPONSE(op, out) \
  kxbroker__##op##Response out;  \
  soap_default_kxbroker__##op##Response(soap, &(out))
#define KX_SEND_RESPONSE(op, out)                                                              \
  sendResponse(soap, out, "kxbroker:" #op "Response", soap_serialize_kxbroker__##op##Response, \
               soap_put_kxbroker__##op##Response)

int sendAnswer(struct soap* soap, BrokerOperation op, const BrokerResponse& response) {
  switch (op) {
    case BrokerOperation::callVelmo: {
      const KXValue* result = itemOf<KXValue>(response, 0);
      if (result != nullptr && !hasBinaryLeaves(*result)) {
        // Written in one pass and sent in one piece: the common, small answer.
        std::string envelope;
        writeCallResponse(envelope, false, *result);
        return sendResponseEnvelope(soap, envelope);
      }
      KX_NEW_RESPONSE(callVelmo, out);
      out.kxbroker__return = valueOf(soap, result);
      if (attachBinaries(soap, result) != SOAP_OK) {
        return soap->error;
      }
      return KX_SEND_RESPONSE(callVelmo, out);
    }
    case BrokerOperation::callVelmo2: {
      KX_NEW_RESPONSE(callVelmo2, out);
      out.kxbroker__return = valueOf(soap, itemOf<KXValue>(response, 0));
      return KX_SEND_RESPONSE(callVelmo2, out);
    }
    case BrokerOperation::pCallVelmoN: {
      KX_NEW_RESPONSE(pCallVelmoN, out);
      out.kxbroker__return = valueOf(soap, itemOf<KXValue>(response, 0));
      return KX_SEND_RESPONSE(pCallVelmoN, out);
    }
    case BrokerOperation::getModuleByName: {
      KX_NEW_RESPONSE(getModuleByName, out);
      recordOf(soap, itemOf<KXModuleInfo>(response, 0), out.kxbroker__return);
      return KX_SEND_RESPONSE(getModuleByName, out);
    }
    case BrokerOperation::exploreToGetModuleByName: {
      KX_NEW_RESPONSE(exploreToGetModuleByName, out);
      recordOf(soap, itemOf<KXModuleInfo>(response, 0), out.kxbroker__return);
      return KX_SEND_RESPONSE(exploreToGetModuleByName, out);
    }
    case BrokerOperation::getModuleList: {
      KX_NEW_RESPONSE(getModuleList, out);
      out.kxbroker__return = recordsOf(soap, response, out.__size);
      return KX_SEND_RESPONSE(getModuleList, out);
    }
    case BrokerOperation::getGlobalModuleList: {
      KX_NEW_RESPONSE(getGlobalModuleList, out);
      out.kxbroker__return = recordsOf(soap, response, out.__size);
      return KX_SEND_RESPONSE(getGlobalModuleList, out);
    }
    case BrokerOperation::getBrokerList: {
      KX_NEW_RESPONSE(getBrokerList, out);
      out.kxbroker__return = recordsOf(soap, response, out.__size);
      return KX_SEND_RESPONSE(getBrokerList, out);
    }
    case BrokerOperation::registerBroker: {
      KX_NEW_RESPONSE(registerBroker, out);
      out.kxbroker__unused = intOf(itemOf<int>(response, 0));
      return KX_SEND_RESPONSE(registerBroker, out);
    }
    case BrokerOperation::unregisterBroker: {
      KX_NEW_RESPONSE(unregisterBroker, out);
      out.kxbroker__unused = intOf(itemOf<int>(response, 0));
      return KX_SEND_RESPONSE(unregisterBroker, out);
    }
    case BrokerOperation::getBrokerInfo: {
      KX_NEW_RESPONSE(getBrokerInfo, out);
      recordOf(soap, itemOf<KXModuleInfo>(response, 0), out.kxbroker__return);
      return KX_SEND_RESPONSE(getBrokerInfo, out);
    }
    case BrokerOperation::getMethodList: {
      KX_NEW_RESPONSE(getMethodList, out);
      out.__size = static_cast<int>(response.items.size());
      if (out.__size > 0) {
        out.kxbroker__pMethodListName =
            static_cast<char**>(soap_malloc(soap, sizeof(char*) * response.items.size()));
        if (out.kxbroker__pMethodListName == nullptr) {
          return soap->error = SOAP_EOM;
        }
        for (std::size_t i = 0; i < response.items.size(); ++i) {
          out.kxbroker__pMethodListName[i] = textOf(soap, itemOf<std::string>(response, i));
        }
      }
      return KX_SEND_RESPONSE(getMethodList, out);
    }
    case BrokerOperation::init: {
      KX_NEW_RESPONSE(init, out);
      const int* unused = itemOf<int>(response, 0);
      if (unused != nullptr) {
        out.kxbroker__unused = static_cast<int*>(soap_malloc(soap, sizeof(int)));
        if (out.kxbroker__unused == nullptr) {
          return soap->error = SOAP_EOM;
        }
        *out.kxbroker__unused = *unused;
      }
      return KX_SEND_RESPONSE(init, out);
    }
    case BrokerOperation::version: {
      KX_NEW_RESPONSE(version, out);
      out.kxbroker__pVersion = textOf(soap, itemOf<std::string>(response, 0));
      return KX_SEND_RESPONSE(version, out);
    }
    case BrokerOperation::sendBackIP: {
      KX_NEW_RESPONSE(sendBackIP, out);
      out.kxbroker__pIP = textOf(soap, itemOf<std::string>(response, 0));
      return KX_SEND_RESPONSE(sendBackIP, out);
    }
    case BrokerOperation::getBrokerName: {
      KX_NEW_RESPONSE(getBrokerName, out);
      out.kxbroker__pBrokerName = textOf(soap, itemOf<std::string>(response, 0));
      return KX_SEND_RESPONSE(getBrokerName, out);
    }
    case BrokerOperation::getInfo: {
      // Answered by the record itself, without a Response wrapper.
      kx__KXModuleInfo out;
      recordOf(soap, itemOf<KXModuleInfo>(response, 0), out);
      return sendResponse(soap, out, "kx:KXModuleInfo", soap_serialize_kx__KXModuleInfo,
                          soap_put_kx__KXModuleInfo);
    }
    case BrokerOperation::stopTask: {
      KX_NEW_RESPONSE(stopTask, out);
      out.kxbroker__num = intOf(itemOf<int>(response, 0));
      return KX_SEND_RESPONSE(stopTask, out);
    }
    case BrokerOperation::stopTaskName: {
      KX_NEW_RESPONSE(stopTaskName, out);
      out.kxbroker__num = intOf(itemOf<int>(response, 0));
      return KX_SEND_RESPONSE(stopTaskName, out);
    }
    case BrokerOperation::getDebugTaskList: {
      KX_NEW_RESPONSE(getDebugTaskList, out);
      out.kxbroker__return = valueOf(soap, itemOf<KXValue>(response, 0));
      return KX_SEND_RESPONSE(getDebugTaskList, out);
    }
    case BrokerOperation::pCallVelmo:
    case BrokerOperation::unregisterModuleReference:
    case BrokerOperation::exit:
      return SOAP_OK;
  }
  return SOAP_OK;
}

#undef KX_NEW_RESPONSE
#undef KX_SEND_RESPONSE

// The module that a failing callVelmo or callVelmo2 names in its fault's detail.
std::string faultDetailOf(const BrokerRequest& request) {
  if ((request.op == BrokerOperation::callVelmo || request.op == BrokerOperation::callVelmo2) &&
      !request.args.empty()) {
    if (const auto* mod = std::get_if<std::string>(&request.args[0])) {
      return *mod;
    }
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

  const BrokerOperation op = request.op;
  const std::string detail = faultDetailOf(request);
  BrokerResponse response;
  try {
    if (op == BrokerOperation::callVelmo && soap->dime.list != nullptr && request.args.size() > 2) {
      if (auto* parameter = std::get_if<KXValue>(&request.args[2])) {
        takeAttachments(soap, *parameter);
      }
    }
    response = handler(request, BrokerPeer{soap->endpoint, peerIp});
  } catch (const KXError& error) {
    return brokerOperationIsOneWay(op) ? SOAP_OK
                                       : sendFault(soap, kxErrorDescription(error), detail);
  } catch (const std::exception& error) {
    return brokerOperationIsOneWay(op) ? SOAP_OK : sendFault(soap, error.what(), std::string());
  }
  if (brokerOperationIsOneWay(op)) {
    return SOAP_OK;
  }
  if (response.fault) {
    return sendFault(soap, response.fault->string, response.fault->detail);
  }
  response.op = op;
  try {
    return sendAnswer(soap, op, response);
  } catch (const KXError& error) {
    // Nothing has been sent yet when an answer cannot be built: the fault takes its place.
    soap_clr_dime(soap);
    return sendFault(soap, kxErrorDescription(error), std::string());
  }
}

}  // namespace

std::string kxErrorDescription(const KXError& error) { return error.description(); }

int serveBrokerConnection(struct soap* soap, const BrokerRequestHandler& handler) {
  // The peer of a connection does not change: asked once.
  const std::string peerIp = peerAddress(soap->socket);
  // Counted down as the generated skeleton does: max_keep_alive requests. Without a limit
  // the answers say "keep-alive" with no count of requests left.
  soap->keep_alive = soap->max_keep_alive > 0 ? soap->max_keep_alive + 1 : -1;
  do {
    if (soap->keep_alive > 0 && soap->max_keep_alive > 0) {
      --soap->keep_alive;
    }
    soap->error = SOAP_OK;
    if (soap_begin_recv(soap) != SOAP_OK) {
      const int error = soap->error;
      if (error >= SOAP_STOP) {
        // Handled by an HTTP callback (GET, PUT, ...): the connection goes on.
        soap_destroy(soap);
        soap_end(soap);
        continue;
      }
      // A peer that closes between requests ends the connection normally; anything else
      // is answered as the runtime answers bad HTTP, which closes the connection.
      if (error == SOAP_EOF) {
        soap->keep_alive = 0;
        soap_closesock(soap);
        soap_destroy(soap);
        soap_end(soap);
        return SOAP_OK;
      }
      soap_set_version(soap, 1);
      soap_send_fault(soap);
      soap_destroy(soap);
      soap_end(soap);
      return error;
    }
    const int result = serveRequest(soap, handler, peerIp);
    endSoapMessage(soap);
    if (result != SOAP_OK) {
      soap->keep_alive = 0;
      soap_closesock(soap);
      return result;
    }
  } while (soap->keep_alive != 0);
  soap_closesock(soap);
  return SOAP_OK;
}

}  // namespace KX
