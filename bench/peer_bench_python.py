#!/usr/bin/python3
"""peer_bench_python: Velmo's Python binding measured the way the peer RPC benchmarks
(bench-peers) measure their Python peers, printing RESULT lines of the same shape with
the peer label "velmo-py".

Through `ivelmo.proxy(name, "127.0.0.1", port).pythonCall(["echo", arg])`:
  A           echo("key42") -> "key42" on the C++ module "Echo" of
              peer_bench_network_server, timed one call at a time;
  B           a 1 MiB `bytes` (a Binary value, a DIME attachment on the wire) echoed
              back in full, checked byte for byte after the loop;
  C           8 spawned client processes (one interpreter, one proxy each) doing A
              for a few seconds after a barrier;
  A/pymodule  A again, into a module written in Python ("PyEcho") and served by a
              root broker in another Python process (this script with "pyserver").
Pinning (`taskset -c 0 ...` around this program) reaches both servers: children
inherit the CPU mask.

Knobs (environment): those of bench-peers' common.py (BENCH_N, BENCH_WARMUP, BENCH_NB,
BENCH_C_SECONDS, BENCH_C_CLIENTS, BENCH_A_CAP_S, BENCH_WORKLOADS, BENCH_TAG), plus
VELMO_BUILD (the build folder; default: the folder that holds the `ivelmo` found on
PYTHONPATH, else <repo>/build) and BENCH_PEERS_DIR (where common.py lives; default
the current folder, which is the suite's own when it runs this program).

Usage: /usr/bin/python3 bench/peer_bench_python.py
"""
import os
import re
import select
import signal
import subprocess
import sys
import time

PEER = "velmo-py"
SERVER_IP = "127.0.0.1"
HERE = os.path.dirname(os.path.abspath(__file__))


# ---------------------------------------------------------------- the build

def _build_dir():
    """The build folder: $VELMO_BUILD, else the one whose python/ holds an importable
    ivelmo, else <repo>/build."""
    given = os.environ.get("VELMO_BUILD")
    if given:
        return os.path.abspath(given)
    for entry in sys.path:
        folder = os.path.abspath(entry or ".")
        if os.path.basename(folder) == "python" and os.path.exists(os.path.join(folder, "ivelmo.py")):
            return os.path.dirname(folder)
    return os.path.join(os.path.dirname(HERE), "build")


BUILD = _build_dir()
# Spawned clients re-run this file's top level: they must land on the same build.
os.environ["VELMO_BUILD"] = BUILD
sys.path.insert(0, os.path.join(BUILD, "python"))
import ivelmo  # noqa: E402


# ---------------------------------------------------------------- the harness

def _import_common():
    # The suite runs its peers from its own folder.
    folders = [os.environ.get("BENCH_PEERS_DIR"), os.getcwd()]
    for folder in folders:
        if folder and os.path.exists(os.path.join(folder, "common.py")):
            if folder not in sys.path:
                sys.path.append(folder)
            try:
                import common as found
                return found
            except ImportError:
                pass
    return None


common = _import_common()

if common is None:
    sys.exit("peer_bench_python: the peer benchmarks' common.py was not found; "
             "set BENCH_PEERS_DIR to the bench-peers folder")


# ---------------------------------------------------------------- servers

_LISTENING = re.compile(r"Velmo is listening on 127\.0\.0\.1:(\d+)")


def _read_ready(proc, what, timeout=60.0):
    """The port a server announces: its 'READY <port>' line, or, when that line carries
    none, the port of the broker's 'Velmo is listening on' log line seen before it."""
    seen = None
    line = ""
    deadline = time.time() + timeout
    while time.time() < deadline:
        r, _, _ = select.select([proc.stdout], [], [], 0.5)
        if r:
            line = proc.stdout.readline()
            if line == "":
                break
            m = _LISTENING.search(line)
            if m:
                seen = int(m.group(1))
            if line.startswith("READY"):
                info = line.split(None, 1)[1].strip() if " " in line.strip() else ""
                port = int(info) if info.isdigit() else seen
                if port:
                    return port
                break
        if proc.poll() is not None:
            break
    raise RuntimeError("%s did not become ready (last line %r)" % (what, line))


