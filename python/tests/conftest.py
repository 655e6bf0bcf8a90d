"""The kit of the Python tests: the build's programs, a broker and a Python module per test,
programs of the test's own with bounded waits, and a browser."""
import collections
import http.client
import json
import os
import queue
import re
import shutil
import subprocess
import sys
import textwrap
import threading
import time
import urllib.parse

import pytest

import _ivelmo
import ivelmo

PYTHON_DIR = os.path.dirname(os.path.realpath(_ivelmo.__file__))
BIN_DIR = os.path.join(os.path.dirname(PYTHON_DIR), "bin")
PATIENCE_S = 60  # the longest wait for a process or a condition: the machine is shared
LISTENING = r"Velmo is listening on 127\.0\.0\.1:(\d+)"


def env_with_binding(extra=None):
    return {**os.environ, "PYTHONPATH": PYTHON_DIR, "PYTHONUNBUFFERED": "1", **(extra or {})}


def run_python(code, env=None):
    """Runs `code` in a fresh interpreter; gives the finished process (text output)."""
    return subprocess.run([sys.executable, "-c", textwrap.dedent(code)],
                          env=env_with_binding(env), capture_output=True, text=True,
                          timeout=PATIENCE_S)


def wait_until(condition, what):
    """Polls `condition` until it gives something true, within the patience; gives that."""
    deadline = time.monotonic() + PATIENCE_S
    while time.monotonic() < deadline:
        if value := condition():
            return value
        time.sleep(0.02)
    raise AssertionError(f"gave up waiting for {what}")


def ask(port, method, path, headers, body=None):
    """One request with exactly these headers; gives (status, header dict, text)."""
    connection = http.client.HTTPConnection("127.0.0.1", port, timeout=PATIENCE_S)
    try:
        connection.putrequest(method, path, skip_host=True, skip_accept_encoding=True)
        for name, value in {**headers, **({"Content-Length": len(body)} if body else {})}.items():
            connection.putheader(name, value)
        connection.endheaders(body.encode() if body else None)
        response = connection.getresponse()
        return response.status, dict(response.getheaders()), response.read().decode()
    finally:
        connection.close()


def url_call(port, call, token=None):
    """The decoded answer of the JSON url call `call` ("Module.method(args)"), asked as a tool."""
    status, _, text = ask(port, "GET", "/?json" + urllib.parse.quote(call),
                          {"Authorization": f"Bearer {token}"} if token else {})
    assert status == 200, text
    return json.loads(text)


class Program:
    """A program of the test's own, whose output is read as it comes."""

    def __init__(self, argv, stdin, env):
        self.process = subprocess.Popen(argv, env=env_with_binding(env), stdin=stdin,
                                        stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                        text=True)
        self.lines = queue.Queue()
        threading.Thread(target=lambda: [self.lines.put(line) for line in self.process.stdout],
                         daemon=True).start()

    def wait_for(self, pattern):
        """Waits for an output line that matches `pattern`; gives the match."""
        deadline, seen = time.monotonic() + PATIENCE_S, []
        while time.monotonic() < deadline:
            try:
                seen.append(self.lines.get(timeout=max(0.0, deadline - time.monotonic())))
            except queue.Empty:
                break
            if match := re.search(pattern, seen[-1]):
                return match
        raise AssertionError(f"no line matching {pattern!r} in {''.join(seen)!r}")


@pytest.fixture
def start_program():
    """Starts programs that the end of the test stops (SIGTERM, then SIGKILL)."""
    started = []

    def start(argv, stdin=subprocess.DEVNULL, env=None):
        started.append(Program(argv, stdin, env))
        return started[-1]

    yield start
    for program in (program.process for program in started):
        program.terminate()
        try:
            program.wait(PATIENCE_S)
        except subprocess.TimeoutExpired:
            program.kill()
            program.wait()


def start_velmo(start_program, *options, env=None):
    """The broker program on a free port, once its modules serve; gives (program, port)."""
    program = start_program([os.path.join(BIN_DIR, "velmo"), "--ip", "127.0.0.1", "--port", "0",
                             *options], env=env)
    return program, int(program.wait_for(r"\] Listening on 127\.0\.0\.1:(\d+)").group(1))


@pytest.fixture
def root_broker(capfd):
    """A root broker "pytest" of this process on a free port, shut down after the test."""
    broker = ivelmo.broker("pytest", "127.0.0.1", 0, "", 0)
    yield collections.namedtuple("RootBroker", "broker port")(
        broker, int(re.search(LISTENING, capfd.readouterr().out).group(1)))
    broker.shutdown()


class Calc(ivelmo.module):
    """A module answered by Python: `add` described with its parameters, the others bound
    for any number of them."""

    def __init__(self, name):
        ivelmo.module.__init__(self, name)
        self.setModuleDescription("Adds and fails")
        for method in ("echo", "fail", "relay"):
            self.BIND_PYTHON(name, method)
        self.functionName("add", name, "Adds two numbers")
        self.addParam("a")
        self.addParam("b")
        self._bindWithParam(name, "add", 2)

    def add(self, a, b):
        return a + b

    def echo(self, value):
        return value

    def fail(self):
        raise ValueError("bad")

    def relay(self, module, method, *arguments):
        """Calls another module through a proxy, from inside a call."""
        return ivelmo.proxy(module).pythonCall([method, *arguments])


@pytest.fixture
def calc(root_broker):
    """The module "Calc" in the test's root broker."""
    module = Calc("Calc")
    yield module
    module.exit()


@pytest.fixture
def browser():
    """A headless Chromium driven through chromedriver."""
    chromium = shutil.which("chromium") or "/usr/bin/chromium"
    driver = shutil.which("chromedriver") or "/usr/bin/chromedriver"
    if not (os.access(chromium, os.X_OK) and os.access(driver, os.X_OK)):
        pytest.skip(f"needs chromium and chromedriver ({chromium}, {driver})")
    webdriver = pytest.importorskip("selenium.webdriver", reason="needs python3-selenium")
    from selenium.webdriver.chrome.service import Service

    options = webdriver.ChromeOptions()
    options.binary_location = chromium
    for argument in ("--headless=new", "--no-sandbox", "--disable-dev-shm-usage",
                     "--window-size=1200,1600"):
        options.add_argument(argument)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    browser = webdriver.Chrome(service=Service(driver), options=options)
    browser.set_page_load_timeout(PATIENCE_S)
    yield browser
    browser.quit()
