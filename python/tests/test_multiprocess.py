"""Python programs in broker trees that span processes."""
import os
import subprocess
import sys
import textwrap
import urllib.parse
import urllib.request

import pytest

from conftest import BIN_DIR, LISTENING, READY, run_python

# A root broker hosting the Python module "PyCalc"; runs until its stdin closes, then
# leaves without calling shutdown (the exit hook stops the broker).
PY_ROOT = """
import sys, ivelmo
class PyCalc(ivelmo.module):
    def __init__(self, name):
        ivelmo.module.__init__(self, name)
        self.BIND_PYTHON(name, "add")
        self.BIND_PYTHON(name, "echo")
        self.BIND_PYTHON(name, "fail")
    def add(self, a, b):
        return a + b
    def echo(self, value):
        return value
    def fail(self):
        raise ValueError("bad input")
ivelmo.broker("pyroot", "127.0.0.1", 0, "", 0)
PyCalc("PyCalc")
print("SERVING", flush=True)
sys.stdin.read()
"""


def child_program(parent_port, body):
    """A Python program whose broker is a child of the broker at `parent_port`."""
    return textwrap.dedent(f"""
        import ivelmo
        ivelmo.broker("pychild", "127.0.0.1", 0, "127.0.0.1", {parent_port})
    """) + textwrap.dedent(body)


@pytest.fixture
def python_root(start_program):
    program = start_program([sys.executable, "-c", PY_ROOT], stdin=subprocess.PIPE)
    port = int(program.wait_for(LISTENING).group(1))
    program.wait_for("SERVING")
    return port


def test_a_child_process_calls_cpp_modules_and_the_root_memory(velmo_root, start_program):
    node = start_program([os.path.join(BIN_DIR, "velmo_testnode"), "node", str(velmo_root),
                          "Calc"])
    node.wait_for(READY)
    done = run_python(child_program(velmo_root, """
        blob = bytes(range(256)) * 4096   # 1 MiB, every byte value
        calc = ivelmo.proxy("Calc")
        assert calc.pythonCall(["echo", blob]) == blob
        assert calc.pythonCall(["echo", [1, b"ab", ["x"]]]) == [1, b"ab", ["x"]]
        assert calc.pythonCall(["add", 2, 3]) == 5
        memory = ivelmo.getMemoryProxy()
        memory.insertData("fromChild", blob[:1000])
        assert ivelmo.proxy("KXMemory").pythonCall(["getData", "fromChild"]) == blob[:1000]
        assert memory.getBrokerName() == "root"
        try:
            calc.pythonCall(["fail"])
        except RuntimeError as e:
            print("remote error:", repr(str(e)))
        print("ok")
    """))
    assert done.returncode == 0, done.stdout + done.stderr
    assert "ok" in done.stdout.splitlines()
    assert "remote error: '\\tCalc::fail" in done.stdout


@pytest.mark.parametrize("call, answer", [
    ("PyCalc.add([2, 3])", "5"),
    ("PyCalc.echo([\"text\"])", '"text"'),
])
def test_a_url_call_reaches_a_python_module(python_root, call, answer):
    url = f"http://127.0.0.1:{python_root}/?eval{urllib.parse.quote(call)}"
    request = urllib.request.Request(url, headers={"User-Agent": "Mozilla/5.0", "Accept": "*/*"})
    with urllib.request.urlopen(request, timeout=30) as response:
        assert response.status == 200
        assert response.read().decode() == answer
