"""A headless Chromium, driven by its DevTools protocol over a pair of pipes.

    python3 tests/rehearsal/browser.py PAGE PICTURE [--width 1000] [--height 900] [--scheme light]

takes a picture of the upper part of a page, such as the one in README.md.
"""

import argparse
import base64
import fcntl
import html
import json
import os
import pathlib
import re
import select
import shutil
import subprocess
import tempfile
import time
import unittest

NAMES = ("chromium-headless-shell", "chromium")
WIDTHS = (400, 1400)
PAPER_WIDTH = 700
WAIT_S = 60  # longer than any call takes without a hang

# What a reader would see as wrong on the page; runs in the page.
PROBE = r"""
(() => {
    const problems = [];
    const root = document.documentElement;
    const named = e => e.tagName + '.' + (e.getAttribute('class') || '') + ' "' + e.textContent.trim().slice(0, 40) + '"';
    const isShown = e => e.checkVisibility({contentVisibilityAuto: true, visibilityProperty: true});
    const shown = [...document.body.querySelectorAll('*')].filter(isShown);
    if (root.scrollWidth > root.clientWidth)
        problems.push(`the page is ${root.scrollWidth} wide in a window of ${root.clientWidth}`);
    for (const e of shown) {
        const box = e.getBoundingClientRect(), style = getComputedStyle(e);
        const inside = e.parentElement.closest('.scroll, pre');
        if (!inside && box.width && (box.right > root.clientWidth + 1 || box.left < -1))
            problems.push('leaves the window: ' + named(e));
        const mayScroll = !PRINTED && (e.matches('.scroll, pre'));
        if (!(e instanceof SVGElement) && !mayScroll && e.scrollWidth > e.clientWidth + 1 && e.clientWidth)
            problems.push('cut: ' + named(e));
        if (e.tagName === 'text') {
            const frame = e.closest('svg').querySelector('.bar') || e.closest('svg');
            if (box.right > frame.getBoundingClientRect().right + 1) problems.push('cut in the drawing: ' + named(e));
        }
    }
    for (const image of document.images)
        if (!image.complete || !image.naturalWidth || !image.getBoundingClientRect().width)
            problems.push('a picture is not there: ' + image.alt);

    const numbers = colour => colour.match(/[\d.]+/g).map(Number);
    const light = colour => numbers(colour).slice(0, 3).map(v => v / 255)
        .map(v => v <= 0.04045 ? v / 12.92 : ((v + 0.055) / 1.055) ** 2.4)
        .reduce((sum, v, i) => sum + v * [0.2126, 0.7152, 0.0722][i], 0);
    const ground = e => {
        for (; e; e = e.parentElement) {
            const colour = getComputedStyle(e).backgroundColor;
            if (numbers(colour)[3] !== 0) return colour;
        }
        return 'rgb(255, 255, 255)';
    };
    for (const e of shown) {
        if (e instanceof SVGElement || ![...e.childNodes].some(n => n.nodeType === 3 && n.data.trim())) continue;
        const [a, b] = [light(getComputedStyle(e).color), light(ground(e))].sort((x, y) => y - x);
        if ((a + 0.05) / (b + 0.05) < 4.5) problems.push('hard to read: ' + named(e));
    }
    return {problems: problems.slice(0, 20), title: document.title, owned: typeof window.owned,
            scripts: document.scripts.length, pictures: document.images.length,
            ground: getComputedStyle(document.body).backgroundColor, text: document.body.innerText};
})()
"""


def find():
    """The path of the browser. Skips the test without one."""
    path = next(filter(None, map(shutil.which, NAMES)), None)
    if not path:
        raise unittest.SkipTest(f"none of {', '.join(NAMES)} is installed")
    return path


