#!/usr/bin/python3
"""Soak run: does the monitor's footprint stay flat over a long run?

    bench/soak.py [--minutes M (default 30)] [--hour] [--build-dir DIR] [--out DIR]
                  [--scenario NAME ...]

Runs the monitor in batch mode (-b -d 1000, stdout to <out>/frames-<scenario>.txt)
and beside it the recorder (-d 1000, CSV to <out>/record-<scenario>.csv) on one
simulated board per scenario (default dsp_churn and faults, all at once) for the
duration, and every 10 s samples, from the host, the resident memory (VmRSS),
open descriptors (/proc/<pid>/fd) and threads of both, and counts the frames
drawn so far; time 0 is the first frame. The recorder keeps no descriptor of an
ended client, so all its figures must stay flat. The board's PID namespace does
not hide the monitor from the host: its host pid is the process whose argv[0]
is the binary and whose environment names the board's folder.

Writes <out>/soak-<scenario>.csv (time_s, rss_kb, fds, threads, frames, then the
recorder's rss_kb, fds, threads) and one
plot <out>/soak.png (RSS, descriptors, threads over time, a line per scenario),
and prints per scenario and metric the first and last values and the
least-squares slope per hour. Boards are kept in <out>/board-<scenario> (logs).
--out defaults to $TMPDIR/kzm-soak; --hour is --minutes 60. It warns when the
monitor or a fake is older than its sources: fakes of an older tree can
misread the configuration the current sim/run-board writes.

dsp_churn's own clients all start within the first 6 s. To keep the DSP monitor
busy for the whole run, the script generates <out>/soak-dsp_churn.json from
sim/scenarios/dsp_churn.json: the same board, the first clients given a
lifetime, then a client every 10-20 s with a life of 2-6 s (a third of them
killed mid-work, every fourth joined 1 s later by a second client), so the
monitor keeps going idle and restarting, and also tracks two processes at once.
The monitor keeps every pidfd it opens for a client (never closed, by design):
one when the client's fifo event comes while another client is tracked, but
one per valid node when it comes to an idle monitor, whose rescan finds the
client's slot on every node and opens a pidfd each time. The script prints the
expected pidfd growth (clients that took a slot between the first and the last
sample, weighted so from the scenario's schedule) beside the pidfds counted in
/proc/<pid>/fd and the measured descriptor growth.

Needs the simulated board (root, or user namespaces; see sim/README.md) and
python3-matplotlib. Not run by CTest.
"""
import argparse
import csv
import glob
import json
import os
import random
import shutil
import subprocess
import sys
import tempfile
import time

REPO = os.path.dirname(os.path.dirname(os.path.realpath(__file__)))
PERIOD_S = 10
METRICS = ("rss_kb", "fds", "threads")
DSP_MAGIC = 0xAFAF3B8A40992FD3
# The monitor's -t runs past the last sample, so the last sample sees it alive.
TAIL_S = 20


def churn_scenario(duration_s, seed=7):
    with open(os.path.join(REPO, "sim", "scenarios", "dsp_churn.json")) as f:
        scen = json.load(f)
    scen.pop("truth", None)
    clients = scen["dsp"]["clients"]
    for c in clients:
        c.setdefault("lifetime_s", 4.0)  # dsp_c would otherwise live for the whole run
    rng = random.Random(seed)
    t, n = 15.0, 0
    while t < duration_s - 10:
        for extra in (0, 1) if n % 4 == 3 else (0,):
            clients.append({"name": f"soak_{n}_{extra}", "cores": rng.choice([[0], [1], [0, 1]]),
                            "duty": rng.randrange(20, 81, 10), "start_s": round(t + extra, 1),
                            "lifetime_s": round(rng.uniform(2, 6), 1),
                            "die": rng.random() < 1 / 3})
        n += 1
        t += rng.uniform(10, 20)
    scen["description"] = ("Soak variant of dsp_churn: DSP clients keep coming and going for "
                           f"{duration_s} s ({len(clients)} clients).")
    return scen


def pidfds_per_client(scen):
    """Pidfds the monitor opens per client: 1 if another client is alive when it
    starts (the monitor is sampling), else one per node with the right magic."""
    dsp = scen.get("dsp") or {}
    valid = sum(1 for n in dsp.get("nodes", []) if int(str(n.get("magic", DSP_MAGIC)), 0)
                == DSP_MAGIC)
    spans = [(c.get("start_s", 0), c.get("start_s", 0) + c.get("lifetime_s", float("inf")))
             for c in dsp.get("clients", [])]
    return [1 if any(j != i and a < s < b for j, (a, b) in enumerate(spans)) else valid
            for i, (s, _) in enumerate(spans)]


