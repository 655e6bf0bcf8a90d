"""The broker's pages for a person, in a real browser (headless Chromium)."""
import os
import time
from xml.etree import ElementTree

from conftest import BIN_DIR, PATIENCE_S, ask, start_velmo, url_call, wait_until


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


def test_a_person_browses_the_tree_and_stores_a_value_from_the_memory_page(start_program,
                                                                           browser):
    from selenium.webdriver.common.by import By
    from selenium.webdriver.support.ui import WebDriverWait

    _, root = start_velmo(start_program, "--name", "root")
    start_program([os.path.join(BIN_DIR, "velmo"), "--name", "child", "--ip", "127.0.0.1",
                   "--port", "0", "--parent-ip", "127.0.0.1", "--parent-port", str(root)])
    [child] = wait_until(lambda: [int(broker.findtext("port")) for broker in ElementTree.fromstring(
        ask(root, "GET", "/index.xml", {})[2]).findall("childBrokers/broker")],
        "the root to list its child")
    wait = WebDriverWait(browser, PATIENCE_S)
    browser.get(f"http://127.0.0.1:{root}/")
    wait.until(lambda _: browser.find_elements(By.CSS_SELECTOR, "#modules a.module"))
    assert [(a.text, a.get_attribute("href")) for a in browser.find_elements(
        By.CSS_SELECTOR, "#children a")] == [(f"child (127.0.0.1:{child})",
                                              f"http://127.0.0.1:{child}/index.html")]
    browser.find_element(By.LINK_TEXT, "KXMemory").click()
    wait.until(lambda _: browser.find_elements(By.CSS_SELECTOR, "#method-insertData form"))
    assert browser.current_url == f"http://127.0.0.1:{root}/KXMemory.html"

    name = 'the "greeting"'  # a double quote: the page writes the text in single quotes
    assert call_from_page(browser, "insertData", name, '["it\'s", 42]') == "Result: (no value)"
    assert url_call(root, f"KXMemory.getData(['{name}'])") == {"result": ["it's", 42]}

    def row():  # read in one go: the view redraws its rows every second
        return browser.execute_script(
            "const row = [...document.querySelectorAll('#memory tbody tr')]"
            ".find((r) => r.dataset.name === arguments[0]);"
            "return row ? [...row.children].map((cell) => cell.textContent) : null;", name)

    cells = wait.until(lambda _: row())
    _, seconds, micro = url_call(root, f"KXMemory.getTimestamp(['{name}'])")["result"]
    stamp = time.strftime("%Y-%m-%d %H:%M:%S", time.localtime(seconds)) + f".{micro // 1000:03d}"
    assert cells == [name, '["it\'s", 42]', "Array", stamp]
    url_call(root, f"KXMemory.insertData(['{name}', 7])")  # shows up on its own
    wait.until(lambda _: row()[1:3] == ["7", "Int"])

    assert call_from_page(browser, "getType", "both \" and '").startswith(
        "Error: A text cannot hold both")
    assert call_from_page(browser, "getType", "absent").endswith('Data "absent" does not exist.')
    assert "error" in browser.find_element(By.CSS_SELECTOR, "#method-getType output"
                                           ).get_attribute("class")
    assert call_from_page(browser, "getDataOnChange", name, "1.5") == (
        "Error: timeoutMs needs a whole number.")
    assert [e for e in browser.get_log("browser") if e["level"] == "SEVERE"] == []
