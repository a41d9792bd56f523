"""A misbehaving board and a rough user: a DSP node cut short, clients killed by the
thousand, a flood of fifo events, a window resized a hundred times and every handled
fatal signal a hundred times. Nothing crashes or hangs, frames stay well formed, the
terminal comes back. The loops run inside the board (sim/stress_driver)."""
import json
import signal

import pyte
import pytest

from board_truth import EMULATED
from conftest import CLIENT, HANG_S, drive, dsp_board, growth, hang_bound, wait_frames
from recordings import recorded_dsp_problems
from report_layout import (CRASH_TEXT, CURSOR_UP, FULL_CODES, codes, dsp0, frames_done,
                           layout_problems, lines, well_formed)

PIDFD = "anon_inode:[pidfd]"
# The handled set: bit N of the fatal mask stands for signal N.
FATAL = [signal.Signals(n).name for n in range(1, 32) if 0x0700FC4E >> n & 1]


@pytest.mark.parametrize("program", ["monitor", "recorder"])
def test_dsp_node_shorter_than_its_layout_is_watched(run_on_board, binary, record_binary, tmp_path,
                                                    program):
    """A 100-byte node holds magic, masks and the first pids: it is mapped (reading
    zeros past its end) and a client busy all the time shows. The monitor shows
    100.0 once a sampling window has completed (0.0 before); the recorder's
    read-only reader follows the client as it really ran."""
    board = dsp_board(tmp_path, {"size": 100}, [{"cores": [0], "duty": 100}])
    if program == "recorder":
        r = run_on_board(board, [record_binary, "--format", "jsonl", "-e", "dsp", "-n", "6",
                                 "-d", "300"], timeout=30)
        assert r.returncode == 0 and "mmap" not in r.stderr, r.stderr
        records = [json.loads(line) for line in r.stdout.splitlines()]
        assert len(records) == 6 and recorded_dsp_problems(records, r.workdir, 0.3, 0.05) == []
        return
    r = run_on_board(board, [binary, "-b", "-n", "5", "-d", "300"], timeout=30)
    assert r.returncode == 0, r.stderr
    frames = well_formed(r.stdout, r.stderr, 5)
    times = r.frame_times(frames)
    wants = [r.dsp(times, 0.3).expect(0, at, 0.3) for at in times]
    assert [(dsp0(f), w) for f, w in zip(frames, wants) if not w.accepts(dsp0(f), 0.0)] == []
    assert wants[-1].definite(0.0) and dsp0(frames[-1]) == 100.0
    assert "mmap node addr failed" not in r.stderr


def test_thousand_killed_clients_beside_the_recorder(run_on_board, binary, record_binary,
                                                    tmp_path):
    """Each client arrives while the monitor is idle and is found by one rescan of the
    one node: one pidfd, kept open after its exit. Nothing else may grow: the node and
    lock file mapped at start stay open (the first rescan maps them again over the
    entry), and every later mapping is released at the exit that idles the monitor.
    Started under a soft limit of 1024 descriptors, the monitor goes past it and still
    shows a busy and an idle DSP. The recorder beside follows the same clients and
    ends with the descriptors and threads it started with."""
    n = 1100
    out = drive(run_on_board, dsp_board(tmp_path),
                ["dsp-kill", "--count", str(n), "--client", CLIENT, "--recorder", record_binary,
                 "--nofile", "1024"], [binary, "-b", "-d", "100", "-n", "1000000"])
    assert out["killed"] == n and growth(out) == {PIDFD: n}
    assert len(out["after"]["fds"]) > 1024
    assert out["after"]["threads"] == out["before"]["threads"]
    last = [dsp0(f) for f in well_formed(out["stdout"], out["stderr"])[-20:]]
    assert max(last) == 100.0 and last[-1] == 0.0, last
    rec = out["recorder"]
    assert rec["returncode"] == 0 and not [t for t in CRASH_TEXT if t in rec["stderr"]]
    for key in ("fds", "threads"):
        assert out["recorder_after"][key] == out["recorder_before"][key]
    last = [json.loads(line)["loading"][0]["percent"] for line in rec["stdout"].splitlines()[-20:]]
    assert max(last) == 100 and last[-1] == 0, last


