#ifndef VELMO_MEMORY_KXSTANDARDMODULES_H_
#define VELMO_MEMORY_KXSTANDARDMODULES_H_

#include <memory>

namespace KX {

class KXBroker;

// Creates and registers the modules a root broker hosts: "KXMemory" and
// "KXResourceManager". A module of that name already registered is kept (not replaced).
void addStandardModules(const std::shared_ptr<KXBroker>& broker);

}  // namespace KX

#endif  // VELMO_MEMORY_KXSTANDARDMODULES_H_
