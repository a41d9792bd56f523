#!/usr/bin/python3
"""Cost of the live page to the recorder on the simulated board.

    bench/live_page.py [--seconds N] [--delay MS] [--browsers K] [--build-dir DIR]

Runs kvt_zqp_record --listen 127.0.0.1:PORT --processes on the "full" board
and measures, from the host, its CPU time per second (user+sys of all its
threads) and its resident memory (VmRSS at the end, VmHWM) over N seconds
(default 30): first with no client, then with K headless Chromium browsers
(default 1) showing its page at /, which polls the history every interval.
Also prints the bytes of the page and of one poll. Needs root and chromium.
Not run by CTest.
"""
import argparse
import os
import shutil
import socket
import subprocess
import sys
import tempfile
import time
import urllib.request

REPO = os.path.dirname(os.path.dirname(os.path.realpath(__file__)))


def recorder_pid(port):
    """The recorder listening on port, as the host sees it."""
    for pid in filter(str.isdigit, os.listdir("/proc")):
        try:
            with open(f"/proc/{pid}/cmdline", "rb") as f:
                argv = f.read().split(b"\0")
        except OSError:
            continue
        if argv[0].endswith(b"kvt_zqp_record") and f"127.0.0.1:{port}".encode() in argv:
            return int(pid)
    return None


def usage(pid):
    """(CPU seconds, VmRSS KiB, VmHWM KiB) of pid."""
    with open(f"/proc/{pid}/stat") as f:
        fields = f.read().rsplit(")", 1)[1].split()
    with open(f"/proc/{pid}/status") as f:
        status = dict(line.split(":", 1) for line in f)
    return ((int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK"),
            int(status["VmRSS"].split()[0]), int(status["VmHWM"].split()[0]))


def measure(pid, seconds):
    cpu0, _, _ = usage(pid)
    time.sleep(seconds)
    cpu1, rss, hwm = usage(pid)
    return 100 * (cpu1 - cpu0) / seconds, rss / 1024, hwm / 1024


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--seconds", type=float, default=30)
    ap.add_argument("--delay", type=int, default=1000)
    ap.add_argument("--browsers", type=int, default=1)
    ap.add_argument("--build-dir", default=os.path.join(REPO, "build"))
    args = ap.parse_args()
    chromium = shutil.which("chromium")
    if chromium is None:
        sys.exit("needs chromium (Debian package chromium)")
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        port = s.getsockname()[1]
    build = os.path.abspath(args.build_dir)
    board = subprocess.Popen(
        [os.path.join(REPO, "sim", "run-board"), "--build-dir", build, "--",
         os.path.join(build, "kvt_zqp_record"), "--listen", f"127.0.0.1:{port}", "--processes",
         "-d", str(args.delay), "-t", str(int(2 * args.seconds + 20))],
        stdout=subprocess.DEVNULL, stdin=subprocess.DEVNULL)
    browsers = []
    try:
        deadline = time.monotonic() + 30
        while (pid := recorder_pid(port)) is None and time.monotonic() < deadline:
            time.sleep(0.1)
        if pid is None:
            sys.exit("the recorder did not start")
        time.sleep(5)  # past the start, a few records in the ring
        alone = measure(pid, args.seconds)
        base = f"http://127.0.0.1:{port}"
        page = len(urllib.request.urlopen(base + "/").read())
        since = urllib.request.urlopen(base + "/api/v1/history").read().split(b",")[2]
        poll = len(urllib.request.urlopen(
            f"{base}/api/v1/history?since={int(since.split(b':')[1]) - 1}").read())
        for _ in range(args.browsers):
            profile = tempfile.mkdtemp(prefix="kzm-chromium-")
            browsers.append((profile, subprocess.Popen(
                [chromium, "--headless", "--no-sandbox", "--disable-gpu",
                 "--remote-debugging-port=0", f"--user-data-dir={profile}", base + "/"],
                stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)))
        time.sleep(5)
        watched = measure(pid, args.seconds)
    finally:
        for profile, browser in browsers:
            browser.kill()
            browser.wait()
            shutil.rmtree(profile, ignore_errors=True)
        board.terminate()
        board.wait()
    print(f"kvt_zqp_record --listen --processes -d {args.delay} on the full board, "
          f"{args.seconds:.0f} s each")
    print(f"{'':24}{'CPU (% of one core)':>20}{'VmRSS (MiB)':>13}{'VmHWM (MiB)':>13}")
    for name, (cpu, rss, hwm) in (("no client", alone),
                                  (f"{args.browsers} browser(s) on /", watched)):
        print(f"{name:24}{cpu:>20.2f}{rss:>13.2f}{hwm:>13.2f}")
    print(f"page {page} bytes; one poll's body {poll} bytes")
    return 0


if __name__ == "__main__":
    sys.exit(main())
