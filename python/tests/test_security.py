"""Who may use a broker's port, against the broker program: foreign host names, other
sites' pages (in a real browser too) and the tree's token, between processes as well."""
import functools
import http.server
import os
import subprocess
import sys
import threading
import urllib.parse
from xml.etree import ElementTree

from conftest import (BIN_DIR, PATIENCE_S, ask, env_with_binding, run_python, start_velmo,
                      url_call, wait_until)

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


def stored(port, key, token=None):
    """The memory value `key` of the broker, None when it has none (asked as a tool)."""
    return url_call(port, f'KXMemory.getData(["{key}"])', token).get("result")


def insert_call(key):
    return "/?evalKXMemory.insertData(" + urllib.parse.quote(f'["{key}",42]') + ")"


def start_broker(start_program, data_folder, *options, token=None):
    """The broker program; files stored by PUT land in data_folder/Korvane/velmo/tmp."""
    return start_velmo(start_program, "--name", "guarded", *options, env={
        "APPDATA": str(data_folder), **({"VELMO_TOKEN": token} if token else {})})


OWN, FOREIGN = "own", "http://attacker.example"  # OWN: "127.0.0.1:<the broker's port>"
# action, Host, Origin, Sec-Fetch-Site, token sent, expected status: each refusal once, and
# each action let through once.
TABLE = [
    ("call", OWN, None, None, TOKEN, 200),
    ("call", OWN, None, None, None, 401),
    ("json", OWN, None, "same-site", TOKEN, 403),
    ("soap", None, None, None, TOKEN, 200),
    ("soap", OWN, "null", None, TOKEN, 403),
    ("put", OWN, None, None, TOKEN, 200),
    ("put", "attacker.example", None, None, TOKEN, 403),
    ("delete", OWN, None, None, TOKEN, 200),
    ("delete", OWN, FOREIGN, "cross-site", TOKEN, 403),
]


def test_requests_are_refused_before_they_change_anything(start_program, tmp_path):
    _, port = start_broker(start_program, tmp_path, token=TOKEN)
    files = tmp_path / "Korvane" / "velmo" / "tmp"
    files.mkdir(parents=True)
    for number, (action, host, origin, site, token, expected) in enumerate(TABLE):
        key = f"row{number}"
        if action == "delete":
            (files / f"{key}.txt").write_text("kept")
        call = insert_call(key)
        method, path, body = {"call": ("GET", call, None),
                              "json": ("GET", call.replace("eval", "json", 1), None),
                              "soap": ("POST", "/", SOAP_INSERT.format(key=key)),
                              "put": ("PUT", f"/tmp/{key}.txt", "evil"),
                              "delete": ("DELETE", f"/tmp/{key}.txt", None)}[action]
        headers = {name: value for name, value in (
            ("Host", f"127.0.0.1:{port}" if host == OWN else host), ("Origin", origin),
            ("Sec-Fetch-Site", site), ("Authorization", token and f"Bearer {token}")) if value}
        status, answer, text = ask(port, method, path, headers, body)
        row = f"row {number}: {action} {headers} -> {status} {answer} {text!r}"
        assert status == expected, row
        # Answers that allowed other origins once let any page call the broker and read it.
        assert not [name for name in answer if name.lower().startswith("access-control")], row
        if action in ("put", "delete"):
            done = (files / f"{key}.txt").exists() == (action == "put")
        else:
            done = stored(port, key, TOKEN) == 42
        assert done == (expected == 200), row  # a refused request was once carried out
        if expected != 200:
            assert text.count("\n") == 1 and text.startswith(("Forbidden: ", "Unauthorized: ")), row
    # Reading stays open to other sites' pages, but no preflight succeeds, nor HEAD.
    own = {"Host": f"127.0.0.1:{port}", "Authorization": f"Bearer {TOKEN}", "Origin": FOREIGN}
    assert ask(port, "GET", "/index.xml", own)[0] == 200
    for method in ("OPTIONS", "HEAD"):
        status, answer, _ = ask(port, method, "/", {**own, "Access-Control-Request-Method": "PUT"})
        assert status == 405 and not [name for name in answer if name.startswith("Access-Control")]
    # The link a person opens with the token sets the cookie that stands for it from then on.
    status, answer, _ = ask(port, "GET", f"/?token={TOKEN}", {"Host": f"127.0.0.1:{port}"})
    assert (status, answer["Location"]) == (303, "/")
    assert answer["Set-Cookie"] == f"velmo-token-{port}={TOKEN}; Path=/; HttpOnly; SameSite=Strict"
    assert ask(port, "GET", "/index.xml", {"Cookie": f"velmo-token-{port}={TOKEN}"})[0] == 200


