"""Velmo for Python programs: a Pythonic layer over the flat ``ivelmo`` API.

    import velmo

    with velmo.Broker("myprogram", parent="127.0.0.1:9559") as broker:
        memory = velmo.Memory()
        memory.set("speed", 0.5)
        memory.subscribe("speed", lambda name, value: print(name, value))

        calc = velmo.Proxy("Calc")
        calc.add(2, 3)                # a call
        task = calc.pcall.add(2, 3)   # a parallel call
        task.wait(1000)               # True once finished

Framework errors raise ``velmo.Error`` (a RuntimeError) with ``module``, ``method``
and ``description``.
"""
from .broker import Broker
from .errors import Error
from .memory import Memory
from .module import Module
from .proxy import Proxy, Task

__all__ = ["Broker", "Error", "Memory", "Module", "Proxy", "Task"]
