#include "network/detail/kxsoapio.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string_view>
#include <vector>

#include "network/detail/kxbrokermessage.h"
#include "network/detail/kxbrokerwriter.h"
#include "network/detail/kxdimerecords.h"
#include "network/detail/kxsoapstate.h"
#include "network/detail/kxvaluesoap.h"
#include "value/textcoding.h"

namespace KX {

int beginSoapReceive(struct soap* soap) {
  soap->dime.flags = 0;  // set again only by a DIME record header of this message
  return soap_begin_recv(soap);
}

bool readSoapEnvelope(struct soap* soap, std::string& envelope) {
  // A DIME message whose envelope is its only record: the runtime has left DIME mode on
  // reading that record's header, which still says where the envelope ends.
  if ((soap->mode & SOAP_ENC_DIME) == 0 && (soap->dime.flags & SOAP_DIME_MB) != 0) {
    soap->mode |= SOAP_ENC_DIME;
  }
  const std::size_t limit = kBrokerMessageMaxBytes + 1;
  std::size_t expected = limit;  // a chunked body ends with its last chunk
  if ((soap->mode & SOAP_ENC_DIME) != 0) {
    expected = soap->dime.size;
  } else if ((soap->mode & SOAP_IO) != SOAP_IO_CHUNK) {
    expected = static_cast<std::size_t>(std::min<ULONG64>(soap->length, limit));
  }
  if (expected > limit) {
    expected = limit;
  }
  envelope.clear();
  // The runtime may have looked one character ahead while reading the HTTP header.
  if (soap->ahead != 0 && expected > 0) {
    envelope.push_back(static_cast<char>(soap->ahead));
    soap->ahead = 0;
  }
  while (envelope.size() < expected) {
    if (soap->bufidx >= soap->buflen) {
      if (soap_recv(soap) != SOAP_OK) {
        // Chunked or unframed bodies end here; a framed body cut short is a failure.
        return expected == limit;
      }
      continue;
    }
    const std::size_t available = soap->buflen - soap->bufidx;
    const std::size_t take = std::min(available, expected - envelope.size());
    envelope.append(soap->buf + soap->bufidx, take);
    soap->bufidx += take;
  }
  return true;
}

int sendFramedMessage(struct soap* soap, const char* endpoint, int status,
                      const std::function<int()>& putBody) {
  const auto putEnvelope = [&] {
    return soap_envelope_begin_out(soap) != SOAP_OK || soap_putheader(soap) != SOAP_OK ||
                   soap_body_begin_out(soap) != SOAP_OK || putBody() != SOAP_OK ||
                   soap_body_end_out(soap) != SOAP_OK || soap_envelope_end_out(soap) != SOAP_OK
               ? soap->error
               : SOAP_OK;
  };
  // Counted first when the length must be known (DIME records carry theirs), then sent.
  if (soap_begin_count(soap) != SOAP_OK) {
    return soap->error;
  }
  if ((soap->mode & SOAP_IO_LENGTH) != 0 && putEnvelope() != SOAP_OK) {
    return soap->error;
  }
  if (soap_end_count(soap) != SOAP_OK) {
    return soap->error;
  }
  const int opened =
      endpoint != nullptr ? soap_connect(soap, endpoint, "") : soap_response(soap, status);
  if (opened != SOAP_OK || putEnvelope() != SOAP_OK || soap_end_send(soap) != SOAP_OK) {
    return soap->error;
  }
  return SOAP_OK;
}

namespace {

// A request with attachments on a connection that is not reusable: the runtime frames our
// body element in its envelope and the DIME records.
int sendThroughRuntime(struct soap* soap, const char* endpoint, const std::string& envelope,
                       const std::vector<const KXValue*>& attachments) {
  soap_begin(soap);
  soap_set_version(soap, 1);
  soap_set_dime(soap);
  for (const KXValue* leaf : attachments) {
    static const char kNoBytes[1] = {0};
    const KXValue::TKXValueBinary& bytes = leaf->getBinary();
    const char* data = bytes.empty() ? kNoBytes : reinterpret_cast<const char*>(bytes.data());
    if (soap_set_dime_attachment(soap, data, bytes.size(), kAttachmentType, kAttachmentId, 0,
                                 nullptr) != SOAP_OK) {
      return soap->error;
    }
  }
  const std::string_view body = brokerMessageBody(envelope);
  soap->encodingStyle = "";  // SOAP encoding, as our own envelope states it
  soap->header = nullptr;
  const int sent = sendFramedMessage(soap, endpoint, SOAP_OK, [soap, body] {
    return soap_send_raw(soap, body.data(), body.size());
  });
  soap_clr_dime(soap);  // the runtime would frame the next message in DIME too
  return sent;
}

// The runtime frames a message of known length (Content-Length) and buffers it, so that
// the HTTP header and the envelope leave in one send.
void prepareKnownLength(struct soap* soap, std::size_t length) {
  // Plain XML, whatever the message received was (a DIME request leaves the runtime set
  // to answer in DIME).
  soap_clr_dime(soap);
  soap_clr_mime(soap);
  // Attachments received with the request have been taken: none is to go out.
  soap->dime.list = nullptr;
  soap->mime.list = nullptr;
  soap->error = SOAP_OK;
  soap->count = length;
}

// True when the connection is open and its peer has not closed it (nor sent anything
// unasked, which would leave the next answer in doubt).
bool stillOpen(const struct soap* soap) {
  return soap_valid_socket(soap->socket) && inputOf(soap->socket) == SocketInput::Nothing;
}

// True when a request can go on the connection the runtime opened earlier, with a head
// written here as the runtime writes it (not for a host that needs brackets or the default
// port, which the runtime writes otherwise), and sent by a blocking send (not when sends
// have a time limit, which the runtime keeps).
bool reusable(const struct soap* soap) {
  return soap->send_timeout == 0 && soap->port != 80 && std::strchr(soap->host, ':') == nullptr &&
         stillOpen(soap);
}

// The HTTP head of a request on a reusable connection, as the runtime writes it.
std::string requestHead(const struct soap* soap, const char* contentType, std::size_t length) {
  std::string head;
  head.reserve(256);
  head.append("POST ").append(soap->path).append(" HTTP/").append(soap->http_version);
  head.append("\r\nHost: ").append(soap->host).append(":").append(std::to_string(soap->port));
  head.append("\r\nUser-Agent: gSOAP/2.8\r\nContent-Type: ").append(contentType);
  head.append("\r\nContent-Length: ").append(std::to_string(length));
  head.append("\r\nConnection: keep-alive\r\n");
  if (soap->bearer != nullptr) {
    head.append("Authorization: Bearer ").append(soap->bearer).append("\r\n");
  }
  head.append("SOAPAction: \"\"\r\n\r\n");
  return head;
}

// Sends the `count` pieces with as few system calls as the kernel allows, on a blocking
// socket (the pieces are advanced as they go). False when the socket failed (errnum set;
// EAGAIN: the send timeout).
bool sendGathered(struct soap* soap, iovec* pieces, std::size_t count) {
  iovec* next = pieces;
  std::size_t left = count;
  while (left > 0) {
    msghdr message{};
    message.msg_iov = next;
    message.msg_iovlen = std::min<std::size_t>(left, IOV_MAX);
    const ssize_t sent = ::sendmsg(soap->socket, &message, MSG_NOSIGNAL);
    if (sent < 0) {
      if (errno == EINTR) continue;
      soap->errnum = errno;
      return false;
    }
    std::size_t done = static_cast<std::size_t>(sent);
    while (left > 0 && done >= next->iov_len) {
      done -= next->iov_len;
      ++next;
      --left;
    }
    if (left > 0) {
      next->iov_base = static_cast<char*>(next->iov_base) + done;
      next->iov_len -= done;
    }
  }
  return true;
}

// Sends a request on a reusable connection: the HTTP head leaves with the message in one
// system call, attachments straight from their values. (The runtime's own connect would
// first clear its tables and look at the socket again.)
int sendOnOpenConnection(struct soap* soap, const std::string& envelope,
                         const std::vector<const KXValue*>& attachments) {
  bool sent;
  if (attachments.empty()) {
    const std::string head = requestHead(soap, "text/xml; charset=utf-8", envelope.size());
    iovec pieces[] = {{const_cast<char*>(head.data()), head.size()},
                      {const_cast<char*>(envelope.data()), envelope.size()}};
    sent = sendGathered(soap, pieces, 2);
  } else {
    const DimeMessage message(envelope, attachments);
    const std::string head = requestHead(soap, "application/dime", message.size());
    std::vector<iovec> pieces = message.pieces(head);
    sent = sendGathered(soap, pieces.data(), pieces.size());
  }
  if (!sent) {
    soap->error = SOAP_EOF;
    return soap_closesock(soap);
  }
  return SOAP_OK;
}

}  // namespace

SocketInput inputOf(int socket) {
  char byte;
  const ssize_t peeked = ::recv(socket, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
  if (peeked > 0) return SocketInput::Bytes;
  return peeked < 0 && (errno == EAGAIN || errno == EWOULDBLOCK) ? SocketInput::Nothing
                                                                 : SocketInput::Ended;
}

int sendRequestEnvelope(struct soap* soap, const char* endpoint, const std::string& envelope,
                        const std::vector<const KXValue*>& attachments) {
  prepareKnownLength(soap, envelope.size());
  if (reusable(soap)) {
    return sendOnOpenConnection(soap, envelope, attachments);
  }
  if (!attachments.empty()) {
    return sendThroughRuntime(soap, endpoint, envelope, attachments) != SOAP_OK
               ? soap_closesock(soap)
               : SOAP_OK;
  }
  if (soap_connect(soap, endpoint, "") != SOAP_OK ||
      soap_send_raw(soap, envelope.data(), envelope.size()) != SOAP_OK ||
      soap_end_send(soap) != SOAP_OK) {
    return soap_closesock(soap);
  }
  return SOAP_OK;
}

int sendResponseEnvelope(struct soap* soap, const std::string& envelope,
                         const std::vector<const KXValue*>& attachments) {
  if (attachments.empty()) {
    prepareKnownLength(soap, envelope.size());
    if (soap_response(soap, SOAP_OK) != SOAP_OK ||
        soap_send_raw(soap, envelope.data(), envelope.size()) != SOAP_OK ||
        soap_end_send(soap) != SOAP_OK) {
      return soap->error;
    }
    return SOAP_OK;
  }
  // The runtime writes the HTTP head into its output buffer (in plain mode: in DIME mode it
  // would go on with a record header of its own), and the head then leaves from there with
  // the records, in one gathering send. A DIME head differs from a plain one only in its
  // type.
  const DimeMessage message(envelope, attachments);
  prepareKnownLength(soap, message.size());
  const int began = soap_response(soap, SOAP_OK);
  std::string head(soap->buf, soap->bufidx);
  soap->bufidx = 0;
  if (began != SOAP_OK) {
    return soap->error;
  }
  constexpr std::string_view kPlainType = "Content-Type: text/xml; charset=utf-8\r\n";
  const std::size_t type = head.find(kPlainType);
  if (type == std::string::npos) {
    return soap->error = SOAP_HTTP_ERROR;
  }
  head.replace(type, kPlainType.size(), "Content-Type: application/dime\r\n");
  std::vector<iovec> pieces = message.pieces(head);
  const bool sent = sendGathered(soap, pieces.data(), pieces.size());
  return sent ? SOAP_OK : (soap->error = SOAP_EOF);
}

namespace {

int sendAll(struct soap* soap, const char* bytes, std::size_t size) {
  while (size > 0) {
    const ssize_t sent = ::send(soap->socket, bytes, size, MSG_NOSIGNAL);
    if (sent < 0) {
      if (errno == EINTR) continue;
      soap->errnum = errno;  // EAGAIN: the send timeout
      return SOAP_EOF;
    }
    bytes += sent;
    size -= static_cast<std::size_t>(sent);
  }
  return SOAP_OK;
}

// How long a receive may wait for its bytes, and the request being read may take, on a
// connection set up by useKernelTimeouts.
struct ReceiveLimit {
  static constexpr char kPluginId[] = "KXReceiveLimit";
  int seconds = 0;  // 0: no limit
  // The request being read: when it began (none before startRequestClock) and its bytes.
  std::optional<std::chrono::steady_clock::time_point> requestStart;
  std::uint64_t requestBytes = 0;

  bool requestOverdue() const {
    if (seconds == 0 || !requestStart) return false;
    return std::chrono::steady_clock::now() - *requestStart >
           std::chrono::seconds(seconds) + std::chrono::seconds(requestBytes / kSlowestRequestRate);
  }
};

bool wouldBlock(int error) { return error == EAGAIN || error == EWOULDBLOCK; }

std::size_t receiveSome(struct soap* soap, char* bytes, std::size_t size) {
  ReceiveLimit& limit = *KXSoapState<ReceiveLimit>::of(soap);
  std::chrono::steady_clock::time_point waitingSince;  // set at the first wake
  for (;;) {
    const ssize_t received = ::recv(soap->socket, bytes, size, 0);
    if (received > 0) {
      limit.requestBytes += static_cast<std::uint64_t>(received);
      if (!limit.requestOverdue()) {
        return static_cast<std::size_t>(received);
      }
      errno = ETIMEDOUT;
    } else if (received == 0) {
      return 0;
    } else if (errno == EINTR) {
      continue;
    } else if (wouldBlock(errno)) {
      // The wake: only a slow peer gets here.
      const auto now = std::chrono::steady_clock::now();
      if (waitingSince == std::chrono::steady_clock::time_point()) waitingSince = now;
      if (limit.requestOverdue()) {
        errno = ETIMEDOUT;
      } else if (limit.seconds == 0 || now - waitingSince < std::chrono::seconds(limit.seconds)) {
        continue;
      }
    }
    soap->errnum = errno;  // EAGAIN: the receive timeout; ETIMEDOUT: the request's
    // The connection is over. The runtime takes an end within an HTTP header for the end
    // of the header and would answer half a request: nothing more goes in or out.
    ::shutdown(soap->socket, SHUT_RDWR);
    return 0;
  }
}

void setSocketTimeout(int socket, int option, std::chrono::milliseconds timeout) {
  const timeval value{static_cast<time_t>(timeout.count() / 1000),
                      static_cast<suseconds_t>(timeout.count() % 1000 * 1000)};
  ::setsockopt(socket, SOL_SOCKET, option, &value, sizeof(value));
}

}  // namespace

void useKernelTimeouts(struct soap* soap, std::chrono::milliseconds wake, int receiveSeconds,
                       int sendSeconds) {
  const int flags = ::fcntl(soap->socket, F_GETFL);
  if (flags >= 0 && (flags & O_NONBLOCK) != 0) {
    ::fcntl(soap->socket, F_SETFL, flags & ~O_NONBLOCK);
  }
  setSocketTimeout(soap->socket, SO_RCVTIMEO, wake);
  setSocketTimeout(soap->socket, SO_SNDTIMEO, std::chrono::seconds(sendSeconds));
  KXSoapState<ReceiveLimit>::install(soap);
  KXSoapState<ReceiveLimit>::of(soap)->seconds = receiveSeconds;
  soap->recv_timeout = 0;
  soap->send_timeout = 0;
  soap->fsend = sendAll;
  soap->frecv = receiveSome;
}

void startRequestClock(struct soap* soap) {
  if (ReceiveLimit* limit = KXSoapState<ReceiveLimit>::of(soap)) {
    limit->requestStart = std::chrono::steady_clock::now();
    limit->requestBytes = 0;
  }
}

bool receiveWithinWake(struct soap* soap) {
  if (soap->bufidx < soap->buflen || soap->ahead != 0) {
    return true;
  }
  for (;;) {
    const ssize_t received = ::recv(soap->socket, soap->buf, sizeof(soap->buf), 0);
    if (received > 0) {
      soap->bufidx = 0;
      soap->buflen = static_cast<std::size_t>(received);
      return true;
    }
    if (received < 0 && errno == EINTR) continue;
    return received == 0 || !wouldBlock(errno);
  }
}

namespace {

// The value of header `name` in `head` (whose lines end with CRLF), blanks trimmed; empty
// when absent.
std::string_view headerValue(std::string_view head, std::string_view name) {
  for (std::size_t line = head.find("\r\n"); line != std::string_view::npos;
       line = head.find("\r\n", line + 2)) {
    const std::string_view field = head.substr(line + 2, head.find("\r\n", line + 2) - line - 2);
    const std::size_t colon = field.find(':');
    if (colon != std::string_view::npos && sameLetters(field.substr(0, colon), name)) {
      return trimBlanks(field.substr(colon + 1));
    }
  }
  return std::string_view();
}

}  // namespace

PlainAnswer readPlainAnswer(struct soap* soap, std::string& envelope) {
  if (soap->ahead != 0) {
    return PlainAnswer::NotPlain;
  }
  if (soap->bufidx > 0) {  // what the last message left: moved to the front
    std::memmove(soap->buf, soap->buf + soap->bufidx, soap->buflen - soap->bufidx);
    soap->buflen -= soap->bufidx;
    soap->bufidx = 0;
  }
  std::size_t headEnd;
  for (;;) {
    const std::string_view buffered(soap->buf, soap->buflen);
    headEnd = buffered.find("\r\n\r\n");
    if (headEnd != std::string_view::npos) break;
    if (soap->buflen == sizeof(soap->buf)) return PlainAnswer::NotPlain;
    const std::size_t received =
        soap->frecv(soap, soap->buf + soap->buflen, sizeof(soap->buf) - soap->buflen);
    if (received == 0) return PlainAnswer::NotPlain;  // the runtime's read reports it
    soap->buflen += received;
  }
  const std::string_view head(soap->buf, headEnd + 2);
  const std::string_view length = headerValue(head, "content-length");
  if (!(head.substr(0, 13) == "HTTP/1.1 200 " || head.substr(0, 13) == "HTTP/1.0 200 ") ||
      headerValue(head, "content-type").substr(0, 8) != "text/xml" || length.empty() ||
      length.find_first_not_of("0123456789") != std::string_view::npos || length.size() > 9 ||
      !headerValue(head, "transfer-encoding").empty() ||
      !headerValue(head, "content-encoding").empty()) {
    return PlainAnswer::NotPlain;
  }
  const std::size_t size = std::stoul(std::string(length));
  if (size > kBrokerMessageMaxBytes) {
    return PlainAnswer::NotPlain;
  }
  const std::string_view connection = headerValue(head, "connection");
  const bool keptAlive = head[7] == '1' ? connection != "close" : connection == "keep-alive";
  soap->bufidx = headEnd + 4;
  envelope.resize(size);
  if (!readMessageBytes(soap, envelope.data(), size)) {
    soap->error = SOAP_EOF;
    return PlainAnswer::Failed;
  }
  if (!keptAlive) {
    soap->keep_alive = 0;
  }
  return PlainAnswer::Read;
}

bool readMessageBytes(struct soap* soap, char* out, std::size_t size) {
  const std::size_t buffered = std::min(size, soap->buflen - soap->bufidx);
  if (buffered > 0) std::memcpy(out, soap->buf + soap->bufidx, buffered);
  soap->bufidx += buffered;
  for (std::size_t at = buffered; at < size;) {
    const std::size_t received = soap->frecv(soap, out + at, size - at);
    if (received == 0) return false;
    at += received;
  }
  return true;
}

int finishSoapReceive(struct soap* soap) {
  // DIME records in an HTTP body sent in chunks would be read by the runtime, which takes
  // a record's claimed size on trust (a 12-byte header claiming 4 GiB is an allocation of
  // 4 GiB): we never send such a message, and refuse it.
  if ((soap->mode & SOAP_IO) == SOAP_IO_CHUNK && (soap->mode & SOAP_ENC_DIME) != 0) {
    return soap->error = SOAP_DIME_ERROR;
  }
  // Chunked and MIME bodies have trailers the runtime must read itself.
  if ((soap->mode & SOAP_IO) == SOAP_IO_CHUNK || (soap->mode & SOAP_ENC_MIME) != 0) {
    return soap_end_recv(soap);
  }
  // The envelope was read whole by readSoapEnvelope and parsed by us: there are no
  // id/href references for the runtime to resolve, only the DIME attachments to read.
  soap->part = SOAP_END;
  if ((soap->mode & SOAP_ENC_DIME) != 0) {
    if (receiveDimeAttachments(soap) != SOAP_OK) {
      return soap->error;
    }
    soap->mode &= ~SOAP_ENC_DIME;  // read whole: what follows is the next message
  }
  return SOAP_OK;
}

void endSoapMessage(struct soap* soap) {
  clearDimeAttachments(soap);
  soap_clr_dime(soap);
  // The attachment records go with the message's memory below.
  soap->dime.list = nullptr;
  soap->mime.list = nullptr;
  soap_destroy(soap);
  // The next message clears the runtime's tables anyway: only the memory is freed here.
  soap_dealloc(soap, nullptr);
}

}  // namespace KX
