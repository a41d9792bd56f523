"""kvt_zqp_record as a neighbour on the board: its output never goes through a
link another user planted, a replaced file keeps its mode, closed standard
descriptors keep messages out of the output, figures it cannot vouch for are
missing, and no DDR tool outlives either program after a fatal signal."""
import json
import os
import signal
import stat
import subprocess

import pytest

from conftest import EMULATED, SCENARIOS

NOBODY = 65534


def scenario_file(tmp_path, base, **changes):
    """A copy of scenario base with top-level keys replaced, as a file."""
    data = json.loads((SCENARIOS / f"{base}.json").read_text())
    data.update(changes)
    path = tmp_path / f"{base}-changed.json"
    path.write_text(json.dumps(data))
    return path


def record_on_host(record_binary, args, **kwargs):
    """The recorder off the board: enough for what happens to its output file."""
    return subprocess.run([record_binary, "-e", "ypu", "-d", "100", "-n", "1"] + args,
                          capture_output=True, text=True, timeout=60, **kwargs)


@pytest.fixture
def as_root():
    if os.geteuid() != 0:
        pytest.skip("planting a link as another user needs root")


@pytest.mark.parametrize("fmt", ["prometheus", "csv"])
def test_link_planted_by_another_user_is_refused(as_root, record_binary, tmp_path, fmt):
    sticky = tmp_path / "shared"
    sticky.mkdir()
    sticky.chmod(0o1777)
    target = tmp_path / "shadow"
    target.write_text("secret\n")
    target.chmod(0o640)
    link = sticky / "kzm.prom"
    link.symlink_to(target)
    os.lchown(link, NOBODY, NOBODY)
    r = record_on_host(record_binary, ["--format", fmt, "-o", str(link)])
    assert r.returncode == 1
    assert r.stderr == (f"kvt_zqp_record: cannot write {link}: {link} is a link owned by "
                        f"another user (uid {NOBODY}), not followed\n")
    assert target.read_text() == "secret\n" and stat.S_IMODE(target.stat().st_mode) == 0o640
    assert sorted(p.name for p in sticky.iterdir()) == ["kzm.prom"]


@pytest.mark.parametrize("owner", ["caller", "folder owner"])
def test_link_of_the_caller_or_folder_owner_is_followed(as_root, record_binary, tmp_path, owner):
    folder = tmp_path / "out"
    folder.mkdir()
    if owner == "folder owner":
        os.chown(folder, NOBODY, NOBODY)
    target = tmp_path / "metrics.prom"
    target.write_text("old\n")
    target.chmod(0o640)
    link = folder / "kzm.prom"
    link.symlink_to(target)
    if owner == "folder owner":
        os.lchown(link, NOBODY, NOBODY)
    r = record_on_host(record_binary, ["--format", "prometheus", "-o", str(link)])
    assert r.returncode == 0, r.stderr
    assert link.is_symlink() and "kvt_zqp_elapsed_seconds " in target.read_text()
    # The target is replaced in its own folder, keeping its mode.
    assert stat.S_IMODE(target.stat().st_mode) == 0o640
    assert sorted(p.name for p in tmp_path.iterdir()) == ["metrics.prom", "out"]


@pytest.mark.parametrize("existing,umask,want", [
    (0o640, 0o022, 0o640), (0o604, 0o077, 0o604), (None, 0o022, 0o644), (None, 0o077, 0o644)])
def test_replaced_file_keeps_its_mode(record_binary, tmp_path, existing, umask, want):
    out = tmp_path / "kzm.prom"
    if existing is not None:
        out.write_text("old\n")
        out.chmod(existing)
    r = record_on_host(record_binary, ["--format", "prometheus", "-n", "3", "-o", str(out)],
                       preexec_fn=lambda: os.umask(umask))
    assert r.returncode == 0, r.stderr
    assert stat.S_IMODE(out.stat().st_mode) == want
    assert [p.name for p in tmp_path.iterdir()] == ["kzm.prom"]


def test_closed_stderr_leaves_the_csv_clean(record_binary, tmp_path):
    out = tmp_path / "run.csv"
    # -v prints settings on stderr; with stderr closed, the output file would
    # otherwise take descriptor 2 and get them.
    r = subprocess.run(["sh", "-c", 'exec 2>&-; exec "$0" -v -e ypu -d 100 -n 2 -o "$1"',
                        record_binary, str(out)], capture_output=True, timeout=60)
    assert r.returncode == 0
    lines = out.read_bytes().split(b"\r\n")
    assert lines[0].startswith(b"time,elapsed_s,") and len(lines) == 4 and lines[3] == b""


def ddr_cells(text):
    """The DDR read cells of a CSV, None where missing."""
    header, *rows = [line.split(",") for line in text.splitlines()]
    at = header.index("ddr_read_bytes_per_second")
    return [int(row[at]) if row[at] else None for row in rows]


@pytest.mark.parametrize("then", ["SEGV", 0, "silent"])
def test_figures_of_an_ended_or_quiet_ddr_tool_are_missing(run_on_board, record_binary, tmp_path,
                                                            then):
    board = scenario_file(tmp_path, "bare", ddr={"mode": "normal", "read": 100, "write": 50,
                                                 "interval_s": 0.5, "tables": 2, "then": then})
    r = run_on_board(board, [record_binary, "-e", "dsp", "-d", "500", "-n", "14"])
    assert r.returncode == 0, r.stderr
    cells = ddr_cells(r.stdout)
    # Live while the tool prints, missing for good once it ended or has been
    # quiet for 3 s: never the last figure again.
    assert 100 << 20 in cells, cells
    first_missing = cells.index(None, cells.index(100 << 20))
    assert cells[first_missing:] == [None] * (len(cells) - first_missing), cells
    assert cells[-1] is None


