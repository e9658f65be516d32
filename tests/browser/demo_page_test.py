#!/usr/bin/python3
"""Drives the demo page of web/ in headless Chromium against the real daemon.

The daemon runs on its real port 986 and socket path inside private network, mount and PID
namespaces (the script re-executes itself under unshare), with the GUI stand-in tool connected as
its GUI application; the page is served from another loopback origin, so every call goes through
Chromium's own CORS preflight. The page's buttons call all thirteen methods; the test checks the
answers the page shows, the frames the stand-in received, the live panel and, once the stand-in
has stopped, the page's fallback to the second address. Screenshots go to the artifact directory.
Exit status: 0 passed, 1 failed (also when Chromium cannot start), 77 skipped (a visible SKIP).
"""

import argparse, contextlib, json, os, re, shutil, signal, socket, socketserver, subprocess
import sys, tempfile, threading, time, urllib.request

INSIDE_MARK = "QB_DEMO_PAGE_TEST_INSIDE"
DAEMON_ADDRESS, FALLBACK_ADDRESS, PAGE_ORIGIN = ("127.94.0.1", 986), ("127.0.0.1", 986), ("127.0.0.1", 8000)
STANDIN_VERSION = "4.2.0,77"
# The non-ASCII server name checks that the body's length is counted in bytes on both sides.
SERVER, PORT, WEB_PORT, TOKEN, SECOND_TOKEN = "zürich.example.test", 1194, 943, "tok-A1", "tok-B2"
# Starting a process, or the stand-in's one-second "connecting", takes well under these.
START_TIMEOUT, ANSWER_TIMEOUT = 15, 5


class TestFailure(Exception):
    pass


def check(condition, message):
    if not condition:
        raise TestFailure(message)


def wait_for(predicate, timeout, what):
    deadline = time.monotonic() + timeout
    while not (result := predicate()):
        check(time.monotonic() <= deadline, f"timed out after {timeout} s waiting for {what}")
        time.sleep(0.05)
    return result


def answers_tcp(address):
    try:
        with socket.create_connection(address, timeout=1):
            return True
    except OSError:
        return False


def xmlrpc(method):
    """One call from the test itself (not the page), for readiness checks."""
    body = f'<?xml version="1.0"?><methodCall><methodName>{method}</methodName></methodCall>'
    request = urllib.request.Request("http://%s:%d/vpn" % DAEMON_ADDRESS, body.encode(), {"Content-Type": "text/xml"})
    try:  # (no proxy: run_inside has removed their variables)
        return urllib.request.urlopen(request, timeout=ANSWER_TIMEOUT).read().decode()
    except OSError:
        return ""


def terminate(child):
    """SIGTERM (none to a child already ended), then SIGKILL after 5 s; the exit status."""
    child.terminate()
    try:
        return child.wait(5)
    except subprocess.TimeoutExpired:
        child.kill()
        return child.wait()


class Stage:
    """The daemon, the stand-in and the page's web server as children logging into a scratch
    directory; close() ends them and removes it."""

    def __init__(self, args):
        self.args, self.scratch, self.children = args, tempfile.mkdtemp(prefix="qb-demo-page-"), []
        self.log = open(os.path.join(self.scratch, "processes.log"), "w+")

    def start(self, argv, ready, what, stdout=None):
        child = subprocess.Popen(argv, stdin=subprocess.DEVNULL, stdout=stdout or self.log, stderr=self.log)
        self.children.append(child)
        wait_for(lambda: ready() or child.poll() is not None, START_TIMEOUT, what)
        check(child.poll() is None, f"{argv[0]} exited with {child.returncode}")
        return child

    def start_daemon(self, address):
        return self.start([self.args.daemon], lambda: answers_tcp(address), f"the daemon on {address[0]}")

    def close(self):
        for child in reversed(self.children):
            terminate(child)
        self.log.seek(0)
        tail = "".join(self.log.readlines()[-30:])
        self.log.close()
        shutil.rmtree(self.scratch, ignore_errors=True)
        return tail


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

    def text(self, element_id):
        return self.element(element_id).get_attribute("textContent")

    def type_into(self, element_id, text):
        self.element(element_id).clear()
        self.element(element_id).send_keys(str(text))

    def answer(self, method):
        """(state, type, value) once the row shows an answer or an error."""
        cell = self.element(f"answer-{method}")
        part = lambda name: cell.find_element(self.by.CLASS_NAME, name).get_attribute("textContent")
        shown = lambda: cell.get_attribute("data-state") in ("answered", "error") and (
            cell.get_attribute("data-state"), part("type"), part("value"))
        return wait_for(shown, ANSWER_TIMEOUT, f"the page's answer to {method}")

    def wait_live(self, want):
        wait_for(lambda: self.element("live").get_attribute("class") == want, START_TIMEOUT, f"the live panel to show {want}")

    def click_and_expect(self, *steps):
        """Clicks each step's method at once, then checks each (method, type, value) answer; a
        compiled value is matched as a pattern."""
        for method, _, _ in steps:
            self.element(f"call-{method}").click()
        for method, want_type, want in steps:
            state, shown_type, value = self.answer(method)
            check(state == "answered", f"{method}: the page shows an error: {value}")
            check(shown_type == want_type, f"{method}: type {shown_type!r}, expected {want_type!r}")
            check(re.fullmatch(want, value) if isinstance(want, re.Pattern) else value == want,
                  f"{method}: value {value!r}, expected {want!r}")


