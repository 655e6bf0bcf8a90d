#ifndef VELMO_PROXIES_KXMEMORYPROXYPOSTHANDLER_H_
#define VELMO_PROXIES_KXMEMORYPROXYPOSTHANDLER_H_

#include <memory>
#include <string>
#include <vector>

#include "value/kxvalue.h"

namespace KX {

class KXMemoryProxyImpl;

// The parallel forms of KXMemoryProxy's methods (all but getDataPtr): each starts the
// call on the module's broker and returns its task id, for the proxy's wait, stop and
// isRunning. The member "post" of a KXMemoryProxy, sharing its proxy.
class KXMemoryProxyPostHandler {
 public:
#ifndef SWIG
  explicit KXMemoryProxyPostHandler(std::shared_ptr<KXMemoryProxyImpl> impl);
#endif

  int declareEvent(const std::string& name);
  int declareEvent(const std::string& name, const std::string& extractorName);
  int exit();
  int getBrokerName();
  int getData(const std::string& name);
  int getData(const std::string& name, const int& deprecatedParameter);
  int getDataList(const std::string& filter);
  int getDataListName();
  int getDataOnChange(const std::string& name, const int& timeoutMs);
  int getDescriptionList(const std::vector<std::string>& names);
  int getEventHistory(const std::string& name);
  int getEventList();
  int getExtractorEvent(const std::string& extractorName);
  int getListData(const KX::KXValue& names);
  int getMethodHelp(const std::string& methodName);
  int getMethodList();
  int getMicroEventList();
  int getModuleHelp();
  int getSubscribers(const std::string& name);
  int getTimestamp(const std::string& name);
  int getType(const std::string& name);
  int getUsage(const std::string& methodName);
  int insertData(const std::string& name, const KX::KXValue& value);
  int insertListData(const KX::KXValue& list);
  int isRunning(const int& id);
  int ping();
  int raiseEvent(const std::string& name, const KX::KXValue& value);
  int raiseMicroEvent(const std::string& name, const KX::KXValue& value);
  int removeData(const std::string& name);
  int removeMicroEvent(const std::string& name);
  int setDescription(const std::string& name, const std::string& description);
  int stop(const int& id);
  int subscribeToEvent(const std::string& name, const std::string& module,
                       const std::string& callback);
  int subscribeToEvent(const std::string& name, const std::string& module,
                       const std::string& message, const std::string& callback);
  int subscribeToMicroEvent(const std::string& name, const std::string& module,
                            const std::string& message, const std::string& callback);
  int unregisterModuleReference(const std::string& module);
  int unsubscribeToEvent(const std::string& name, const std::string& module);
  int unsubscribeToMicroEvent(const std::string& name, const std::string& module);
  int version();
  int wait(const int& id, const int& timeoutMs);

 private:
  std::shared_ptr<KXMemoryProxyImpl> impl_;
};

}  // namespace KX

#endif  // VELMO_PROXIES_KXMEMORYPROXYPOSTHANDLER_H_
