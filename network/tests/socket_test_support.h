#ifndef VELMO_NETWORK_TESTS_SOCKET_TEST_SUPPORT_H_
#define VELMO_NETWORK_TESTS_SOCKET_TEST_SUPPORT_H_

// Listening sockets on 127.0.0.1 for the network tests, on ports the system picks.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <stdsoap2.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace KX {
namespace testing {

// The local port a socket is bound to; 0 (and a test failure) when it cannot be told.
inline int localPortOf(int socket) {
  sockaddr_in address{};
  socklen_t length = sizeof(address);
  if (getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    ADD_FAILURE() << "getsockname failed";
    return 0;
  }
  return ntohs(address.sin_port);
}

// Connects `socket` to 127.0.0.1:`port`. With `timeoutSeconds` > 0, sends and receives on
// it then give up after that long, so that a test never hangs on a silent server.
inline bool connectLoopback(int socket, int port, int timeoutSeconds) {
  if (timeoutSeconds > 0) {
    timeval timeout{};
    timeout.tv_sec = timeoutSeconds;
    setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
    setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof(timeout));
  }
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return ::connect(socket, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
}

// Binds a server context to 127.0.0.1 on a port the system picks; the port, or 0 (and a
// test failure) when it cannot bind.
inline int bindLoopback(struct soap* server) {
  if (!soap_valid_socket(soap_bind(server, "127.0.0.1", 0, 10))) {
    ADD_FAILURE() << "bind failed, gSOAP error " << server->error;
    return 0;
  }
  return localPortOf(server->master);
}

// Holds a port, as another program would: it listens and never accepts, so a connection
// to it is made (by the kernel) but never answered.
class PortHolder {
 public:
  PortHolder() : socket_(::socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::bind(socket_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        ::listen(socket_, 1) != 0) {
      ADD_FAILURE() << "cannot hold a port";
      return;
    }
    port_ = localPortOf(socket_);
  }
  ~PortHolder() { ::close(socket_); }
  PortHolder(const PortHolder&) = delete;
  PortHolder& operator=(const PortHolder&) = delete;

  int port() const { return port_; }

 private:
  const int socket_;
  int port_ = 0;
};

}  // namespace testing
}  // namespace KX

#endif  // VELMO_NETWORK_TESTS_SOCKET_TEST_SUPPORT_H_
