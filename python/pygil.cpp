#include "python/pygil.h"

namespace KX {
namespace python {

ScopedGILRelease::ScopedGILRelease() : state_(PyEval_SaveThread()) {}

ScopedGILRelease::~ScopedGILRelease() { PyEval_RestoreThread(state_); }

ScopedGILAcquire::ScopedGILAcquire() : state_(PyGILState_Ensure()) {}

ScopedGILAcquire::~ScopedGILAcquire() { PyGILState_Release(state_); }

}  // namespace python
}  // namespace KX
