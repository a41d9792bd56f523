"""kvt_zqp_record running a command on the simulated board: the command's status
passed back, signals passed on to it, and the summary of its run against what
the board really did (the command is itself a DSP client that logs its work)."""
import json
import math
import os
import re
import signal
import time
from datetime import datetime
from pathlib import Path

import pytest

from board_truth import DspActivity, tolerance, wall_to_monotonic
from conftest import CLIENT, HANG_S, hang_bound
from recordings import MIB, csv_records
from report_layout import CRASH_TEXT

BOARD = "workload"
# Busy 40 % of its 3.5 s life, then exits with 3.
WORKLOAD = [CLIENT, "--board-log", "--duty", "40", "--lifetime-ms", "3500", "--exit-status", "3"]
SIZE = re.compile(r"\d+\.\d[KMG]")


def record(run_on_board, record_binary, tmp_path, options, command, driver=()):
    """The board run of the recorder with a summary file, and that summary (None
    when it wrote none: then the file must not exist)."""
    summary = tmp_path / "summary.json"
    r = run_on_board(BOARD, [*driver, record_binary, *options, "--summary", summary, "--",
                             *command])
    assert [t for t in CRASH_TEXT if t in r.stderr] == [], r.stderr[-500:]
    if not summary.exists():
        return r, None
    text = summary.read_text()
    assert text.endswith("}\n") and text.count("\n") == 1, text
    return r, json.loads(text)


def workload_client(workdir):
    """The command's client as its busy log tells: pid, start, end, last event."""
    [log] = (Path(workdir) / "logs").glob("dsp_busy_cmd*.log")
    events = [line.split() for line in log.read_text().splitlines()]
    return int(events[0][2]), int(events[0][1]) / 1e9, int(events[-1][1]) / 1e9, events[-1][0]


def nearest_rank(values, p):
    return sorted(values)[math.ceil(p / 100 * len(values)) - 1]


def check_table(stderr, labels):
    """The summary on stderr, loosely: who ran, every row, 80 columns."""
    lines = stderr.lstrip("\n").splitlines()
    assert lines[0].startswith("kvt_zqp_record: "), stderr
    assert [line for line in lines if len(line) > 80] == []
    heads = {line.split()[0] for line in lines[1:] if line.strip()}
    assert set(labels) <= heads, (labels, stderr)
    return {line.split()[0]: line for line in lines[1:] if line.strip()}


