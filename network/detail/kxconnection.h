#ifndef VELMO_NETWORK_DETAIL_KXCONNECTION_H_
#define VELMO_NETWORK_DETAIL_KXCONNECTION_H_

#include <mutex>
#include <string>

#include "module/kxmoduleinfo.h"
#include "network/detail/kxbrokermessage.h"
#include "network/detail/kxbrokerwriter.h"
#include "network/detail/kxdimerecords.h"
#include "network/detail/kxsoapcontext.h"
#include "network/detail/kxsoapio.h"

namespace KX {

// One client connection to a remote broker: its endpoint, the remote module that calls on
// it address, and a kept-alive SOAP context used by one call at a time (the lock is held
// for the whole of a call). The TCP connection is opened on first use and opened again
// after a failure or after the server closed it.
class KXConnection {
 public:
  // timeoutSeconds > 0: connecting, sending and receiving each give up after that long.
  // 0: connecting gives up after kConnectSeconds, and a call waits for its answer as long
  // as the remote method runs (a proxy's calls may legitimately block, "wait" without a
  // limit for one); TCP keep-alive probes find a peer machine that went away.
  // token: sent with every request as "Authorization: Bearer TOKEN" (none when empty).
  KXConnection(std::string endpoint, KXModuleInfo module, int timeoutSeconds,
               std::string token = std::string());
  KXConnection(const KXConnection&) = delete;
  KXConnection& operator=(const KXConnection&) = delete;

  static constexpr int kConnectSeconds = 10;
  // A peer machine that stops answering is found out after 10 + 3 x 5 seconds of silence.
  static constexpr unsigned kKeepAliveIdleSeconds = 10;
  static constexpr unsigned kKeepAliveIntervalSeconds = 5;
  static constexpr unsigned kKeepAliveProbes = 3;

  const std::string& endpoint() const { return endpoint_; }
  const KXModuleInfo& module() const { return module_; }

  // Sends `request` and reads its answer by position (nothing for the one-way operations,
  // which read nothing). The Binary leaves of a callVelmo parameter travel as DIME
  // attachments, and those of its result take the attachments received. A transport
  // failure or an answer that cannot be read comes back as a fault worded by the runtime
  // (fault string and detail), like a fault the server sent; the socket is then closed.
  // Raises KXAccessRefused when the broker's access rules refuse the request.
  template <typename Op>
  BrokerReply<typename Op::Answer> exchange(const Op& request) {
    return exchangeFrom<Op>(request);
  }
  // callVelmo or callVelmo2 (`Call`) of `method` on the connection's module, `param` sent
  // from where it is (no copy of the request is made).
  template <typename Call>
  BrokerReply<KXValue> call(const std::string& method, const KXValue& param) {
    struct Parts {
      const std::string& mod;
      const std::string& meth;
      const KXValue& p;
    };
    return exchangeFrom<Call>(Parts{module_.name, method, param});
  }

  // Shuts the socket down so that a call waiting for its answer returns (with a fault) at
  // once, and makes every later call fail at once (a call still sending finishes its send
  // first). Safe from any thread.
  void interrupt();

 private:
  template <typename Op, typename Fields>
  BrokerReply<typename Op::Answer> exchangeFrom(const Fields& fields);
  void authorize();
  // Sends the request in envelope_; SOAP_OK or the runtime's error.
  int sendEnvelope(const KXValue* attachmentsOf);
  // Reads the envelope of the answer; false on a transport failure.
  bool receiveEnvelope(std::string& envelope);
  // Ends the reading of an answer: its data freed, the socket closed when the peer said so.
  void endAnswer();
  // The fault that a transport failure or an unreadable answer gives; the socket is closed.
  BrokerFault transportFault();
  BrokerFault unreadableAnswer(const KXBrokerMessageError& error);

  const std::string endpoint_;
  const KXModuleInfo module_;
  const std::string token_;  // soap_'s bearer points into it
  std::mutex lock_;          // held for a whole call
  KXSoapContext soap_;
  std::string envelope_;  // guarded by lock_: the last message, its memory reused
  // The socket of the call in progress, for interrupt(); -1 when there is none. Once
  // interrupted, a connection stays so: every later call fails at once.
  std::mutex socketLock_;
  int activeSocket_ = -1;
  bool interrupted_ = false;
};

template <typename Op, typename Fields>
BrokerReply<typename Op::Answer> KXConnection::exchangeFrom(const Fields& fields) {
  std::lock_guard<std::mutex> call(lock_);
  authorize();
  BrokerReply<typename Op::Answer> reply;
  writeBrokerRequest<Op>(envelope_, fields);
  const KXValue* attachmentsOf = nullptr;
  if constexpr (carriesAttachments<Op>()) {
    attachmentsOf = &fields.p;
  }
  if (sendEnvelope(attachmentsOf) != SOAP_OK) {
    reply.fault = transportFault();
    return reply;
  }
  if constexpr (isOneWay<Op>()) {
    endSoapMessage(soap_.get());
  } else {
    if (!receiveEnvelope(envelope_)) {
      reply.fault = transportFault();
      return reply;
    }
    try {
      reply = parseBrokerResponse<Op>(envelope_);
    } catch (const KXBrokerMessageError& error) {
      reply.fault = unreadableAnswer(error);
      return reply;
    }
    if constexpr (carriesAttachments<Op>()) {
      if (!reply.fault) takeAttachments(soap_.get(), reply.answer);
    }
    endAnswer();
  }
  return reply;
}

}  // namespace KX

#endif  // VELMO_NETWORK_DETAIL_KXCONNECTION_H_
