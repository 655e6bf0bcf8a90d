#include "python/kxpythonbehavior.h"

namespace KX {

KXPythonBehavior::KXPythonBehavior(const std::shared_ptr<KXBroker>& broker, const std::string& name)
    : KXPythonDispatch<KXBehavior>(broker, name) {}

KXPythonBehavior::~KXPythonBehavior() = default;

}  // namespace KX