def test_summary_of_a_dsp_workload(run_on_board, record_binary, truth, tmp_path):
    t, out = truth(BOARD), tmp_path / "run.csv"
    r, s = record(run_on_board, record_binary, tmp_path, ["-d", "500", "-o", out], WORKLOAD)
    assert r.returncode == 3 and r.stdout == "", r.stderr
    pid, start, end, last = workload_client(r.workdir)
    assert last == "exit"
    records = csv_records(out)
    assert {k: s[k] for k in ("command", "exit_status", "signal", "records", "interval_ms")} == {
        "command": [str(c) for c in WORKLOAD], "exit_status": 3, "signal": None,
        "records": len(records), "interval_ms": 500}
    # The command's run holds the client's life; the last record comes at its end.
    assert end - start <= s["wall_seconds"] <= records[-1]["elapsed_s"] + 0.0015
    assert s["dsp_clients"] == [{"pid": pid, "name": "kzm_dsp_client"}]

    # Each figure's summary is that of the records' figures, the mean weighted
    # by their intervals (either side rounds to tenths at most).
    lengths = [b["elapsed_s"] - a for a, b in
               zip([0.0] + [x["elapsed_s"] for x in records], records)]
    assert set(s["loading"]) == set(t["rows"])
    for label, got in s["loading"].items():
        shown = [(w, dict(rec["loading"])[label]) for w, rec in zip(lengths, records)
                 if dict(rec["loading"])[label] is not None]
        assert shown, label
        mean = sum(w * v for w, v in shown) / sum(w for w, _ in shown)
        # The last record, when it covers less than half an interval, counts
        # in the mean only.
        figures = [v for w, v in shown if w >= 0.25] or [v for _, v in shown]
        for key, want in (("mean", mean), ("max", max(figures)),
                          ("p95", nearest_rank(figures, 95))):
            assert abs(got[key + "_percent"] - want) <= 0.06, (label, key, got, shown)
    # Against the board: the DSP core's mean is the share the client really
    # produced over the recorded span, from just before the command started
    # (its start may take long on a loaded machine) to the last record.
    last = wall_to_monotonic(datetime.fromisoformat(
        records[-1]["time"].replace("Z", "+00:00")).timestamp())
    span = (last - records[-1]["elapsed_s"], last)
    want = dict(t["loading"], DSP0=DspActivity(r.workdir).share(0, *span))
    for label, w in want.items():
        assert abs(s["loading"][label]["mean_percent"] - w) <= tolerance(t, label), (label, w, s)
    # A loading file's figure never changes.
    assert s["loading"]["GDC0"] == dict.fromkeys(("mean_percent", "p95_percent", "max_percent"),
                                                 t["loading"]["GDC0"])

    # DDR: the tool's figures throughout, and those over the recorded intervals.
    assert records[-1]["ddr"] == (t["ddr"]["read"] * MIB, t["ddr"]["write"] * MIB)
    covered = sum(w for w, rec in zip(lengths, records) if rec["ddr"][0] is not None)
    for direction in ("read", "write"):
        bw, got = t["ddr"][direction] * MIB, s["ddr"][direction]
        assert (got["mean_bytes_per_second"], got["peak_bytes_per_second"]) == (bw, bw)
        assert abs(got["bytes"] - bw * covered) <= bw * 0.01, (direction, got, covered)

    # ION: npu_job's 8 MiB came and went while the command ran; media_svc's 2 MiB
    # of carveout went before the first record.
    assert s["heaps"] == {name: {"total_bytes": h["total"], "start_bytes": h["start"],
                                 "peak_bytes": h["peak"], "end_bytes": h["end"]}
                          for name, h in t["heaps"].items()}
    assert max(rec["heaps"]["cma_reserved"][1] for rec in records) == \
        t["heaps"]["cma_reserved"]["peak"]
    holders = sorted(t["processes"].items(), key=lambda p: -p[1]["peak_ion_bytes"])
    pids = r.pids()
    assert [{k: p[k] for k in ("pid", "name", "peak_ion_bytes")} for p in s["processes"]] == [
        {"pid": pids[name], "name": name, "peak_ion_bytes": p["peak_ion_bytes"]}
        for name, p in holders]
    for got, (name, p) in zip(s["processes"], holders):
        assert got["peak_rss_bytes"] >= p["rss_kb_min"] * 1024, got

    rows = check_table(r.stderr, t["rows"] + ["read", "write"] + list(t["heaps"]))
    assert {"256.0M", "4.0M", "12.0M"} <= set(SIZE.findall(rows["cma_reserved"])), rows
    assert {"64.0M", "2.0M"} <= set(SIZE.findall(rows["carveout"])), rows


# id, options before the command, the command ({script}: a file without
# execute permission), the recorder's status, the signal that killed the
# command, and the recorder's only message (None: a run with a summary). A
# status of 3 is test_summary_of_a_dsp_workload's, one by a signal
# test_signal_is_passed_to_the_command's.
ENDINGS = [
    ("exit-0", [], ["true"], 0, None, None),
    ("not-found", [], ["kzm-no-such-command", "x"], 127, None,
     "cannot run 'kzm-no-such-command': No such file or directory"),
    ("not-executable", [], ["{script}"], 126, None, "cannot run '{script}': Permission denied"),
]


@pytest.mark.parametrize("options,command,status,sig,message", [e[1:] for e in ENDINGS],
                         ids=[e[0] for e in ENDINGS])
def test_status_of_the_command(run_on_board, record_binary, tmp_path, options, command, status,
                               sig, message):
    script = tmp_path / "script.sh"
    script.write_text("#!/bin/sh\nexit 0\n")
    script.chmod(0o644)
    command = [c.format(script=script) for c in command]
    r, s = record(run_on_board, record_binary, tmp_path, ["-d", "200"] + options, command)
    assert r.returncode == status, r.stderr
    assert r.stdout == ""
    if message is not None:
        assert (r.stderr, s) == (f"kvt_zqp_record: {message.format(script=script)}\n", None)
        return
    assert (s["command"], s["exit_status"], s["signal"]) == ([str(c) for c in command], status,
                                                               sig)
    assert s["records"] >= 1 and s["interval_ms"] == 200
    check_table(r.stderr, ["DSP0", "cma_reserved"])