def test_pages_of_another_origin_change_nothing(
        start_program, tmp_path, browser):
    from selenium.webdriver.common.by import By
    from selenium.webdriver.support.ui import WebDriverWait

    _, port = start_broker(start_program, tmp_path)
    base, site = f"http://127.0.0.1:{port}", tmp_path / "site"
    site.mkdir()
    # A text/plain form's body is name=value: the '=' falls in the XML declaration.
    name, value = SOAP_INSERT.format(key="form").split("=", 1)
    (site / "attack.html").write_text(f"""<!DOCTYPE html><html><body>
<img src="{base}{insert_call('img')}"><a id="link" href="{base}{insert_call('link')}">a link</a>
<form id="form" method="POST" action="{base}/" enctype="text/plain">
<input type="hidden" name='{name}' value='{value}'></form>
<script>
fetch("{base}{insert_call('fetch')}", {{mode: "no-cors"}})
  .finally(() => {{ document.title = "settled"; }});
</script></body></html>""")
    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), functools.partial(
        http.server.SimpleHTTPRequestHandler, directory=str(site)))
    threading.Thread(target=server.serve_forever, daemon=True).start()
    attack = f"http://127.0.0.1:{server.server_address[1]}/attack.html"
    wait = WebDriverWait(browser, PATIENCE_S)
    try:
        browser.get(attack)
        wait.until(lambda _: browser.title == "settled")
        wait.until(lambda _: browser.execute_script("return document.images[0].complete"))
        browser.find_element(By.ID, "form").submit()
        wait.until(lambda _: browser.current_url == f"{base}/")
        assert "Forbidden: a request from another site" in browser.find_element(
            By.TAG_NAME, "body").text
        assert [stored(port, key) for key in ("img", "fetch", "form")] == [None] * 3
        # A link followed from another site shows the call as it will run; the person may.
        browser.get(attack)
        browser.find_element(By.ID, "link").click()
        wait.until(lambda _: browser.find_elements(By.ID, "run"))
        assert browser.find_element(By.CSS_SELECTOR, "pre.call").text == (
            'KXMemory.insertData(["link",42])')
        assert stored(port, "link") is None
        browser.find_element(By.ID, "run").click()
        wait_until(lambda: stored(port, "link") == 42, "the call to run from the broker's page")
    finally:
        server.shutdown()
        server.server_close()


CHILD = f"""
import sys
sys.path.insert(0, {os.path.dirname(__file__)!r})
import ivelmo
from conftest import Calc
try:
    ivelmo.broker("tokenchild", "127.0.0.1", 0, "127.0.0.1", {{parent}})
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
    _, root = start_broker(start_program, tmp_path, token=TOKEN)
    start_program([sys.executable, "-c", CHILD.format(parent=root)], stdin=subprocess.PIPE,
                  env={"VELMO_TOKEN": TOKEN}).wait_for("SERVING")
    assert stored(root, "fromChild", TOKEN) == 5  # child to root
    # Asked at the root, which finds the module in its child's branch: root to child.
    called = subprocess.run([os.path.join(BIN_DIR, "velmo"), "call", "--broker",
                             f"127.0.0.1:{root}", "Calc.add", "2", "3"],
                            env=env_with_binding({"VELMO_TOKEN": TOKEN}), capture_output=True,
                            text=True, timeout=PATIENCE_S)
    assert (called.returncode, called.stdout) == (0, "5\n"), called.stderr
    # A refused child once reported "Timeout" instead of the reason, and logged it twice.
    refused = run_python(CHILD.format(parent=root), env={"VELMO_TOKEN": "another-token"})
    output = refused.stdout + refused.stderr
    assert refused.returncode == 3, output
    assert "refused the request: Unauthorized: the token sent is not this broker's." in (
        refused.stdout)
    assert len([line for line in output.splitlines() if "cannot register broker to" in line]) == 1
    _, _, page = ask(root, "GET", "/index.xml", {"Authorization": f"Bearer {TOKEN}"})
    assert [child.findtext("name") for child in ElementTree.fromstring(page).findall(
        "childBrokers/broker")] == ["tokenchild"]
