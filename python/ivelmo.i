// The Python extension `_ivelmo` and its shadow module `ivelmo`.
//
// Each subsystem's Python face lives in its own interface file, included at the
// end; a new one only needs its %include line here (and its header in the
// %{ %} block below when its wrappers need it).
%module ivelmo

%{
#include "python/kxsystem.h"
#include "python/pyerror.h"
#include "python/pyexit.h"
#include "python/pygil.h"
#include "python/pyvalue.h"
#include "value/kxerror.h"

// A call that fits no signature of an overloaded function raises
// NotImplementedError with the overload text alone. Defined here, after SWIG's
// runtime, so it redirects only the dispatchers' calls.
#define SWIG_Python_RaiseOrModifyTypeError(message) KX::python::setOverloadError(message)
%}

// None converts to a null pointer: as the object of a method it is refused as any other
// object of the wrong type would be. `broker` is the exception: its methods act on
// Python's current broker and never read the object.
%typemap(check) SWIGTYPE* self {
  if (!$1) {
    SWIG_exception_fail(SWIG_TypeError,
                        "in method '" "$symname" "', argument 1 of type '" "$1_type" "'");
  }
}
%typemap(check) KX::broker* self "";

// std_except.i maps the containers' standard exceptions to Python classes
// (std::invalid_argument to ValueError, std::out_of_range to IndexError).
%include "std_except.i"
%include "std_string.i"
%include "std_vector.i"

// The containers translate their own standard exceptions (IndexError,
// ValueError, StopIteration), so they are declared before the framework's error
// translation below and stay out of it.
%template(StringVector) std::vector<std::string>;
// SWIG adds the vector's destructor at the end of the module, under the block below.
%noexception std::vector<std::string>::~vector;

// Every framework call made from here on turns a KXError into RuntimeError with
// the error's text. Nothing else is caught: any other exception is a bug.
%exception {
  try {
    $action
  } catch (const KX::KXError& error) {
    KX::python::setPythonError(error);
    SWIG_fail;
  }
}

%include "kxvalue.i"
%include "kxsystem.i"
%include "broker.i"
%include "behavior.i"
// Last: it releases the interpreter lock in every wrapper that follows it.
%include "memoryproxy.i"

// Brokers that Python created are shut down before the interpreter goes away.
%init %{
  if (!KX::python::installExitHook()) return NULL;
%}
