#!/usr/bin/python3
"""box_latency: box-to-box latency through "KXMemory", from an output stimulated to the
linked input method entered, as median and 99th percentile in microseconds.

  python, one process    a Python box's output to a Python box's input;
  native relay, 2 procs  a Python box here -> the native box "Relay" of velmo_boxhost
                         -> a Python box here: there and back, two process crossings;
  python relay, 2 procs  the same through a Python box of velmo_boxhost.
Native boxes in one process are measured by bench_behavior (Google Benchmark).

Knobs (environment): VELMO_BUILD (default <repo>/build), BOX_N (values per case,
default 2000).

Usage: /usr/bin/python3 bench/box_latency.py
"""
import os
import socket
import subprocess
import sys
import tempfile
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
BUILD = os.path.abspath(os.environ.get("VELMO_BUILD", os.path.join(os.path.dirname(HERE), "build")))
sys.path.insert(0, os.path.join(BUILD, "python"))
import ivelmo  # noqa: E402

COUNT = int(os.environ.get("BOX_N", "2000"))
PATIENCE_S = 10

# Runs in velmo_boxhost: a Python relay box beside the native "Relay".
HOST_SCRIPT = """
import ivelmo
ivelmo.setInstance(ADDRESS)
class PyRelayBox(ivelmo.behavior):
    def __init__(self, name):
        ivelmo.behavior.__init__(self, name)
        self.addInput("in")
        self.addOutput("out", False)
        self.BIND_PYTHON(name, "onInput_in__")
    def onInput_in__(self, value):
        self.stimulateIO("out", value)
PyRelayBox("PyRelay")
manager = ivelmo.proxy("KXBehaviorManager")
manager.pythonCall(["linkBehaviors", "ToRelay", "out", "Relay", "in"])
manager.pythonCall(["linkBehaviors", "ToPyRelay", "out", "PyRelay", "in"])
print("BOXES READY", flush=True)
"""


class StampBox(ivelmo.behavior):
    """Input "in" notes when it was entered; output "out" starts a measure."""

    def __init__(self, name):
        ivelmo.behavior.__init__(self, name)
        self.entered = 0
        self.arrived = threading.Event()
        self.addInput("in")
        self.addOutput("out", False)
        self.BIND_PYTHON(name, "onInput_in__")

    def onInput_in__(self, value):
        self.entered = time.monotonic_ns()
        self.arrived.set()


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def measure(source, sink):
    micros = []
    for value in range(COUNT):
        sink.arrived.clear()
        stimulated = time.monotonic_ns()
        source.stimulateIO("out", value)
        if not sink.arrived.wait(PATIENCE_S):
            raise SystemExit(f"value {value} never reached {sink.getName()}")
        micros.append((sink.entered - stimulated) / 1000.0)
    micros.sort()
    return micros[len(micros) // 2], micros[min(len(micros) - 1, len(micros) * 99 // 100)]


def main():
    port = free_port()
    broker = ivelmo.broker("boxbench", "127.0.0.1", port, "", 0)
    manager = ivelmo.proxy("KXBehaviorManager")
    boxes = {name: StampBox(name) for name in ("Source", "Sink", "ToRelay", "FromRelay",
                                               "ToPyRelay", "FromPyRelay")}
    manager.pythonCall(["linkBehaviors", "Source", "out", "Sink", "in"])
    manager.pythonCall(["linkBehaviors", "Relay", "out", "FromRelay", "in"])
    manager.pythonCall(["linkBehaviors", "PyRelay", "out", "FromPyRelay", "in"])
    rows = [("python, one process", measure(boxes["Source"], boxes["Sink"]))]

    with tempfile.NamedTemporaryFile("w", suffix=".py", delete=False) as script:
        script.write(HOST_SCRIPT)
    host = subprocess.Popen([os.path.join(BUILD, "bin", "velmo_boxhost"), str(port), script.name],
                            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
    try:
        for line in host.stdout:
            if "BOXES READY" in line:
                break
        rows.append(("native relay, 2 procs", measure(boxes["ToRelay"], boxes["FromRelay"])))
        rows.append(("python relay, 2 procs", measure(boxes["ToPyRelay"], boxes["FromPyRelay"])))
    finally:
        host.stdin.close()
        host.wait(60)
        os.unlink(script.name)
    print(f"{'case':24} {'median_us':>10} {'p99_us':>10}   ({COUNT} values each)")
    for name, (median, p99) in rows:
        print(f"{name:24} {median:10.1f} {p99:10.1f}")
    broker.shutdown()


if __name__ == "__main__":
    main()
