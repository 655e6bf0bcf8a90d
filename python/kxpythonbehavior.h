#ifndef VELMO_PYTHON_KXPYTHONBEHAVIOR_H_
#define VELMO_PYTHON_KXPYTHONBEHAVIOR_H_

#include <memory>
#include <string>

#include "behavior/kxbehavior.h"
#include "python/kxpythondispatch.h"

namespace KX {

class KXBroker;

// A behaviour box whose inputs (and any other method described from Python) the
// Python object stored in `__main__` under the box's name answers; the box's own
// methods stay native. What Python's `behavior` class creates.
class KXPythonBehavior : public KXPythonDispatch<KXBehavior> {
 public:
  KXPythonBehavior(const std::shared_ptr<KXBroker>& broker, const std::string& name);
  ~KXPythonBehavior() override;
};

}  // namespace KX

#endif  // VELMO_PYTHON_KXPYTHONBEHAVIOR_H_