def test_fifo_burst_while_sampling(run_on_board, binary, tmp_path):
    """10,000 events for dead pids, bad pids and slots out of range, and a live pid
    every hundredth (each opening one more pidfd, kept), while a client is busy. The
    frames keep coming: none waits for the burst to be read (a hang bound only)."""
    out = drive(run_on_board, dsp_board(tmp_path),
                ["fifo-burst", "--count", "10000", "--client", CLIENT],
                [binary, "-b", "-d", "200", "-n", "15"])
    assert out["live_messages"] == 100 and growth(out) == {PIDFD: 100}
    frames = well_formed(out["stdout"], out["stderr"], 15)
    assert dsp0(frames[-1]) == 100.0  # no event released the live client's slot
    gaps = [b - a for a, b in zip(out["frames"], out["frames"][1:])]
    assert max(gaps) < hang_bound(HANG_S), gaps


def test_hundred_resizes_end_in_a_frame_for_the_last_size(pty_session, binary):
    """Sizes too small to draw, over the width cap and ordinary, some between two
    frames, some within one; then a frame of the last size, cut to its height."""
    rows, cols = 30, 90
    s = pty_session([binary, "-d", "100"], rows=40, cols=100, scenario="full")
    wait_frames(s, 25)  # every engine, DSP client and DDR figure is up
    sizes = [(24, 80), (5, 10), (4, 80), (24, 9), (60, 200), (100, 500), (1, 1), (12, 60),
             (45, 120), (35, 49)]
    for i in range(100):
        s.child.setwinsize(*sizes[i % len(sizes)])
        s.pump(0.005 * (i % 7))
    s.child.setwinsize(rows, cols)
    s.pump(0.3)
    mark = len(s.raw)
    wait_frames(s, frames_done(s.raw) + 3, 10)
    ends = [m.end() for m in CURSOR_UP.finditer(s.raw, mark)]
    assert len(ends) >= 3, s.raw[-300:]
    a, b = ends[:2]  # a frame begun after the resize, from the top left corner
    scr = pyte.Screen(cols, rows)
    pyte.ByteStream(scr).feed(s.raw[a:b])
    got = lines(scr)
    assert codes(got[:rows - 1]) == FULL_CODES[:rows - 1]
    assert layout_problems(got[:rows - 1], complete=False) == []
    assert got[rows - 1] == "" and (scr.cursor.y, scr.cursor.x) == (0, 0)
    s.send("q")
    assert s.wait_exit(10) == 0
    assert [t for t in CRASH_TEXT if t.encode() in s.raw] == []


def test_every_fatal_signal_hundred_times_restores_the_terminal(run_on_board, binary):
    """One board; each run on a fresh pseudo-terminal gets its signal after the first
    frame, 0 to 90 ms into the next: death by that signal, same termios, cursor shown.
    The signal must land between frames: one landing while a frame is written may
    repeat a line, as the handler's restore flushes the same stdio buffer. Under an
    emulator the signal lands later, so the frames are further apart. Each run's
    first frame and its end after the signal are bounded by a hang bound; the 1300
    runs take minutes on a slow machine and under an emulator, and that is no fault."""
    delay = "200" if EMULATED else "100"
    out = drive(run_on_board, "full",
                ["signals", "--count", "100", "--jobs", "6", "--rows", "50"] + FATAL,
                [binary, "-d", delay])
    assert sorted(out) == sorted(FATAL)
    assert {k: v["problems"] for k, v in out.items() if v["failed"] or v["runs"] != 100} == {}
    for name, v in out.items():
        scr = pyte.Screen(100, 50)
        pyte.ByteStream(scr).feed(v["last_output"].encode("latin-1"))
        frame = lines(scr)[:lines(scr).index("")]
        assert layout_problems(frame) == [], (name, frame)
