"""Behaviour boxes written in Python: their parameters, their timeline until the host drops
it, and values passed along boxes of two processes."""
import os
import subprocess
import time

import ivelmo
from conftest import BIN_DIR, PATIENCE_S, wait_until


class SourceBox(ivelmo.behavior):
    """A box with an output "out", a parameter "speed", and an onLoad that reads it."""

    def __init__(self, name):
        ivelmo.behavior.__init__(self, name)
        self.speed_on_load = None
        self.addOutput("out", False)
        self.addParameter("speed", 3, False)
        self.BIND_PYTHON(name, "onLoad")

    def onLoad(self):
        self.speed_on_load = self.getParameter("speed")


def test_a_timeline_driven_from_python_while_the_host_drops_it(root_broker):
    box = SourceBox("Timed")
    box.setParameter("speed", [2.5, "fast"])
    assert (box.getParameter("speed"), box.getParametersList()) == ([2.5, "fast"], ["speed"])
    manager = ivelmo.proxy("KXBehaviorManager")
    manager.pythonCall(["setTimeline", "Timed", 100, 25])
    manager.pythonCall(["addTimelineLabel", "Timed", "start", 5])
    timeline = box.getTimeline()
    assert (box.hasTimeline(), box.hasParentTimeline()) == (True, False)
    assert (timeline.getSize(), timeline.getFPS()) == (100, 25)

    def frame():
        return manager.pythonCall(["getTimelineFrame", "Timed"])

    timeline.goTo(12)
    assert frame() == 12
    timeline.goTo("start")
    assert frame() == 5
    timeline.setFPS(50)
    timeline.stop()
    assert (timeline.getFPS(), frame()) == (50, 1)
    timeline.play()
    wait_until(lambda: frame() > 1, "the timeline to play")
    timeline.pause()
    paused = frame()
    time.sleep(0.1)  # 5 frames at 50 fps, had it gone on playing
    assert frame() == paused

    manager.pythonCall(["removeTimeline", "Timed"])
    assert (box.hasTimeline(), timeline.play(), timeline.getFPS()) == (False, None, 0)
    assert box.getParentTimeline().getSize() == 0


# Runs in velmo_boxhost beside its native box "Relay": links Source.out to Relay.in and
# Relay.out to the Python box Sink.in of that process.
HOST_SCRIPT = """
import ivelmo
ivelmo.setInstance(ADDRESS)
class SinkBox(ivelmo.behavior):
    def __init__(self, name):
        ivelmo.behavior.__init__(self, name)
        self.values = []
        self.addInput("in")
        self.BIND_PYTHON(name, "onInput_in__")
        self.BIND_PYTHON(name, "received")
    def onInput_in__(self, value):
        self.values.append(value)
    def received(self):
        return self.values
SinkBox("Sink")
manager = ivelmo.proxy("KXBehaviorManager")
manager.pythonCall(["linkBehaviors", "Source", "out", "Relay", "in"])
manager.pythonCall(["linkBehaviors", "Relay", "out", "Sink", "in"])
print("LINKED", flush=True)
"""


def test_values_cross_boxes_of_two_processes_in_order(root_broker, start_program, tmp_path):
    source = SourceBox("Source")
    manager = ivelmo.proxy("KXBehaviorManager")
    manager.pythonCall(["loadBehavior", "Source"])
    assert (source.speed_on_load, manager.pythonCall(["getLoadedBehaviors"])) == (3, ["Source"])
    (tmp_path / "host.py").write_text(HOST_SCRIPT)
    host = start_program([os.path.join(BIN_DIR, "velmo_boxhost"), str(root_broker.port),
                          str(tmp_path / "host.py")], stdin=subprocess.PIPE)
    host.wait_for("LINKED")
    count = 1000
    for value in range(count):
        source.stimulateIO("out", value)
    sink = ivelmo.proxy("Sink")
    wait_until(lambda: len(sink.pythonCall(["received"])) >= count, f"{count} values")
    assert sink.pythonCall(["received"]) == list(range(count))
    host.process.stdin.close()
    assert host.process.wait(PATIENCE_S) == 0
