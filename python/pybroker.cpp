#include "python/pybroker.h"

#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "behavior/kxbehaviormanager.h"
#include "broker/kxbroker.h"
#include "broker/kxbrokermanager.h"
#include "log/log.h"
#include "memory/kxstandardmodules.h"
#include "python/pycurrentbroker.h"
#include "python/pygil.h"
#include "value/kxerror.h"

namespace KX {

broker::broker(char* name, char* ip, int port, char* parentIp, int parentPort) {
  if (name == nullptr || ip == nullptr || parentIp == nullptr) {
    KX_THROW("broker", "broker", "NULL values were passed as arguments");
  }
  std::printf("ivelmo-broker: construct at %s:%d, parent : %s:%d\n", ip, port, parentIp,
              parentPort);
  std::fflush(stdout);

  python::ScopedGILRelease release;
  const std::shared_ptr<KXBroker> created =
      KXBroker::createBroker(name, ip, port, parentIp, parentPort, KXBroker::kKeepAlive, "", true);
  if (!created->hasParent()) addStandardModules(created);
  addBehaviorManager(created);
  python::rememberCreatedBroker(created);
  python::setCurrentBroker(created);
}

broker::~broker() = default;

void broker::shutdown() {
  python::ScopedGILRelease release;
  const std::shared_ptr<KXBroker> current = python::currentBroker();
  if (!current) return;
  TU_LOG(tu::log::info, "behavior.ivelmo", "KX::broker::shutdown")
      << "Stop broker " << current->getName() << std::endl;
  current->shutdown();
}

bool broker::isModulePresent(char* name) {
  if (name == nullptr) return false;
  python::ScopedGILRelease release;
  const std::shared_ptr<KXBroker> current = python::currentBroker();
  return current && current->isModulePresent(name);
}

KXValue broker::getGlobalModuleList() {
  python::ScopedGILRelease release;
  const std::shared_ptr<KXBroker> current = python::currentBroker();
  KXValue list;
  if (!current) return list;
  const std::vector<KXModuleInfo> modules = current->getGlobalModuleList();
  list.arraySetSize(static_cast<int>(modules.size()));
  for (std::size_t i = 0; i < modules.size(); ++i) {
    KXValue& entry = list[static_cast<int>(i)];
    entry.arraySetSize(1);
    entry[0] = modules[i].name;
  }
  return list;
}

void setInstance(long address) {
  python::ScopedGILRelease release;
  const std::shared_ptr<KXBrokerManager> manager = KXBrokerManager::getInstance();
  // Compared by address only: an unknown address is never dereferenced.
  for (const std::shared_ptr<KXBroker>& listed : manager->getBrokers()) {
    if (reinterpret_cast<long>(listed.get()) == address) {
      KXBrokerManager::adoptInstance(manager)->addBroker(listed);
      python::setCurrentBroker(listed);
      return;
    }
  }
  std::ostringstream text;
  text << "No broker of this process lives at address 0x" << std::hex << address;
  KX_THROW("broker", "setInstance", text.str());
}

}  // namespace KX
