#ifndef VELMO_PROXIES_KXMEMORYPROXYIMPL_H_
#define VELMO_PROXIES_KXMEMORYPROXYIMPL_H_

#include <memory>
#include <optional>

#include "module/kxproxy.h"
#include "proxies/detail/kxtypedmodulecall.h"
#include "value/kxerror.h"

namespace KX {

// What a KXMemoryProxy and its post handler share: the calls to "KXMemory" through one
// generic proxy, or the error that kept the proxy from being built.
class KXMemoryProxyImpl {
 public:
  // Looks the local method table up when `proxy` is local.
  explicit KXMemoryProxyImpl(std::shared_ptr<KXProxy> proxy);
  // A proxy that could not be built: every use throws `failure`.
  explicit KXMemoryProxyImpl(const KXError& failure);

  // Throws the construction failure, if any.
  const detail::KXTypedModuleCall& calls() const;

 private:
  std::shared_ptr<const detail::KXTypedModuleCall> calls_;
  std::optional<KXError> failure_;
};

}  // namespace KX

#endif  // VELMO_PROXIES_KXMEMORYPROXYIMPL_H_
