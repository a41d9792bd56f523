"""Black-box harness: runs the real binary on the simulated board (sim/run-board).

Environment:
  KZM_BINARY          the monitor binary (set by CTest)
  KZM_BUILD_DIR       build folder holding sim/ artifacts (default <repo>/build)
  KZM_GUEST_LIB       LIB:DIR, the accelerator library built for the binary's
                      architecture when it runs under an emulator (set by CTest)
"""
import json
import os
import re
import shutil
import signal
import subprocess
import time
from pathlib import Path

import pytest

REPO = Path(__file__).resolve().parents[2]
RUN_BOARD = REPO / "sim" / "run-board"
SCENARIOS = REPO / "sim" / "scenarios"
BUILD_DIR = Path(os.environ.get("KZM_BUILD_DIR", REPO / "build"))
SIM_BUILD = BUILD_DIR / "sim"
CANNOT_RUN = 77
# The binary runs under a user-mode emulator (a cross build): slower, so some
# timing margins widen.
EMULATED = bool(os.environ.get("KZM_GUEST_LIB"))
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


class BoardRun:
    def __init__(self, proc, workdir):
        self.returncode = proc.returncode
        self.stdout = proc.stdout
        self.stderr = proc.stderr
        self.workdir = Path(workdir)

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


def _run_board(scenario, cmd, workdir, timeout=60):
    args = [str(RUN_BOARD), "--scenario", str(scenario)] + BOARD_ARGS + [
        "--workdir", str(workdir), "--"] + [str(c) for c in cmd]
    # In its own session, so a timeout takes the whole board down with it (the
    # namespace dies with run-board's unshare), not only run-board.
    with subprocess.Popen(args, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                          stdin=subprocess.DEVNULL, start_new_session=True) as proc:
        try:
            out, err = proc.communicate(timeout=timeout)
        except subprocess.TimeoutExpired:
            os.killpg(proc.pid, signal.SIGKILL)
            proc.communicate()
            raise
    run = BoardRun(subprocess.CompletedProcess(args, proc.returncode, out, err), workdir)
    if run.returncode == CANNOT_RUN and "cannot build the board" in run.stderr:
        pytest.skip("board cannot be built here: " + run.stderr.strip().splitlines()[-1])
    return run


@pytest.fixture
def run_on_board(board_available, tmp_path):
    """run_on_board(scenario, cmd, timeout=60) -> BoardRun (stdout, stderr, returncode, logs)."""
    count = [0]

    def run(scenario, cmd, timeout=60):
        count[0] += 1
        return _run_board(scenario, cmd, tmp_path / f"board{count[0]}", timeout)

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
        args = ["--scenario", str(scenario)] + BOARD_ARGS + ["--workdir", str(workdir),
                                                            "--"] + [str(c) for c in cmd]
        self.child = pexpect.spawn(str(RUN_BOARD), args, dimensions=(rows, cols), timeout=5)

    def pump(self, seconds=0.2):
        import pexpect
        end = time.monotonic() + seconds
        while True:
            left = end - time.monotonic()
            if left <= 0:
                return
            try:
                data = self.child.read_nonblocking(65536, timeout=left)
            except pexpect.TIMEOUT:
                return
            except pexpect.EOF:
                return
            self.raw += data
            self.stream.feed(data)

    def send(self, keys):
        self.child.send(keys)

    def wait_exit(self, timeout=10):
        end = time.monotonic() + timeout
        while self.child.isalive() and time.monotonic() < end:
            self.pump(0.1)
        if self.child.isalive():
            return None
        self.pump(0.1)
        self.child.close()
        if self.child.signalstatus is not None:
            return 128 + self.child.signalstatus
        return self.child.exitstatus

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


# --------------------------------------------------------------- ground truth

def tolerance(truth, label):
    tol = truth.get("tolerance", {})
    prefix = re.sub(r"\d+$", "", label)
    return tol.get(prefix, tol.get("default", 0.05))


def check_loading(truth_loading, truth, rows):
    """Problems of the (label, value) rows against the truth's loadings; [] when all agree."""
    got = dict(rows)
    problems = []
    for label, want in truth_loading.items():
        if label not in got:
            problems.append(f"{label}: missing")
            continue
        tol = tolerance(truth, label)
        wants = want if isinstance(want, list) else [want]
        if not any(abs(got[label] - w) <= tol for w in wants):
            problems.append(f"{label}: got {got[label]}, want {want} +/- {tol}")
    return problems


@pytest.fixture(scope="session")
def record_binary():
    return program("KZM_RECORD_BINARY", "recorder")