def status_field(pid, key):
    with open(f"/proc/{pid}/status") as f:
        for line in f:
            if line.startswith(key + ":"):
                return int(line.split()[1])
    raise OSError(f"no {key} for pid {pid}")


def fd_targets(pid):
    out = []
    for fd in os.listdir(f"/proc/{pid}/fd"):
        try:
            out.append(os.readlink(f"/proc/{pid}/fd/{fd}"))
        except OSError:
            pass  # closed meanwhile
    return out


def stale_build(build_dir):
    """Built files older than their sources: a monitor or fakes of an older tree
    under the current sim/run-board can disagree (a fake misreading its config)."""
    def newest(path):
        if os.path.isfile(path):
            return os.path.getmtime(path)
        return max(os.path.getmtime(os.path.join(d, f)) for d, _, files in os.walk(path)
                   for f in files)
    fakes = os.path.join(REPO, "sim", "fakes")
    pairs = [("kvt_zqp_monitor", os.path.join(REPO, "src")),
             ("sim/libypu.so.2", os.path.join(fakes, "ypu_lib.c")),
             ("sim/kzm_board_fs", os.path.join(fakes, "board_fs.c")),
             ("sim/kzm_dsp_client", os.path.join(fakes, "dsp_client.c")),
             ("sim/kzm_proc_holder", os.path.join(fakes, "proc_holder.c"))]
    return [b for b, src in pairs if os.path.exists(os.path.join(build_dir, b)) and
            os.path.getmtime(os.path.join(build_dir, b)) < newest(src)]


def find_monitor(binary, workdir):
    arg0, mark = binary.encode(), f"KZM_SIM_WORKDIR={workdir}".encode()
    for p in os.listdir("/proc"):
        if not p.isdigit():
            continue
        try:
            with open(f"/proc/{p}/cmdline", "rb") as f:
                cmd = f.read().split(b"\0")
            with open(f"/proc/{p}/environ", "rb") as f:
                env = f.read().split(b"\0")
        except OSError:
            continue
        if cmd[0] == arg0 and mark in env:
            return int(p)
    return None


class Board:
    """One scenario: its board, the monitor on it and the samples."""

    def __init__(self, name, args, binary, seconds):
        self.name = name
        self.workdir = os.path.join(args.out, f"board-{name}")
        shutil.rmtree(self.workdir, ignore_errors=True)
        scen = os.path.join(REPO, "sim", "scenarios", name + ".json")
        if name == "dsp_churn":
            scen = os.path.join(args.out, "soak-dsp_churn.json")
            with open(scen, "w") as f:
                json.dump(churn_scenario(args.minutes * 60), f, indent=1)
        elif os.sep in name or name.endswith(".json"):
            scen = os.path.abspath(name)
        with open(scen) as f:
            self.per_client = pidfds_per_client(json.load(f))
        self.frames_path = os.path.join(args.out, f"frames-{name}.txt")
        self.stderr_path = os.path.join(args.out, f"stderr-{name}.txt")
        self.recorder = os.path.join(args.build_dir, "kvt_zqp_record")
        record_path = os.path.join(args.out, f"record-{name}.csv")
        cmd = [os.path.join(REPO, "sim", "run-board"), "--scenario", scen, "--build-dir",
               args.build_dir, "--workdir", self.workdir, "--", "/bin/sh", "-c",
               '"$0" -d 1000 -t "$2" -o "$3" & exec "$1" -b -d 1000 -t "$2"', self.recorder,
               binary, str(seconds), record_path]
        with open(self.frames_path, "wb") as so, open(self.stderr_path, "wb") as se:
            self.proc = subprocess.Popen(cmd, stdin=subprocess.DEVNULL, stdout=so, stderr=se)
        self.pid = self.recorder_pid = None
        self.rows = []
        self.clients_first = self.clients_last = None  # indices of clients holding a slot
        self.fds_first = self.fds_last = None
        self.frames = 0
        self.frame_pos = 0
        self.ended_early = None
        self.csv = open(os.path.join(args.out, f"soak-{name}.csv"), "w", newline="")
        self.writer = csv.writer(self.csv)
        self.writer.writerow(("time_s",) + METRICS + ("frames",) +
                             tuple("recorder_" + m for m in METRICS))

    def count_frames(self):
        with open(self.frames_path, "rb") as f:
            f.seek(self.frame_pos)
            data = f.read()
        whole = data[:data.rfind(b"\n") + 1]  # a frame still being written counts next time
        self.frame_pos += len(whole)
        self.frames += sum(1 for ln in whole.split(b"\n") if ln.startswith(b"| Monitor "))
        return self.frames

    def client_reports(self):
        """Client index -> report path, for the clients that have taken a slot."""
        paths = glob.glob(os.path.join(self.workdir, "logs", "dsp_client_*.txt"))
        return {int(p.rsplit("_", 1)[1].split(".")[0]): p for p in paths}

    def sample(self, t):
        if self.ended_early is not None:
            return
        try:
            fds = fd_targets(self.pid)
            row = (round(t, 1), status_field(self.pid, "VmRSS"), len(fds),
                   status_field(self.pid, "Threads"), self.count_frames(),
                   status_field(self.recorder_pid, "VmRSS"), len(fd_targets(self.recorder_pid)),
                   status_field(self.recorder_pid, "Threads"))
        except OSError as e:
            self.ended_early = f"monitor gone at {t:.0f} s ({e}), run-board {self.proc.poll()}"
            return
        self.fds_first = self.fds_first or fds
        self.fds_last = fds
        self.rows.append(row)
        self.clients_last = set(self.client_reports())
        if self.clients_first is None:
            self.clients_first = self.clients_last
        self.writer.writerow(row)
        self.csv.flush()


