"""A misbehaving board: a DDR tool that crashes, hangs, ignores the hang-up or
prints garbage; loading files that block, vanish or hold garbage; an ION heap
text that changes under the collector. Every run ends, without waiting for a
tool or a blocked read for good, with status 0 and well-formed frames, and
leaves no tool process behind on the board."""
import json
import subprocess

import pytest

from board_truth import check_loading, wall_to_monotonic
from conftest import HANG_S, SCENARIOS, board_file, hang_bound
from report_layout import CRASH_TEXT, format_size, layout_problems, split_report, values

# Runs inside the board: the monitor's status and when it ended, then what is
# still running once a dying process has had a moment to be reaped.
WRAP = '"$@"; rc=$?; e=$EPOCHREALTIME; sleep 0.2; echo "@@ $rc $e"; ps -eo stat=,comm='
TOOLS = {"plox_ddr", "sleep", "sh"}
# The monitor runs the tool through "/bin/sh -c". A shell that does not exec its
# last command turns a tool killed by a signal into its own exit status 128+N,
# which the monitor rightly takes as a failed tool.
SHELL_EXECS = subprocess.run(["/bin/sh", "-c", "sh -c 'kill -SEGV $$' "],
                             stderr=subprocess.DEVNULL).returncode < 0


def run_checked(run_on_board, binary, scen, n, delay=500):
    """Values and arrival times of each frame of `-b -n N -d DELAY`, and the run,
    after the checks every run passes."""
    r = run_on_board(scen, ["bash", "-c", WRAP, "bash", binary, "-b", "-n", n, "-d", delay])
    out, _, tail = r.stdout.partition("@@ ")
    status, *procs = tail.splitlines()
    rc, end = status.split()
    assert (r.returncode, rc) == (0, "0"), r.stderr
    assert not [t for t in CRASH_TEXT if t in r.stderr], r.stderr
    left = [p for p in procs if p.split(None, 1)[1] in TOOLS and not p.startswith("Z")]
    assert left == []
    frames = split_report(out)
    assert len(frames) == n and out == "".join(line + "\n" for f in frames for line in f)
    assert [layout_problems(f) for f in frames] == [[]] * n
    times = r.frame_times(frames)
    # The stop after the last frame waits for no tool and no read for good.
    # How long it takes on this machine is no fault: only a hang is.
    assert wall_to_monotonic(float(end)) - times[-1] < hang_bound(HANG_S)
    return [values(f) for f in frames], r, times


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
    frames, _, _ = run_checked(run_on_board, binary, board_file(tmp_path, ddr=ddr), n)
    assert frames[-1]["ddr"] == want
    assert [f["ddr"] for f in frames if f["ddr"] not in (ZERO, FIRST, LAST, want)] == []


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
    """A read blocked past the period does not hold up the frames or the stop for good."""
    t = truth("full")
    files = [dict(f, **FILE_FAULTS.get(f["path"], ({},))[0])
             for f in json.loads((SCENARIOS / "full.json").read_text())["files"]]
    frames, r, times = run_checked(run_on_board, binary, board_file(tmp_path, files=files), 8)
    if "FUSE fallback" in r.stderr:
        pytest.skip("read delays and vanishing files need the FUSE daemon")
    first = {label: v for _, label, v, _ in FILE_FAULTS.values()}
    last = dict(t["loading"], **{label: v for _, label, _, v in FILE_FAULTS.values()})
    last = r.dsp(times, 0.5).loading(last, times[-1], 0.5)
    assert check_loading(first, t, frames[0]["rows"]) == []
    assert check_loading(last, t, frames[-1]["rows"]) == []
    assert [check_loading({"PYM0": ANY_GARBAGE}, t, f["rows"]) for f in frames] == [[]] * 8


# The heap text changes under the collector: ion_cma appears and carveout goes
# at 3 s (it keeps its last figures), ion_gone is killed at 3 s but stays named
# in the text, and the ghost's pid never had a /proc entry.
CHANGE_S = 3
ION = {"ghost_pids": {"ghost": 3999999}, "heaps": [
    {"id": 6, "total": 1 << 20,
     "allocations": [["ion_keep", 4096], ["ion_gone", 8192], ["ghost", 16384]]},
    {"id": 4, "total": 2 << 20, "start_s": CHANGE_S},
    {"id": 2, "total": 4 << 20, "summary": [["ion_keep", 131072]], "end_s": CHANGE_S}]}
HOLDERS = [{"name": "ion_keep", "rss_kb": 2048},
           {"name": "ion_gone", "rss_kb": 1024, "lifetime_s": CHANGE_S}]
ION_SHOWN = {  # heaps shown (total, used), processes shown (ION bytes)
    "before": ({"cma_reserved": (1 << 20, 28672), "carveout": (4 << 20, 131072)},
               {"ion_keep": 135168, "ion_gone": 8192}),
    "after": ({"cma_reserved": (1 << 20, 28672), "ion_cma": (2 << 20, 0),
               "carveout": (4 << 20, 131072)}, {"ion_keep": 4096}),
}
# A frame that arrives this soon after the change may show it in part or not
# at all: the board plays its timeline a little late on a loaded machine, and
# a frame arrives a little after it is drawn.
SETTLE_S = 0.5


def test_heap_text_changes_between_frames(run_on_board, binary, tmp_path):
    """Each frame against the text as it was when the frame really came."""
    frames, r, times = run_checked(run_on_board, binary,
                                   board_file(tmp_path, ion=ION, processes=HOLDERS), 10)
    pids = r.pids()
    checked = []
    for i, (frame, at) in enumerate(zip(frames, times)):
        at -= r.clock_start()
        if CHANGE_S <= at < CHANGE_S + SETTLE_S:
            continue
        state = "before" if at < CHANGE_S else "after"
        heaps, procs = ION_SHOWN[state]
        assert frame["heaps"] == {name: (format_size(total), format_size(used),
                                         format_size(total - used))
                                  for name, (total, used) in heaps.items()}, (i, at, state)
        assert {name: (p[0], p[2]) for name, p in frame["processes"].items()} == {
            name: (pids[name], format_size(size)) for name, size in procs.items()}, (i, at, state)
        checked.append(state)
    assert set(checked) == {"before", "after"}, [round(t - r.clock_start(), 2) for t in times]
