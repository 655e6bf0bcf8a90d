// `_KXSystem`: runs a command line for the behaviours.
%rename(_KXSystem) KX::python::kxSystem;
%include "python/kxsystem.h"
