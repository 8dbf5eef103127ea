"""Headless Chromium, driven through its debugging pipe."""

import base64
import contextlib
import json
import os
import select
import shutil
import subprocess
import time

import pytest

from .platforms import ROOT

AXE = ROOT / "build/npm/node_modules/axe-core/axe.min.js"
SECONDS = 120
_KEYS = {"Tab": 9, "Enter": 13, " ": 32}


class Browser:
    """One page of a running browser."""

    def __init__(self, to_browser, from_browser):
        self._to, self._from = to_browser, from_browser
        self._rest, self._number, self._session = b"", 0, None
        self.messages = []  # console messages and exceptions of the page, including policy violations
        target = self._call("Target.createTarget", url="about:blank")["targetId"]
        attached = self._call("Target.attachToTarget", targetId=target, flatten=True)
        self._session = attached["sessionId"]
        for domain in ("Page", "Runtime", "Log"):
            self._call(f"{domain}.enable")

    def _next(self, end):
        while b"\0" not in self._rest:
            ready, _, _ = select.select([self._from], [], [], max(end - time.monotonic(), 0))
            assert ready, "the browser does not answer"
            piece = os.read(self._from, 1 << 20)
            assert piece, "the browser has exited"
            self._rest += piece
        message, self._rest = self._rest.split(b"\0", 1)
        message = json.loads(message)
        if message.get("method") in ("Log.entryAdded", "Runtime.exceptionThrown", "Runtime.consoleAPICalled"):
            self.messages.append(message["params"])
        return message

    def _call(self, method, **parameters):
        self._number += 1
        call = {"id": self._number, "method": method, "params": parameters}
        if self._session:
            call["sessionId"] = self._session
        os.write(self._to, json.dumps(call).encode("utf-8") + b"\0")
        end = time.monotonic() + SECONDS
        while (answer := self._next(end)).get("id") != self._number:
            pass
        assert "error" not in answer, answer
        return answer["result"]

    def open(self, path, *, scheme="light", script=True, width=1100, height=1200):
        self._call("Emulation.setScriptExecutionDisabled", value=not script)
        self._call("Emulation.setEmulatedMedia",
                   features=[{"name": "prefers-color-scheme", "value": scheme}])
        self._call("Emulation.setDeviceMetricsOverride", width=width, height=height,
                   deviceScaleFactor=1, mobile=False)
        self._call("Page.navigate", url=path.as_uri())
        end = time.monotonic() + SECONDS
        while self._next(end).get("method") != "Page.loadEventFired":
            pass

    def run(self, expression):
        """Evaluates an expression in the page and awaits it; the page's content policy does not apply."""
        answer = self._call("Runtime.evaluate", expression=expression, awaitPromise=True,
                            returnByValue=True)
        assert "exceptionDetails" not in answer, answer
        return answer["result"].get("value")

    def press(self, key, shift=False):
        text = {"Enter": "\r"}.get(key, key if len(key) == 1 else "")
        common = {"key": key, "code": {" ": "Space"}.get(key, key), "modifiers": 8 if shift else 0,
                  "windowsVirtualKeyCode": _KEYS.get(key, ord(key[0].upper()))}
        self._call("Input.dispatchKeyEvent", type="keyDown", text=text, **common)
        self._call("Input.dispatchKeyEvent", type="keyUp", **common)

    def picture(self, path):
        path.write_bytes(base64.b64decode(self._call("Page.captureScreenshot", format="png")["data"]))

    def broken_rules(self):
        """Returns what axe-core reports for the page by all of its rules: [violations, undecided cases]."""
        self.run(AXE.read_text("utf-8") + "; true")
        found = json.loads(self.run("axe.run(document).then(JSON.stringify)"))
        assert len(found["passes"]) > 10
        return [[(rule["id"], node["html"]) for rule in found[kind] for node in rule["nodes"]]
                for kind in ("violations", "incomplete")]


@contextlib.contextmanager
def browsing(folder):
    program = shutil.which("chromium")
    if program is None:
        pytest.skip("no chromium is installed: ./dev setup --browser")
    import fcntl  # not available on Windows

    to_browser, from_browser = os.pipe(), os.pipe()

    def place_pipes():
        # The browser uses descriptors 3 and 4. Duplicate first: either pipe may already have one of them.
        copies = [fcntl.fcntl(end, fcntl.F_DUPFD, 10) for end in (to_browser[0], from_browser[1])]
        os.dup2(copies[0], 3)
        os.dup2(copies[1], 4)

    process = subprocess.Popen(
        [
            program, "--headless", "--no-sandbox", "--disable-gpu", "--hide-scrollbars",
            "--remote-debugging-pipe", f"--user-data-dir={folder / 'browser'}",
        ],
        stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
        close_fds=False, preexec_fn=place_pipes,
    )
    os.close(to_browser[0])
    os.close(from_browser[1])
    try:
        yield Browser(to_browser[1], from_browser[0])
    finally:
        os.close(to_browser[1])
        os.close(from_browser[0])
        process.terminate()
        process.wait(SECONDS)
