#ifndef VELMO_PYTHON_PYINTERPRETER_H_
#define VELMO_PYTHON_PYINTERPRETER_H_

// When framework threads may still enter the interpreter.
//
// Framework threads (pool workers serving calls into Python modules) take the
// interpreter lock on their own initiative. Once the interpreter starts going away
// they must not: a thread that asks for the lock of a finalizing interpreter is ended
// by the interpreter itself, in the middle of framework code. So every entry passes a
// gate, which the interpreter's exit hook closes before finalization begins: from
// then on an entry fails with a KXError, and the hook waits until the entries already
// inside have left.

namespace KX {
namespace python {

// One framework thread's stay inside the interpreter, from before it asks for the
// interpreter lock until after it gave it back. Nests on one thread. Throws
// KXError("KXPythonTools", "eval", "The Python interpreter is shutting down") once the
// gate is closed (or the interpreter is already finalizing). Not copyable.
class ScopedInterpreterEntry {
 public:
  ScopedInterpreterEntry();
  ~ScopedInterpreterEntry();

  ScopedInterpreterEntry(const ScopedInterpreterEntry&) = delete;
  ScopedInterpreterEntry& operator=(const ScopedInterpreterEntry&) = delete;
};

// Opens the gate: the module initialiser does, so that an interpreter started again in
// this process after an earlier one went away can be entered.
void openInterpreterGate();
// Closes the gate to new entries. Called by the exit hook, which holds the interpreter
// lock: it returns at once.
void closeInterpreterGate();
// Waits until every entry has left. The caller must not hold the interpreter lock:
// the threads inside need it to finish.
void waitForInterpreterEntries();

// Whether a Python thread that released the interpreter lock must not take it back:
// the gate is closed, and the calling thread is neither inside an entry (the hook
// waits for those) nor the thread that closed the gate (it goes on finalizing).
bool mustStayOutOfInterpreter();

}  // namespace python
}  // namespace KX

#endif  // VELMO_PYTHON_PYINTERPRETER_H_
