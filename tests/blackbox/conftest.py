"""Black-box harness: runs the real binary on the simulated board (sim/run-board).

Environment:
  KZM_BINARY          the monitor binary (set by CTest)
  KZM_BUILD_DIR       build folder holding sim/ artifacts (default <repo>/build)
  KZM_GUEST_LIB       LIB:DIR, the accelerator library built for the binary's
                      architecture when it runs under an emulator (set by CTest)
"""
import itertools
import json
import os
import re
import shutil
import signal
import subprocess
import threading
import time
from collections import Counter
from pathlib import Path

import pytest

from board_truth import EMULATED, DspActivity, board_clock_start
from report_layout import BORDER, SHOW, TITLE, frames_done, lines

REPO = Path(__file__).resolve().parents[2]
RUN_BOARD = REPO / "sim" / "run-board"
SCENARIOS = REPO / "sim" / "scenarios"
BUILD_DIR = Path(os.environ.get("KZM_BUILD_DIR", REPO / "build"))
SIM_BUILD = BUILD_DIR / "sim"
CANNOT_RUN = 77
# A time bound in these tests only tells a hang from a slow run: it is far above
# what a healthy run takes on a loaded machine, and stretched again when the
# programs run under a user-mode emulator, where all they do is several times
# slower. How fast the programs are is measured in bench/, not here.
SLOWDOWN = 4 if EMULATED else 1
# One step (a start, a frame, an exit, a client watched) that takes longer than
# this (stretched by hang_bound) has hung.
HANG_S = 30
BOARD_ARGS = ["--build-dir", str(BUILD_DIR)] + (
    ["--guest-lib", os.environ["KZM_GUEST_LIB"]] if EMULATED else [])
VPS_ROOT = "/sys/devices/virtual/vps"
DEBUG_ROOT = "/sys/kernel/debug"


def board_unavailable():
    """Why the board cannot run here, or None."""
    if os.geteuid() != 0:
        return "simulated board needs root (mount/PID namespaces, FUSE, overlay on sysfs)"
    if not os.path.exists("/dev/fuse"):
        return "simulated board needs /dev/fuse"
    if shutil.which("unshare") is None:
        return "simulated board needs unshare (util-linux)"
    for a in ("libypu.so.2", "kzm_board_fs", "kzm_dsp_client", "kzm_proc_holder"):
        if not (SIM_BUILD / a).exists():
            return f"sim artifact {a} not built in {SIM_BUILD} (set KZM_BUILD_DIR)"
    return None


@pytest.fixture(scope="session")
def board_available():
    reason = board_unavailable()
    if reason:
        pytest.skip(reason)


def program(variable, what):
    path = os.environ.get(variable)
    if not path or not os.access(path, os.X_OK):
        pytest.skip(f"{variable} is not set to an executable {what} binary")
    return path


@pytest.fixture(scope="session")
def binary():
    return program("KZM_BINARY", "monitor")


@pytest.fixture
def truth():
    """truth(name) -> the scenario's ground truth ("truth" section)."""
    return lambda name: json.loads((SCENARIOS / f"{name}.json").read_text())["truth"]


def hang_bound(seconds):
    """A bound that a healthy native run stays far below, stretched under emulation."""
    return None if seconds is None else seconds * SLOWDOWN


class BoardRun:
    def __init__(self, proc, workdir, line_times=()):
        self.returncode = proc.returncode
        self.stdout = proc.stdout
        self.stderr = proc.stderr
        self.workdir = Path(workdir)
        # When each line of stdout arrived (time.monotonic(), the clock of the
        # board's logs).
        self.line_times = list(line_times)

    def log(self, name):
        p = self.workdir / "logs" / name
        return p.read_text() if p.exists() else ""

    def writes(self):
        """(real path, data) for every write into a loading file."""
        out = []
        for line in self.log("fs_writes.log").splitlines():
            path, _, data = line.partition("\t")
            for real, top in ((VPS_ROOT, "/vps"), (DEBUG_ROOT, "/debug")):
                if path.startswith(top + "/"):
                    path = real + path[len(top):]
            out.append((path, data.encode().decode("unicode_escape")))
        return out

    def pids(self):
        text = self.log("pids.json")
        return json.loads(text) if text else {}

    def clock_start(self):
        """When COMMAND started (time.monotonic()), the origin of the board's clock."""
        return board_clock_start(self.workdir)

    def frame_times(self, frames):
        """When each frame of the output arrived: the time of its last line. The
        frames are those of split_report(), from the first line of stdout on."""
        times, line = [], 0
        for f in frames:
            line += len(f)
            times.append(self.line_times[line - 1])
        return times

    def dsp(self, frame_times=None, delay_s=None):
        """The board's DSP clients as they really ran (DspActivity); with the
        frames' times and the delay, the monitor cannot have started sampling
        later than one delay before its first frame."""
        started_by = frame_times[0] - delay_s if frame_times else None
        return DspActivity(self.workdir, started_by)


