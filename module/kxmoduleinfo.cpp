#include "module/kxmoduleinfo.h"

#include <algorithm>
#include <array>

namespace KX {

KXModuleInfo describeModuleOf(const KXBrokerInfo& broker, const std::string& name) {
  KXModuleInfo info = broker;
  info.name = name;
  info.isABroker = false;
  info.keepAlive = false;
  return info;
}

std::string endpointOf(const std::string& ip, int port) {
  return "http://" + ip + ":" + std::to_string(port);
}

bool isInternalModuleName(const std::string& name) {
  static constexpr std::array<const char*, 6> kInternalParts = {
      "KXFrameManager__", "KXNetwork", "KXMecaLogger", "KXRobotModel", "KXTelepathe", "KXStore"};
  if (!name.empty() && name[0] == '_') return true;
  return std::any_of(kInternalParts.begin(), kInternalParts.end(),
                     [&name](const char* part) { return name.find(part) != std::string::npos; });
}

}  // namespace KX
