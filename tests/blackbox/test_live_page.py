"""The live page of kvt_zqp_record --listen in a real headless browser on
loopback: its figures against the board's truth, as the board changes, the DDR
tool dies and the recorder goes."""
import base64
import fcntl
import json
import os
import queue
import re
import shutil
import subprocess
import threading
import time
import urllib.request
from datetime import datetime, timezone

import pytest

from conftest import hang_bound
from recordings import Service, check_exposed, wait_until

# What the page shows, read from its data attributes.
READ_PAGE = """JSON.stringify({state: document.getElementById("status").dataset.state || "",
  status: document.getElementById("status").textContent,
  latest: Object.assign({}, document.getElementById("latest").dataset),
  figures: [...document.querySelectorAll(".fig[data-kind]")].map(e => Object.assign({}, e.dataset))})"""


class Browser:
    """Headless Chromium driven over its DevTools pipe (commands on its fd 3,
    answers and events on its fd 4, each a JSON text ended by a NUL byte)."""

    def __init__(self, tmp_path):
        binary = shutil.which("chromium")
        if binary is None:
            pytest.skip("needs a browser (Debian package chromium)")
        # Above 10, clear of the 3 and 4 that bash redirects them to.
        (into, self.out), (self.inp, back) = [
            [fcntl.fcntl(fd, fcntl.F_DUPFD_CLOEXEC, 10) for fd in os.pipe()] for _ in range(2)]
        self.proc = subprocess.Popen(
            ["bash", "-c", f'exec "$@" 3<&{into} 4>&{back}', "bash", binary, "--headless",
             "--no-sandbox", "--disable-gpu", "--remote-debugging-pipe", "--no-first-run",
             "--disable-background-networking", "--disable-component-update", "--disable-sync",
             "--host-resolver-rules=MAP * ~NOTFOUND, EXCLUDE 127.0.0.1",
             f"--user-data-dir={tmp_path / 'chromium'}"], pass_fds=(into, back),
            stdout=subprocess.DEVNULL, stderr=open(tmp_path / "chromium.log", "w"))
        os.close(into), os.close(back)
        self.answers, self.events, self.next_id, self.session = queue.Queue(), [], 0, None
        threading.Thread(target=self._read, daemon=True).start()
        target = self.call("Target.createTarget", url="about:blank")["targetId"]
        self.session = self.call("Target.attachToTarget", targetId=target,
                                 flatten=True)["sessionId"]
        for method in ("Runtime.enable", "Log.enable", "Network.enable", "Page.enable"):
            self.call(method)
        self.call("Emulation.setDeviceMetricsOverride", width=1280, height=900,
                  deviceScaleFactor=1, mobile=False)

    def _read(self):
        pending = b""
        while chunk := os.read(self.inp, 65536):
            *messages, pending = (pending + chunk).split(b"\0")
            for message in map(json.loads, messages):
                (self.answers.put if "id" in message else self.events.append)(message)

    def call(self, method, **params):
        """A command's result, to the page once attached."""
        self.next_id += 1
        message = {"id": self.next_id, "method": method, "params": params}
        message.update({"sessionId": self.session} if self.session else {})
        os.write(self.out, json.dumps(message).encode() + b"\0")
        answer = self.answers.get(timeout=hang_bound(60))
        assert answer["id"] == self.next_id and "error" not in answer, answer
        return answer["result"]

    def page(self):
        """What the page shows; None while it is not there yet."""
        result = self.call("Runtime.evaluate", expression=READ_PAGE, returnByValue=True)["result"]
        return json.loads(result["value"]) if "value" in result else None

    def errors(self):
        """The console's errors and the page's uncaught exceptions so far."""
        return [e for e in self.events if e["method"] == "Runtime.exceptionThrown" or "error" in (
            e["params"].get("type"), e["params"].get("entry", {}).get("level"))]

    def close(self):
        self.proc.kill()
        self.proc.wait()
        os.close(self.out)


