#ifndef VELMO_PYTHON_PYEXIT_H_
#define VELMO_PYTHON_PYEXIT_H_

namespace KX {
namespace python {

// Registers, with Python's atexit, the hook that runs before the interpreter goes
// away: it closes the interpreter gate (framework threads may not enter any more),
// shuts down the brokers that Python created, most recent first, and waits for the
// calls into Python still running, with the interpreter lock released so that they
// can finish. Called once by the module initialiser, with the interpreter lock held;
// returns false with a Python error set when the registration failed.
bool installExitHook();

}  // namespace python
}  // namespace KX

#endif  // VELMO_PYTHON_PYEXIT_H_
