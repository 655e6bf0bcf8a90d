#include "network/kxbrokerserve.h"
#include "network/kxdimebuffers.h"
#include "network/tests/socket_test_support.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "network/kxbrokersoap.h"
#include "network/kxsoapcontext.h"
#include "network/kxvaluesoap.h"
#include "value/kxvalue.h"

namespace KX {
namespace {

KXValue arrayOf(const std::vector<KXValue>& items) {
  KXValue array;
  array.arraySetSize(0);
  for (const KXValue& item : items) {
    array.arrayPush(item);
  }
  return array;
}

KXValue binaryOf(const std::string& bytes) {
  KXValue value;
  value.setBinary(bytes.data(), bytes.size());
  return value;
}

// Answers callVelmo with [mod, meth, p], raises for the method "fail", records the one-way
// operations it receives, and answers getInfo with a fixed record.
class RecordingHandler {
 public:
  BrokerResponse operator()(BrokerRequest& request, const BrokerPeer& peer) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      peers_.push_back(peer);
    }
    BrokerResponse response;
    switch (request.op) {
      case BrokerOperation::callVelmo: {
        const std::string& mod = std::get<std::string>(request.args[0]);
        const std::string& meth = std::get<std::string>(request.args[1]);
        if (meth == "fail") {
          KX_THROW("Calculator", "divide", "division by zero");
        }
        if (meth == "echo") {
          response.items.emplace_back(std::get<KXValue>(request.args[2]));
        } else {
          response.items.emplace_back(
              arrayOf({KXValue(mod), KXValue(meth), std::get<KXValue>(request.args[2])}));
        }
        break;
      }
      case BrokerOperation::unregisterModuleReference: {
        std::lock_guard<std::mutex> lock(mutex_);
        oneWay_.push_back(std::get<std::string>(request.args[0]));
        break;
      }
      case BrokerOperation::getModuleByName:
        response.fault = BrokerFault{"", "unable to get module by name", ""};
        break;
      case BrokerOperation::getInfo: {
        KXModuleInfo info;
        info.name = std::get<std::string>(request.args[0]);
        info.ip = "10.1.2.3";
        info.port = 9559;
        info.isABroker = true;
        response.items.emplace_back(info);
        break;
      }
      default:
        break;
    }
    return response;
  }

  std::vector<BrokerPeer> peers() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return peers_;
  }

  std::vector<std::string> oneWay() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return oneWay_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> oneWay_;
  std::vector<BrokerPeer> peers_;
};

// A server on 127.0.0.1 (port chosen by the system) serving one connection at a time on
// its own thread.
class LoopbackServer {
 public:
  explicit LoopbackServer(RecordingHandler& handler)
      : handler_([&handler](BrokerRequest& request, const BrokerPeer& peer) {
          return handler(request, peer);
        }) {
    server_->accept_timeout = 1;
    port_ = testing::bindLoopback(server_.get());
    if (port_ == 0) {
      return;
    }
    thread_ = std::thread([this] { run(); });
  }
  ~LoopbackServer() {
    stop_ = true;
    if (thread_.joinable()) {
      thread_.join();
    }
  }
  LoopbackServer(const LoopbackServer&) = delete;
  LoopbackServer& operator=(const LoopbackServer&) = delete;

  int port() const { return port_; }
  std::string endpoint() const { return "http://127.0.0.1:" + std::to_string(port_); }
  int accepted() const { return accepted_; }

 private:
  void run() {
    // Each round waits at most the 1 s accept timeout; the bound only guards a test that
    // forgets to stop the server.
    for (int round = 0; round < 120 && !stop_; ++round) {
      if (!soap_valid_socket(soap_accept(server_.get()))) {
        if (server_->errnum == 0) {
          continue;  // accept timeout
        }
        ADD_FAILURE() << "accept failed, gSOAP error " << server_->error;
        return;
      }
      ++accepted_;
      KXSoapContext connection = KXSoapContext::copyOf(server_);
      serveBrokerConnection(connection.get(), handler_);
    }
  }

  BrokerRequestHandler handler_;
  KXSoapContext server_;
  int port_ = 0;
  std::atomic<bool> stop_{false};
  std::atomic<int> accepted_{0};
  std::thread thread_;
};

constexpr const char* kEnvelopeStart =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>"
    "<SOAP-ENV:Envelope xmlns:SOAP-ENV=\"http://schemas.xmlsoap.org/soap/envelope/\" "
    "xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" "
    "xmlns:xsd=\"http://www.w3.org/2001/XMLSchema\" xmlns:k=\"urn:kxbroker\">"
    "<SOAP-ENV:Body>";
constexpr const char* kEnvelopeEnd = "</SOAP-ENV:Body></SOAP-ENV:Envelope>";