class Server:
    """A server child: stdin is a pipe whose end tells it to stop (so it also stops
    when this process dies); stdout is read until its READY line."""

    def __init__(self, argv, what, preexec=True):
        kw = dict(stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        if preexec:
            # Tracked by the harness (stopped by PID at exit), parent-death signal set
            # before exec. Only while no broker thread exists here: fork + Python code
            # in the child is not safe in a threaded process.
            self.proc = common.popen(argv, **kw)
        else:
            # The child sets its own parent-death signal (see pyserver()).
            self.proc = subprocess.Popen(argv, **kw)
            common._children.append(self.proc)
        try:
            self.port = _read_ready(self.proc, what)
        except Exception:
            self.stop()
            raise

    def stop(self):
        """Stdin closed first (a clean broker shutdown), then the harness's SIGTERM/SIGKILL."""
        p = self.proc
        if p.poll() is None:
            try:
                p.stdin.close()
            except OSError:
                pass
            try:
                p.wait(timeout=5)
            except subprocess.TimeoutExpired:
                pass
        common.stop(p)
        for f in (p.stdin, p.stdout):
            try:
                f.close()
            except OSError:
                pass


def start_cpp_server():
    path = os.path.join(BUILD, "bin", "peer_bench_network_server")
    if not os.access(path, os.X_OK):
        raise RuntimeError("%s is missing: build the target peer_bench_network_server" % path)
    return Server([path], "peer_bench_network_server")


def start_python_server():
    argv = [sys.executable, os.path.abspath(__file__), "pyserver", str(os.getpid())]
    return Server(argv, "the Python module server", preexec=False)


def _own_listening_ports(ip_hex="0100007F"):
    """Ports this process listens on at 127.0.0.1 (from /proc): the broker's."""
    inodes = set()
    for fd in os.listdir("/proc/self/fd"):
        try:
            target = os.readlink("/proc/self/fd/" + fd)
        except OSError:
            continue
        if target.startswith("socket:["):
            inodes.add(target[8:-1])
    ports = []
    with open("/proc/self/net/tcp") as table:
        next(table)
        for row in table:
            cols = row.split()
            local, state, inode = cols[1], cols[3], cols[9]
            addr, port = local.split(":")
            if state == "0A" and addr == ip_hex and inode in inodes:
                ports.append(int(port, 16))
    return ports


def _set_parent_death_signal(expected_parent):
    try:
        import ctypes
        ctypes.CDLL("libc.so.6", use_errno=True).prctl(1, signal.SIGTERM)
    except Exception:
        pass
    # The parent may have gone before the signal was armed.
    if os.getppid() != expected_parent:
        os._exit(1)


def pyserver(parent_pid):
    """A root broker on 127.0.0.1 hosting the Python module "PyEcho"; prints READY <port>,
    then serves until stdin ends (or SIGTERM / parent death)."""
    _set_parent_death_signal(parent_pid)
    # SIGTERM leaves the stdin read below and still shuts the broker down.
    signal.signal(signal.SIGTERM, lambda *a: sys.exit(0))

    class PyEcho(ivelmo.module):
        def __init__(self, name):
            ivelmo.module.__init__(self, name)  # also stores self in __main__ under `name`
            self.BIND_PYTHON(name, "echo")

        def echo(self, value):
            return value

    broker = ivelmo.broker("pyserver", SERVER_IP, 0, "", 0)
    try:
        PyEcho("PyEcho")
        ports = _own_listening_ports()
        # One listening socket is the broker's; otherwise the parent reads the log line.
        print("READY %s" % (ports[0] if len(ports) == 1 else ""), flush=True)
        # Later output goes to stderr: the parent stops reading this pipe.
        os.dup2(2, 1)
        while os.read(0, 4096):
            pass
    finally:
        broker.shutdown()


# ---------------------------------------------------------------- workloads

def make_call(port, module="Echo", arg=None):
    """One proxy (its own connection) and a call through it. Module level: the C client
    processes build theirs from it."""
    proxy = ivelmo.proxy(module, SERVER_IP, port)
    request = ["echo", common.KEY if arg is None else arg]
    python_call = proxy.pythonCall

    def call():
        return python_call(request)

    call.proxy = proxy
    return call


def checked_call(port, module="Echo"):
    call = make_call(port, module)
    got = call()
    if got != common.KEY:
        raise RuntimeError("%s.echo returned %r instead of %r" % (module, got, common.KEY))
    return call


def workload_a(port):
    call = checked_call(port)
    common.bench_a(PEER, call, note="pythonCall on a remote proxy (SOAP over kept-open HTTP)")
    del call


def workload_b(port):
    proxy = ivelmo.proxy("Echo", SERVER_IP, port)
    python_call = proxy.pythonCall
    common.bench_b(PEER, lambda blob: python_call(["echo", blob]),
                   note="1 MiB bytes (Binary, DIME attachment) echoed back in full")
    del python_call, proxy


def workload_c(port):
    common.bench_c(PEER, make_call, (port,),
                   note="one proxy (connection) per process, C++ Echo module")


def workload_a_pymodule():
    server = start_python_server()
    try:
        call = checked_call(server.port, "PyEcho")
        common.bench_a(PEER, call, workload="A/pymodule",
                       note="pythonCall into a Python module served by another Python process")
        del call
    finally:
        server.stop()


def main():
    # Before any broker (and its threads) exists in this process.
    server = start_cpp_server()
    ok = True
    try:
        port = server.port
        for workload, run in (("A", lambda: workload_a(port)),
                              ("B", lambda: workload_b(port)),
                              ("C", lambda: workload_c(port))):
            if common.want(workload):
                common.run_guarded(workload, run)
        if common.want("A"):
            common.run_guarded("A/pymodule", workload_a_pymodule)
    except Exception as ex:
        print("FAILED %s: %r" % (PEER, ex), flush=True)
        ok = False
    finally:
        server.stop()
    return 0 if ok else 1


if __name__ == "__main__":
    if sys.argv[1:2] == ["pyserver"]:
        pyserver(int(sys.argv[2]))
    else:
        sys.exit(main())
