"""Modules written in Python: described, bound and called as the framework calls them."""
import threading

import pytest

import ivelmo
from conftest import run_python


class Calc(ivelmo.module):
    def __init__(self, name):
        ivelmo.module.__init__(self, name)
        self.setModuleDescription("Adds and fails")
        self.BIND_PYTHON(name, "echo")
        self.BIND_PYTHON(name, "fail")
        self.BIND_PYTHON(name, "relay")
        self.functionName("add", name, "Adds two numbers")
        self.addParam("a")
        self.addParam("b")
        self._bindWithParam(name, "add", 2)

    def echo(self, *arguments):
        return list(arguments)

    def fail(self):
        raise ValueError("bad")

    def relay(self, module, method, *arguments):
        # A Python method that itself calls a proxy.
        return ivelmo.proxy(module).pythonCall([method] + list(arguments))

    def add(self, a, b):
        return a + b


@pytest.fixture
def calc(root_broker):
    module = Calc("Calc")
    yield module
    module.exit()


def test_a_python_method_calls_other_modules_through_proxies(calc):
    other = Calc("Other")  # another Python module of this process
    try:
        proxy = ivelmo.proxy("Calc")
        assert proxy.pythonCall(["getModuleHelp"]) == ["Adds and fails"]
        assert proxy.pythonCall(["relay", "Other", "add", 40, 2]) == 42
        assert proxy.pythonCall(["relay", "KXMemory", "ping"]) is True
        # From a framework thread as well.
        task = proxy.pythonPCall(["relay", "Other", "relay", "Calc", "echo"])
        assert proxy.wait(task, 0) is False
    finally:
        other.exit()


def registered(name):
    """The module object that Python keeps in __main__ under its name."""
    import __main__
    return getattr(__main__, name)


ERRORS = [
    (lambda: ivelmo.proxy("Calc").pythonCall(["fail"]),
     "\tKXPythonModule::execute\n\t<class 'ValueError'>\nbad"),
    (lambda: ivelmo.module(None), "\tmodule::module\n\tNULL value was passed as argument"),
    (lambda: registered("Calc").functionName(None, "m", "d"),
     "\tbaseModule::functionName\n\tNULL values were passed as arguments"),
    (lambda: registered("Calc").addParam(None),
     "\tbaseModule::addParam\n\tNULL values were passed as arguments"),
    (lambda: registered("Calc").BIND_PYTHON(None, "f"),
     "\tbaseModule::BIND_PYTHON\n\tNULL values were passed as arguments"),
    (lambda: registered("Calc")._bindWithParam("Calc", None, 1),
     "\tbaseModule::_bindWithParam\n\tNULL values were passed as arguments"),
    (lambda: registered("Calc").functionName("call", "Calc", "d"),
     "\tCalc::call\n\tCannot bind this method because the name is forbidden. Forbidden names "
     "include subscribeToTask, post, pCall and call"),
    (lambda: registered("Calc")._methodMissing(),
     "\tmodule(python)::methodMissing\n\tFunction does not exist or not implemented"),
    (lambda: ivelmo.baseModule().getName(),
     "\tbaseModule::getName\n\tThis object was built without a module"),
]


@pytest.mark.parametrize("call, text", ERRORS)
def test_errors_users_see(calc, call, text):
    with pytest.raises(RuntimeError) as raised:
        call()
    assert str(raised.value) == text


def test_what_the_module_object_answers_itself(calc, capfd):
    assert (calc.getName(), calc.getBrokerName(), calc.version()) == ("Calc", "pytest",
                                                                      "PythonModule")
    capfd.readouterr()
    with pytest.raises(RuntimeError):
        calc._methodMissing()
    assert capfd.readouterr().out == "\nreceive method missing\n"
    assert calc._methodMissing0() == ""


def test_python_and_framework_threads_at_once(calc):
    """16 Python threads call proxies while 16 framework threads call into the module."""
    calls_each = 40
    failures = []

    def python_caller(index):
        proxy = ivelmo.proxy("Calc", True)
        memory = ivelmo.proxy("KXMemory")
        for i in range(calls_each):
            if proxy.pythonCall(["add", index, i]) != index + i:
                failures.append((index, i))
            memory.pythonCall(["insertData", f"t{index}", i])

    threads = [threading.Thread(target=python_caller, args=(n,)) for n in range(16)]
    for thread in threads:
        thread.start()
    proxy = ivelmo.proxy("Calc")
    tasks = [proxy.pythonPCall(["add", n, 1000]) for n in range(16)]
    for thread in threads:
        thread.join(60)
    assert not any(thread.is_alive() for thread in threads)
    assert all(proxy.wait(task, 60000) is False for task in tasks)
    assert failures == []
    memory = ivelmo.getMemoryProxy()
    assert [memory.getData(f"t{n}") for n in range(16)] == [calls_each - 1] * 16


# A root broker with a module whose method reports that it started, then needs the
# interpreter lock again after a pause.
SLOW_MODULE = """
import threading, time, ivelmo
started = threading.Semaphore(0)
class Slow(ivelmo.module):
    def __init__(self, name):
        ivelmo.module.__init__(self, name)
        self.BIND_PYTHON(name, "work")
    def work(self, n):
        started.release()
        time.sleep(0.2)
        return n
b = ivelmo.broker("b", "127.0.0.1", 0, "", 0)
Slow("Slow")
proxy = ivelmo.proxy("Slow")
for n in range(4):
    proxy.pythonPCall(["work", n])
for n in range(4):
    assert started.acquire(timeout=30)
"""


def test_shutdown_while_framework_threads_are_inside_python():
    done = run_python(SLOW_MODULE + """
b.shutdown()
print("shut down")
""")
    assert done.returncode == 0, done.stderr
    assert "shut down" in done.stdout.splitlines()


def test_exit_without_shutdown_stops_brokers_in_order():
    done = run_python(SLOW_MODULE + """
# A daemon thread still calling when the interpreter goes away.
def keep_calling():
    while True:
        try:
            proxy.pythonCall(["work", 0])
        except RuntimeError:
            pass
threading.Thread(target=keep_calling, daemon=True).start()
print("leaving")
""")
    assert done.returncode == 0, done.stdout + done.stderr
    lines = done.stdout.splitlines()
    assert lines.index("leaving") < lines.index("[INFO ] Stopping Slow") \
        < lines.index("[INFO ] Stopping KXNetwork")
    assert "Fatal" not in done.stderr
