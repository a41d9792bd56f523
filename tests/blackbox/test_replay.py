"""sim/run-board --replay: a capture of a simulated board, played back under the
monitor, shows what the monitor showed on the board; the corpus of captures in
tests/captures still gives its expected frames."""
import bisect
import json
import os
import re
import shutil
import struct
import sys
import zlib

import pytest

from board_truth import tolerance
from conftest import CLIENT, REPO, RUN_BOARD
from report_layout import codes, format_size, split_report

sys.path.insert(0, str(REPO / "sim"))
from capture_file import read_capture  # noqa: E402
from replay import ReplayPlan  # noqa: E402

CORPUS = REPO / "tests" / "captures"
# Waits in a board's shell until the capture FILE holds its start record: the
# capture's timeline has begun.
STARTED = "until [ $(stat -c %s {0} 2>/dev/null || echo 0) -gt 40 ]; do sleep 0.02; done"
SAMPLED = re.compile(r"\|\s+((?:YPU|DSP)\d+)\s+(\d+\.\d)\s+\|$")
PROCESS = re.compile(r"(\|\s+(\d+)\s+\S+\s+)(\S+)(\s+\S+\s+\|)$")
# A sanitizer build runs the capture's own tests and the damaged captures; the
# round trips and the corpus compare figures, which the native and emulated
# runs do, and would only add load to the sanitizer run's timing checks.
SANITIZED = os.environ.get("KZM_SANITIZED")


IDLE_CAPACITY = 64


class Busy:
    """A core's busy time as the capture saw it, from (seconds, busy) steps."""

    def __init__(self, steps):
        # From times[i] on the core is states[i]; total[i] is its busy time before.
        self.times, self.states, self.total = [0.0], [False], [0.0]
        for t, busy in steps:
            self.total.append(self.total[-1] + (t - self.times[-1]) * self.states[-1])
            self.times.append(t)
            self.states.append(busy)

    def upto(self, t):
        i = max(0, bisect.bisect_right(self.times, t) - 1)
        return self.total[i] + max(0.0, t - self.times[i]) * self.states[i]

    def when(self, total):
        """The first time by which the core was busy for total seconds."""
        lo, hi = 0.0, self.times[-1] + total + 1
        for _ in range(40):
            mid = (lo + hi) / 2
            lo, hi = (mid, hi) if self.upto(mid) < total else (lo, mid)
        return hi

    def shares(self, at, delay, active=None):
        """The lowest and highest busy percentage of the windows of length delay
        that end within one delay of at, or one more before it (a frame shows
        the last window completed before it was drawn): what the board showed
        then. With
        active (a Busy that is busy while the sampler runs), a window is delay
        seconds of the sampler's running time, and 0 is shown while it stands
        still."""
        got = []
        for k in range(151):
            end = max(0.0, at - 2 * delay + k * delay / 50)
            start = end - delay
            if active is not None:
                if not active.states[max(0, bisect.bisect_right(active.times, end) - 1)]:
                    got.append(0.0)
                start = active.when(active.upto(end) - delay) if active.upto(end) > delay else 0
            if end - start >= delay / 2:
                got.append(100 * (self.upto(end) - self.upto(start)) / delay)
        return (min(got), max(got)) if got else (0.0, 0.0)


def capture_busy(path):
    """label -> (Busy, None) of the accelerator cores (busy while the library's
    free capacity is below an idle core's), and (Busy, active) of the DSP cores
    (busy while a live holder's slot has its running bit set; active while any
    node has a live holder, as the DSP sampler runs only then) on the capture's
    timeline."""
    plan = ReplayPlan(path)
    out = {}
    for core in range(plan.ypu_cores or 0):
        out[f"YPU{core}"] = Busy([(t / 1e6, cap < IDLE_CAPACITY)
                                  for t, c, cap in plan.ypu if c == core]), None
    gone = {}
    for pid, files in plan.processes().items():
        ends = [t / 1e6 for t, present, _, _ in files.get("status", []) if not present]
        gone[pid] = min(ends, default=float("inf"))
    # A death is a step of its own: the node need not change then.
    deaths = sorted(set(gone.values()) - {float("inf")})
    nodes = len(plan.dsp_nodes)
    steps, held = [[] for _ in range(nodes)], []
    current = [b""] * nodes
    changes = sorted([(t / 1e6, i, data if present else b"") for t, i, present, data in plan.dsp] +
                     [(t, None, None) for t in deaths], key=lambda c: c[0])
    for t, i, data in changes:
        if i is not None and i < nodes:
            current[i] = data
        live = []
        for node, data in enumerate(current):
            busy, mine = False, False
            if len(data) >= 152:
                free, running = struct.unpack_from("<II", data, 16)
                pids = struct.unpack_from("<32I", data, 24)
                mine = [s for s in range(32) if not free >> s & 1 and pids[s] and
                        gone.get(pids[s], float("inf")) > t]
                busy = any(running >> s & 1 for s in mine)
            steps[node].append((t, busy))
            live.append(bool(mine))
        held.append((t, any(live)))
    active = Busy(held)
    for node in range(nodes):
        out[f"DSP{node}"] = Busy(steps[node]), active
    return out


