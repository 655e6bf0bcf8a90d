#ifndef VELMO_PYTHON_TESTS_EMBEDDED_PYTHON_H_
#define VELMO_PYTHON_TESTS_EMBEDDED_PYTHON_H_

// The kit of the bridge tests, which run inside one embedded interpreter whose lock the
// test thread holds (see python_test_main.cpp).

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>

#include "broker/kxbroker.h"
#include "memory/kxstandardmodules.h"
#include "python/pycurrentbroker.h"
#include "python/pygil.h"
#include "python/pyref.h"

namespace KX {
namespace python {
namespace testing {

// The namespace of __main__ (borrowed reference).
inline PyObject* mainDict() { return PyModule_GetDict(PyImport_AddModule("__main__")); }

// Runs statements (or, with Py_eval_input, an expression) in __main__; null and the
// traceback printed on error.
inline PyObjectPtr eval(const std::string& code, int start = Py_eval_input) {
  PyObjectPtr result(PyRun_String(code.c_str(), start, mainDict(), mainDict()));
  if (!result) PyErr_Print();
  return result;
}
inline bool run(const std::string& code) { return eval(code, Py_file_input) != nullptr; }

// Binds `object` to the name `r` in __main__ and evaluates `predicate` there.
inline bool check(PyObject* object, const std::string& predicate) {
  if (PyDict_SetItemString(mainDict(), "r", object) != 0) {
    PyErr_Print();
    return false;
  }
  PyObjectPtr result = eval(predicate);
  return result && PyObject_IsTrue(result.get()) == 1;
}

// Takes the pending Python exception: its class (new reference) and its str() text.
inline std::pair<PyObjectPtr, std::string> takeError() {
  PyObject *type = nullptr, *value = nullptr, *traceback = nullptr;
  PyErr_Fetch(&type, &value, &traceback);
  PyErr_NormalizeException(&type, &value, &traceback);
  PyObjectPtr typeRef(type), valueRef(value), tracebackRef(traceback);
  PyObjectPtr text(valueRef ? PyObject_Str(valueRef.get()) : nullptr);
  PyObjectPtr bytes(text ? PyUnicode_AsEncodedString(text.get(), "utf-8", "surrogateescape")
                         : nullptr);
  PyErr_Clear();
  return {std::move(typeRef),
          bytes ? std::string(PyBytes_AS_STRING(bytes.get()), PyBytes_GET_SIZE(bytes.get())) : ""};
}

// A root broker "pytest" with the standard modules, the current broker of Python's world
// for the test. Created and shut down with the interpreter lock released, as its
// threads may run Python code.
class BrokerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ScopedGILRelease release;
    broker_ =
        KXBroker::createBroker("pytest", "127.0.0.1", 0, "", 0, KXBroker::kKeepAlive, "", false);
    addStandardModules(broker_);
    setCurrentBroker(broker_);
  }
  void TearDown() override {
    ScopedGILRelease release;
    setCurrentBroker(nullptr);
    broker_->shutdown();
  }

  std::shared_ptr<KXBroker> broker_;
};

}  // namespace testing
}  // namespace python
}  // namespace KX

#endif  // VELMO_PYTHON_TESTS_EMBEDDED_PYTHON_H_
