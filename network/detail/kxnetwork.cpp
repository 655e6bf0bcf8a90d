#include "network/detail/kxnetwork.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <iostream>
#include <map>
#include <mutex>
#include <set>
#include <thread>

#include "broker/kxbroker.h"
#include "broker/kxbrokermanager.h"
#include "broker/kxbrokerpages.h"
#include "broker/kxnetworkfactory.h"
#include "log/log.h"
#include "network/detail/kxbrokerdispatch.h"
#include "network/detail/kxconnection.h"
#include "network/detail/kxfileservice.h"
#include "network/detail/kxnetworkserver.h"
#include "network/kxaccesssettings.h"
#include "thread/kxconditionmanager.h"
#include "thread/kxtask.h"
#include "thread/kxthreadpool.h"
#include "value/kxerror.h"

namespace KX {

namespace {

constexpr char kCategory[] = "core.common.network";
constexpr char kClass[] = "KXNetwork";

constexpr std::chrono::milliseconds kBeatPeriod{1000};
constexpr std::chrono::milliseconds kFirstCheckDelay{4000};
constexpr std::chrono::milliseconds kCheckPeriod{1000};
constexpr std::chrono::milliseconds kBindPause{100};
constexpr std::chrono::milliseconds kStoppedServerRelease{2000};
constexpr std::chrono::milliseconds kHeartBeatEndPause{100};
constexpr std::chrono::milliseconds kReconnectPause{400};
constexpr std::chrono::milliseconds kRejoinPeriod{2000};

// A pool task that runs one long-lived member of the module (accept loop, heartbeat,
// parallel-call sender). The module is held weakly while the task waits in the queue,
// and strongly while the member runs: exit() is what ends the members.
class KXNetworkTask : public KXTask {
 public:
  KXNetworkTask(const char* name, std::weak_ptr<KXModuleCore> module, void (KXNetwork::*work)())
      : module_(std::move(module)), work_(work) {
    setName(name);
  }

  void run() override {
    auto network = std::dynamic_pointer_cast<KXNetwork>(module_.lock());
    if (network) {
      ((*network).*work_)();
    }
  }

 private:
  const std::weak_ptr<KXModuleCore> module_;
  void (KXNetwork::*const work_)();
};

struct RemoteCall {
  int connection;
  std::string method;
  KXValue param;
};

}  // namespace

struct KXNetwork::Impl {
  // Taken when the module is made: the token its server asks for and its messages carry.
  const KXAccessSettings access = accessSettings();

  // Serialises newServer.
  std::mutex serverMutex;
  std::shared_ptr<KXNetworkServer> server;       // guarded by serverMutex
  std::weak_ptr<KXNetworkServer> stoppedServer;  // guarded by serverMutex

  mutable std::mutex connectionMutex;
  std::map<int, std::shared_ptr<KXConnection>> connections;  // guarded by connectionMutex
  int lastConnection = 0;                                    // guarded by connectionMutex

  // The state below is guarded by stateMutex; `wake` is notified on every change that a
  // waiting task may care about (exit, queued call, heartbeat start and end).
  mutable std::mutex stateMutex;
  std::condition_variable wake;
  bool stopping = false;
  std::deque<RemoteCall> remoteCalls;
  bool remoteSenderRunning = false;
  bool heartBeatCheckerRunning = false;
  bool heartBeatCheckWanted = false;  // asked for while the checker was running
  bool heartBeatRunning = false;      // from the claim until the sender ends
  bool heartBeatConnected = false;
  int failedBeats = 0;  // counts the beats that failed, for reconnectBroker's wait
  int maxRoundTripSeconds = 0;
  int parentConnection = 0;
  std::string parentIp;  // where parentConnection goes, to register there again
  int parentPort = 0;

  KXConditionManager conditions;

