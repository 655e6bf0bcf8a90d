// A client connection on the wire: every request on a kept connection leaves byte for byte
// as the runtime sends the first one, which opens it.
#include "network/detail/kxconnection.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "network/detail/kxsoapcontext.h"
#include "network/tests/wire_test_support.h"

namespace KX {
namespace testing {
namespace {

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
  std::string bytes;
  char buffer[4096];
  while (requests.size() < replies.size() && soap_valid_socket(soap_accept(server))) {
    ++connections;
    bool open = true;
    while (open && requests.size() < replies.size()) {
      const std::size_t headEnd = bytes.find("\r\n\r\n");
      const std::size_t length = bytes.find("Content-Length: ");
      if (headEnd != std::string::npos && length != std::string::npos) {
        const std::size_t total = headEnd + 4 + std::stoul(bytes.substr(length + 16));
        if (bytes.size() >= total) {
          requests.push_back(bytes.substr(0, total));
          bytes.erase(0, total);
          const std::string& reply = replies[requests.size() - 1];
          ::send(server->socket, reply.data(), reply.size(), MSG_NOSIGNAL);
          open = reply.find("Connection: close") == std::string::npos;
          continue;
        }
      }
      const ssize_t got = ::recv(server->socket, buffer, sizeof(buffer), 0);
      open = got > 0;
      if (open) bytes.append(buffer, static_cast<std::size_t>(got));
    }
    ::close(server->socket);
    bytes.clear();
  }
  return requests;
}

// A client of `port` and the answers to its `count` calls.
std::vector<KXValue> callTimes(int port, int count, const std::string& token = "") {
  KXModuleInfo module;
  module.name = "Echo";
  KXConnection connection("http://127.0.0.1:" + std::to_string(port), module, 10, token);
  std::vector<KXValue> answers;
  for (int i = 0; i < count; ++i) {
    answers.push_back(connection.call<protocol::CallVelmo>("echo", KXValue("k")).answer);
  }
  return answers;
}

TEST(KXConnectionTest, KeptConnectionsSendWhatTheRuntimeSendsWhenItOpensOne) {
  for (const std::string token : {"", "secret"}) {
    KXSoapContext server;
    server->accept_timeout = 10;
    const int port = bindLoopback(server.get());
    ASSERT_NE(port, 0);
    std::vector<std::string> requests;
    int connections = 0;
    std::thread peer([&] {
      requests = serveRequests(
          server.get(), std::vector<std::string>(3, plainReply("Connection: keep-alive\r\n")),
          connections);
    });
    EXPECT_EQ(callTimes(port, 3, token), std::vector<KXValue>(3, KXValue(7)));
    peer.join();
    ASSERT_EQ(requests.size(), 3u);
    EXPECT_EQ(connections, 1);
    EXPECT_EQ(requests[1], requests[0]);
    EXPECT_EQ(requests[2], requests[0]);
    EXPECT_EQ(requests[0].find("Authorization: Bearer secret\r\n") != std::string::npos,
              !token.empty());
  }
}

// Answers framed otherwise than our brokers frame them are read by the runtime; one that
// closes its connection is followed by a new connection.
TEST(KXConnectionTest, AnswersAreReadWhateverTheirFraming) {
  char chunkSize[16];
  std::snprintf(chunkSize, sizeof(chunkSize), "%zx", kAnswer.size());
  const std::string chunked =
      "HTTP/1.1 200 OK\r\nContent-Type: text/xml\r\nTransfer-Encoding: chunked\r\n\r\n" +
      std::string(chunkSize) + "\r\n" + kAnswer + "\r\n0\r\n\r\n";
  KXSoapContext server;
  server->accept_timeout = 10;
  const int port = bindLoopback(server.get());
  ASSERT_NE(port, 0);
  int connections = 0;
  std::thread peer([&] {
    serveRequests(server.get(),
                  {plainReply(), plainReply("Connection: close\r\n"), chunked,
                   "HTTP/1.0 200 OK\r\nContent-Type: text/xml\r\nContent-Length: " +
                       std::to_string(kAnswer.size()) + "\r\n\r\n" + kAnswer,
                   plainReply()},
                  connections);
  });
  EXPECT_EQ(callTimes(port, 5), std::vector<KXValue>(5, KXValue(7)));
  peer.join();
  EXPECT_EQ(connections, 3);  // after the close, and after the HTTP/1.0 answer
}

}  // namespace
}  // namespace testing
}  // namespace KX