class Browser:
    """One browser with one page. Use it in a `with` statement."""

    def __init__(self):
        self._path = find()
        self._number = 0
        self._session = None
        self._rest = b""
        self._loaded = False
        self.messages = []  # what a page has said on the console, or done wrong
        self.requests = []  # addresses that the page has asked for

    def __enter__(self):
        self._folder = tempfile.TemporaryDirectory(prefix="browser.", ignore_cleanup_errors=True)
        their_input, self._input = os.pipe()
        self._output, their_output = os.pipe()
        # It reads from descriptor 3 and writes to descriptor 4. The copies are out of the way of these.
        ends = [fcntl.fcntl(end, fcntl.F_DUPFD_CLOEXEC, 10) for end in (their_input, their_output)]
        # The pages are the test's own, and not every container has what the browser's own sandbox needs.
        self._process = subprocess.Popen(
            [self._path, "--headless", "--no-sandbox", "--remote-debugging-pipe", "--disable-gpu", "--no-first-run",
             "--disable-dev-shm-usage", "--disable-extensions", "--disable-background-networking",
             f"--user-data-dir={self._folder.name}", "about:blank"],
            env=os.environ | {"HOME": self._folder.name}, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL, pass_fds=(3, 4), preexec_fn=lambda: [os.dup2(end, 3 + i) for i, end in enumerate(ends)])
        for end in (their_input, their_output, *ends):
            os.close(end)
        target = self._call("Target.createTarget", url="about:blank")["targetId"]
        self._session = self._call("Target.attachToTarget", targetId=target, flatten=True)["sessionId"]
        self._call("Emulation.setScrollbarsHidden", hidden=True)
        for domain in ("Page", "Runtime", "Log", "Network"):
            self._call(f"{domain}.enable")
        return self

    def __exit__(self, *_):
        os.close(self._input)
        try:
            self._process.wait(10)
        except subprocess.TimeoutExpired:
            self._process.kill()
            self._process.wait()
        os.close(self._output)
        self._folder.cleanup()

    def _receive(self):
        limit = time.monotonic() + WAIT_S
        while b"\0" not in self._rest:
            if not select.select([self._output], [], [], max(0, limit - time.monotonic()))[0]:
                raise AssertionError("the browser does not answer")
            data = os.read(self._output, 1 << 16)
            if not data:
                raise AssertionError("the browser has ended")
            self._rest += data
        message, _, self._rest = self._rest.partition(b"\0")
        return json.loads(message)

    def _note(self, event):
        method, values = event.get("method"), event.get("params", {})
        if method == "Runtime.consoleAPICalled":
            self.messages.append(f"console: {values['args']}")
        elif method == "Runtime.exceptionThrown":
            self.messages.append(f"exception: {values['exceptionDetails']}")
        elif method == "Log.entryAdded":
            self.messages.append(f"log: {values['entry']['text']}")
        elif method == "Page.javascriptDialogOpening":
            self.messages.append(f"dialogue: {values['message']}")
        elif method == "Network.requestWillBeSent":
            self.requests.append(values["request"]["url"])
        elif method == "Page.loadEventFired":
            self._loaded = True

    def _call(self, method, **values):
        self._number += 1
        message = {"id": self._number, "method": method, "params": values}
        if self._session:
            message["sessionId"] = self._session
        data = json.dumps(message).encode() + b"\0"
        while data:
            data = data[os.write(self._input, data):]
        while True:
            answer = self._receive()
            if answer.get("id") == self._number:
                assert "error" not in answer, answer
                return answer["result"]
            self._note(answer)

    def open(self, path, width, scheme, medium="screen"):
        """Shows the file in a window of this width. Returns what PROBE sees."""
        self._call("Emulation.setDeviceMetricsOverride", width=width, height=900, deviceScaleFactor=1, mobile=False)
        self._call("Emulation.setEmulatedMedia", media=medium,
                   features=[{"name": "prefers-color-scheme", "value": scheme}])
        self.messages, self.requests, self._loaded = [], [], False
        self._call("Page.navigate", url=path.as_uri())
        while not self._loaded:
            self._note(self._receive())
        return self.probe(medium)

    def probe(self, medium="screen"):
        """What PROBE sees on the page as it is now."""
        return self.evaluate(PROBE.replace("PRINTED", "true" if medium == "print" else "false"))

    def evaluate(self, script):
        answer = self._call("Runtime.evaluate", expression=script, returnByValue=True)
        assert "exceptionDetails" not in answer, answer
        return answer["result"].get("value")

    def picture(self, width, height):
        """The upper left part of the page as PNG."""
        part = {"x": 0, "y": 0, "width": width, "height": height, "scale": 1}
        data = self._call("Page.captureScreenshot", format="png", captureBeyondViewport=True, clip=part)["data"]
        return base64.b64decode(data)

    def pdf(self):
        """The page as PDF, as the printer would get it."""
        return base64.b64decode(self._call("Page.printToPDF", printBackground=True)["data"])


def check_page(path, unfold=False):
    """Checks that the page is right at every width, in each scheme and on paper; with its folded parts open, too."""
    text = path.read_text("utf-8")
    title = re.sub(r"\s+", " ", re.search(r"<title>(.*?)</title>", text)[1])
    with Browser() as browser:
        grounds = set()
        for width, scheme, medium in [(width, scheme, "screen") for width in WIDTHS for scheme in ("light", "dark")] + \
                [(PAPER_WIDTH, "dark", "print")]:
            seen = browser.open(path, width, scheme, medium)
            told = (path, width, scheme, medium)
            assert not seen["problems"], (told, seen["problems"])
            assert not browser.messages, (told, browser.messages)
            others = [address for address in browser.requests if not address.startswith("data:")]
            assert others == [path.as_uri()], (told, others)
            assert seen["owned"] == "undefined" and seen["scripts"] == 0, told
            assert html.unescape(title).strip() == seen["title"], (told, seen["title"])
            assert seen["pictures"] == text.count("<img "), told
            grounds.add((medium, seen["ground"]))
            if unfold:
                browser.evaluate("document.querySelectorAll('details').forEach(e => e.open = true)")
                problems = browser.probe(medium)["problems"]
                assert not problems, (told, problems)
        assert len(grounds) == 3 and ("print", "rgb(255, 255, 255)") in grounds, grounds
        assert browser.pdf().startswith(b"%PDF-")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("page", type=pathlib.Path)
    parser.add_argument("picture", type=pathlib.Path)
    parser.add_argument("--width", type=int, default=1000)
    parser.add_argument("--height", type=int, default=900)
    parser.add_argument("--scheme", choices=("light", "dark"), default="light")
    arguments = parser.parse_args()
    with Browser() as browser:
        browser.open(arguments.page.resolve(), arguments.width, arguments.scheme)
        arguments.picture.write_bytes(browser.picture(arguments.width, arguments.height))


if __name__ == "__main__":
    main()
