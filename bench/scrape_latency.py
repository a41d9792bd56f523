#!/usr/bin/python3
"""How fast the recorder's /metrics answers, and what scraping costs, on the simulated board.

    bench/scrape_latency.py [--seconds S] [--scrapers N] [--rate HZ] [--build-dir DIR]
                            [--scenario NAME] [--json FILE]

Inside one board run (scenario `full` by default), `kvt_zqp_monitor -b -d 1000`
(output to /dev/null) and `kvt_zqp_record -d 1000 --listen 127.0.0.1:0 -v`
run beside each other for the whole measurement, in three phases:

- idle: S seconds (default 60) with no scraper;
- scraped: S seconds with N scrapers (default 20), each with one kept-alive
  connection, scraping /metrics at HZ (default 10) on a fixed schedule (the
  next request is due 1/HZ after the previous one was due, not after its
  answer; the scrapers' schedules are spread evenly over the period), with
  Prometheus's Accept header (OpenMetrics preferred);
- held: 200 more connections held open from 127.0.0.2 (100 idle, 100 having
  sent half a request line, "GET /metr"), of which the recorder takes the 32
  it allows one address, while one scraper scrapes at HZ for 10 s.

A scrape's latency runs from sending the request to having read the whole
body; it fails on a status other than 200, an exception (the connection is
then opened again) or a body not ending in "# EOF\\n". Reports per phase the
scrapes, failures, latency p50/p99/max, and for each program its CPU (user+sys
from /proc/<pid>/stat, % of one core over the phase) and VmRSS at the phase's
end. The scrapers are Python threads: their own delays are part of the
latencies. Needs root (see sim/README.md). Not run by CTest.
"""
import argparse
import json
import os
import re
import sys

from on_board import run_on_board

REPO = os.path.dirname(os.path.dirname(os.path.realpath(__file__)))
# What -v says after the settings on a run that goes well.
EXPECTED = re.compile(r"(Start open|Open) ypu core \d+( success)?$|signal 15: recording ends$")

INSIDE = r"""
import http.client, json, os, re, signal, socket, subprocess, sys, threading, time
sys.path.insert(0, sys.argv.pop(1))  # bench/, for measure.py's /proc readers
from measure import proc_cpu_s, proc_status
monitor, record, seconds, scrapers, rate, out = sys.argv[1:7]
seconds, scrapers, rate = float(seconds), int(scrapers), float(rate)
tmp = os.path.dirname(out)
ACCEPT = ("application/openmetrics-text;version=1.0.0,application/openmetrics-text;version=0.0.1;"
          "q=0.75,text/plain;version=0.0.4;q=0.5,*/*;q=0.1")

def start(cmd, name):
    err = open(os.path.join(tmp, name + ".err"), "w")
    return subprocess.Popen(cmd, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=err)

procs = {"monitor": start([monitor, "-b", "-d", "1000"], "monitor"),
         "recorder": start([record, "-d", "1000", "--listen", "127.0.0.1:0", "-v"], "recorder")}
port, deadline = None, time.monotonic() + 10
while port is None and time.monotonic() < deadline and procs["recorder"].poll() is None:
    with open(os.path.join(tmp, "recorder.err")) as f:
        m = re.search(r"listening: http://127\.0\.0\.1:(\d+)/metrics", f.read())
    if m:
        port = int(m.group(1))
    else:
        time.sleep(0.05)
if port is None:
    sys.exit("no 'listening:' line from the recorder")

def sample():
    return time.monotonic(), {name: (proc_cpu_s(p.pid), proc_status(p.pid, "VmRSS"))
                              for name, p in procs.items()}

def scraper(t0, count, lat, fails):
    conn = None
    for k in range(count):
        time.sleep(max(0.0, t0 + k / rate - time.monotonic()))
        t = time.monotonic()
        try:
            conn = conn or http.client.HTTPConnection("127.0.0.1", port, timeout=5)
            conn.request("GET", "/metrics", headers={"Accept": ACCEPT})
            r = conn.getresponse()
            body = r.read()
            lat.append(time.monotonic() - t)
            if r.status != 200 or not body.endswith(b"# EOF\n"):
                fails.append(f"status {r.status}, {len(body)} bytes")
        except Exception as e:
            lat.append(time.monotonic() - t)
            fails.append(repr(e))
            if conn:
                conn.close()
            conn = None
    if conn:
        conn.close()

def phase(name, duration, n):
    lat, fails = [], []
    t0, s0 = sample()
    threads = [threading.Thread(target=scraper, args=(t0 + i / (rate * n), round(duration * rate), lat, fails))
               for i in range(n)]
    for th in threads:
        th.start()
    time.sleep(max(0.0, t0 + duration - time.monotonic()))
    for th in threads:
        th.join()
    t1, s1 = sample()
    progs = {k: {"cpu_percent": 100 * (s1[k][0] - s0[k][0]) / (t1 - t0), "rss_kib": s1[k][1]}
             for k in procs}
    return {"phase": name, "seconds": t1 - t0, "scrapes": len(lat), "failed": len(fails),
            "failures": fails[:5], "latencies": lat, "programs": progs}

time.sleep(2)  # the first record is out and both programs have settled
phases = [phase("idle", seconds, 0), phase("scraped", seconds, scrapers)]
held = [socket.create_connection(("127.0.0.1", port), source_address=("127.0.0.2", 0))
        for _ in range(200)]
for s in held[100:]:
    s.sendall(b"GET /metr")
phases.append(phase("held", 10.0, 1))
closed = 0
for s in held:
    try:
        closed += s.recv(1, socket.MSG_PEEK | socket.MSG_DONTWAIT) == b""
    except BlockingIOError:
        pass
    except OSError:
        closed += 1
    s.close()
phases[-1]["held_closed_by_server"] = closed
for p in procs.values():
    p.send_signal(signal.SIGTERM)
status = {k: p.wait(timeout=10) for k, p in procs.items()}
err = {k: open(os.path.join(tmp, k + ".err")).read() for k in procs}
with open(out, "w") as f:
    json.dump({"phases": phases, "exit": status, "stderr": err}, f)
"""


