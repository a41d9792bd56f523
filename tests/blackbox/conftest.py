"""Black-box harness: runs the real binary on the simulated board (sim/run-board).

Environment:
  KZM_BINARY          the monitor binary (set by CTest)
  KZM_BUILD_DIR       build folder holding sim/ artifacts (default <repo>/build)
  KZM_GUEST_LIB       LIB:DIR, the accelerator library built for the binary's
                      architecture when it runs under an emulator (set by CTest)
"""
import bisect
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

from report_layout import BORDER, TITLE, expected_codes, layout_problems, split_report, values

REPO = Path(__file__).resolve().parents[2]
RUN_BOARD = REPO / "sim" / "run-board"
SCENARIOS = REPO / "sim" / "scenarios"
BUILD_DIR = Path(os.environ.get("KZM_BUILD_DIR", REPO / "build"))
SIM_BUILD = BUILD_DIR / "sim"
CANNOT_RUN = 77
# The binary runs under a user-mode emulator (a cross build): slower, so some
# timing margins widen.
EMULATED = bool(os.environ.get("KZM_GUEST_LIB"))
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


def board_clock_start(workdir):
    path = Path(workdir) / "clock"
    return int(path.read_text()) / 1000 if path.exists() else None


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


def _run_board(scenario, cmd, workdir, timeout=60, stall=None):
    """Runs cmd on the board; a hang is a run longer than `timeout` seconds, or
    with `stall`, one that writes nothing for that long (both stretched under
    emulation; None: no such bound)."""
    args = [str(RUN_BOARD), "--scenario", str(scenario)] + BOARD_ARGS + [
        "--workdir", str(workdir), "--"] + [str(c) for c in cmd]
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
    count = [0]

    def run(scenario, cmd, timeout=60, stall=None):
        count[0] += 1
        return _run_board(scenario, cmd, tmp_path / f"board{count[0]}", timeout, stall)

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
        """The exit status, or None if still running after `timeout` seconds
        (a hang bound, stretched under emulation)."""
        end = time.monotonic() + hang_bound(timeout)
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

# A truth "loading" value for a DSP core: the busy share the board's DSP clients
# really produced there, over the sampling window the figure covers.
CLIENTS = "clients"


def tolerance(truth, label):
    tol = truth.get("tolerance", {})
    prefix = re.sub(r"\d+$", "", label)
    return tol.get(prefix, tol.get("default", 0.05))


def check_loading(truth_loading, truth, rows):
    """Problems of the (label, value) rows against the truth's loadings; [] when all agree.

    A wanted value is a number, a list of acceptable numbers, or a Share; the
    truth's CLIENTS must first be made a Share by DspActivity.loading()."""
    got = dict(rows)
    problems = []
    for label, want in truth_loading.items():
        if label not in got:
            problems.append(f"{label}: missing")
            continue
        tol = tolerance(truth, label)
        if want == CLIENTS:
            problems.append(f"{label}: wants the clients' real share (DspActivity.loading)")
        elif isinstance(want, Share):
            if not want.accepts(got[label], tol):
                problems.append(f"{label}: got {got[label]}, want {want} +/- {tol}")
        elif not any(abs(got[label] - w) <= tol for w in (want if isinstance(want, list) else
                                                           [want])):
            problems.append(f"{label}: got {got[label]}, want {want} +/- {tol}")
    return problems


# ------------------------------------------------ what the DSP clients really did
#
# Each kzm_dsp_client of the board logs, as it happens, when it took its slot,
# set and cleared its running bits and ended (logs/dsp_busy_<i>.log, in
# CLOCK_MONOTONIC nanoseconds: time.monotonic() reads the same clock). On a
# loaded machine a client wakes late and keeps its bit set longer or shorter
# than its duty, so these logs, not the scenario's duty, say what a correct
# monitor shows.
#
# The monitor's DSP figure of a frame is the share of busy samples in the last
# sampling window completed before the frame: SamplesPerInterval samples, one
# delay's worth, taken only while it watches a live client (the sampler stops
# when the last one exits and, restarted, continues the interrupted window).
# Each sample's sleep overruns a little, much more on a loaded machine or under
# an emulator, so a window lasts from one delay to WINDOW_STRETCH delays of
# sampling (2.3 measured with three CPU hogs on two cores, under the emulator),
# or longer still where the clients' own wake-ups show the machine waking
# sleepers late: a sample takes SAMPLE_PERIOD_S, plus the time the machine
# takes to wake it (LATENCY_MARGIN times the clients' mean lateness), plus its
# own work. Exactly where a window lies is not known from outside.
WINDOW_STRETCH = 3.0
SAMPLE_PERIOD_S = 0.002  # the default 500 samples a second
SAMPLE_WORK_S = 0.00015 if EMULATED else 0.00005
LATENCY_MARGIN = 1.5
# A client is watched from its fifo message, written just before its "start".
START_LEAD_S = 0.01
# The monitor goes idle at the last client's exit; a frame this long after it
# shows exactly 0.0.
IDLE_SETTLE_S = 0.3
# Without frame times, the latest the monitor can have started sampling.
STARTUP_S = 1.0


