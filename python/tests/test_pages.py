"""The broker's pages for a person, in a real browser (headless Chromium), beside the XML
pages that tools keep reading."""
import json
import os
import time
import urllib.parse
import urllib.request
from xml.etree import ElementTree

import pytest

from conftest import BIN_DIR, PATIENCE_S, wait_until


def get(port, path):
    """GETs a path of the broker; gives its text."""
    with urllib.request.urlopen(f"http://127.0.0.1:{port}{path}", timeout=30) as response:
        return response.read().decode("utf-8")


def url_call(port, module, method, arguments):
    """Calls a method through the broker's JSON url call; gives the decoded answer."""
    text = urllib.parse.quote(arguments)
    return json.loads(get(port, f"/?json{module}.{method}({text})"))


def child_ports(port):
    """The ports of the child brokers that the broker's index.xml lists."""
    page = ElementTree.fromstring(get(port, "/index.xml"))
    return [int(child.findtext("port")) for child in page.findall("childBrokers/broker")]


@pytest.fixture
def child_tree(velmo_root, start_program):
    """A root broker and a child broker program; gives (root port, child port) once the root
    lists the child (a child prints no address of its own)."""
    start_program([os.path.join(BIN_DIR, "velmo"), "--name", "child", "--ip", "127.0.0.1",
                   "--port", "0", "--parent-ip", "127.0.0.1", "--parent-port", str(velmo_root)])
    [child_port] = wait_until(lambda: child_ports(velmo_root), "the root to list its child")
    return velmo_root, child_port


@pytest.fixture
def screenshots(tmp_path, capsys):
    """Saves screenshots into $VELMO_SCREENSHOTS (or the test's folder) and shows their paths."""
    folder = os.environ.get("VELMO_SCREENSHOTS") or str(tmp_path)
    os.makedirs(folder, exist_ok=True)

    def save(driver, name):
        path = os.path.join(folder, name)
        assert driver.save_screenshot(path), path
        with capsys.disabled():
            print(f"\nscreenshot: {path}")

    return save


def call_from_page(browser, method, *values):
    """Fills the form of `method` on a module page, calls, and gives the answer shown."""
    from selenium.webdriver.common.by import By
    from selenium.webdriver.support.ui import WebDriverWait

    form = browser.find_element(By.CSS_SELECTOR, f"#method-{method} form")
    for index, value in enumerate(values):
        field = form.find_element(By.ID, f"arg-{method}-{index}")
        field.clear()
        field.send_keys(value)
    answer = form.find_element(By.TAG_NAME, "output")
    browser.execute_script("arguments[0].textContent = ''", answer)  # no earlier answer is read
    form.find_element(By.TAG_NAME, "button").click()
    return WebDriverWait(browser, PATIENCE_S).until(
        lambda _: answer.text.startswith(("Result: ", "Error: ")) and answer.text)


def test_a_person_browses_the_tree_and_stores_a_value_from_the_memory_page(
        child_tree, browser, screenshots):
    from selenium.webdriver.common.by import By
    from selenium.webdriver.support.ui import WebDriverWait

    root, child = child_tree
    wait = WebDriverWait(browser, PATIENCE_S)
    console = []

    def heading():
        return browser.find_element(By.TAG_NAME, "h1").text

    browser.get(f"http://127.0.0.1:{root}/")
    assert browser.execute_script("return document.contentType") == "text/html"
    wait.until(lambda _: heading() == "Broker root")
    assert browser.title == "Velmo Broker : root"
    children = browser.find_elements(By.CSS_SELECTOR, "#children a")
    assert [(a.text, a.get_attribute("href")) for a in children] == [
        (f"child (127.0.0.1:{child})", f"http://127.0.0.1:{child}/index.html")]
    assert browser.find_element(By.CSS_SELECTOR, "#parent .none").text == "This broker has no parent."
    modules = [a.text for a in browser.find_elements(By.CSS_SELECTOR, "#modules a.module")]
    assert "KXMemory" in modules
    assert "XSLT" not in browser.find_element(By.TAG_NAME, "body").text
    screenshots(browser, "broker.png")
    console += browser.get_log("browser")

    browser.find_element(By.LINK_TEXT, "KXMemory").click()
    wait.until(lambda _: browser.current_url == f"http://127.0.0.1:{root}/KXMemory.html")
    wait.until(lambda _: heading() == "Module KXMemory")
    label = browser.find_element(By.CSS_SELECTOR, "label[for='arg-insertData-0']")
    assert label.text == "name string"
    # A name holding a double quote goes out in single quotes.
    name = 'the "greeting"'
    assert call_from_page(browser, "insertData", name, '["it\'s", 42]') == "Result: (no value)"
    assert url_call(root, "KXMemory", "getData", f"['{name}']") == {"result": ["it's", 42]}

    def row(name):
        # Read in one go: the view redraws its rows every second.
        return browser.execute_script(
            "const row = [...document.querySelectorAll('#memory tbody tr')]"
            ".find((r) => r.dataset.name === arguments[0]);"
            "return row ? [...row.children].map((cell) => cell.textContent) : null;", name)

    cells = wait.until(lambda _: row(name))
    _, seconds, microseconds = url_call(root, "KXMemory", "getTimestamp", f"['{name}']")["result"]
    stamp = time.strftime("%Y-%m-%d %H:%M:%S", time.localtime(seconds)) + f".{microseconds // 1000:03d}"
    assert cells == [name, '["it\'s", 42]', "Array", stamp]

    # A later value shows up on its own: the view keeps reading the memory.
    url_call(root, "KXMemory", "insertData", f"['{name}', 7]")
    wait.until(lambda _: row(name)[1:3] == ["7", "Int"])

    # A text holding both quotes cannot be written as an argument: the page says so.
    assert call_from_page(browser, "getType", "both \" and '").startswith(
        "Error: A text cannot hold both")
    # Errors of the module reach the page as text; an int parameter takes whole numbers only.
    assert call_from_page(browser, "getType", "absent").endswith('Data "absent" does not exist.')
    assert "error" in browser.find_element(By.CSS_SELECTOR, "#method-getType output").get_attribute(
        "class")
    assert call_from_page(browser, "getDataOnChange", name, "1.5") == (
        "Error: timeoutMs needs a whole number.")
    assert "Timed out after 10 ms" in call_from_page(browser, "getDataOnChange", name, "10")

    assert "XSLT" not in browser.find_element(By.TAG_NAME, "body").text
    browser.execute_script("window.scrollTo(0, 0)")  # the memory view, near the top
    screenshots(browser, "module.png")
    console += browser.get_log("browser")
    assert [entry for entry in console if entry["level"] == "SEVERE"] == []
