"""The Pythonic layer `velmo`: brokers, proxies, modules, memory subscriptions, errors."""
import ast
import os
import pydoc
import queue
import textwrap
import time

import pytest

import velmo
from conftest import run_python

# Fresh interpreters import the package that this test imports.
PACKAGE_PARENT = os.path.dirname(os.path.dirname(os.path.realpath(velmo.__file__)))


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

    def fail(self):
        raise ValueError("bad input")

    def _hidden(self):
        return "never published"


@pytest.fixture
def calc(broker):
    module = Calc("Calc")
    yield module
    module.exit()


def child_program(parent, body):
    """A program whose velmo broker is a child of `parent`; prints RESULT <repr>."""
    return f"import sys\nsys.path.insert(0, {PACKAGE_PARENT!r})\n" + textwrap.dedent(f"""
        import velmo
        with velmo.Broker("pychild", parent={parent!r}) as broker:
    """) + textwrap.indent(textwrap.dedent(body), "    ")


def drain(received, count, seconds=60):
    """The first `count` items of `received`, waited for `seconds` in all."""
    deadline = time.monotonic() + seconds
    return [received.get(timeout=max(0.0, deadline - time.monotonic())) for _ in range(count)]


def result_of(done):
    assert done.returncode == 0, done.stdout + done.stderr
    lines = [line for line in done.stdout.splitlines() if line.startswith("RESULT ")]
    assert len(lines) == 1, done.stdout
    return ast.literal_eval(lines[0][len("RESULT "):])


def test_a_module_is_called_from_a_child_process(calc, broker):
    done = run_python(child_program(f"127.0.0.1:{broker.port}", """
        calc = velmo.Proxy("Calc")
        try:
            calc.fail()
        except velmo.Error as error:
            failure = [error.module, error.method, error.description]
        print("RESULT", repr([calc.add(40, 2), calc.echo(1, "x", b"\\x00"),
                              sorted({"add", "echo", "fail", "_hidden"} & set(dir(calc))),
                              calc.add.__doc__.splitlines()[0], failure]))
    """))
    assert result_of(done) == [42, [1, "x", b"\x00"], ["add", "echo", "fail"],
                               "Adds two numbers.",
                               ["Calc", "fail", "<class 'ValueError'>\nbad input"]]


def test_a_subscription_receives_every_value_in_order(broker):
    received = queue.Queue()
    with velmo.Memory() as memory:
        memory.subscribe("speed", lambda name, value: received.put((name, value)))
        subscriber, = memory.getSubscribers("speed")
        for value in range(100):
            memory.set("speed", value)
        assert drain(received, 100) == [("speed", value) for value in range(100)]
        memory.unsubscribe("speed")
        assert memory.getSubscribers("speed") == []
        with pytest.raises(KeyError):
            memory.unsubscribe("speed")
    with pytest.raises(velmo.Error):  # the hidden module left with close()
        velmo.Proxy(subscriber)


def test_calls_listing_and_help(calc):
    proxy = velmo.Proxy("Calc")
    memory = velmo.Memory()
    memory.insert("k", [1, 2.5, "t"])
    assert (proxy.add(2, 3), proxy.echo(), memory.get("k")) == (5, [], [1, 2.5, "t"])
    assert {"add", "echo", "fail", "getMethodList", "ping"} <= set(dir(proxy))
    assert "_hidden" not in dir(proxy)
    assert proxy.getModuleHelp() == ["Adds and fails."]
    text = pydoc.render_doc(proxy.add, renderer=pydoc.plaintext)
    assert "add(a, b, /)" in text and "Adds two numbers." in text
    assert proxy.echo.__doc__ == ""  # published without a docstring
    assert memory.getData.__doc__.startswith("Gets the value stored under a name.")
    for private in (lambda: proxy._absent, lambda: proxy.pcall._absent):
        with pytest.raises(AttributeError):
            private()


def test_a_parallel_call_is_waited_for_and_stopped(broker):
    memory = velmo.Memory()
    task = memory.pcall.getDataOnChange("signal", 0)
    assert (task.wait(50), task.wait(0), task.running) == (False, False, True)
    task.stop()
    memory.set("signal", 1)
    assert (task.wait(), task.running) == (True, False)
    with pytest.raises(velmo.Error) as raised:
        task.stop()  # the call has gone
    assert (raised.value.module, raised.value.method) == ("KXTaskMonitor", "stop")
    assert memory.pcall.ping().wait(30000) is True


class Forbidden(velmo.Module):
    def call(self):
        pass


@pytest.mark.parametrize("call, module, method, description", [
    (lambda: velmo.Proxy("Calc").absent(1), "Calc", "absent",
     "Function absent does not exist in module Calc"),
    (lambda: velmo.Proxy("Absent"), "KXProxy", "constructor", "Module 'Absent' not found."),
    (lambda: Forbidden("Forbidden"), "Forbidden", "call",
     "Cannot bind this method because the name is forbidden. Forbidden names include "
     "subscribeToTask, post, pCall and call"),
])
def test_framework_errors_carry_their_parts(calc, call, module, method, description):
    with pytest.raises(velmo.Error) as raised:
        call()
    error = raised.value
    assert isinstance(error, RuntimeError)
    assert (error.module, error.method, error.description) == (module, method, description)
    assert str(error) == f"\t{module}::{method}\n\t{description}"


def test_methods_take_at_most_six_parameters(broker):
    class Six(velmo.Module):
        def six(self, a, b, c, d, e, f):
            pass

    module = Six("Six")
    try:
        assert velmo.Proxy("Six").getMethodHelp("six")[2][::2] == list("abcdef")
    finally:
        module.exit()
    with pytest.raises(TypeError, match=r"Seven.seven takes 7 parameters; .* at most 6"):
        class Seven(velmo.Module):
            def seven(self, a, b, c, d, e, f, g):
                pass
