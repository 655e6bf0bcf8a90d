#include "python/pyvalue.h"

#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <new>
#include <string>
#include <vector>

#include "python/pyref.h"

namespace KX {
namespace python {
namespace {

// Keeps the C stack bounded on deeply nested containers: past the interpreter's
// recursion limit the conversion stops (the interpreter reports RecursionError,
// which the caller clears).
class RecursionGuard {
 public:
  RecursionGuard() : entered_(Py_EnterRecursiveCall(" while converting a value") == 0) {}
  ~RecursionGuard() {
    if (entered_) Py_LeaveRecursiveCall();
  }
  RecursionGuard(const RecursionGuard&) = delete;
  RecursionGuard& operator=(const RecursionGuard&) = delete;

  bool entered() const { return entered_; }

 private:
  bool entered_;
};

// Narrows a Python float to the value's 32-bit Float the way an IEEE conversion
// rounds: magnitudes past the largest float round to it or overflow to infinity.
// The explicit test keeps the out-of-range case defined in C++.
float narrowToFloat(double number) {
  if (std::isnan(number) || std::fabs(number) <= static_cast<double>(FLT_MAX)) {
    return static_cast<float>(number);
  }
  // Half a unit in the last place above FLT_MAX; from there on, rounding to nearest
  // (ties to even) gives infinity.
  static const double kOverflowThreshold = std::ldexp(2.0 - std::ldexp(1.0, -24), 127);
  const float magnitude = std::fabs(number) < kOverflowThreshold ? FLT_MAX : INFINITY;
  return std::signbit(number) ? -magnitude : magnitude;
}

PyObject* newNone() {
  Py_INCREF(Py_None);
  return Py_None;
}

// `ancestors` holds the lists being converted on the way down, so that a list met
// again inside itself is cut (Invalid) instead of recursing until the limit.
KXValue listToValue(PyObject* list, std::vector<PyObject*>& ancestors);

KXValue toValue(PyObject* object, std::vector<PyObject*>& ancestors) {
  if (PyList_Check(object)) {
    for (PyObject* ancestor : ancestors) {
      if (ancestor == object) return KXValue();
    }
    RecursionGuard guard;
    if (!guard.entered()) {
      PyErr_Clear();
      return KXValue();
    }
    ancestors.push_back(object);
    KXValue array = listToValue(object, ancestors);
    ancestors.pop_back();
    return array;
  }
  // bool cannot be subclassed, so the check is an exact type test; it comes before
  // the int test because bool is an int subclass.
  if (PyBool_Check(object)) return KXValue(object == Py_True);
  if (PyFloat_Check(object)) return KXValue(narrowToFloat(PyFloat_AS_DOUBLE(object)));
  if (PyLong_Check(object)) {
    // Values beyond 32 bits have no Int to go to; they travel as Invalid.
    int overflow = 0;
    const long number = PyLong_AsLongAndOverflow(object, &overflow);
    if (overflow != 0 || number < INT32_MIN || number > INT32_MAX) return KXValue();
    if (number == -1 && PyErr_Occurred()) {
      PyErr_Clear();
      return KXValue();
    }
    return KXValue(static_cast<int>(number));
  }
  if (PyUnicode_Check(object)) {
    // "surrogateescape" turns the characters that stand for undecodable bytes back
    // into those bytes; other lone surrogates cannot be encoded at all.
    PyObjectPtr bytes(PyUnicode_AsEncodedString(object, "utf-8", "surrogateescape"));
    if (!bytes) {
      PyErr_Clear();
      return KXValue();
    }
    return KXValue(std::string(PyBytes_AS_STRING(bytes.get()),
                               static_cast<size_t>(PyBytes_GET_SIZE(bytes.get()))));
  }
  if (PyBytes_Check(object)) {
    KXValue binary;
    binary.setBinary(PyBytes_AS_STRING(object), static_cast<size_t>(PyBytes_GET_SIZE(object)));
    return binary;
  }
  if (PyByteArray_Check(object)) {
    KXValue binary;
    binary.setBinary(PyByteArray_AS_STRING(object),
                     static_cast<size_t>(PyByteArray_GET_SIZE(object)));
    return binary;
  }
  return KXValue();
}

KXValue listToValue(PyObject* list, std::vector<PyObject*>& ancestors) {
  // The list's own storage is read (as the C API does for subclasses too); no Python
  // code runs meanwhile, so its size cannot change under us.
  const Py_ssize_t size = PyList_GET_SIZE(list);
  if (size > INT_MAX) return KXValue();
  KXValue array;
  array.xAssertCompatibleType(KXValue::TypeArray);
  array.arraySetSize(static_cast<int>(size));
  for (Py_ssize_t i = 0; i < size; ++i) {
    array[static_cast<int>(i)] = toValue(PyList_GET_ITEM(list, i), ancestors);
  }
  return array;
}

PyObject* toPy(const KXValue& value) {
  switch (value.getType()) {
    case KXValue::TypeArray: {
      RecursionGuard guard;
      if (!guard.entered()) {
        PyErr_Clear();
        return newNone();
      }
      const int size = value.getSize();
      PyObjectPtr list(PyList_New(size));
      if (!list) {
        PyErr_Clear();
        return newNone();
      }
      for (int i = 0; i < size; ++i) {
        // PyList_SET_ITEM steals the element's reference.
        PyList_SET_ITEM(list.get(), i, toPy(value[i]));
      }
      return list.release();
    }
    case KXValue::TypeBool:
      return PyBool_FromLong(static_cast<bool>(value) ? 1 : 0);
    case KXValue::TypeInt: {
      PyObject* number = PyLong_FromLong(static_cast<int>(value));
      if (number) return number;
      break;
    }
    case KXValue::TypeFloat: {
      PyObject* number = PyFloat_FromDouble(static_cast<double>(static_cast<float>(value)));
      if (number) return number;
      break;
    }
    case KXValue::TypeString: {
      const std::string& text = static_cast<const std::string&>(value);
      PyObject* string = PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()),
                                              "surrogateescape");
      if (string) return string;
      break;
    }
    case KXValue::TypeBinary: {
      const KXValue::TKXValueBinary& bytes = value.getBinary();
      PyObject* result = PyBytes_FromStringAndSize(reinterpret_cast<const char*>(bytes.data()),
                                                   static_cast<Py_ssize_t>(bytes.size()));
      if (result) return result;
      break;
    }
    case KXValue::TypeObject:
      // Flushed at once so the line keeps its place among the other output of the
      // process, native and Python alike.
      std::printf("obj\n");
      std::fflush(stdout);
      return newNone();
    case KXValue::TypeInvalid:
      return newNone();
  }
  // Only an allocation failure of the interpreter ends here.
  PyErr_Clear();
  return newNone();
}

}  // namespace

KXValue pyToValue(PyObject* object) {
  if (object == nullptr) return KXValue();
  try {
    std::vector<PyObject*> ancestors;
    return toValue(object, ancestors);
  } catch (const std::bad_alloc&) {
    return KXValue();
  }
}

PyObject* valueToPy(const KXValue& value) {
  try {
    return toPy(value);
  } catch (const std::bad_alloc&) {
    // A half-built list was released on the way out.
    PyErr_Clear();
    return newNone();
  }
}

}  // namespace python
}  // namespace KX