def slope_per_hour(ts, ys):
    n = len(ts)
    mt, my = sum(ts) / n, sum(ys) / n
    var = sum((t - mt) ** 2 for t in ts)
    return 3600 * sum((t - mt) * (y - my) for t, y in zip(ts, ys)) / var if var else 0.0


def fd_kinds(targets):
    kinds = {}
    for t in targets:
        k = "pidfd" if "pidfd" in t else t.split(":")[0] if ":" in t else t
        kinds[k] = kinds.get(k, 0) + 1
    return kinds


def report(b, seconds):
    print(f"\n== {b.name}: {len(b.rows)} samples, monitor host pid {b.pid}, run-board exit "
          f"{b.proc.returncode}, {b.count_frames()} frames drawn "
          f"(-t {seconds}: {seconds} due)")
    if b.ended_early:
        print(f"   SUSPICIOUS: {b.ended_early}")
    if len(b.rows) < 2:
        return
    ts = [r[0] for r in b.rows]
    for who, offset in (("monitor", 1), ("recorder", 2 + len(METRICS))):
        for i, m in enumerate(METRICS, offset):
            ys = [r[i] for r in b.rows]
            print(f"   {who:8} {m:8} first {ys[0]:>7}  last {ys[-1]:>7}  min {min(ys):>7}  "
                  f"max {max(ys):>7}  slope {slope_per_hour(ts, ys):+9.2f}/h")
            if who == "recorder" and m != "rss_kb" and ys[-1] > ys[0] + 2:
                print(f"   SUSPICIOUS: the recorder's {m} grew")
    first, last = fd_kinds(b.fds_first), fd_kinds(b.fds_last)
    new = b.clients_last - b.clients_first
    expected = sum(b.per_client[i] for i in new)
    pidfd_growth = last.get("pidfd", 0) - first.get("pidfd", 0)
    print(f"   DSP clients that took a slot: {len(b.clients_first)} by the first sample, "
          f"{len(new)} more by the last; expected pidfd growth {expected:+d} "
          f"({sum(b.per_client[i] == 1 for i in new)} joined a tracked client: 1 each; "
          f"the others came to an idle monitor: one per valid node)")
    print(f"   measured: pidfds {first.get('pidfd', 0)} -> {last.get('pidfd', 0)} "
          f"({pidfd_growth:+d}), all fds "
          f"{b.rows[0][2]} -> {b.rows[-1][2]} ({b.rows[-1][2] - b.rows[0][2]:+d})")
    changed = sorted(k for k in set(first) | set(last)
                     if k != "pidfd" and first.get(k, 0) != last.get(k, 0))
    print("   other fds that changed, first -> last: " + (", ".join(
        f"{k} {first.get(k, 0)}->{last.get(k, 0)}" for k in changed) or "none"))
    # Node and lock descriptors come and go with sampling; one of each is all
    # the monitor may hold.
    grown = [k for k in changed if last.get(k, 0) > max(first.get(k, 0), 1)]
    if grown or pidfd_growth != expected:
        print(f"   SUSPICIOUS: pidfds {pidfd_growth:+d} for {expected:+d} expected; held more "
              f"than once: {', '.join(grown) or 'none'}")
    slots = []
    for path in b.client_reports().values():
        with open(path) as f:
            slots.append(int(f.read().split()[1]))
    if slots:
        print(f"   DSP slots taken: highest {max(slots)} (freed slots are taken again)")
    with open(b.stderr_path, errors="replace") as f:
        err = [ln.rstrip() for ln in f if ln.strip()]
    print(f"   stderr: {len(err)} lines" + (f", last: {err[-1]}" if err else ""))


