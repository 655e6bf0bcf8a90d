#ifndef VELMO_NETWORK_DETAIL_KXSOAPIO_H_
#define VELMO_NETWORK_DETAIL_KXSOAPIO_H_

#include <stdsoap2.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "value/kxvalue.h"

namespace KX {

// Reads the HTTP header of the next message (soap_begin_recv), and with a DIME message
// the header of its first record. SOAP_OK or the runtime's error.
int beginSoapReceive(struct soap* soap);

// Reads the SOAP envelope of the message whose HTTP header beginSoapReceive has read: the
// whole body, or the primary record of a DIME message (finishSoapReceive reads the
// attachments). Reads at most one byte more than kBrokerMessageMaxBytes, so that an
// oversized message is refused without being buffered. False when a framed body ends early.
bool readSoapEnvelope(struct soap* soap, std::string& envelope);

// Sends a whole request envelope written by writeBrokerRequest as an HTTP POST to
// `endpoint`, connecting first when the connection is not open (a context serves one
// endpoint: an open connection is the one to `endpoint`); with `attachments` (Binary
// leaves, in walk order), as a DIME message whose attachments are their bytes. The leaves
// are referenced, not copied. SOAP_OK or the runtime's error (the socket is then closed).
int sendRequestEnvelope(struct soap* soap, const char* endpoint, const std::string& envelope,
                        const std::vector<const KXValue*>& attachments);

// Sends a whole answer envelope written by writeBrokerAnswer as the HTTP answer to the
// request being served, on a connection set up by useKernelTimeouts; `attachments` as for
// requests. SOAP_OK or the runtime's error.
int sendResponseEnvelope(struct soap* soap, const std::string& envelope,
                         const std::vector<const KXValue*>& attachments);

// Sends a message whose envelope the runtime writes around what `putBody` writes (faults,
// and bodies with attachments): as a request to `endpoint` (connecting when needed), or,
// when it is null, as the answer with HTTP status `status` (SOAP_OK or SOAP_FAULT). SOAP_OK
// or the runtime's error.
int sendFramedMessage(struct soap* soap, const char* endpoint, int status,
                      const std::function<int()>& putBody);

// What can be read from `socket` at once, without waiting: bytes, the end of the
// connection (the peer's close, or a failure), or nothing yet.
enum class SocketInput { Bytes, Ended, Nothing };
SocketInput inputOf(int socket);

// Makes the connection of `soap` wait on its socket without asking the runtime to check
// readiness before every receive and send: the socket blocks, the kernel wakes a receive
// that has waited `wake` (so that it can look at the time) and ends a send that waited
// `sendSeconds`. A receive that has waited `receiveSeconds` for its bytes (0: no limit), or
// a send that timed out, fails the message as a broken connection would.
void useKernelTimeouts(struct soap* soap, std::chrono::milliseconds wake, int receiveSeconds,
                       int sendSeconds);

// The slowest a request may come in on a connection set up by useKernelTimeouts, in bytes
// per second, once its receive timeout has passed.
constexpr std::uint64_t kSlowestRequestRate = 1024;

// On a connection set up by useKernelTimeouts: the request that begins now must have come
// whole within the receive timeout, plus one second for every kSlowestRequestRate bytes of
// it; a receive after that fails the message as a broken connection would. A limit on each
// read alone would let a peer that sends a byte now and then hold the connection's worker
// for ever. Does nothing on other connections.
void startRequestClock(struct soap* soap);

// On a connection set up by useKernelTimeouts: reads what has arrived into the context's
// input buffer, waiting at most the wake time. False when nothing came (the peer is idle);
// true when bytes are there (or were already), the peer closed, or the socket failed: the
// read that follows tells which.
bool receiveWithinWake(struct soap* soap);

// Reads an answer framed plainly (HTTP status 200, Content-Type text/xml, a Content-Length,
// no other transfer or content encoding) without the runtime's per-message work: the
// envelope into `envelope`, keep-alive taken from the head. NotPlain for any other answer,
// whose bytes then stay in the input buffer for beginSoapReceive to read, and when the
// connection failed before the head was whole (the runtime's read reports it). Failed (the
// runtime's error set) when the connection failed within the envelope.
enum class PlainAnswer { Read, NotPlain, Failed };
PlainAnswer readPlainAnswer(struct soap* soap, std::string& envelope);

// Reads the next `size` bytes of the message being received into `out`: what the context
// has buffered, then straight from its socket (a long body is not copied through the
// buffer). False when the connection ended first.
bool readMessageBytes(struct soap* soap, char* out, std::size_t size);

// Ends the reading of a message whose envelope readSoapEnvelope has read: reads its DIME
// attachments (for takeAttachments). SOAP_OK or the runtime's error.
int finishSoapReceive(struct soap* soap);

// Frees what the last message left in the context (data, attachments), keeping the
// connection.
void endSoapMessage(struct soap* soap);

}  // namespace KX

#endif  // VELMO_NETWORK_DETAIL_KXSOAPIO_H_