  // Sleeps for `period` unless the module stops first; false when it stops.
  bool pause(std::chrono::milliseconds period) {
    std::unique_lock<std::mutex> lock(stateMutex);
    return !wake.wait_for(lock, period, [this] { return stopping; });
  }
};

KXNetwork::KXNetwork(const std::shared_ptr<KXBroker>& broker, const std::string& name)
    : KXModule(broker, name), impl_(std::make_unique<Impl>()) {
  setModuleDescription(
      "Network manage network with SOAP and TCP/IP. It's a local and internal library. Most "
      "of parameters are hidden because they are not available in KXCommon. Call exit method "
      "on module if you have your own network library");
  for (const char* condition : {"remote", "firstBeat", "heartBeat"}) {
    impl_->conditions.add(condition);
  }
  bindNetworkMethods();
}

KXNetwork::~KXNetwork() {
  // Normally done by exit(); closes the listening socket of a module dropped without it.
  stopServer();
}

void KXNetwork::stopServer() {
  std::shared_ptr<KXNetworkServer> server;
  {
    std::lock_guard<std::mutex> guard(impl_->serverMutex);
    server = std::move(impl_->server);
    impl_->stoppedServer = server;
  }
  if (server) {
    server->stop();
  }
}

bool KXNetwork::keepRunning() const {
  if (isExiting()) {
    return false;
  }
  {
    std::lock_guard<std::mutex> guard(impl_->stateMutex);
    if (impl_->stopping) {
      return false;
    }
  }
  try {
    return !getParentBroker()->isShuttingDown();
  } catch (const KXError&) {
    return false;
  }
}

bool KXNetwork::startTask(const char* name, void (KXNetwork::*work)()) {
  std::shared_ptr<KXThreadPool> pool;
  try {
    pool = getParentBroker()->getThreadPool();
  } catch (const KXError&) {
    return false;
  }
  return pool && pool->enqueue(std::make_shared<KXNetworkTask>(name, weak_from_this(), work));
}

void KXNetwork::exit() {
  {
    std::lock_guard<std::mutex> guard(impl_->stateMutex);
    impl_->stopping = true;
  }
  impl_->wake.notify_all();
  stopServer();
  std::vector<std::shared_ptr<KXConnection>> connections;
  {
    std::lock_guard<std::mutex> guard(impl_->connectionMutex);
    for (const auto& entry : impl_->connections) {
      connections.push_back(entry.second);
    }
  }
  // Calls blocked waiting for an answer return now.
  for (const auto& connection : connections) {
    connection->interrupt();
  }
  for (const char* condition : {"remote", "firstBeat", "heartBeat"}) {
    impl_->conditions.trigger(condition);
  }
  KXModule::exit();
}

// ---------------------------------------------------------------- the server

int KXNetwork::findFreePort(const std::string& /*ip*/, const int& port) {
  int candidate = port;
  for (; candidate <= 65535; ++candidate) {
    const int probe = ::socket(AF_INET, SOCK_STREAM, 0);
    if (probe < 0) {
      break;
    }
    // SO_REUSEADDR, as the server binds: connections a stopped or killed broker left in
    // TIME-WAIT do not hold its port, a socket listening on it (or bound without the
    // option) does. No lingering, so the probe leaves nothing behind.
    const int reuse = 1;
    setsockopt(probe, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof(reuse));
    const linger noLinger{1, 0};
    setsockopt(probe, SOL_SOCKET, SO_LINGER, &noLinger, sizeof(noLinger));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    address.sin_port = htons(static_cast<uint16_t>(candidate));
    const bool bound = ::bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    const int bindError = errno;
    if (::close(probe) != 0) {
      TU_LOG(tu::log::error, kCategory, "KX::KXNetwork::findFreePort")
          << "findFreePort Socket Close Last Error: " << errno << std::endl;
    }
    if (bound) {
      return candidate;
    }
    if (candidate == 65535) {
      TU_LOG(tu::log::error, kCategory, "KX::KXNetwork::findFreePort")
          << "findFreePort Socket Bind Error: " << bindError << std::endl;
    }
  }
  return candidate > 65535 ? 65535 : candidate;
}

void KXNetwork::newServer(const std::string& ip, const int& port) {
  std::lock_guard<std::mutex> guard(impl_->serverMutex);
  startTask("remotePCallManager", &KXNetwork::remotePCallManager);

  std::set<std::string> hostNames = ownHostNames();
  hostNames.insert(impl_->access.allowedHosts.begin(), impl_->access.allowedHosts.end());
  auto files = std::make_shared<const KXFileService>(
      KXFileService::defaultRoots(),
      [](const std::string& endpoint, const std::string& path) {
        std::shared_ptr<KXBroker> broker = brokerForEndpoint(endpoint);
        return broker ? broker->getPage(path) : std::string("Broker not found");
      },
      std::make_shared<const KXAccessPolicy>(hostNames, impl_->access.token, port));
  auto server = std::make_shared<KXNetworkServer>(carryOutBrokerRequest, std::move(files));

  // A server stopped before (disconnectBroker) holds its port until its accept loop and
  // its connections' tasks have let it go, which they do at once once stopped.
  const auto released = std::chrono::steady_clock::now() + kStoppedServerRelease;
  while (!impl_->stoppedServer.expired() && std::chrono::steady_clock::now() < released) {
    std::this_thread::sleep_for(kBindPause / 10);
  }
  if (findFreePort(ip, port) != port) {
    KX_THROW("KXBroker", "runBroker",
             "Port " + std::to_string(port) + " is not free. Another broker is using this port.");
  }
  std::this_thread::sleep_for(kBindPause);
  if (!server->bind(ip, port)) {
    KX_THROW("KXBroker", "runBroker",
             "Port " + std::to_string(port) + " is not free. Could not bind to this port.");
  }
  if (impl_->server) {
    impl_->server->stop();
  }
  impl_->server = server;
}

void KXNetwork::startListening() {
  if (!startTask("BrokerTask", &KXNetwork::listenRequest)) {
    TU_LOG(tu::log::error, kCategory, "KX::KXNetwork::listenRequest")
        << "No more connection or thread available" << std::endl;
  }
}

void KXNetwork::listenRequest() {
  std::shared_ptr<KXNetworkServer> server;
  {
    std::lock_guard<std::mutex> guard(impl_->serverMutex);
    server = impl_->server;
  }
  std::shared_ptr<KXThreadPool> pool;
  try {
    pool = getParentBroker()->getThreadPool();
  } catch (const KXError&) {
    return;
  }
  if (!server || !pool) {
    return;
  }
  server->serveLoop([this] { return keepRunning(); },
                    [&pool](const std::shared_ptr<KXTask>& task) {
                      if (!pool->enqueue(task)) {
                        return false;
                      }
                      // A request waits for no load check: the pool grows at once by the
                      // connections waiting that no idle worker will take (up to its
                      // maximum).
                      const int idle = pool->getThreadCount() - pool->getBusyCount();
                      const int waiting = pool->getQueueLength() - idle;
                      const int room = pool->getMaxThreadCount() - pool->getThreadCount();
                      if (waiting > 0 && room > 0) {
                        pool->resize(std::min(waiting, room));
                      }
                      return true;
                    });
}

// ---------------------------------------------------------------- the parent

void KXNetwork::configureClient(const std::string& endpoint, const std::string& ip) {
  std::shared_ptr<KXBroker> broker = getParentBroker();
  if (!ip.empty()) {
    return;
  }
  // A broker created without an address learns it from the parent: the address the
  // parent sees it under is the one the parent's tree can reach it at.
  KXModuleInfo parent;
  parent.name = "KXNetwork";
  const int connection = createConnection(parent, endpoint, kBrokerTimeoutSeconds);
  try {
    broker->setIP(sendBackIP(connection));
  } catch (const KXError&) {
    destroyConnection(connection);
    throw;
  }
  destroyConnection(connection);
}

void KXNetwork::registerClient(const std::string& ip, const int& port, const bool& useHeartBeat) {
  joinParent(ip, port);
  // A heartbeat already running goes on over the new parent connection.
  if (useHeartBeat && claimHeartBeat() && !startTask("runHeartBeat", &KXNetwork::beatWhileJoined)) {
    std::lock_guard<std::mutex> guard(impl_->stateMutex);
    impl_->heartBeatRunning = false;
  }
}

void KXNetwork::joinParent(const std::string& ip, int port) {
  std::shared_ptr<KXBroker> broker = getParentBroker();
  const std::string endpoint = endpointOf(ip, port);
  KXModuleInfo parent;
  parent.name = "KXNetwork";
  parent.ip = ip;
  parent.port = port;
  parent.isABroker = true;
  const int connection = createConnection(parent, endpoint, kBrokerTimeoutSeconds);
  int previous = 0;
  {
    std::lock_guard<std::mutex> guard(impl_->stateMutex);
    previous = impl_->parentConnection;
    impl_->parentConnection = connection;
    impl_->parentIp = ip;
    impl_->parentPort = port;
  }
  if (previous != 0) {
    destroyConnection(previous);
  }
  broker->setIP(sendBackIP(connection));
  try {
    registerBrokerTo(connection, broker->getBrokerInfo());
  } catch (const KXError& error) {
    TU_LOG(tu::log::error, kCategory, "KX::KXNetwork::registerClient")
        << "cannot register broker to " << endpoint << ": " << error.description() << std::endl;
    throw;
  }
}

void KXNetwork::leaveParent() {
  int connection = 0;
  {
    std::lock_guard<std::mutex> guard(impl_->stateMutex);
    connection = impl_->parentConnection;
    impl_->parentConnection = 0;
  }
  impl_->wake.notify_all();
  if (connection == 0) {
    return;
  }
  try {
    unregisterBroker(connection, getParentBroker()->getBrokerInfo());
  } catch (const KXError& error) {
    TU_LOG(tu::log::verbose, kCategory, "KX::KXNetwork::leaveParent")
        << "the parent did not take the unregistration: " << error.what() << std::endl;
  }
  destroyConnection(connection);
}

void KXNetwork::runHeartBeat() {
  if (claimHeartBeat()) beatWhileJoined();
}

bool KXNetwork::claimHeartBeat() {
  std::lock_guard<std::mutex> guard(impl_->stateMutex);
  if (impl_->heartBeatRunning) return false;
  impl_->heartBeatRunning = true;
  return true;
}

void KXNetwork::beatWhileJoined() {
  KXValue arguments;
  arguments.arraySetSize(1);
  arguments[0] = getBrokerName();
  bool beating = true;
  while (beating) {
    const bool failed = !beatUntilStopped(arguments);
    {
      std::lock_guard<std::mutex> guard(impl_->stateMutex);
      impl_->heartBeatConnected = false;
      if (failed) ++impl_->failedBeats;
    }
    impl_->pause(kHeartBeatEndPause);
    impl_->wake.notify_all();
    impl_->conditions.trigger("firstBeat");
    beating = failed && rejoinParent();
  }
  {
    std::lock_guard<std::mutex> guard(impl_->stateMutex);
    impl_->heartBeatRunning = false;
  }
  impl_->wake.notify_all();
  impl_->conditions.trigger("heartBeat");
}

bool KXNetwork::beatUntilStopped(const KXValue& arguments) {
  while (keepRunning()) {
    int connection = 0;
    {
      std::lock_guard<std::mutex> guard(impl_->stateMutex);
      connection = impl_->parentConnection;
    }
    if (connection == 0) return true;  // left the parent
    const auto sent = std::chrono::steady_clock::now();
    try {
      callMethod(connection, "heartBeat", arguments);
    } catch (const KXError& error) {
      {
        // A beat cut short by a registration that replaced the connection is no failure.
        std::lock_guard<std::mutex> guard(impl_->stateMutex);
        if (impl_->parentConnection != connection) continue;
      }
      TU_LOG(tu::log::error, kCategory, "KX::KXNetwork::runHeartBeat")
          << "heartbeat to the parent failed: " << error.description() << std::endl;
      impl_->pause(kBeatPeriod);
      return false;
    }
    const int roundTrip = static_cast<int>(
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - sent)
            .count());
    {
      std::lock_guard<std::mutex> guard(impl_->stateMutex);
      impl_->heartBeatConnected = true;
      impl_->maxRoundTripSeconds = std::max(impl_->maxRoundTripSeconds, roundTrip);
    }
    impl_->wake.notify_all();
    impl_->conditions.trigger("firstBeat");
    if (!impl_->pause(kBeatPeriod)) return true;
  }
  return true;
}