def plot(boards, path):
    import matplotlib
    matplotlib.use("Agg")
    import matplotlib.pyplot as plt
    fig, axes = plt.subplots(3, 1, figsize=(10, 9), sharex=True)
    titles = ("resident memory (VmRSS, kB)", "open descriptors", "threads")
    for ax, (i, m), title in zip(axes, enumerate(METRICS, 1), titles):
        for b in boards:
            ax.plot([r[0] / 60 for r in b.rows], [r[i] for r in b.rows], label=b.name,
                    drawstyle="steps-post" if m != "rss_kb" else "default")
        ax.set_title(title)
        ax.grid(True, alpha=0.3)
        ax.legend(loc="upper left")
    axes[-1].set_xlabel("minutes since the first frame")
    fig.suptitle("kvt_zqp_monitor soak on the simulated board (-b -d 1000)")
    fig.tight_layout()
    fig.savefig(path, dpi=110)


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("--minutes", type=float, default=30)
    ap.add_argument("--hour", action="store_true", help="run for 60 minutes")
    ap.add_argument("--build-dir", default=os.path.join(REPO, "build"))
    ap.add_argument("--out", default=os.path.join(tempfile.gettempdir(), "kzm-soak"))
    ap.add_argument("--scenario", nargs="+", default=["dsp_churn", "faults"])
    args = ap.parse_args()
    if args.hour:
        args.minutes = 60
    args.out = os.path.abspath(args.out)
    args.build_dir = os.path.abspath(args.build_dir)
    os.makedirs(args.out, exist_ok=True)
    binary = os.path.join(args.build_dir, "kvt_zqp_monitor")
    if not os.access(binary, os.X_OK):
        sys.exit(f"soak: no {binary}: build first or pass --build-dir")
    stale = stale_build(args.build_dir)
    if stale:
        print(f"soak: warning: older than their sources in {args.build_dir}: "
              f"{', '.join(stale)}", flush=True)
    seconds = int(args.minutes * 60) + TAIL_S
    boards = [Board(name, args, binary, seconds) for name in args.scenario]
    try:
        deadline = time.monotonic() + 60
        while any(b.pid is None or b.recorder_pid is None for b in boards):
            for b in boards:
                if b.pid is None and b.proc.poll() is not None:
                    sys.exit(f"soak: run-board for {b.name} ended ({b.proc.returncode}) before "
                             f"the monitor was seen; see {b.stderr_path}")
                b.pid = b.pid or find_monitor(binary, b.workdir)
                b.recorder_pid = b.recorder_pid or find_monitor(b.recorder, b.workdir)
            if time.monotonic() > deadline:
                sys.exit("soak: the monitor did not appear within 60 s")
            time.sleep(0.1)
        # Time 0 is the first frame: every monitor has been built by then, so
        # start-up descriptors and threads do not count as growth.
        while any(b.count_frames() == 0 for b in boards):
            if time.monotonic() > deadline:
                sys.exit("soak: no frame within 60 s")
            time.sleep(0.1)
        t0 = time.monotonic()
        print(f"soak: {args.minutes:g} min, scenarios {', '.join(args.scenario)}, pids "
              f"{', '.join(str(b.pid) for b in boards)}, out {args.out}", flush=True)
        k = 0
        while k * PERIOD_S <= args.minutes * 60:
            time.sleep(max(0.0, t0 + k * PERIOD_S - time.monotonic()))
            for b in boards:
                b.sample(time.monotonic() - t0)
            k += 1
        for b in boards:
            try:
                b.proc.wait(timeout=TAIL_S + 60)
            except subprocess.TimeoutExpired:
                b.ended_early = b.ended_early or "run-board still running after -t elapsed"
    finally:
        for b in boards:
            if b.proc.poll() is None:
                b.proc.terminate()  # run-board passes it to the monitor and tears down
                b.proc.wait(timeout=30)
            b.csv.close()
    for b in boards:
        report(b, seconds)
    plot(boards, os.path.join(args.out, "soak.png"))
    print(f"\nplot: {os.path.join(args.out, 'soak.png')}")
    return 1 if any(b.ended_early or b.proc.returncode for b in boards) else 0


if __name__ == "__main__":
    sys.exit(main())
