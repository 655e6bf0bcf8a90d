#ifndef VELMO_NETWORK_TESTS_WIRE_TEST_SUPPORT_H_
#define VELMO_NETWORK_TESTS_WIRE_TEST_SUPPORT_H_

// A hand-written peer of the broker protocol: plain TCP sockets on 127.0.0.1 carrying HTTP
// requests and SOAP envelopes built as text, DIME records built byte by byte, and readers
// for what comes back (HTTP answers, SOAP envelopes by namespace URI, DIME records).
// Nothing here goes through the SOAP runtime, so a test sees exactly the bytes a foreign
// peer would send and receive.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <tinyxml2.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "module/kxmoduleinfo.h"
#include "network/kxvaluesoap.h"
#include "network/tests/socket_test_support.h"
#include "value/kxvalue.h"

namespace KX {
namespace testing {
namespace wire {

constexpr char kEnvelopeUri[] = "http://schemas.xmlsoap.org/soap/envelope/";
constexpr char kEncodingUri[] = "http://schemas.xmlsoap.org/soap/encoding/";
constexpr char kSchemaInstanceUri[] = "http://www.w3.org/2001/XMLSchema-instance";
constexpr char kSchemaUri[] = "http://www.w3.org/2001/XMLSchema";
constexpr char kBrokerUri[] = "urn:kxbroker";
constexpr char kRecordUri[] = "urn:korvane";

// Every read and write on a test socket gives up after this long, so that a server that
// never answers fails the test instead of hanging it.
constexpr int kSocketTimeoutSeconds = 10;

// ---------------------------------------------------------------- HTTP

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
    std::size_t lineStart = header.find('\n');
    while (lineStart != std::string::npos && lineStart + 1 < header.size()) {
      ++lineStart;
      std::size_t lineEnd = header.find('\n', lineStart);
      if (lineEnd == std::string::npos) lineEnd = header.size();
      std::string line = header.substr(lineStart, lineEnd - lineStart);
      if (!line.empty() && line.back() == '\r') line.pop_back();
      const std::size_t colon = line.find(':');
      if (colon == name.size() && sameLetters(line.substr(0, colon), name)) {
        const std::size_t first = line.find_first_not_of(" \t", colon + 1);
        const std::size_t last = line.find_last_not_of(" \t");
        return first == std::string::npos ? std::string() : line.substr(first, last - first + 1);
      }
      lineStart = lineEnd;
    }
    return std::nullopt;
  }

  static bool sameLetters(const std::string& a, const std::string& b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
      if (std::tolower(static_cast<unsigned char>(a[i])) !=
          std::tolower(static_cast<unsigned char>(b[i]))) {
        return false;
      }
    }
    return true;
  }
};

// One TCP connection to 127.0.0.1:port, owned (closed on destruction).
class WireConnection {
 public:
  explicit WireConnection(int port) : port_(port), fd_(::socket(AF_INET, SOCK_STREAM, 0)) {
    if (fd_ < 0) return;
    connected_ = connectLoopback(fd_, port, kSocketTimeoutSeconds);
  }
  ~WireConnection() { close(); }
  WireConnection(const WireConnection&) = delete;
  WireConnection& operator=(const WireConnection&) = delete;

  bool connected() const { return connected_; }

  bool sendAll(const std::string& bytes) {
    std::size_t sent = 0;
    while (sent < bytes.size()) {
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

  // A request with another method (GET, PUT, DELETE); `body` adds a Content-Length.
  bool request(const std::string& method, const std::string& path,
               const std::optional<std::string>& body = std::nullopt) {
    std::string text = method + " " + path +
                       " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port_) +
                       "\r\nUser-Agent: wire\r\n";
    if (body) text += "Content-Length: " + std::to_string(body->size()) + "\r\n";
    text += "\r\n";
    if (body) text += *body;
    return sendAll(text);
  }

  // Reads one HTTP answer framed by its Content-Length. Nothing when the connection closes
  // or the receive times out first, or when the answer has no length.
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
      if (n < 0) {
        if (errno == EINTR) continue;
        return errno == ECONNRESET || errno == EPIPE;
      }
      if (received != nullptr) received->append(buffer, static_cast<std::size_t>(n));
    }
    return false;
  }

