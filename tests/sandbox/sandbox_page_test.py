#!/usr/bin/env python3
"""The page of kspool-sandbox in a browser; PAGE_SCREENSHOTS names a folder for pictures of it.
Usage: sandbox_page_test.py SANDBOX MB"""
import base64
import http.client
import os
import shutil
import subprocess
import sys
import tempfile
import time
import urllib.parse

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.keys import Keys

sys.path.append(os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tools"))
from pool_server import PoolServer  # noqa: E402

SANDBOX, MB = (os.path.abspath(program) for program in sys.argv[1:])
DRIVER = shutil.which("chromedriver") or sys.exit("chromedriver is missing: packages chromium, chromium-driver")
SWITCHES = ("headless=new", "no-sandbox", "disable-gpu", "disable-dev-shm-usage")
MARKUP = "<img src=x onerror=document.title='run'>"  # has no slash, so that a name can be it
SCRIPT = MARKUP + "<script>document.title='run'</script>"
OVERRIDE, OVERRIDE_SHOWN = "a\u202egnp.exe", "aU+202Egnp.exe"
LONG, ODD = "L" * 4096, "odd !'()*%&+=ä"


def js(expression, *arguments):
    return driver.execute_script("return " + expression, *arguments)


def until(selector, *texts):
    """Waits until an element shows all these texts."""
    end = time.monotonic() + 15
    while True:
        shown = js("document.querySelector(arguments[0])?.innerText ?? ''", selector)
        if all(text in shown for text in texts):
            return
        assert time.monotonic() < end, (selector, texts, shown[:2000])
        time.sleep(0.02)


def tab_to(selector, *keys):
    """Presses the tab key until an element has the focus, then these keys."""
    while not js("document.activeElement.matches(arguments[0])", selector):
        webdriver.ActionChains(driver).send_keys(Keys.TAB).perform()
        assert js("document.activeElement !== document.body"), "the tab key does not lead to " + selector
    webdriver.ActionChains(driver).send_keys(*keys).perform()


def open_tab(name):
    js("document.getElementById('tab-' + arguments[0]).focus()", name)


def ask(**form):
    ask.number += 1
    connection.request("POST", "/ws/metabase", urllib.parse.urlencode(form, quote_via=urllib.parse.quote, safe=""),
                       {"Authorization": "Basic " + LOGIN, "Request-Id": f"{ask.number:032}",
                        "Content-Type": "application/x-www-form-urlencoded"})
    connection.getresponse().read()


def check_fault():
    """By keyboard alone: an event is ordered for a session's mkdir, strikes, and is read on the wire."""
    tab_to("#tab-requests", Keys.ARROW_RIGHT)
    for field, keys in (("#what", "event"), ("[name=action]", "mkdir"), ("[name=code]", "0" + Keys.ENTER)):
        tab_to(field, keys)
    until("#said", "Error: 'code' of fault 'event'")
    tab_to("[name=code]", Keys.BACKSPACE, "4242", Keys.ENTER)
    until("#waiting", "event", "mkdir", "code 4242")
    refused = subprocess.run([MB, "mkdir", "/refused"], capture_output=True, text=True)
    assert refused.returncode != 0 and "event 4242" in refused.stderr, refused
    until("#waits", "none")
    tab_to("#struck button", Keys.ENTER)
    until("#wire", "POST /ws/metabase HTTP/1.1\n", "\nAuthorization: ", "\n\naction=mkdir&path=%2Frefused",
          "HTTP/1.1 500", '"eventCode":4242')
    assert LOGIN not in js("document.documentElement.textContent")
    subprocess.run([MB, "mkdir", "/made"], check=True)
    until("#log tbody tr", "200", "metabase/mkdir")
    tab_to("#log button", Keys.END, Keys.HOME, Keys.ENTER)
    until("#wire", "action=mkdir&path=%2Fmade", "HTTP/1.1 200")


def check_hostile_texts():
    ask(action="setlastimage", dsid=1, client=SCRIPT, policy=OVERRIDE, parentid=0, imagename=LONG, datetime=1, flags=0)
    for name in (MARKUP, OVERRIDE, ODD, *(f"{ODD}/{number:03}" for number in range(150))):
        ask(action="mkdir", path="/" + name)
    ask(action=MARKUP + OVERRIDE)
    server.admin("dataselections", [{"number": 1, "tag": MARKUP + OVERRIDE}])
    for tab, *texts in (("requests", "/" + MARKUP), ("dataselections", MARKUP + OVERRIDE_SHOWN),
                        ("names", MARKUP, OVERRIDE_SHOWN, ODD), ("images", SCRIPT, OVERRIDE_SHOWN, "4,096 characters")):
        open_tab(tab)
        until("#" + tab, *texts)
    tab_to("#images summary", Keys.ENTER)
    until("#images", LONG)
    open_tab("names")
    until("#names tbody tr:last-child", ODD)
    tab_to("#names tbody tr:last-child button", Keys.ENTER)
    until("#names", "100 rows so far", "099")
    tab_to("#names .more", Keys.ENTER)
    until("#names", ODD, "150 rows", "149")
    assert js("[document.title, document.scripts.length, document.images.length]") == ["kspool-sandbox", 1, 0]
    assert "\u202e" not in js("document.body.textContent")


def check_look(folder, colours):
    for width, height, scheme in ((400, 850, "light"), (400, 850, "dark"), (1600, 900, "light"), (1600, 900, "dark")):
        driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride",
                               {"width": width, "height": height, "deviceScaleFactor": 1, "mobile": False})
        driver.execute_cdp_cmd("Emulation.setEmulatedMedia",
                               {"features": [{"name": "prefers-color-scheme", "value": scheme}]})
        colours.add(js("getComputedStyle(document.body).backgroundColor"))
        for tab, text in (("requests", ""), ("faults", ""), ("images", "1 row"), ("dataselections", "1 row"), ("names", "100")):
            open_tab(tab)
            until("#" + tab, text)
            assert js("innerWidth - document.documentElement.scrollWidth") >= 0, (width, tab)
            if folder:
                driver.save_screenshot(f"{folder}/{tab}-{width}-{scheme}.png")
    assert len(colours) == 2, colours


def check_bounds():
    open_tab("requests")
    for _ in range(1000):
        ask(action="gettime")
    ask(action="last")
    until("#log tbody tr", "metabase/last")
    assert 100 <= js("document.querySelector('#log').tBodies[0].rows.length") <= 200


with tempfile.TemporaryDirectory() as place:
    server = PoolServer(SANDBOX, place + "/pool")
    server.start()
    LOGIN = base64.b64encode(f"agent:{server.password}".encode()).decode()
    connection, ask.number = http.client.HTTPConnection(server.url.split("//")[1]), 0
    options = webdriver.ChromeOptions()
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    for switch in (*SWITCHES, f"user-data-dir={place}/profile"):
        options.add_argument("--" + switch)
    with webdriver.Chrome(options=options, service=Service(DRIVER)) as driver:
        driver.get(server.url + "/__admin/")
        until("#connection", "live")
        check_fault()
        check_hostile_texts()
        check_look(os.environ.get("PAGE_SCREENSHOTS"), set())
        check_bounds()
        said = [entry["message"] for entry in driver.get_log("browser")]
        assert len(said) == 1 and "400 (Bad Request)" in said[0], said  # for the order with a wrong code
        server.stop()
        until("#connection", "reconnecting")
        server.start()  # the numbers of its requests begin anew, and so does the list
        until("#connection", "live")
        until("#shown", "No request yet")
    server.stop()
