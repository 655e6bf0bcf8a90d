#ifndef VELMO_PYTHON_PYREF_H_
#define VELMO_PYTHON_PYREF_H_

#ifndef PY_SSIZE_T_CLEAN
#define PY_SSIZE_T_CLEAN
#endif
#include <Python.h>

#include <memory>

namespace KX {
namespace python {

// Drops one Python reference; the interpreter lock must be held.
struct PyObjectDecRef {
  void operator()(PyObject* object) const { Py_XDECREF(object); }
};

// Owns one strong Python reference, so every way out of a function drops it.
// Destroy it only while holding the interpreter lock.
using PyObjectPtr = std::unique_ptr<PyObject, PyObjectDecRef>;

}  // namespace python
}  // namespace KX

#endif  // VELMO_PYTHON_PYREF_H_