bool KXNetwork::rejoinParent() {
  bool reported = false;
  for (;;) {
    if (!impl_->pause(kRejoinPeriod) || !keepRunning()) return false;
    std::string ip;
    int port = 0;
    {
      std::lock_guard<std::mutex> guard(impl_->stateMutex);
      if (impl_->parentConnection == 0) return false;  // left the parent meanwhile
      ip = impl_->parentIp;
      port = impl_->parentPort;
    }
    try {
      joinParent(ip, port);
      TU_LOG(tu::log::info, kCategory, "KX::KXNetwork::runHeartBeat")
          << "registered again with the parent at " << endpointOf(ip, port) << std::endl;
      return true;
    } catch (const KXError& error) {
      // Said once: the parent may stay away for long, and is tried every few seconds.
      if (!reported) {
        TU_LOG(tu::log::info, kCategory, "KX::KXNetwork::runHeartBeat")
            << "the parent at " << endpointOf(ip, port) << " cannot be reached; trying again every "
            << std::chrono::duration_cast<std::chrono::seconds>(kRejoinPeriod).count()
            << " s: " << error.description() << std::endl;
        reported = true;
      }
    }
  }
}

bool KXNetwork::isHeartBeatConnected() const {
  std::lock_guard<std::mutex> guard(impl_->stateMutex);
  return impl_->heartBeatConnected;
}

