"""`_KXSystem`: running a command line for the behaviours."""
import ctypes
import os
import threading

import pytest

import _ivelmo
import ivelmo


def touch_command(directory, files):
    """'touch <dir>/f1 ... <dir>/f<files>': files + 1 words."""
    return " ".join(["touch"] + [str(directory / f"f{i}") for i in range(1, files + 1)])


def test_twenty_words_run(tmp_path):
    command = touch_command(tmp_path, 19)
    assert len(command.split()) == 20
    assert _ivelmo._KXSystem(command) is True
    assert sorted(os.listdir(tmp_path)) == sorted(f"f{i}" for i in range(1, 20))


def test_twenty_one_words_are_refused_and_logged(tmp_path, capfd):
    command = touch_command(tmp_path, 20)
    assert len(command.split()) == 21
    assert _ivelmo._KXSystem(command) is False
    assert os.listdir(tmp_path) == []
    out, _ = capfd.readouterr()
    assert "[ERROR] Too much parameters in command\n" in out


def test_words_are_joined_with_single_blanks(tmp_path):
    out = tmp_path / "out"
    # The quoted blanks would survive a shell; the word split folds them first.
    assert ivelmo._KXSystem(f"printf '%s'   'a \t  b'  > {out}") is True
    assert out.read_text() == "a b"


def test_command_output_follows_earlier_native_output(capfd):
    # Native output still sitting in the C library's buffer must come out before
    # the command's own. The C library's standard output gets a full buffer of
    # ours for the test (the interpreter may have made it unbuffered), so that
    # something does sit there; it is unbuffered again afterwards, before the
    # buffer goes away.
    libc = ctypes.CDLL(None)
    stdout = ctypes.c_void_p.in_dll(libc, "stdout")
    io_full_buffering, io_no_buffering = 0, 2
    buffer = ctypes.create_string_buffer(4096)
    libc.fflush(stdout)
    assert libc.setvbuf(stdout, buffer, io_full_buffering, len(buffer)) == 0
    try:
        libc.printf(b"native ")
        assert _ivelmo._KXSystem("echo child") is True
    finally:
        libc.fflush(stdout)
        libc.setvbuf(stdout, None, io_no_buffering, 0)
    out, _ = capfd.readouterr()
    assert out == "native child\n"


def test_exit_status_is_not_a_failure():
    assert _ivelmo._KXSystem("false") is True
    assert _ivelmo._KXSystem("exit 7") is True


def test_none_runs_nothing():
    assert _ivelmo._KXSystem(None) is False


def test_command_is_cut_at_the_first_nul(tmp_path):
    first, second = tmp_path / "first", tmp_path / "second"
    assert _ivelmo._KXSystem(f"touch {first}\0 {second}") is True
    assert first.exists()
    assert not second.exists()


def test_non_string_argument_is_a_type_error():
    with pytest.raises(TypeError) as error:
        _ivelmo._KXSystem(1)
    assert str(error.value) == "in method '_KXSystem', argument 1 of type 'char const *'"
    with pytest.raises(TypeError) as error:
        _ivelmo._KXSystem(b"true")
    assert str(error.value) == "in method '_KXSystem', argument 1 of type 'char const *'"


@pytest.mark.parametrize("args", [(), ("true", "true")])
def test_wrong_argument_count_is_a_type_error(args):
    with pytest.raises(TypeError):
        _ivelmo._KXSystem(*args)


def test_other_python_threads_run_while_the_command_runs(tmp_path):
    # The command waits (at most 20 s) for a line that only another Python thread
    # writes; it can do so only while _KXSystem has released the interpreter lock.
    fifo, out = tmp_path / "fifo", tmp_path / "out"
    os.mkfifo(fifo)
    writer_ready = threading.Event()

    def write():
        writer_ready.set()
        with open(fifo, "w") as pipe:
            pipe.write("from python\n")

    writer = threading.Thread(target=write, daemon=True)
    writer.start()
    assert writer_ready.wait(20)
    assert _ivelmo._KXSystem(f"timeout 20 cat {fifo} > {out}") is True
    writer.join(20)
    assert not writer.is_alive()
    assert out.read_text() == "from python\n"
