#ifndef VELMO_BROKER_KXBROKERPROXY_H_
#define VELMO_BROKER_KXBROKERPROXY_H_

#include <memory>
#include <string>
#include <vector>

#include "module/kxmoduleinfo.h"

namespace KX {

class KXBroker;
class KXNetworkService;

// Stands for a remote broker in this process. It holds no socket: every operation goes
// through the local broker's "KXNetwork" module, on the connection that the proxy opened
// to the remote broker at construction.
//
// Ownership: the local broker is held weakly (brokers keep proxies to their parent and
// children); once it is gone every operation throws KXError("ThreadedRemoteExecution",
// "getParentBroker", "module does not exist") and sends nothing. Thread-safe: calls on one
// proxy are serialised by its connection.
class KXBrokerProxy {
 public:
  // Connects to the broker at ip:port; `timeoutSeconds` bounds every call (0: no bound).
  // Throws when the local broker has no network service.
  KXBrokerProxy(const std::shared_ptr<KXBroker>& localBroker, const std::string& ip, int port,
                int timeoutSeconds = 10);
  virtual ~KXBrokerProxy();
  KXBrokerProxy(const KXBrokerProxy&) = delete;
  KXBrokerProxy& operator=(const KXBrokerProxy&) = delete;

  // The id of the connection, as the network service knows it.
  int getConnectionInformation() const { return connection_; }
  const std::string& getEndpoint() const { return endpoint_; }

  // Not offered: a broker registers itself. Throws KXError("KXBrokerProxy",
  // "registerBroker", "unimplemented").
  virtual int registerBroker();
  virtual int unregisterBroker(const KXModuleInfo& moduleInfo);
  virtual int getBrokerInfo(KXModuleInfo& moduleInfo);
  virtual int getInfo(const std::string& moduleName, KXModuleInfo& moduleInfo);
  // 0 when found, -1 otherwise (an unreachable broker included); never throws for the
  // remote side, only when the local broker or its network is gone.
  virtual int exploreToGetModuleByName(const std::string& moduleName, bool searchUp,
                                       bool searchDown, const std::string& dontLookIntoBrokerName,
                                       bool loadLib, KXModuleInfo& moduleInfo);
  virtual int unregisterModuleReference(const std::string& moduleName);
  virtual int getModuleList(std::vector<KXModuleInfo>& list);
  virtual int getBrokerList(std::vector<KXModuleInfo>& list);
  virtual int getGlobalModuleList(std::vector<KXModuleInfo>& list);
  virtual int getMethodList(const std::string& moduleName, std::vector<std::string>& names);
  // The IP address under which the remote broker sees this process.
  std::string sendBackIP();

 private:
  std::shared_ptr<KXNetworkService> network() const;

  std::weak_ptr<KXBroker> localBroker_;
  std::weak_ptr<KXNetworkService> network_;
  std::string endpoint_;
  int connection_ = 0;
};

}  // namespace KX

#endif  // VELMO_BROKER_KXBROKERPROXY_H_