def as_series(page):
    """The page's figures as check_exposed takes an exposition."""
    got = {("kvt_zqp_sample_timestamp_seconds", ()): int(page["latest"]["wallMs"]) / 1000,
           ("kvt_zqp_ddr_figures_live", ()): int(page["latest"]["ddrLive"])}
    for f in page["figures"]:
        value = float(f["value"]) if f["value"] else None
        if f["kind"] == "loading":
            engine, core = re.fullmatch(r"([A-Z]+)(\d+)", f["label"]).groups()
            got[("kvt_zqp_loading_ratio", (("core", core), ("engine", engine)))] = value / 100
        elif f["kind"] == "ddr" and value is not None:
            got[("kvt_zqp_ddr_bandwidth_bytes_per_second", (("direction", f["label"]),))] = value
        elif f["kind"] == "heap":
            heap, total = (("heap", f["label"]),), int(f["total"])
            got.update({("kvt_zqp_heap_size_bytes", heap): total,
                        ("kvt_zqp_heap_used_bytes", heap): value,
                        ("kvt_zqp_heap_free_bytes", heap): total - value})
        elif f["kind"] == "process":
            got[("kvt_zqp_process_ion_bytes", (("name", f["label"]), ("pid", f["pid"])))] = value
    return got


def test_live_page_follows_the_board(run_on_board, record_binary, truth, tmp_path):
    browser = Browser(tmp_path)
    t, delay_s = truth("full"), 0.5
    service = Service(run_on_board, tmp_path, record_binary, ["-d", "500", "--processes"])
    base = f"http://127.0.0.1:{service.port}"
    gdc0 = service.folder / "texts" / "0_0.txt"
    try:
        def answering():
            try:
                return urllib.request.urlopen(base + "/api/v1/history", timeout=10).status
            except OSError:
                return None

        wait_until("the recorder answering", 60, answering)
        browser.call("Page.navigate", url=base + "/")

        def shown(state, check=lambda p: True):
            page = browser.page()
            return page if page and page["state"] == state and check(page) else None

        live = wait_until("every row live", 60, lambda: shown("live", lambda p: sum(
            f["kind"] == "loading" for f in p["figures"]) == len(t["rows"])))
        # The driver's text changes: the page follows without a reload.
        assert gdc0.read_text() == "loading: 37.5 %\n"
        gdc0.write_text("loading: 80 %\n")
        changed = wait_until("GDC0 at 80 %", 60, lambda: shown("live", lambda p: any(
            f["label"] == "GDC0" and f["value"] == "80" for f in p["figures"])))
        shots = os.environ.get("KZM_SCREENSHOT_DIR")
        time.sleep(40 if shots else 0)  # for the README, a picture with some history
        (tmp_path / "live-page.png").write_bytes(base64.b64decode(browser.call(
            "Page.captureScreenshot", format="png", captureBeyondViewport=True)["data"]))
        if shots:
            shutil.copy(tmp_path / "live-page.png", shots)
        service.signal("kill-ddr")
        dead = wait_until("DDR not live on the page", 60, lambda: shown(
            "degraded", lambda p: "the DDR tool is not live" in p["status"]))
        history = json.load(urllib.request.urlopen(base + "/api/v1/history", timeout=10))
        not_live = [r["time"] for r in history["records"]][
            [r["ddr"] for r in history["records"]].index(None):]
        errors = browser.errors()
    finally:
        r = service.stop()
    try:
        gone = wait_until("the recorder gone on the page", 60, lambda: shown("gone"))
        requests = {e["params"]["request"]["url"] for e in browser.events
                    if e["method"] == "Network.requestWillBeSent"}
    finally:
        browser.close()
    assert (r.returncode, r.stdout, r.stderr) == (0, "", "")
    assert (r.workdir / "ddr-killed").exists() and errors == []
    check_exposed(as_series(live), t, r, delay_s)
    t = dict(t, loading=dict(t["loading"], GDC0=80.0))
    check_exposed(as_series(changed), t, r, delay_s)
    check_exposed(as_series(dead), t, r, delay_s, ddr_live=False)
    # The page learns it from a record without the figures (the recorder's:
    # once the tool's terminal closes, or after 3 s of silence), never before
    # one came; how many records a loaded browser takes is not its concern.
    shown_at = datetime.fromtimestamp(int(dead["latest"]["wallMs"]) / 1000, timezone.utc)
    shown_at = shown_at.strftime("%Y-%m-%dT%H:%M:%S.%f")[:-3] + "Z"
    assert not_live[0] <= shown_at <= not_live[-1], (shown_at, not_live)
    assert gone["status"].startswith("Recorder gone: cannot reach it")
    # Nothing but the page and its polls, all from the recorder.
    assert {re.sub(r"since=\d+$", "since=N", url) for url in requests} == {
        base + "/", base + "/api/v1/history", base + "/api/v1/history?since=N"}, requests
