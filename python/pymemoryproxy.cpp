#include "python/pymemoryproxy.h"

#include <memory>

#include "broker/kxbroker.h"
#include "python/pycurrentbroker.h"
#include "value/kxerror.h"

namespace KX {

KXMemoryProxy getMemoryProxy() {
  if (const std::shared_ptr<KXBroker> current = python::currentBroker()) {
    try {
      return KXMemoryProxy(current);
    } catch (const KXError&) {
      // No memory module found from there: the proxy below carries the error.
    }
  }
  return KXMemoryProxy();
}

}  // namespace KX
