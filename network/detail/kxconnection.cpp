#include "network/detail/kxconnection.h"

#include <sys/socket.h>

#include <utility>

#include "network/detail/kxvaluesoap.h"
#include "value/kxerror.h"

namespace KX {

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

int KXConnection::sendEnvelope(const KXValue* attachmentsOf) {
  struct soap* soap = soap_.get();
  {
    std::lock_guard<std::mutex> guard(socketLock_);
    if (interrupted_) return soap->error = SOAP_EOF;
  }
  std::vector<const KXValue*> attachments;
  if (attachmentsOf != nullptr) {
    collectBinaryLeaves(*attachmentsOf, attachments);
  }
  return sendRequestEnvelope(soap, endpoint_.c_str(), envelope_, attachments);
}

bool KXConnection::receiveEnvelope(std::string& envelope) {
  struct soap* soap = soap_.get();
  {
    std::lock_guard<std::mutex> guard(socketLock_);
    activeSocket_ = soap->socket;
    // Interrupted since the send: the answer is not waited for.
    if (interrupted_ && activeSocket_ >= 0) ::shutdown(activeSocket_, SHUT_RDWR);
  }
  // Our own brokers answer plainly; anything else is read by the runtime.
  const PlainAnswer plain = readPlainAnswer(soap, envelope);
  const int began = plain == PlainAnswer::NotPlain ? beginSoapReceive(soap) : SOAP_OK;
  {
    std::lock_guard<std::mutex> guard(socketLock_);
    activeSocket_ = -1;
  }
  if (plain != PlainAnswer::NotPlain) {
    return plain == PlainAnswer::Read;
  }
  if (began != SOAP_OK) {
    return false;
  }
  if (!readSoapEnvelope(soap, envelope)) {
    if (soap->error == SOAP_OK) {
      soap->error = SOAP_EOF;
    }
    return false;
  }
  return finishSoapReceive(soap) == SOAP_OK;
}

void KXConnection::endAnswer() {
  struct soap* soap = soap_.get();
  if (soap->keep_alive == 0) {
    soap_closesock(soap);
  }
  endSoapMessage(soap);
}

BrokerFault KXConnection::unreadableAnswer(const KXBrokerMessageError& error) {
  // An answer we cannot read leaves the connection in an unknown state: start afresh.
  soap_closesock(soap_.get());
  endSoapMessage(soap_.get());
  return BrokerFault{"SOAP-ENV:Client", error.faultString(), std::string()};
}

BrokerFault KXConnection::transportFault() {
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
  BrokerFault fault{"SOAP-ENV:Client", faultString ? faultString : "",
                    faultDetail ? faultDetail : ""};
  soap_closesock(soap);
  endSoapMessage(soap);
  return fault;
}

void KXConnection::interrupt() {
  std::lock_guard<std::mutex> guard(socketLock_);
  interrupted_ = true;
  if (activeSocket_ >= 0) {
    ::shutdown(activeSocket_, SHUT_RDWR);
  }
}

}  // namespace KX