int KXNetwork::getMaxHeartBeatRoundTrip() const {
  std::lock_guard<std::mutex> guard(impl_->stateMutex);
  return impl_->maxRoundTripSeconds;
}

// ---------------------------------------------------------------- the children

void KXNetwork::heartBeat(const std::string& brokerName) {
  // A child this broker has dropped (or never had) is told so: it then registers again.
  if (!getParentBroker()->childHeartBeat(brokerName)) {
    KX_THROW(kClass, "heartBeat", "Broker \"" + brokerName + "\" is not a child of this broker");
  }
}

void KXNetwork::startHeartBeatCheck() {
  if (claimHeartBeatChecker() &&
      !startTask("runHeartBeatCheck", &KXNetwork::checkChildrenWhileAny)) {
    std::lock_guard<std::mutex> guard(impl_->stateMutex);
    impl_->heartBeatCheckerRunning = false;
  }
}

void KXNetwork::runHeartBeatCheck() {
  if (claimHeartBeatChecker()) checkChildrenWhileAny();
}

bool KXNetwork::claimHeartBeatChecker() {
  std::lock_guard<std::mutex> guard(impl_->stateMutex);
  if (impl_->heartBeatCheckerRunning) {
    // The running checker may be about to end for want of children: it looks again.
    impl_->heartBeatCheckWanted = true;
    return false;
  }
  impl_->heartBeatCheckerRunning = true;
  impl_->heartBeatCheckWanted = false;
  return true;
}