  void close() {
    if (fd_ >= 0) {
      ::close(fd_);
      fd_ = -1;
    }
  }

  // Closes with a reset (linger 0) rather than an orderly shutdown.
  void abort() {
    if (fd_ < 0) return;
    const linger reset{1, 0};
    ::setsockopt(fd_, SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
    close();
  }

 private:
  bool receiveMore() {
    char buffer[65536];
    for (;;) {
      const ssize_t n = ::recv(fd_, buffer, sizeof(buffer), 0);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return false;
      pending_.append(buffer, static_cast<std::size_t>(n));
      return true;
    }
  }

  int port_;
  int fd_;
  bool connected_ = false;
  std::string pending_;
};

// ---------------------------------------------------------------- requests as text

// An envelope with the usual prefixes around `body`.
inline std::string envelope(const std::string& body) {
  return std::string(
             "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<SOAP-ENV:Envelope "
             "xmlns:SOAP-ENV=\"") +
         kEnvelopeUri + "\" xmlns:SOAP-ENC=\"" + kEncodingUri + "\" xmlns:xsi=\"" +
         kSchemaInstanceUri + "\" xmlns:xsd=\"" + kSchemaUri + "\" xmlns:kxbroker=\"" + kBrokerUri +
         "\" xmlns:kx=\"" + kRecordUri + "\"><SOAP-ENV:Body SOAP-ENV:encodingStyle=\"" +
         kEncodingUri + "\">" + body + "</SOAP-ENV:Body></SOAP-ENV:Envelope>";
}

// The request element of operation `op` around its children.
inline std::string operation(const std::string& op, const std::string& children = "") {
  return "<kxbroker:" + op + ">" + children + "</kxbroker:" + op + ">";
}

inline std::string escaped(const std::string& text) {
  std::string out;
  for (const char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

// A child with text content, named `name` as written (qualify it yourself).
inline std::string textChild(const std::string& name, const std::string& text) {
  return "<" + name + ">" + escaped(text) + "</" + name + ">";
}

// A child carrying `value` in its SOAP form.
inline std::string valueChild(const std::string& name, const KXValue& value) {
  std::string xml;
  writeKXValue(value, xml, false);
  return "<" + name + " xsi:type=\"xsd:anyType\">" + xml + "</" + name + ">";
}

// The fields of a module description record, in the order a writer uses; `fields` lets a
// test write them in another order.
inline std::vector<std::string> recordFields(const KXModuleInfo& info) {
  return {textChild("name", info.name),
          textChild("architecture", std::to_string(info.architecture)),
          textChild("ip", info.ip),
          textChild("port", std::to_string(info.port)),
          textChild("processId", std::to_string(info.processId)),
          textChild("modulePointer", "0"),
          textChild("isABroker", info.isABroker ? "true" : "false"),
          textChild("keepAlive", info.keepAlive ? "true" : "false")};
}

inline std::string recordChild(const std::string& name, const std::vector<std::string>& fields) {
  std::string xml = "<" + name + " xsi:type=\"kx:KXModuleInfo\">";
  for (const auto& field : fields) xml += field;
  return xml + "</" + name + ">";
}

// ---------------------------------------------------------------- reading envelopes

inline const char* localName(const char* name) {
  const char* colon = std::strrchr(name, ':');
  return colon != nullptr ? colon + 1 : name;
}

// The namespace URI the prefix of `name` (the default namespace without a prefix) is bound
// to where `element` stands; "" when unbound.
inline std::string namespaceOf(const tinyxml2::XMLElement& element, const char* name) {
  const char* colon = std::strchr(name, ':');
  std::string attribute = "xmlns";
  if (colon != nullptr)
    attribute += ":" + std::string(name, static_cast<std::size_t>(colon - name));
  for (const tinyxml2::XMLNode* node = &element; node != nullptr; node = node->Parent()) {
    const tinyxml2::XMLElement* scope = node->ToElement();
    if (scope == nullptr) break;
    if (const char* uri = scope->Attribute(attribute.c_str())) return uri;
  }
  return std::string();
}

inline std::string namespaceOf(const tinyxml2::XMLElement& element) {
  return namespaceOf(element, element.Name());
}

inline bool isNamed(const tinyxml2::XMLElement& element, const std::string& uri,
                    const std::string& local) {
  return localName(element.Name()) == local && namespaceOf(element) == uri;
}

inline std::vector<const tinyxml2::XMLElement*> childElements(const tinyxml2::XMLElement& element) {
  std::vector<const tinyxml2::XMLElement*> children;
  for (const tinyxml2::XMLElement* child = element.FirstChildElement(); child != nullptr;
       child = child->NextSiblingElement()) {
    children.push_back(child);
  }
  return children;
}

inline std::string textOf(const tinyxml2::XMLElement& element) {
  const char* text = element.GetText();
  return text != nullptr ? text : "";
}

// The value of the attribute `local` of the XML Schema instance namespace, whatever its
// prefix; nothing when absent.
inline std::optional<std::string> schemaInstanceAttribute(const tinyxml2::XMLElement& element,
                                                          const char* local) {
  for (const tinyxml2::XMLAttribute* attribute = element.FirstAttribute(); attribute != nullptr;
       attribute = attribute->Next()) {
    const char* name = attribute->Name();
    if (std::strchr(name, ':') == nullptr || std::strncmp(name, "xmlns:", 6) == 0) continue;
    if (std::strcmp(localName(name), local) != 0) continue;
    if (namespaceOf(element, name) == kSchemaInstanceUri) return std::string(attribute->Value());
  }
  return std::nullopt;
}

// A parsed SOAP envelope: the elements of its body.
class SoapEnvelope {
 public:
  explicit SoapEnvelope(const std::string& xml) {
    if (document_.Parse(xml.data(), xml.size()) != tinyxml2::XML_SUCCESS) {
      problem_ = "not well-formed XML";
      return;
    }
    const tinyxml2::XMLElement* root = document_.RootElement();
    if (root == nullptr || !isNamed(*root, kEnvelopeUri, "Envelope")) {
      problem_ = "no SOAP 1.1 envelope";
      return;
    }
    for (const tinyxml2::XMLElement* part : childElements(*root)) {
      if (isNamed(*part, kEnvelopeUri, "Body")) {
        body_ = childElements(*part);
        return;
      }
    }
    problem_ = "no body";
  }
  SoapEnvelope(const SoapEnvelope&) = delete;
  SoapEnvelope& operator=(const SoapEnvelope&) = delete;

  // Empty when the envelope is well formed with a body.
  const std::string& problem() const { return problem_; }
  const std::vector<const tinyxml2::XMLElement*>& body() const { return body_; }

 private:
  tinyxml2::XMLDocument document_;
  std::string problem_;
  std::vector<const tinyxml2::XMLElement*> body_;
};

// The KXValue an element carries (its first child element is the value's item).
inline KXValue valueIn(const tinyxml2::XMLElement& element) {
  KXValue value;
  if (const tinyxml2::XMLElement* item = element.FirstChildElement()) {
    readKXValue(*item, value, 0);
  }
  return value;
}

// ---------------------------------------------------------------- DIME

constexpr unsigned char kDimeVersion = 0x08;
constexpr unsigned char kDimeBegin = 0x04;
constexpr unsigned char kDimeEnd = 0x02;
constexpr unsigned char kDimeMediaType = 0x10;
constexpr unsigned char kDimeAbsoluteUri = 0x20;

struct DimeRecord {
  unsigned char flags = 0;
  unsigned char typeFormat = 0;
  std::string id;
  std::string type;
  std::string data;
};

// One record: a 12-byte header (version and flags, type format, the lengths of options,
// id and type in 16 bits and of the data in 32 bits, big-endian), then id, type and data,
// each padded to a multiple of 4 bytes. `declaredSize` overrides the data length written in
// the header (a record that lies about its size).
inline std::string dimeRecord(bool first, bool last, unsigned char typeFormat,
                              const std::string& id, const std::string& type,
                              const std::string& data,
                              std::optional<std::uint32_t> declaredSize = std::nullopt) {
  std::string record;
  record.push_back(
      static_cast<char>(kDimeVersion | (first ? kDimeBegin : 0) | (last ? kDimeEnd : 0)));
  record.push_back(static_cast<char>(typeFormat));
  const auto put16 = [&record](std::size_t v) {
    record.push_back(static_cast<char>((v >> 8) & 0xff));
    record.push_back(static_cast<char>(v & 0xff));
  };
  put16(0);
  put16(id.size());
  put16(type.size());
  const std::uint32_t size = declaredSize.value_or(static_cast<std::uint32_t>(data.size()));
  for (int shift = 24; shift >= 0; shift -= 8) {
    record.push_back(static_cast<char>((size >> shift) & 0xff));
  }
  const auto padded = [&record](const std::string& field) {
    record += field;
    record.append((4 - field.size() % 4) % 4, '\0');
  };
  padded(id);
  padded(type);
  padded(data);
  return record;
}

// A DIME message: the envelope, then one attachment per entry of `attachments`.
inline std::string dimeMessage(const std::string& soapEnvelope,
                               const std::vector<std::string>& attachments) {
  std::string message =
      dimeRecord(true, attachments.empty(), kDimeAbsoluteUri, "", kEnvelopeUri, soapEnvelope);
  for (std::size_t i = 0; i < attachments.size(); ++i) {
    message += dimeRecord(false, i + 1 == attachments.size(), kDimeMediaType, "image",
                          "application/octet-stream", attachments[i]);
  }
  return message;
}

// The records of a DIME message; nothing when it is malformed.
inline std::optional<std::vector<DimeRecord>> parseDime(const std::string& message) {
  std::vector<DimeRecord> records;
  std::size_t at = 0;
  const auto byte = [&message](std::size_t i) {
    return static_cast<std::size_t>(static_cast<unsigned char>(message[i]));
  };
  const auto paddedSize = [](std::size_t n) { return (n + 3) / 4 * 4; };
  while (at < message.size()) {
    if (message.size() - at < 12) return std::nullopt;
    DimeRecord record;
    record.flags = static_cast<unsigned char>(message[at]);
    record.typeFormat = static_cast<unsigned char>(message[at + 1]);
    const std::size_t options = byte(at + 2) << 8 | byte(at + 3);
    const std::size_t id = byte(at + 4) << 8 | byte(at + 5);
    const std::size_t type = byte(at + 6) << 8 | byte(at + 7);
    const std::size_t data =
        byte(at + 8) << 24 | byte(at + 9) << 16 | byte(at + 10) << 8 | byte(at + 11);
    at += 12 + paddedSize(options);
    if (at + paddedSize(id) + paddedSize(type) > message.size()) return std::nullopt;
    record.id = message.substr(at, id);
    at += paddedSize(id);
    record.type = message.substr(at, type);
    at += paddedSize(type);
    if (at + data > message.size()) return std::nullopt;
    record.data = message.substr(at, data);
    at = std::min(message.size(), at + paddedSize(data));
    records.push_back(std::move(record));
  }
  return records;
}

}  // namespace wire
}  // namespace testing
}  // namespace KX

#endif  // VELMO_NETWORK_TESTS_WIRE_TEST_SUPPORT_H_
