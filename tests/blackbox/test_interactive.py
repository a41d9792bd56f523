"""Interactive use in a pseudo-terminal: in-place redraw clipped to the window,
quit keys, and the terminal left as it was found (fatal signals: test_stress.py)."""
import re
import time

import pyte
import pytest

from conftest import WRAPPER, check_restored, hang_bound, wait_frames
from report_layout import (BORDER, CURSOR_UP, FULL_CODES, HEADER_TEXTS, TITLE, codes,
                           expected_codes, frames_done, layout_problems, lines)

HIDE = b"\x1b[?25l"


def screen_after(raw, n, rows, cols):
    """The screen exactly as it stands after frame n (1-based) was drawn."""
    m = list(CURSOR_UP.finditer(raw))[n - 1]
    screen = pyte.Screen(cols, rows)
    pyte.ByteStream(screen).feed(raw[:m.end()])
    return screen


def check_reverse_headers(screen, nlines):
    """Headers are drawn in reverse video between two plain bars; nothing else is."""
    for y in range(nlines):
        header = screen.display[y][1:49] in HEADER_TEXTS
        rev = [screen.buffer[y][x].reverse for x in range(50)]
        assert rev == [False] + [header] * 48 + [False], y


@pytest.mark.parametrize("rows,cols", [(24, 80), (40, 120)])
def test_redraws_in_place_clipped_to_window(pty_session, binary, rows, cols):
    s = pty_session([binary, "-d", "500"], rows=rows, cols=cols, scenario="full")
    wait_frames(s, 3)
    s.send("q")
    assert s.wait_exit(10) == 0
    shown = min(len(FULL_CODES), rows - 1)  # line indexes 0 .. rows-2 are written
    for n in (1, 3):
        scr = screen_after(s.raw, n, rows, cols)
        got = lines(scr)
        assert got[0] == BORDER and got[1] == TITLE, (n, got[:2])  # nothing scrolled
        assert layout_problems(got[:shown], complete=False) == [], n
        assert codes(got[:shown]) == FULL_CODES[:shown], n
        assert got[shown:] == [""] * (rows - shown), n  # the last row stays free
        check_reverse_headers(scr, shown)
        assert (scr.cursor.y, scr.cursor.x) == (0, 0), n
    # The screen is cleared once, at the first frame; later frames overwrite in place,
    # each going back up by the frame's whole line count.
    upto3 = s.raw[:list(CURSOR_UP.finditer(s.raw))[2].end()]
    assert upto3.startswith(HIDE + b"\x1b[H\x1b[0J")
    assert upto3.count(b"\x1b[H") == 1 and upto3.count(b"\x1b[0J") == 1
    assert [int(m) for m in CURSOR_UP.findall(upto3)] == [len(FULL_CODES)] * 3
    assert b"\x1b[K" not in upto3  # frames of equal length erase nothing


# Lines 0..3 of a 10 by 5 window cut to 10 columns; the highlighted header
# loses 4 more to its escape. Smaller windows draw nothing (None).
@pytest.mark.parametrize("rows,cols,drawn", [
    (5, 10, [BORDER[:10], TITLE[:10].rstrip(), "|" + "-" * 9, f"|{HEADER_TEXTS[0][:6]}|", ""]),
    (24, 9, None), (4, 80, None)], ids=["10x5-smallest-drawn", "9-columns", "4-rows"])
def test_smallest_window_drawn_and_smaller_ones(pty_session, binary, rows, cols, drawn):
    s = pty_session([binary, "-d", "200", "-n", "3"], rows=rows, cols=cols, scenario="full")
    assert s.wait_exit(15) == 0
    if drawn:
        assert lines(screen_after(s.raw, 1, rows, cols)) == drawn
    else:
        # Hidden cursor at start; on the way out only the restore (move below
        # the empty frame, new line, cursor shown), possibly repeated.
        assert re.fullmatch(rb"\x1b\[\?25l(?:\x1b\[0B\r\n\x1b\[\?25h)+", s.raw), s.raw


def test_shorter_frame_erases_its_old_tail(pty_session, binary):
    """In dsp_churn a process holding ION memory ends at 2.5 s: the frame loses a line."""
    rows, cols = 50, 100
    s = pty_session([binary, "-d", "500"], rows=rows, cols=cols, scenario="dsp_churn")
    wait_frames(s, 9)
    s.send("q")
    assert s.wait_exit(10) == 0
    ends = [m.end() for m in CURSOR_UP.finditer(s.raw)]
    frames = [s.raw[a:b] for a, b in zip([0] + ends, ends)]
    erased = [i for i, f in enumerate(frames) if b"\x1b[K" in f]
    assert erased, [f[-20:] for f in frames]
    k = erased[0]  # 0-based index of the first shorter frame
    before = lines(screen_after(s.raw, k, rows, cols))
    assert codes(before[:24]) == "BTRLrrRDREwxRIRJhRPRKppB" and before[24:] == [""] * (rows - 24)
    for n in range(k + 1, len(frames) + 1):
        got = lines(screen_after(s.raw, n, rows, cols))
        assert codes(got[:23]) == "BTRLrrRDREwxRIRJhRPRKpB", n
        assert layout_problems(got[:23]) == [], n
        assert got[23:] == [""] * (rows - 23), n  # the old bottom border is gone
    # The row below the shorter frame is erased, and the cursor goes back to the top.
    assert frames[k].endswith(b"+\r\n\x1b[K\x1b[1B\x1b[24A"), frames[k][-40:]


# ------------------------------------------------------------ terminal restored

@pytest.mark.parametrize("key", [b"q", b"Q", b"\x03", b"\x04", b"\x1a"],
                         ids=["q", "Q", "ctrl-c", "ctrl-d", "ctrl-z"])
def test_quit_key_ends_with_status_0_and_restores_terminal(pty_session, binary, tmp_path, key):
    s = pty_session(["bash", "-c", WRAPPER, "bash", str(tmp_path), binary], rows=50, cols=100)
    wait_frames(s, 2)
    before = frames_done(s.raw)
    s.send(b"x")  # any other key: keeps running, not echoed
    end = time.monotonic() + hang_bound(5)
    while frames_done(s.raw) < before + 2 and time.monotonic() < end:
        s.pump(0.1)
    assert frames_done(s.raw) >= before + 2 and s.child.isalive()
    assert b"x" not in s.raw
    s.send(key)
    row = check_restored(s, tmp_path, 0)
    assert row == len(FULL_CODES) + 1  # cursor home, down 40 lines, new line


def test_faults_board_interactive_screen_stays_clean(pty_session, binary, truth):
    """Broken drivers and a crashing DSP client: the program keeps drawing, and
    no diagnostic disturbs the interactive report."""
    t = truth("faults")
    rows, cols = 50, 100
    s = pty_session([binary, "-d", "500"], rows=rows, cols=cols, scenario="faults")
    wait_frames(s, 8)  # past the client's death at 3 s
    assert s.child.isalive()
    s.send("Q")
    assert s.wait_exit(10) == 0
    want = expected_codes(len(t["rows"]), False, len(t["heaps"]), len(t["processes"]))
    got = lines(screen_after(s.raw, 8, rows, cols))
    assert codes(got[:len(want)]) == want
    assert layout_problems(got[:len(want)]) == []
    assert got[len(want):] == [""] * (rows - len(want))
    # The one unconditional start-up message comes before the first frame clears
    # the screen; nothing of the kind is written once the report is up.
    drawn = s.raw[s.raw.index(b"\x1b[H\x1b[0J"):]
    assert b"failed" not in drawn and b"wrong dsp" not in drawn
