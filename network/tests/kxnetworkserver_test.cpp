// The server's loop: connections hold a worker only while their requests come, idle ones
// are closed after the receive timeout, and stop() ends them all.
#include "network/detail/kxnetworkserver.h"

#include <dirent.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "module/tests/proxy_test_support.h"
#include "network/tests/wire_test_support.h"
#include "thread/kxthreadpool.h"

namespace KX {
namespace testing {
namespace {

using wire::callAnswer;
using wire::callRequest;
using wire::WireConnection;

std::size_t openDescriptorCount() {
  std::size_t count = 0;
  if (DIR* folder = ::opendir("/proc/self/fd")) {
    while (::readdir(folder) != nullptr) ++count;
    ::closedir(folder);
  }
  return count;
}

// A server on 127.0.0.1 whose calls echo their parameter, served by a pool of two workers.
class ServerLoopTest : public ::testing::Test {
 protected:
  void start(ServeTimeouts timeouts) {
    server_ = std::make_shared<KXNetworkServer>(
        [](BrokerRequest& request, const BrokerPeer&) -> BrokerAnswer {
          return std::get<protocol::CallVelmo>(request).p;
        },
        nullptr, timeouts);
    ASSERT_TRUE(server_->bind("127.0.0.1", 0));
    pool_->init(2);
    loop_ = std::thread([this] {
      server_->serveLoop(
          [] { return true; },
          [this](const std::shared_ptr<KXTask>& task) { return pool_->enqueue(task); });
    });
  }

  void TearDown() override {
    if (server_) server_->stop();
    if (loop_.joinable()) loop_.join();
    pool_->shutdown();
  }

  bool echoes(WireConnection& connection, int value) {
    return connection.post(callRequest("M", "echo", KXValue(value))) &&
           connection.read().value_or(wire::HttpReply{}).body == callAnswer(value);
  }

  std::shared_ptr<KXThreadPool> pool_ = std::make_shared<KXThreadPool>(2, 2, 50, 100, 2);
  std::shared_ptr<KXNetworkServer> server_;
  std::thread loop_;
};

// Each connection once held a worker for as long as its peer kept it open: two idle clients
// stopped this server from answering anyone.
TEST_F(ServerLoopTest, IdleConnectionsHoldNoWorkerAndNoneIsLeftBehind) {
  start(ServeTimeouts{60, 10});
  std::vector<std::unique_ptr<WireConnection>> idle;
  for (int i = 0; i < 45; ++i) {
    idle.push_back(std::make_unique<WireConnection>(server_->port()));
    ASSERT_TRUE(i >= 40 || echoes(*idle.back(), i));  // the last five never send anything
  }
  WireConnection fresh(server_->port());
  EXPECT_TRUE(echoes(fresh, 100));
  for (int i = 0; i < 40; ++i) EXPECT_TRUE(echoes(*idle[static_cast<std::size_t>(i)], -i));
  EXPECT_TRUE(eventually([this] { return server_->openConnectionCount() == 46u; }));
  const std::size_t descriptors = openDescriptorCount();
  for (int i = 0; i < 200; ++i)
    EXPECT_TRUE(echoes(*std::make_unique<WireConnection>(server_->port()), i));
  EXPECT_TRUE(eventually([this] { return server_->openConnectionCount() == 46u; }));
  EXPECT_EQ(openDescriptorCount(), descriptors);
  server_->stop();
  EXPECT_TRUE(idle[0]->waitForClose());  // long before the 60 s timeout
  EXPECT_TRUE(eventually([this] { return server_->openConnectionCount() == 0; }));
}

TEST_F(ServerLoopTest, AnIdleConnectionIsClosedAfterTheReceiveTimeoutAndABusyOneIsNot) {
  start(ServeTimeouts{2, 10});
  WireConnection idle(server_->port());
  WireConnection busy(server_->port());
  ASSERT_TRUE(echoes(idle, 1));
  const auto idleSince = std::chrono::steady_clock::now();
  for (int i = 0; i < 25; ++i) {
    ASSERT_TRUE(echoes(busy, i));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  EXPECT_TRUE(idle.waitForClose());
  EXPECT_GE(std::chrono::steady_clock::now() - idleSince, std::chrono::seconds(2));
  EXPECT_TRUE(echoes(busy, 25));
}

// Each read had its time limit, but not the whole request: a client that sent a byte now and
// then held its worker for ever.
TEST_F(ServerLoopTest, ATricklingRequestHoldsUpNoOneAndIsDroppedOnceOverdue) {
  start(ServeTimeouts{3, 10});
  WireConnection slow(server_->port());
  WireConnection other(server_->port());
  const std::string body = callRequest("M", "echo", KXValue(7));
  const std::string request = slow.postHeader(body.size()) + body;
  for (std::size_t i = 0; i < 5; ++i) {
    ASSERT_TRUE(slow.sendAll(request.substr(i, 1)));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  // The other worker answers the other client while the slow request is unfinished...
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(echoes(other, i));
  EXPECT_FALSE(slow.answeredOrClosed());
  // ...and the slow one is still being served: its last byte brings its answer.
  ASSERT_TRUE(slow.sendAll(request.substr(5)));
  EXPECT_EQ(slow.read().value_or(wire::HttpReply{}).body, callAnswer(7));

  // A request that never ends is dropped, although no byte came more than the receive
  // timeout after the one before.
  const auto began = std::chrono::steady_clock::now();
  std::size_t sent = 0;
  while (sent < 100 && !slow.answeredOrClosed() && slow.sendAll(request.substr(sent, 1))) {
    ++sent;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  std::string answered;
  EXPECT_TRUE(slow.waitForClose(&answered));
  EXPECT_EQ(answered, "");
  EXPECT_LT(sent, 100u);
  EXPECT_GE(std::chrono::steady_clock::now() - began, std::chrono::seconds(3));
  WireConnection next(server_->port());  // `other` has been idle too long meanwhile
  EXPECT_TRUE(echoes(next, 3));
}

}  // namespace
}  // namespace testing
}  // namespace KX
