"""Who may use a broker's port: foreign host names, other sites' pages and the tree's
token, against the broker program, in a real browser, and between brokers of two
processes."""
import http.client
import functools
import http.server
import json
import os
import sys
import threading
import urllib.parse
from xml.etree import ElementTree

import pytest

from conftest import BIN_DIR, LISTENING, PATIENCE_S, env_with_binding, run_python, wait_until

TOKEN = "tree-s3cret_1"

SOAP_INSERT = (
    '<?xml version="1.0" encoding="UTF-8"?><SOAP-ENV:Envelope '
    'xmlns:SOAP-ENV="http://schemas.xmlsoap.org/soap/envelope/" '
    'xmlns:xsi="http://www.w3.org/2001/XMLSchema-instance" '
    'xmlns:xsd="http://www.w3.org/2001/XMLSchema" xmlns:kxbroker="urn:kxbroker">'
    '<SOAP-ENV:Body><kxbroker:callVelmo><mod>KXMemory</mod><meth>insertData</meth>'
    '<p xsi:type="xsd:anyType"><item xsi:type="Array"><item xsi:type="xsd:string">{key}</item>'
    '<item xsi:type="xsd:int">42</item></item></p></kxbroker:callVelmo></SOAP-ENV:Body>'
    '</SOAP-ENV:Envelope>')


def ask(port, method, path, headers=None, body=None):
    """One request with exactly these headers (Host included when given); gives (status,
    header dict, text)."""
    connection = http.client.HTTPConnection("127.0.0.1", port, timeout=PATIENCE_S)
    try:
        connection.putrequest(method, path, skip_host=True, skip_accept_encoding=True)
        for name, value in (headers or {}).items():
            connection.putheader(name, value)
        data = body.encode() if body is not None else None
        if data is not None:
            connection.putheader("Content-Length", str(len(data)))
        connection.endheaders(data)
        response = connection.getresponse()
        return response.status, dict(response.getheaders()), response.read().decode()
    finally:
        connection.close()


def stored(port, key, token=None):
    """The memory value `key` of the broker, None when it has none (asked as a tool)."""
    headers = {"Host": f"127.0.0.1:{port}"}
    if token:
        headers["Authorization"] = f"Bearer {token}"
    call = urllib.parse.quote(f'KXMemory.getData(["{key}"])')
    status, _, text = ask(port, "GET", f"/?json{call}", headers)
    assert status == 200, text
    return json.loads(text).get("result")


def url_call(key):
    return "/?evalKXMemory.insertData(" + urllib.parse.quote(f'["{key}",42]') + ")"


def start_broker(start_program, data_folder, token=None, *extra):
    """The broker program; files stored by PUT land in data_folder/Korvane/velmo/tmp."""
    env = {"APPDATA": str(data_folder)}
    if token:
        env["VELMO_TOKEN"] = token
    program = start_program([os.path.join(BIN_DIR, "velmo"), "--name", "guarded", "--ip",
                             "127.0.0.1", "--port", "0", *extra], env=env)
    return program, int(program.wait_for(LISTENING).group(1))


def action_request(action, key):
    """What the table's action sends: method, path and body."""
    return {"call": ("GET", url_call(key), None),
            "json": ("GET", "/?json" + url_call(key)[len("/?eval"):], None),
            "soap": ("POST", "/", SOAP_INSERT.format(key=key)),
            "put": ("PUT", f"/tmp/{key}.txt", "evil"),
            "delete": ("DELETE", f"/tmp/{key}.txt", None)}[action]


OWN = "own"  # stands for "127.0.0.1:<the broker's port>" in the table
FOREIGN = "http://attacker.example"

# action, Host, Origin, Sec-Fetch-Site, token sent, expected status.
TABLE = [
    ("call", OWN, None, None, TOKEN, 200),
    ("call", OWN, None, None, None, 401),
    ("call", "attacker.example", None, None, TOKEN, 403),
    ("call", "LOCALHOST:{port}", "http://localhost:{port}", "same-origin", TOKEN, 200),
    ("call", OWN, FOREIGN, "cross-site", TOKEN, 403),
    ("json", OWN, None, "same-site", TOKEN, 403),
    ("json", OWN, None, "none", TOKEN, 200),
    ("soap", OWN, "null", None, TOKEN, 403),
    ("soap", None, None, None, TOKEN, 200),
    ("soap", OWN, None, None, None, 401),
    ("put", OWN, "http://127.0.0.1:1", "same-site", TOKEN, 403),
    ("put", "attacker.example", None, None, TOKEN, 403),
    ("put", OWN, None, None, TOKEN, 200),
    ("delete", OWN, None, "cross-site", TOKEN, 403),
    ("delete", OWN, None, None, None, 401),
    ("delete", OWN, None, None, TOKEN, 200),
]


