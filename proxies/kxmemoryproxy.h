#ifndef VELMO_PROXIES_KXMEMORYPROXY_H_
#define VELMO_PROXIES_KXMEMORYPROXY_H_

#include <memory>
#include <string>
#include <vector>

#include "proxies/kxmemoryproxyposthandler.h"
#include "value/kxvalue.h"

namespace KX {

class KXBroker;
class KXProxy;
class KXMemoryProxyImpl;

// The typed proxy to the module "KXMemory": one method per published method, with its
// C++ types. A module of this process is called directly (its bound method, without
// KXValues); another broker's through the generic proxy and the network. Once a local
// module has left, every method throws KXError("KXMemory", <method>, "The underlying
// module is invalid.").
//
// Copies share one proxy. Thread-safe.
class KXMemoryProxy {
 public:
  // Through the broker manager's current broker. Never throws: when that fails, every
  // method (and getGenericProxy) throws the error instead.
  KXMemoryProxy();
  explicit KXMemoryProxy(const std::shared_ptr<KXBroker>& broker);
  explicit KXMemoryProxy(const std::shared_ptr<KXProxy>& proxy);
  // The module of the broker at ip:port.
  KXMemoryProxy(const std::string& ip, int port);
  // The module of the broker at ip, port 9559.
  explicit KXMemoryProxy(const std::string& ip);

  std::shared_ptr<KXProxy> getGenericProxy() const;

  void declareEvent(const std::string& name);
  void declareEvent(const std::string& name, const std::string& extractorName);
  void exit();
  std::string getBrokerName();
  KX::KXValue getData(const std::string& name);
  KX::KXValue getData(const std::string& name, const int& deprecatedParameter);
  std::vector<std::string> getDataList(const std::string& filter);
  std::vector<std::string> getDataListName();
  KX::KXValue getDataOnChange(const std::string& name, const int& timeoutMs);
  // The address of the stored value; local modules only (else KXError("KXMemory",
  // "getDataPtr", "Cannot be called remotely"), without sending anything).
  void* getDataPtr(const std::string& name);
  KX::KXValue getDescriptionList(const std::vector<std::string>& names);
  KX::KXValue getEventHistory(const std::string& name);
  std::vector<std::string> getEventList();
  std::vector<std::string> getExtractorEvent(const std::string& extractorName);
  KX::KXValue getListData(const KX::KXValue& names);
  KX::KXValue getMethodHelp(const std::string& methodName);
  std::vector<std::string> getMethodList();
  std::vector<std::string> getMicroEventList();
  KX::KXValue getModuleHelp();
  std::vector<std::string> getSubscribers(const std::string& name);
  KX::KXValue getTimestamp(const std::string& name);
  std::string getType(const std::string& name);
  std::string getUsage(const std::string& methodName);
  void insertData(const std::string& name, const KX::KXValue& value);
  void insertListData(const KX::KXValue& list);
  bool isRunning(const int& id);
  bool ping();
  void raiseEvent(const std::string& name, const KX::KXValue& value);
  void raiseMicroEvent(const std::string& name, const KX::KXValue& value);
  void removeData(const std::string& name);
  void removeMicroEvent(const std::string& name);
  void setDescription(const std::string& name, const std::string& description);
  void stop(const int& id);
  void subscribeToEvent(const std::string& name, const std::string& module,
                        const std::string& callback);
  void subscribeToEvent(const std::string& name, const std::string& module,
                        const std::string& message, const std::string& callback);
  void subscribeToMicroEvent(const std::string& name, const std::string& module,
                             const std::string& message, const std::string& callback);
  void unregisterModuleReference(const std::string& module);
  void unsubscribeToEvent(const std::string& name, const std::string& module);
  void unsubscribeToMicroEvent(const std::string& name, const std::string& module);
  std::string version();
  bool wait(const int& id, const int& timeoutMs);

 private:
  std::shared_ptr<KXMemoryProxyImpl> impl_;

 public:
  // The parallel ("post") forms of the methods: each returns the task id.
  KXMemoryProxyPostHandler post;
};

}  // namespace KX

#endif  // VELMO_PROXIES_KXMEMORYPROXY_H_
