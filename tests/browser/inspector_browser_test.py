#!/usr/bin/env python3
"""The inspector page in a real browser (headless Chromium through Selenium).

Starts korvel-collector, opens its page, lets korvel-example deliver a host's
beacons to it, and checks what a developer sees: rows arriving live (without
a reload), the filter (and the word it shows when nothing matches), page
views named by their screen, a session's timeline with its page views (a
short one's label on one line), each tab's details pane showing that tab's
own beacon, and a planted bad beacon flagged with its reason. Saves a
screenshot.

    inspector_browser_test.py COLLECTOR EXAMPLE SCREENSHOT

Exits 77 (skipped) only when Chromium cannot be started here.
"""
import os
import re
import subprocess
import sys
import time
import urllib.request

SKIP = 77


def fail(message):
    print("FAIL: " + message)
    sys.exit(1)


def start_browser():
    try:
        from selenium import webdriver
        from selenium.webdriver.chrome.service import Service
    except ImportError as error:
        print(f"SKIP: python3-selenium is not installed ({error}); run scripts/setup")
        sys.exit(SKIP)
    options = webdriver.ChromeOptions()
    for flag in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
                 "--window-size=1280,800"):
        options.add_argument(flag)
    if os.path.exists("/usr/bin/chromium"):
        options.binary_location = "/usr/bin/chromium"
    try:
        service = Service("/usr/bin/chromedriver") if os.path.exists("/usr/bin/chromedriver") else Service()
        return webdriver.Chrome(service=service, options=options)
    except Exception as error:  # the driver or the browser is missing or cannot run
        first = str(error).strip().splitlines()[0] if str(error).strip() else type(error).__name__
        print(f"SKIP: Chromium cannot start here: {first}")
        sys.exit(SKIP)


def settled(read):
    """Runs a read (or a click) of the page again when the live stream
    re-rendered an element between two WebDriver calls."""
    from selenium.common.exceptions import StaleElementReferenceException
    for _ in range(100):
        try:
            return read()
        except StaleElementReferenceException:
            time.sleep(0.05)
    fail("the page kept re-rendering what was being read")


def wait_until(what, predicate, timeout=20.0):
    deadline = time.monotonic() + timeout
    while True:
        value = settled(predicate)
        if value:
            return value
        if time.monotonic() > deadline:
            fail("timed out waiting for " + what)
        time.sleep(0.1)


