#!/usr/bin/env python3
"""The page of kspool-sandbox in a browser. Usage: [PAGE_SCREENSHOTS=FOLDER] sandbox_page_test.py SANDBOX MB"""
import base64
import http.client
import os
import shutil
import sys
import tempfile
import time
import urllib.parse

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.keys import Keys

sys.path.append(os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tools"))
from pool_server import PoolServer  # noqa: E402
from programs import run  # noqa: E402

SANDBOX, MB = sys.argv[1:]
DRIVER = shutil.which("chromedriver") or sys.exit("chromedriver is missing: packages chromium, chromium-driver")
MARKUP = "<img src=x onerror=document.title='run'>"  # has no slash, so that a name can be it
SCRIPT = MARKUP + "<script>document.title='run'</script>"
OVERRIDE, OVERRIDE_SHOWN = "a\u202egnp.exe", "aU+202Egnp.exe"
LONG, ODD = "L" * 4096, "odd !'()*%&+=ä"


def js(expression, *arguments):
    return driver.execute_script("return " + expression, *arguments)


def until_shown(selector, *texts):
    end = time.monotonic() + 15
    while not all(text in js("document.querySelector(arguments[0])?.innerText ?? ''", selector) for text in texts):
        assert time.monotonic() < end, (selector, texts, js("document.body.innerText"))
        time.sleep(0.02)


def tab_to(selector, *keys):
    while not js("document.activeElement.matches(arguments[0])", selector):
        webdriver.ActionChains(driver).send_keys(Keys.TAB).perform()
        assert js("document.activeElement !== document.body"), "the tab key does not lead to " + selector
    webdriver.ActionChains(driver).send_keys(*keys).perform()


def open_tab(name, *texts):
    js("document.getElementById('tab-' + arguments[0]).focus()", name)
    until_shown("#" + name, *texts)


def ask(**form):
    connection.request("POST", "/ws/metabase", urllib.parse.urlencode(form, quote_via=urllib.parse.quote, safe=""),
                       {"Authorization": "Basic " + LOGIN, "Request-Id": f"{time.time_ns():032}",
                        "Content-Type": "application/x-www-form-urlencoded"})
    connection.getresponse().read()


def check_fault_by_keyboard():
    tab_to("#tab-requests", Keys.ARROW_RIGHT)
    for field, keys in (("#what", "event"), ("[name=action]", "mkdir"), ("[name=code]", "0" + Keys.ENTER)):
        tab_to(field, keys)
    until_shown("#said", "Error: 'code' of fault 'event'")
    tab_to("[name=code]", Keys.BACKSPACE, "4242", Keys.ENTER)
    until_shown("#waiting", "event", "mkdir", "code 4242")
    assert "event 4242" in run(MB, "mkdir", "/refused", code=1).stderr
    until_shown("#waits", "none")
    tab_to("#struck button", Keys.ENTER)
    until_shown("#wire", "POST /ws/", "\nAuthorization: ", "\n\naction=mkdir&path=%2Frefused", '"eventCode":4242')
    assert LOGIN not in js("document.documentElement.textContent")
    run(MB, "mkdir", "/made")
    until_shown("#log tbody tr", "\t200\t", "metabase/mkdir")
    tab_to("#log button", Keys.END, Keys.HOME, Keys.ENTER)
    until_shown("#wire", "action=mkdir&path=%2Fmade", "HTTP/1.1 200")
    open_tab("faults")
    tab_to("#what", "full")  # a scenario
    tab_to("#order button", Keys.ENTER)
    until_shown("#waiting", "addlist", "database or disk is full")
    assert "disk is full" in run(MB, "mkdir", "/more", code=1).stderr
    tab_to("#remove", Keys.ENTER)
    until_shown("#waits", "none")


def check_hostile_texts():
    ask(action="setlastimage", dsid=1, client=SCRIPT, policy=OVERRIDE, parentid=0, imagename=LONG, datetime=1, flags=0)
    for name in (MARKUP, OVERRIDE, ODD, *(f"{ODD}/{number:03}" for number in range(150))):
        ask(action="mkdir", path="/" + name)
    ask(action=MARKUP + OVERRIDE)
    server.admin("dataselections", [{"number": 1, "tag": MARKUP + OVERRIDE}])
    open_tab("requests", "/" + MARKUP)
    open_tab("dataselections", MARKUP + OVERRIDE_SHOWN)
    open_tab("images", SCRIPT, OVERRIDE_SHOWN, "4,096 characters")
    tab_to("#images summary", Keys.ENTER)
    until_shown("#images", LONG)
    open_tab("names", MARKUP, OVERRIDE_SHOWN, ODD)
    tab_to("#names tbody tr:last-child button", Keys.ENTER)
    until_shown(":focus", ODD)  # in the path: the button that was pressed is gone
    until_shown("#names", "100 rows so far", "099")
    tab_to("#names .more", Keys.ENTER)
    until_shown("#names", ODD, "150 rows", "149")
    assert js("[document.title, document.scripts.length, document.images.length]") == ["kspool-sandbox", 1, 0]
    assert "\u202e" not in js("document.body.textContent")


options = webdriver.ChromeOptions()
options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
for switch in ("headless=new", "no-sandbox", "disable-gpu", "disable-dev-shm-usage"):
    options.add_argument("--" + switch)
with tempfile.TemporaryDirectory() as place, webdriver.Chrome(options=options, service=Service(DRIVER)) as driver:
    server = PoolServer(SANDBOX, place + "/pool")
    server.start()
    LOGIN = base64.b64encode(f"agent:{server.password}".encode()).decode()
    connection = http.client.HTTPConnection(server.url.split("//")[1])
    driver.get(server.url + "/__admin/")
    check_fault_by_keyboard()
    check_hostile_texts()
    for width, scheme in ((400, "light"), (400, "dark"), (1600, "light"), (1600, "dark")):
        size = {"width": width, "height": 900, "deviceScaleFactor": 1, "mobile": False}
        driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", size)
        media = {"features": [{"name": "prefers-color-scheme", "value": scheme}]}
        driver.execute_cdp_cmd("Emulation.setEmulatedMedia", media)
        assert js("parseInt(getComputedStyle(document.body).backgroundColor.slice(4)) < 128") == (scheme == "dark")
        for tab in ("requests", "faults", "images", "dataselections", "names"):
            open_tab(tab, "" if tab in ("requests", "faults") else " row")
            assert js("innerWidth - document.documentElement.scrollWidth") >= 0, (width, tab)
            if folder := os.environ.get("PAGE_SCREENSHOTS"):
                driver.save_screenshot(f"{folder}/{tab}-{width}-{scheme}.png")
    for action in 1000 * ["gettime"] + ["last"]:
        ask(action=action)
    open_tab("requests", "metabase/last")
    assert 100 <= js("document.querySelector('#log').tBodies[0].rows.length") <= 200
    said = [entry["message"] for entry in driver.get_log("browser")]
    assert len(said) == 1 and "400 (Bad Request)" in said[0], said  # for the order with a wrong code
    server.stop()
    until_shown("#connection", "reconnecting")
    server.start()  # the numbers of its requests begin anew, and so does the list
    until_shown("body", "live", "No request yet")
    server.stop()
