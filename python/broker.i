// `broker`, `proxy`, `baseModule`, `module` and `setInstance`: they release the
// interpreter lock themselves, around their framework work only, because they convert
// Python objects on either side of it.
%{
#include "python/pybroker.h"
#include "python/pymodule.h"
#include "python/pyproxy.h"
%}

// A module's Python object is kept in __main__ under the module's name, where calls
// arriving from the framework look for it.
%pythonappend KX::module::module %{
    import __main__
    setattr(__main__, self.getName(), self)
%}

%include "python/pybroker.h"
%include "python/pyproxy.h"
%include "python/pymodule.h"