# Runs the recorder (argv[2:]) with the default signal dispositions, and sends
# it argv[1] once the command is ready for it; exits with the recorder's status
# (128+N: killed by signal N).
SIGNAL_DRIVER = r"""
import csv, os, signal, subprocess, sys, time
sig, cmd = int(sys.argv[1]), sys.argv[2:]
out = cmd[cmd.index("-o") + 1]
mark = os.path.join(os.environ["KZM_SIM_WORKDIR"], "logs", "ready")
def records():
    try:
        with open(out, newline="") as f:
            header, *rows = csv.reader(f)
    except (OSError, ValueError):
        return []
    return [dict(zip(header, row)) for row in rows if len(row) == len(header)]
# Once a record exists: the shell marks that its trap is set; the client sets
# its handlers before it takes a slot, so it is ready once a record shows DSP0
# busy, and the recorder has then also seen it alive in its slot (a client it
# never saw could not be listed among the run's clients).
def ready():
    rows = records()
    return rows != [] and (os.path.exists(mark) or any(float(r["DSP0"] or 0) > 0 for r in rows))
p = subprocess.Popen(cmd)
while p.poll() is None and not ready():
    time.sleep(0.02)
p.send_signal(sig)
rc = p.wait()
sys.exit(128 - rc if rc < 0 else rc)
"""

# Commands that end with 5 only if no signal reaches them within 15 s.
LONG_CLIENT = [CLIENT, "--board-log", "--lifetime-ms", "15000", "--exit-status", "5"]
LONG_SHELL = ["sh", "-c", 'trap "exit 7" QUIT; : >"$KZM_SIM_WORKDIR/logs/ready"; '
              'for i in $(seq 150); do sleep 0.1; done; exit 5']

# The signal sent to the recorder, the command, the status the recorder then
# ends with, the signal that killed the command, and how the client's busy
# log ends (None: no client).
SIGNALS = [
    ("int-trapped", 2, LONG_CLIENT + ["--trap-int"], 0, None, "exit"),
    ("int-default", 2, LONG_CLIENT, 130, 2, "die"),
    ("term-trapped", 15, LONG_CLIENT, 0, None, "exit"),
    ("hup-default", 1, LONG_CLIENT, 129, 1, "start|set|clear"),
    ("quit-trapped", 3, LONG_SHELL, 7, None, None),
]


@pytest.mark.parametrize("sig,command,status,killed,last", [e[1:] for e in SIGNALS],
                         ids=[e[0] for e in SIGNALS])
def test_signal_is_passed_to_the_command(run_on_board, record_binary, tmp_path, sig, command,
                                         status, killed, last):
    out = tmp_path / "run.csv"
    r, s = record(run_on_board, record_binary, tmp_path, ["-d", "500", "-o", out], command,
                  driver=["/usr/bin/python3", "-c", SIGNAL_DRIVER, str(sig)])
    assert r.returncode == status, r.stderr
    clients = []
    if last is not None:
        pid, _, _, ended = workload_client(r.workdir)
        assert re.fullmatch(last, ended), ended
        clients = [{"pid": pid, "name": "kzm_dsp_client"}]
    assert (s["exit_status"], s["signal"], s["dsp_clients"]) == (status, killed, clients)
    assert s["records"] == len(csv_records(out)) >= 2
    check_table(r.stderr, ["DSP0", "cma_reserved"])