def sampled(frame):
    return {m.group(1): float(m.group(2)) for m in map(SAMPLED.match, frame) if m}


def captured_rss(path):
    """pid -> the resident sizes the capture read of it, as the report prints them."""
    out = {}
    for pid, files in ReplayPlan(path).processes().items():
        for _, present, _, content in files.get("status", []):
            kb = re.search(rb"^VmRSS:\s+(\d+) kB", content, re.M) if present else None
            if kb:
                out.setdefault(pid, set()).add(format_size(int(kb.group(1)) * 1024))
    return out


def unlike(replayed, shown, tol, board=None, rss=None):
    """Lines of the replayed frames that the board did not show within one
    interval of that frame (the shown frames one before, at and one after its
    index), an accelerator or DSP figure within tol(label) of one it showed
    counting as shown; so does one within tol(label) of what the captured board
    was doing over the windows that end within one interval of the frame's time,
    when board(label, i) gives their (lowest, highest); a process row whose
    resident size is one the capture read of it (rss: pid -> sizes), all else as
    shown; [] when every line was."""
    out = [] if len(replayed) == len(shown) else [
        f"{len(replayed)} frames replayed, {len(shown)} shown"]
    for i, frame in enumerate(replayed):
        near = shown[max(0, i - 1):i + 2]
        if codes(frame) not in {codes(f) for f in near}:
            out.append(f"frame {i}: rows {codes(frame)} against {[codes(f) for f in near]}")
        for line in frame:
            if any(line in f for f in near):
                continue
            m = SAMPLED.match(line)
            if m and any(abs(sampled(f).get(m.group(1), -1e9) - float(m.group(2))) <=
                         tol(m.group(1)) for f in near):
                continue
            if m and board:
                lo, hi = board(m.group(1), i)
                if lo - tol(m.group(1)) <= float(m.group(2)) <= hi + tol(m.group(1)):
                    continue
            p = PROCESS.match(line)
            if p and rss and p.group(3) in rss.get(int(p.group(2)), ()) and any(
                    (q := PROCESS.match(x)) and (q.group(1), q.group(4)) == (p.group(1), p.group(4))
                    for f in near for x in f):
                continue
            out.append(f"frame {i}: {line.strip()} is not among "
                       f"{sorted({x.strip() for f in near for x in f if x not in frame})}")
    return out


def capture_start_wall_s(path):
    records, _ = read_capture(path)
    return records[0][1]["wall_ns"] / 1e9


@pytest.mark.parametrize("scenario", ["full", "faults", "dsp_churn", "workload", "bare"])
def test_round_trip(run_on_board, binary, capture_binary, truth, tmp_path, scenario):
    if SANITIZED:
        pytest.skip(f"round trips run natively and under emulation, not with {SANITIZED}")
    truth = truth(scenario)
    n = max(4, int(truth.get("settle_s", 3)) + 1)
    out, began = tmp_path / "board.kzc", tmp_path / "monitor_began"
    # The capture begins first; the monitor's start on the capture's timeline is
    # kept, so that the replay starts it at the same point of the timeline.
    script = (f"{capture_binary} -t {n + 3} -o {out} & c=$!; {STARTED.format(out)}; "
              f"date +%s.%N > {began}; {binary} -b -n {n}; m=$?; wait $c; exit $m")
    live = run_on_board(scenario, ["sh", "-c", script])
    assert live.returncode == 0, live.stderr
    offset = float(began.read_text()) - capture_start_wall_s(out)
    assert 0 <= offset < 60, offset
    replay = run_on_board(out, ["sh", "-c", f"sleep {offset:.3f}; exec {binary} -b -n {n}"])
    assert replay.returncode == 0, replay.stderr
    assert "run-board: cannot" not in replay.stderr
    shown, replayed = split_report(live.stdout), split_report(replay.stdout)
    assert len(shown) == n
    assert unlike(replayed, shown, lambda label: tolerance(truth, label),
                  board_showed(out, replay, replayed), captured_rss(out)) == []


def board_showed(path, run, frames):
    """board(label, i) for unlike(): what the captured board was doing around
    frame i of a replay's frames, by when it really came (a replay's clock is
    the capture's)."""
    busy = capture_busy(path)
    times = [t - run.clock_start() for t in run.frame_times(frames)]

    def showed(label, i):
        if label not in busy:
            return 1e9, -1e9
        core, active = busy[label]
        return core.shares(times[i], 1.0, active)

    return showed


def corpus():
    manifest = json.loads((CORPUS / "corpus.json").read_text())
    return sorted(manifest.items())


@pytest.mark.parametrize("name,entry", corpus(), ids=[name for name, _ in corpus()])
def test_corpus(run_on_board, binary, name, entry):
    if SANITIZED:
        pytest.skip(f"the corpus is replayed natively and under emulation, not with {SANITIZED}")
    replay = run_on_board(CORPUS / f"{name}.kzc", [binary] + entry["args"])
    assert replay.returncode == 0, replay.stderr
    want = split_report((CORPUS / f"{name}.frames").read_text())
    got = split_report(replay.stdout)
    assert unlike(got, want, lambda label: entry["tolerance"],
                  board_showed(CORPUS / f"{name}.kzc", replay, got)) == []