def test_requests_are_refused_before_they_change_anything(start_program, tmp_path):
    _, port = start_broker(start_program, tmp_path, TOKEN)
    files = tmp_path / "Korvane" / "velmo" / "tmp"
    for number, (action, host, origin, site, token, expected) in enumerate(TABLE):
        key = f"row{number}"
        method, path, body = action_request(action, key)
        if action == "delete":
            files.mkdir(parents=True, exist_ok=True)
            (files / f"{key}.txt").write_text("kept")
        headers = {}
        if host:
            headers["Host"] = f"127.0.0.1:{port}" if host == OWN else host.format(port=port)
        if origin:
            headers["Origin"] = origin.format(port=port)
        if site:
            headers["Sec-Fetch-Site"] = site
        if token:
            headers["Authorization"] = f"Bearer {token}"
        status, answer, text = ask(port, method, path, headers, body)
        row = f"row {number}: {action} {headers} -> {status} {text!r}"
        assert status == expected, row
        assert not any(name.lower().startswith("access-control") for name in answer), row
        if action in ("put", "delete"):
            done = (files / f"{key}.txt").exists() == (action == "put")
        else:
            done = stored(port, key, TOKEN) == 42
        assert done == (expected == 200), row
        if expected != 200:
            assert text.count("\n") == 1 and text.startswith(("Forbidden: ", "Unauthorized: ")), row
    # Reading stays open to other sites' pages; the link a person opens sets the cookie.
    status, _, text = ask(port, "GET", "/index.xml", {"Host": f"127.0.0.1:{port}",
                                                     "Origin": FOREIGN, "Authorization":
                                                     f"Bearer {TOKEN}"})
    assert status == 200 and "<page>" in text
    # No preflight succeeds, and no answer lets another origin read it.
    status, answer, _ = ask(port, "OPTIONS", "/", {
        "Origin": FOREIGN, "Authorization": f"Bearer {TOKEN}",
        "Access-Control-Request-Method": "PUT"})
    assert status == 405 and not [name for name in answer if name.startswith("Access-Control")]
    # A link followed from another site: the call is shown, not run, in a page no site frames.
    status, answer, text = ask(port, "GET", url_call("link"), {
        "Authorization": f"Bearer {TOKEN}", "Sec-Fetch-Site": "cross-site",
        "Sec-Fetch-Mode": "navigate"})
    assert (status, answer["X-Frame-Options"]) == (403, "DENY") and "Run this call?" in text
    assert stored(port, "link", TOKEN) is None
    status, answer, _ = ask(port, "GET", f"/?token={TOKEN}", {"Host": f"127.0.0.1:{port}"})
    assert (status, answer["Location"]) == (303, "/")
    assert answer["Set-Cookie"] == f"velmo-token-{port}={TOKEN}; Path=/; HttpOnly; SameSite=Strict"
    status, _, _ = ask(port, "GET", "/index.xml", {"Cookie": f"velmo-token-{port}={TOKEN}"})
    assert status == 200


def test_without_a_token_tools_keep_working_and_browsers_are_still_checked(start_program,
                                                                          tmp_path):
    program, port = start_broker(start_program, tmp_path, None, "--allow-host", "robot.lan")
    program.wait_for(r"Listening on 127\.0\.0\.1:\d+")
    program.wait_for("No token is required")
    plain = {"Host": f"127.0.0.1:{port}", "User-Agent": "curl/7.88.1", "Accept": "*/*"}
    for action in ("call", "soap", "put", "delete"):
        method, path, body = action_request(action, "plain")
        assert ask(port, method, path, plain, body)[0] == 200, action
    assert stored(port, "plain") == 42
    assert not (tmp_path / "Korvane" / "velmo" / "tmp" / "plain.txt").exists()
    assert ask(port, "GET", url_call("img"), {**plain, "Sec-Fetch-Site": "cross-site"})[0] == 403
    assert ask(port, "GET", "/index.xml", {"Host": f"Robot.LAN.:{port}"})[0] == 200


# ---- In a real browser


def serve_folder(folder):
    """Serves `folder` on 127.0.0.1 (another origin than the broker's); gives the server."""
    handler = functools.partial(http.server.SimpleHTTPRequestHandler, directory=str(folder))
    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), handler)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    return server


def attack_page(broker):
    base = f"http://127.0.0.1:{broker}"
    # text/plain form: the body is name=value, so the '=' falls in the XML declaration.
    name, value = SOAP_INSERT.format(key="form").split("=", 1)
    return f"""<!DOCTYPE html><html><body>
<img src="{base}{url_call('img')}">
<a id="link" href="{base}{url_call('link')}">a link</a>
<form id="form" method="POST" action="{base}/" enctype="text/plain">
<input type="hidden" name='{name}' value='{value}'></form>
<script>
Promise.allSettled([
  fetch("{base}{url_call('fetch')}", {{mode: "no-cors"}}),
  fetch("{base}/tmp/evil.txt", {{method: "PUT", body: "evil"}}),
  fetch("{base}/tmp/evil.txt", {{method: "DELETE"}}),
]).then(() => {{ document.title = "settled"; }});
</script></body></html>"""


