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
/work/shared/bench-peers, then the current folder).

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
    folders = [os.environ.get("BENCH_PEERS_DIR"), "/work/shared/bench-peers", os.getcwd()]
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
    # Without the harness at hand: the same timing, percentile and RESULT line.
    import atexit
    import json
    import multiprocessing as mp
    import types

    def _env_int(name, default):
        v = os.environ.get(name)
        return int(v) if v else default

    def _env_float(name, default):
        v = os.environ.get(name)
        return float(v) if v else default

    common = types.SimpleNamespace()
    common.KEY = "key42"
    common.BLOB_SIZE = 1024 * 1024
    common.WARMUP = _env_int("BENCH_WARMUP", 1000)
    common.N_A = _env_int("BENCH_N", 20000)
    common.N_B = _env_int("BENCH_NB", 200)
    common.C_SECONDS = _env_float("BENCH_C_SECONDS", 3.0)
    common.C_CLIENTS = _env_int("BENCH_C_CLIENTS", 8)
    common.A_CAP_S = _env_float("BENCH_A_CAP_S", 60.0)
    common._children = []

    def _want(workload):
        return workload in (os.environ.get("BENCH_WORKLOADS") or "ABC")

    def _make_blob():
        return bytes((i * 131) & 0xFF for i in range(256)) * (common.BLOB_SIZE // 256)

    def _pct(sorted_vals, p):
        if not sorted_vals:
            return 0
        k = max(1, min(len(sorted_vals), int(p / 100.0 * len(sorted_vals) + 0.999999)))
        return sorted_vals[k - 1]

    def _emit(peer, workload, lat_ns, elapsed_ns, payload_mib=None, note=""):
        lat = sorted(lat_ns)
        n = len(lat)
        secs = elapsed_ns / 1e9
        tag = os.environ.get("BENCH_TAG")
        rec = {
            "peer": peer,
            "workload": workload + ("/" + tag if tag else ""),
            "n": n,
            "median_us": round(_pct(lat, 50) / 1000.0, 2),
            "p99_us": round(_pct(lat, 99) / 1000.0, 2),
            "rate": round((n * payload_mib if payload_mib else n) / secs, 1),
            "unit": "MiB/s" if payload_mib else "calls/s",
            "note": note,
        }
        print("RESULT " + json.dumps(rec), flush=True)

    def _time_calls(call, n, warm, cap_s=None):
        cap_s = common.A_CAP_S if cap_s is None else cap_s
        for _ in range(warm):
            call()
        pc = time.perf_counter_ns
        lat = []
        t0 = pc()
        deadline = t0 + int(cap_s * 1e9)
        for _ in range(n):
            s = pc()
            call()
            e = pc()
            lat.append(e - s)
            if e > deadline:
                break
        return lat, pc() - t0

    def _bench_a(peer, call, n=None, warm=None, note="", workload="A"):
        lat, el = _time_calls(call, common.N_A if n is None else n,
                              common.WARMUP if warm is None else warm)
        _emit(peer, workload, lat, el, note=note)

    def _bench_b(peer, call_blob, note=""):
        blob = _make_blob()
        holder = {}

        def one():
            holder["r"] = call_blob(blob)

        lat, el = _time_calls(one, common.N_B, 10, cap_s=300)
        r = holder.get("r")
        if r is None or len(r) != common.BLOB_SIZE or bytes(r) != blob:
            raise RuntimeError("workload B: echoed blob does not match")
        _emit(peer, "B", lat, el, payload_mib=1.0, note=note)

    def _c_child(make_call, args, barrier, secs, q):
        try:
            call = make_call(*args)
            for _ in range(100):
                call()
            barrier.wait(timeout=120)
            pc = time.perf_counter_ns
            lat = []
            t0 = pc()
            end = t0 + int(secs * 1e9)
            e = t0
            while e < end and len(lat) < 5_000_000:
                s = pc()
                call()
                e = pc()
                lat.append(e - s)
            q.put((lat, e - t0, None))
        except Exception as ex:
            try:
                barrier.abort()
            except Exception:
                pass
            q.put(([], 1, repr(ex)))

    def _bench_c(peer, make_call, args=(), note=""):
        ctx = mp.get_context("spawn")
        barrier = ctx.Barrier(common.C_CLIENTS)
        q = ctx.Queue()
        procs = [ctx.Process(target=_c_child,
                             args=(make_call, args, barrier, common.C_SECONDS, q))
                 for _ in range(common.C_CLIENTS)]
        for p in procs:
            p.start()
        results = []
        deadline = time.time() + 180
        while len(results) < common.C_CLIENTS and time.time() < deadline:
            try:
                results.append(q.get(timeout=5))
            except Exception:
                if not any(p.is_alive() for p in procs):
                    break
        for p in procs:
            p.join(timeout=10)
            if p.is_alive():
                os.kill(p.pid, signal.SIGKILL)
                p.join()
        errors = [r[2] for r in results if r[2]]
        if errors or len(results) < common.C_CLIENTS:
            raise RuntimeError("workload C failed: %s" % (errors or "client processes timed out"))
        lat = [x for r in results for x in r[0]]
        elapsed = max(r[1] for r in results)
        _emit(peer, "C", lat, elapsed,
              note=(note + "; " if note else "") +
              "%d client processes; latency under load" % common.C_CLIENTS)

    def _die_with_parent():
        try:
            import ctypes
            ctypes.CDLL("libc.so.6", use_errno=True).prctl(1, signal.SIGTERM)
        except Exception:
            pass

    def _popen(argv, **kw):
        if signal.getsignal(signal.SIGTERM) == signal.SIG_DFL:
            signal.signal(signal.SIGTERM, lambda *a: sys.exit(143))
        p = subprocess.Popen(argv, preexec_fn=_die_with_parent, **kw)
        common._children.append(p)
        return p

    def _stop(p):
        if p.poll() is None:
            try:
                p.send_signal(signal.SIGTERM)
                p.wait(timeout=5)
            except subprocess.TimeoutExpired:
                p.kill()
                p.wait()
        if p in common._children:
            common._children.remove(p)

    @atexit.register
    def _stop_all():
        for p in list(common._children):
            _stop(p)

    def _run_guarded(label, fn):
        try:
            fn()
        except Exception as ex:
            print("FAILED %s: %r" % (label, ex), flush=True)

    common.want = _want
    common.make_blob = _make_blob
    common.emit = _emit
    common.bench_a = _bench_a
    common.bench_b = _bench_b
    common.bench_c = _bench_c
    common.popen = _popen
    common.stop = _stop
    common.run_guarded = _run_guarded


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
