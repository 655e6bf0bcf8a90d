"""Proxies: calling a module's methods, wherever it lives in the tree, as Python
methods."""
import inspect
import keyword

import ivelmo

from .errors import Error, translated


class Task:
    """A parallel call under way: its id, and the means to wait for it and stop it."""

    def __init__(self, proxy, method, task_id):
        self._proxy, self.method, self.id = proxy, method, task_id

    def wait(self, timeout_ms=None):
        """Waits at most `timeout_ms` (None: without limit, 0: not at all); returns
        whether the call has finished."""
        if timeout_ms is not None and timeout_ms <= 0:
            return not self.running
        with translated():
            # The flat wait answers whether it timed out, and takes 0 as "no limit".
            return not self._proxy.wait(self.id, int(timeout_ms or 0))

    def stop(self):
        """Asks the call to stop (the method decides when it does); an error once it has
        finished."""
        with translated():
            self._proxy.stop(self.id)

    @property
    def running(self):
        """Whether the call is still running."""
        with translated():
            return self._proxy.isRunning(self.id)

    def __repr__(self):
        return f"<velmo.Task {self.id} {self.method}>"


def _identifier(name, taken):
    """`name` made a usable, unused parameter name (descriptions may hold any text)."""
    cleaned = "".join(c if c.isalnum() or c == "_" else "_" for c in name) or "arg"
    if cleaned[0].isdigit() or keyword.iskeyword(cleaned):
        cleaned = "_" + cleaned
    while cleaned in taken:
        cleaned += "_"
    taken.add(cleaned)
    return cleaned


# One method of a module: calling it calls the module; its __doc__ and signature come
# from the module's own description, asked for once, when needed (its __doc__ property
# stands in for a class docstring).
class Method:
    def __init__(self, proxy, name):
        self._proxy, self.__name__, self.__qualname__ = proxy, name, name
        self._help = None

    def __call__(self, *arguments):
        return self._proxy._call(self.__name__, arguments)

    # A descriptor, so that inspect and help() document it as a routine.
    def __get__(self, instance, owner=None):
        return self

    def _description(self):
        """The module's getMethodHelp answer; None when the module has none."""
        if self._help is None:
            try:
                self._help = self._proxy._call("getMethodHelp", (self.__name__,))
            except Error:
                self._help = []
        return self._help or None

    @property
    def __doc__(self):
        described = self._description()
        if not described:
            return ""
        _, text, parameters, returned, returned_text = described
        lines = [text] if text else []
        pairs = list(zip(parameters[::2], parameters[1::2])) if parameters else []
        if pairs:
            lines += ["", "Parameters:"] + [f"  {name}: {about}" for name, about in pairs]
        if returned or returned_text:
            lines += ["", f"Returns: {returned}" + (f" ({returned_text})" if returned_text
                                                   else "")]
        return "\n".join(lines)

    @property
    def __signature__(self):
        described = self._description()
        if not described:
            return None  # unknown: inspect falls back to (*arguments)
        if not described[2]:
            return inspect.Signature()
        taken = set()
        return inspect.Signature([
            inspect.Parameter(_identifier(name, taken), inspect.Parameter.POSITIONAL_ONLY)
            for name in described[2][::2]])

    def __repr__(self):
        return f"<velmo method {self._proxy._module}.{self.__name__}>"


class _ParallelCalls:
    """``proxy.pcall``: its attributes start parallel calls and give their Task."""

    def __init__(self, proxy):
        self._proxy = proxy

    def __getattr__(self, name):
        if name.startswith("_"):
            raise AttributeError(name)

        def start(*arguments):
            with translated():
                task_id = self._proxy._flat.pythonPCall([name, *arguments])
            return Task(self._proxy._flat, name, task_id)

        start.__name__ = start.__qualname__ = name
        return start

    def __dir__(self):
        return self._proxy._methods()


class Proxy:
    """The module named `module`, found through the current broker, or through the
    broker at `ip`:`port` when given.

    ``proxy.method(arguments...)`` calls it and returns the answer;
    ``proxy.pcall.method(arguments...)`` starts a parallel call and returns its
    ``Task``. ``dir(proxy)`` lists the module's methods, and ``help(proxy.method)``
    shows its description. Framework errors raise ``velmo.Error``.
    """

    def __init__(self, module, ip=None, port=None):
        if (ip is None) != (port is None):
            raise TypeError("give both ip and port, or neither")
        self._module = module
        with translated():
            self._flat = (ivelmo.proxy(module) if ip is None
                          else ivelmo.proxy(module, ip, int(port)))

    def _call(self, method, arguments):
        with translated():
            return self._flat.pythonCall([method, *arguments])

    def _methods(self):
        return list(self._call("getMethodList", ()))

    @property
    def pcall(self):
        """Parallel calls: ``proxy.pcall.method(arguments...)`` gives a ``Task``."""
        return _ParallelCalls(self)

    def __getattr__(self, name):
        # Only reached for names the object lacks; private names are never methods.
        if name.startswith("_"):
            raise AttributeError(name)
        return Method(self, name)

    def __dir__(self):
        return sorted(set(super().__dir__()) | set(self._methods()))

    def __repr__(self):
        return f"<velmo.Proxy {self._module}>"
