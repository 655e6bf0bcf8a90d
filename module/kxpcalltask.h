#ifndef VELMO_MODULE_KXPCALLTASK_H_
#define VELMO_MODULE_KXPCALLTASK_H_

// The pooled tasks that run parallel calls ("post", "pCall") of module methods.
//
// Posting one (the broker allocates the id, enters the task info in its task monitor
// before queueing, and names the task "pcall: <module>::<method>"):
//
//   auto info = broker->createTaskInfo(module, method);
//   auto task = std::make_shared<GenericPCallTask>(broker->getTaskMonitor(), info,
//                                                  core, method, params);
//   int id = broker->queueParallelCall(info, task);
//
// Every kind records its worker thread in the monitor when it starts and removes its
// entry when the call ends, also when the call throws (the error then leaves run() and
// the worker logs it). A task dropped before it ran (pool shut down) removes its entry
// when it is destroyed, so that waiters on its id do not wait forever.

#include <atomic>
#include <memory>
#include <string>

#include "module/kxtaskmonitor.h"
#include "thread/kxtask.h"
#include "value/kxvalue.h"

namespace KX {

class KXModuleCore;
class KXMethodInfo;

namespace detail {

// What every parallel call shares: the broker's task monitor, the call's task info, a
// flag set when the call starts and, for the kinds that call a bound member function,
// the module (held strongly: the functor calls the object itself).
class PCallBase : public KXTask {
 public:
  PCallBase(std::shared_ptr<KXTaskMonitor> monitor, std::shared_ptr<KXTaskInfo> info,
            std::shared_ptr<KXModuleCore> core = nullptr);
  ~PCallBase() override;

  // setThread, the call, then the entry's removal (also when the call throws; the error
  // is rethrown for the worker to log).
  void run() final;
  // The pool stops the worker holding this task: ask the call to stop, as `stop` on its
  // id would (a method polling isStopRequested then ends).
  void stop() override;

  bool hasStarted() const { return started_.load(); }
  const std::shared_ptr<KXTaskInfo>& getTaskInfo() const { return info_; }
  const std::shared_ptr<KXModuleCore>& getModuleCore() const { return core_; }

 protected:
  virtual void runCall() = 0;

 private:
  // Constant after construction.
  const std::shared_ptr<KXTaskMonitor> monitor_;
  const std::shared_ptr<KXTaskInfo> info_;
  const std::shared_ptr<KXModuleCore> core_;

  std::atomic<bool> started_{false};
};

}  // namespace detail

// A method called by name with an Array of KXValue arguments through the module core's
// generic call (execute); the result is dropped. The module is held weakly: a module
// gone before the call starts fails with KXError("ThreadedLocalExecution",
// "getModuleCore", "module was destroyed"), a method it no longer has with
// KXError("KXProxy", "genericPCall", "method not found").
class GenericPCallTask : public detail::PCallBase {
 public:
  GenericPCallTask(std::shared_ptr<KXTaskMonitor> monitor, std::shared_ptr<detail::KXTaskInfo> info,
                   std::weak_ptr<KXModuleCore> core, std::string method, KXValue params);
  ~GenericPCallTask() override;

 protected:
  void runCall() override;

 private:
  const std::weak_ptr<KXModuleCore> module_;
  const std::string method_;
  const KXValue params_;
};

// The broker's post of a call that arrived for one of its modules: the named method of a
// local module with a KXValue argument Array, run as a GenericPCallTask.
using pcall_request = GenericPCallTask;

// A bound method called through its functor (typed parallel calls, the module core's own
// pCall): the functor converts the arguments, under the shared side of the module's
// execution lock (a module that is exiting prints its warning and runs nothing).
class KXPCallTask : public detail::PCallBase {
 public:
  KXPCallTask(std::shared_ptr<KXTaskMonitor> monitor, std::shared_ptr<detail::KXTaskInfo> info,
              std::shared_ptr<KXModuleCore> core, std::shared_ptr<const KXMethodInfo> method,
              KXValue params);
  ~KXPCallTask() override;

 protected:
  void runCall() override;

 private:
  const std::shared_ptr<const KXMethodInfo> method_;
  const KXValue params_;
};

}  // namespace KX

#endif  // VELMO_MODULE_KXPCALLTASK_H_
