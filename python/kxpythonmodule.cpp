#include "python/kxpythonmodule.h"

namespace KX {

KXPythonModule::KXPythonModule(const std::shared_ptr<KXBroker>& broker, const std::string& name)
    : KXPythonDispatch<KXModule>(broker, name) {}

KXPythonModule::~KXPythonModule() = default;

std::string KXPythonModule::version() { return "unused"; }

}  // namespace KX
