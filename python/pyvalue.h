#ifndef VELMO_PYTHON_PYVALUE_H_
#define VELMO_PYTHON_PYVALUE_H_

#ifndef PY_SSIZE_T_CLEAN
#define PY_SSIZE_T_CLEAN
#endif
#include <Python.h>

#include "value/kxvalue.h"

// Conversions between Python objects and KXValue, used on both sides of every
// call that carries framework values. Both run only while the calling thread
// holds the interpreter lock, run no Python code, and never fail: what cannot be
// represented becomes an Invalid value one way and None the other way, and they
// leave no Python error set behind them.
namespace KX {
namespace python {

// Python to value, first match wins:
//   list (or subclass)            -> Array, element by element
//   exactly bool                  -> Bool
//   float (or subclass)           -> Float, narrowed to 32 bits
//   int (or subclass, not bool)   -> Int when it fits 32 signed bits, else Invalid
//   str (or subclass)             -> String of its UTF-8 bytes; characters that came
//                                    from undecodable bytes ("surrogateescape") turn
//                                    back into those bytes; a str that cannot be
//                                    encoded even so gives Invalid
//   bytes, bytearray              -> Binary
//   anything else                 -> Invalid
// A list that contains itself, or nesting deeper than the interpreter's recursion
// limit, gives Invalid at the point where the conversion stops.
KXValue pyToValue(PyObject* object);

// Value to Python; returns a new reference, never null:
//   Array -> list, Bool -> bool, Int -> int, Float -> float (widened),
//   String -> str decoded from UTF-8 with "surrogateescape", Binary -> bytes,
//   Object -> None and the line "obj" on standard output, Invalid -> None.
PyObject* valueToPy(const KXValue& value);

}  // namespace python
}  // namespace KX

#endif  // VELMO_PYTHON_PYVALUE_H_
