#ifndef VELMO_MODULE_KXMODULEINFO_H_
#define VELMO_MODULE_KXMODULEINFO_H_

#include <string>

namespace KX {

// The description of a module, or of a broker (isABroker true): what a tree search
// returns and what travels on the wire as kx:KXModuleInfo. A plain value.
struct KXModuleInfo {
  std::string name;
  int architecture = 0;
  std::string ip;
  int port = 0;
  int processId = 0;
  bool isABroker = false;
  bool keepAlive = false;
};

// A broker describes itself with the same fields.
using KXBrokerInfo = KXModuleInfo;

// The description of the module `name` hosted by `broker`: the broker's address and
// process, never a broker itself, never kept alive (that flag belongs to brokers).
KXModuleInfo describeModuleOf(const KXBrokerInfo& broker, const std::string& name);

// The endpoint through which the broker at ip:port is reached: "http://ip:port".
std::string endpointOf(const std::string& ip, int port);

// True for names hidden from module, method and task lists: names that begin with "_" or
// contain "KXFrameManager__", "KXNetwork", "KXMecaLogger", "KXRobotModel", "KXTelepathe"
// or "KXStore".
bool isInternalModuleName(const std::string& name);

}  // namespace KX

#endif  // VELMO_MODULE_KXMODULEINFO_H_
