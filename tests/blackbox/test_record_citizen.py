"""kvt_zqp_record as a neighbour on the board: its output never goes through a
link another user planted nor empties another user's hard link, a replaced
file keeps its owner and mode, a service manager hears of every record,
closed standard descriptors keep messages out of the output, figures it
cannot vouch for are missing, and no DDR tool outlives either program after
a fatal signal."""
import contextlib
import json
import os
import signal
import socket
import stat
import subprocess
from types import SimpleNamespace

import pytest

from board_truth import EMULATED, check_loading
from conftest import board_file
from recordings import recorded_dsp_problems
from report_layout import values, well_formed

NOBODY = 65534


def record_on_host(record_binary, args, **kwargs):
    """The recorder off the board: enough for what happens to its output file."""
    return subprocess.run([record_binary, "-e", "ypu", "-d", "100", "-n", "1"] + args,
                          capture_output=True, text=True, timeout=60, **kwargs)


@pytest.fixture
def as_root():
    if os.geteuid() != 0:
        pytest.skip("planting a link as another user needs root")


def snapshot(root):
    """Every name under root with its type, owner, mode, links and content."""
    found = {}
    for folder, dirs, files in os.walk(root):
        for name in dirs + files:
            path = os.path.join(folder, name)
            st = os.lstat(path)
            body = (os.readlink(path) if stat.S_ISLNK(st.st_mode) else
                    open(path, "rb").read() if stat.S_ISREG(st.st_mode) else None)
            found[os.path.relpath(path, root)] = (st.st_mode, st.st_uid, st.st_gid, st.st_nlink,
                                                  body)
    return found


def link(path, target, owner=0):
    path.symlink_to(target)
    os.lchown(path, owner, owner)
    return path


def hard_link(path, target, owner):
    os.link(target, path)
    os.chown(path, owner, owner)
    return path


# id, format, what is planted in the scratch tree (t: its paths), giving the
# output to name, and why the recorder refuses it (None: it writes through
# root's link, to "secret" or "flash/run.csv").
PLANTED = [
    ("link-in-a-sticky-folder", "csv", lambda t: link(t.sticky / "run.csv", t.secret, NOBODY),
     "{out} is a link owned by another user (uid 65534), not followed"),
    ("link-in-a-sticky-folder", "prometheus",
     lambda t: link(t.sticky / "kzm.prom", t.secret, NOBODY),
     "{out} is a link owned by another user (uid 65534), not followed"),
    # sudo in another user's home: that user owns the folder and the link.
    ("link-of-the-folders-owner", "csv", lambda t: link(t.home / "run.csv", t.secret, NOBODY),
     "{out} is a link owned by another user (uid 65534), not followed"),
    # The account owning the collector's parent folder swaps the folder.
    ("swapped-folder", "prometheus",
     lambda t: link(t.home / "node-exporter", t.flash, NOBODY) / "kzm.prom",
     "{home}/node-exporter is a link owned by another user (uid 65534), not followed"),
    ("device-through-a-link", "prometheus", lambda t: link(t.home / "kzm.prom", "/dev/null"),
     "/dev/null is a device reached through a link, not opened"),
    ("fifo-through-a-link", "csv", lambda t: link(t.sticky / "run.csv", t.fifo),
     "{fifo} is a FIFO reached through a link, not opened"),
    ("another-users-hard-link", "csv",
     lambda t: hard_link(t.sticky / "run.csv", t.flash / "theirs", NOBODY),
     "{out} has 2 links and belongs to another user (uid 65534), not emptied"),
    ("hard-link-in-another-users-folder", "csv",
     lambda t: hard_link(t.home / "run.csv", t.secret, 0),
     "{out} has 2 links and its folder to another user (uid 65534), not emptied"),
    ("roots-link-in-another-users-folder", "prometheus",
     lambda t: link(t.home / "kzm.prom", t.secret), None),
    ("roots-link-to-a-folder", "csv", lambda t: link(t.home / "flash", t.flash) / "run.csv", None),
]


@pytest.mark.parametrize("fmt,plant,refusal", [c[1:] for c in PLANTED],
                         ids=[f"{c[0]}-{c[1]}" for c in PLANTED])