// A plain TCP client speaking HTTP by hand, for requests that the generated client cannot
// write. Reads are bounded by a 10 s receive timeout.
class RawClient {
 public:
  explicit RawClient(int port)
      : fd_(socket(AF_INET, SOCK_STREAM, 0)), connected_(testing::connectLoopback(fd_, port, 10)) {}
  ~RawClient() {
    if (fd_ >= 0) {
      close(fd_);
    }
  }
  RawClient(const RawClient&) = delete;
  RawClient& operator=(const RawClient&) = delete;

  bool connected() const { return connected_; }

  bool sendAll(const std::string& bytes) {
    std::size_t sent = 0;
    while (sent < bytes.size()) {
      const ssize_t n = send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
      if (n <= 0) {
        return false;
      }
      sent += static_cast<std::size_t>(n);
    }
    return true;
  }

  bool post(const std::string& body) {
    return sendAll(
        "POST / HTTP/1.1\r\nHost: 127.0.0.1\r\nUser-Agent: raw\r\n"
        "Content-Type: text/xml; charset=utf-8\r\nContent-Length: " +
        std::to_string(body.size()) + "\r\nConnection: keep-alive\r\nSOAPAction: \"\"\r\n\r\n" +
        body);
  }

  // Reads one HTTP response (header and Content-Length body). False when the connection
  // closes or times out first.
  bool readResponse(std::string& header, std::string& body) {
    std::size_t end = std::string::npos;
    while ((end = pending_.find("\r\n\r\n")) == std::string::npos) {
      if (!receiveMore()) {
        return false;
      }
    }
    header = pending_.substr(0, end + 2);
    pending_.erase(0, end + 4);
    const std::string lengthField = "Content-Length: ";
    const std::size_t at = header.find(lengthField);
    if (at == std::string::npos) {
      return false;
    }
    const std::size_t length = std::strtoul(header.c_str() + at + lengthField.size(), nullptr, 10);
    while (pending_.size() < length) {
      if (!receiveMore()) {
        return false;
      }
    }
    body = pending_.substr(0, length);
    pending_.erase(0, length);
    return true;
  }

  // True when the peer closes the connection (rather than the receive timing out).
  bool waitForClose() {
    for (int i = 0; i < 1000; ++i) {
      char buffer[4096];
      const ssize_t n = recv(fd_, buffer, sizeof(buffer), 0);
      if (n == 0) {
        return true;
      }
      if (n < 0) {
        return false;
      }
    }
    return false;
  }

 private:
  bool receiveMore() {
    char buffer[4096];
    const ssize_t n = recv(fd_, buffer, sizeof(buffer), 0);
    if (n <= 0) {
      return false;
    }
    pending_.append(buffer, static_cast<std::size_t>(n));
    return true;
  }

  int fd_;
  bool connected_ = false;
  std::string pending_;
};

std::string callVelmoWithChildrenNamedABC(const std::string& mod, const std::string& meth) {
  return std::string(kEnvelopeStart) + "<k:callVelmo><a>" + mod + "</a><b>" + meth +
         "</b><c><item xsi:type=\"xsd:int\">5</item></c></k:callVelmo>" + kEnvelopeEnd;
}

TEST(KXBrokerServeTest, GeneratedClientGetsTheHandlersAnswer) {
  RecordingHandler handler;
  LoopbackServer server(handler);
  const std::string endpoint = server.endpoint();
  KXSoapContext client;

  const KXValue parameter = arrayOf({KXValue("k\xC3\xA9y & <x>"), KXValue(7), KXValue(true)});
  char* result = nullptr;
  ASSERT_EQ(soap_call_kxbroker__callVelmo(client.get(), endpoint.c_str(), "",
                                          soap_strdup(client.get(), "KXMemory"),
                                          soap_strdup(client.get(), "getData"),
                                          kxValueToSoap(client.get(), parameter), result),
            SOAP_OK);
  EXPECT_EQ(kxValueFromSoap(result), arrayOf({KXValue("KXMemory"), KXValue("getData"), parameter}));
  client.freeMessageData();

  kx__KXModuleInfo info;
  ASSERT_EQ(soap_call_kxbroker__getInfo(client.get(), endpoint.c_str(), "",
                                        soap_strdup(client.get(), "KXAudio"), info),
            SOAP_OK);
  EXPECT_STREQ(info.name, "KXAudio");
  EXPECT_STREQ(info.ip, "10.1.2.3");
  EXPECT_EQ(info.port, 9559);
  EXPECT_TRUE(info.isABroker);
  EXPECT_FALSE(info.keepAlive);
  client.freeMessageData();

  EXPECT_EQ(server.accepted(), 1);
}

