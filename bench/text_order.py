#!/usr/bin/python3
"""Regenerates cmake/text_order.txt: the functions the programs execute, the
most used first, for the linker to lay out together.

    bench/text_order.py [--build-dir DIR] [--scenario NAME]

Runs the programs of the build on the simulated board under callgrind, as
people run them: the recorder for a few records in each output format, the
monitor in batch mode and in a terminal. A function's rank is the number of
those runs that executed it, so the code every run needs comes first and each
format's code after it. Code that no run executed (usage, errors, the summary,
the server, the wrapped command) is left where the linker puts it, apart.
Needs root and valgrind; the build must be a shipped one (the default).
"""
import argparse
import re
import subprocess
import sys
import tempfile
from collections import Counter
from pathlib import Path

REPO = Path(__file__).resolve().parent.parent
PROGRAMS = ("kvt_zqp_monitor", "kvt_zqp_record")


def executed(profile):
    """The mangled names of the functions of PROGRAMS that ran in a callgrind
    profile (names and objects are given once, then by number)."""
    names, objects, current, ran = {}, {}, None, set()
    for line in profile.read_text(errors="replace").splitlines():
        m = re.match(r"^(c?)(ob|fn)=\((\d+)\)(?: (.*))?$", line)
        if not m:
            continue
        call, kind, ident, name = m.groups()
        table = objects if kind == "ob" else names
        if name is not None:
            table[ident] = name
        if call:
            continue
        if kind == "ob":
            current = objects.get(ident, "")
        elif current.endswith(PROGRAMS) and not names[ident].startswith(("0x", "(below")):
            ran.add(names[ident])
    return ran


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--build-dir", default=str(REPO / "build"))
    ap.add_argument("--scenario", default="full")
    args = ap.parse_args()
    build = Path(args.build_dir).resolve()
    with tempfile.TemporaryDirectory() as tmp:
        grind = (f"valgrind -q --tool=callgrind --demangle=no "
                 f"--callgrind-out-file={tmp}/%p.callgrind")
        record, monitor = build / "kvt_zqp_record", build / "kvt_zqp_monitor"
        runs = [f"{grind} {record} -d 500 -n 6 -o {tmp}/r.csv",
                f"{grind} {record} -d 500 -n 4 --format jsonl > /dev/null",
                f"{grind} {record} -d 500 -n 4 --format prometheus -o {tmp}/r.prom",
                f"{grind} {record} -d 500 -n 4 --format openmetrics --processes -o {tmp}/r.om",
                f"{grind} {monitor} -b -n 4 -d 500 > /dev/null",
                f"script -qec 'timeout -s TERM 4 {grind} {monitor}' /dev/null > /dev/null || :"]
        script = Path(tmp) / "runs.sh"
        script.write_text("#!/bin/sh\n" + "\n".join(runs) + "\n")
        script.chmod(0o755)
        subprocess.run([str(REPO / "sim/run-board"), "--scenario", args.scenario,
                        "--build-dir", str(build), "--", str(script)], check=True)
        profiles = sorted(Path(tmp).glob("*.callgrind"))
        if len(profiles) != len(runs):
            sys.exit(f"text_order: {len(profiles)} profiles from {len(runs)} runs")
        count = Counter(name for p in profiles for name in executed(p))
    order = sorted(count, key=lambda name: (-count[name], name))
    (REPO / "cmake/text_order.txt").write_text("\n".join(order) + "\n")
    print(f"cmake/text_order.txt: {len(order)} functions from {len(runs)} runs")


if __name__ == "__main__":
    main()