def test_links_followed_as_root(as_root, record_binary, tmp_path, fmt, plant, refusal):
    t = SimpleNamespace(home=tmp_path / "home", sticky=tmp_path / "sticky",
                        flash=tmp_path / "flash", secret=tmp_path / "secret",
                        fifo=tmp_path / "fifo")
    for folder, mode, owner in [(t.home, 0o755, NOBODY), (t.sticky, 0o1777, 0),
                                (t.flash, 0o755, NOBODY)]:
        folder.mkdir()
        folder.chmod(mode)
        os.chown(folder, owner, owner)
    t.secret.write_text("secret\n")
    t.secret.chmod(0o640)
    (t.flash / "theirs").write_text("theirs\n")
    os.mkfifo(t.fifo)
    out = plant(t)
    before = snapshot(tmp_path)
    r = record_on_host(record_binary, ["--format", fmt, "-o", str(out)])
    if refusal is not None:
        reason = refusal.format(out=out, home=t.home, fifo=t.fifo)
        assert (r.returncode, r.stderr) == (1, f"kvt_zqp_record: cannot write {out}: {reason}\n")
        assert snapshot(tmp_path) == before
        return
    assert r.returncode == 0, r.stderr
    # Written in the target's own folder, the replaced one keeping its mode;
    # nothing else changed.
    after = snapshot(tmp_path)
    target = "secret" if fmt == "prometheus" else "flash/run.csv"
    mode, *_, body = after.pop(target)
    assert body.startswith(b"# kvt_zqp_record " if fmt == "prometheus" else b"time,elapsed_s,")
    assert stat.S_IMODE(mode) == (0o640 if fmt == "prometheus" else 0o644)
    before.pop(target, None)
    assert after == before


@pytest.mark.parametrize("existing,umask,want", [
    ((0o640, 0, NOBODY), 0o022, (0o640, 0, NOBODY)),
    ((0o604, NOBODY, NOBODY), 0o077, (0o604, NOBODY, NOBODY)),
    (None, 0o022, (0o644, None, None)), (None, 0o077, (0o644, None, None))])
def test_replaced_file_keeps_its_owner_and_mode(record_binary, tmp_path, existing, umask, want):
    out = tmp_path / "kzm.prom"
    root = os.geteuid() == 0
    if existing is not None:
        if not root:
            pytest.skip("giving the file to another user needs root")
        out.write_text("old\n")
        out.chmod(existing[0])
        os.chown(out, existing[1], existing[2])
    # What a killed recorder left: only its own temporaries of this name go,
    # not another user's nor a link.
    kept = {".kzm.prom.tmp-0123", ".other.prom.tmp-0123456789ab", ".kzm.prom.tmp-fedcba987654"}
    for name in kept | {".kzm.prom.tmp-0123456789ab"}:
        (tmp_path / name).write_text("stale\n")
    (tmp_path / ".kzm.prom.tmp-abcdef012345").symlink_to(tmp_path / ".kzm.prom.tmp-0123")
    kept.add(".kzm.prom.tmp-abcdef012345")
    if root:
        os.chown(tmp_path / ".kzm.prom.tmp-fedcba987654", NOBODY, NOBODY)
    else:
        kept.remove(".kzm.prom.tmp-fedcba987654")
    rec = subprocess.Popen([record_binary, "-e", "ypu", "-d", "100", "-n", "12", "--format",
                            "prometheus", "-o", str(out)], stderr=subprocess.PIPE, text=True,
                           preexec_fn=lambda: os.umask(umask))
    # node_exporter may read at any time: it must find the old file or a whole
    # new one, never one being written.
    seen = set()
    while rec.poll() is None:
        with contextlib.suppress(FileNotFoundError):
            text = out.read_text()
            seen.add("old" if text == "old\n" else "whole" if text.startswith(
                "# kvt_zqp_record sample at ") and text.endswith("\nkvt_zqp_ddr_figures_live 0\n")
                     else text)
    assert rec.wait() == 0, rec.stderr.read()
    assert seen <= {"old", "whole"} and "whole" in seen, seen
    st = out.stat()
    assert (stat.S_IMODE(st.st_mode), st.st_uid, st.st_gid) == (
        want[0], os.geteuid() if want[1] is None else want[1],
        os.getegid() if want[2] is None else want[2])
    assert {p.name for p in tmp_path.iterdir()} == kept | {"kzm.prom"}