class Intervals:
    """Disjoint sorted intervals, with their measure up to any point."""

    def __init__(self, spans):
        merged = []
        for a, b in sorted(spans):
            if b <= a:
                continue
            if merged and a <= merged[-1][1]:
                merged[-1][1] = max(merged[-1][1], b)
            else:
                merged.append([a, b])
        self.starts = [a for a, _ in merged]
        self.ends = [b for _, b in merged]
        self.before = [0.0]  # measure of the intervals before the k-th
        for a, b in merged[:-1]:
            self.before.append(self.before[-1] + (b - a))

    def upto(self, x):
        k = bisect.bisect_right(self.starts, x)
        return 0.0 if k == 0 else self.before[k - 1] + min(self.ends[k - 1], x) - self.starts[k - 1]

    def measure(self, a, b):
        return self.upto(b) - self.upto(a)

    def covers(self, x):
        k = bisect.bisect_right(self.starts, x)
        return k > 0 and x < self.ends[k - 1]

    def edges(self):
        """Every start and end, in order."""
        return sorted(self.starts + [b for b in self.ends if b != float("inf")])


class Share:
    """The figures a correct monitor may show for a DSP core in one frame: a
    share within [lo, hi] (None when no window can have completed), 0.0 as
    well when `zero` (no window completed yet, or one forced to 0.0 by a
    client's exit), or exactly 0.0 alone when `exact_zero` (the monitor idle)."""

    def __init__(self, lo=None, hi=None, zero=False, exact_zero=False):
        self.lo, self.hi, self.zero, self.exact_zero = lo, hi, zero, exact_zero

    def accepts(self, got, tol):
        if self.exact_zero or (self.zero and got == 0.0):
            return got == 0.0
        return self.lo is not None and self.lo - tol <= got <= self.hi + tol

    def definite(self, tol):
        """True when the figure must show the clients' load: a share well away from 0."""
        return not (self.exact_zero or self.zero) and self.lo is not None and self.lo > tol

    def __repr__(self):
        if self.exact_zero:
            return "exactly 0.0 (idle)"
        shown = "nothing" if self.lo is None else f"{self.lo:.1f}..{self.hi:.1f}"
        return shown + (" or 0.0" if self.zero else "")


