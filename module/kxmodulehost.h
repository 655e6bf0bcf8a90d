#ifndef VELMO_MODULE_KXMODULEHOST_H_
#define VELMO_MODULE_KXMODULEHOST_H_

#include <memory>
#include <string>

#include "module/kxmoduleinfo.h"

namespace KX {

class KXBroker;
class KXModuleCore;
class KXNetworkService;
class KXTask;
class KXTaskMonitor;
namespace detail {
class KXTaskInfo;
}

// What modules and proxies ask of the broker that hosts them. KXBroker implements it, so
// that the module layer builds below the brokers: modules and proxies hold their host
// weakly and reach the broker's other services only through broker().
//
// Thread-safety: every member may be called from any thread.
class KXModuleHost {
 public:
  virtual ~KXModuleHost() = default;

  // The broker itself, for code built on brokers (a module's getParentBroker()).
  virtual std::shared_ptr<KXBroker> broker() = 0;
  virtual std::string getName() const = 0;
  virtual KXBrokerInfo getBrokerInfo() const = 0;

  // The local module registered under `name`, or null.
  virtual std::shared_ptr<KXModuleCore> getModuleCore(const std::string& name) const = 0;
  // Tree search: 0 and `info` filled when found, -1 otherwise.
  virtual int getModuleByName(const std::string& name, bool loadLib, KXModuleInfo& info) = 0;
  // Removes `module` from the table if it is still the one registered under `name`.
  virtual void unregisterModule(const std::string& name, const KXModuleCore* module) = 0;
  // The "KXNetwork" module, null when the network was never launched.
  virtual std::shared_ptr<KXNetworkService> getNetwork() const = 0;

  // ---- Parallel calls
  virtual std::shared_ptr<KXTaskMonitor> getTaskMonitor() const = 0;
  virtual std::shared_ptr<detail::KXTaskInfo> createTaskInfo(const std::string& module,
                                                             const std::string& method) = 0;
  // Enters `info` in the task monitor and queues `task`; returns the id.
  virtual int queueParallelCall(const std::shared_ptr<detail::KXTaskInfo>& info,
                                const std::shared_ptr<KXTask>& task) = 0;
};

}  // namespace KX

#endif  // VELMO_MODULE_KXMODULEHOST_H_
