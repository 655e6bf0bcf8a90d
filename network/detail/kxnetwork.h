#ifndef VELMO_NETWORK_DETAIL_KXNETWORK_H_
#define VELMO_NETWORK_DETAIL_KXNETWORK_H_

#include <memory>
#include <string>
#include <vector>

#include "module/kxmodulecore.h"
#include "module/kxnetworkservice.h"

namespace KX {

class KXConnection;

// The module "KXNetwork" that carries all traffic between brokers: the broker's server
// (accept loop, one pooled serving task per connection, the broker protocol and HTTP
// GET/PUT/DELETE on one port), the client connections of proxies and broker proxies, the
// heartbeat between a child broker and its parent, and the queue of remote parallel calls
// sent without waiting for their id.
//
// Threads: the accept loop, each connection, the parallel-call sender and the heartbeat
// sender/checker run as tasks of the broker's pool; exit() stops them all without waiting
// for any timeout (sockets are shut down, sleeps are woken), before the pool is stopped;
// only a send already blocked on a peer that reads nothing ends with the send first.
// Locks: the module's server, connection and state mutexes are each taken alone, and none
// is held during a network call.
class KXNetwork : public KXModule, public KXNetworkService {
 public:
  // Remote parallel calls waiting to be sent: a call queued beyond this is dropped.
  static constexpr std::size_t kMaxQueuedRemoteCalls = 21;
  // Timeout of the connections between brokers (searches, lists, heartbeats).
  static constexpr int kBrokerTimeoutSeconds = 10;

  KXNetwork(const std::shared_ptr<KXBroker>& broker, const std::string& name);
  ~KXNetwork() override;

  void exit() override;

  // ---- KXNetworkService
  int findFreePort(const std::string& ip, const int& port) override;
  void newServer(const std::string& ip, const int& port) override;
  void startListening() override;
  void configureClient(const std::string& endpoint, const std::string& ip) override;
  void registerClient(const std::string& ip, const int& port, const bool& useHeartBeat) override;
  void leaveParent() override;
  void startHeartBeatCheck() override;
  void heartBeat(const std::string& brokerName) override;
  int createConnection(const KXModuleInfo& module, const std::string& endpoint,
                       int timeoutSeconds) override;
  void destroyConnection(const int& connection) override;
  KXValue callMethod(const int& connection, const std::string& method,
                     const KXValue& param) override;
  int pCallMethod(const int& connection, const std::string& method, const KXValue& param) override;
  int pCallMethodNoID(const int& connection, const std::string& method,
                      const KXValue& param) override;
  int exploreToGetModuleByName(int connection, const std::string& name, bool searchUp,
                               bool searchDown, const std::string& excludedBroker, bool loadLib,
                               KXModuleInfo& info) override;
  KXModuleInfo getModuleByName(int connection, const std::string& name) override;
  KXModuleInfo getInfo(int connection, const std::string& name) override;
  KXModuleInfo getBrokerInfo(int connection) override;
  std::vector<KXModuleInfo> getModuleList(int connection) override;
  std::vector<KXModuleInfo> getGlobalModuleList(int connection) override;
  std::vector<KXModuleInfo> getBrokerList(int connection) override;
  std::vector<std::string> getRemoteMethodList(int connection,
                                               const std::string& moduleName) override;
  void unregisterBroker(int connection, const KXModuleInfo& broker) override;
  // Registers `broker` as a child of the connection's broker.
  void registerBrokerTo(int connection, const KXModuleInfo& broker);
  void unregisterModuleReference(int connection, const std::string& moduleName) override;
  std::string sendBackIP(int connection) override;

  // ---- Work run as tasks (also bound, for completeness of the module's interface)
  // The accept loop: until exit, the broker's shutdown or an accept error.
  void listenRequest();
  // The child's heartbeat to its parent: one beat a second while the broker has a parent.
  // When a beat fails (the parent went away, or dropped this broker), the broker registers
  // with the same parent again every 2 s until it is back, then beats again. One sender at
  // a time: called while one runs, returns at once.
  void runHeartBeat();
  // The parent's check of its children's heartbeats: first after 4 s, then every second
  // while there are children. One checker at a time: called while one runs, returns at once.
  void runHeartBeatCheck();
  // Sends the queued remote parallel calls, oldest first (one sender at a time).
  void remotePCallManager();

  // ---- Other bound methods
  // This machine's first IPv4 address, "" when it cannot be found.
  std::string getLocalIP();
  // Waits until the named condition ("remote", "firstBeat", "heartBeat") is triggered.
  void waitSynchronizer(const std::string& name);
  // Registers again with a parent (after disconnectBroker), waiting for the first beat.
  void reconnectBroker(const std::string& parentIP, const int& parentPort, const bool& heartbeat);
  // Leaves the parent and the broker manager: the broker stops being reachable.
  void disconnectBroker();
  // The endpoint of a connection, "http://" + ip + ":" + port.
  void setEndPoint(const int& connection, const std::string& ip, const int& port);

  // True once a heartbeat reached the parent, until the heartbeat ends.
  bool isHeartBeatConnected() const;
  // The largest heartbeat round trip seen, in whole seconds.
  int getMaxHeartBeatRoundTrip() const;
  // Remote parallel calls waiting to be sent.
  std::size_t getQueuedRemoteCallCount() const;

 private:
  struct Impl;

  std::shared_ptr<KXConnection> findConnection(int connection, const char* method) const;
  void bindNetworkMethods();
  // Ends the accept loop and every connection being served; the port is free again once
  // they have let the stopped server go.
  void stopServer();
  bool keepRunning() const;
  // Queues `work` (a member of this module) as a named task of the broker's pool.
  bool startTask(const char* name, void (KXNetwork::*work)());
  // Takes the one heartbeat checker's place; false when a checker runs (it is then asked
  // to look for children again before it ends).
  bool claimHeartBeatChecker();
  // The checker's loop, run by the one that claimed the place, which it gives back.
  void checkChildrenWhileAny();
  // Connects and registers with a parent, which becomes the one the heartbeat goes to.
  void joinParent(const std::string& ip, int port);
  // Takes the one heartbeat sender's place; false when a sender runs (it then follows the
  // new parent connection).
  bool claimHeartBeat();
  // The sender's loop, run by the one that claimed the place, which it gives back.
  void beatWhileJoined();
  // Beats every second: false when a beat failed, true when the broker stops or leaves.
  bool beatUntilStopped(const KXValue& arguments);
  // Registers with the parent again every 2 s: true once it took, false when the broker
  // stops or leaves its parent first.
  bool rejoinParent();

  std::unique_ptr<Impl> impl_;
};

}  // namespace KX

#endif  // VELMO_NETWORK_DETAIL_KXNETWORK_H_
