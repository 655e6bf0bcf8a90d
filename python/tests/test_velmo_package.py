"""What the Pythonic layer `velmo` adds over ivelmo: published methods, its error type,
memory subscriptions."""
import queue

import pytest

import velmo


class Calc(velmo.Module):
    def add(self, a, b):
        return a + b

    def six(self, a, b, c, d, e, f):
        return [a, f]

    def fail(self):
        raise ValueError("bad input")

    def _hidden(self):
        return "never published"


@pytest.fixture
def calc():
    with velmo.Broker("pytest"):
        module = Calc("Calc")
        yield module
        module.exit()


def test_public_methods_are_published_and_values_reach_a_subscriber_in_order(calc):
    proxy = velmo.Proxy("Calc")
    assert (proxy.add(40, 2), proxy.six(*range(6))) == (42, [0, 5])
    assert "add" in dir(proxy) and "_hidden" not in dir(proxy)
    with pytest.raises(AttributeError):
        proxy._absent
    received = queue.Queue()
    with velmo.Memory() as memory:
        memory.subscribe("speed", lambda name, value: received.put(value))
        for value in range(100):
            memory.set("speed", value)
        assert [received.get(timeout=60) for _ in range(100)] == list(range(100))
        memory.unsubscribe("speed")
        with pytest.raises(KeyError):
            memory.unsubscribe("speed")


@pytest.mark.parametrize("call, module, method, description", [
    (lambda: velmo.Proxy("Calc").fail(), "KXPythonModule", "execute",
     "<class 'ValueError'>\nbad input"),
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