class _LineReader(threading.Thread):
    """Collects a pipe's lines with the time each arrived."""

    def __init__(self, pipe):
        super().__init__(daemon=True)
        self.pipe = pipe
        self.lines, self.times = [], []
        self.last = time.monotonic()

    def run(self):
        for line in iter(self.pipe.readline, b""):
            self.last = time.monotonic()
            self.lines.append(line)
            self.times.append(self.last)

    def text(self):
        """The text as text-mode pipes give it (universal newlines), and the
        arrival time of each of its lines."""
        out, times = [], []
        for raw, t in zip(self.lines, self.times):
            text = raw.decode().replace("\r\n", "\n").replace("\r", "\n")
            out.append(text)
            times += [t] * len(text.splitlines())
        return "".join(out), times


def board_args(scenario, workdir, cmd):
    """run-board's arguments to run cmd on the scenario's board in workdir; a
    scenario ending in .kzc is a capture to replay."""
    board = (["--replay", str(scenario)] if str(scenario).endswith(".kzc") else
             ["--scenario", str(scenario)])
    return (board + BOARD_ARGS + ["--workdir", str(workdir), "--"] +
            [str(c) for c in cmd])


def _run_board(scenario, cmd, workdir, timeout=60, stall=None):
    """Runs cmd on the board; a hang is a run longer than `timeout` seconds, or
    with `stall`, one that writes nothing for that long (both stretched under
    emulation; None: no such bound)."""
    args = [str(RUN_BOARD)] + board_args(scenario, workdir, cmd)
    # In its own session, so a timeout takes the whole board down with it (the
    # namespace dies with run-board's unshare), not only run-board.
    with subprocess.Popen(args, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                          stdin=subprocess.DEVNULL, start_new_session=True) as proc:
        readers = [_LineReader(proc.stdout), _LineReader(proc.stderr)]
        for r in readers:
            r.start()
        start, total, quiet = time.monotonic(), hang_bound(timeout), hang_bound(stall)
        while True:
            try:
                proc.wait(0.1)
                break
            except subprocess.TimeoutExpired:
                now = time.monotonic()
                if ((total is not None and now - start > total) or
                        (quiet is not None and now - max(r.last for r in readers) > quiet)):
                    os.killpg(proc.pid, signal.SIGKILL)
                    proc.wait()
                    for r in readers:
                        r.join()
                    raise subprocess.TimeoutExpired(args, now - start,
                                                    readers[0].text()[0], readers[1].text()[0])
        for r in readers:
            r.join()
    (out, times), (err, _) = readers[0].text(), readers[1].text()
    run = BoardRun(subprocess.CompletedProcess(args, proc.returncode, out, err), workdir, times)
    if run.returncode == CANNOT_RUN and "cannot build the board" in run.stderr:
        pytest.skip("board cannot be built here: " + run.stderr.strip().splitlines()[-1])
    return run


@pytest.fixture
def run_on_board(board_available, tmp_path):
    """run_on_board(scenario, cmd, timeout=60, stall=None) -> BoardRun (stdout, stderr,
    returncode, logs, stdout line times); the bounds are those of _run_board."""
    count = itertools.count(1)

    def run(scenario, cmd, timeout=60, stall=None):
        return _run_board(scenario, cmd, tmp_path / f"board{next(count)}", timeout, stall)

    return run


@pytest.fixture
def run_monitor(run_on_board, binary):
    """run_monitor(scenario, args, timeout=60) -> BoardRun of the binary in batch use."""
    return lambda scenario, args, timeout=60: run_on_board(scenario, [binary] + list(args),
                                                           timeout)


class PtySession:
    """The binary (or any command) on the board in a pseudo-terminal, seen through pyte."""

    def __init__(self, cmd, rows, cols, workdir, scenario):
        import pexpect
        import pyte
        self.screen = pyte.Screen(cols, rows)
        self.stream = pyte.ByteStream(self.screen)
        self.raw = b""
        self.workdir = Path(workdir)
        self.child = pexpect.spawn(str(RUN_BOARD), board_args(scenario, workdir, cmd),
                                   dimensions=(rows, cols), timeout=5)

    def pump(self, seconds=0.2):
        import pexpect
        end = time.monotonic() + seconds
        while True:
            left = end - time.monotonic()
            if left <= 0:
                return
            try:
                data = self.child.read_nonblocking(65536, timeout=left)
            except (pexpect.TIMEOUT, pexpect.EOF):
                return
            self.raw += data
            self.stream.feed(data)

    def send(self, keys):
        self.child.send(keys)

    def wait_exit(self, timeout=10):
        """The exit status, or None if still running after `timeout` seconds
        (a hang bound, stretched under emulation)."""
        end = time.monotonic() + hang_bound(timeout)
        while self.child.isalive() and time.monotonic() < end:
            self.pump(0.1)
        if self.child.isalive():
            return None
        self.pump(0.1)
        self.child.close()
        signalled = self.child.signalstatus
        return self.child.exitstatus if signalled is None else 128 + signalled

    def close(self):
        if self.child.isalive():
            self.child.kill(signal.SIGTERM)
            self.wait_exit(5)
        if self.child.isalive():
            self.child.terminate(force=True)


