#ifndef VELMO_BROKER_DETAIL_KXBROKERIMPL_H_
#define VELMO_BROKER_DETAIL_KXBROKERIMPL_H_

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "broker/detail/kxchildbrokers.h"
#include "broker/detail/kxproxycache.h"
#include "broker/kxbroker.h"
#include "module/kxmoduleinfo.h"
#include "thread/kxmutex.h"
#include "value/kxvalue.h"

namespace KX {

class KXBrokerProxy;
class KXModuleCore;
class KXNetworkService;
class KXProxy;
class KXTask;
class KXTaskMonitor;
class KXThreadPool;
namespace detail {
class KXTaskInfo;
}

// The state and the work of one KXBroker. Owned by its KXBroker (a unique_ptr member),
// to which it keeps a plain back-pointer: the broker outlives it by construction.
//
// Lock order (a lock may be taken while holding the ones before it, never the reverse):
//   shutdown mutex -> module table lock -> state mutex
//   proxy cache's lock (alone), task id mutex (alone).
// No lock of the broker is held while a module's exit() or a method runs (but for the
// shutdown mutex, which only init and shutdown take): both may call back into the broker
// (exit unregisters the module, a method may post or shut down).
class KXBrokerImpl {
 public:
  explicit KXBrokerImpl(KXBroker* self);
  ~KXBrokerImpl();
  KXBrokerImpl(const KXBrokerImpl&) = delete;
  KXBrokerImpl& operator=(const KXBrokerImpl&) = delete;

  void init(const std::string& name, const std::string& ip, int port, const std::string& parentIp,
            int parentPort, int flags);
  // Creates the "KXNetwork" module, picks a free port when the port is 0, connects to the
  // parent, starts the server and registers with the parent (or says where it listens).
  void launchNetwork(bool useHeartbeat);
  void configureClient(const std::string& parentIp, int parentPort);
  std::shared_ptr<KXNetworkService> getNetwork() const;
  void shutdown();
  bool isShuttingDown() const { return shuttingDown_.load(); }

  void registerModule(const std::string& name, const std::shared_ptr<KXModuleCore>& module);
  void unregisterModule(const std::string& name, const KXModuleCore* module);
  std::shared_ptr<KXModuleCore> getModuleCore(const std::string& name) const;
  std::vector<std::shared_ptr<KXModuleCore>> getModules() const;
  int getModuleByName(const std::string& name, bool loadLib, KXModuleInfo& info);
  // Asks the parent to search up and down, this branch excluded; fills `info` when found.
  void searchParent(const std::string& name, bool loadLib, KXModuleInfo& info);
  int exploreToGetModuleByName(const std::string& name, bool searchUp, bool searchDown,
                               const std::string& excludedBroker, bool loadLib, KXModuleInfo& info);
  bool isModulePresent(const std::string& name);
  std::vector<KXModuleInfo> getGlobalModuleList();
  std::vector<KXBrokerInfo> getBrokerList();

  void registerBroker(const KXBrokerInfo& info);
  void unregisterBroker(const std::string& name);
  bool childHeartBeat(const std::string& name);
  void checkHeartBeat();
  std::vector<KXBrokerInfo> getChildBrokers() const;
  void unregisterModuleReference(const std::string& name);

  KXValue methodCall(const std::string& module, const std::string& method, const KXValue& params);
  int post(const std::string& module, const std::string& method, const KXValue& params);
  std::shared_ptr<KXProxy> getProxy(const std::string& module, int flags, int reserved);

  int newTaskId();
  void resetTaskIds(int last);
  std::shared_ptr<detail::KXTaskInfo> createTaskInfo(const std::string& module,
                                                     const std::string& method);
  int queueParallelCall(const std::shared_ptr<detail::KXTaskInfo>& info,
                        const std::shared_ptr<KXTask>& task);

  std::string getName() const;
  std::string getIP() const;
  int getPort() const;
  std::string getParentIP() const;
  int getParentPort() const;
  bool hasParent() const;
  KXBrokerInfo getBrokerInfo() const;
  void setIP(const std::string& ip);
  void setPort(int port);
  std::shared_ptr<KXThreadPool> getThreadPool() const;
  std::shared_ptr<KXTaskMonitor> getTaskMonitor() const;

 private:
  // Unregisters the child `name` (only the record `only`, when given: a child found silent
  // that registered again meanwhile stays).
  void dropChild(const std::string& name, const KXChildBrokers::Child* only);
  // Shutdown's first step: leaves the parent and drops the children.
  void leaveTree();
  // Raises `event` with `value` in this broker's "KXMemory" module, when it has one.
  void raiseMemoryEvent(const std::string& event, const std::string& value);
  std::shared_ptr<KXBrokerProxy> getParentProxy() const;
  // The module's description as a search returns it: this broker's address.
  KXModuleInfo describeLocalModule(const std::string& name) const;
  // Looks up the module and method for methodCall/post; throws their "not found" errors
  // with `operation` as the method field of the missing-module error.
  std::shared_ptr<KXModuleCore> findCallTarget(const std::string& operation,
                                               const std::string& module,
                                               const std::string& method) const;

  // Constant after construction.
  KXBroker* const self_;
  const std::shared_ptr<KXMutex> shutdownMutex_;
  const std::shared_ptr<KXMutexRW> moduleLock_;
  const std::shared_ptr<KXMutex> taskIdMutex_;

  // True from construction until init, and again after shutdown.
  std::atomic<bool> closed_{true};
  // Set once by the first shutdown.
  std::atomic<bool> shuttingDown_{false};

  // Guarded by stateMutex_: written by init (and by the network when it picks a port).
  mutable std::mutex stateMutex_;
  std::string name_;
  std::string ip_;
  int port_ = 0;
  std::string parentIp_;
  int parentPort_ = 0;
  bool hasParent_ = false;
  KXBrokerInfo info_;
  std::shared_ptr<KXThreadPool> threadPool_;
  std::shared_ptr<KXTaskMonitor> taskMonitor_;
  std::shared_ptr<KXBrokerProxy> parent_;  // set by configureClient

  // Guarded by moduleLock_. The counter only grows: it gives each registration its index.
  std::map<std::string, std::shared_ptr<KXModuleCore>> modules_ VELMO_GUARDED_BY(*moduleLock_);
  int registrationCounter_ VELMO_GUARDED_BY(*moduleLock_) = 0;

  KXChildBrokers children_;

  // Forgotten whenever a name's module leaves or is replaced.
  KXProxyCache proxies_;

  // Guarded by taskIdMutex_.
  int lastTaskId_ VELMO_GUARDED_BY(*taskIdMutex_) = 0;
};

}  // namespace KX

#endif  // VELMO_BROKER_DETAIL_KXBROKERIMPL_H_
