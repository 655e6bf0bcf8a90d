#include "python/pyerror.h"

#include <cstring>

#include "python/pyref.h"

namespace KX {
namespace python {

void setPythonError(const KXError& error) {
  const char* text = error.what();
  PyObjectPtr message(
      PyUnicode_DecodeUTF8(text, static_cast<Py_ssize_t>(std::strlen(text)), "surrogateescape"));
  if (!message) {
    // Out of memory: the interpreter's MemoryError is already set and says more.
    return;
  }
  PyErr_SetObject(PyExc_RuntimeError, message.get());
}

void setOverloadError(const char* message) {
  PyErr_Clear();
  PyErr_SetString(PyExc_NotImplementedError, message);
}

}  // namespace python
}  // namespace KX
