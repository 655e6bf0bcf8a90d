#ifndef VELMO_PYTHON_KXPYTHONTOOLS_H_
#define VELMO_PYTHON_KXPYTHONTOOLS_H_

#include <string>

#include "value/kxvalue.h"

namespace KX {
namespace python {

// Calls the method `methodName` of the object that the namespace of `__main__` holds
// under `objectName`, from any thread (it takes the interpreter lock through the
// interpreter's per-thread state mechanism and holds no other lock meanwhile).
//
// Arguments: an Array of up to 6 elements gives that many positional arguments, each
// converted with valueToPy; any other value calls the method without arguments; an
// Array of more than 6 elements calls nothing. The method's result, converted with
// pyToValue, replaces `result` (None gives Invalid); `result` is left alone when no
// call was made or the call raised.
//
// Returns the empty text, or for a Python exception the text form of its type, "\n"
// and the text form of its value (the exception is cleared; it never reaches the
// calling thread's Python code). Throws KXError("KXPythonTools", "eval", "python
// object not found <objectName>") when `__main__` holds no such object, and the
// interpreter gate's error once the interpreter is going away.
std::string callPython(const std::string& objectName, const std::string& methodName,
                       const KXValue& params, KXValue& result);

}  // namespace python
}  // namespace KX

#endif  // VELMO_PYTHON_KXPYTHONTOOLS_H_