@pytest.fixture
def pty_session(board_available, tmp_path):
    """pty_session(cmd, rows=40, cols=100, scenario="full") -> PtySession."""
    sessions = []

    def start(cmd, rows=40, cols=100, scenario="full"):
        s = PtySession(cmd, rows, cols, tmp_path / f"pty{len(sessions)}", scenario)
        sessions.append(s)
        return s

    yield start
    for s in sessions:
        s.close()


# ------------------------------------------------------- boards made by tests

def board_file(tmp_path, base="full", **changes):
    """The scenario `base` with top-level keys replaced, as a file."""
    scen = dict(json.loads((SCENARIOS / f"{base}.json").read_text()), **changes)
    path = tmp_path / f"{base}_changed.json"
    path.write_text(json.dumps(scen))
    return path


def dsp_board(tmp_path, node=None, clients=()):
    """A board with one DSP core and nothing else, as a scenario file."""
    return board_file(tmp_path, "bare", dev=["vdsp0"],
                    dsp={"nodes": [node or {}], "clients": list(clients)})


# --------------------------------------------------------- stress loops (sim/stress_driver)

DRIVER = ["/usr/bin/python3", str(REPO / "sim" / "stress_driver")]
CLIENT = str(SIM_BUILD / "kzm_dsp_client")


def drive(run_on_board, board, args, monitor):
    """The driver's report. The driver bounds each of its steps by HANG_S and
    says on stderr when one is done, so the board is only taken down when the
    driver itself stops making progress."""
    r = run_on_board(board, DRIVER + args + ["--hang-s", str(hang_bound(HANG_S)), "--"] + monitor,
                     timeout=None, stall=2 * HANG_S + 30)
    assert r.returncode == 0, r.stderr[-2000:]
    out = json.loads(r.stdout)
    assert "error" not in out and out.get("returncode", 0) == 0, (out.get("error"), out)
    return out


# A thread's name is set through its /proc comm file, open only for that
# moment: a snapshot may catch it, and it is not a descriptor the program keeps.
THREAD_NAME_FD = re.compile(r"/proc/\d+/task/\d+/comm")


def growth(out):
    """Descriptors opened (positive) or closed (negative) between the snapshots."""
    diff = Counter(out["after"]["fds"])
    diff.subtract(out["before"]["fds"])
    return {k: v for k, v in diff.items() if v and not THREAD_NAME_FD.fullmatch(k)}


# ------------------------------------------------------- interactive sessions

# Runs the monitor from a shell on the session's terminal, keeping the terminal
# settings from before and after (in folder $1).
WRAPPER = 'stty -g > "$1/before"; "$2" -d 200; echo "rc=$?"; stty -g > "$1/after"'


def wait_frames(s, n, timeout=15):
    """Waits for n frames; `timeout` is a hang bound, stretched under emulation."""
    end = time.monotonic() + hang_bound(timeout)
    while frames_done(s.raw) < n and time.monotonic() < end and s.child.isalive():
        s.pump(0.1)
    assert frames_done(s.raw) >= n, f"{frames_done(s.raw)} frames: {s.raw[-300:]!r}"


def check_restored(s, tmp_path, rc):
    """After WRAPPER: the monitor's status, the terminal as before, the cursor
    shown, the last frame intact; the screen row of the shell's next output."""
    assert s.wait_exit(15) == 0  # the wrapper's own status (stty)
    text = s.raw.decode(errors="replace")
    assert f"rc={rc}" in text, text[-300:]
    assert (tmp_path / "before").read_text() == (tmp_path / "after").read_text()
    monitor_out = s.raw.split(b"rc=")[0]
    tail = monitor_out[monitor_out.rfind(SHOW):]
    assert monitor_out.rfind(SHOW) > monitor_out.rfind(b"| Monitor"), "cursor not shown again"
    assert b"|" not in tail and b"\x1b[" not in tail[len(SHOW):]
    # The shell's next output comes below the last frame, which is left intact.
    scr = lines(s.screen)
    assert scr[0] == BORDER and scr[1] == TITLE
    return next(i for i, line in enumerate(scr) if line.startswith("rc="))


@pytest.fixture(scope="session")
def record_binary():
    return program("KZM_RECORD_BINARY", "recorder")


@pytest.fixture(scope="session")
def capture_binary():
    return program("KZM_CAPTURE_BINARY", "capture")
