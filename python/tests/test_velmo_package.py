"""The Pythonic layer `velmo`: brokers, proxies, modules, memory subscriptions, errors."""
import pydoc
import queue
import time

import pytest

import velmo


@pytest.fixture
def broker():
    with velmo.Broker("pytest") as root:
        yield root


class Calc(velmo.Module):
    """Adds and fails."""

    def add(self, a, b):
        """Adds two numbers."""
        return a + b

    def echo(self, *values):
        return list(values)

    def six(self, a, b, c, d, e, f):
        return [a, f]

    def fail(self):
        raise ValueError("bad input")

    def _hidden(self):
        return "never published"


@pytest.fixture
def calc(broker):
    module = Calc("Calc")
    yield module
    module.exit()


def test_a_subscription_receives_every_value_in_order(broker):
    received = queue.Queue()
    with velmo.Memory() as memory:
        memory.subscribe("speed", lambda name, value: received.put((name, value)))
        subscriber, = memory.getSubscribers("speed")
        for value in range(100):
            memory.set("speed", value)
        deadline = time.monotonic() + 60
        assert [received.get(timeout=max(0.0, deadline - time.monotonic()))
                for _ in range(100)] == [("speed", value) for value in range(100)]
        memory.unsubscribe("speed")
        assert memory.getSubscribers("speed") == []
        with pytest.raises(KeyError):
            memory.unsubscribe("speed")
    with pytest.raises(velmo.Error):  # the hidden module left with close()
        velmo.Proxy(subscriber)


def test_methods_are_called_listed_and_described_as_python_functions(calc):
    proxy = velmo.Proxy("Calc")
    assert (proxy.add(40, 2), proxy.echo(), proxy.six(*range(6))) == (42, [], [0, 5])
    assert {"add", "echo", "fail", "getMethodList", "ping"} <= set(dir(proxy))
    assert "_hidden" not in dir(proxy)
    assert proxy.getModuleHelp() == ["Adds and fails."]
    text = pydoc.render_doc(proxy.add, renderer=pydoc.plaintext)
    assert "add(a, b, /)" in text and "Adds two numbers." in text
    assert proxy.echo.__doc__ == ""  # published without a docstring
    for private in (lambda: proxy._absent, lambda: proxy.pcall._absent):
        with pytest.raises(AttributeError):
            private()


def test_a_parallel_call_is_waited_for_and_stopped(broker):
    memory = velmo.Memory()
    task = memory.pcall.getDataOnChange("signal", 0)
    assert (task.wait(50), task.wait(0), task.running) == (False, False, True)
    task.stop()
    memory.set("signal", 1)
    assert (task.wait(), task.running, memory.get("signal")) == (True, False, 1)
    with pytest.raises(velmo.Error) as raised:
        task.stop()  # the call has gone
    assert (raised.value.module, raised.value.method) == ("KXTaskMonitor", "stop")


@pytest.mark.parametrize("call, module, method, description", [
    (lambda: velmo.Proxy("Calc").fail(), "KXPythonModule", "execute",
     "<class 'ValueError'>\nbad input"),
    (lambda: velmo.Proxy("Calc").absent(1), "Calc", "absent",
     "Function absent does not exist in module Calc"),
    (lambda: velmo.Proxy("Absent"), "KXProxy", "constructor", "Module 'Absent' not found."),
])
def test_framework_errors_carry_their_parts(calc, call, module, method, description):
    with pytest.raises(velmo.Error) as raised:
        call()
    error = raised.value
    assert isinstance(error, RuntimeError)
    assert str(error) == f"\t{module}::{method}\n\t{description}"
    assert (error.module, error.method, error.description) == (module, method, description)


def test_a_method_of_seven_parameters_is_refused_when_its_class_is_defined():
    with pytest.raises(TypeError, match=r"Seven.seven takes 7 parameters; .* at most 6"):
        class Seven(velmo.Module):
            def seven(self, a, b, c, d, e, f, g):
                pass
