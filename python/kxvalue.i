// How framework values and flags cross the boundary.

// Known by name only: values never appear in Python as wrapped objects.
namespace KX {
class KXValue;
}

// A KXValue argument is converted from any Python object (what cannot be represented
// becomes an Invalid value); a KXValue result becomes the matching Python object.
%typemap(in) const KX::KXValue& (KX::KXValue converted) {
  converted = KX::python::pyToValue($input);
  $1 = &converted;
}
%typemap(typecheck, precedence=SWIG_TYPECHECK_POINTER) const KX::KXValue& "$1 = 1;";
%typemap(out) KX::KXValue {
  $result = KX::python::valueToPy($1);
}

// A bool argument takes any object with a truth value.
%typemap(in) bool {
  const int truth = PyObject_IsTrue($input);
  if (truth < 0) SWIG_fail;
  $1 = truth != 0;
}
%typemap(typecheck, precedence=SWIG_TYPECHECK_BOOL) bool "$1 = 1;";
