"""The extension `_ivelmo` as Python sees it: its errors, its boundary with the library,
and `_KXSystem`."""
import ctypes
import os
import subprocess
import threading
import types

import pytest

import _ivelmo
import ivelmo

NULL, NULLS = "NULL value was passed as argument", "NULL values were passed as arguments"
VECTOR = "std::vector< std::string,std::allocator< std::string > > const &"
BOX, TIMELINE = object(), object()  # stand for the test's own box and timeline


def flat(function, *arguments):
    """A call of a flat function of the extension, BOX and TIMELINE replaced."""
    return lambda own: getattr(_ivelmo, function)(*[
        {id(BOX): own.box, id(TIMELINE): own.timeline}.get(id(a), a) for a in arguments])


def refused(function, argument, declared):
    return TypeError, f"in method '{function}', argument {argument} of type '{declared}'"


ERRORS = [
    # Framework errors: RuntimeError with the error's text.
    (lambda own: ivelmo.proxy(None), RuntimeError, "\tproxy::proxy\n\t" + NULL),
    (lambda own: ivelmo.proxy(None, "127.0.0.1", 1), RuntimeError, "\tproxy::proxy\n\t" + NULLS),
    (lambda own: ivelmo.broker(None, "127.0.0.1", 0, "", 0), RuntimeError,
     "\tbroker::broker\n\t" + NULLS),
    (lambda own: ivelmo.setInstance(0x1234), RuntimeError,  # never read, only compared
     "\tbroker::setInstance\n\tNo broker of this process lives at address 0x1234"),
    (lambda own: ivelmo.module(None), RuntimeError, "\tmodule::module\n\t" + NULL),
    (lambda own: ivelmo.behavior(None), RuntimeError, "\tbehavior::behavior\n\t" + NULL),
    (lambda own: own.box.addInput(None), RuntimeError, "\tbehavior::addInput\n\t" + NULL),
    (lambda own: own.calc.functionName(None, "m", "d"), RuntimeError,
     "\tbaseModule::functionName\n\t" + NULLS),
    (lambda own: own.calc.addParam(None), RuntimeError, "\tbaseModule::addParam\n\t" + NULLS),
    (lambda own: own.calc.BIND_PYTHON(None, "f"), RuntimeError,
     "\tbaseModule::BIND_PYTHON\n\t" + NULLS),
    (lambda own: own.calc._bindWithParam("Calc", None, 1), RuntimeError,
     "\tbaseModule::_bindWithParam\n\t" + NULLS),
    (lambda own: own.calc._methodMissing(), RuntimeError,
     "\tmodule(python)::methodMissing\n\tFunction does not exist or not implemented"),
    (lambda own: ivelmo.baseModule().getName(), RuntimeError,
     "\tbaseModule::getName\n\tThis object was built without a module"),
    # A request that is no list calls the empty name; a name that is no text fails.
    (lambda own: ivelmo.proxy("Calc").pythonCall(("add", 1, 2)), RuntimeError,
     "\tCalc\n\tFunction  does not exist in module Calc"),
    (lambda own: ivelmo.proxy("Calc").pythonCall([1]), RuntimeError,
     "\tKXValue::xAssertType: type error\n\tExpected a String but received a Int"
     " (kxvalue contents: 1 )"),
    # Arguments of other types, each declared type once. None as the object of a method
    # once reached C++ as a null `this` and crashed the interpreter.
    (flat("behavior_isEnabled", None), *refused("behavior_isEnabled", 1, "KX::behavior *")),
    (flat("KXMemoryProxy_ping", None), *refused("KXMemoryProxy_ping", 1, "KX::KXMemoryProxy *")),
    (flat("timeline_play", BOX), *refused("timeline_play", 1, "KX::timeline *")),
    (flat("new_behavior", 1), *refused("new_behavior", 1, "char *")),
    (flat("_KXSystem", b"true"), *refused("_KXSystem", 1, "char const *")),
    (flat("behavior_setResources", BOX, 5, 1), *refused("behavior_setResources", 2, VECTOR)),
    (flat("timeline_setFPS", TIMELINE, "25"), *refused("timeline_setFPS", 2, "int")),
    (flat("new_timeline", BOX), *refused("new_timeline", 1, "std::shared_ptr< KX::KXTimeline >")),
]


@pytest.mark.parametrize("call, kind, text", ERRORS)
def test_errors_users_see(calc, call, kind, text):
    box = ivelmo.behavior("Typed")
    with pytest.raises(kind) as raised:
        call(types.SimpleNamespace(calc=calc, box=box, timeline=box.getTimeline()))
    assert str(raised.value) == text


def test_the_extension_exports_its_initialiser_only_and_needs_no_libpython():
    path = os.path.realpath(_ivelmo.__file__)
    assert subprocess.run(["nm", "-D", "--defined-only", path], check=True, capture_output=True,
                          text=True).stdout.split()[2::3] == ["PyInit__ivelmo"]
    needed = subprocess.run(["readelf", "-d", path], check=True, capture_output=True,
                            text=True).stdout
    assert "[libvelmo.so]" in needed and "[libpython" not in needed


def test_kxsystem_runs_up_to_twenty_words_joined_by_single_blanks(tmp_path, capfd):
    def touch(words):
        return " ".join(["touch"] + [str(tmp_path / f"f{i}") for i in range(1, words)])

    assert _ivelmo._KXSystem(touch(20)) is True and (tmp_path / "f19").exists()
    (tmp_path / "f1").unlink()
    capfd.readouterr()
    assert _ivelmo._KXSystem(touch(21)) is False and not (tmp_path / "f1").exists()
    assert capfd.readouterr().out == "[ERROR] Too much parameters in command\n"
    # The quoted blanks would survive a shell: the word split folds them first.
    assert _ivelmo._KXSystem(f"printf '%s'   'a \t  b'  > {tmp_path / 'out'}") is True
    assert (tmp_path / "out").read_text() == "a b"
    assert [_ivelmo._KXSystem(command) for command in ("exit 3", None)] == [True, False]


def test_kxsystem_lets_python_threads_run_and_keeps_the_order_of_output(tmp_path, capfd):
    # The command prints what only another Python thread writes, which it gets only while
    # _KXSystem has released the interpreter lock; native output still in the C library's
    # buffer (one of the test's own, unbuffered again before it goes away) comes out first.
    fifo = tmp_path / "fifo"
    os.mkfifo(fifo)
    threading.Thread(target=lambda: fifo.write_text("child\n"), daemon=True).start()
    libc = ctypes.CDLL(None)
    stdout, buffer = ctypes.c_void_p.in_dll(libc, "stdout"), ctypes.create_string_buffer(4096)
    libc.fflush(stdout)
    capfd.readouterr()
    assert libc.setvbuf(stdout, buffer, 0, len(buffer)) == 0  # fully buffered
    try:
        libc.printf(b"native ")
        assert _ivelmo._KXSystem(f"timeout 20 cat {fifo}") is True
    finally:
        libc.fflush(stdout)
        libc.setvbuf(stdout, None, 2, 0)  # unbuffered
    assert capfd.readouterr().out == "native child\n"
