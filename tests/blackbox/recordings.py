"""The recorder's outputs read back for the black-box tests: CSV and JSON
lines as records, an exposition as samples, and its series against the
scenario's truth; the recorder serving with --listen."""
import csv
import json
import re
import socket
import threading
import time
from datetime import datetime, timezone

import pytest

from board_truth import DspActivity, check_loading, wall_to_monotonic
from conftest import hang_bound

MIB = 1 << 20
RFC3339 = re.compile(r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z$")


def record_wall(record):
    """A record's RFC 3339 time as seconds since the epoch (time.time())."""
    return datetime.strptime(record["time"], "%Y-%m-%dT%H:%M:%S.%fZ").replace(
        tzinfo=timezone.utc).timestamp()


# The recorder's sampler runs all the time, so a record taken at T shows the
# last window of about one delay (longer on a loaded machine) that ended by T.
# It sees a new client or a death up to one refresh (50 ms) late.
REFRESH_S = 0.05
STRETCH = 1.5


def recorded_dsp_problems(records, workdir, delay_s, tol):
    """Each record's DSP figures against what the clients really did."""
    activity = DspActivity(workdir)
    problems = []
    for r in records:
        at = wall_to_monotonic(record_wall(r))
        for figure in r["loading"]:
            got, core = figure["percent"], figure["core"]
            if got is None:
                # Only before the first window can have ended.
                if r["elapsed_s"] > delay_s * STRETCH:
                    problems.append(f'{r["elapsed_s"]}s {figure["label"]}: missing')
                continue
            shares = [activity.share(core, end - length, end)
                      for length in (delay_s, delay_s * STRETCH)
                      for end in (at - i * 0.01 for i in range(int(length * 100) + 1))]
            # Only a client's arrival or end can be seen late.
            moved = any(at - delay_s * STRETCH - REFRESH_S <= t <= at
                        for start, end, _, cores, _ in activity.clients if cores >> core & 1
                        for t in (start, end))
            slack = tol + (100 * REFRESH_S / delay_s if moved else 0.0)
            if not min(shares) - slack <= got <= max(shares) + slack:
                problems.append(f'{r["elapsed_s"]}s {figure["label"]}: got {got}, want '
                                f'{min(shares):.1f}..{max(shares):.1f} +/- {slack:.1f}')
    return problems


def number(cell, kind=int):
    """A CSV cell; None where the figure is missing."""
    return kind(cell) if cell else None


def csv_records(path):
    """The rows of a recorded CSV as records; every row complete, CRLF line ends;
    a missing figure is None."""
    raw = path.read_bytes()
    assert raw.endswith(b"\r\n") and raw.count(b"\n") == raw.count(b"\r\n")
    header, *rows = csv.reader(raw.decode().splitlines())
    assert header[:2] == ["time", "elapsed_s"]
    out = []
    for row in rows:
        assert len(row) == len(header), row
        cell = dict(zip(header, row))
        heaps = {k[:-len("_total_bytes")] for k in header if k.endswith("_total_bytes")}
        out.append({
            "time": cell["time"], "elapsed_s": float(cell["elapsed_s"]),
            "loading": [(k, number(cell[k], float)) for k in header[2:]
                        if re.fullmatch(r"[A-Z]+\d+", k)],
            "ddr": (number(cell["ddr_read_bytes_per_second"]),
                    number(cell["ddr_write_bytes_per_second"])),
            "heaps": {h: tuple(number(cell[f"{h}_{f}_bytes"]) for f in ("total", "used", "free"))
                      for h in heaps}})
    return out


def json_records(text):
    out = []
    for line in text.splitlines():
        r = json.loads(line)
        ddr = r["ddr"] or {"read_bytes_per_second": None, "write_bytes_per_second": None}
        out.append(dict(r, loading=[(x["label"], x["percent"]) for x in r["loading"]],
                        ddr=(ddr["read_bytes_per_second"], ddr["write_bytes_per_second"]),
                        heaps={h["name"]: (h["total_bytes"], h["used_bytes"], h["free_bytes"])
                               for h in r["heaps"]}))
        assert all(x["label"] == f'{x["engine"]}{x["core"]}' for x in r["loading"])
    return out


def prom_samples(text):
    """{(name, ((label, value), ...)): value} of an exposition."""
    samples = {}
    for line in text.splitlines():
        if line and not line.startswith("#"):
            m = re.fullmatch(r"(\w+)(?:\{(.*)\})? (\S+)", line)
            labels = tuple(sorted(re.findall(r'(\w+)="((?:[^"\\]|\\.)*)"', m[2] or "")))
            samples[(m[1], labels)] = float(m[3])
    return samples


def check_exposed(got, t, r, delay_s, ddr_live=True):
    """The series of one exposition ({(name, labels): value}, in the report's
    order unless a server sorted them) against the scenario's truth: loading at
    the sample's time, DDR, heaps, ION holders."""
    rows = [(dict(labels)["engine"] + dict(labels)["core"], v * 100)
            for (name, labels), v in got.items() if name == "kvt_zqp_loading_ratio"]
    rows.sort(key=lambda row: t["rows"].index(row[0]) if row[0] in t["rows"] else -1)
    assert [label for label, _ in rows] == t["rows"]
    at = wall_to_monotonic(got[("kvt_zqp_sample_timestamp_seconds", ())])
    assert check_loading(r.dsp().loading(t["loading"], at, delay_s), t, rows) == []
    assert got[("kvt_zqp_ddr_figures_live", ())] == int(ddr_live)
    for direction in ("read", "write"):
        key = ("kvt_zqp_ddr_bandwidth_bytes_per_second", (("direction", direction),))
        assert got.get(key) == (t["ddr"][direction] * MIB if ddr_live else None)
    for name, h in t["heaps"].items():
        for metric, value in (("size", h["total"]), ("used", h["used"]),
                              ("free", h["total"] - h["used"])):
            assert got[(f"kvt_zqp_heap_{metric}_bytes", (("heap", name),))] == value
    pids = r.pids()
    for name, p in t["processes"].items():
        key = (("name", name), ("pid", str(pids[name])))
        assert got[("kvt_zqp_process_ion_bytes", key)] == p["ion_bytes"]
    assert abs(got[("kvt_zqp_sample_timestamp_seconds", ())] - time.time()) < 600


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


# The recorder on the board (argv: binary, port, then its other options) until
# the test creates "stop" in the board's folder; "kill-ddr" there first kills
# the DDR tool.
SERVICE = r"""
rec=$1; port=$2; shift 2
"$rec" --listen "127.0.0.1:$port" "$@" & r=$!
until [ -e "$KZM_SIM_WORKDIR/stop" ]; do
  if [ -e "$KZM_SIM_WORKDIR/kill-ddr" ] && [ ! -e "$KZM_SIM_WORKDIR/ddr-killed" ]; then
    pkill -KILL -x plox_ddr && : >"$KZM_SIM_WORKDIR/ddr-killed"
  fi
  sleep 0.05
done
kill -TERM $r
wait $r
"""


def wait_until(what, seconds, check):
    """check()'s first true value, trying every 0.1 s; fails after the (hang) bound."""
    end = time.monotonic() + hang_bound(seconds)
    while time.monotonic() < end:
        value = check()
        if value:
            return value
        time.sleep(0.1)
    pytest.fail(f"{what}: not within {hang_bound(seconds)} s")


class Service:
    """The recorder serving on the board in a thread; its BoardRun once stopped."""

    def __init__(self, run_on_board, tmp_path, record_binary, options):
        self.port, self.folder = free_port(), tmp_path / "board1"
        self.run = None
        args = ["sh", "-c", SERVICE, "sh", record_binary, str(self.port), *options]
        self.thread = threading.Thread(
            target=lambda: setattr(self, "run", run_on_board("full", args, timeout=240)))
        self.thread.start()

    def signal(self, name):
        wait_until("the board's folder", 60,
                   lambda: self.folder.is_dir() or not self.thread.is_alive())
        if self.thread.is_alive():
            (self.folder / name).touch()

    def stop(self):
        self.signal("stop")
        self.thread.join()
        return self.run
