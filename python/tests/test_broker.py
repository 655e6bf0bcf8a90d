"""Brokers, proxies and Python modules of the flat API: in one program under threads,
called from other processes, and at the end of a program that leaves them running."""
import threading

import ivelmo
from conftest import Calc, run_python


def test_a_root_broker_hosts_the_memory_and_answers_calls(root_broker):
    broker, port = root_broker
    assert {"KXMemory", "KXResourceManager", "KXBehaviorManager"} <= {
        name for [name] in broker.getGlobalModuleList()}
    assert [broker.isModulePresent(name) for name in ("KXMemory", "Absent", None)] == [
        True, False, False]
    memory = ivelmo.proxy("KXMemory")
    assert memory.pythonCall(["insertData", "k", [1, 2.5, b"\x00\xff", "t", [True]]]) is None
    assert memory.pythonCall(["getData", "k"]) == [1, 2.5, b"\x00\xff", "t", [True]]
    typed = ivelmo.getMemoryProxy()
    typed.insertData("list", ["x"])
    assert (typed.getData("list", 0), typed.getDataList("is")) == (["x"], ("list",))
    assert ivelmo.KXMemoryProxy("127.0.0.1", port).getData("k")[2] == b"\x00\xff"
    # A parallel call that waits for a change, stopped; wait answers whether it timed out.
    separate = ivelmo.proxy("KXMemory", True)
    task = separate.pythonPCall(["getDataOnChange", "signal", 0])
    assert (separate.isRunning(task), separate.wait(task, 50)) == (True, True)
    separate.stop(task)
    memory.pythonCall(["insertData", "signal", 1])
    assert (separate.wait(task, 0), separate.isRunning(task)) == (False, False)


def test_a_python_module_describes_itself_and_calls_others_from_its_methods(calc):
    other = Calc("Other")
    try:
        proxy = ivelmo.proxy("Calc")
        assert proxy.pythonCall(["getModuleHelp"]) == ["Adds and fails"]
        assert proxy.pythonCall(["getMethodHelp", "add"])[2] == ["a", "Python's parameter",
                                                                 "b", "Python's parameter"]
        assert proxy.pythonCall(["relay", "Other", "add", 40, 2]) == 42
        # From a framework thread, into another Python module and back into this one.
        assert proxy.wait(proxy.pythonPCall(["relay", "Other", "relay", "Calc", "add", 1, 2]),
                          0) is False
    finally:
        other.exit()
    assert (calc.getName(), calc.getBrokerName(), calc.version()) == ("Calc", "pytest",
                                                                      "PythonModule")
    assert [calc._methodMissing0(), calc._methodMissing6(*range(6))] == ["", ""]


def test_python_and_framework_threads_call_at_once(calc):
    """16 Python threads call proxies while 16 framework threads call into the module."""
    calls_each, failures = 40, []

    def python_caller(index):
        proxy, memory = ivelmo.proxy("Calc", True), ivelmo.proxy("KXMemory")
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
    assert [proxy.wait(task, 60000) for task in tasks] == [False] * 16
    assert failures == []
    memory = ivelmo.getMemoryProxy()
    assert [memory.getData(f"t{n}") for n in range(16)] == [calls_each - 1] * 16


def test_without_a_current_broker_each_object_says_so():
    done = run_python("""
        import ivelmo
        for make in (lambda: ivelmo.proxy("KXMemory"), lambda: ivelmo.module("m"),
                     lambda: ivelmo.behavior("b"), ivelmo.getMemoryProxy().ping):
            try:
                make()
            except RuntimeError as error:
                print(repr(str(error)))
    """)
    assert done.stdout.splitlines() == [repr(
        f"\t{kind}::{kind}\n\tCould not create a {kind}, as there is no current broker in "
        "Python's world.") for kind in ("proxy", "module", "behavior")] + [repr(
            "\tKXBrokerManager::getRandomBroker\n\tThere is no current broker defined in "
            "BrokerManager.")], done.stderr


def test_brokers_stop_while_calls_are_inside_python_by_shutdown_and_at_exit():
    # Each broker's module says when a call started, then needs the interpreter lock
    # again after a pause; four calls are inside Python when the program goes on.
    done = run_python("""
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
        def busy(name):
            broker = ivelmo.broker(name, "127.0.0.1", 0, "", 0)
            Slow("Slow" + name)
            proxy = ivelmo.proxy("Slow" + name)
            for n in range(4):
                proxy.pythonPCall(["work", n])
            for n in range(4):
                assert started.acquire(timeout=30)
            return broker, proxy
        busy("first")[0].shutdown()
        print("shut down")
        _, proxy = busy("second")
        def keep_calling():  # a daemon thread still calling when the interpreter goes away
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
    assert lines.index("[INFO ] Stopping Slowfirst") < lines.index("shut down") < lines.index(
        "leaving") < lines.index("[INFO ] Stopping Slowsecond")
    assert "Fatal" not in done.stderr