def percentile(sorted_values, q):
    if not sorted_values:
        return None
    return sorted_values[max(0, -(-len(sorted_values) * q // 100) - 1)]


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--seconds", type=float, default=60.0)
    parser.add_argument("--scrapers", type=int, default=20)
    parser.add_argument("--rate", type=float, default=10.0)
    parser.add_argument("--build-dir", default=os.path.join(REPO, "build"))
    parser.add_argument("--scenario", default="full")
    parser.add_argument("--json", metavar="FILE")
    args = parser.parse_args()
    build = os.path.realpath(args.build_dir)
    result = run_on_board(INSIDE, build, args.scenario,
                          [os.path.dirname(os.path.realpath(__file__)),
                           os.path.join(build, "kvt_zqp_monitor"),
                           os.path.join(build, "kvt_zqp_record"), args.seconds, args.scrapers,
                           args.rate])
    figures = {"scenario": args.scenario, "scrapers": args.scrapers, "rate_hz": args.rate,
               "exit": result["exit"], "phases": {}}
    print(f"scenario {args.scenario}, {args.scrapers} scrapers at {args.rate:g} Hz,"
          f" monitor -b -d 1000 and recorder -d 1000 --listen")
    print(f"{'phase':8} {'s':>5} {'scrapes':>7} {'failed':>6} {'p50 ms':>7} {'p99 ms':>7}"
          f" {'max ms':>7} | {'monitor CPU %':>13} {'RSS KiB':>7} | {'recorder CPU %':>14}"
          f" {'RSS KiB':>7}")
    for p in result["phases"]:
        lat = sorted(x * 1000 for x in p["latencies"])
        row = {"seconds": round(p["seconds"], 2), "scrapes": p["scrapes"], "failed": p["failed"],
               "p50_ms": percentile(lat, 50), "p99_ms": percentile(lat, 99),
               "max_ms": lat[-1] if lat else None, "programs": p["programs"]}
        if "held_closed_by_server" in p:
            row["held_closed_by_server"] = p["held_closed_by_server"]
        figures["phases"][p["phase"]] = row
        ms = " ".join(f"{row[k]:7.2f}" if lat else f"{'-':>7}" for k in ("p50_ms", "p99_ms", "max_ms"))
        mon, rec = p["programs"]["monitor"], p["programs"]["recorder"]
        print(f"{p['phase']:8} {p['seconds']:5.1f} {p['scrapes']:7} {p['failed']:6} {ms} |"
              f" {mon['cpu_percent']:13.2f} {mon['rss_kib']:7} | {rec['cpu_percent']:14.2f}"
              f" {rec['rss_kib']:7}")
        for why in p["failures"]:
            print(f"  {p['phase']}: failed scrape: {why}")
    held = figures["phases"]["held"]["held_closed_by_server"]
    print(f"held connections closed by the recorder by the end: {held} of 200")
    exits = {k: f"signal {-v}" if v < 0 else f"status {v}" for k, v in result["exit"].items()}
    print(f"after SIGTERM: monitor {exits['monitor']}, recorder {exits['recorder']}")
    err = result["stderr"]
    after = err["recorder"].split("/metrics\n", 1)[-1]  # the settings come before
    for name, text in (("monitor", err["monitor"]), ("recorder", after)):
        for line in text.splitlines():
            if not EXPECTED.match(line):
                print(f"{name} stderr: {line}")
    if args.json:
        with open(args.json, "w") as f:
            json.dump(figures, f, indent=2)
    return 0


if __name__ == "__main__":
    sys.exit(main())
