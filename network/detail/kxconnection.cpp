#include "network/detail/kxconnection.h"

#include <sys/socket.h>

#include <utility>
#include <variant>

#include "kxsoapH.h"
#include "network/detail/kxbrokersoap.h"
#include "network/detail/kxsoapio.h"
#include "network/detail/kxvaluesoap.h"
#include "value/kxerror.h"

namespace KX {

namespace {

// soapcpp2 takes strings as char*; its serializers only read them.
char* text(const BrokerRequest& request, std::size_t index) {
  return const_cast<char*>(std::get<std::string>(request.args.at(index)).c_str());
}

bool flag(const BrokerRequest& request, std::size_t index) {
  return std::get<bool>(request.args.at(index));
}

const KXValue& value(const BrokerRequest& request, std::size_t index) {
  return std::get<KXValue>(request.args.at(index));
}

const KXModuleInfo& record(const BrokerRequest& request, std::size_t index) {
  return std::get<KXModuleInfo>(request.args.at(index));
}

}  // namespace

KXConnection::KXConnection(std::string endpoint, KXModuleInfo module, int timeoutSeconds,
                           std::string token)
    : endpoint_(std::move(endpoint)), module_(std::move(module)), token_(std::move(token)) {
  struct soap* soap = soap_.get();
  if (timeoutSeconds > 0) {
    soap->connect_timeout = timeoutSeconds;
    soap->send_timeout = timeoutSeconds;
    soap->recv_timeout = timeoutSeconds;
    soap->accept_timeout = timeoutSeconds;
  } else {
    // No send or receive timeout: the socket then stays blocking, and a call costs no
    // readiness wait before each send and receive.
    soap->connect_timeout = kConnectSeconds;
    soap->send_timeout = 0;
    soap->recv_timeout = 0;
  }
  // A call may wait for its answer without limit, but not on a peer that is gone: TCP
  // probes an idle connection and fails the call when the other machine stops answering.
  soap->tcp_keep_alive = 1;
  soap->tcp_keep_idle = kKeepAliveIdleSeconds;
  soap->tcp_keep_intvl = kKeepAliveIntervalSeconds;
  soap->tcp_keep_cnt = kKeepAliveProbes;
}

void KXConnection::authorize() {
  // Set for every message: the runtime forgets its credentials after a message.
  soap_->bearer = token_.empty() ? nullptr : token_.c_str();
}

int KXConnection::sendCall(BrokerOperation op, const std::string& module, const std::string& method,
                           const KXValue& param) {
  struct soap* soap = soap_.get();
  if (op == BrokerOperation::callVelmo2 || !hasBinaryLeaves(param)) {
    // Written in one pass and sent in one piece: the common, small call.
    writeCallRequest(envelope_, op == BrokerOperation::callVelmo2, module, method, param);
    return sendRequestEnvelope(soap, endpoint_.c_str(), envelope_);
  }
  char* xml = kxValueToSoap(soap, param);
  if (attachBinaries(soap, &param) != SOAP_OK) {
    return soap->error;
  }
  char* mod = const_cast<char*>(module.c_str());
  char* meth = const_cast<char*>(method.c_str());
  return op == BrokerOperation::callVelmo
             ? soap_send_kxbroker__callVelmo(soap, endpoint_.c_str(), "", mod, meth, xml)
             : soap_send_kxbroker__callVelmo2(soap, endpoint_.c_str(), "", mod, meth, xml);
}

BrokerResponse KXConnection::call(BrokerOperation op, const std::string& method,
                                  const KXValue& param) {
  std::lock_guard<std::mutex> call(lock_);
  authorize();
  const int sent = sendCall(op, module_.name, method, param);
  soap_clr_dime(soap_.get());
  if (sent != SOAP_OK) {
    return transportFault();
  }
  return receive(op);
}

int KXConnection::send(const BrokerRequest& request) {
  struct soap* soap = soap_.get();
  const char* endpoint = endpoint_.c_str();
  switch (request.op) {
    case BrokerOperation::callVelmo:
    case BrokerOperation::callVelmo2:
      return sendCall(request.op, std::get<std::string>(request.args.at(0)),
                      std::get<std::string>(request.args.at(1)), value(request, 2));
    case BrokerOperation::getModuleByName:
      return soap_send_kxbroker__getModuleByName(soap, endpoint, "", text(request, 0));
    case BrokerOperation::exploreToGetModuleByName:
      return soap_send_kxbroker__exploreToGetModuleByName(soap, endpoint, "", text(request, 0),
                                                          flag(request, 1), flag(request, 2),
                                                          text(request, 3), flag(request, 4));
    case BrokerOperation::getModuleList:
      return soap_send_kxbroker__getModuleList(soap, endpoint, "");
    case BrokerOperation::getGlobalModuleList:
      return soap_send_kxbroker__getGlobalModuleList(soap, endpoint, "");
    case BrokerOperation::getBrokerList:
      return soap_send_kxbroker__getBrokerList(soap, endpoint, "");
    case BrokerOperation::registerBroker:
    case BrokerOperation::unregisterBroker: {
      kx__KXModuleInfo broker;
      kxModuleInfoToSoap(soap, record(request, 0), broker);
      return request.op == BrokerOperation::registerBroker
                 ? soap_send_kxbroker__registerBroker(soap, endpoint, "", broker)
                 : soap_send_kxbroker__unregisterBroker(soap, endpoint, "", broker);
    }
    case BrokerOperation::unregisterModuleReference:
      return soap_send_kxbroker__unregisterModuleReference(soap, endpoint, "", text(request, 0));
    case BrokerOperation::getBrokerInfo:
      return soap_send_kxbroker__getBrokerInfo(soap, endpoint, "");
    case BrokerOperation::getMethodList:
      return soap_send_kxbroker__getMethodList(soap, endpoint, "", text(request, 0));
    case BrokerOperation::sendBackIP:
      return soap_send_kxbroker__sendBackIP(soap, endpoint, "");
    case BrokerOperation::getInfo:
      return soap_send_kxbroker__getInfo(soap, endpoint, "", text(request, 0));
    default:
      // Served, never sent: nothing in this process asks another broker for them.
      KX_THROW("KXNetwork", "exchange",
               std::string(brokerOperationName(request.op)) + " is not sent by this broker");
  }
}

BrokerResponse KXConnection::exchange(const BrokerRequest& request) {
  std::lock_guard<std::mutex> call(lock_);
  authorize();
  struct soap* soap = soap_.get();
  const bool oneWay = brokerOperationIsOneWay(request.op);
  const int sent = send(request);
  soap_clr_dime(soap);
  if (sent != SOAP_OK) {
    return transportFault();
  }
  if (oneWay) {
    endSoapMessage(soap);
    BrokerResponse nothing;
    nothing.op = request.op;
    return nothing;
  }
  return receive(request.op);
}

BrokerResponse KXConnection::receive(BrokerOperation op) {
  struct soap* soap = soap_.get();
  {
    std::lock_guard<std::mutex> guard(socketLock_);
    activeSocket_ = soap->socket;
  }
  const int began = soap_begin_recv(soap);
  {
    std::lock_guard<std::mutex> guard(socketLock_);
    activeSocket_ = -1;
  }
  if (began != SOAP_OK) {
    return transportFault();
  }
  std::string envelope;
  if (!readSoapEnvelope(soap, envelope)) {
    if (soap->error == SOAP_OK) {
      soap->error = SOAP_EOF;
    }
    return transportFault();
  }
  if (finishSoapReceive(soap) != SOAP_OK) {
    return transportFault();
  }
  BrokerResponse response;
  try {
    response = parseBrokerResponse(op, envelope);
  } catch (const KXBrokerMessageError& error) {
    // An answer we cannot read leaves the connection in an unknown state: start afresh.
    soap_closesock(soap);
    endSoapMessage(soap);
    response = BrokerResponse();
    response.op = op;
    response.fault = BrokerFault{"SOAP-ENV:Client", error.faultString(), std::string()};
    return response;
  }
  if (op == BrokerOperation::callVelmo && soap->dime.list != nullptr && !response.items.empty()) {
    if (auto* result = std::get_if<KXValue>(&response.items[0])) {
      takeAttachments(soap, *result);
    }
  }
  if (soap->keep_alive == 0) {
    soap_closesock(soap);
  }
  endSoapMessage(soap);
  return response;
}

BrokerResponse KXConnection::transportFault() {
  struct soap* soap = soap_.get();
  if (soap->error == SOAP_OK) {
    soap->error = SOAP_EOF;
  }
  soap_set_fault(soap);
  const char* faultString = soap_fault_string(soap);
  const char* faultDetail = soap_fault_detail(soap);
  if (soap->error == 401 || soap->error == 403) {
    // The broker's access rules said no: its one-line reason is the answer's body.
    std::string reason = faultDetail != nullptr ? faultDetail : "";
    reason = reason.substr(0, reason.find_first_of("\r\n"));
    const bool noToken = soap->error == 401 && token_.empty();
    soap_closesock(soap);
    endSoapMessage(soap);
    throw KXAccessRefused("KXNetwork", "connection",
                          endpoint_ + " refused the request: " +
                              (reason.empty() ? "HTTP " + std::to_string(soap->error) : reason) +
                              (noToken ? " This process has no token: set VELMO_TOKEN." : ""),
                          __FILE__, __LINE__);
  }
  BrokerResponse response;
  response.fault = BrokerFault{"SOAP-ENV:Client", faultString ? faultString : "",
                               faultDetail ? faultDetail : ""};
  soap_closesock(soap);
  endSoapMessage(soap);
  return response;
}

void KXConnection::interrupt() {
  std::lock_guard<std::mutex> guard(socketLock_);
  if (activeSocket_ >= 0) {
    ::shutdown(activeSocket_, SHUT_RDWR);
  }
}

}  // namespace KX
