// Serving one connection: answers framed as the runtime frames them, faults, keep-alive and
// pipelining, DIME, and the requests after which a connection must end. A hand-written peer
// sends the requests; the handler answers from the request alone.
#include "network/detail/kxbrokerserve.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "network/detail/kxsoapcontext.h"
#include "network/detail/kxsoapio.h"
#include "network/tests/wire_test_support.h"
#include "value/tests/value_test_util.h"

namespace KX {
namespace testing {
namespace {

using testing_util::arrayOf;
using wire::callRequest;
using wire::dimeMessage;
using wire::dimeRecord;
using wire::envelope;
using wire::HttpReply;
using wire::kDimeAbsoluteUri;
using wire::kDimeMediaType;
using wire::operation;
using wire::WireConnection;

// The head of an answer with attachments, as the runtime writes it.
inline std::string dimeAnswerHead(std::size_t length) {
  return "HTTP/1.1 200 OK\r\nServer: gSOAP/2.8\r\nX-Frame-Options: SAMEORIGIN\r\n"
         "Content-Type: application/dime\r\nContent-Length: " +
         std::to_string(length) + "\r\nConnection: keep-alive\r\n";
}

class ServeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    server_->accept_timeout = 1;
    port_ = bindLoopback(server_.get());
    ASSERT_NE(port_, 0);
    thread_ = std::thread([this] {
      // Each round waits at most the 1 s accept timeout; the bound only guards a test that
      // never ends.
      for (int round = 0; round < 120 && !stop_; ++round) {
        if (!soap_valid_socket(soap_accept(server_.get()))) continue;
        ++accepted_;
        KXSoapContext connection = KXSoapContext::copyOf(server_);
        // In short rounds, as a broker serves: every wait for a next request ends the round.
        useKernelTimeouts(connection.get(), std::chrono::milliseconds(5), 10, 10);
        BrokerConnection served(connection.get());
        const auto handler = [this](BrokerRequest& request, const BrokerPeer& peer) {
          return answer(request, peer);
        };
        while (!stop_ && served.serve(handler, BrokerConnection::Rounds::UntilIdle) ==
                             BrokerConnection::State::Idle) {
        }
      }
    });
  }

  void TearDown() override {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
  }

  BrokerAnswer answer(BrokerRequest& request, const BrokerPeer& peer) {
    if (const auto* drop = std::get_if<protocol::UnregisterModuleReference>(&request)) {
      std::lock_guard<std::mutex> lock(mutex_);
      oneWay_.push_back(drop->moduleName);
    }
    auto* call = std::get_if<protocol::CallVelmo>(&request);
    if (call == nullptr) return BrokerAnswer();  // callVelmo answers after its method name
    if (call->meth == "fail") KX_THROW("Calculator", "divide", "division by zero");
    if (call->meth == "std") throw std::runtime_error("no memory");
    if (call->meth == "wrong") return 1;
    if (call->meth == "peer") return arrayOf(peer.endpoint, peer.ip);
    return std::move(call->p);
  }

  HttpReply ask(WireConnection& connection, const std::string& body) {
    EXPECT_TRUE(connection.post(body));
    return connection.read().value_or(HttpReply{});
  }

  // The server answers on a new connection.
  void expectServing() {
    WireConnection connection(port_);
    EXPECT_EQ(ask(connection, callRequest("M", "echo", KXValue(5))).body,
              wire::callAnswer(KXValue(5)));
  }

  static std::string fault(const std::string& string, const std::string& detail = "") {
    return envelope("<SOAP-ENV:Fault><faultcode>SOAP-ENV:Client</faultcode><faultstring>" + string +
                        "</faultstring>" +
                        (detail.empty() ? "" : "<detail>" + detail + "</detail>") +
                        "</SOAP-ENV:Fault>",
                    false);
  }

