"""`broker`, `proxy`, `getMemoryProxy` and `KXMemoryProxy` as a Python program uses them."""
import pytest

import _ivelmo
import ivelmo
from conftest import run_python


def test_constructor_line_and_root_modules(capfd):
    broker = ivelmo.broker("b", "127.0.0.1", 0, "", 0)
    try:
        out, _ = capfd.readouterr()
        assert "ivelmo-broker: construct at 127.0.0.1:0, parent : :0\n" in out
        assert ivelmo.proxy("KXMemory").pythonCall(["ping"]) is True
        modules = broker.getGlobalModuleList()
        assert all(isinstance(entry, list) and len(entry) == 1 for entry in modules)
        assert {"KXMemory", "KXResourceManager"} <= {entry[0] for entry in modules}
        assert broker.isModulePresent("KXResourceManager") is True
        assert broker.isModulePresent("Absent") is False
    finally:
        broker.shutdown()


@pytest.mark.parametrize("request_, expected", [
    (["ping"], True),
    (["getData", "k"], [1, b"\x00\xff", "t"]),
    (["getDataListName"], ["k"]),
])
def test_calls_split_the_list_into_method_and_arguments(root_broker, request_, expected):
    memory = ivelmo.proxy("KXMemory")
    memory.pythonCall(["insertData", "k", [1, b"\x00\xff", "t"]])
    assert memory.pythonCall(request_) == expected


@pytest.mark.parametrize("request_", [("ping",), "ping", None])
def test_a_request_that_is_no_list_calls_the_empty_method_name(root_broker, request_):
    with pytest.raises(RuntimeError, match="Function  does not exist in module KXMemory"):
        ivelmo.proxy("KXMemory").pythonCall(request_)


def test_parallel_calls_are_waited_for_stopped_and_asked_about(root_broker):
    memory = ivelmo.proxy("KXMemory", True)
    task = memory.pythonPCall(["getDataOnChange", "signal", 0])
    assert task % 2 == 0 and task > 0
    assert memory.isRunning(task) is True
    assert memory.wait(task, 50) is True  # timed out: still waiting for the change
    memory.stop(task)
    memory.pythonCall(["insertData", "signal", 1])
    assert memory.wait(task, 0) is False
    assert memory.isRunning(task) is False


ERRORS = [
    (lambda: ivelmo.proxy(None), "\tproxy::proxy\n\tNULL value was passed as argument"),
    (lambda: ivelmo.proxy(None, True), "\tproxy::proxy\n\tNULL value was passed as argument"),
    (lambda: ivelmo.proxy(None, "127.0.0.1", 1),
     "\tproxy::proxy\n\tNULL values were passed as arguments"),
    (lambda: ivelmo.proxy("Absent"), "\tKXProxy::constructor\n\tModule 'Absent' not found."),
    (lambda: ivelmo.broker(None, "127.0.0.1", 0, "", 0),
     "\tbroker::broker\n\tNULL values were passed as arguments"),
    (lambda: ivelmo.proxy("KXMemory").pythonCall([1]),
     "\tKXValue::xAssertType: type error\n\tExpected a String but received a Int"),
    (lambda: ivelmo.proxy("KXMemory").pythonCall(["getData", "absent"]),
     '\tKXMemory::getData\n\tData "absent" does not exist.'),
]


@pytest.mark.parametrize("call, text", ERRORS)
def test_framework_errors_arrive_as_runtime_error(root_broker, call, text):
    with pytest.raises(RuntimeError) as raised:
        call()
    assert str(raised.value).startswith(text)


def test_overload_mismatch_lists_the_constructors():
    with pytest.raises(NotImplementedError) as raised:
        _ivelmo.new_proxy(1, 2, 3, 4)
    assert str(raised.value).startswith(
        "Wrong number or type of arguments for overloaded function 'new_proxy'.\n"
        "  Possible C/C++ prototypes are:\n")
    assert str(raised.value).count("\n    ") == 3


@pytest.mark.parametrize("flag", [[], [0], "", "yes", 0, 2, None])
def test_a_bool_argument_takes_any_truth_value(root_broker, flag):
    assert ivelmo.proxy("KXMemory", flag).pythonCall(["ping"]) is True


def test_without_a_broker():
    # A fresh interpreter: nothing of this process's brokers.
    done = run_python("""
        import ivelmo
        def error(call):
            try:
                call()
            except RuntimeError as e:
                return str(e)
        print(repr(error(lambda: ivelmo.proxy("KXMemory"))))
        print(repr(error(lambda: ivelmo.module("m"))))
        memory = ivelmo.getMemoryProxy()
        print(type(memory).__name__, repr(error(memory.ping)), repr(error(lambda: memory.getData("k"))))
        print(ivelmo.broker.isModulePresent(None, "KXMemory"), ivelmo.broker.getGlobalModuleList(None))
        ivelmo.broker.shutdown(None)
    """)
    assert done.returncode == 0, done.stderr
    no_broker = "There is no current broker defined in BrokerManager."
    assert done.stdout.splitlines() == [
        repr("\tproxy::proxy\n\tCould not create a proxy, as there is no current broker in "
             "Python's world."),
        repr("\tmodule::module\n\tCould not create a module, as there is no current broker in "
             "Python's world."),
        f"KXMemoryProxy {repr(chr(9) + 'KXBrokerManager::getRandomBroker' + chr(10) + chr(9) + no_broker)} "
        f"{repr(chr(9) + 'KXBrokerManager::getRandomBroker' + chr(10) + chr(9) + no_broker)}",
        "False None",
    ]


def test_dropping_the_broker_object_keeps_the_broker_shutdown_stops_it():
    done = run_python("""
        import ivelmo
        b = ivelmo.broker("b", "127.0.0.1", 0, "", 0)
        del b
        print(ivelmo.proxy("KXMemory").pythonCall(["ping"]))
        ivelmo.broker.shutdown(None)
        try:
            ivelmo.module("m")
        except RuntimeError as e:
            print("no current broker" in str(e))
    """)
    assert done.returncode == 0, done.stderr
    lines = [line for line in done.stdout.splitlines() if not line.startswith("[INFO ] Start")]
    ping = lines.index("True")
    # The broker answered after its object was dropped, and stopped on shutdown only.
    assert lines[ping + 1:] == ["[INFO ] Stop broker b", "[INFO ] Stopping KXResourceManager",
                                "[INFO ] Stopping KXMemory", "[INFO ] Stopping KXNetwork", "True"]


def test_typed_memory_proxy_local_and_remote(root_broker):
    local = ivelmo.getMemoryProxy()
    local.insertData("blob", b"\x00" * 5)
    local.insertData("list", [1, 2.5, "x"])
    local.setDescription("list", "three things")
    assert local.getData("blob") == b"\x00" * 5
    assert local.getData("list", 0) == [1, 2.5, "x"]
    assert local.getDataList("is") == ("list",)
    assert local.getType("list") == "Array"
    assert local.getDescriptionList(["list"]) == [["list", "Array", "three things"]]
    assert "Swig Object of type 'void *'" in repr(local.getDataPtr("list"))

    remote = ivelmo.KXMemoryProxy("127.0.0.1", root_broker.port)
    assert remote.getData("blob") == b"\x00" * 5
    assert remote.getDataListName() == ("blob", "list")
    with pytest.raises(RuntimeError, match="\tKXMemory::getDataPtr\n\tCannot be called remotely"):
        remote.getDataPtr("list")
