#!/usr/bin/python3
"""Cost of the monitor on the simulated board ("full" scenario, default options).

    bench/measure.py [--seconds N] [--quits K] [--build-dir DIR] [--scenario NAME]
    bench/measure.py [--with-record] [--with-capture] [--seconds N] [--build-dir DIR] [--scenario NAME]

Runs the binary interactively in a pseudo-terminal (100x50) on the board and
reports, as seen from inside the board's PID namespace:
  - CPU time (user+sys of all its threads, /proc/<pid>/stat) per second of run
    time, measured over N seconds after a one-second warm-up;
  - peak resident memory (VmHWM of /proc/<pid>/status);
  - time from writing "q" to the terminal to the process's exit (K more short
    runs add samples).
With --with-record, kvt_zqp_record (default options, CSV to a file) runs on
the same board at the same time as the monitor, and the CPU time per second
and peak RSS of both are measured over the same N seconds (default 30).
With --with-capture, kvt_zqp_capture (default options, to a file) runs there
too, and its file's growth per minute is given.
The floor program of the build (bench/kzm_floor: the monitor's thirteen
threads asleep, linked the same way) runs beside them, and each program's
peak RSS is also given as a multiple of the floor's.
Needs root (see sim/README.md). Not run by CTest.
"""
import argparse
import fcntl
import json
import os
import pty
import signal
import struct
import subprocess
import sys
import tempfile
import termios
import threading
import time

REPO = os.path.dirname(os.path.dirname(os.path.realpath(__file__)))


def proc_cpu_s(pid):
    with open(f"/proc/{pid}/stat") as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def proc_status(pid, key):
    with open(f"/proc/{pid}/status") as f:
        for line in f:
            if line.startswith(key + ":"):
                return int(line.split()[1])
    return None


def one_run(binary, seconds, measure_cpu, companions=(), floor=None):
    """companions: (prefix, program, extra arguments) run beside the monitor,
    each writing to a file of its own, measured as the monitor is."""
    pid, fd = pty.fork()
    if pid == 0:
        os.execv(binary, [binary])
    fcntl.ioctl(fd, termios.TIOCSWINSZ, struct.pack("HHHH", 50, 100, 0, 0))
    out = bytearray()

    def drain():
        while True:
            try:
                data = os.read(fd, 65536)
            except OSError:
                return
            if not data:
                return
            out.extend(data)

    threading.Thread(target=drain, daemon=True).start()
    result = {}
    running = []
    for prefix, program, extra in companions:
        fd_out, path = tempfile.mkstemp()
        os.close(fd_out)
        running.append((prefix, path, subprocess.Popen([program, "-o", path] + extra,
                                                        stdin=subprocess.DEVNULL)))
    low = subprocess.Popen([floor], stdin=subprocess.DEVNULL) if floor else None
    time.sleep(1.0)  # warm-up: monitors started, first frame drawn
    if measure_cpu:
        c0, t0 = proc_cpu_s(pid), time.monotonic()
        before = [proc_cpu_s(p.pid) for _, _, p in running]
        time.sleep(seconds)
        c1, t1 = proc_cpu_s(pid), time.monotonic()
        result["cpu_percent_of_one_core"] = 100.0 * (c1 - c0) / (t1 - t0)
        for (prefix, _, p), b in zip(running, before):
            result[prefix + "cpu_percent_of_one_core"] = 100.0 * (proc_cpu_s(p.pid) - b) / (t1 - t0)
        result["wall_s"] = t1 - t0
        result["frames"] = bytes(out).count(b"| Monitor ")
    else:
        time.sleep(seconds)
    result["vm_hwm_kib"] = proc_status(pid, "VmHWM")
    result["threads"] = proc_status(pid, "Threads")
    if low:
        result["floor_vm_hwm_kib"] = proc_status(low.pid, "VmHWM")
        result["floor_threads"] = proc_status(low.pid, "Threads")
        low.send_signal(signal.SIGTERM)
        low.wait()
    for prefix, path, p in running:
        result[prefix + "vm_hwm_kib"] = proc_status(p.pid, "VmHWM")
        result[prefix + "threads"] = proc_status(p.pid, "Threads")
        p.send_signal(signal.SIGTERM)
        result[prefix + "exit_status"] = p.wait()
        result[prefix + "bytes"] = os.path.getsize(path)
        with open(path, "rb") as f:
            result[prefix + "lines"] = f.read().count(b"\n")
        os.unlink(path)
    q = time.monotonic()
    os.write(fd, b"q")
    _, status = os.waitpid(pid, 0)
    result["quit_ms"] = 1000.0 * (time.monotonic() - q)
    result["exit_status"] = os.waitstatus_to_exitcode(status)
    os.close(fd)
    return result


