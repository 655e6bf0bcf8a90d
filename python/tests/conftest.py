"""Shared kit of the Python tests: the build's programs, a broker per test, and
programs of their own (fresh interpreters, broker processes) with bounded waits."""
import collections
import os
import queue
import re
import shutil
import subprocess
import sys
import textwrap
import threading
import time

import pytest

import _ivelmo
import ivelmo

PYTHON_DIR = os.path.dirname(os.path.realpath(_ivelmo.__file__))
BIN_DIR = os.path.join(os.path.dirname(PYTHON_DIR), "bin")
# Longest wait for a process to start or end: generous, since the machine is shared.
PATIENCE_S = 60


def env_with_binding(extra=None):
    """This process's environment for a program of the test's, with `extra` variables."""
    env = dict(os.environ)
    env["PYTHONPATH"] = PYTHON_DIR
    env["PYTHONUNBUFFERED"] = "1"
    env.update(extra or {})
    return env


def run_python(code, timeout=PATIENCE_S, env=None):
    """Runs `code` in a fresh interpreter; returns the finished process (text output)."""
    return subprocess.run([sys.executable, "-c", textwrap.dedent(code)],
                          env=env_with_binding(env), capture_output=True, text=True,
                          timeout=timeout)


class Program:
    """A program of the test's own. Its output is read as it comes, so that waiting for
    a line never outlasts the patience; stopped (SIGTERM, then SIGKILL) by stop()."""

    def __init__(self, argv, stdin=subprocess.DEVNULL, env=None):
        self.process = subprocess.Popen(argv, env=env_with_binding(env), stdin=stdin,
                                        stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                        text=True)
        self.lines = queue.Queue()
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        for line in self.process.stdout:
            self.lines.put(line)

    def wait_for(self, pattern):
        """Waits for an output line that matches `pattern`; returns the match."""
        deadline = time.monotonic() + PATIENCE_S
        seen = []
        while time.monotonic() < deadline:
            try:
                line = self.lines.get(timeout=max(0.0, deadline - time.monotonic()))
            except queue.Empty:
                break
            seen.append(line)
            match = re.search(pattern, line)
            if match:
                return match
        raise AssertionError(f"no line matching {pattern!r} in {''.join(seen)!r}")

    def stop(self):
        if self.process.poll() is None:
            self.process.terminate()
            try:
                self.process.wait(PATIENCE_S)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()


def wait_until(condition, what="a condition"):
    """Polls `condition` until it gives something true, within the patience; gives that."""
    deadline = time.monotonic() + PATIENCE_S
    while time.monotonic() < deadline:
        value = condition()
        if value:
            return value
        time.sleep(0.02)
    raise AssertionError(f"gave up waiting for {what}")


LISTENING = r"Velmo is listening on 127\.0\.0\.1:(\d+)"
READY = r"READY (\d+)"


@pytest.fixture
def start_program():
    """Starts programs that the test's end stops."""
    started = []

    def start(argv, stdin=subprocess.DEVNULL, env=None):
        program = Program(argv, stdin, env)
        started.append(program)
        return program

    yield start
    for program in started:
        program.stop()


@pytest.fixture
def velmo_root(start_program):
    """The broker program as the root of a tree, on a free port; gives its port."""
    root = start_program([os.path.join(BIN_DIR, "velmo"), "--name", "root", "--ip", "127.0.0.1",
                          "--port", "0"])
    return int(root.wait_for(LISTENING).group(1))


RootBroker = collections.namedtuple("RootBroker", "broker port")


@pytest.fixture
def root_broker(capfd):
    """A root broker of this process on a free port (read from its log line), shut down
    after the test."""
    broker = ivelmo.broker("pytest", "127.0.0.1", 0, "", 0)
    out, _ = capfd.readouterr()
    yield RootBroker(broker, int(re.search(LISTENING, out).group(1)))
    broker.shutdown()


CHROMIUM = shutil.which("chromium") or "/usr/bin/chromium"
CHROMEDRIVER = shutil.which("chromedriver") or "/usr/bin/chromedriver"


@pytest.fixture
def browser():
    """A headless Chromium driven through chromedriver."""
    if not (os.access(CHROMIUM, os.X_OK) and os.access(CHROMEDRIVER, os.X_OK)):
        pytest.skip(f"needs chromium and chromedriver ({CHROMIUM}, {CHROMEDRIVER})")
    webdriver = pytest.importorskip("selenium.webdriver",
                                    reason="needs python3-selenium for the browser test")
    from selenium.webdriver.chrome.service import Service

    options = webdriver.ChromeOptions()
    options.binary_location = CHROMIUM
    for argument in ("--headless=new", "--no-sandbox", "--disable-dev-shm-usage",
                     "--window-size=1200,1600"):
        options.add_argument(argument)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    driver = webdriver.Chrome(service=Service(CHROMEDRIVER), options=options)
    driver.set_page_load_timeout(PATIENCE_S)
    yield driver
    driver.quit()
