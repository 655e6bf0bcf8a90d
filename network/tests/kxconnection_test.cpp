// A client connection on the wire: every request on a kept connection leaves byte for byte
// as the runtime sends the first one, which opens it.
#include "network/detail/kxconnection.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "network/detail/kxsoapcontext.h"
#include "network/tests/wire_test_support.h"

namespace KX {
namespace testing {
namespace {

// The requests that arrive on one connection, each answered with its call's answer.
std::vector<std::string> receiveRequests(struct soap* server, std::size_t count) {
  std::vector<std::string> requests;
  if (!soap_valid_socket(soap_accept(server))) return requests;
  const std::string answer = wire::callAnswer(KXValue(7));
  const std::string reply =
      "HTTP/1.1 200 OK\r\nContent-Type: text/xml; charset=utf-8\r\n"
      "Content-Length: " +
      std::to_string(answer.size()) + "\r\n\r\n" + answer;
  std::string bytes;
  char buffer[4096];
  while (requests.size() < count) {
    const std::size_t headEnd = bytes.find("\r\n\r\n");
    const std::size_t length = bytes.find("Content-Length: ");
    if (headEnd != std::string::npos && length != std::string::npos) {
      const std::size_t total = headEnd + 4 + std::stoul(bytes.substr(length + 16));
      if (bytes.size() >= total) {
        requests.push_back(bytes.substr(0, total));
        bytes.erase(0, total);
        ::send(server->socket, reply.data(), reply.size(), MSG_NOSIGNAL);
        continue;
      }
    }
    const ssize_t got = ::recv(server->socket, buffer, sizeof(buffer), 0);
    if (got <= 0) break;
    bytes.append(buffer, static_cast<std::size_t>(got));
  }
  ::close(server->socket);
  return requests;
}

TEST(KXConnectionTest, KeptConnectionsSendWhatTheRuntimeSendsWhenItOpensOne) {
  for (const std::string token : {"", "secret"}) {
    KXSoapContext server;
    server->accept_timeout = 10;
    const int port = bindLoopback(server.get());
    ASSERT_NE(port, 0);
    std::vector<std::string> requests;
    std::thread peer([&] { requests = receiveRequests(server.get(), 3); });
    KXModuleInfo module;
    module.name = "Echo";
    KXConnection connection("http://127.0.0.1:" + std::to_string(port), module, 10, token);
    for (int i = 0; i < 3; ++i) {
      EXPECT_EQ(connection.call<protocol::CallVelmo>("echo", KXValue("k")).answer, KXValue(7));
    }
    peer.join();
    ASSERT_EQ(requests.size(), 3u);
    EXPECT_EQ(requests[1], requests[0]);
    EXPECT_EQ(requests[2], requests[0]);
    EXPECT_EQ(requests[0].find("Authorization: Bearer secret\r\n") != std::string::npos,
              !token.empty());
  }
}

}  // namespace
}  // namespace testing
}  // namespace KX
