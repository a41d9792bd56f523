"""A misbehaving board: a DDR tool that crashes, hangs, ignores the hang-up or
prints garbage; loading files that block, vanish or hold garbage; an ION heap
text that changes under the collector. Every run ends on time with status 0 and
well-formed frames, and leaves no tool process behind on the board."""
import json
import subprocess
import time

import pytest

from conftest import SCENARIOS, check_loading
from report_layout import format_size, layout_problems, split_report, values
from test_interactive import WRAPPER, check_restored, wait_frames

# Runs inside the board: the monitor's status and wall time, then what is still
# running once a dying process has had a moment to be reaped.
WRAP = ('s=$EPOCHREALTIME; "$@"; rc=$?; e=$EPOCHREALTIME; sleep 0.2; echo "@@ $rc $s $e"; '
        'ps -eo stat=,comm=')
TOOLS = {"plox_ddr", "sleep", "sh"}
CRASH_TEXT = ("Sanitizer", "runtime error", "Segmentation", "core dumped", "terminate called",
              "Aborted")
# The monitor runs the tool through "/bin/sh -c". A shell that does not exec its
# last command turns a tool killed by a signal into its own exit status 128+N,
# which the monitor rightly takes as a failed tool.
SHELL_EXECS = subprocess.run(["/bin/sh", "-c", "sh -c 'kill -SEGV $$' "],
                             stderr=subprocess.DEVNULL).returncode < 0


def scenario(tmp_path, **changes):
    scen = dict(json.loads((SCENARIOS / "full.json").read_text()), **changes)
    path = tmp_path / "scenario.json"
    path.write_text(json.dumps(scen))
    return path


def run_checked(run_on_board, binary, scen, n, delay=500, slack_s=0.0):
    """Values of each frame of `-b -n N -d DELAY`, after the checks every run passes."""
    r = run_on_board(scen, ["bash", "-c", WRAP, "bash", binary, "-b", "-n", n, "-d", delay])
    out, _, tail = r.stdout.partition("@@ ")
    status, *procs = tail.splitlines()
    rc, start, end = status.split()
    assert (r.returncode, rc) == (0, "0"), r.stderr
    assert not [t for t in CRASH_TEXT if t in r.stderr], r.stderr
    assert float(end) - float(start) < n * delay / 1000 + 2.0 + slack_s
    left = [p for p in procs if p.split(None, 1)[1] in TOOLS and not p.startswith("Z")]
    assert left == []
    frames = split_report(out)
    assert len(frames) == n and out == "".join(line + "\n" for f in frames for line in f)
    assert [layout_problems(f) for f in frames] == [[]] * n
    return [values(f) for f in frames], r


ZERO, FIRST, LAST = ({"read": r, "write": w} for r, w in ((0, 0), (111, 11), (222, 22)))
TWO = {"read": [111, 222, 333], "write": [11, 22, 33], "interval_s": 0.2, "tables": 2}


@pytest.mark.parametrize("ddr,n,want", [
    ({"mode": "deaf"}, 2, ZERO),
    ({"mode": "silent"}, 2, ZERO),
    (dict(TWO, then="deaf"), 3, LAST),
    (dict(TWO, then="silent"), 3, LAST),
    (dict(TWO, then=0), 3, LAST),
    (dict(TWO, then=3), 3, None),
    (dict(TWO, then="group:TERM"), 3, LAST),
    (dict(TWO, then="SEGV"), 3, LAST if SHELL_EXECS else None),
    (dict(TWO, then="ABRT"), 3, LAST if SHELL_EXECS else None),
    ({"mode": "garbage", "read": 222, "write": 22, "interval_s": 0.2}, 3, LAST),
], ids=["deaf", "silent", "then-deaf", "then-silent", "exit-0", "exit-3", "group-killed",
        "segv", "abort", "garbage"])
def test_ddr_tool_faults(run_on_board, binary, tmp_path, ddr, n, want):
    """The box keeps the last figures unless the tool's shell exits non-zero."""
    frames, _ = run_checked(run_on_board, binary, scenario(tmp_path, ddr=ddr), n)
    assert frames[-1]["ddr"] == want
    assert [f["ddr"] for f in frames if f["ddr"] not in (ZERO, FIRST, LAST, want)] == []


