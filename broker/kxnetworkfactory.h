#ifndef VELMO_BROKER_KXNETWORKFACTORY_H_
#define VELMO_BROKER_KXNETWORKFACTORY_H_

#include <functional>
#include <memory>

#include "module/kxnetworkservice.h"

namespace KX {

class KXBroker;
class KXModuleCore;

// Makes the "KXNetwork" module of a broker. The network subsystem, which builds on the
// brokers, installs its factory when the library is loaded; it stays installed for the
// life of the process.
using KXNetworkFactory =
    std::function<std::shared_ptr<KXModuleCore>(const std::shared_ptr<KXBroker>& broker)>;
void setNetworkFactory(KXNetworkFactory factory);
// Creates and registers the broker's "KXNetwork" module; throws KXError("KXBroker",
// "launchNetwork", "No network") when no network subsystem is installed.
std::shared_ptr<KXNetworkService> createNetworkModule(const std::shared_ptr<KXBroker>& broker);

}  // namespace KX

#endif  // VELMO_BROKER_KXNETWORKFACTORY_H_