void KXNetwork::checkChildrenWhileAny() {
  std::shared_ptr<KXBroker> broker = getParentBroker();
  bool running = impl_->pause(kFirstCheckDelay);
  for (;;) {
    while (running && keepRunning() && !broker->getChildBrokers().empty()) {
      broker->checkHeartBeat();
      running = impl_->pause(kCheckPeriod);
    }
    // Ending and a child's arrival are decided under one lock: a child that came after
    // the last look is looked for again, or its check starts a checker of its own.
    std::lock_guard<std::mutex> guard(impl_->stateMutex);
    if (!running || !impl_->heartBeatCheckWanted) {
      impl_->heartBeatCheckerRunning = false;
      return;
    }
    impl_->heartBeatCheckWanted = false;
  }
}

// ---------------------------------------------------------------- remote parallel calls

int KXNetwork::pCallMethodNoID(const int& connection, const std::string& method,
                               const KXValue& param) {
  findConnection(connection, "pCallMethodNoID");
  {
    std::lock_guard<std::mutex> guard(impl_->stateMutex);
    if (impl_->remoteCalls.size() >= kMaxQueuedRemoteCalls) {
      std::cout << "max remote connection reach " << method << " call ignored" << std::endl;
      return 0;
    }
    impl_->remoteCalls.push_back(RemoteCall{connection, method, param});
  }
  impl_->wake.notify_all();
  impl_->conditions.trigger("remote");
  return 0;
}

