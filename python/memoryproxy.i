// The typed memory proxy, and `getMemoryProxy`. Framework classes that touch no Python
// object: every call releases the interpreter lock around its native part (argument
// and result conversions run before and after it, with the lock held).
%{
#include "proxies/kxmemoryproxy.h"
#include "python/pymemoryproxy.h"

// The post handler's wrapped type carries its name without the namespace.
using KX::KXMemoryProxyPostHandler;
%}

%exception {
  try {
    KX::python::ScopedGILRelease release;
    $action
  } catch (const KX::KXError& error) {
    KX::python::setPythonError(error);
    SWIG_fail;
  }
}

// The post handler is reachable as the member `post` only, as an opaque object.
class KXMemoryProxyPostHandler;

// Results by value are held without a default-constructed stand-in: constructing a
// memory proxy looks for the memory module.
%feature("valuewrapper") KX::KXMemoryProxy;

%include "proxies/kxmemoryproxy.h"
%include "python/pymemoryproxy.h"