class DspActivity:
    """What the board's DSP clients really did, read from their busy logs.

    started_by: the latest time (time.monotonic()) the monitor can have started
    sampling; by default STARTUP_S after COMMAND started."""

    def __init__(self, workdir, started_by=None):
        self.t0 = board_clock_start(workdir)
        self.started_by = started_by
        self.clients = []  # (start, end, died, cores, busy spans)
        late = []  # (when, how late) of each wake-up a client logged
        for path in sorted((Path(workdir) / "logs").glob("dsp_busy_*.log")):
            text = path.read_text()
            client = self._read(text)
            if client[0] is not None:  # it never took a slot
                self.clients.append(client)
            for line in text.splitlines():
                what, *times = line.split()
                if what in ("set", "clear") and len(times) == 2:
                    late.append((int(times[0]) / 1e9, max(0, int(times[0]) - int(times[1])) / 1e9))
        late.sort()
        self._late_at = [t for t, _ in late]
        self._late_sum = [0.0]
        for _, d in late:
            self._late_sum.append(self._late_sum[-1] + d)
        inf = float("inf")
        self.ends = sorted(end for _, end, _, _, _ in self.clients if end != inf)
        self.alive = Intervals([(start - START_LEAD_S, end)
                                for start, end, _, _, _ in self.clients])
        self._busy, self._sampled_busy, self._edges = {}, {}, {}
        # The sampler's clock: time spent watching a live client since COMMAND
        # started (the monitor cannot have sampled before).
        origin = self.t0 if self.t0 is not None else min(self.alive.starts, default=0.0)
        self.sampling = Intervals([(max(a, origin), b)
                                   for a, b in zip(self.alive.starts, self.alive.ends)])

    @staticmethod
    def _read(text):
        start, end, died, cores, busy, since = None, float("inf"), False, 0, [], None
        for line in text.splitlines():
            what, ns, *rest = line.split()
            t = int(ns) / 1e9
            if what == "start":
                start, cores = t, int(rest[2])
            elif what == "set":
                since = t
            elif what == "clear" and since is not None:
                busy.append((since, t))
                since = None
            elif what in ("exit", "die"):
                end, died = t, what == "die"
        if since is not None:  # bits left set by a death: its work ended with it
            busy.append((since, end))
        return start, end, died, cores, busy

    def busy(self, core):
        """The times when some client held a running bit on the core."""
        if core not in self._busy:
            self._busy[core] = Intervals([span for _, _, _, cores, busy in self.clients
                                          if cores >> core & 1 for span in busy])
        return self._busy[core]

    def share(self, core, t0, t1):
        """Busy percentage the clients really produced on the core over [t0, t1]."""
        return 100.0 * self.busy(core).measure(t0, t1) / (t1 - t0)

    def sampled(self, t):
        """The sampler's clock at time t."""
        return self.sampling.upto(t)

    def _sampled_busy_of(self, core):
        if core not in self._sampled_busy:
            b = self.busy(core)
            self._sampled_busy[core] = Intervals(
                [(self.sampled(a), self.sampled(e)) for a, e in zip(b.starts, b.ends)])
        return self._sampled_busy[core]

    def stretch(self, at, delay_s):
        """How many delays the windows completed shortly before `at` can have
        lasted: WINDOW_STRETCH, or more where the clients were woken late."""
        stretch, times, sums = WINDOW_STRETCH, self._late_at, self._late_sum
        for _ in range(8):
            # The worst mean lateness over a delay's span among the windows
            # that can be the last completed by `at`.
            worst = 0.0
            first = bisect.bisect_left(times, at - 2 * stretch * delay_s)
            last = bisect.bisect_right(times, at)
            j = first
            for i in range(first, last):
                j = max(j, i)
                while j < last and times[j] < times[i] + delay_s:
                    j += 1
                if j - i >= 5:
                    worst = max(worst, (sums[j] - sums[i]) / (j - i))
            wider = 1 + (LATENCY_MARGIN * worst + SAMPLE_WORK_S) / SAMPLE_PERIOD_S
            if wider <= stretch:
                break
            stretch = wider
        return stretch

    def expect(self, core, at, delay_s):
        """The Share a correct monitor shows for the core in a frame drawn at `at`
        with sampling windows of delay_s."""
        if not self.alive.covers(at):
            ended = [e for e in self.ends if e <= at]
            if not ended or at - ended[-1] >= IDLE_SETTLE_S:
                return Share(exact_zero=True)
        sig = self.sampled(at)
        longest = self.stretch(at, delay_s) * delay_s
        startup = max(0.0, (self.started_by if self.started_by is not None else
                            (self.t0 or 0.0) + STARTUP_S) - (self.t0 or 0.0))
        # No window completed yet, or a client's exit forced the figure to 0.0
        # until the next one completes.
        zero = sig < longest + startup or any(sig - self.sampled(e) < longest
                                              for e in self.ends if e <= at)
        busy = self._sampled_busy_of(core)
        edges = self._edges.setdefault(core, busy.edges())
        # A window [s, e] on the sampler's clock: delay_s <= e - s <= longest,
        # it ends by now (e <= sig), within one window of now (2e - s >= sig),
        # and starts after sampling did (s >= 0). Inside a cell of the busy
        # edges the share is a ratio of two linear functions of (s, e), so
        # its extremes over that polygon lie at the crossings of two of these
        # lines: a constraint's or an edge's, for either end of the window.
        near = edges[bisect.bisect_left(edges, sig - 2 * longest):bisect.bisect_right(edges, sig)]
        lines = ([(1, 0, x) for x in near] + [(0, 1, x) for x in near] +
                 [(-1, 1, delay_s), (-1, 1, longest), (0, 1, sig), (-1, 2, sig), (1, 0, 0.0)])
        eps = 1e-9
        shares = []
        for i, (a1, b1, c1) in enumerate(lines):
            for a2, b2, c2 in lines[i + 1:]:
                det = a1 * b2 - a2 * b1
                if det == 0:
                    continue
                s = (c1 * b2 - c2 * b1) / det
                e = (a1 * c2 - a2 * c1) / det
                if (delay_s - eps <= e - s <= longest + eps and e <= sig + eps and
                        2 * e - s >= sig - eps and s >= -eps):
                    shares.append(100.0 * busy.measure(s, e) / (e - s))
        if not shares:
            return Share(zero=zero)
        return Share(min(shares), max(shares), zero)

    def loading(self, truth_loading, at, delay_s):
        """truth_loading with each CLIENTS value made the Share of its core (the
        label's number) for a frame drawn at `at`."""
        return {label: self.expect(int(re.sub(r"^\D+", "", label)), at, delay_s)
                if want == CLIENTS else want for label, want in truth_loading.items()}