std::size_t KXNetwork::getQueuedRemoteCallCount() const {
  std::lock_guard<std::mutex> guard(impl_->stateMutex);
  return impl_->remoteCalls.size();
}

void KXNetwork::remotePCallManager() {
  {
    std::lock_guard<std::mutex> guard(impl_->stateMutex);
    if (impl_->remoteSenderRunning) {
      return;
    }
    impl_->remoteSenderRunning = true;
  }
  while (keepRunning()) {
    RemoteCall call;
    {
      std::unique_lock<std::mutex> lock(impl_->stateMutex);
      impl_->wake.wait(lock, [this] { return impl_->stopping || !impl_->remoteCalls.empty(); });
      if (impl_->stopping) {
        break;
      }
      call = std::move(impl_->remoteCalls.front());
      impl_->remoteCalls.pop_front();
    }
    try {
      pCallMethod(call.connection, call.method, call.param);
    } catch (const KXError& error) {
      TU_LOG(tu::log::error, kCategory, "KX::KXNetwork::remotePCallManager")
          << "Error in remote pcall: " << error.what() << " method: " << call.method << std::endl;
    }
  }
  std::lock_guard<std::mutex> guard(impl_->stateMutex);
  impl_->remoteSenderRunning = false;
}

// ---------------------------------------------------------------- connections

int KXNetwork::createConnection(const KXModuleInfo& module, const std::string& endpoint,
                                int timeoutSeconds) {
  auto connection =
      std::make_shared<KXConnection>(endpoint, module, timeoutSeconds, impl_->access.token);
  std::lock_guard<std::mutex> guard(impl_->connectionMutex);
  // Ids stay positive; after a wrap the next free one is taken.
  do {
    impl_->lastConnection =
        impl_->lastConnection == std::numeric_limits<int>::max() ? 1 : impl_->lastConnection + 1;
  } while (impl_->connections.count(impl_->lastConnection) != 0);
  impl_->connections[impl_->lastConnection] = connection;
  return impl_->lastConnection;
}

void KXNetwork::destroyConnection(const int& connection) {
  std::shared_ptr<KXConnection> removed;
  std::lock_guard<std::mutex> guard(impl_->connectionMutex);
  auto found = impl_->connections.find(connection);
  if (found != impl_->connections.end()) {
    removed = std::move(found->second);
    impl_->connections.erase(found);
  }
}

void KXNetwork::setEndPoint(const int& connection, const std::string& ip, const int& port) {
  std::shared_ptr<KXConnection> old = findConnection(connection, "setEndPoint");
  auto replacement = std::make_shared<KXConnection>(endpointOf(ip, port), old->module(),
                                                    kBrokerTimeoutSeconds, impl_->access.token);
  std::lock_guard<std::mutex> guard(impl_->connectionMutex);
  // Unless the connection was destroyed or replaced meanwhile: an id once destroyed
  // never comes back.
  auto found = impl_->connections.find(connection);
  if (found != impl_->connections.end() && found->second == old) found->second = replacement;
}

