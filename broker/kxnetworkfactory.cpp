#include "broker/kxnetworkfactory.h"

#include <mutex>
#include <utility>

#include "broker/kxbroker.h"
#include "log/processwide.h"
#include "module/kxmodulecore.h"
#include "value/kxerror.h"

namespace KX {
namespace {

// The installed factory, for the life of the process: brokers launch their network from
// any thread, the fallback broker even while the process exits.
struct Installed {
  std::mutex mutex;
  KXNetworkFactory factory;  // guarded by mutex
};

Installed& installed() {
  static tu::ProcessWide<Installed> instance;
  return instance.get();
}

}  // namespace

void setNetworkFactory(KXNetworkFactory networkFactory) {
  Installed& slot = installed();
  std::lock_guard<std::mutex> guard(slot.mutex);
  slot.factory = std::move(networkFactory);
}

std::shared_ptr<KXNetworkService> createNetworkModule(const std::shared_ptr<KXBroker>& broker) {
  KXNetworkFactory make;
  {
    Installed& slot = installed();
    std::lock_guard<std::mutex> guard(slot.mutex);
    make = slot.factory;
  }
  std::shared_ptr<KXModuleCore> module = make ? make(broker) : nullptr;
  auto service = std::dynamic_pointer_cast<KXNetworkService>(module);
  if (!service) {
    KX_THROW("KXBroker", "launchNetwork", "No network");
  }
  broker->registerModule("KXNetwork", module);
  return service;
}

}  // namespace KX