def dsp_busy_share(workdir, t0, t1, core):
    """The busy share (percent) the board's simulated DSP clients really produced
    on DSP core `core` between t0 and t1 (time.monotonic() seconds: CLOCK_MONOTONIC,
    the clock of the clients' logs). workdir is the board's folder (BoardRun.workdir,
    or KZM_SIM_WORKDIR on the board); its logs/dsp_busy_<i>.log are read."""
    return DspActivity(workdir).share(core, t0, t1)


def wall_to_monotonic(wall):
    """A CLOCK_REALTIME time (seconds, as time.time()) on the time.monotonic() clock."""
    return wall - (time.time() - time.monotonic())


# -------------------------------------------------------------- batch checks

CRASH_TEXT = ("Sanitizer", "runtime error", "Segmentation", "core dumped", "terminate called",
              "Aborted")


def well_formed(stdout, stderr, count=None):
    """The frames of a batch output, each checked; no crash text on stderr."""
    frames = split_report(stdout)
    assert frames and len(frames) == (count or len(frames)), len(frames)
    assert [i for i, f in enumerate(frames) if layout_problems(f)] == []
    assert [t for t in CRASH_TEXT if t in stderr] == [], stderr[-500:]
    return frames


def dsp0(frame):
    return dict(values(frame)["rows"])["DSP0"]


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


def growth(out):
    """Descriptors opened (positive) or closed (negative) between the snapshots."""
    diff = Counter(out["after"]["fds"])
    diff.subtract(out["before"]["fds"])
    return {k: v for k, v in diff.items() if v}


# ------------------------------------------------------- interactive sessions

CURSOR_UP = re.compile(rb"\x1b\[(\d+)A")
FULL_CODES = expected_codes(15, True, 4, 2)  # the "full" board once running: 40 lines
# Runs the monitor from a shell on the session's terminal, keeping the terminal
# settings from before and after (in folder $1).
WRAPPER = 'stty -g > "$1/before"; "$2" -d 200; echo "rc=$?"; stty -g > "$1/after"'
SHOW = b"\x1b[?25h"


def frames_done(raw):
    """Frames completed so far: each frame ends by moving the cursor back up."""
    return len(CURSOR_UP.findall(raw))


def wait_frames(s, n, timeout=15):
    """Waits for n frames; `timeout` is a hang bound, stretched under emulation."""
    end = time.monotonic() + hang_bound(timeout)
    while frames_done(s.raw) < n and time.monotonic() < end and s.child.isalive():
        s.pump(0.1)
    assert frames_done(s.raw) >= n, f"{frames_done(s.raw)} frames: {s.raw[-300:]!r}"


def lines(screen):
    return [line.rstrip() for line in screen.display]


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
    row = next(i for i, line in enumerate(scr) if line.startswith("rc="))
    return row


@pytest.fixture(scope="session")
def record_binary():
    return program("KZM_RECORD_BINARY", "recorder")