def call_every_method(page):
    for field, value in (("server", SERVER), ("port", PORT), ("webPort", WEB_PORT), ("token", TOKEN)):
        page.type_into(field, value)
    for step in (("clientOS", "string", re.compile(r"Mac OS \d+\.\d+\.\d+")), ("clientVersion", "string", STANDIN_VERSION),
                 ("authorize", "int", "1"), ("connect", "string", "connecting")):
        page.click_and_expect(step)
    page.wait_live("connected")
    page.click_and_expect(("state", "string", "connected"), ("connectionTime", "int", re.compile(r"\d+")),
                          ("connectionTimeDisplayable", "string", re.compile(r"\d\d:\d\d:\d\d")),
                          ("trafficRates", "string", re.compile(r"[1-9]\d*,[1-9]\d*")),
                          ("trafficTotals", "string", re.compile(r"\d+,\d+")))
    for method in ("suspend", "resume", "disconnect"):
        page.click_and_expect((method, "string", ""))
    page.wait_live("idle")
    page.type_into("token", SECOND_TOKEN)
    page.click_and_expect(("connectWithToken", "string", "connecting"))
    page.wait_live("connected")
    # A second's refresh moves the live figures.
    before = page.text("live-updated")
    wait_for(lambda: page.text("live-updated") != before, ANSWER_TIMEOUT, "the live panel to refresh")
    for element_id, pattern in (("live-time", r"\d\d:\d\d:\d\d \(\d+ s\)"), ("live-rates", r"[1-9]\d*,[1-9]\d*")):
        check(re.fullmatch(pattern, page.text(element_id)), f"{element_id} shows {page.text(element_id)!r}")
    # A method the daemon does not know gets its connection closed; the page reports it.
    page.driver.set_script_timeout(ANSWER_TIMEOUT * 2)
    outcome = page.driver.execute_async_script(
        "const done = arguments[arguments.length - 1];"
        "callMethod('State', []).then(a => done('answered ' + a.value), e => done('error ' + e.message));")
    check(outcome.startswith("error no answer: connection closed"), f"a refused call shows {outcome!r}")


def check_fallback_without_gui(page, stage, standin, daemon):
    """Stops the GUI, and restarts the daemon with its first address refusing connections: the
    page falls back to the second address and shows the default that needs no GUI."""
    page.element("call-disconnect").click()
    page.answer("disconnect")
    page.wait_live("idle")
    for child in (standin, daemon):
        check(terminate(child) == 0, f"{child.args[0]} exited with {child.returncode} on SIGTERM")
    with closing_listener(DAEMON_ADDRESS):
        stage.start_daemon(FALLBACK_ADDRESS)
        page.click_and_expect(("clientVersion", "string", "0.0.0,0"))
        check(page.text("endpoint") == "%s:%d" % FALLBACK_ADDRESS, f"the page's last address is {page.text('endpoint')!r}")


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


