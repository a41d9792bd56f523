#!/usr/bin/python3
"""Accelerated long run: thousands of DSP client lifetimes through the monitor and
the recorder side by side.

    bench/long_run.py [--lifetimes N (default 10000)] [--build-dir DIR]

On a simulated board with one DSP core, sim/stress_driver's dsp-kill loop starts
N clients one after another, each killed mid-work once the monitor (batch,
-d 100) watches it; the recorder (-d 100, JSON lines) runs beside and must
watch every tenth one before it dies. Both start under a soft limit of 1024
open descriptors, which they raise to the hard one. Every 500 clients the
footprint of both is sampled: descriptors, threads, VmRSS.

Prints, per program and metric, the first and last sample and the
least-squares slope per 1,000 lifetimes; the monitor's descriptors at the end
and the limit it ran under; the DSP0 figures of the last frames and records,
which end with a client busy for a second and then killed (100 then 0); and
the wall time. Needs root (see sim/README.md). Not run by CTest; its short
form is test_thousand_killed_clients_beside_the_recorder.
"""
import argparse
import json
import os
import re
import subprocess
import sys
import tempfile
import time
from pathlib import Path

REPO = Path(__file__).resolve().parents[1]


def slope(xs, ys):
    mx, my = sum(xs) / len(xs), sum(ys) / len(ys)
    den = sum((x - mx) ** 2 for x in xs)
    return sum((x - mx) * (y - my) for x, y in zip(xs, ys)) / den if den else 0.0


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--lifetimes", type=int, default=10000)
    ap.add_argument("--build-dir", default=str(REPO / "build"))
    args = ap.parse_args()
    build = Path(args.build_dir).resolve()
    with tempfile.TemporaryDirectory() as tmp:
        scenario = json.loads((REPO / "sim/scenarios/bare.json").read_text())
        scenario.update(dev=["vdsp0"], dsp={"nodes": [{}], "clients": []})
        board = Path(tmp) / "board.json"
        board.write_text(json.dumps(scenario))
        cmd = [str(REPO / "sim/run-board"), "--scenario", str(board), "--build-dir", str(build),
               "--", "/usr/bin/python3", str(REPO / "sim/stress_driver"), "dsp-kill",
               "--count", str(args.lifetimes), "--client", str(build / "sim/kzm_dsp_client"),
               "--recorder", str(build / "kvt_zqp_record"), "--nofile", "1024",
               "--sample-every", "500", "--", str(build / "kvt_zqp_monitor"), "-b", "-d", "100",
               "-n", "100000000"]
        start = time.monotonic()
        run = subprocess.run(cmd, capture_output=True, text=True)
        took = time.monotonic() - start
    if run.returncode != 0:
        sys.exit(f"board run failed ({run.returncode}): {run.stderr[-2000:]}")
    out = json.loads(run.stdout)
    if "error" in out:
        sys.exit(f"driver: {out['error']}")
    samples = out["samples"]
    clients = [s["clients"] for s in samples]
    print(f"{out['killed']} lifetimes in {took:.0f} s; footprint every 500 clients")
    print(f"{'':10} {'metric':8} {'first':>8} {'last':>8} {'slope per 1,000':>16}")
    for name in ("monitor", "recorder"):
        for metric in ("fds", "threads", "rss_kb"):
            ys = [s[name][metric] for s in samples]
            per_k = slope(clients, ys) * 1000
            print(f"{name:10} {metric:8} {ys[0]:8} {ys[-1]:8} {per_k:16.2f}")
    print(f"monitor at the end: {len(out['after']['fds'])} open descriptors, soft limit "
          f"{out['after']['nofile']} (started under 1024)")
    frames = re.findall(r"^\| +DSP0 +([\d.]+)", out["stdout"], re.M)[-15:]
    records = [json.loads(line)["loading"][0]["percent"]
               for line in out["recorder"]["stdout"].splitlines()[-15:]]
    print("monitor DSP0, last frames: " + " ".join(frames))
    print("recorder DSP0, last records: " + " ".join(str(r) for r in records))


if __name__ == "__main__":
    main()