def test_resident_size_is_the_kernels_kib(run_on_board, record_binary):
    # The board's holders sit still, so their VmRSS read right after the
    # record is the one the record took.
    script = ('out=$("$0" --format jsonl -e dsp -n 3 -d 200 | tail -n 1) && echo "$out" && '
              'for p in $(echo "$out" | grep -o \'"pid":[0-9]*\' | cut -d: -f2); do '
              'echo "$p $(grep VmRSS: /proc/$p/status | tr -s " " | cut -d" " -f2)"; done')
    r = run_on_board("full", ["sh", "-c", script, record_binary])
    assert r.returncode == 0, r.stderr
    record, *status = r.stdout.splitlines()
    kib = dict(line.split() for line in status)
    processes = json.loads(record)["processes"]
    assert "media_svc" in {process["name"] for process in processes}
    for process in processes:
        assert process["rss_bytes"] == int(kib[str(process["pid"])]) * 1024, process


# Each program's fatal signals (the recorder ends cleanly on SIGINT and SIGTERM).
FATAL = [("monitor", signal.SIGTERM), ("monitor", signal.SIGINT), ("monitor", signal.SIGHUP),
         ("recorder", signal.SIGHUP), ("recorder", signal.SIGQUIT), ("recorder", signal.SIGPIPE)]

# Runs inside the board: starts each program, waits for its DDR tool, sends
# the signal and reports the program's status and any tool left behind.
DEAF_DRIVER = r"""
import json, os, signal, subprocess, sys, time
programs = {"monitor": [sys.argv[1], "-b", "-d", "200"], "recorder": [sys.argv[2], "-d", "200"]}
def processes():
    for pid in filter(str.isdigit, os.listdir("/proc")):
        try:
            cmdline = open(f"/proc/{pid}/cmdline", "rb").read()
            fields = open(f"/proc/{pid}/stat").read().rpartition(")")[2].split()
        except OSError:
            continue
        if fields[0] != "Z":
            yield int(pid), int(fields[2]), cmdline
def tool_group():
    # The tool's shell leads the group the programs hang up and kill.
    return next((group for pid, group, cmdline in processes()
                 if cmdline.startswith(b"sh\0-c\0plox_ddr ")), None)
results = []
for name, sig in json.loads(sys.argv[3]):
    p = subprocess.Popen(programs[name], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    deadline = time.monotonic() + 60
    while tool_group() is None and time.monotonic() < deadline:
        time.sleep(0.05)
    group = tool_group()
    time.sleep(0.3)
    p.send_signal(sig)
    status = p.wait(timeout=120)
    # A killed tool may take a moment to go; one that survives stays.
    deadline = time.monotonic() + 10
    while True:
        left = [pid for pid, g, _ in processes() if group is not None and g == group]
        if not left or time.monotonic() > deadline:
            break
        time.sleep(0.05)
    for pid in left:
        os.kill(pid, signal.SIGKILL)
    results.append([name, sig, group is not None, status, len(left)])
print(json.dumps(results))
"""


def test_deaf_ddr_tool_ends_with_a_fatal_signal(run_on_board, binary, record_binary, tmp_path):
    board = scenario_file(tmp_path, "bare", ddr={"mode": "deaf"})
    cases = [[name, int(sig)] for name, sig in FATAL]
    r = run_on_board(board, ["python3", "-c", DEAF_DRIVER, binary, record_binary,
                             json.dumps(cases)], timeout=600 if EMULATED else 240)
    assert r.returncode == 0, r.stderr
    got = json.loads(r.stdout)
    # Killed by its signal, after the tool it started was started and ended.
    assert got == [[name, sig, True, -sig, 0] for name, sig in cases]


def test_recorder_writes_nothing_on_the_board(run_on_board, record_binary):
    r = run_on_board("full", ["sh", "-c", '"$0" -d 200 -n 3 >/dev/null && ls /var/run /dev/shm',
                              record_binary])
    assert r.returncode == 0, r.stderr
    # No fifo of its own, no driver sampling period, the nodes as the runtime
    # made them.
    assert "dsp_event" not in r.stdout.split()
    assert r.writes() == []


def test_recorder_alone_drops_a_client_that_died_with_work_running(run_on_board, record_binary):
    # dsp_b dies at 3 s with its running bit set on DSP1, and no monitor is
    # there to clear it.
    r = run_on_board("dsp_churn", [record_binary, "-e", "dsp", "-d", "500", "-n", "12"])
    assert r.returncode == 0, r.stderr
    header, *rows = [line.split(",") for line in r.stdout.splitlines()]
    dsp1 = [float(row[header.index("DSP1")] or "nan") for row in rows]
    assert max(dsp1[2:6]) > 50, dsp1
    assert dsp1[-4:] == [0.0] * 4, dsp1


def test_descriptor_limit_raised_for_the_programs_not_for_the_tool(run_on_board, binary,
                                                                   record_binary):
    script = ('ulimit -S -n 1024; for p in "$0 -b" "$1"; do $p -d 200 -n 10 >/dev/null & '
              'sleep 0.5; grep "Max open files" /proc/$!/limits; wait; done')
    r = run_on_board("full", ["sh", "-c", script, binary, record_binary])
    assert r.returncode == 0, r.stderr
    limits = [line.split()[3:5] for line in r.stdout.splitlines()]
    assert len(limits) == 2 and all(soft == hard for soft, hard in limits), limits
    tool = [json.loads(line) for line in r.log("ddr_limits.log").splitlines()]
    assert [soft for soft, _ in tool] == [1024, 1024]
