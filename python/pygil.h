#ifndef VELMO_PYTHON_PYGIL_H_
#define VELMO_PYTHON_PYGIL_H_

#ifndef PY_SSIZE_T_CLEAN
#define PY_SSIZE_T_CLEAN
#endif
#include <Python.h>

namespace KX {
namespace python {

// Releases the interpreter lock for the lifetime of the object, so that a blocking
// framework call lets other Python threads (and framework threads that run Python
// code) proceed. Construct it only while holding the lock; the destructor takes the
// lock back on every way out, a thrown exception included, before the caller
// touches a Python object again. Not copyable: the saved thread state belongs to
// exactly one scope.
class ScopedGILRelease {
 public:
  ScopedGILRelease();
  ~ScopedGILRelease();

  ScopedGILRelease(const ScopedGILRelease&) = delete;
  ScopedGILRelease& operator=(const ScopedGILRelease&) = delete;

 private:
  PyThreadState* state_;
};

// Takes the interpreter lock for the lifetime of the object through the
// interpreter's per-thread state mechanism, so that any thread (one the interpreter
// never saw included) may run Python code inside the scope. A thread the interpreter
// never saw keeps the state it gets from one scope to the next, until it ends (its end
// takes the lock once more to delete it: never join such a thread while holding the
// lock, as no thread that runs Python code may be joined under it anyway). Nests:
// an inner scope on a thread that already holds the lock is harmless. Not copyable.
// Framework threads construct it inside a ScopedInterpreterEntry.
class ScopedGILAcquire {
 public:
  ScopedGILAcquire();
  ~ScopedGILAcquire();

  ScopedGILAcquire(const ScopedGILAcquire&) = delete;
  ScopedGILAcquire& operator=(const ScopedGILAcquire&) = delete;

 private:
  PyGILState_STATE state_;
};

}  // namespace python
}  // namespace KX

#endif  // VELMO_PYTHON_PYGIL_H_
