// `behavior` and `timeline`: boxes written in Python and the timelines they drive. Like
// `module`, they release the interpreter lock themselves, around their framework work.
%{
#include "python/pybehavior.h"
#include "python/pytimeline.h"
%}

// Known by name only: Python gets timelines from a box, never as wrapped handles.
namespace KX {
class KXTimeline;
}

// A box's Python object is kept in __main__ under the box's name, where its inputs
// are looked for when "KXMemory" notifies the box.
%pythonappend KX::behavior::behavior %{
    import __main__
    setattr(__main__, self.getName(), self)
%}

%include "python/pytimeline.h"
%include "python/pybehavior.h"
