#!/usr/bin/python3
"""Drives the demo page of web/ in headless Chromium against the real daemon.

The daemon runs on its real port 986 and socket path inside private network, mount and PID
namespaces (the script re-executes itself under unshare), with the GUI stand-in tool connected as
its GUI application; the page is served from another loopback origin, so every call goes through
Chromium's own CORS preflight. The page's buttons call all thirteen methods; the test checks the
answers the page shows, the frames the stand-in received, the live panel and, once the stand-in
has stopped, the page's fallback to the second address. Screenshots go to the artifact directory.

Exit status: 0 passed, 1 failed (including a Chromium that cannot start), 77 skipped (no root or
no namespaces: a visible SKIP).
"""

import argparse
import contextlib
import json
import os
import re
import shutil
import signal
import socket
import socketserver
import subprocess
import sys
import tempfile
import threading
import time
import urllib.request

INSIDE_MARK = "QB_DEMO_PAGE_TEST_INSIDE"
SKIP_STATUS = 77
CHROMIUM = "/usr/bin/chromium"
CHROMEDRIVER = "/usr/bin/chromedriver"
DAEMON_ADDRESS = ("127.94.0.1", 986)
FALLBACK_ADDRESS = ("127.0.0.1", 986)
PAGE_ORIGIN = ("127.0.0.1", 8000)
STANDIN_VERSION = "4.2.0,77"
# Argument values typed into the page; the non-ASCII server name checks that the body's length
# is counted in bytes on both sides.
SERVER, PORT, WEB_PORT = "zürich.example.test", 1194, 943
TOKEN, SECOND_TOKEN = "tok-A1", "tok-B2"
# Starting a process, or the stand-in's one-second "connecting", takes well under these.
START_TIMEOUT = 15
ANSWER_TIMEOUT = 5
CHROMIUM_FLAGS = [
    "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
    "--disable-background-networking", "--disable-component-update", "--disable-sync",
    "--disable-dev-shm-usage", "--window-size=1100,1060", "--hide-scrollbars",
]


class TestFailure(Exception):
    pass


def check(condition, message):
    if not condition:
        raise TestFailure(message)


def wait_for(predicate, timeout, what):
    deadline = time.monotonic() + timeout
    while True:
        result = predicate()
        if result:
            return result
        if time.monotonic() > deadline:
            raise TestFailure(f"timed out after {timeout} s waiting for {what}")
        time.sleep(0.05)


def answers_tcp(address):
    try:
        with socket.create_connection(address, timeout=1):
            return True
    except OSError:
        return False


def xmlrpc(method):
    """One call from the test itself (not the page), for readiness checks."""
    body = f'<?xml version="1.0"?><methodCall><methodName>{method}</methodName></methodCall>'
    request = urllib.request.Request(f"http://{DAEMON_ADDRESS[0]}:{DAEMON_ADDRESS[1]}/vpn",
                                     body.encode(), {"Content-Type": "text/xml"})
    opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))
    try:
        return opener.open(request, timeout=ANSWER_TIMEOUT).read().decode()
    except OSError:
        return ""


