"""Modules answered by Python objects."""
import inspect

import ivelmo

from .errors import translated

# The flat API binds methods of up to this many parameters.
MAX_PARAMETERS = 6

_POSITIONAL = (inspect.Parameter.POSITIONAL_ONLY, inspect.Parameter.POSITIONAL_OR_KEYWORD)


def _published(cls):
    """(name, parameter names, description) of each public method of `cls` that its
    module publishes: those defined below Module, in definition order. TypeError for
    one of too many parameters."""
    framework = set(Module.__mro__)
    found = {}
    for klass in reversed(cls.__mro__):
        if klass not in framework:
            found.update((name, value) for name, value in vars(klass).items()
                         if not name.startswith("_"))
    methods = []
    for name, function in found.items():
        if not inspect.isfunction(function):
            continue
        # Callers pass positional arguments only; the first parameter is self.
        parameters = [p.name for p in inspect.signature(function).parameters.values()
                      if p.kind in _POSITIONAL][1:]
        if len(parameters) > MAX_PARAMETERS:
            raise TypeError(f"{cls.__qualname__}.{name} takes {len(parameters)} parameters; "
                            f"a module method takes at most {MAX_PARAMETERS}")
        methods.append((name, parameters, inspect.getdoc(function) or ""))
    return methods


class Module(ivelmo.module):
    """A module of the current broker whose methods this object answers.

    Subclass it and create an instance: ``MyModule("Name")`` registers the module
    "Name" and publishes every public method of the subclass (names not starting with
    '_') with its parameter names and its docstring as description; the class
    docstring describes the module. Methods take at most 6 parameters (TypeError when
    the class is defined). Calls arrive on the framework's threads.
    """

    def __init_subclass__(cls, **kwargs):
        super().__init_subclass__(**kwargs)
        _published(cls)  # refuses methods the flat API cannot bind, early

    def __init__(self, name):
        methods = _published(type(self))
        with translated():
            # Also keeps the object in __main__ under `name`, where calls find it.
            ivelmo.module.__init__(self, name)
            try:
                if type(self).__doc__ and type(self) is not Module:
                    self.setModuleDescription(inspect.cleandoc(type(self).__doc__))
                for method, parameters, description in methods:
                    self.functionName(method, name, description)
                    for parameter in parameters:
                        self.addParam(parameter)
                    self._bindWithParam(name, method, len(parameters))
            except RuntimeError:
                self.exit()  # no half-published module stays behind
                raise

    def exit(self):
        """Leaves the broker, and the place in __main__ where calls found the object."""
        import __main__
        with translated():
            name = self.getName()
            ivelmo.module.exit(self)
        if getattr(__main__, name, None) is self:
            delattr(__main__, name)
