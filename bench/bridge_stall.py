#!/usr/bin/env python3
"""A GUI that never answers, under load: the daemon's memory, a preflight meanwhile, and how
fast the waiting calls get their default once that GUI goes away.

Runs the real daemon on 127.0.0.1:986 and the GUI stand-in (told never to answer "state") inside
private network and mount namespaces (root; the script re-runs itself under unshare), sends
CALLS "state" calls on as many connections, then reports:
  - the daemon's resident memory before and with every call waiting,
  - the time a preflight on a new connection takes meanwhile,
  - after the stand-in is killed, how long until every waiting call has its answer, and which.

    bench/bridge_stall.py            # after: cmake --build --preset default
    CALLS=2000 BUILD_DIR=build/default bench/bridge_stall.py
"""
import os
import resource
import selectors
import socket
import subprocess
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
BUILD = os.environ.get("BUILD_DIR", os.path.join(ROOT, "build", "default"))
CALLS = int(os.environ.get("CALLS", "2000"))
PORT = 986
CALL = b'<?xml version="1.0"?><methodCall><methodName>state</methodName></methodCall>'
POST = b"POST /vpn HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: %d\r\n\r\n%s" % (len(CALL), CALL)
DEFAULT = b"<value><string>disconnected</string></value>"


def enter_namespaces():
    if os.environ.get("QB_STALL_IN_NAMESPACES"):
        subprocess.run(["mount", "--make-rprivate", "/"], check=True)
        subprocess.run(["mount", "-t", "tmpfs", "tmpfs", "/var/run"], check=True)
        subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
        return
    os.environ["QB_STALL_IN_NAMESPACES"] = "1"
    os.execvp("unshare", ["unshare", "--net", "--mount", "--fork", sys.executable] + sys.argv)


def resident_kib(pid):
    with open(f"/proc/{pid}/status") as status:
        for line in status:
            if line.startswith("VmRSS:"):
                return int(line.split()[1])
    return 0


def connect():
    for _ in range(200):
        try:
            return socket.create_connection(("127.0.0.1", PORT))
        except OSError:
            time.sleep(0.05)
    sys.exit("the daemon does not listen")


def preflight_seconds():
    start = time.monotonic()
    with connect() as page:
        page.sendall(b"OPTIONS /vpn HTTP/1.1\r\n\r\n")
        page.recv(4096)
    return time.monotonic() - start


def main():
    enter_namespaces()
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    work = tempfile.mkdtemp()
    answers = os.path.join(work, "answers.json")
    with open(answers, "w") as file:
        file.write('{"state": {"noReply": true}}')
    daemon = subprocess.Popen([os.path.join(BUILD, "vorbel-vpn-service")], stderr=subprocess.DEVNULL)
    standin = subprocess.Popen([os.path.join(BUILD, "gui-standin"), "--quiet", "--answers", answers],
                               stderr=subprocess.DEVNULL)
    try:
        connect().close()
        time.sleep(0.5)
        idle = resident_kib(daemon.pid)
        pages = []
        for _ in range(CALLS):
            page = connect()
            page.sendall(POST)
            pages.append(page)
        time.sleep(1)
        selector = selectors.DefaultSelector()
        for page in pages:
            selector.register(page, selectors.EVENT_READ)
        answered_early = len(selector.select(timeout=0))  # none should be: all wait on the GUI
        received = CALLS - answered_early
        busy = resident_kib(daemon.pid)
        preflight = preflight_seconds()
        replies = {}
        standin.kill()
        killed = time.monotonic()
        last = killed
        while len(replies) < CALLS and time.monotonic() - killed < 15:
            for key, _ in selector.select(timeout=1):
                data = key.fileobj.recv(4096)
                replies[key.fileobj] = data
                selector.unregister(key.fileobj)
                last = time.monotonic()
        defaults = sum(1 for data in replies.values() if DEFAULT in data)
        print(f"calls waiting on the GUI:      {received} of {CALLS}")
        print(f"daemon resident memory:        {idle / 1024:.1f} MiB idle, {busy / 1024:.1f} MiB with all calls waiting")
        print(f"preflight meanwhile:           {preflight * 1e3:.2f} ms")
        print(f"after the GUI went away:       {len(replies)} answered, {defaults} with the default, "
              f"the last {(last - killed) * 1e3:.0f} ms after")
        for page in pages:
            page.close()
    finally:
        for process in (standin, daemon):
            if process.poll() is None:
                process.terminate()
                process.wait()


if __name__ == "__main__":
    main()
