#ifndef VELMO_MODULE_KXNETWORKSERVICE_H_
#define VELMO_MODULE_KXNETWORKSERVICE_H_

#include <memory>
#include <string>
#include <vector>

#include "module/kxmoduleinfo.h"
#include "value/kxvalue.h"

namespace KX {

// What brokers and proxies ask of a broker's network service, the module registered as
// "KXNetwork" that the network subsystem provides. The broker and the proxies reach it
// through this interface only, so they do not depend on the wire code.
//
// A connection is addressed by the id that createConnection returns: the module keeps the
// connection (endpoint, remote module, SOAP context, lock) until destroyConnection. Every
// client method throws KXError("KXNetwork", <method>, "connection not initialized") for an
// id it does not know. Calls on one connection are serialised; calls on different
// connections run in parallel.
class KXNetworkService {
 public:
  virtual ~KXNetworkService() = default;

  // ---- The server side of the broker
  // The first port from `port` upwards that nothing on this machine holds.
  virtual int findFreePort(const std::string& ip, const int& port) = 0;
  // Binds the server to ip:port and starts the parallel-call sender; throws KXError
  // ("KXBroker", "runBroker", "Port <port> is not free. ...") when the port is taken.
  virtual void newServer(const std::string& ip, const int& port) = 0;
  // Runs the accept loop as a task of the broker's thread pool.
  virtual void startListening() = 0;
  // Points the client side at the parent (endpoint "http://ip:port"), learning this
  // broker's own IP from it when it has none.
  virtual void configureClient(const std::string& endpoint, const std::string& ip) = 0;
  // Registers this broker with its parent, then (when `useHeartBeat`) beats every second,
  // registering again whenever the parent went away or dropped it.
  virtual void registerClient(const std::string& ip, const int& port, const bool& useHeartBeat) = 0;
  // Leaves the parent: unregisters from it and ends the heartbeat.
  virtual void leaveParent() = 0;
  // Starts checking the children's heartbeats (one checker at a time).
  virtual void startHeartBeatCheck() = 0;
  // Marks the child `brokerName` as alive now.
  virtual void heartBeat(const std::string& brokerName) = 0;

  // ---- Connections to remote brokers
  // `timeoutSeconds`: 0 lets calls take as long as their method runs.
  virtual int createConnection(const KXModuleInfo& module, const std::string& endpoint,
                               int timeoutSeconds) = 0;
  virtual void destroyConnection(const int& connection) = 0;

  // ---- Calls on the connection's module
  virtual KXValue callMethod(const int& connection, const std::string& method,
                             const KXValue& param) = 0;
  // Starts the method as a task on the remote broker; returns its id.
  virtual int pCallMethod(const int& connection, const std::string& method,
                          const KXValue& param) = 0;
  // Queues the call for the parallel-call sender; returns 0 at once.
  virtual int pCallMethodNoID(const int& connection, const std::string& method,
                              const KXValue& param) = 0;

  // ---- Questions to the connection's broker
  // 0 and `info` filled when found, -1 (never an error) otherwise.
  virtual int exploreToGetModuleByName(int connection, const std::string& name, bool searchUp,
                                       bool searchDown, const std::string& excludedBroker,
                                       bool loadLib, KXModuleInfo& info) = 0;
  virtual KXModuleInfo getModuleByName(int connection, const std::string& name) = 0;
  virtual KXModuleInfo getInfo(int connection, const std::string& name) = 0;
  virtual KXModuleInfo getBrokerInfo(int connection) = 0;
  virtual std::vector<KXModuleInfo> getModuleList(int connection) = 0;
  virtual std::vector<KXModuleInfo> getGlobalModuleList(int connection) = 0;
  virtual std::vector<KXModuleInfo> getBrokerList(int connection) = 0;
  virtual std::vector<std::string> getRemoteMethodList(int connection,
                                                       const std::string& moduleName) = 0;
  virtual void unregisterBroker(int connection, const KXModuleInfo& broker) = 0;
  virtual void unregisterModuleReference(int connection, const std::string& moduleName) = 0;
  // The IP address under which the connection's broker sees this process.
  virtual std::string sendBackIP(int connection) = 0;
};

}  // namespace KX

#endif  // VELMO_MODULE_KXNETWORKSERVICE_H_
