#include "python/pygil.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <type_traits>

#include "embedded_python.h"
#include "python/pyref.h"
#include "value/kxerror.h"

namespace KX {
namespace python {
namespace {

using testing::eval;
using testing::run;

static_assert(!std::is_copy_constructible_v<ScopedGILRelease>);
static_assert(!std::is_copy_assignable_v<ScopedGILRelease>);
static_assert(!std::is_copy_constructible_v<ScopedGILAcquire>);
static_assert(!std::is_copy_assignable_v<ScopedGILAcquire>);

TEST(ScopedGILRelease, ReleasesForTheScopeAndTakesBack) {
  ASSERT_EQ(PyGILState_Check(), 1);
  {
    ScopedGILRelease release;
    EXPECT_EQ(PyGILState_Check(), 0);
  }
  EXPECT_EQ(PyGILState_Check(), 1);
}

TEST(ScopedGILRelease, TakesBackWhenAnExceptionLeavesTheScope) {
  bool heldInHandler = false;
  try {
    ScopedGILRelease release;
    KX_THROW("broker", "shutdown", "failed");
  } catch (const KXError&) {
    heldInHandler = PyGILState_Check() == 1;
  }
  EXPECT_TRUE(heldInHandler);
  EXPECT_EQ(PyGILState_Check(), 1);

  try {
    ScopedGILRelease release;
    throw std::runtime_error("other");
  } catch (const std::runtime_error&) {
  }
  EXPECT_EQ(PyGILState_Check(), 1);
}

// A Python thread that needs the interpreter lock to finish its work. It first
// waits, lock released, for `go`; it can then only get back into Python (and call
// `notify`) while the test thread has released the lock.
struct Handshake {
  std::mutex mutex;
  std::condition_variable changed;
  bool go = false;
  bool notified = false;
};
Handshake handshake;

PyObject* waitForGo(PyObject*, PyObject*) {
  // Plain C API here, independent of the class under test.
  PyThreadState* state = PyEval_SaveThread();
  bool arrived = false;
  {
    std::unique_lock<std::mutex> lock(handshake.mutex);
    arrived =
        handshake.changed.wait_for(lock, std::chrono::seconds(30), [] { return handshake.go; });
  }
  PyEval_RestoreThread(state);
  if (!arrived) {
    PyErr_SetString(PyExc_RuntimeError, "no go");
    return nullptr;
  }
  Py_RETURN_NONE;
}

PyObject* notify(PyObject*, PyObject*) {
  std::lock_guard<std::mutex> lock(handshake.mutex);
  handshake.notified = true;
  handshake.changed.notify_all();
  Py_RETURN_NONE;
}

PyMethodDef waitForGoDef = {"wait_for_go", waitForGo, METH_NOARGS, nullptr};
PyMethodDef notifyDef = {"notify", notify, METH_NOARGS, nullptr};

TEST(ScopedGILRelease, AnotherPythonThreadRunsWhileReleased) {
  PyObjectPtr waitFunction(PyCFunction_New(&waitForGoDef, nullptr));
  PyObjectPtr notifyFunction(PyCFunction_New(&notifyDef, nullptr));
  ASSERT_TRUE(waitFunction && notifyFunction);
  ASSERT_EQ(PyDict_SetItemString(testing::mainDict(), "wait_for_go", waitFunction.get()), 0);
  ASSERT_EQ(PyDict_SetItemString(testing::mainDict(), "notify", notifyFunction.get()), 0);
  ASSERT_TRUE(
      run("import threading\n"
          "def work():\n"
          "    wait_for_go()\n"
          "    notify()\n"
          "worker = threading.Thread(target=work)\n"
          "worker.start()\n"));

  bool notified = false;
  {
    ScopedGILRelease release;
    std::unique_lock<std::mutex> lock(handshake.mutex);
    handshake.go = true;
    handshake.changed.notify_all();
    notified = handshake.changed.wait_for(lock, std::chrono::seconds(30),
                                          [] { return handshake.notified; });
  }
  EXPECT_TRUE(notified);
  ASSERT_TRUE(run("worker.join(60)\nassert not worker.is_alive()\n"));
}

TEST(ScopedGILAcquire, LetsANativeThreadRunPython) {
  int heldInside = -1;
  int heldNested = -1;
  int heldAfterNested = -1;
  int heldAfter = -1;
  long sum = 0;
  {
    ScopedGILRelease release;
    std::thread native([&] {
      {
        ScopedGILAcquire acquire;
        heldInside = PyGILState_Check();
        PyObjectPtr result = eval("sum(range(10))");
        if (result) sum = PyLong_AsLong(result.get());
        {
          ScopedGILAcquire nested;
          heldNested = PyGILState_Check();
        }
        heldAfterNested = PyGILState_Check();
      }
      heldAfter = PyGILState_Check();
    });
    native.join();
  }
  EXPECT_EQ(heldInside, 1);
  EXPECT_EQ(sum, 45);
  EXPECT_EQ(heldNested, 1);
  EXPECT_EQ(heldAfterNested, 1);
  EXPECT_EQ(heldAfter, 0);
  EXPECT_EQ(PyGILState_Check(), 1);
}

}  // namespace
}  // namespace python
}  // namespace KX