class Stage:
    """The daemon, the stand-in and the page's web server as children, logging into a scratch
    directory; close() ends them (TERM, then KILL) and removes it."""

    def __init__(self, args):
        self.args = args
        self.scratch = tempfile.mkdtemp(prefix="qb-demo-page-")
        self.log_path = os.path.join(self.scratch, "processes.log")
        self.frames_path = os.path.join(self.scratch, "standin-frames.jsonl")
        self.log = open(self.log_path, "w")
        self.children = []

    def start(self, argv, **popen):
        child = subprocess.Popen(argv, stdin=subprocess.DEVNULL, stderr=self.log, **popen)
        self.children.append(child)
        return child

    def start_daemon(self, address):
        daemon = self.start([self.args.daemon], stdout=self.log)
        wait_for(lambda: answers_tcp(address) or daemon.poll() is not None, START_TIMEOUT,
                 f"the daemon to listen on {address[0]}")
        check(daemon.poll() is None, f"the daemon exited with {daemon.returncode}")
        return daemon

    def start_standin(self):
        """The stand-in prints each frame it receives as one JSON line, into frames_path."""
        with open(self.frames_path, "w") as frames:
            standin = self.start([self.args.standin, "--version", STANDIN_VERSION], stdout=frames)
        wait_for(lambda: STANDIN_VERSION in xmlrpc("clientVersion"), START_TIMEOUT,
                 "the stand-in to connect as the GUI")
        return standin

    def serve_page(self):
        self.start([sys.executable, "-m", "http.server", str(PAGE_ORIGIN[1]), "--bind", PAGE_ORIGIN[0],
                    "--directory", self.args.web], stdout=self.log)
        wait_for(lambda: answers_tcp(PAGE_ORIGIN), START_TIMEOUT, "the page's web server")

    def stop(self, child, name):
        """Ends a child with SIGTERM and checks that it exits with status 0."""
        terminate(child)
        check(child.returncode == 0, f"the {name} exited with {child.returncode} on SIGTERM")

    def log_tail(self, lines=30):
        with open(self.log_path) as logged:
            return "".join(logged.readlines()[-lines:])

    def close(self):
        for child in reversed(self.children):
            terminate(child)
        self.log.close()
        shutil.rmtree(self.scratch, ignore_errors=True)


def terminate(child):
    if child.poll() is None:
        child.terminate()
        try:
            child.wait(5)
        except subprocess.TimeoutExpired:
            child.kill()
            child.wait()


@contextlib.contextmanager
def closing_listener(address):
    """Holds an address and closes every connection at once, unanswered: a daemon started
    meanwhile cannot listen there, and a client sees a peer that does not answer."""
    class Listener(socketserver.ThreadingTCPServer):
        allow_reuse_address = True  # the stopped daemon's connections may sit in TIME_WAIT
    with Listener(address, socketserver.BaseRequestHandler) as listener:
        thread = threading.Thread(target=listener.serve_forever)
        thread.start()
        try:
            yield
        finally:
            listener.shutdown()
            thread.join()


class DemoPage:
    """The page's own controls, as a person uses them."""

    def __init__(self, driver):
        from selenium.webdriver.common.by import By
        self.driver, self.by = driver, By

    def element(self, element_id):
        return self.driver.find_element(self.by.ID, element_id)

    def type_into(self, element_id, text):
        field = self.element(element_id)
        field.clear()
        field.send_keys(str(text))

    def click(self, *methods):
        for method in methods:
            self.element(f"call-{method}").click()

    def answer(self, method, timeout=ANSWER_TIMEOUT):
        """(state, type, value) once the row shows an answer or an error."""
        cell = self.element(f"answer-{method}")

        def shown():
            state = cell.get_attribute("data-state")
            if state in ("answered", "error"):
                return (state, cell.find_element(self.by.CLASS_NAME, "type").get_attribute("textContent"),
                        cell.find_element(self.by.CLASS_NAME, "value").get_attribute("textContent"))
            return None
        return wait_for(shown, timeout, f"the page's answer to {method}")

    def text(self, element_id):
        return self.element(element_id).get_attribute("textContent")

    def wait_live(self, connected, timeout=START_TIMEOUT):
        want = "connected" if connected else "idle"
        wait_for(lambda: self.element("live").get_attribute("class") == want, timeout,
                 f"the live panel to show {want}")


def expect(page, method, want_type, want_value, timeout=ANSWER_TIMEOUT):
    state, shown_type, value = page.answer(method, timeout)
    check(state == "answered", f"{method}: the page shows an error: {value}")
    check(shown_type == want_type, f"{method}: type {shown_type!r}, expected {want_type!r}")
    matched = re.fullmatch(want_value, value) if isinstance(want_value, re.Pattern) else value == want_value
    check(matched, f"{method}: value {value!r}, expected {want_value!r}")
    return value


