#ifndef VELMO_BROKER_KXBROKERMANAGER_H_
#define VELMO_BROKER_KXBROKERMANAGER_H_

#include <memory>
#include <string>
#include <vector>

namespace KX {

class KXBroker;

// The process-wide list of the brokers that live in this process, in insertion order.
// Code without a broker at hand (proxies built from an address, network request
// handlers, the Python binding) asks it for one. Thread-safe.
class KXBrokerManager {
 public:
  // The process-wide manager, created on first use.
  static std::shared_ptr<KXBrokerManager> getInstance();
  // Makes `manager` the process-wide one (a host process's manager) unless it already
  // is; returns the process-wide manager.
  static std::shared_ptr<KXBrokerManager> adoptInstance(
      const std::shared_ptr<KXBrokerManager>& manager);

  KXBrokerManager();
  // Shuts down every broker still listed, in list order.
  virtual ~KXBrokerManager();
  KXBrokerManager(const KXBrokerManager&) = delete;
  KXBrokerManager& operator=(const KXBrokerManager&) = delete;

  // Appends `broker` unless it is already listed (brokers compare by identity).
  void addBroker(const std::shared_ptr<KXBroker>& broker);
  // Unlists `broker`, then shuts it down (outside the lock).
  void removeBroker(const std::shared_ptr<KXBroker>& broker);
  // Unlists `broker` without shutting it down.
  void removeBrokerWithoutShutdown(const std::shared_ptr<KXBroker>& broker);
  // The first listed broker; throws KXError("KXBrokerManager", "getRandomBroker", "There is
  // no current broker defined in BrokerManager.") when there is none.
  std::shared_ptr<KXBroker> getRandomBroker();
  // The first broker whose ":<port>" occurs in `endpoint`, else getRandomBroker().
  std::shared_ptr<KXBroker> getBrokerByEndpoint(const std::string& endpoint);
  // The fallback broker "emptyBroker" (127.0.0.1, port 0, no parent), created on first use.
  std::shared_ptr<KXBroker> getEmptyBroker();
  std::vector<std::shared_ptr<KXBroker>> getBrokers();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace KX

#endif  // VELMO_BROKER_KXBROKERMANAGER_H_
