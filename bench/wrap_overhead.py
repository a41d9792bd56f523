#!/usr/bin/python3
"""What wrapping a command in kvt_zqp_record costs it, on the simulated board.

    bench/wrap_overhead.py [--runs N] [--seconds S] [--build-dir DIR] [--scenario NAME]

Inside one board run, a command of known length (a DSP client busy 30 % of
every 10 ms for S seconds, default 3) is run N times alone and N times as
`kvt_zqp_record -d 500 -- COMMAND`, alternately, and the wall time of each is
taken around it (fork to exit, as a shell's `time` would), together with the
recorder's own figure for the command (`wall_seconds` of --summary). Reports
medians and the extra time per run: the recorder's start (monitors, the DDR
tool, the first reading) before the command and its end (last record,
summary, the tool's stop) after it. Needs root (see sim/README.md). Not run
by CTest.
"""
import argparse
import json
import os
import statistics
import sys

from on_board import run_on_board

REPO = os.path.dirname(os.path.dirname(os.path.realpath(__file__)))

INSIDE = r"""
import json, os, subprocess, sys, time
record, client, runs, ms, out = sys.argv[1], sys.argv[2], int(sys.argv[3]), sys.argv[4], sys.argv[5]
command = [client, "--nodes", "2", "--cores", "0", "--duty", "30", "--lifetime-ms", ms]
rows = []
for i in range(runs):
    t = time.monotonic()
    subprocess.run(command, check=True)
    bare = time.monotonic() - t
    summary = os.path.join(os.path.dirname(out), "summary.json")
    t = time.monotonic()
    subprocess.run([record, "-d", "500", "--summary", summary, "--"] + command, check=True,
                   stderr=subprocess.DEVNULL)
    wrapped = time.monotonic() - t
    with open(summary) as f:
        inner = json.load(f)["wall_seconds"]
    rows.append([bare, wrapped, inner])
with open(out, "w") as f:
    json.dump(rows, f)
"""


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--runs", type=int, default=10)
    parser.add_argument("--seconds", type=float, default=3.0)
    parser.add_argument("--build-dir", default=os.path.join(REPO, "build"))
    parser.add_argument("--scenario", default="dsp_churn")
    args = parser.parse_args()
    build = os.path.realpath(args.build_dir)
    rows = run_on_board(INSIDE, build, args.scenario,
                        [os.path.join(build, "kvt_zqp_record"),
                         os.path.join(build, "sim", "kzm_dsp_client"), args.runs,
                         int(args.seconds * 1000)])
    bare, wrapped, inner = ([r[i] for r in rows] for i in range(3))
    extra = [w - b for b, w, _ in rows]
    print(f"scenario {args.scenario}, command of {args.seconds:.1f} s, {len(rows)} runs each")
    print(f"alone:             median {statistics.median(bare):.3f} s"
          f" [{min(bare):.3f}, {max(bare):.3f}]")
    print(f"in kvt_zqp_record: median {statistics.median(wrapped):.3f} s"
          f" [{min(wrapped):.3f}, {max(wrapped):.3f}]")
    print(f"the recorder's own wall time of the command: median {statistics.median(inner):.3f} s")
    print(f"extra per run: median {statistics.median(extra) * 1000:.0f} ms,"
          f" max {max(extra) * 1000:.0f} ms (start and end of the recorder)")
    return 0


if __name__ == "__main__":
    sys.exit(main())
