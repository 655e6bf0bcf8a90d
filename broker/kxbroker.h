#ifndef VELMO_BROKER_KXBROKER_H_
#define VELMO_BROKER_KXBROKER_H_

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "module/kxmodulehost.h"
#include "module/kxmoduleinfo.h"
#include "value/kxvalue.h"

namespace KX {

class KXBrokerImpl;
class KXModuleCore;
class KXNetworkService;
class KXProxy;
class KXTask;
class KXTaskMonitor;
class KXThreadPool;
namespace detail {
class KXTaskInfo;
}

// The per-process hub: owns this process's modules, finds modules by name, runs the
// calls that arrive for them (synchronously or as pooled parallel calls), answers its
// HTTP pages, and shuts everything down in order.
//
// Ownership: brokers are held by std::shared_ptr (the broker manager lists every live
// broker); modules and proxies refer to their broker weakly. Create one with
// createBroker. Thread-safety: every member may be called from any thread.
class KXBroker : public KXModuleHost, public std::enable_shared_from_this<KXBroker> {
 public:
  // Creation flags.
  static constexpr int kKeepAlive = 0x01;       // no "Exit" line at shutdown
  static constexpr int kSingleThreaded = 0x02;  // a pool of 1 worker instead of 10
  static constexpr int kNoHeartbeat = 0x08;
  static constexpr int kCreateNetwork = 0x10;

  // Constructs, initialises, enters the broker manager and (when `launchNetwork`)
  // launches the network. A non-empty `path` is deprecated and ignored (two warnings).
  static std::shared_ptr<KXBroker> createBroker(const std::string& name, const std::string& ip,
                                                int port, const std::string& parentIp,
                                                int parentPort, int flags,
                                                const std::string& path = "",
                                                bool launchNetwork = true);

  // A closed broker; createBroker is the usual way to get an open one.
  KXBroker();
  ~KXBroker() override;
  KXBroker(const KXBroker&) = delete;
  KXBroker& operator=(const KXBroker&) = delete;

  // Opens the broker: thread pool, task monitor, broker info. A second call throws
  // KXError("KXBroker", "init", "could not initialize KXBroker twice.").
  void init(const std::string& name, const std::string& ip, int port, const std::string& parentIp,
            int parentPort, int flags);
  // Stops the modules in reverse registration order, then the pool, and leaves the
  // broker manager. Later calls do nothing, and return at once even while the first one
  // is still stopping (they may come from a module's exit or a pool worker, which the
  // first one waits for).
  void shutdown();
  bool isShuttingDown() const;

  // ---- Modules
  // Stores `module` under `name` (the module it replaces, if any, is exited first) and
  // gives it the next registration index.
  void registerModule(const std::string& name, const std::shared_ptr<KXModuleCore>& module);
  // Removes `module` from the table if it is still the one registered under `name` (a
  // module's exit hands its name here).
  void unregisterModule(const std::string& name, const KXModuleCore* module) override;
  // The local module registered under `name`, or null.
  std::shared_ptr<KXModuleCore> getModuleCore(const std::string& name) const override;
  // The local modules, in name order.
  std::vector<std::shared_ptr<KXModuleCore>> getModules() const;
  // Tree search: 0 and `info` filled when found, -1 otherwise.
  int getModuleByName(const std::string& name, bool loadLib, KXModuleInfo& info) override;
  int exploreToGetModuleByName(const std::string& name, bool searchUp, bool searchDown,
                               const std::string& excludedBroker, bool loadLib, KXModuleInfo& info);
  bool isModulePresent(const std::string& name);
  // This broker's modules, then those of every child (a child that does not answer is
  // dropped).
  std::vector<KXModuleInfo> getGlobalModuleList();
  // This broker, then the brokers below it.
  std::vector<KXBrokerInfo> getBrokerList();

  // ---- The broker tree
  // The "KXNetwork" module, null when the network was never launched.
  std::shared_ptr<KXNetworkService> getNetwork() const override;
  // Connects the client side to the parent; throws KXError("KXBroker", "Connect to
  // parent", "Timeout") when the parent does not answer.
  void configureClient(const std::string& parentIp, int parentPort);
  // Children: registered by the network service when they call in.
  void registerBroker(const KXBrokerInfo& info);
  void unregisterBroker(const std::string& name);
  // A child's heartbeat arrived; false for an unknown child.
  bool childHeartBeat(const std::string& name);
  // Reports silent children, drops those silent for too long.
  void checkHeartBeat();
  std::vector<KXBrokerInfo> getChildBrokers() const;
  // Drops the shared proxy kept for `name` (getProxy builds a new one next time).
  void unregisterModuleReference(const std::string& name);

  // ---- Calls arriving for local modules
  KXValue methodCall(const std::string& module, const std::string& method, const KXValue& params);
  // Runs the call on the thread pool; returns its task id.
  int post(const std::string& module, const std::string& method, const KXValue& params);
  // One shared proxy per module name (built on first request).
  std::shared_ptr<KXProxy> getProxy(const std::string& module, int flags = 0, int reserved = 0);

  // ---- Parallel calls
  // Even ids 2, 4, ..., 2147483646, then 2 again.
  int newTaskId();
  // Continues numbering after `last` (an even id): lets tests reach the wrap quickly.
  void resetTaskIds(int last);
  std::shared_ptr<detail::KXTaskInfo> createTaskInfo(const std::string& module,
                                                     const std::string& method) override;
  // Enters `info` in the task monitor, names `task` "pcall: <module>::<method>" and
  // queues it; returns the id. When the pool refuses it (shut down) the entry is removed
  // and KXError("KXBroker", "post", ...) is thrown.
  int queueParallelCall(const std::shared_ptr<detail::KXTaskInfo>& info,
                        const std::shared_ptr<KXTask>& task) override;

  // ---- HTTP pages: the whole response text for a request path.
  std::string getPage(const std::string& path);

  // ---- Accessors
  std::shared_ptr<KXBroker> broker() override;
  std::string getName() const override;
  std::string getIP() const;
  int getPort() const;
  std::string getParentIP() const;
  int getParentPort() const;
  bool hasParent() const;
  KXBrokerInfo getBrokerInfo() const override;
  // The address learnt from the network (a free port, the IP the parent sees).
  void setIP(const std::string& ip);
  void setPort(int port);
  std::shared_ptr<KXThreadPool> getThreadPool() const;
  std::shared_ptr<KXTaskMonitor> getTaskMonitor() const override;

 private:
  std::unique_ptr<KXBrokerImpl> impl_;
};

// Constructs a module of class T with the broker and the name (its constructor binds its
// methods), registers it under that name, and returns it.
template <typename T, typename... Args>
std::shared_ptr<T> createModule(const std::shared_ptr<KXBroker>& broker, const std::string& name,
                                Args&&... args) {
  auto module = std::make_shared<T>(broker, name, std::forward<Args>(args)...);
  broker->registerModule(name, module);
  return module;
}

}  // namespace KX

#endif  // VELMO_BROKER_KXBROKER_H_
