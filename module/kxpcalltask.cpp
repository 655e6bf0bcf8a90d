#include "module/kxpcalltask.h"

#include <utility>

#include "module/kxfunctor.h"
#include "module/kxmethodinfo.h"
#include "module/kxmodulecore.h"
#include "value/kxerror.h"

namespace KX {
namespace detail {

PCallBase::PCallBase(std::shared_ptr<KXTaskMonitor> monitor, std::shared_ptr<KXTaskInfo> info,
                     std::shared_ptr<KXModuleCore> core)
    : monitor_(std::move(monitor)), info_(std::move(info)), core_(std::move(core)) {
  KX_ASSERT("PCallBase", monitor_ != nullptr);
  KX_ASSERT("PCallBase", info_ != nullptr);
}

PCallBase::~PCallBase() {
  // Dropped from the queue without running: nothing else will end this entry.
  if (!started_.load()) monitor_->remove(info_->id);
}

void PCallBase::run() {
  monitor_->setThread(info_);
  started_ = true;
  try {
    runCall();
  } catch (...) {
    monitor_->remove(info_->id);
    throw;
  }
  monitor_->remove(info_->id);
}

void PCallBase::stop() {
  // The entry may already be gone (the call ended meanwhile): nothing to ask then.
  if (!monitor_->isRunning(info_->id)) return;
  try {
    monitor_->stop(info_->id);
  } catch (const KXError&) {
    // Removed between the two looks: the call has ended.
  }
}

}  // namespace detail

GenericPCallTask::GenericPCallTask(std::shared_ptr<KXTaskMonitor> monitor,
                                   std::shared_ptr<detail::KXTaskInfo> info,
                                   std::weak_ptr<KXModuleCore> core, std::string method,
                                   KXValue params)
    : PCallBase(std::move(monitor), std::move(info)),
      module_(std::move(core)),
      method_(std::move(method)),
      params_(std::move(params)) {}

GenericPCallTask::~GenericPCallTask() = default;

void GenericPCallTask::runCall() {
  std::shared_ptr<KXModuleCore> core = module_.lock();
  if (!core) KX_THROW("ThreadedLocalExecution", "getModuleCore", "module was destroyed");
  if (!core->getMethodInfo(method_)) KX_THROW("KXProxy", "genericPCall", "method not found");
  KXValue result;
  core->execute(method_, params_, result);
}

KXPCallTask::KXPCallTask(std::shared_ptr<KXTaskMonitor> monitor,
                         std::shared_ptr<detail::KXTaskInfo> info,
                         std::shared_ptr<KXModuleCore> core,
                         std::shared_ptr<const KXMethodInfo> method, KXValue params)
    : PCallBase(std::move(monitor), std::move(info), std::move(core)),
      method_(std::move(method)),
      params_(std::move(params)) {
  KX_ASSERT("KXPCallTask", getModuleCore() != nullptr);
  KX_ASSERT("KXPCallTask", method_ != nullptr && method_->functor != nullptr);
}

KXPCallTask::~KXPCallTask() = default;

void KXPCallTask::runCall() {
  // Such a module answers through execute: its functors only hold the method's place.
  if (getModuleCore()->requiresGenericDispatch()) {
    KXValue result;
    getModuleCore()->execute(method_->methodName, params_, result);
    return;
  }
  KXFunctorBase& functor = *method_->functor;
  getModuleCore()->runLocked([&functor, this] {
    KXValue result;
    functor.call(params_, result);
  });
}

}  // namespace KX