def test_pages_of_another_origin_change_nothing_and_the_brokers_own_form_works(
        start_program, tmp_path, browser):
    from selenium.webdriver.common.by import By
    from selenium.webdriver.support.ui import WebDriverWait

    from test_pages import call_from_page

    _, port = start_broker(start_program, tmp_path)
    files = tmp_path / "Korvane" / "velmo" / "tmp"
    files.mkdir(parents=True)
    (files / "evil.txt").write_text("kept")
    (tmp_path / "site").mkdir()
    (tmp_path / "site" / "attack.html").write_text(attack_page(port))
    site = serve_folder(tmp_path / "site")
    attack = f"http://127.0.0.1:{site.server_address[1]}/attack.html"
    try:
        wait = WebDriverWait(browser, PATIENCE_S)
        browser.get(attack)
        wait.until(lambda _: browser.title == "settled")
        wait.until(lambda _: browser.execute_script(
            "return document.images[0].complete"))
        browser.find_element(By.ID, "form").submit()
        wait.until(lambda _: browser.current_url == f"http://127.0.0.1:{port}/")
        assert "Forbidden: a request from another site" in browser.find_element(
            By.TAG_NAME, "body").text
        for key in ("img", "fetch", "form"):
            assert stored(port, key) is None, key
        assert (files / "evil.txt").read_text() == "kept"

        # A link followed from another site shows the call; the person may run it.
        browser.get(attack)
        browser.find_element(By.ID, "link").click()
        wait.until(lambda _: browser.find_elements(By.ID, "run"))
        assert browser.find_element(By.TAG_NAME, "h1").text == "Run this call?"
        assert 'KXMemory.insertData(["link",42])' in browser.find_element(
            By.CSS_SELECTOR, "pre.call").text
        assert stored(port, "link") is None
        browser.find_element(By.ID, "run").click()
        wait_until(lambda: stored(port, "link") == 42, "the call to run from the broker's page")
    finally:
        site.shutdown()
        site.server_close()

    browser.get(f"http://127.0.0.1:{port}/KXMemory.html")
    wait.until(lambda _: browser.find_elements(By.CSS_SELECTOR, "#method-insertData form"))
    assert call_from_page(browser, "insertData", "own", "7") == "Result: (no value)"
    assert stored(port, "own") == 7


# ---- Brokers of one tree in two processes

PY_CHILD = """
import sys, ivelmo
class Calc(ivelmo.module):
    def __init__(self, name):
        ivelmo.module.__init__(self, name)
        self.BIND_PYTHON(name, "add")
    def add(self, a, b):
        return a + b
try:
    ivelmo.broker("tokenchild", "127.0.0.1", 0, "127.0.0.1", {parent})
except RuntimeError as error:
    print("REFUSED", str(error).replace("\\n", " "), flush=True)
    sys.exit(3)
Calc("Calc")
ivelmo.getMemoryProxy().insertData("fromChild", 5)
print("SERVING", flush=True)
sys.stdin.read()
"""


def test_a_child_with_the_trees_token_joins_and_one_without_is_refused(start_program,
                                                                        tmp_path):
    import subprocess

    _, root = start_broker(start_program, tmp_path, TOKEN)
    child = start_program([sys.executable, "-c", PY_CHILD.format(parent=root)],
                          stdin=subprocess.PIPE, env={"VELMO_TOKEN": TOKEN})
    child.wait_for("SERVING")
    assert stored(root, "fromChild", TOKEN) == 5  # child to root
    # Asked at the root, the root looks in its child's branch: root to child, then the
    # command calls the child itself.
    called = subprocess.run([os.path.join(BIN_DIR, "velmo"), "call", "--broker",
                             f"127.0.0.1:{root}", "Calc.add", "2", "3"],
                            env=env_with_binding({"VELMO_TOKEN": TOKEN}), capture_output=True,
                            text=True, timeout=PATIENCE_S)
    assert (called.returncode, called.stdout) == (0, "5\n"), called.stderr

    refused = run_python(PY_CHILD.format(parent=root), env={"VELMO_TOKEN": "another-token"})
    assert refused.returncode == 3, refused.stdout + refused.stderr
    assert "refused the request: Unauthorized: the token sent is not this broker's." in (
        refused.stdout)
    output = refused.stdout + refused.stderr
    said = [line for line in output.splitlines() if "cannot register broker to" in line]
    assert len(said) == 1, output
    status, _, page = ask(root, "GET", "/index.xml", {"Authorization": f"Bearer {TOKEN}"})
    assert status == 200
    children = ElementTree.fromstring(page).findall("childBrokers/broker")
    assert [child.findtext("name") for child in children] == ["tokenchild"]