def inner(args):
    companions = []
    if args.recorder:
        companions.append(("record_", args.recorder, []))
    if args.capture:
        companions.append(("capture_", args.capture, []))
    if companions:
        print(json.dumps(one_run(args.binary, args.seconds, True, companions, args.floor)))
        return
    main = one_run(args.binary, args.seconds, True, floor=args.floor)
    quits = [main["quit_ms"]] + [one_run(args.binary, 1.0, False)["quit_ms"]
                                 for _ in range(args.quits)]
    main["quit_ms_all"] = [round(q, 1) for q in quits]
    print(json.dumps(main))


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--seconds", type=float)
    ap.add_argument("--with-record", action="store_true",
                    help="run kvt_zqp_record beside the monitor and measure both")
    ap.add_argument("--with-capture", action="store_true",
                    help="run kvt_zqp_capture beside the monitor and measure both")
    ap.add_argument("--recorder")
    ap.add_argument("--capture")
    ap.add_argument("--quits", type=int, default=4)
    ap.add_argument("--scenario", default="full")
    ap.add_argument("--build-dir", default=os.path.join(REPO, "build"))
    ap.add_argument("--inner", action="store_true")
    ap.add_argument("--binary")
    ap.add_argument("--floor")
    args = ap.parse_args()
    if args.seconds is None:
        args.seconds = 30 if args.with_record or args.with_capture else 20
    if args.inner:
        return inner(args)
    binary = args.binary or os.path.join(os.path.abspath(args.build_dir), "kvt_zqp_monitor")
    cmd = [os.path.join(REPO, "sim", "run-board"), "--scenario", args.scenario,
           "--build-dir", args.build_dir, "--", "/usr/bin/python3", os.path.realpath(__file__),
           "--inner", "--binary", binary, "--seconds", str(args.seconds),
           "--quits", str(args.quits)]
    floor = os.path.join(os.path.abspath(args.build_dir), "bench", "kzm_floor")
    if os.path.exists(floor):
        cmd += ["--floor", floor]
    if args.with_record:
        cmd += ["--recorder", os.path.join(os.path.dirname(binary), "kvt_zqp_record")]
    if args.with_capture:
        cmd += ["--capture", os.path.join(os.path.dirname(binary), "kvt_zqp_capture")]
    r = subprocess.run(cmd, capture_output=True, text=True, stdin=subprocess.DEVNULL)
    if r.returncode != 0:
        sys.stderr.write(r.stderr)
        return r.returncode
    res = json.loads(r.stdout.strip().splitlines()[-1])
    if args.with_record or args.with_capture:
        print(f"scenario {args.scenario}, default options, all on one board at once, "
              f"{res['wall_s']:.1f} s measured")
        print(f"{'':16}{'CPU (% of one core)':>22}{'peak RSS (MiB)':>17}{'threads':>9}"
              f"{'x floor':>9}")
        floor = res.get("floor_vm_hwm_kib")
        rows = [("kvt_zqp_monitor", "")]
        rows += [("kvt_zqp_record", "record_")] if args.with_record else []
        rows += [("kvt_zqp_capture", "capture_")] if args.with_capture else []
        for name, prefix in rows:
            ratio = f"{res[prefix + 'vm_hwm_kib'] / floor:>9.2f}" if floor else ""
            print(f"{name:16}{res[prefix + 'cpu_percent_of_one_core']:>22.2f}"
                  f"{res[prefix + 'vm_hwm_kib'] / 1024:>17.2f}{res[prefix + 'threads']:>9}{ratio}")
        if floor:
            print(f"{'floor':16}{'':>22}{floor / 1024:>17.2f}{res['floor_threads']:>9}")
        print(f"{res['frames']} frames")
        if args.with_record:
            print(f"{res['record_lines'] - 1} records; recorder exit status after SIGTERM: "
                  f"{res['record_exit_status']}")
        if args.with_capture:
            # The run is a second longer than the measured time (the warm-up).
            per_minute = res["capture_bytes"] * 60 / (res["wall_s"] + 1)
            print(f"capture: {res['capture_bytes']} bytes, {per_minute / 1024:.0f} KiB a minute; "
                  f"exit status after SIGTERM: {res['capture_exit_status']}")
        return 0
    quits = sorted(res["quit_ms_all"])
    print(f"scenario {args.scenario}, default options, {res['wall_s']:.1f} s measured, "
          f"{res['frames']} frames, {res['threads']} threads")
    print(f"CPU: {res['cpu_percent_of_one_core']:.2f} % of one core   (target < 2 %)")
    print(f"peak RSS (VmHWM): {res['vm_hwm_kib'] / 1024:.2f} MiB   (target < 8 MiB)")
    if "floor_vm_hwm_kib" in res:
        print(f"floor ({res['floor_threads']} sleeping threads, same build): "
              f"{res['floor_vm_hwm_kib'] / 1024:.2f} MiB; the monitor takes "
              f"{res['vm_hwm_kib'] / res['floor_vm_hwm_kib']:.2f}x")
    print(f"quit latency: median {quits[len(quits) // 2]:.1f} ms, max {quits[-1]:.1f} ms "
          f"over {len(quits)} runs {quits}   (target < 100 ms)")
    print(f"exit status after q: {res['exit_status']}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
