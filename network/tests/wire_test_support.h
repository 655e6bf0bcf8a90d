#ifndef VELMO_NETWORK_TESTS_WIRE_TEST_SUPPORT_H_
#define VELMO_NETWORK_TESTS_WIRE_TEST_SUPPORT_H_

// The network tests' kit: loopback sockets on ports the system picks, a hand-written peer of
// the broker's port (HTTP requests and SOAP envelopes built as text, DIME records built byte
// by byte), and a runtime context fed such bytes without a socket. Nothing but that context
// goes through the SOAP runtime, so a test sees exactly the bytes a foreign peer would send
// and receive.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdsoap2.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "module/kxmoduleinfo.h"
#include "network/detail/kxbrokermessage.h"
#include "network/detail/kxsoapcontext.h"
#include "network/detail/kxvaluesoap.h"
#include "value/kxvalue.h"
#include "value/tests/value_test_util.h"

namespace KX {
namespace testing {

inline int localPortOf(int socket) {
  sockaddr_in address{};
  socklen_t length = sizeof(address);
  getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length);
  return ntohs(address.sin_port);
}

// Binds a server context to 127.0.0.1 on a free port; the port, or 0.
inline int bindLoopback(struct soap* server) {
  return soap_valid_socket(soap_bind(server, "127.0.0.1", 0, 10)) ? localPortOf(server->master) : 0;
}

// Holds a port as another program would: it listens and never accepts, so a connection to
// it is made (by the kernel) but never answered.
class PortHolder {
 public:
  PortHolder() : socket_(::socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::bind(socket_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
        ::listen(socket_, 1) == 0) {
      port_ = localPortOf(socket_);
    }
  }
  ~PortHolder() { ::close(socket_); }
  PortHolder(const PortHolder&) = delete;
  PortHolder& operator=(const PortHolder&) = delete;
  int port() const { return port_; }

 private:
  const int socket_;
  int port_ = 0;
};

using testing_util::binaryOf;

// Readable texts of what a message carries.
inline std::string describe(const KXModuleInfo& m) {
  return m.name + "|" + std::to_string(m.architecture) + "|" + m.ip + ":" + std::to_string(m.port) +
         "|" + std::to_string(m.processId) + (m.isABroker ? "|broker" : "|module") +
         (m.keepAlive ? "|keepAlive" : "");
}

inline std::string describe(const std::string& text) { return "'" + text + "'"; }
inline std::string describe(int number) { return std::to_string(number); }
inline std::string describe(bool flag) { return flag ? "true" : "false"; }
inline std::string describe(const KXValue& value) {
  return "value " + std::to_string(value.getType()) + " " + value.toString();
}

// The items of an answer: none for no answer or an absent one, one per list item.
inline std::vector<std::string> describeItems(protocol::NoAnswer) { return {}; }
inline std::vector<std::string> describeItems(const std::optional<int>& answer) {
  return answer ? std::vector<std::string>{describe(*answer)} : std::vector<std::string>{};
}
template <typename T>
std::vector<std::string> describeItems(const std::vector<T>& items) {
  std::vector<std::string> texts;
  for (const T& item : items) texts.push_back(describe(item));
  return texts;
}
template <typename T>
std::vector<std::string> describeItems(const T& answer) {
  return {describe(answer)};
}
inline std::vector<std::string> describeItems(const BrokerAnswer& answer) {
  return std::visit([](const auto& typed) { return describeItems(typed); }, answer);
}

// The children of a request, in order.
inline std::vector<std::string> describe(const BrokerRequest& request) {
  std::vector<std::string> texts;
  std::visit(
      [&texts](const auto& op) {
        std::decay_t<decltype(op)>::children(
            op, [&texts](const char*, const auto& child) { texts.push_back(describe(child)); });
      },
      request);
  return texts;
}

// Calls f(Op{}) for every operation, in the order of BrokerRequest.
template <typename F, std::size_t... I>
void forEachOperation(F&& f, std::index_sequence<I...>) {
  (f(std::variant_alternative_t<I, BrokerRequest>{}), ...);
}
template <typename F>
void forEachOperation(F&& f) {
  forEachOperation(f, std::make_index_sequence<std::variant_size_v<BrokerRequest>>());
}

namespace wire {

constexpr char kEnvelopeUri[] = "http://schemas.xmlsoap.org/soap/envelope/";

// Every read and write on a test socket gives up after this long, so that a server that
// never answers fails the test instead of hanging it.
constexpr int kSocketTimeoutSeconds = 10;

struct HttpReply {
  std::string statusLine;  // without its line end
  std::string header;      // the whole header block, status line included
  std::string body;

  int status() const {
    const std::size_t space = statusLine.find(' ');
    return space == std::string::npos ? 0 : std::atoi(statusLine.c_str() + space + 1);
  }