def click_and_expect(page, steps):
    """Clicks each step's method at once, then checks each answer: (method, type, value)."""
    page.click(*[method for method, _, _ in steps])
    for method, want_type, want_value in steps:
        expect(page, method, want_type, want_value)


def call_every_method(page):
    for field, value in (("server", SERVER), ("port", PORT), ("webPort", WEB_PORT), ("token", TOKEN)):
        page.type_into(field, value)
    for step in (("clientOS", "string", re.compile(r"Mac OS \d+\.\d+\.\d+")),
                 ("clientVersion", "string", STANDIN_VERSION),
                 ("authorize", "int", "1"),
                 ("connect", "string", "connecting")):
        click_and_expect(page, [step])
    page.wait_live(connected=True)
    click_and_expect(page, [("state", "string", "connected"),
                            ("connectionTime", "int", re.compile(r"\d+")),
                            ("connectionTimeDisplayable", "string", re.compile(r"\d\d:\d\d:\d\d")),
                            ("trafficRates", "string", re.compile(r"[1-9]\d*,[1-9]\d*")),
                            ("trafficTotals", "string", re.compile(r"\d+,\d+"))])
    for method in ("suspend", "resume", "disconnect"):
        click_and_expect(page, [(method, "string", "")])
    page.wait_live(connected=False)
    page.type_into("token", SECOND_TOKEN)
    click_and_expect(page, [("connectWithToken", "string", "connecting")])
    page.wait_live(connected=True)
    # A second's refresh moves the live figures.
    before = page.text("live-updated")
    wait_for(lambda: page.text("live-updated") != before, ANSWER_TIMEOUT, "the live panel to refresh")
    check(re.fullmatch(r"\d\d:\d\d:\d\d \(\d+ s\)", page.text("live-time")),
          f"live connection time {page.text('live-time')!r}")
    check(re.fullmatch(r"[1-9]\d*,[1-9]\d*", page.text("live-rates")),
          f"live traffic rates {page.text('live-rates')!r}")


def check_gui_received(frames_path):
    """The arguments the page sent, and the commands whose answer is always empty."""
    with open(frames_path) as lines:
        contents = [json.loads(line).get("content") for line in lines]
    relay = {"server": SERVER, "port": PORT, "webPort": WEB_PORT}
    for content in ({"command": "authorize", **relay}, {"command": "connect", **relay},
                    {"command": "connectWithToken", **relay, "securityToken": SECOND_TOKEN},
                    {"command": "disconnect", "securityToken": TOKEN},
                    {"command": "suspend", "securityToken": TOKEN}, {"command": "resume"}):
        check(content in contents, f"the GUI never received {json.dumps(content, ensure_ascii=False)}; "
                                   f"it received {len(contents)} commands")
    check({"command": "clientOS"} not in contents, "clientOS reached the GUI")


def check_refusal_shows_as_error(driver):
    """A method the daemon does not know gets its connection closed; the page reports it."""
    driver.set_script_timeout(ANSWER_TIMEOUT * 2)
    outcome = driver.execute_async_script(
        "const done = arguments[arguments.length - 1];"
        "callMethod('State', []).then(a => done('answered ' + a.value), e => done('error ' + e.message));")
    check(outcome.startswith("error no answer: connection closed"),
          f"a refused call shows {outcome!r}")


def check_fallback_without_gui(page, stage, standin, daemon):
    """Stops the GUI, and restarts the daemon with its first address refusing connections: the
    page falls back to the second address and shows the default that needs no GUI."""
    page.click("disconnect")
    page.answer("disconnect")
    page.wait_live(connected=False)
    stage.stop(standin, "stand-in")
    stage.stop(daemon, "daemon")
    with closing_listener(DAEMON_ADDRESS):
        stage.start_daemon(FALLBACK_ADDRESS)
        page.click("clientVersion")
        expect(page, "clientVersion", "string", "0.0.0,0")
        check(page.text("endpoint") == "%s:%d" % FALLBACK_ADDRESS,
              f"the page's last address is {page.text('endpoint')!r}")