std::shared_ptr<KXConnection> KXNetwork::findConnection(int connection, const char* method) const {
  std::lock_guard<std::mutex> guard(impl_->connectionMutex);
  auto found = impl_->connections.find(connection);
  if (found == impl_->connections.end()) {
    KX_THROW("KXNetwork", method, "connection not initialized");
  }
  return found->second;
}

// ---------------------------------------------------------------- the rest

std::string KXNetwork::getLocalIP() {
  char host[256] = {0};
  if (gethostname(host, sizeof(host) - 1) != 0) {
    return std::string();
  }
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(host, nullptr, &hints, &found) != 0 || found == nullptr) {
    return std::string();
  }
  std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owned(found, freeaddrinfo);
  char text[INET_ADDRSTRLEN] = {0};
  const auto* address = reinterpret_cast<const sockaddr_in*>(found->ai_addr);
  if (inet_ntop(AF_INET, &address->sin_addr, text, sizeof(text)) == nullptr) {
    return std::string();
  }
  return text;
}

void KXNetwork::waitSynchronizer(const std::string& name) { impl_->conditions.wait(name); }

void KXNetwork::disconnectBroker() {
  std::shared_ptr<KXBroker> broker = getParentBroker();
  TU_LOG(tu::log::info, kCategory, "KX::KXNetwork::disconnectBroker")
      << "Broker stopping" << std::endl;
  leaveParent();
  stopServer();
  std::unique_lock<std::mutex> lock(impl_->stateMutex);
  impl_->wake.wait(lock, [this] { return !impl_->heartBeatRunning || impl_->stopping; });
  lock.unlock();
  KXBrokerManager::getInstance()->removeBrokerWithoutShutdown(broker);
}

void KXNetwork::reconnectBroker(const std::string& parentIP, const int& parentPort,
                                const bool& heartbeat) {
  TU_LOG(tu::log::info, kCategory, "KX::KXNetwork::reconnectBroker")
      << "reconnectBroker: IP: " << parentIP << " port: " << parentPort << std::endl;
  try {
    std::shared_ptr<KXBroker> broker = getParentBroker();
    configureClient(endpointOf(parentIP, parentPort), broker->getIP());
    newServer(broker->getIP(), broker->getPort());
    startListening();
    KXBrokerManager::getInstance()->addBroker(broker);
    std::this_thread::sleep_for(kReconnectPause);
    TU_LOG(tu::log::info, kCategory, "KX::KXNetwork::reconnectBroker")
        << "reconnectBroker: registerClient" << std::endl;
    int failedBefore = 0;
    {
      std::lock_guard<std::mutex> guard(impl_->stateMutex);
      failedBefore = impl_->failedBeats;
    }
    registerClient(parentIP, parentPort, heartbeat);
    if (heartbeat) {
      // Until the first beat, or the first beat's failure.
      std::unique_lock<std::mutex> lock(impl_->stateMutex);
      impl_->wake.wait(lock, [this, failedBefore] {
        return impl_->heartBeatConnected || impl_->failedBeats != failedBefore ||
               !impl_->heartBeatRunning || impl_->stopping;
      });
    }
  } catch (const KXError&) {
    KX_THROW("KXNetwork", "reconnectBroker", "Cannot reconnect to server");
  }
}

namespace {

// Installed when the library loads: every broker that launches its network gets one.
const bool kNetworkInstalled = [] {
  setNetworkFactory([](const std::shared_ptr<KXBroker>& broker) -> std::shared_ptr<KXModuleCore> {
    return std::make_shared<KXNetwork>(broker, "KXNetwork");
  });
  return true;
}();

}  // namespace

}  // namespace KX
