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

}  // namespace KX

#endif  // VELMO_MODULE_KXMODULEINFO_H_