def record(kind, *fields):
    """One uncompressed capture record of varints (int) and byte strings."""
    def varint(n):
        out = b""
        while True:
            out += bytes([n & 0x7F | (0x80 if n > 0x7F else 0)])
            n >>= 7
            if not n:
                return out
    payload = b"".join(varint(f) if isinstance(f, int) else varint(len(f)) + f for f in fields)
    head = struct.pack("<IBBH", len(payload), kind, 0, 0)
    return head + struct.pack("<I", zlib.crc32(head + payload)) + payload


def test_damaged_captures(run_on_board, binary, tmp_path):
    """A capture cut short replays up to its last whole record and says so; a
    file that is no capture is refused before any board is built."""
    whole = (CORPUS / "full.kzc").read_bytes()
    cut = tmp_path / "cut.kzc"
    cut.write_bytes(whole[:len(whole) * 2 // 3])
    r = run_on_board(cut, [binary, "-b", "-n", "1"])
    assert r.returncode == 0, r.stderr
    assert re.search(r"^run-board: replaying up to the last whole record: \S+cut\.kzc: cut short "
                     r"at byte \d+, inside a record$", r.stderr, re.M), r.stderr
    assert len(split_report(r.stdout)) == 1
    foreign = tmp_path / "foreign.kzc"
    shutil.copy(RUN_BOARD, foreign)
    newer = tmp_path / "newer.kzc"
    newer.write_bytes(whole[:8] + b"\x02\0\0\0" + whole[12:])
    # A board is built as root from the names a capture holds: none may reach out.
    start = whole[:16] + record(1, 0, 1000, 500, b"", b"6.1", b"aarch64")
    escape = tmp_path / "escape.kzc"
    escape.write_bytes(start + record(2, 0, b"/dev/", 1, 1, b"../../etc/passwd"))
    dotted = tmp_path / "dotted.kzc"
    dotted.write_bytes(start + record(3, 0, b"/sys/kernel/debug/../../../etc/x", 1, 0o100644, b"x"))
    for path, why in ((foreign, "not a capture"), (tmp_path / "none.kzc", "No such file"),
                      (newer, "capture format version 2 is newer than this program reads (1)"),
                      (escape, "'../../etc/passwd' in "), (dotted, "not a plain absolute path")):
        r = run_on_board(path, ["true"])
        assert r.returncode == 2
        assert r.stderr.startswith("run-board: cannot replay ") and why in r.stderr, r.stderr


def test_recorder_summary_round_trip(run_on_board, record_binary, capture_binary, truth,
                                     tmp_path):
    """The recorder's summary of a DSP workload on the board, and of the same
    stretch of the capture replayed (a stand-in command of the same length: the
    workload's activity is the capture's), agree."""
    if SANITIZED:
        pytest.skip(f"round trips run natively and under emulation, not with {SANITIZED}")
    t = truth("workload")
    out, began = tmp_path / "board.kzc", tmp_path / "recorder_began"
    # Long enough that the recorder's start, which an emulator makes slow and
    # uneven, weighs little in the means.
    workload = [CLIENT, "--board-log", "--duty", "40", "--lifetime-ms", "6000"]
    script = (f"{capture_binary} -t 11 -o {out} & c=$!; {STARTED.format(out)}; "
              f"date +%s.%N > {began}; "
              f"{record_binary} -d 500 --summary {tmp_path / 'live.json'} -- "
              f"{' '.join(workload)}; wait $c")
    live = run_on_board("workload", ["sh", "-c", script])
    assert live.returncode == 0, live.stderr
    shown = json.loads((tmp_path / "live.json").read_text())
    offset = float(began.read_text()) - capture_start_wall_s(out)
    replay = run_on_board(out, ["sh", "-c", f"sleep {offset:.3f}; exec {record_binary} -d 500 "
                                f"--summary {tmp_path / 'replay.json'} -- "
                                f"sleep {shown['wall_seconds']:.3f}"])
    assert replay.returncode == 0, replay.stderr
    replayed = json.loads((tmp_path / "replay.json").read_text())
    assert abs(replayed["records"] - shown["records"]) <= 1
    assert set(replayed["loading"]) == set(shown["loading"])
    for label, got in replayed["loading"].items():
        want = shown["loading"][label]["mean_percent"]
        assert abs(got["mean_percent"] - want) <= tolerance(t, label), (label, got, want)
    assert replayed["ddr"]["read"]["peak_bytes_per_second"] == \
        shown["ddr"]["read"]["peak_bytes_per_second"]
    assert replayed["heaps"] == shown["heaps"]
    # The heap holders under their captured pids (the command's own DSP client
    # is the capture's, not a child of the replayed command).
    keep = ("pid", "name", "peak_ion_bytes", "peak_rss_bytes")
    assert [{k: p[k] for k in keep} for p in replayed["processes"]] == \
        [{k: p[k] for k in keep} for p in shown["processes"]]