  // The value of the header field `name` (case-insensitive), without surrounding blanks;
  // nothing when absent.
  std::optional<std::string> field(const std::string& name) const {
    std::string lower = "\n" + name + ":";
    std::string text = header;
    for (std::string* s : {&lower, &text}) {
      for (char& c : *s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    const std::size_t at = text.find(lower);
    if (at == std::string::npos) return std::nullopt;
    const std::size_t first = header.find_first_not_of(" \t", at + lower.size());
    const std::size_t end = header.find_first_of("\r\n", at + lower.size());
    if (first >= end) return std::string();
    return header.substr(first, header.find_last_not_of(" \t", end - 1) - first + 1);
  }
};

// One TCP connection to 127.0.0.1:port, owned (closed on destruction).
class WireConnection {
 public:
  explicit WireConnection(int port) : port_(port), fd_(::socket(AF_INET, SOCK_STREAM, 0)) {
    limitWaits();
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connected_ = ::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
  }
  // Takes over an accepted socket: the server's side of a connection.
  struct Accepted {
    int fd;
  };
  explicit WireConnection(Accepted accepted) : port_(0), fd_(accepted.fd), connected_(true) {
    limitWaits();
  }
  ~WireConnection() { close(); }
  WireConnection(const WireConnection&) = delete;
  WireConnection& operator=(const WireConnection&) = delete;

  bool connected() const { return connected_; }

  bool sendAll(const std::string& bytes) {
    for (std::size_t sent = 0; sent < bytes.size();) {
      const ssize_t n = ::send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return false;
      sent += static_cast<std::size_t>(n);
    }
    return true;
  }

  // The header block of a POST of `length` bytes to "/", as a gSOAP client writes it. The
  // Host header carries the port: the server picks the broker it addresses by that port.
  std::string postHeader(std::size_t length,
                         const std::string& contentType = "text/xml; charset=utf-8") const {
    return "POST / HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port_) +
           "\r\nUser-Agent: gSOAP/2.7\r\nContent-Type: " + contentType +
           "\r\nContent-Length: " + std::to_string(length) +
           "\r\nConnection: keep-alive\r\nSOAPAction: \"\"\r\n\r\n";
  }

  bool post(const std::string& body, const std::string& contentType = "text/xml; charset=utf-8") {
    return sendAll(postHeader(body.size(), contentType) + body);
  }

  // Reads one HTTP message (an answer, or on an accepted socket a request) framed by its
  // Content-Length. Nothing when the connection closes or the receive times out first, or
  // when the message has no length.
  std::optional<HttpReply> read() {
    std::size_t end = std::string::npos;
    while ((end = pending_.find("\r\n\r\n")) == std::string::npos) {
      if (!receiveMore()) return std::nullopt;
    }
    HttpReply reply;
    reply.header = pending_.substr(0, end + 2);
    pending_.erase(0, end + 4);
    reply.statusLine = reply.header.substr(0, reply.header.find("\r\n"));
    const std::optional<std::string> length = reply.field("Content-Length");
    if (!length) return std::nullopt;
    const std::size_t size = std::strtoul(length->c_str(), nullptr, 10);
    while (pending_.size() < size) {
      if (!receiveMore()) return std::nullopt;
    }
    reply.body = pending_.substr(0, size);
    pending_.erase(0, size);
    return reply;
  }

  // True when the peer ends the connection (an orderly close or a reset) before the
  // receive times out. Whatever arrives first is kept in `received`.
  bool waitForClose(std::string* received = nullptr) {
    if (received != nullptr) *received = pending_;
    for (int round = 0; round < 100000; ++round) {
      char buffer[65536];
      const ssize_t n = ::recv(fd_, buffer, sizeof(buffer), 0);
      if (n == 0) return true;
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) return errno == ECONNRESET || errno == EPIPE;
      if (received != nullptr) received->append(buffer, static_cast<std::size_t>(n));
    }
    return false;
  }

  // True when bytes have arrived or the peer has ended the connection, without waiting.
  bool answeredOrClosed() const {
    char byte;
    const ssize_t n = ::recv(fd_, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
    return n >= 0 || (errno != EAGAIN && errno != EWOULDBLOCK);
  }

  void close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }

  // Closes with a reset (linger 0) rather than an orderly shutdown.
  void abort() {
    const linger reset{1, 0};
    if (fd_ >= 0) ::setsockopt(fd_, SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
    close();
  }

 private:
  void limitWaits() {
    const timeval timeout{kSocketTimeoutSeconds, 0};
    setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
    setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof(timeout));
  }

  bool receiveMore() {
    char buffer[65536];
    ssize_t n = 0;
    while ((n = ::recv(fd_, buffer, sizeof(buffer), 0)) < 0 && errno == EINTR) {
    }
    if (n > 0) pending_.append(buffer, static_cast<std::size_t>(n));
    return n > 0;
  }

  int port_;
  int fd_;
  bool connected_ = false;
  std::string pending_;
};

// An envelope around `body`, byte for byte as the SOAP runtime writes one.
inline std::string envelope(const std::string& body, bool encoded = true) {
  return std::string(
             "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<SOAP-ENV:Envelope "
             "xmlns:SOAP-ENV=\"") +
         kEnvelopeUri +
         "\" xmlns:SOAP-ENC=\"http://schemas.xmlsoap.org/soap/encoding/\" "
         "xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" "
         "xmlns:xsd=\"http://www.w3.org/2001/XMLSchema\" xmlns:kxbroker=\"urn:kxbroker\" "
         "xmlns:kx=\"urn:korvane\"><SOAP-ENV:Body" +
         (encoded ? " SOAP-ENV:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\"" : "") +
         ">" + body + "</SOAP-ENV:Body></SOAP-ENV:Envelope>\r\n";
}

// The element `kxbroker:<op>` around `children`.
inline std::string operation(const std::string& op, const std::string& children = "") {
  return "<kxbroker:" + op + ">" + children + "</kxbroker:" + op + ">";
}

// A child carrying `value` in its SOAP form.
inline std::string valueChild(const std::string& name, const KXValue& value) {
  std::string xml = "<" + name + " xsi:type=\"xsd:anyType\">";
  writeKXValue(value, xml, false);
  return xml + "</" + name + ">";
}

// A callVelmo (or another operation with the same children) request envelope.
inline std::string callRequest(const std::string& module, const std::string& method,
                               const KXValue& parameters, const std::string& op = "callVelmo") {
  return envelope(operation(op, "<kxbroker:mod>" + module + "</kxbroker:mod><kxbroker:meth>" +
                                    method + "</kxbroker:meth>" +
                                    valueChild("kxbroker:p", parameters)));
}

// The envelope of the answer to a callVelmo whose result is `value`.
inline std::string callAnswer(const KXValue& value) {
  return envelope("<kxbroker:callVelmoResponse>" + valueChild("kxbroker:return", value) +
                  "</kxbroker:callVelmoResponse>");
}

constexpr unsigned char kDimeMediaType = 0x10;
constexpr unsigned char kDimeAbsoluteUri = 0x20;

// A 12-byte header (version and flags, type format, the lengths of options, id and type in
// 16 bits and of the data in 32 bits, big-endian), then id, type and data, each padded to
// 4 bytes. `declaredSize` overrides the data length in the header (a record that lies);
// `flags` adds to the version and the first and last flags (a chunk, another version).
inline std::string dimeRecord(bool first, bool last, unsigned char typeFormat,
                              const std::string& id, const std::string& type,
                              const std::string& data,
                              std::optional<std::uint32_t> declaredSize = std::nullopt,
                              unsigned char flags = 0) {
  const std::uint32_t lengths[] = {static_cast<std::uint32_t>(id.size() << 16 | type.size()),
                                   declaredSize.value_or(static_cast<std::uint32_t>(data.size()))};
  std::string record = {static_cast<char>(0x08 | (first ? 0x04 : 0) | (last ? 0x02 : 0) | flags),
                        static_cast<char>(typeFormat), 0, 0};
  for (const std::uint32_t length : lengths) {
    for (int shift = 24; shift >= 0; shift -= 8)
      record.push_back(static_cast<char>(length >> shift));
  }
  for (const std::string* field : {&id, &type, &data}) {
    record += *field;
    record.append((4 - field->size() % 4) % 4, '\0');
  }
  return record;
}

// A DIME message: the envelope (with the id `envelopeId`), then one attachment per entry of
// `attachments`.
inline std::string dimeMessage(const std::string& soapEnvelope,
                               const std::vector<std::string>& attachments,
                               const std::string& envelopeId = "") {
  std::string message = dimeRecord(true, attachments.empty(), kDimeAbsoluteUri, envelopeId,
                                   kEnvelopeUri, soapEnvelope);
  for (std::size_t i = 0; i < attachments.size(); ++i) {
    message += dimeRecord(false, i + 1 == attachments.size(), kDimeMediaType, "image",
                          "application/octet-stream", attachments[i]);
  }
  return message;
}

// A context of the runtime that reads `bytes`, then the end of the connection, through its
// receive callback rather than a socket: for the readers of a message, at most `piece`
// bytes a read.
class FedContext {
 public:
  explicit FedContext(std::string bytes, std::size_t piece = 65536)
      : bytes_(std::move(bytes)), piece_(piece) {
    context_->user = this;
    context_->frecv = &FedContext::receive;
  }
  FedContext(const FedContext&) = delete;
  FedContext& operator=(const FedContext&) = delete;

  struct soap* get() const {
    return context_.get();
  }

 private:
  static std::size_t receive(struct soap* soap, char* out, std::size_t size) {
    FedContext& fed = *static_cast<FedContext*>(soap->user);
    const std::size_t taken = std::min({size, fed.piece_, fed.bytes_.size() - fed.at_});
    std::memcpy(out, fed.bytes_.data() + fed.at_, taken);
    fed.at_ += taken;
    return taken;
  }

  const std::string bytes_;
  const std::size_t piece_;
  std::size_t at_ = 0;
  KXSoapContext context_;
};

}  // namespace wire
}  // namespace testing
}  // namespace KX

#endif  // VELMO_NETWORK_TESTS_WIRE_TEST_SUPPORT_H_