TEST(KXBrokerServeTest, ChildrenAreTakenByPositionWhateverTheirNames) {
  RecordingHandler handler;
  LoopbackServer server(handler);
  RawClient client(server.port());
  ASSERT_TRUE(client.connected());
  ASSERT_TRUE(client.post(callVelmoWithChildrenNamedABC("KXMemory", "getData")));
  std::string header;
  std::string body;
  ASSERT_TRUE(client.readResponse(header, body));
  EXPECT_EQ(header.rfind("HTTP/1.1 200 OK\r\n", 0), 0u) << header;
  const BrokerResponse response = parseBrokerResponse(BrokerOperation::callVelmo, body);
  ASSERT_FALSE(response.fault.has_value()) << body;
  ASSERT_EQ(response.items.size(), 1u);
  EXPECT_EQ(std::get<KXValue>(response.items[0]),
            arrayOf({KXValue("KXMemory"), KXValue("getData"), KXValue(5)}));
}

TEST(KXBrokerServeTest, OneWayRequestIsNotAnsweredAndTheConnectionCarriesTheNext) {
  RecordingHandler handler;
  LoopbackServer server(handler);
  const std::string endpoint = server.endpoint();
  KXSoapContext client;

  ASSERT_EQ(soap_send_kxbroker__unregisterModuleReference(client.get(), endpoint.c_str(), "",
                                                          soap_strdup(client.get(), "Gone")),
            SOAP_OK);
  client.freeMessageData();
  char* result = nullptr;
  ASSERT_EQ(soap_call_kxbroker__callVelmo(
                client.get(), endpoint.c_str(), "", soap_strdup(client.get(), "M"),
                soap_strdup(client.get(), "m"), kxValueToSoap(client.get(), KXValue(1)), result),
            SOAP_OK);
  EXPECT_EQ(kxValueFromSoap(result), arrayOf({KXValue("M"), KXValue("m"), KXValue(1)}));
  client.freeMessageData();

  EXPECT_EQ(handler.oneWay(), std::vector<std::string>{"Gone"});
  EXPECT_EQ(server.accepted(), 1);
}

TEST(KXBrokerServeTest, UnknownOperationGetsAFaultAndTheConnectionStaysUsable) {
  RecordingHandler handler;
  LoopbackServer server(handler);
  RawClient client(server.port());
  ASSERT_TRUE(client.connected());
  ASSERT_TRUE(client.post(std::string(kEnvelopeStart) + "<k:frobnicate><a>x</a></k:frobnicate>" +
                          kEnvelopeEnd));
  std::string header;
  std::string body;
  ASSERT_TRUE(client.readResponse(header, body));
  EXPECT_EQ(header.rfind("HTTP/1.1 500 Internal Server Error\r\n", 0), 0u) << header;
  EXPECT_EQ(header.find("Connection: close"), std::string::npos) << header;
  const BrokerResponse fault = parseBrokerResponse(BrokerOperation::callVelmo, body);
  ASSERT_TRUE(fault.fault.has_value()) << body;
  EXPECT_EQ(fault.fault->code, "SOAP-ENV:Client");
  EXPECT_EQ(fault.fault->string,
            "Method 'k:frobnicate' not implemented: method name or namespace not recognized");
  EXPECT_EQ(fault.fault->detail, "");

  ASSERT_TRUE(client.post(callVelmoWithChildrenNamedABC("KXMemory", "again")));
  ASSERT_TRUE(client.readResponse(header, body));
  const BrokerResponse response = parseBrokerResponse(BrokerOperation::callVelmo, body);
  ASSERT_FALSE(response.fault.has_value()) << body;
  ASSERT_EQ(response.items.size(), 1u);
  EXPECT_EQ(std::get<KXValue>(response.items[0]),
            arrayOf({KXValue("KXMemory"), KXValue("again"), KXValue(5)}));
  EXPECT_EQ(server.accepted(), 1);
}

TEST(KXBrokerServeTest, HandlerErrorBecomesAFaultNamingTheModuleAndTheConnectionGoesOn) {
  RecordingHandler handler;
  LoopbackServer server(handler);
  const std::string endpoint = server.endpoint();
  KXSoapContext client;

  char* result = nullptr;
  ASSERT_EQ(soap_call_kxbroker__callVelmo(
                client.get(), endpoint.c_str(), "", soap_strdup(client.get(), "Calc"),
                soap_strdup(client.get(), "fail"), kxValueToSoap(client.get(), KXValue(1)), result),
            SOAP_CLI_FAULT);
  EXPECT_STREQ(*soap_faultcode(client.get()), "SOAP-ENV:Client");
  EXPECT_STREQ(soap_fault_string(client.get()), "division by zero");
  EXPECT_STREQ(soap_fault_detail(client.get()), "Calc");
  client.freeMessageData();

  // A fault the handler returns carries no detail.
  kxbroker__getModuleByNameResponse byName;
  ASSERT_EQ(soap_call_kxbroker__getModuleByName(client.get(), endpoint.c_str(), "",
                                                soap_strdup(client.get(), "Nope"), byName),
            SOAP_CLI_FAULT);
  EXPECT_STREQ(soap_fault_string(client.get()), "unable to get module by name");
  EXPECT_EQ(soap_fault_detail(client.get()), nullptr);
  client.freeMessageData();

  ASSERT_EQ(soap_call_kxbroker__callVelmo(
                client.get(), endpoint.c_str(), "", soap_strdup(client.get(), "Calc"),
                soap_strdup(client.get(), "add"), kxValueToSoap(client.get(), KXValue(2)), result),
            SOAP_OK);
  EXPECT_EQ(kxValueFromSoap(result), arrayOf({KXValue("Calc"), KXValue("add"), KXValue(2)}));
  client.freeMessageData();
  EXPECT_EQ(server.accepted(), 1);
}

