#include "proxies/detail/kxtypedmodulecall.h"

#include <utility>

namespace KX {
namespace detail {

std::shared_ptr<const KXMethodInfo> findLocalMethod(KXModuleCore& core, const char* name,
                                                    const std::vector<std::string>& types) {
  try {
    return core.findMethod(name, types, false);
  } catch (const KXError&) {
    // Not published, or published with other parameters: the signature is missing.
    return nullptr;
  }
}

KXTypedModuleCall::KXTypedModuleCall(std::shared_ptr<KXProxy> proxy, std::string moduleName)
    : proxy_(std::move(proxy)), moduleName_(std::move(moduleName)) {
  KX_ASSERT("KXTypedModuleCall", proxy_ != nullptr);
}

std::shared_ptr<KXModuleCore> KXTypedModuleCall::lockValidCore(const char* method) const {
  std::shared_ptr<KXModuleCore> core = proxy_->getLocalModuleCore();
  if (!core || core->isExiting()) throwInvalid(method);
  return core;
}

const KXLocalMethod& KXTypedModuleCall::localEntry(std::size_t index, const char* method) const {
  if (index >= table_.size() || table_[index].kind == KXLocalMethod::Kind::kMissing) {
    KX_THROW(
        "KXProxy", "getMethodInfo",
        std::string("Function ") + method + " does not exist in module " + proxy_->getModuleName());
  }
  return table_[index];
}

void KXTypedModuleCall::throwInvalid(const char* method) const {
  KX_THROW(moduleName_, method, "The underlying module is invalid.");
}

void KXTypedModuleCall::throwRemoteRefused(const char* method) const {
  KX_THROW(moduleName_, method, "Cannot be called remotely");
}

}  // namespace detail
}  // namespace KX