  KXSoapContext server_;
  int port_ = 0;
  std::atomic<bool> stop_{false};
  std::atomic<int> accepted_{0};
  std::thread thread_;
  std::mutex mutex_;
  std::vector<std::string> oneWay_;
};

// The bytes of each operation's answer are the writer's (tested there); here, how the server
// frames them and its faults.
TEST_F(ServeTest, AnswersAndFaultsAreFramedAndLeaveTheConnectionOpen) {
  const std::string port = std::to_string(port_);
  const struct {
    std::string request;
    std::string answer;
  } cases[] = {
      // A module's own error names the module, so that the caller tells it from a transport
      // failure.
      {callRequest("Calc", "fail", KXValue()), fault("division by zero", "Calc")},
      {callRequest("Calc", "std", KXValue()), fault("no memory")},
      {callRequest("Calc", "wrong", KXValue()),
       fault("the answer to callVelmo is of another type")},
      {callRequest("M", "echo", arrayOf("a&b", 1.5f)), wire::callAnswer(arrayOf("a&b", 1.5f))},
      {callRequest("M", "peer", KXValue()),
       wire::callAnswer(arrayOf("http://127.0.0.1:" + port + "/", "127.0.0.1"))},
  };
  WireConnection connection(port_);
  for (const auto& c : cases) {
    const HttpReply reply = ask(connection, c.request);
    const bool faulted = c.answer.find("<SOAP-ENV:Fault>") != std::string::npos;
    EXPECT_EQ(reply.statusLine, faulted ? "HTTP/1.1 500 Internal Server Error" : "HTTP/1.1 200 OK")
        << c.request;
    EXPECT_EQ(reply.field("Content-Type"), "text/xml; charset=utf-8");
    EXPECT_EQ(reply.field("Connection"), "keep-alive");
    EXPECT_EQ(reply.body, c.answer);
  }
  // A one-way request that fails is answered by nothing either.
  ASSERT_TRUE(connection.post(callRequest("Calc", "fail", KXValue(), "pCallVelmo")));
  EXPECT_EQ(ask(connection, callRequest("M", "echo", KXValue(1))).body,
            wire::callAnswer(KXValue(1)));
  EXPECT_EQ(accepted_.load(), 1);
}

// The answer used to be written through the buffer that already held the next request read
// ahead, which was then never answered.
TEST_F(ServeTest, RequestsSentTogetherAreAnsweredInOrderAndOneWayOnesNotAtAll) {
  WireConnection connection(port_);
  std::string together;
  for (const std::string& body :
       {envelope(operation("unregisterModuleReference", "<m>Gone</m>")),
        callRequest("M", "echo", KXValue(1)), callRequest("M", "echo", KXValue(2)),
        envelope(operation("unregisterModuleReference", "<m>Also</m>"))}) {
    together += connection.postHeader(body.size()) + body;
  }
  // The last in chunks.
  const std::string body = callRequest("M", "echo", KXValue(3));
  char size[32];
  std::snprintf(size, sizeof(size), "%zx\r\n", body.size() - 100);
  ASSERT_TRUE(
      connection.sendAll(together + "POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n64\r\n" +
                         body.substr(0, 100) + "\r\n" + size + body.substr(100) + "\r\n0\r\n\r\n"));
  for (int i = 1; i <= 3; ++i) {
    EXPECT_EQ(connection.read().value_or(HttpReply{}).body, wire::callAnswer(KXValue(i)));
  }
  std::lock_guard<std::mutex> lock(mutex_);
  EXPECT_EQ(oneWay_, (std::vector<std::string>{"Gone", "Also"}));
}

TEST_F(ServeTest, AConnectionEndsWhenThePeerAsksOrCannotBeUnderstood) {
  const std::string body = callRequest("M", "echo", KXValue(3));
  const std::string length = std::to_string(body.size());
  const struct {
    std::string bytes;
    std::string answer;  // a part of it; "": not the call's answer
  } cases[] = {
      {"POST / HTTP/1.1\r\nConnection: close\r\nContent-Length: " + length + "\r\n\r\n" + body,
       wire::callAnswer(KXValue(3))},
      {"POST / HTTP/1.0\r\nContent-Length: " + length + "\r\n\r\n" + body,
       wire::callAnswer(KXValue(3))},
      {std::string("\x16\x03\x01\x02\x00 not HTTP\r\n\r\n\xff\xfe\x00", 22), ""},
      {"GET /index.xml HTTP/1.1\r\n\r\n", ""},  // no page service on this context
      {"POST / HTTP/1.1\r\nContent-Length: 0\r\n\r\n", ""},
      // Refused once one byte beyond the limit is read, not after the length announced.
      {"POST / HTTP/1.1\r\nContent-Length: 104857600\r\n\r\n" +
           std::string(kBrokerMessageMaxBytes + 1, ' '),
       fault("Message too large: 67108865 bytes, at most 67108864 accepted")},
  };
  for (const auto& c : cases) {
    WireConnection connection(port_);
    ASSERT_TRUE(connection.sendAll(c.bytes));
    std::string received;
    EXPECT_TRUE(connection.waitForClose(&received)) << c.bytes.substr(0, 100);
    if (c.answer.empty()) {
      EXPECT_EQ(received.find(wire::callAnswer(KXValue(3))), std::string::npos) << received;
    } else {
      EXPECT_NE(received.find(c.answer), std::string::npos) << received.substr(0, 2000);
    }
  }
  // A peer that leaves in the middle of a request does not hurt the server.
  const std::string cuts[] = {
      "POST / HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Len",
      "POST / HTTP/1.1\r\nContent-Length: " + std::to_string(body.size() + 100) + "\r\n\r\n" + body,
      "POST / HTTP/1.1\r\nContent-Length: 104857600\r\n\r\n<SOAP-ENV:Envelope"};
  for (const std::string& cut : cuts) WireConnection(port_).sendAll(cut);
  expectServing();
  EXPECT_EQ(accepted_.load(), 10);
}

TEST_F(ServeTest, BinaryLeavesTakeTheAttachmentsAndTheirResultGoesBackAsAttachments) {
  const KXValue one = arrayOf(binaryOf("x"));
  const KXValue three = arrayOf(binaryOf("a"), 3, arrayOf(binaryOf("b"), binaryOf("c")));
  const std::string first("first\0bytes", 11);
  const std::string large(70000, 'z');
  const struct {
    KXValue parameter;
    std::vector<std::string> sent;
    std::vector<std::string> back;  // none: a plain answer
  } cases[] = {
      {three, {first, large, ""}, {first, large, ""}},
      // Leaves beyond the attachments keep the bytes of their XML form: the byte "1".
      {three, {first}, {first, "1", "1"}},
      {one, {"kept", "extra"}, {"kept"}},
      {one, {}, {"1"}},
      {KXValue("plain"), {"unused"}, {}},
  };
  // Twice on one connection: a message is read to its end, and the next one is served.
  for (const auto& c : cases) {
    WireConnection connection(port_);
    const std::string request = callRequest("M", "echo", c.parameter);
    ASSERT_TRUE(connection.post(dimeMessage(request, c.sent), "application/dime"));
    ASSERT_TRUE(connection.post(dimeMessage(request, c.sent), "application/dime"));
    ASSERT_TRUE(connection.read().has_value());
    const HttpReply reply = connection.read().value_or(HttpReply{});
    EXPECT_EQ(reply.statusLine, "HTTP/1.1 200 OK");
    if (c.back.empty()) {
      EXPECT_EQ(reply.field("Content-Type"), "text/xml; charset=utf-8");
      EXPECT_EQ(reply.body, wire::callAnswer(c.parameter));
    } else {
      EXPECT_EQ(reply.header, dimeAnswerHead(reply.body.size()));
      EXPECT_EQ(reply.body, dimeMessage(wire::callAnswer(c.parameter), c.back, "cid:id0"));
    }
  }
  // A plain request's Binary leaves (in their XML form, the byte "1") come back as
  // attachments too.
  {
    WireConnection connection(port_);
    EXPECT_EQ(ask(connection, callRequest("M", "echo", one)).body,
              dimeMessage(wire::callAnswer(one), {"1"}, "cid:id0"));
  }
  // An attachment may come in chunks (records flagged as continued): they make one value.
  constexpr unsigned char kChunk = 0x01;
  const std::string request = callRequest("M", "echo", one);
  std::string chunked = dimeRecord(true, false, kDimeAbsoluteUri, "", wire::kEnvelopeUri, request);
  chunked += dimeRecord(false, false, kDimeMediaType, "image", "application/octet-stream", "ab",
                        std::nullopt, kChunk);
  chunked += dimeRecord(false, false, 0, "", "", large, std::nullopt, kChunk);
  chunked += dimeRecord(false, true, 0, "", "", "c");
  {
    WireConnection connection(port_);
    ASSERT_TRUE(connection.post(chunked, "application/dime"));
    EXPECT_EQ(connection.read().value_or(HttpReply{}).body,
              dimeMessage(wire::callAnswer(one), {"ab" + large + "c"}, "cid:id0"));
  }
  // A DIME message in HTTP chunks, whose records the runtime would read trusting their
  // sizes, ends its connection unanswered, even one that tells the truth: a record claiming
  // 4 GiB was once an allocation of 4 GiB.
  const auto answeredInHttpChunks = [this](const std::string& message) {
    WireConnection connection(port_);
    std::string head = connection.postHeader(0, "application/dime");
    head.replace(head.find("Content-Length: 0"), 17, "Transfer-Encoding: chunked");
    std::ostringstream body;
    body << std::hex << message.size() << "\r\n" << message << "\r\n0\r\n\r\n";
    EXPECT_TRUE(connection.sendAll(head + body.str()));
    return connection.read().has_value();
  };
  std::string claiming = dimeRecord(true, false, kDimeAbsoluteUri, "", wire::kEnvelopeUri, request);
  claiming += dimeRecord(false, true, kDimeMediaType, "image", "application/octet-stream", "tiny",
                         0xFFFFFFF0u);
  for (const std::string& message : {dimeMessage(request, {"true"}), claiming}) {
    EXPECT_FALSE(answeredInHttpChunks(message));
  }
  // A DIME message cut short, with a record claiming 4 GiB, of another DIME version, or with
  // its envelope in chunks ends its connection only.
  std::string lying = dimeRecord(true, false, kDimeAbsoluteUri, "", wire::kEnvelopeUri,
                                 callRequest("M", "echo", one));
  lying += dimeRecord(false, true, kDimeMediaType, "image", "application/octet-stream", "tiny",
                      0xFFFFFFF0u);
  const std::string whole = dimeMessage(request, {large});
  std::string otherVersion = dimeMessage(request, {});
  otherVersion[0] = static_cast<char>(otherVersion[0] + 0x08);
  const std::string envelopeInChunks =
      dimeRecord(true, false, kDimeAbsoluteUri, "", wire::kEnvelopeUri, request, std::nullopt,
                 kChunk) +
      dimeRecord(false, true, 0, "", "", "");
  for (const std::string& message :
       {lying, whole.substr(0, whole.size() - 1000), otherVersion, envelopeInChunks}) {
    WireConnection connection(port_);
    ASSERT_TRUE(
        connection.sendAll(connection.postHeader(whole.size(), "application/dime") + message));
  }
  expectServing();
}

}  // namespace
}  // namespace testing
}  // namespace KX
