#ifndef VELMO_PYTHON_TESTS_EMBEDDED_PYTHON_H_
#define VELMO_PYTHON_TESTS_EMBEDDED_PYTHON_H_

#include <string>
#include <utility>

#include "python/pyref.h"

namespace KX {
namespace python {
namespace testing {

// The namespace of __main__ (borrowed reference).
inline PyObject* mainDict() { return PyModule_GetDict(PyImport_AddModule("__main__")); }

// Runs statements in __main__; returns false (and prints the traceback) on error.
inline bool run(const char* code) {
  PyObjectPtr result(PyRun_String(code, Py_file_input, mainDict(), mainDict()));
  if (!result) PyErr_Print();
  return result != nullptr;
}

// Evaluates an expression in __main__; null (traceback printed) on error.
inline PyObjectPtr eval(const char* expression) {
  PyObjectPtr result(PyRun_String(expression, Py_eval_input, mainDict(), mainDict()));
  if (!result) PyErr_Print();
  return result;
}

// Binds `object` to the name `r` in __main__ and evaluates `predicate` there.
inline bool check(PyObject* object, const char* predicate) {
  if (PyDict_SetItemString(mainDict(), "r", object) != 0) {
    PyErr_Print();
    return false;
  }
  PyObjectPtr result = eval(predicate);
  return result && PyObject_IsTrue(result.get()) == 1;
}

// Takes the pending Python exception: its class (new reference) and its str() text.
inline std::pair<PyObjectPtr, std::string> takeError() {
  PyObject* type = nullptr;
  PyObject* value = nullptr;
  PyObject* traceback = nullptr;
  PyErr_Fetch(&type, &value, &traceback);
  PyErr_NormalizeException(&type, &value, &traceback);
  PyObjectPtr typeRef(type), valueRef(value), tracebackRef(traceback);
  std::string text;
  if (valueRef) {
    PyObjectPtr str(PyObject_Str(valueRef.get()));
    PyObjectPtr bytes(str ? PyUnicode_AsEncodedString(str.get(), "utf-8", "surrogateescape")
                          : nullptr);
    if (bytes) text.assign(PyBytes_AS_STRING(bytes.get()), PyBytes_GET_SIZE(bytes.get()));
    PyErr_Clear();
  }
  return {std::move(typeRef), text};
}

}  // namespace testing
}  // namespace python
}  // namespace KX

#endif  // VELMO_PYTHON_TESTS_EMBEDDED_PYTHON_H_
