#ifndef VELMO_PROXIES_KXRESOURCEMANAGERPROXY_H_
#define VELMO_PROXIES_KXRESOURCEMANAGERPROXY_H_

#include <memory>
#include <string>
#include <vector>

#include "value/kxvalue.h"

namespace KX {

class KXBroker;
class KXResourceManagerProxyImpl;

// The typed proxy to the module "KXResourceManager": one method per published method,
// with its C++ types. A module of this process is called directly (its bound method,
// without KXValues); another broker's through the generic proxy and the network. Once a
// local module has left, every method throws KXError("KXResourceManager", <method>, "The
// underlying module is invalid.").
//
// Copies share one proxy. Thread-safe.
class KXResourceManagerProxy {
 public:
  // Through `broker`: its own module, else one found in its broker tree.
  explicit KXResourceManagerProxy(const std::shared_ptr<KXBroker>& broker);

  bool areResourcesFree(const std::vector<std::string>& resourceNames);
  bool areResourcesOwnedBy(const std::vector<std::string>& resourceNames, const std::string& owner);
  void createResource(const std::string& resourceName, const std::string& parentName);
  void createResourcesList(const std::vector<std::string>& resourceNames,
                           const std::string& parentName);
  void deleteResource(const std::string& resourceName, const bool& deleteChildren);
  void enableStateResource(const std::string& resourceName, const bool& enabled);
  void exit();
  std::string getBrokerName();
  KX::KXValue getMethodHelp(const std::string& methodName);
  std::vector<std::string> getMethodList();
  KX::KXValue getModuleHelp();
  std::string getUsage(const std::string& methodName);
  bool isInGroup(const std::string& resourceName, const std::string& groupName);
  bool isResourceFree(const std::string& resourceName);
  bool isRunning(const int& id);
  KX::KXValue ownersGet();
  bool ping();
  void releaseResource(const std::string& resourceName, const std::string& owner);
  void releaseResources(const std::vector<std::string>& resourceNames, const std::string& owner);
  void stop(const int& id);
  std::string version();
  bool wait(const int& id, const int& timeoutMs);
  void waitForOptionalResourcesTree(const std::vector<std::string>& resourceNames,
                                    const std::string& owner, const std::string& callbackName,
                                    const int& timeoutSeconds,
                                    const std::vector<std::string>& optionalResourceNames);
  void waitForResource(const std::string& resourceName, const std::string& owner,
                       const std::string& callbackName, const int& timeoutSeconds);
  void waitForResourcesTree(const std::vector<std::string>& resourceNames, const std::string& owner,
                            const std::string& callbackName, const int& timeoutSeconds);

 private:
  std::shared_ptr<KXResourceManagerProxyImpl> impl_;
};

}  // namespace KX

#endif  // VELMO_PROXIES_KXRESOURCEMANAGERPROXY_H_
