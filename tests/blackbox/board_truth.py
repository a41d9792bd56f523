"""The board's ground truth for the black-box tests: what a scenario's truth
accepts for a figure, and what the simulated DSP clients really did, read
from their logs, as the Share a correct monitor may show."""
import bisect
import os
import re
import time
from itertools import accumulate, combinations
from pathlib import Path

# The binary runs under a user-mode emulator (a cross build): slower, so some
# timing margins widen.
EMULATED = bool(os.environ.get("KZM_GUEST_LIB"))


def board_clock_start(workdir):
    path = Path(workdir) / "clock"
    return int(path.read_text()) / 1000 if path.exists() else None


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
    got, problems = dict(rows), []
    for label, want in truth_loading.items():
        tol = tolerance(truth, label)
        if label not in got:
            problems.append(f"{label}: missing")
        elif want == CLIENTS:
            problems.append(f"{label}: wants the clients' real share (DspActivity.loading)")
        elif not (want.accepts(got[label], tol) if isinstance(want, Share) else
                  any(abs(got[label] - w) <= tol for w in (want if isinstance(want, list) else
                                                           [want]))):
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
        # The measure of the intervals before the k-th.
        self.before = list(accumulate((b - a for a, b in merged[:-1]), initial=0.0))

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
        self._late_sum = list(accumulate((d for _, d in late), initial=0.0))
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
            first = bisect.bisect_left(times, at - 2 * stretch * delay_s)
            last = bisect.bisect_right(times, at)
            spans = ((i, bisect.bisect_left(times, times[i] + delay_s, i, last))
                     for i in range(first, last))
            worst = max(((sums[j] - sums[i]) / (j - i) for i, j in spans if j - i >= 5),
                        default=0.0)
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
        for (a1, b1, c1), (a2, b2, c2) in combinations(lines, 2):
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


def wall_to_monotonic(wall):
    """A CLOCK_REALTIME time (seconds, as time.time()) on the time.monotonic() clock."""
    return wall - (time.time() - time.monotonic())
