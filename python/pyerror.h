#ifndef VELMO_PYTHON_PYERROR_H_
#define VELMO_PYTHON_PYERROR_H_

#ifndef PY_SSIZE_T_CLEAN
#define PY_SSIZE_T_CLEAN
#endif
#include <Python.h>

#include "value/kxerror.h"

namespace KX {
namespace python {

// The one place where a framework error becomes a Python exception: sets
// RuntimeError whose text is the error's what() text, every byte of it (bytes that
// are not UTF-8 come through as escaped surrogates). The caller holds the
// interpreter lock and returns NULL to Python afterwards.
void setPythonError(const KXError& error);

// Answers a call that matches no signature of an overloaded function: raises
// NotImplementedError whose text is `message` alone ("Wrong number or type of
// arguments for overloaded function ..."), replacing the TypeError that the
// argument unpacking may have left (too many arguments, for instance).
void setOverloadError(const char* message);

}  // namespace python
}  // namespace KX

#endif  // VELMO_PYTHON_PYERROR_H_