# A command that logs each SIGINT, SIGQUIT and SIGTERM it gets, each delivery
# (the wake-up descriptor receives a byte for every one), and runs until the
# file "end" exists beside its log.
COUNTER = r"""
import os, select, signal, sys, time
log = sys.argv[1]
r, w = os.pipe2(os.O_NONBLOCK)
signal.set_wakeup_fd(w)
for sig in (signal.SIGINT, signal.SIGQUIT, signal.SIGTERM):
    signal.signal(sig, lambda *_: None)
def note(*words):
    with open(log, "a") as f:
        f.writelines(word + "\n" for word in words)
note("ready")
while not os.path.exists(os.path.join(os.path.dirname(log), "end")):
    if select.select([r], [], [], 0.02)[0]:
        note(*(signal.Signals(n).name for n in os.read(r, 64)))
"""
PROMPT = b"kzm$ "
# What is typed at an interactive bash ($R: the recorder, $C: COUNTER, $L: its
# log), what is done once the command is ready, what the command's log then
# holds, and the status bash reports. The recorder says (-v) whether it passed
# the signal on: only to a command outside its group.
RECORD = '$R -v -d 200 -- '
TOO, ON = "the command got it too", "passed on to the command"
TERMINAL = [
    ("ctrl-c", RECORD + 'python3 $C $L', "\x03", ["SIGINT", TOO], 0),
    ("ctrl-backslash", RECORD + 'python3 $C $L', "\x1c", ["SIGQUIT", TOO], 0),
    ("setsid-ctrl-c", RECORD + 'setsid python3 $C $L', "\x03", ["SIGINT", ON], 0),
    ("kill-group", RECORD + 'python3 $C $L', "group", ["SIGTERM", TOO], 0),
    # Dies by the terminal's SIGINT: the loop stops at the first recording.
    ("int-stops-loop", 'for i in 1 2; do ' + RECORD + 'sh -c \'echo ready >>$L; exec sleep 600\'; '
     'done', "\x03", [], 130),
    # A fatal signal to the recorder alone ends the command too, as does
    # SIGKILL, through the command's parent-death signal.
    ("usr1-to-recorder", RECORD + 'python3 $C $L', signal.SIGUSR1, [], 128 + signal.SIGUSR1),
    ("kill-9-recorder", RECORD + 'python3 $C $L', signal.SIGKILL, [], 128 + signal.SIGKILL),
]


def counter_pid(counter):
    """The host pid of the process running COUNTER, or None."""
    for d in filter(str.isdigit, os.listdir("/proc")):
        try:
            with open(f"/proc/{d}/cmdline", "rb") as f:
                argv = f.read().split(b"\0")
        except OSError:
            continue
        if argv[1:2] == [os.fsencode(counter)]:
            return int(d)
    return None


def gone(pid):
    try:
        with open(f"/proc/{pid}/stat") as f:
            return f.read().rsplit(")", 1)[1].split()[0] in ("Z", "X")
    except OSError:
        return True


@pytest.mark.parametrize("typed,action,got,status", [t[1:] for t in TERMINAL],
                         ids=[t[0] for t in TERMINAL])
def test_terminal_signals_reach_the_command_once(pty_session, record_binary, tmp_path, typed,
                                                 action, got, status):
    counter, log = tmp_path / "counter.py", tmp_path / "log"
    counter.write_text(COUNTER)
    s = pty_session(["env", f"PS1={PROMPT.decode()}", f"R={record_binary}", f"C={counter}",
                     f"L={log}", "bash", "--norc", "--noprofile", "+o", "history", "-i"],
                    rows=50, cols=200, scenario="bare")

    def lines():
        return log.read_text().splitlines() if log.exists() else []

    def wait(done, what):
        end = time.monotonic() + hang_bound(HANG_S)
        while not done() and time.monotonic() < end and s.child.isalive():
            s.pump(0.05)
        assert done(), (what, lines(), s.raw[-600:])

    wait(lambda: s.raw.count(PROMPT) == 1, "prompt")
    s.send(typed + "\n")
    wait(lambda: "ready" in lines(), "command ready")
    if action == "group":
        pid = counter_pid(counter)
        os.killpg(os.getpgid(pid), signal.SIGTERM)
    elif isinstance(action, signal.Signals):
        pid = counter_pid(counter)
        with open(f"/proc/{pid}/stat") as f:
            os.kill(int(f.read().rsplit(")", 1)[1].split()[1]), action)
        wait(lambda: gone(pid), "command ended with the recorder")
    else:
        s.send(action)
    if got:
        # The recorder has decided about the signal, and the command logged it.
        said = f"signal {signal.Signals[got[0]].value}: {got.pop()}\r\n".encode()
        wait(lambda: said in s.raw and len(lines()) > 1, "signal handled")
    (tmp_path / "end").touch()
    wait(lambda: s.raw.count(PROMPT) == 2 or lines().count("ready") > 1, "recording ended")
    assert lines() == ["ready"] + got, s.raw
    s.send('echo "rc=$?"\n')
    wait(lambda: s.raw.count(PROMPT) == 3, "status")
    assert f"rc={status}\r\n".encode() in s.raw, s.raw
    if status == 130:
        assert b"kvt_zqp_record: " in s.raw.split(PROMPT)[1]  # the summary came first
    s.send("exit\n")
    assert s.wait_exit(HANG_S) == 0