def main():
    collector_path, example_path, screenshot = sys.argv[1:4]
    browser = start_browser()
    collector = subprocess.Popen([collector_path, "--quiet", "--allow-event", "webpromo"],
                                 stderr=subprocess.PIPE, text=True)
    try:
        line = collector.stderr.readline()
        match = re.search(r"listening on (http://\S+)", line)
        if not match:
            fail("the collector did not start: " + line)
        base = match.group(1)
        from selenium.webdriver.common.by import By

        def rows():
            return browser.find_elements(By.CSS_SELECTOR, "#beacons tbody tr")

        def cells(row):
            return [c.text for c in row.find_elements(By.TAG_NAME, "td")]

        browser.get(base + "/")
        wait_until("the live stream to connect",
                   lambda: browser.find_element(By.ID, "live").text == "live")
        if rows():
            fail("a fresh collector should show no beacons")

        # A host reports; the rows arrive while the page stays loaded.
        marker = browser.execute_script("window.kvrMarker = 1; return window.kvrMarker;")
        host = subprocess.run([example_path, "--send", base], capture_output=True, text=True,
                              timeout=60)
        if host.returncode != 0:
            fail("korvel-example failed: " + host.stderr)
        wait_until("the host's beacons to appear", lambda: len(rows()) >= 8)
        if browser.execute_script("return window.kvrMarker;") != marker:
            fail("the page reloaded instead of updating live")
        events = settled(lambda: [cells(r)[2] for r in rows()])
        for expected in ("userevent", "tagged", "webpromo", "pageview", "usersession"):
            if expected not in events:
                fail(f"no {expected} row among {events}")
        bad_rows = settled(lambda: [cells(r) for r in browser.find_elements(By.CSS_SELECTOR, "tr.bad")])
        if bad_rows:
            fail("the library's own beacons should all be good: " + str(bad_rows))
        # A page view has no type: its row names the screen in that column.
        screens = settled(lambda: [cells(r)[3] for r in rows() if cells(r)[2] == "pageview"])
        if not screens or "" in screens or "home" not in screens:
            fail("page-view rows should show their screen name: " + str(screens))

        # A bad beacon: an event the library does not make, a broken escape.
        now = int(time.time())
        # A page view of 0.23 s in a session of its own, for the timeline.
        urllib.request.urlopen(
            f"{base}/b/EXAMPLE-INID/14.2/Laptop14%2C2/pageview?clientcreationtimestamp={now}"
            f"&clientbeaconuuid=SHORT-1&sessionid=short&screenname=splash&duration=0.23").read()
        urllib.request.urlopen(
            f"{base}/b/EXAMPLE-INID/14.2/Laptop14%2C2/pagevieww?clientcreationtimestamp={now}"
            f"&clientbeaconuuid=PLANTED-1&sessionid=planted&screenname=100%zz").read()
        verdict = wait_until("the planted beacon to be flagged", lambda: [
            cells(r)[5] for r in browser.find_elements(By.CSS_SELECTOR, "tr.bad")])[0]
        if "not one the library makes" not in verdict or "malformed percent-encoding" not in verdict:
            fail("the bad row does not say why: " + verdict)

        # A beacon's parameters: the reporter's own first, the common folded.
        settled(lambda: [r for r in rows() if cells(r)[2] == "userevent"][0].click())
        wait_until("the beacon's details", lambda: "Reporter's parameters" in
                   browser.find_element(By.ID, "detail").text)
        detail = browser.find_element(By.ID, "detail").text
        if "note" not in detail or "rock & roll = 100% fun" not in detail:
            fail("the share beacon's own parameters are missing: " + detail)
        common = browser.find_element(By.ID, "common")
        if common.get_attribute("open") is not None:
            fail("the common parameters should start folded")

        # The filter box.
        box = browser.find_element(By.ID, "filter")
        box.send_keys("userevent")
        wait_until("the filter to apply",
                   lambda: rows() and all(cells(r)[2] == "userevent" for r in rows()))
        box.clear()
        box.send_keys("bad")
        wait_until("the bad filter", lambda: len(rows()) == 1 and cells(rows()[0])[2] == "pagevieww")
        # A filter that matches nothing says so instead of an empty table.
        box.clear()
        box.send_keys("nosuchevent")
        message = wait_until("the no-match message", lambda: not rows() and browser.find_element(
            By.ID, "empty").is_displayed() and browser.find_element(By.ID, "empty").text)
        if "No beacon matches the filter" not in message or "nosuchevent" not in message:
            fail("the no-match message does not say so: " + message)
        box.clear()
        box.send_keys(" ")
        wait_until("the filter to clear", lambda: len(rows()) >= 10)
        if browser.find_element(By.ID, "empty").is_displayed():
            fail("the no-match message stays with rows in the table")

        # The details pane belongs to the tab: the beacon chosen on Beacons is
        # not shown on Sessions, and comes back on Beacons.
        settled(lambda: [r for r in rows() if cells(r)[2] == "userevent"][0].click())
        wait_until("the userevent's details", lambda: "userevent" in
                   browser.find_element(By.ID, "detail").text)
        browser.find_element(By.ID, "tab-sessions").click()
        wait_until("the sessions tab to show no beacon's details", lambda: "Select a beacon" in
                   browser.find_element(By.ID, "detail").text)

        # A page view of 0.23 s: its label stays on one line.
        settled(lambda: wait_until("the short session", lambda: [
            li for li in browser.find_elements(By.CSS_SELECTOR, "#sessions li")
            if li.get_attribute("data-session") == "short"])[0].click())
        short = wait_until("the short page view", lambda: [
            v for v in browser.find_elements(By.CSS_SELECTOR, "#timeline .view")
            if "splash" in v.text])[0]
        step = browser.find_element(By.CSS_SELECTOR, "#timeline .step")
        heights = settled(lambda: (short.size["height"], step.size["height"]))
        if "page view: splash · 0.23 s" not in short.text or heights[0] > 1.5 * heights[1]:
            fail(f"the 0.23 s page view wraps: {heights[0]} px high against a line of "
                 f"{heights[1]} px: {short.text!r}")
        settled(lambda: browser.find_element(By.CSS_SELECTOR, "#timeline .step").click())
        wait_until("the session beacon's details", lambda: "splash" in
                   browser.find_element(By.ID, "detail").text)
        browser.find_element(By.ID, "tab-beacons").click()
        wait_until("the beacons tab's own choice back", lambda: "userevent" in
                   browser.find_element(By.ID, "detail").text)
        browser.find_element(By.ID, "tab-sessions").click()
        wait_until("the sessions tab's own choice back", lambda: "splash" in
                   browser.find_element(By.ID, "detail").text)
        browser.save_screenshot(screenshot.replace(".png", "-sessions.png"))
        browser.find_element(By.ID, "tab-beacons").click()

        # A session's timeline with its page views and their durations.
        browser.find_element(By.ID, "tab-sessions").click()
        host_session = settled(lambda: wait_until("the session list", lambda: [
            li.get_attribute("data-session")
            for li in browser.find_elements(By.CSS_SELECTOR, "#sessions li")
            if li.get_attribute("data-session") not in ("planted", "short")])[0])
        settled(lambda: browser.find_element(
            By.CSS_SELECTOR, f'#sessions li[data-session="{host_session}"]').click())
        views = wait_until("the host session's timeline", lambda: browser.find_element(
            By.CSS_SELECTOR, "#timeline h2").text == "Session " + host_session and [
            v.text for v in browser.find_elements(By.CSS_SELECTOR, "#timeline .view")])
        if not any(re.search(r"page view: home · \d+\.\d\d s", v) for v in views):
            fail("no timed page view of home in the timeline: " + str(views))
        if not any("lyrics" in v for v in views):
            fail("the renamed page is missing from the timeline: " + str(views))
        browser.find_element(By.ID, "tab-beacons").click()
        settled(lambda: browser.find_element(By.CSS_SELECTOR, "tr.bad").click())
        wait_until("the bad beacon's details",
                   lambda: "pagevieww" in browser.find_element(By.ID, "detail").text)
        browser.save_screenshot(screenshot)
        print(f"ok: {settled(lambda: len(rows()))} rows, timeline {views}; screenshot {screenshot}")
    finally:
        browser.quit()
        collector.terminate()
        collector.wait(timeout=10)


if __name__ == "__main__":
    main()