def test_service_watchdog_hears_of_every_record(record_binary, tmp_path):
    manager = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    manager.bind(str(tmp_path / "notify"))
    env = dict(os.environ, NOTIFY_SOCKET=str(tmp_path / "notify"), WATCHDOG_USEC="60000000")
    r = record_on_host(record_binary, ["-n", "3", "-o", "/dev/null"], env=env)
    assert r.returncode == 0, r.stderr
    manager.setblocking(False)
    heard = []
    with contextlib.suppress(BlockingIOError):
        while True:
            heard.append(manager.recv(64))
    assert heard == [b"WATCHDOG=1"] * 3


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
    board = board_file(tmp_path, "bare", ddr={"mode": "normal", "read": 100, "write": 50,
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


def test_recorder_writes_nothing_and_records_the_kernels_rss(run_on_board, record_binary):
    # The board's holder processes sit still, so their VmRSS read right after
    # the record is the one the record took.
    script = ('out=$("$0" --format jsonl -n 3 -d 200 | tail -n 1) && echo "$out" && '
              'ls /var/run /dev/shm | tr "\\n" " " && echo && '
              'for p in $(echo "$out" | grep -o \'"pid":[0-9]*\' | cut -d: -f2); do '
              'echo "$p $(grep VmRSS: /proc/$p/status | tr -s " " | cut -d" " -f2)"; done')
    r = run_on_board("full", ["sh", "-c", script, record_binary])
    assert r.returncode == 0, r.stderr
    record, listed, *status = r.stdout.splitlines()
    # No fifo of its own, no driver sampling period, the nodes as the runtime
    # made them.
    assert "dsp_event" not in listed.split() and "dsp_loading_flock_0" in listed.split()
    assert r.writes() == []
    kib = dict(line.split() for line in status)
    # Only the holders sit still; a DSP client's memory moves as it works.
    holders = [p for p in json.loads(record)["processes"] if p["name"] in ("cam_svc", "media_svc")]
    assert "media_svc" in {process["name"] for process in holders}
    for process in holders:
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
    board = board_file(tmp_path, "bare", ddr={"mode": "deaf"})
    cases = [[name, int(sig)] for name, sig in FATAL]
    r = run_on_board(board, ["python3", "-c", DEAF_DRIVER, binary, record_binary,
                             json.dumps(cases)], timeout=600 if EMULATED else 240)
    assert r.returncode == 0, r.stderr
    got = json.loads(r.stdout)
    # Killed by its signal, after the tool it started was started and ended.
    assert got == [[name, sig, True, -sig, 0] for name, sig in cases]


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


@pytest.mark.parametrize("first", ["recorder", "monitor"])
def test_monitor_and_recorder_side_by_side(run_on_board, binary, record_binary, truth, tmp_path,
                                          first):
    """Both on the churning board, each starting first and ending first in
    turn: the monitor's frames follow every client as they do alone, and so do
    the recorder's records, before, during and after the other's life."""
    t, delay = truth("dsp_churn"), 0.5
    out = tmp_path / "run.jsonl"
    # The one that starts first runs for the whole scenario (10 s); the other
    # starts 0.5 s later and ends at about 4.5 s, before dsp_c starts at 6 s.
    n_records, n_frames = (20, 8) if first == "recorder" else (8, 20)
    record = f'"$1" -d 500 --format jsonl -e dsp -o "$2" -n {n_records}'
    monitor = f'"$0" -b -d 500 -e dsp -n {n_frames}'
    script = (f"{record} & sleep 0.5; {monitor}; wait $!" if first == "recorder" else
              f"(sleep 0.5; {record}) & {monitor}; wait $!")
    r = run_on_board("dsp_churn", ["sh", "-c", script, binary, record_binary, out])
    assert r.returncode == 0, r.stderr
    frames = well_formed(r.stdout, r.stderr, n_frames)
    times = r.frame_times(frames)
    dsp = r.dsp(times, delay)
    problems = []
    for frame, at in zip(frames, times):
        want = dsp.loading(t["loading"], at, delay)
        problems += [f"monitor {at - r.clock_start():.2f}s: {p}"
                     for p in check_loading(want, t, values(frame)["rows"])]
    records = [json.loads(line) for line in out.read_text().splitlines()]
    assert len(records) == n_records
    recorded = recorded_dsp_problems(records, r.workdir, delay, 5.0)
    assert problems + recorded == []
    # Not vacuous: dsp_b's 80 % shows in some record.
    shown = [dict((f["label"], f["percent"]) for f in rec["loading"]) for rec in records]
    assert any((figures["DSP1"] or 0) > 60 for figures in shown), shown
    if first == "recorder":
        # dsp_c came after the monitor had gone (and with it any fifo).
        late = [figures for figures, rec in zip(shown, records) if rec["elapsed_s"] > 8]
        assert late and all(20 < figures["DSP0"] < 40 for figures in late), late
    else:
        # The monitor still sees dsp_c, after the recorder has ended.
        late = [values(f)["rows"] for f, at in zip(frames, times) if at - r.clock_start() > 7.5]
        assert late and all(20 < dict(rows)["DSP0"] < 40 for rows in late), late


def test_tool_status_is_seen_under_a_parent_that_ignores_sigchld(run_on_board, binary, tmp_path):
    # An ignored SIGCHLD survives exec; children would then be reaped by the
    # kernel and the tool's exit status lost.
    board = board_file(tmp_path, "bare", ddr={"mode": "fail"})
    r = run_on_board(board, ["sh", "-c", "trap '' CHLD; exec \"$0\" -b -v -n 2 -d 300", binary])
    assert r.returncode == 0
    assert ("Run command:plox_ddr -t ypu -p 100000 -n 2  failed, exit status:1, please check "
            "the previous log\n") in r.stderr
    assert "Wait subprocess exit failed" not in r.stderr
