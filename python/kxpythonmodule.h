#ifndef VELMO_PYTHON_KXPYTHONMODULE_H_
#define VELMO_PYTHON_KXPYTHONMODULE_H_

#include <memory>
#include <string>

#include "module/kxmodulecore.h"
#include "python/kxpythondispatch.h"

namespace KX {

class KXBroker;

// A module whose methods a Python object answers (see KXPythonDispatch): what
// Python's `module` class creates.
class KXPythonModule : public KXPythonDispatch<KXModule> {
 public:
  KXPythonModule(const std::shared_ptr<KXBroker>& broker, const std::string& name);
  ~KXPythonModule() override;

  std::string version() override;  // "unused"
};

}  // namespace KX

#endif  // VELMO_PYTHON_KXPYTHONMODULE_H_
