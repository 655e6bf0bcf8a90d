#include "memory/kxstandardmodules.h"

#include "broker/kxbroker.h"
#include "memory/kxmemory.h"
#include "memory/kxresourcemanager.h"
#include "value/kxerror.h"

namespace KX {

void addStandardModules(const std::shared_ptr<KXBroker>& broker) {
  KX_ASSERT("KXBroker", broker != nullptr);
  // Registering a module under a taken name would exit the one there: a broker that
  // already hosts either module keeps it, with its data and subscriptions.
  if (!broker->getModuleCore("KXMemory")) createModule<KXMemory>(broker, "KXMemory");
  if (!broker->getModuleCore("KXResourceManager")) {
    createModule<KXResourceManager>(broker, "KXResourceManager");
  }
}

}  // namespace KX
