"""`broker`, `proxy`, `getMemoryProxy` and `KXMemoryProxy` as a Python program uses them."""
import pytest

import ivelmo
from conftest import run_python

NO_BROKER = "\tKXBrokerManager::getRandomBroker\n\tThere is no current broker defined in BrokerManager."


def test_constructor_line_and_root_modules(capfd):
    broker = ivelmo.broker("b", "127.0.0.1", 0, "", 0)
    try:
        assert "ivelmo-broker: construct at 127.0.0.1:0, parent : :0\n" in capfd.readouterr().out
        modules = broker.getGlobalModuleList()
        assert all(isinstance(entry, list) and len(entry) == 1 for entry in modules)
        assert {"KXMemory", "KXResourceManager"} <= {entry[0] for entry in modules}
        assert (broker.isModulePresent("KXMemory"), broker.isModulePresent("Absent")) == (True, False)
    finally:
        broker.shutdown()


@pytest.mark.parametrize("request_, expected", [
    (["ping"], True),
    (["getData", "k"], [1, b"\x00\xff", "t"]),
    (("ping",), "Function  does not exist in module KXMemory"),  # no list: the empty name
    ("ping", "Function  does not exist in module KXMemory"),
    ([1], "\tKXValue::xAssertType: type error\n\tExpected a String but received a Int"),
    (["getData", "absent"], '\tKXMemory::getData\n\tData "absent" does not exist.'),
])
def test_calls_split_the_list_into_method_and_arguments(root_broker, request_, expected):
    memory = ivelmo.proxy("KXMemory")
    memory.pythonCall(["insertData", "k", [1, b"\x00\xff", "t"]])
    if isinstance(expected, str):
        with pytest.raises(RuntimeError) as raised:
            memory.pythonCall(request_)
        assert expected in str(raised.value)
    else:
        assert memory.pythonCall(request_) == expected


def test_parallel_calls_are_waited_for_stopped_and_asked_about(root_broker):
    memory = ivelmo.proxy("KXMemory", True)
    task = memory.pythonPCall(["getDataOnChange", "signal", 0])
    assert (memory.isRunning(task), memory.wait(task, 50)) == (True, True)  # 50 ms: timed out
    memory.stop(task)
    memory.pythonCall(["insertData", "signal", 1])
    assert (memory.wait(task, 0), memory.isRunning(task)) == (False, False)


@pytest.mark.parametrize("call, text", [
    (lambda: ivelmo.proxy(None), "\tproxy::proxy\n\tNULL value was passed as argument"),
    (lambda: ivelmo.proxy(None, True), "\tproxy::proxy\n\tNULL value was passed as argument"),
    (lambda: ivelmo.proxy(None, "127.0.0.1", 1),
     "\tproxy::proxy\n\tNULL values were passed as arguments"),
    (lambda: ivelmo.proxy("Absent"), "\tKXProxy::constructor\n\tModule 'Absent' not found."),
    (lambda: ivelmo.broker(None, "127.0.0.1", 0, "", 0),
     "\tbroker::broker\n\tNULL values were passed as arguments"),
])
def test_framework_errors_arrive_as_runtime_error(root_broker, call, text):
    with pytest.raises(RuntimeError) as raised:
        call()
    assert str(raised.value) == text


@pytest.mark.parametrize("flag", [[0], "", None])
def test_a_bool_argument_takes_any_truth_value(root_broker, flag):
    assert ivelmo.proxy("KXMemory", flag).pythonCall(["ping"]) is True


def test_without_a_broker_then_with_one_dropped_and_shut_down():
    # A fresh interpreter: none of this process's brokers.
    done = run_python("""
        import ivelmo
        def error(call):
            try:
                call()
            except RuntimeError as e:
                return str(e)
        memory = ivelmo.getMemoryProxy()
        print(repr([error(lambda: ivelmo.proxy("KXMemory")), error(lambda: ivelmo.module("m")),
                    error(memory.ping), ivelmo.broker.isModulePresent(None, "KXMemory"),
                    ivelmo.broker.getGlobalModuleList(None), ivelmo.broker.shutdown(None)]))
        b = ivelmo.broker("b", "127.0.0.1", 0, "", 0)
        del b
        print(ivelmo.proxy("KXMemory").pythonCall(["ping"]))
        ivelmo.broker.shutdown(None)
        print(error(lambda: ivelmo.module("m")) is not None)
    """)
    assert done.returncode == 0, done.stderr
    no_world = ", as there is no current broker in Python's world."
    starting = ("[INFO ] Start", "[INFO ] Velmo", "ivelmo-broker")
    lines = [line for line in done.stdout.splitlines() if not line.startswith(starting)]
    assert lines == [
        repr(["\tproxy::proxy\n\tCould not create a proxy" + no_world,
              "\tmodule::module\n\tCould not create a module" + no_world, NO_BROKER, False, None,
              None]),
        # The broker answered after its object was dropped, and stopped on shutdown only.
        "True", "[INFO ] Stop broker b", "[INFO ] Stopping KXBehaviorManager",
        "[INFO ] Stopping KXResourceManager",
        "[INFO ] Stopping KXMemory", "[INFO ] Stopping KXNetwork", "True"]


def test_typed_memory_proxy_local_and_remote(root_broker):
    local = ivelmo.getMemoryProxy()
    local.insertData("blob", b"\x00" * 5)
    local.insertData("list", [1, 2.5, "x"])
    assert local.getData("list", 0) == [1, 2.5, "x"]
    assert local.getDataList("is") == ("list",)
    assert "Swig Object of type 'void *'" in repr(local.getDataPtr("list"))
    assert ivelmo.KXMemoryProxy("127.0.0.1", root_broker.port).getData("blob") == b"\x00" * 5
