#include "broker/kxnetworkfactory.h"

#include <mutex>
#include <utility>

#include "broker/kxbroker.h"
#include "module/kxmodulecore.h"
#include "value/kxerror.h"

namespace KX {
namespace {

std::mutex& factoryMutex() {
  static std::mutex mutex;
  return mutex;
}

KXNetworkFactory& factory() {
  static KXNetworkFactory installed;
  return installed;
}

}  // namespace

void setNetworkFactory(KXNetworkFactory networkFactory) {
  std::lock_guard<std::mutex> guard(factoryMutex());
  factory() = std::move(networkFactory);
}

std::shared_ptr<KXNetworkService> createNetworkModule(const std::shared_ptr<KXBroker>& broker) {
  KXNetworkFactory make;
  {
    std::lock_guard<std::mutex> guard(factoryMutex());
    make = factory();
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
