"""kvt_zqp_record on the simulated board: its records in each format against the
scenario's ground truth, the plot of a run, and every way a run ends. (The
Prometheus file, through node_exporter and a server: test_endpoint.py.)"""
import re
import subprocess
import time

import pytest

from board_truth import WINDOW_STRETCH, check_loading, wall_to_monotonic
from conftest import REPO
from recordings import MIB, RFC3339, csv_records, json_records, record_wall

def check_records(records, t, count, delay_s, run):
    """The records against the truth; the DSP figures against what the board's
    clients really did, at the time each record was really taken."""
    assert len(records) == count
    assert [r["time"] for r in records if not RFC3339.match(r["time"])] == []
    walls = [record_wall(r) for r in records]
    start = walls[0] - records[0]["elapsed_s"]
    for i, (r, wall) in enumerate(zip(records, walls)):
        assert abs(wall - time.time()) < 600  # UTC, not local time
        # One record per expiry of the interval timer, never early.
        assert (i + 1) * delay_s - 0.005 <= r["elapsed_s"] < (i + 1) * delay_s + 10
        assert abs(wall - r["elapsed_s"] - start) < 0.2
        # A sampled core has no figure until its first window has ended; then
        # always one.
        missing = [label for label, v in r["loading"] if v is None]
        assert all(re.fullmatch(r"(YPU|DSP)\d+", label) for label in missing), missing
        assert not missing or r["elapsed_s"] < WINDOW_STRETCH * delay_s, (r["elapsed_s"], missing)
    last = records[-1]
    assert [label for label, _ in last["loading"]] == t["rows"]
    at = [wall_to_monotonic(wall) for wall in walls]
    loading = run.dsp(at, delay_s).loading(t["loading"], at[-1], delay_s)
    assert check_loading(loading, t, last["loading"]) == []
    assert last["ddr"] == (t["ddr"]["read"] * MIB, t["ddr"]["write"] * MIB)
    assert last["heaps"] == {name: (h["total"], h["used"], h["total"] - h["used"])
                             for name, h in t["heaps"].items()}


@pytest.mark.parametrize("fmt", ["csv", "jsonl"])
def test_records_match_truth(run_on_board, record_binary, truth, tmp_path, fmt):
    t = truth("full")
    out = tmp_path / "run.csv"
    # CSV to a file with -t (4 s at 500 ms: 8 records), JSON lines on stdout with -n.
    args = ["-o", out, "-t", "4"] if fmt == "csv" else ["--format", "jsonl", "-n", "8"]
    r = run_on_board("full", [record_binary, "-d", "500"] + args)
    assert (r.returncode, r.stderr) == (0, "")
    if fmt == "csv":
        assert r.stdout == ""
        check_records(csv_records(out), t, 8, 0.5, r)
        return
    records = json_records(r.stdout)
    check_records(records, t, 8, 0.5, r)
    procs = {p["name"]: p for p in records[-1]["processes"]}
    assert {name: p["ion_bytes"] for name, p in procs.items()} == {
        name: p["ion_bytes"] for name, p in t["processes"].items()}
    for name, p in t["processes"].items():
        assert procs[name]["rss_bytes"] >= p["rss_kb_min"] * 1024
        assert procs[name]["pid"] == r.pids()[name]


# The runs to plot: one, or two overlaid, the second with one engine only.
@pytest.mark.parametrize("runs", [{"run": []}, {"before": [], "after": ["-e", "dsp"]}],
                         ids=["one", "overlay"])
def test_plot_of_a_recorded_run(run_on_board, record_binary, tmp_path, runs):
    if subprocess.run(["/usr/bin/python3", "-c", "import matplotlib"]).returncode != 0:
        pytest.skip("kvt_zqp_plot needs python3-matplotlib")
    csvs = [tmp_path / f"{name}.csv" for name in runs]
    for out, args in zip(csvs, runs.values()):
        r = run_on_board("full", [record_binary, "-d", "200", "-n", "10", "-o", out] + args)
        assert r.returncode == 0, r.stderr
    # The SVG keeps every text drawn as a comment: the legends can be read.
    for image in ("run.png", "run.svg"):
        plot = subprocess.run(["/usr/bin/python3", REPO / "tools" / "kvt_zqp_plot", *csvs, "-o",
                               tmp_path / image], capture_output=True, text=True, timeout=120)
        assert plot.returncode == 0, plot.stderr
    png = (tmp_path / "run.png").read_bytes()
    assert png[:8] == b"\x89PNG\r\n\x1a\n" and len(png) > 20000
    svg = (tmp_path / "run.svg").read_text()
    names = [f"{name}: " for name in runs] if len(runs) > 1 else [""]
    assert all(f"<!-- {name}DSP0 " in svg for name in names)
    assert ("<!-- after: YPU0 " in svg, "<!-- before: YPU0 " in svg) == (False, len(runs) > 1)