def start_chromium(scratch):
    from selenium import webdriver
    from selenium.webdriver.chrome.service import Service
    options = webdriver.ChromeOptions()
    options.binary_location = "/usr/bin/chromium"
    for flag in ("headless", "no-sandbox", "disable-gpu", "disable-quic", "no-first-run", "disable-background-networking",
                 "disable-component-update", "disable-sync", "disable-dev-shm-usage", "window-size=1100,1060",
                 "hide-scrollbars", f"user-data-dir={scratch}/chromium-profile"):
        options.add_argument("--" + flag)
    try:
        return webdriver.Chrome(service=Service("/usr/bin/chromedriver", log_path=f"{scratch}/chromedriver.log"), options=options)
    except Exception as error:  # whatever the reason, it is this test's failure, not a skip
        raise TestFailure(f"Chromium could not start: {str(error).split('Stacktrace:')[0].strip()}") from error


def run_inside(args):
    for name in [name for name in os.environ if name.lower().endswith("_proxy")]:
        del os.environ[name]
    subprocess.run(["mount", "-t", "tmpfs", "-o", "mode=0755", "tmpfs", "/var/run"], check=True)
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    os.makedirs(args.artifacts, exist_ok=True)
    stage, driver, started, passed = Stage(args), None, time.monotonic(), False
    screenshot = lambda name: driver.save_screenshot(os.path.join(args.artifacts, f"demo-page{name}.png"))
    try:
        daemon = stage.start_daemon(DAEMON_ADDRESS)
        # The stand-in prints each frame it receives as one JSON line.
        frames_path = os.path.join(stage.scratch, "frames.jsonl")
        with open(frames_path, "w") as frames:
            standin = stage.start([args.standin, "--version", STANDIN_VERSION],
                                  lambda: STANDIN_VERSION in xmlrpc("clientVersion"), "the stand-in to connect", frames)
        stage.start([sys.executable, "-m", "http.server", str(PAGE_ORIGIN[1]), "--bind", PAGE_ORIGIN[0], "--directory", args.web],
                    lambda: answers_tcp(PAGE_ORIGIN), "the page's web server")
        driver = start_chromium(stage.scratch)
        driver.get("http://%s:%d/" % PAGE_ORIGIN)
        page = DemoPage(driver)
        call_every_method(page)
        screenshot("")
        check_fallback_without_gui(page, stage, standin, daemon)
        check_gui_received(frames_path)
        screenshot("-fallback")
        print(f"PASS: demo page in headless Chromium, {time.monotonic() - started:.1f} s; screenshots in {args.artifacts}")
        passed = True
    except Exception as failure:  # a failed check, or the browser driver's own error
        print(f"FAIL: {failure if isinstance(failure, TestFailure) else repr(failure)}")
        if driver is not None:
            screenshot("-failure")
    finally:
        if driver is not None:
            driver.quit()
        tail = stage.close()
    if not passed:
        print("--- daemon, stand-in and web server output (last lines):\n" + tail)
    return 0 if passed else 1


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    for option in ("--daemon", "--standin", "--web", "--artifacts"):
        parser.add_argument(option, required=True)
    args = parser.parse_args()
    if os.environ.get(INSIDE_MARK) == "1":
        # As PID 1 the script gets no default action for these: make them end the run (cleanly).
        for number in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
            signal.signal(number, lambda *_: sys.exit(1))
        return run_inside(args)
    # Re-executes this script as PID 1 of private namespaces; its exit ends every process left.
    unshare = shutil.which("unshare")
    if os.geteuid() != 0 or not unshare or subprocess.run([unshare, "--net", "--mount", "--pid", "--fork", "true"],
                                                          capture_output=True).returncode:
        print("SKIP: the demo page test needs root and private namespaces (unshare --net --mount --pid)")
        return 77
    # --kill-child: when ctest ends unshare (a time-out), the namespace's PID 1 and all in it end.
    os.execve(unshare, [unshare, "--net", "--mount", "--pid", "--fork", "--mount-proc", "--kill-child",
                        sys.executable, os.path.abspath(__file__), *sys.argv[1:]], {**os.environ, INSIDE_MARK: "1"})


if __name__ == "__main__":
    sys.exit(main())