def test_quit_key_with_deaf_ddr_tool(pty_session, binary, tmp_path):
    s = pty_session(["bash", "-c", WRAPPER, "bash", str(tmp_path), binary], rows=50, cols=100,
                    scenario=scenario(tmp_path, ddr={"mode": "deaf"}))
    wait_frames(s, 2)
    s.send("q")
    sent = time.monotonic()
    while b"rc=" not in s.raw and time.monotonic() - sent < 10:
        s.pump(0.05)
    assert time.monotonic() - sent < 3.0
    check_restored(s, tmp_path, 0)


# Loading file faults: board changes, label, loading in the first and in the last frame.
FLOW, DEBUG = "/sys/devices/virtual/vps/flow/", "/sys/kernel/debug/"
GARBAGE = ["loading: 20 %\n", "\u00ff\u0000 junk\n", "", "x\n", "loading: 7.5 % " + "x" * 99]
ANY_GARBAGE = [20.0, 0.0, 7.5]
FILE_FAULTS = {
    FLOW + "gdc1_src/loading": ({"read_delay_ms": 1500}, "GDC1", 0.0, 12.0),
    FLOW + "isp0_src/loading": ({"gone_after_s": 2}, "ISP0", 55.5, 0.0),
    DEBUG + "jpu/loading": ({"gone_after_s": 2, "gone_errno": "EIO"}, "JPU0", 15.0, 0.0),
    FLOW + "pym0_src/loading": ({"texts": GARBAGE, "step_ms": 70}, "PYM0", ANY_GARBAGE,
                                ANY_GARBAGE),
}


def test_loading_files_block_vanish_or_hold_garbage(run_on_board, binary, truth, tmp_path):
    """A read blocked past the period delays the stop by at most that read."""
    t = truth("full")
    files = [dict(f, **FILE_FAULTS.get(f["path"], ({},))[0])
             for f in json.loads((SCENARIOS / "full.json").read_text())["files"]]
    frames, r = run_checked(run_on_board, binary, scenario(tmp_path, files=files), 8,
                            slack_s=1.5)
    if "FUSE fallback" in r.stderr:
        pytest.skip("read delays and vanishing files need the FUSE daemon")
    first = {label: v for _, label, v, _ in FILE_FAULTS.values()}
    last = dict(t["loading"], **{label: v for _, label, _, v in FILE_FAULTS.values()})
    assert check_loading(first, t, frames[0]["rows"]) == []
    assert check_loading(last, t, frames[-1]["rows"]) == []
    assert [check_loading({"PYM0": ANY_GARBAGE}, t, f["rows"]) for f in frames] == [[]] * 8


# The heap text changes under the collector: ion_cma appears and carveout goes
# at 2 s (it keeps its last figures), ion_gone is killed at 2 s but stays named
# in the text, and the ghost's pid never had a /proc entry.
ION = {"ghost_pids": {"ghost": 3999999}, "heaps": [
    {"id": 6, "total": 1 << 20,
     "allocations": [["ion_keep", 4096], ["ion_gone", 8192], ["ghost", 16384]]},
    {"id": 4, "total": 2 << 20, "start_s": 2},
    {"id": 2, "total": 4 << 20, "summary": [["ion_keep", 131072]], "end_s": 2}]}
HOLDERS = [{"name": "ion_keep", "rss_kb": 2048},
           {"name": "ion_gone", "rss_kb": 1024, "lifetime_s": 2}]
ION_FRAMES = [  # frame, heaps shown (total, used), processes shown (ION bytes)
    (0, {"cma_reserved": (1 << 20, 28672), "carveout": (4 << 20, 131072)},
     {"ion_keep": 135168, "ion_gone": 8192}),
    (-1, {"cma_reserved": (1 << 20, 28672), "ion_cma": (2 << 20, 0),
          "carveout": (4 << 20, 131072)}, {"ion_keep": 4096}),
]


def test_heap_text_changes_between_frames(run_on_board, binary, tmp_path):
    frames, r = run_checked(run_on_board, binary,
                            scenario(tmp_path, ion=ION, processes=HOLDERS), 8)
    pids = r.pids()
    for i, heaps, procs in ION_FRAMES:
        assert frames[i]["heaps"] == {name: (format_size(total), format_size(used),
                                             format_size(total - used))
                                      for name, (total, used) in heaps.items()}, i
        assert {name: (p[0], p[2]) for name, p in frames[i]["processes"].items()} == {
            name: (pids[name], format_size(size)) for name, size in procs.items()}, i
