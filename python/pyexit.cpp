#include "python/pyexit.h"

#include "log/log.h"
#include "python/pycurrentbroker.h"
#include "python/pyinterpreter.h"
#include "python/pyref.h"
#include "value/kxerror.h"

namespace KX {
namespace python {
namespace {

PyObject* onInterpreterExit(PyObject*, PyObject*) {
  closeInterpreterGate();
  // Not a ScopedGILRelease: this thread goes on to finalize the interpreter, and the
  // brokers' threads need the lock to leave the Python code they are running.
  PyThreadState* const state = PyEval_SaveThread();
  try {
    shutdownCreatedBrokers();
  } catch (const KXError& error) {
    TU_LOG(tu::log::error, "behavior.ivelmo", "KX::python::onInterpreterExit")
        << error.what() << std::endl;
  }
  waitForInterpreterEntries();
  PyEval_RestoreThread(state);
  Py_RETURN_NONE;
}

PyMethodDef exitHookDefinition = {"_shutdown_brokers", onInterpreterExit, METH_NOARGS, nullptr};

}  // namespace

bool installExitHook() {
  openInterpreterGate();
  PyObjectPtr hook(PyCFunction_New(&exitHookDefinition, nullptr));
  PyObjectPtr atexit(PyImport_ImportModule("atexit"));
  if (!hook || !atexit) return false;
  PyObjectPtr registered(PyObject_CallMethod(atexit.get(), "register", "O", hook.get()));
  return registered != nullptr;
}

}  // namespace python
}  // namespace KX
