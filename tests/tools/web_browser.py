#!/usr/bin/env python3
"""Headless Chromium driven over its DevTools pipe (standard library only).

  web_browser.py submit URL NAME VALUE   loads URL, types VALUE into the form
                                         field NAME, submits it as a person
                                         would (Enter) and prints the field's
                                         value on the page that comes back
  web_browser.py shows URL NAME VALUE    loads URL and waits (at most 30 s)
                                         until the row of NAME shows VALUE
  web_browser.py rows URL                loads URL and prints each table row
                                         as Chromium draws it: its background
                                         colour, "|", its first two cells' text
"""
import json
import os
import signal
import subprocess
import sys
import tempfile
import time


class Chrome:
    def __init__(self, profile):
        to_chrome, self.write_fd = os.pipe()
        self.read_fd, from_chrome = os.pipe()
        # Out of the way of 3 and 4, where chromium looks for its pipe.
        high_in = os.dup2(to_chrome, 100)
        high_out = os.dup2(from_chrome, 101)

        def plumbing():
            os.dup2(high_in, 3)
            os.dup2(high_out, 4)

        self.process = subprocess.Popen(
            ["chromium", "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
             "--disable-background-networking", "--disable-component-update", "--disable-sync",
             "--user-data-dir=" + profile, "--remote-debugging-pipe", "about:blank"],
            pass_fds=(3, 4), preexec_fn=plumbing, start_new_session=True, stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL)
        for fd in (to_chrome, from_chrome, high_in, high_out):
            os.close(fd)
        self.buffer = b""
        self.next_id = 0
        target = self.call("Target.createTarget", {"url": "about:blank"})["targetId"]
        self.session = self.call("Target.attachToTarget", {"targetId": target, "flatten": True})["sessionId"]
        self.call("Page.enable", session=True)

    def message(self):
        while b"\0" not in self.buffer:
            chunk = os.read(self.read_fd, 65536)
            if not chunk:
                raise RuntimeError("chromium went away")
            self.buffer += chunk
        text, self.buffer = self.buffer.split(b"\0", 1)
        return json.loads(text)

    def call(self, method, params=None, session=False):
        self.next_id += 1
        request = {"id": self.next_id, "method": method, "params": params or {}}
        if session:
            request["sessionId"] = self.session
        os.write(self.write_fd, json.dumps(request).encode() + b"\0")
        while True:
            m = self.message()
            if m.get("id") == self.next_id:
                if "error" in m:
                    raise RuntimeError(method + ": " + json.dumps(m["error"]))
                return m["result"]

    def wait_event(self, name, seconds=20):
        end = time.time() + seconds
        while time.time() < end:
            if self.message().get("method") == name:
                return
        raise RuntimeError("no " + name)

    def evaluate(self, script):
        result = self.call("Runtime.evaluate", {"expression": script, "returnByValue": True}, session=True)
        return result["result"].get("value")

    def load(self, url):
        self.call("Page.navigate", {"url": url}, session=True)
        self.wait_event("Page.loadEventFired")

    def close(self):
        # Chromium and the helpers it started: its own process group.
        os.killpg(self.process.pid, signal.SIGKILL)
        self.process.wait()


def main():
    command, url, *rest = sys.argv[1:]
    with tempfile.TemporaryDirectory(ignore_cleanup_errors=True) as profile:
        chrome = Chrome(profile)
        try:
            chrome.load(url)
            if command == "rows":
                cells = "Array.from(r.cells).slice(0, 2).map(c => c.textContent).join(' ').replace(/\\s+/g, ' ')"
                rows = "Array.from(document.querySelectorAll('tr'), r => getComputedStyle(r).backgroundColor + '|' + "
                print(chrome.evaluate(rows + cells + ").join('\\n')"))
                return 0
            name, value = rest
            field = "document.querySelector(%s)" % json.dumps('input[name="%s"]' % name)
            if command == "submit":
                chrome.evaluate(field + ".focus(); " + field + ".select()")
                chrome.call("Input.insertText", {"text": value}, session=True)
                for kind in ("keyDown", "keyUp"):
                    chrome.call("Input.dispatchKeyEvent", {"type": kind, "key": "Enter", "code": "Enter",
                                                           "windowsVirtualKeyCode": 13, "text": "\r"}, session=True)
                chrome.wait_event("Page.loadEventFired")
                print(chrome.evaluate(field + ".value"))
                return 0
            cell = "(document.querySelector(%s) || {}).textContent" % json.dumps(
                'tr[data-name="%s"] td.value' % name)
            end = time.time() + 30
            while time.time() < end:
                if chrome.evaluate(cell) == value:
                    return 0
                time.sleep(0.1)
            print("the page shows %r" % chrome.evaluate(cell), file=sys.stderr)
            return 1
        finally:
            chrome.close()


sys.exit(main())
