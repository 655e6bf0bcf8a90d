#include "python/kxpythontools.h"

#include "python/pygil.h"
#include "python/pyinterpreter.h"
#include "python/pyref.h"
#include "python/pyvalue.h"
#include "value/kxerror.h"

namespace KX {
namespace python {
namespace {

// The most positional arguments a Python method is called with.
constexpr int kMaxArguments = 6;

// str(object) as UTF-8 bytes (undecodable characters kept as they came); empty when
// the object cannot be shown.
std::string textOf(PyObject* object) {
  PyObjectPtr text(PyObject_Str(object));
  PyObjectPtr bytes(text ? PyUnicode_AsEncodedString(text.get(), "utf-8", "surrogateescape")
                         : nullptr);
  if (!bytes) {
    PyErr_Clear();
    return std::string();
  }
  return std::string(PyBytes_AS_STRING(bytes.get()),
                     static_cast<std::size_t>(PyBytes_GET_SIZE(bytes.get())));
}

// Takes the pending exception, if any: "<type>\n<value>", the traceback dropped.
std::string takeErrorText() {
  if (!PyErr_Occurred()) return std::string();
  PyObject* type = nullptr;
  PyObject* value = nullptr;
  PyObject* traceback = nullptr;
  PyErr_Fetch(&type, &value, &traceback);
  PyErr_NormalizeException(&type, &value, &traceback);
  PyObjectPtr typeRef(type), valueRef(value), tracebackRef(traceback);
  std::string text = typeRef ? textOf(typeRef.get()) : std::string();
  text += "\n";
  if (valueRef) text += textOf(valueRef.get());
  return text;
}

// What the method printed shows up now, not whenever the buffer fills.
void flushStandardOutput() {
  PyObject* out = PySys_GetObject("stdout");  // borrowed
  if (out != nullptr && out != Py_None) {
    PyObjectPtr flushed(PyObject_CallMethod(out, "flush", nullptr));
  }
  PyErr_Clear();
}

}  // namespace

std::string callPython(const std::string& objectName, const std::string& methodName,
                       const KXValue& params, KXValue& result) {
  ScopedInterpreterEntry entry;
  ScopedGILAcquire gil;

  PyObject* main = PyImport_AddModule("__main__");  // borrowed
  PyObject* found = main != nullptr
                        ? PyDict_GetItemString(PyModule_GetDict(main), objectName.c_str())
                        : nullptr;  // borrowed
  if (found == nullptr) {
    PyErr_Clear();
    KX_THROW("KXPythonTools", "eval", "python object not found " + objectName);
  }
  // Held for the call: the method may replace the name in __main__ meanwhile.
  Py_INCREF(found);
  const PyObjectPtr objectRef(found);
  PyObject* const object = objectRef.get();
  PyObjectPtr name(PyUnicode_DecodeUTF8(
      methodName.data(), static_cast<Py_ssize_t>(methodName.size()), "surrogateescape"));
  if (!name) {
    PyErr_Clear();
    KX_THROW("KXPythonTools", "eval", "method not found " + methodName);
  }

  PyObjectPtr called;
  if (params.getType() != KXValue::TypeArray) {
    called.reset(PyObject_CallMethodNoArgs(object, name.get()));
  } else if (params.getSize() <= kMaxArguments) {
    PyObjectPtr arguments(PyTuple_New(params.getSize()));
    if (arguments) {
      for (int i = 0; i < params.getSize(); ++i) {
        PyTuple_SET_ITEM(arguments.get(), i, valueToPy(params[i]));  // steals the reference
      }
      PyObjectPtr method(PyObject_GetAttr(object, name.get()));
      if (method) called.reset(PyObject_Call(method.get(), arguments.get(), nullptr));
    }
  }

  const std::string error = takeErrorText();
  if (called) result = pyToValue(called.get());
  called.reset();
  flushStandardOutput();
  return error;
}

}  // namespace python
}  // namespace KX
