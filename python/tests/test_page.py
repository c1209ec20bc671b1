"""The page in a browser."""

import json
import pathlib
import shutil
from typing import Any, Iterator

import pytest
from conftest import LIMIT, framed
from test_recording import write_recording

pytest.importorskip("matplotlib")
pytest.importorskip("selenium")
CHROMIUM, DRIVER = shutil.which("chromium") or "", shutil.which("chromedriver") or ""
if not CHROMIUM or not DRIVER:
    pytest.skip("chromium and chromium-driver are not there", allow_module_level=True)

from selenium import webdriver  # noqa: E402
from selenium.webdriver.chrome.service import Service  # noqa: E402
from selenium.webdriver.common.by import By  # noqa: E402
from selenium.webdriver.support.ui import WebDriverWait  # noqa: E402


@pytest.fixture
def browser(tmp_path: pathlib.Path) -> Iterator[Any]:
    options = webdriver.ChromeOptions()
    options.binary_location = CHROMIUM
    for argument in ("headless", "no-sandbox", "disable-gpu", "disable-quic", "no-first-run", "disable-sync",
                     "disable-background-networking", "disable-component-update", "disable-dev-shm-usage",
                     f"user-data-dir={tmp_path / 'profile'}"):  # fmt: skip
        options.add_argument(f"--{argument}")
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    browser = webdriver.Chrome(service=Service(DRIVER), options=options)
    browser.set_page_load_timeout(LIMIT)
    yield browser
    browser.quit()


def opened(start: Any, browser: Any, recording: pathlib.Path, *options: str) -> None:
    page = recording.with_suffix(".html")
    assert start("klvmsg", "chart", recording, "--html", page, *options).end()[0] == 0
    browser.get(page.as_uri())


def messages(browser: Any) -> Any:
    return browser.find_elements(By.CLASS_NAME, "message")


def test_a_click_shows_what_a_message_says(start: Any, browser: Any, tmp_path: pathlib.Path) -> None:
    recording = write_recording(
        tmp_path / "run.jsonl", (0, 1, "to-server", "Ask", b"</script><b>?"), (1, 1, "to-client", "<i>x", b"\1"),
        (2, 2, "to-server", "Ask", b"again"),
    )  # fmt: skip
    opened(start, browser, recording, "--text", "Ask")
    table = browser.find_elements(By.CSS_SELECTOR, ".table tr")
    assert [row.text.split()[0] for row in table] == ["type", "<i>x", "Ask"]
    assert len(browser.find_elements(By.CSS_SELECTOR, ".drawing svg")) == 2
    assert browser.find_elements(By.CSS_SELECTOR, ".rates svg path")
    first, second, _ = messages(browser)
    assert "Ask 17 </script><b>?" in first.text and "<i>x 5" in second.text
    second.click()
    assert browser.find_element(By.ID, "body").text == (
        "<i>x, 5 bytes, connection #1 to-client, at 1.000000 s\n0100000001")  # fmt: skip
    messages(browser)[0].click()
    assert browser.find_element(By.ID, "body").text.endswith("\n</script><b>?")
    browser.find_element(By.ID, "wanted").send_keys("aga")
    assert [message.text.split()[-1] for message in messages(browser)] == ["again"]
    assert browser.find_element(By.ID, "count").text == "1 of 3"
    assert [entry for entry in browser.get_log("browser") if entry["level"] == "SEVERE"] == []


def test_a_hundred_thousand_messages_stay_usable(start: Any, browser: Any, tmp_path: pathlib.Path) -> None:
    recording = tmp_path / "run.jsonl"
    with open(recording, "w") as file:
        for n in range(100_002):
            body = framed(b"%06d" % n)
            file.write(json.dumps({"time": 1e9 + n / 1000, "connection": 1, "direction": "to-server",
                                   "type": f"T{n % 7}", "length": len(body), "body": body.hex()}) + "\n")  # fmt: skip
    opened(start, browser, recording, "--text", "T*")
    assert browser.find_element(By.ID, "count").text == "100,000 of 100,000; 2 later ones are not listed"
    assert len(browser.find_elements(By.CSS_SELECTOR, "*")) < 5000
    browser.execute_script("element('list').scrollTop = 1e9")
    WebDriverWait(browser, LIMIT).until(lambda browser: "099999" in messages(browser)[-1].text)
    seconds = browser.execute_script("""
        const began = performance.now();
        element("wanted").value = "T3";
        choose();
        document.body.offsetHeight;  // laid out
        return (performance.now() - began) / 1000;""")
    assert browser.find_element(By.ID, "count").text.startswith("14,286 of")
    assert seconds < 5, "a search in everything"
    messages(browser)[1].click()
    assert browser.find_element(By.ID, "body").text.endswith("\n000010")
