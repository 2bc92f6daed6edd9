#!/usr/bin/python3
"""Headless Chromium driven as a person would: through the DevTools
protocol on a pipe (--remote-debugging-pipe), keys typed one by one and
clicks made with the mouse at an element's place.

    browser.py STEPS.json

STEPS is a list of steps, each one object:
    {"open": URL}                      load a page and wait for it
    {"type": SELECTOR, "text": TEXT}   focus the field and type, key by key
    {"click": SELECTOR}                click the first match, where it is shown
    {"wait": JS}                       until the page is loaded and the expression true (10 s at most)
    {"value": NAME, "js": JS}          keep what the expression gives
    {"scroll": "top" | "bottom"}
Prints one JSON object: {"values": {...}, "errors": [...], "failed": null | why}.
Every console error, uncaught exception and refused resource is an error.
"""
import json
import os
import select
import shutil
import signal
import subprocess
import sys
import tempfile
import time


class Browser:
    def __init__(self):
        self.profile = tempfile.mkdtemp(prefix="parlova-browser.")
        to_browser_read, self.to_browser = os.pipe()
        self.from_browser, from_browser_write = os.pipe()

        def wire():
            # Copies first: a pipe may already sit at 3 or 4, where dup2
            # would leave it closing at exec.
            reading, writing = os.dup(to_browser_read), os.dup(from_browser_write)
            os.dup2(reading, 3)
            os.dup2(writing, 4)
            # A group of its own: its helpers go with it, and none is left
            # writing into the profile as it is removed.
            os.setsid()

        self.process = subprocess.Popen(
            ["/usr/bin/chromium", "--headless", "--no-sandbox", "--disable-gpu", "--remote-debugging-pipe",
             "--no-first-run", "--no-default-browser-check", "--window-size=1000,700",
             "--user-data-dir=" + self.profile, "about:blank"],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
            close_fds=False, preexec_fn=wire)
        os.close(to_browser_read)
        os.close(from_browser_write)
        self.pending = b""
        self.next_id = 0
        self.errors = []
        self.session = None
        target = self.call("Target.createTarget", {"url": "about:blank"})["targetId"]
        self.session = self.call("Target.attachToTarget", {"targetId": target, "flatten": True})["sessionId"]
        for domain in ("Page", "Runtime", "Log"):
            self.call(domain + ".enable")

    def close(self):
        try:
            os.killpg(self.process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        self.process.wait()
        shutil.rmtree(self.profile, ignore_errors=True)

    def _read(self, timeout):
        ready, _, _ = select.select([self.from_browser], [], [], timeout)
        if not ready:
            return None
        chunk = os.read(self.from_browser, 1 << 20)
        if not chunk:
            raise RuntimeError("the browser went away")
        self.pending += chunk
        return True

    def _messages(self, timeout):
        while b"\0" not in self.pending:
            if self._read(timeout) is None:
                return
        while b"\0" in self.pending:
            message, self.pending = self.pending.split(b"\0", 1)
            yield json.loads(message)

    def _note(self, message):
        method, params = message.get("method"), message.get("params", {})
        if method == "Runtime.exceptionThrown":
            details = params.get("exceptionDetails", {})
            self.errors.append("uncaught: " + details.get("exception", {}).get("description", details.get("text", "")))
        elif method == "Runtime.consoleAPICalled" and params.get("type") in ("error", "assert"):
            self.errors.append("console: " + " ".join(str(a.get("value", a.get("description", "")))
                                                      for a in params.get("args", [])))
        elif method == "Log.entryAdded" and params.get("entry", {}).get("level") == "error":
            entry = params["entry"]
            self.errors.append("log: " + entry.get("text", "") + " " + entry.get("url", ""))

    def call(self, method, params=None):
        self.next_id += 1
        message = {"id": self.next_id, "method": method, "params": params or {}}
        if self.session and not method.startswith("Target."):
            message["sessionId"] = self.session
        os.write(self.to_browser, json.dumps(message).encode() + b"\0")
        deadline = time.time() + 20
        while time.time() < deadline:
            for answer in self._messages(0.5):
                if answer.get("id") == self.next_id:
                    if "error" in answer:
                        raise RuntimeError(method + ": " + answer["error"].get("message", ""))
                    return answer.get("result", {})
                self._note(answer)
        raise RuntimeError(method + ": no answer")

    def evaluate(self, expression):
        result = self.call("Runtime.evaluate", {"expression": expression, "returnByValue": True,
                                                "awaitPromise": True})
        if "exceptionDetails" in result:
            raise RuntimeError("evaluating " + expression + ": " + json.dumps(result["exceptionDetails"]))
        return result.get("result", {}).get("value")

    def wait(self, expression, seconds=10):
        deadline = time.time() + seconds
        while time.time() < deadline:
            try:
                if self.evaluate(expression):
                    return
            except RuntimeError:
                pass  # the page is changing under us
            for message in self._messages(0.05):
                self._note(message)
        raise RuntimeError("waited in vain for " + expression)

    def open(self, url):
        self.call("Page.navigate", {"url": url})
        time.sleep(0.1)
        self.wait("document.readyState === 'complete' && location.href !== 'about:blank'")

    def type(self, selector, text):
        self.evaluate("document.querySelector(%s).focus()" % json.dumps(selector))
        for character in text:
            self.call("Input.dispatchKeyEvent", {"type": "keyDown", "text": character, "key": character})
            self.call("Input.dispatchKeyEvent", {"type": "keyUp", "key": character})
            time.sleep(0.03)

    def click(self, selector):
        place = self.evaluate(
            "(() => { const e = document.querySelector(%s); e.scrollIntoView({block: 'center'});"
            " const r = e.getBoundingClientRect(); return [r.x + r.width / 2, r.y + r.height / 2]; })()"
            % json.dumps(selector))
        x, y = place
        for kind in ("mouseMoved", "mousePressed", "mouseReleased"):
            self.call("Input.dispatchMouseEvent", {"type": kind, "x": x, "y": y, "button": "left", "clickCount": 1})


def main():
    steps = json.load(open(sys.argv[1], encoding="utf-8"))
    browser = Browser()
    values, failed = {}, None
    try:
        for step in steps:
            if "open" in step:
                browser.open(step["open"])
            elif "type" in step:
                browser.type(step["type"], step["text"])
            elif "click" in step:
                browser.click(step["click"])
            elif "wait" in step:
                browser.wait("document.readyState === 'complete' && (%s)" % step["wait"])
            elif "value" in step:
                values[step["value"]] = browser.evaluate(step["js"])
            elif "scroll" in step:
                browser.evaluate("window.scrollTo(0, %s)" % ("0" if step["scroll"] == "top"
                                                              else "document.documentElement.scrollHeight"))
        # What a last step set off (a fetch, a picture) has its moment to fail.
        for message in browser._messages(0.5):
            browser._note(message)
    except RuntimeError as error:
        failed = str(error)
    finally:
        browser.close()
    print(json.dumps({"values": values, "errors": browser.errors, "failed": failed}))


if __name__ == "__main__":
    main()
