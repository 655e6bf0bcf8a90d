// A client connection on the wire: every request on a kept connection leaves byte for byte
// as the runtime sends the first one, which opens it.
#include "network/detail/kxconnection.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "network/detail/kxsoapcontext.h"
#include "network/tests/wire_test_support.h"

namespace KX {
namespace testing {
namespace {

using wire::WireConnection;

const std::string kAnswer = wire::callAnswer(KXValue(7));

std::string plainReply(const std::string& extraHeaders = "") {
  return "HTTP/1.1 200 OK\r\nServer: gSOAP/2.8\r\nContent-Type: text/xml; charset=utf-8\r\n" +
         extraHeaders + "Content-Length: " + std::to_string(kAnswer.size()) + "\r\n\r\n" + kAnswer;
}

// Serves `replies.size()` requests on the connections that come, one reply each, in order;
// a connection ends when its peer closes it or after a reply that says "close". Gives the
// requests received and counts the connections.
std::vector<std::string> serveRequests(struct soap* server, const std::vector<std::string>& replies,
                                       int& connections) {
  std::vector<std::string> requests;
  while (requests.size() < replies.size() && soap_valid_socket(soap_accept(server))) {
    ++connections;
    WireConnection accepted(WireConnection::Accepted{server->socket});
    server->socket = SOAP_INVALID_SOCKET;
    for (bool open = true; open && requests.size() < replies.size();) {
      const std::optional<wire::HttpReply> request = accepted.read();
      if (!request) break;
      requests.push_back(request->header + "\r\n" + request->body);
      const std::string& reply = replies[requests.size() - 1];
      open = accepted.sendAll(reply) && reply.find("Connection: close") == std::string::npos;
    }
  }
  return requests;
}

struct Exchange {
  std::vector<KXValue> answers;
  std::vector<std::string> requests;
  int connections = 0;
};

// A client's calls to a peer that gives `replies`, one per call.
Exchange exchange(const std::vector<std::string>& replies, const std::string& token = "",
                  const KXValue& argument = KXValue("k")) {
  Exchange result;
  KXSoapContext server;
  server->accept_timeout = 10;
  const int port = bindLoopback(server.get());
  std::thread peer(
      [&] { result.requests = serveRequests(server.get(), replies, result.connections); });
  KXModuleInfo module;
  module.name = "Echo";
  KXConnection connection("http://127.0.0.1:" + std::to_string(port), module, 0, token);
  for (std::size_t i = 0; i < replies.size(); ++i) {
    result.answers.push_back(connection.call<protocol::CallVelmo>("echo", argument).answer);
  }
  peer.join();
  return result;
}

TEST(KXConnectionTest, KeptConnectionsSendWhatTheRuntimeSendsWhenItOpensOne) {
  // Plain, and DIME with attachments of every size class (larger than the runtime's
  // buffer, empty, unpadded) and more of them than one system call can gather, with and
  // without a token.
  KXValue many;
  for (int i = 0; i < 600; ++i) many.arrayPush(binaryOf(std::string(i % 7, 'm')));
  const struct {
    std::string token;
    KXValue argument;
  } cases[] = {
      {"", KXValue("k")},
      {"secret", KXValue("k")},
      {"", binaryOf(std::string(70001, 'b'))},
      {"secret", testing_util::arrayOf(binaryOf("a"), 1, binaryOf(""), binaryOf("four"))},
      {"", many},
  };
  for (const auto& c : cases) {
    const Exchange kept = exchange(std::vector<std::string>(3, plainReply()), c.token, c.argument);
    EXPECT_EQ(kept.answers, std::vector<KXValue>(3, KXValue(7)));
    ASSERT_EQ(kept.requests.size(), 3u);
    EXPECT_EQ(kept.connections, 1);
    EXPECT_EQ(kept.requests[1], kept.requests[0]);
    EXPECT_EQ(kept.requests[2], kept.requests[0]);
    EXPECT_EQ(kept.requests[0].find("Authorization: Bearer secret\r\n") != std::string::npos,
              !c.token.empty());
  }
}

// Answers framed otherwise than our brokers frame them are read by the runtime; after one
// that ends its connection, a new connection is opened.
TEST(KXConnectionTest, AnswersAreReadWhateverTheirFraming) {
  char chunkSize[16];
  std::snprintf(chunkSize, sizeof(chunkSize), "%zx", kAnswer.size());
  const Exchange framed =
      exchange({plainReply("Connection: keep-alive\r\n"), plainReply("Connection: close\r\n"),
                "HTTP/1.1 200 OK\r\nContent-Type: text/xml\r\nTransfer-Encoding: chunked\r\n\r\n" +
                    std::string(chunkSize) + "\r\n" + kAnswer + "\r\n0\r\n\r\n",
                "HTTP/1.0 200 OK\r\nContent-Type: text/xml\r\nContent-Length: " +
                    std::to_string(kAnswer.size()) + "\r\n\r\n" + kAnswer,
                plainReply()});
  EXPECT_EQ(framed.answers, std::vector<KXValue>(5, KXValue(7)));
  EXPECT_EQ(framed.connections, 3);  // after the close, and after the HTTP/1.0 answer
}

// Interrupted (as the network module's exit does), a connection gives up the answer it
// waits for, and fails every later call at once, to a peer that never answers.
TEST(KXConnectionTest, AnInterruptedConnectionFailsItsCallsAtOnce) {
  KXSoapContext server;
  server->accept_timeout = 1;
  const int port = bindLoopback(server.get());
  std::atomic<bool> done{false};
  std::promise<void> firstRequest;
  std::thread peer([&] {
    std::vector<std::unique_ptr<WireConnection>> held;  // open, never answered
    for (int round = 0; round < 60 && !done; ++round) {
      if (!soap_valid_socket(soap_accept(server.get()))) continue;
      held.push_back(std::make_unique<WireConnection>(WireConnection::Accepted{server->socket}));
      server->socket = SOAP_INVALID_SOCKET;
      if (held.size() == 1 && held.back()->read()) firstRequest.set_value();
    }
  });
  KXModuleInfo module;
  module.name = "Echo";
  KXConnection connection("http://127.0.0.1:" + std::to_string(port), module, 0, "");
  const auto call = [&connection] {
    return std::async(std::launch::async, [&connection] {
      return connection.call<protocol::CallVelmo>("echo", KXValue("k"));
    });
  };
  auto waiting = call();
  firstRequest.get_future().wait();
  connection.interrupt();
  const bool gaveUp = waiting.wait_for(std::chrono::seconds(20)) == std::future_status::ready;
  auto later = call();
  const bool failedAtOnce = later.wait_for(std::chrono::seconds(20)) == std::future_status::ready;
  done = true;  // the peer closes what it holds: a call still waiting ends
  peer.join();
  EXPECT_TRUE(gaveUp);
  EXPECT_TRUE(failedAtOnce);
  EXPECT_TRUE(waiting.get().fault.has_value());
  EXPECT_TRUE(later.get().fault.has_value());
}

}  // namespace
}  // namespace testing
}  // namespace KX