TEST(KXBrokerServeTest, GarbageIsRefusedAndTheServerServesTheNextConnection) {
  RecordingHandler handler;
  LoopbackServer server(handler);
  {
    RawClient garbage(server.port());
    ASSERT_TRUE(garbage.connected());
    ASSERT_TRUE(garbage.sendAll(std::string("\x01\x02 not HTTP at all\r\n\r\n\xff\xfe", 24)));
    // Whatever answer comes, the server must close this connection.
    EXPECT_TRUE(garbage.waitForClose());
  }
  RawClient client(server.port());
  ASSERT_TRUE(client.connected());
  ASSERT_TRUE(client.post(callVelmoWithChildrenNamedABC("KXMemory", "after")));
  std::string header;
  std::string body;
  ASSERT_TRUE(client.readResponse(header, body));
  const BrokerResponse response = parseBrokerResponse(BrokerOperation::callVelmo, body);
  ASSERT_FALSE(response.fault.has_value()) << body;
  EXPECT_EQ(std::get<KXValue>(response.items[0]),
            arrayOf({KXValue("KXMemory"), KXValue("after"), KXValue(5)}));
  EXPECT_EQ(server.accepted(), 2);
}

TEST(KXBrokerServeTest, BinaryLeavesTravelAsDimeAttachmentsInWalkOrder) {
  RecordingHandler handler;
  LoopbackServer server(handler);
  const std::string endpoint = server.endpoint();
  KXSoapContext client;

  const std::string first("first\0bytes", 11);
  const std::string second(70000, 'z');
  const KXValue parameter = arrayOf({binaryOf(first), KXValue(3), arrayOf({binaryOf(second)})});
  std::vector<const KXValue*> leaves;
  collectBinaryLeaves(parameter, leaves);
  ASSERT_EQ(leaves.size(), 2u);
  soap_set_dime(client.get());
  for (const KXValue* leaf : leaves) {
    ASSERT_EQ(soap_set_dime_attachment(
                  client.get(), reinterpret_cast<const char*>(leaf->getBinary().data()),
                  leaf->getBinary().size(), "application/octet-stream", "image", 0, nullptr),
              SOAP_OK);
  }
  char* result = nullptr;
  ASSERT_EQ(soap_call_kxbroker__callVelmo(
                client.get(), endpoint.c_str(), "", soap_strdup(client.get(), "Camera"),
                soap_strdup(client.get(), "echo"), kxValueToSoap(client.get(), parameter), result),
            SOAP_OK);
  soap_clr_dime(client.get());

  std::vector<KXValue::TKXValueBinary> attachments;
  int count = 0;
  for (const soap_multipart* part = client->dime.list; part != nullptr && count < 10;
       part = part->next, ++count) {
    EXPECT_STREQ(part->type, "application/octet-stream");
    EXPECT_STREQ(part->id, "image");
    // Received into the context's own buffers, not the runtime's.
    std::vector<unsigned char>* buffer = receivedDimeBuffer(client.get(), *part);
    ASSERT_NE(buffer, nullptr);
    attachments.push_back(*buffer);
  }
  ASSERT_EQ(attachments.size(), 2u);
  KXValue echoed = kxValueFromSoap(result);
  attachBinaryLeaves(echoed, std::move(attachments));
  EXPECT_EQ(echoed, parameter);
  client.freeMessageData();

  // The next message on the connection is plain XML again.
  ASSERT_EQ(soap_call_kxbroker__callVelmo(
                client.get(), endpoint.c_str(), "", soap_strdup(client.get(), "M"),
                soap_strdup(client.get(), "m"), kxValueToSoap(client.get(), KXValue(1)), result),
            SOAP_OK);
  EXPECT_EQ(client->dime.list, nullptr);
  EXPECT_EQ(kxValueFromSoap(result), arrayOf({KXValue("M"), KXValue("m"), KXValue(1)}));
  client.freeMessageData();
  EXPECT_EQ(server.accepted(), 1);
}

}  // namespace
}  // namespace KX