def start_chromium(scratch):
    from selenium import webdriver
    from selenium.webdriver.chrome.service import Service
    options = webdriver.ChromeOptions()
    options.binary_location = CHROMIUM
    for flag in CHROMIUM_FLAGS + [f"--user-data-dir={scratch}/chromium-profile"]:
        options.add_argument(flag)
    service = Service(CHROMEDRIVER, log_path=os.path.join(scratch, "chromedriver.log"))
    try:
        return webdriver.Chrome(service=service, options=options)
    except Exception as error:  # whatever the reason, it is this test's failure, not a skip
        reason = str(error).split("Stacktrace:")[0].strip()
        raise TestFailure(f"Chromium could not start: {reason}") from error


def run_inside(args):
    for name in [name for name in os.environ if name.lower().endswith("_proxy")]:
        del os.environ[name]
    subprocess.run(["mount", "-t", "tmpfs", "-o", "mode=0755", "tmpfs", "/var/run"], check=True)
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    os.makedirs(args.artifacts, exist_ok=True)
    stage, driver = Stage(args), None
    started = time.monotonic()
    try:
        daemon = stage.start_daemon(DAEMON_ADDRESS)
        standin = stage.start_standin()
        stage.serve_page()
        driver = start_chromium(stage.scratch)
        driver.get(f"http://{PAGE_ORIGIN[0]}:{PAGE_ORIGIN[1]}/")
        page = DemoPage(driver)
        call_every_method(page)
        driver.save_screenshot(os.path.join(args.artifacts, "demo-page.png"))
        check_refusal_shows_as_error(driver)
        check_fallback_without_gui(page, stage, standin, daemon)
        check_gui_received(stage.frames_path)
        driver.save_screenshot(os.path.join(args.artifacts, "demo-page-fallback.png"))
        print(f"PASS: demo page in headless Chromium, {time.monotonic() - started:.1f} s; "
              f"screenshots in {args.artifacts}")
        return 0
    except Exception as failure:  # a failed check, or the browser driver's own error
        reason = failure if isinstance(failure, TestFailure) else repr(failure)
        print(f"FAIL: {reason}")
        if driver is not None:
            driver.save_screenshot(os.path.join(args.artifacts, "demo-page-failure.png"))
        print("--- daemon, stand-in and web server output (last lines):\n" + stage.log_tail())
        return 1
    finally:
        if driver is not None:
            driver.quit()
        stage.close()


def enter_namespaces(argv):
    """Re-executes this script as PID 1 of private namespaces; its exit ends every process left."""
    if os.geteuid() != 0:
        print("SKIP: the demo page test needs root for its private namespaces")
        return SKIP_STATUS
    unshare = shutil.which("unshare")
    probe = [unshare, "--net", "--mount", "--pid", "--fork", "true"] if unshare else None
    if not probe or subprocess.run(probe, capture_output=True).returncode != 0:
        print("SKIP: private namespaces are not available (unshare --net --mount --pid)")
        return SKIP_STATUS
    # --kill-child: when ctest ends unshare (a time-out), the namespace's PID 1 and all in it end.
    os.execve(unshare, [unshare, "--net", "--mount", "--pid", "--fork", "--mount-proc",
                        "--kill-child", sys.executable, os.path.abspath(__file__), *argv],
              {**os.environ, INSIDE_MARK: "1"})


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--daemon", required=True)
    parser.add_argument("--standin", required=True)
    parser.add_argument("--web", required=True)
    parser.add_argument("--artifacts", required=True)
    args = parser.parse_args()
    if os.environ.get(INSIDE_MARK) != "1":
        return enter_namespaces(sys.argv[1:])
    # As PID 1 the script gets no default action for these: make them end the run (cleanly).
    for number in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
        signal.signal(number, lambda *_: sys.exit(1))
    return run_inside(args)


if __name__ == "__main__":
    sys.exit(main())
