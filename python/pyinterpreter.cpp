#include "python/pyinterpreter.h"

#ifndef PY_SSIZE_T_CLEAN
#define PY_SSIZE_T_CLEAN
#endif
#include <Python.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

#include "log/processwide.h"
#include "value/kxerror.h"

namespace KX {
namespace python {
namespace {

// The gate. Its mutex is a leaf: nothing else is locked, and the interpreter lock is
// never asked for, while it is held.
struct Gate {
  std::mutex mutex;
  std::condition_variable left;
  bool closed = false;     // guarded by mutex
  std::thread::id closer;  // guarded by mutex
  int inside = 0;          // guarded by mutex
};

Gate& gate() {
  // Pool threads may pass the gate while the process exits.
  static tu::ProcessWide<Gate> instance;
  return instance.get();
}

thread_local int entryDepth = 0;

}  // namespace

ScopedInterpreterEntry::ScopedInterpreterEntry() {
  Gate& g = gate();
  std::lock_guard<std::mutex> lock(g.mutex);
  // A thread already inside holds what the hook waits for: its nested entries are
  // refused too, so that it unwinds and leaves.
  if (g.closed || _Py_IsFinalizing()) {
    KX_THROW("KXPythonTools", "eval", "The Python interpreter is shutting down");
  }
  ++g.inside;
  ++entryDepth;
}

ScopedInterpreterEntry::~ScopedInterpreterEntry() {
  Gate& g = gate();
  --entryDepth;
  std::lock_guard<std::mutex> lock(g.mutex);
  if (--g.inside == 0) g.left.notify_all();
}

void openInterpreterGate() {
  Gate& g = gate();
  std::lock_guard<std::mutex> lock(g.mutex);
  g.closed = false;
}

void closeInterpreterGate() {
  Gate& g = gate();
  std::lock_guard<std::mutex> lock(g.mutex);
  g.closed = true;
  g.closer = std::this_thread::get_id();
}

void waitForInterpreterEntries() {
  Gate& g = gate();
  std::unique_lock<std::mutex> lock(g.mutex);
  g.left.wait(lock, [&g] { return g.inside == 0; });
}

bool mustStayOutOfInterpreter() {
  if (entryDepth > 0) return false;
  Gate& g = gate();
  std::lock_guard<std::mutex> lock(g.mutex);
  return g.closed && g.closer != std::this_thread::get_id();
}

}  // namespace python
}  // namespace KX
