#include "python/pygil.h"

#include <chrono>
#include <thread>

#include "python/pyinterpreter.h"
#include "value/kxerror.h"

namespace KX {
namespace python {

ScopedGILRelease::ScopedGILRelease() : state_(PyEval_SaveThread()) {}

ScopedGILRelease::~ScopedGILRelease() {
  // A Python thread that comes back while the interpreter is going away (a daemon
  // thread whose call outlived the program) would be ended by the interpreter inside
  // this destructor. It waits here instead until the process is gone. Threads that
  // serve a call into Python are let through: the exit hook waits for them.
  if (mustStayOutOfInterpreter()) {
    for (;;) std::this_thread::sleep_for(std::chrono::hours(1));
  }
  PyEval_RestoreThread(state_);
}

namespace {

// The interpreter state of a thread that the interpreter did not create (a framework
// thread), kept from one call to the next: without it each call would build and tear
// down a thread state (with its frame stack) around a few microseconds of Python.
// Deleted when the thread ends, unless the interpreter is already going away (it
// frees the states of every thread itself then).
class KeptThreadState {
 public:
  ~KeptThreadState() {
    if (state_ == nullptr) return;
    try {
      ScopedInterpreterEntry entry;
      // The interpreter may have been started again since: a state of the one before
      // is not ours to touch.
      if (PyGILState_GetThisThreadState() != state_) return;
      PyEval_RestoreThread(state_);
      PyGILState_Release(keepToken_);  // the last hold: clears and deletes the state
    } catch (const KXError&) {
      // The interpreter is going away.
    }
  }

  // Gives the calling thread a state that outlives this call, when it has none.
  void keepOnFirstUse() {
    if (state_ != nullptr || PyGILState_GetThisThreadState() != nullptr) return;
    keepToken_ = PyGILState_Ensure();  // creates the state and takes the lock
    state_ = PyEval_SaveThread();      // keeps the state, gives the lock back
  }

 private:
  PyThreadState* state_ = nullptr;
  PyGILState_STATE keepToken_ = PyGILState_UNLOCKED;
};

thread_local KeptThreadState keptThreadState;

}  // namespace

ScopedGILAcquire::ScopedGILAcquire() {
  keptThreadState.keepOnFirstUse();
  state_ = PyGILState_Ensure();
}

ScopedGILAcquire::~ScopedGILAcquire() { PyGILState_Release(state_); }

}  // namespace python
}  // namespace KX