UNTIL_THREE = 'until [ "$(cat "$2" 2>/dev/null | wc -l)" -ge 4 ]; do sleep 0.05; done; '

# id, command: arguments on the host (those end in the parser) or a shell text
# on the board ("$1" the recorder, "$2" the output file); the exit status, what
# stderr holds, and how many complete records the output keeps (None: no file).
ENDINGS = [
    ("help", ["-h"], 0, "", None),
    # An engine named twice is one column; -t counts in 64 bits (5e6 s at
    # 1000 ms wraps to 705032 records in 32 bits).
    ("repeated-engine", '"$1" -n 1 -d 100 -e gdc,GDC | head -n 1 | grep -q "^time,elapsed_s,GDC0,GDC1,ddr_"',
     0, "", None),
    ("long-time", 'mkfifo "$2.v"; "$1" -v -t 5000000 -o /dev/null >"$2.v" 2>&1 & '
     'grep -m 1 -qx "iterator nums: 5000000" <"$2.v"; s=$?; kill $!; wait $!; exit $s',
     0, "", None),
    ("closed-stdout", '"$1" -n 2 >&-', 1,
     "kvt_zqp_record: cannot write standard output: Bad file descriptor\n", None),
    # Replacing is for regular files: a folder is refused at start, and a
    # link to a pipe or a device is written to, not replaced by a file.
    ("prometheus-to-a-folder", '"$1" -n 1 --format prometheus -o /tmp', 1,
     "kvt_zqp_record: cannot write /tmp: Is a directory\n", None),
    ("prometheus-to-stdout", '"$1" -n 1 -d 100 --format prometheus -o /dev/stdout | '
     'grep -q "^kvt_zqp_elapsed_seconds " && test -L /dev/stdout', 0, "", None),
    ("unwritable-path", '"$1" -n 2 -o /nonexistent/out.csv', 1,
     "kvt_zqp_record: cannot write /nonexistent/out.csv: No such file or directory\n", None),
    # A reader that goes away ends the recorder by SIGPIPE, quietly, as other
    # filters end.
    ("reader-gone", '{ "$1" -d 100; echo $? >"$2.status"; } | head -n 1 >/dev/null; '
     'exit $(cat "$2.status")', 141, "", None),
    ("full-device", '"$1" -n 2 --format jsonl -o /dev/full', 1,
     "kvt_zqp_record: cannot write /dev/full: No space left on device\n", None),
    # 1536 bytes end inside the sixth row (rows are about 210 bytes after a
    # 394-byte header), so the write of a record fails part-way.
    ("file-size-limit", 'exec prlimit --fsize=1536 "$1" -d 100 -o "$2"', 1, ": File too large\n", 4),
    # The signal comes once three records are written (a header and three rows).
    ("sigterm", '"$1" -d 200 -o "$2" & ' + UNTIL_THREE + 'kill -TERM $!; wait $!', 0, "", 3),
]


@pytest.mark.parametrize("command,status,err,kept", [e[1:] for e in ENDINGS],
                         ids=[e[0] for e in ENDINGS])
def test_how_a_run_ends(request, record_binary, tmp_path, command, status, err, kept):
    out = tmp_path / "out.csv"
    if isinstance(command, list):
        r = subprocess.run(["kvt_zqp_record"] + command, executable=record_binary,
                           stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=30)
        assert r.stdout.startswith("Usage: kvt_zqp_record [OPTION...]\n") == (command == ["-h"])
    else:
        r = request.getfixturevalue("run_on_board")(
            "full", ["sh", "-c", command, "sh", record_binary, out])
    assert r.returncode == status
    assert r.stderr.endswith(err) and r.stderr.count("\n") == err.count("\n"), r.stderr
    if kept is None:
        assert not out.exists()
    else:
        assert len(csv_records(out)) >= kept
