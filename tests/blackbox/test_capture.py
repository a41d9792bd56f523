"""kvt_zqp_capture on the simulated board: beside a running monitor it changes
nothing the monitor sees or sets, and its --info names what the board has."""
import re
import signal
import subprocess
import sys
from collections import Counter

import pytest

from board_truth import check_loading
from conftest import REPO
from recordings import csv_records
from report_layout import split_report, values

sys.path.insert(0, str(REPO / "sim"))
from capture_file import read_capture  # noqa: E402  (the replay's own reader)


def info(capture_binary, path):
    return subprocess.run([capture_binary, "--info", path], capture_output=True, text=True,
                          timeout=60)


def test_capture_beside_the_monitor(run_on_board, binary, capture_binary, record_binary, truth,
                                    tmp_path):
    t = truth("full")
    out, recorded = tmp_path / "full.kzc", tmp_path / "records.csv"
    # The capture starts first and ends last; the monitor and a recorder run in
    # between.
    script = (f"{capture_binary} -d 500 -o {out} & c=$!; sleep 0.5; "
              f"{record_binary} -n 4 -d 500 -o {recorded} & r=$!; "
              f"{binary} -b -n 4 -d 500; m=$?; wait $r; w=$?; kill -INT $c; wait $c; "
              f"echo capture=$? monitor=$m recorder=$w; echo $(ls /var/run)")
    r = run_on_board("full", ["sh", "-c", script])
    assert r.returncode == 0, r.stderr
    assert r.stdout.splitlines()[-2] == "capture=0 monitor=0 recorder=0"
    # The monitor made the DSP event fifo and took it away again.
    assert "dsp_event" not in r.stdout.splitlines()[-1].split()
    frames = split_report(r.stdout)
    assert [row[0] for row in values(frames[-1])["rows"]] == t["rows"]
    records = csv_records(recorded)
    assert len(records) == 4
    files = {k: v for k, v in t["loading"].items() if not re.match(r"(YPU|DSP)\d", k)}
    assert check_loading(files, t, records[-1]["loading"]) == []
    # The monitor alone sets the vps-flow files' period, once each: the capture
    # and the recorder write nothing there.
    writes = r.writes()
    assert sorted(data for _, data in writes) == ["500"] * len({p for p, _ in writes})
    assert len(writes) == len([row for row in t["rows"]
                               if re.match(r"(GDC|ISP|PYM|STITCH)\d", row)])

    shown = info(capture_binary, out)
    assert (shown.returncode, shown.stderr) == (0, "")
    lines = shown.stdout.splitlines()
    assert re.fullmatch(r"began     \S+ \S+ UTC, \d+\.\d s, ended cleanly", lines[1])
    assert lines[2] == "options   -d 500 -f 500 -e (all)"
    engines = dict(re.findall(r"^engine    (\w+): (\d+) ", shown.stdout, re.M))
    counted = {}
    for row in t["rows"]:
        name = row.rstrip("0123456789")
        counted[name] = counted.get(name, 0) + 1
    assert {name: int(n) for name, n in engines.items()} == counted
    # The replay's reader, written from the manual page's format, reads what
    # --info read, and the capture holds what the board really gave.
    records, problem = read_capture(out)
    assert problem is None
    counts = Counter(kind for kind, _ in records)
    assert re.search(r"^records   " + ", ".join(f"{k} {counts[k]}" for k in (
        "start", "list", "file", "engine", "ypu", "dsp", "ddr", "end", "ddr-exit")) + "$",
        shown.stdout, re.M)
    files = {f["path"]: f for kind, f in records if kind == "file" and f["t_us"] == 0}
    assert files["/sys/class/boardinfo/soc_name"]["content"] == b"ZQ5-sim\n"
    ddr = [f["line"] for kind, f in records if kind == "ddr"]
    assert any(re.match(rb"\| Read\s*\| ypu\s*\| %d\s*$" % t["ddr"]["read"], line) for line in ddr)
    caps = {c["cap"] for kind, f in records if kind == "ypu" for c in f["changes"]}
    assert caps & set(range(64)) and caps - set(range(64))  # busy and idle answers both

    # The processes the monitor showed, with the command lines their stand-ins
    # will carry (a DSP client's heap name is not its own).
    shown_processes = values(frames[-1])["processes"]
    assert len(shown_processes) >= 2
    for name, (pid, *_) in shown_processes.items():
        assert re.search(rf"^process   {pid} \S+: \S*kzm_(proc_holder|dsp_client) ", shown.stdout,
                         re.M), name


def test_capture_killed_describes_what_it_wrote(run_on_board, capture_binary, tmp_path):
    out = tmp_path / "killed.kzc"
    # Killed once it has written the accelerator's and the DSP nodes' changes
    # (however long that takes here), while it goes on writing.
    r = run_on_board("full", ["sh", "-c", f"{capture_binary} -d 200 -o {out} & c=$!; "
                              f"until {capture_binary} --info {out} 2>/dev/null | "
                              f"grep -q 'ypu [1-9][0-9]*, dsp [1-9]'; do sleep 0.2; done; "
                              f"kill -KILL $c; wait $c; echo capture=$?"])
    assert r.stdout.splitlines()[-1] == f"capture={128 + signal.SIGKILL}"
    shown = info(capture_binary, out)
    # Each record is one write, so a killed capture ends after a whole one.
    assert (shown.returncode, shown.stderr) == (0, "")
    assert shown.stdout.splitlines()[1].endswith(", no end record")
    assert re.search(r"^records   start 1, list 2, file \d+, engine 8, ypu [1-9]\d*, dsp [1-9]\d*, "
                     r"ddr \d+, end 0, ddr-exit 0$", shown.stdout, re.M)


def test_capture_descriptors_stay_flat_over_dsp_churn(run_on_board, capture_binary, tmp_path):
    """The capture watches each live DSP slot holder for its end (a process
    descriptor) and lets go of it when the holder ends or leaves: over clients
    that come, end cleanly and die holding a slot, it holds one descriptor per
    live holder and nothing more."""
    out = tmp_path / "churn.kzc"
    # dsp_a holds a slot from the start to 2.5 s, dsp_b from 1 s until it dies
    # at 3 s, dsp_c from 6 s on.
    look = "echo $(ls /proc/$c/fd | wc -l) $(ls -l /proc/$c/fd | grep -c pidfd)"
    # The capture runs until the last look has been taken, however slow.
    r = run_on_board("dsp_churn", ["sh", "-c", f"{capture_binary} -o {out} & c=$!; "
                                   f"for i in $(seq 32); do {look}; sleep 0.25; done; "
                                   f"kill -INT $c; wait $c; echo capture=$?"])
    assert r.stdout.split()[-1] == "capture=0", r.stderr
    seen = [tuple(map(int, line.split())) for line in r.stdout.splitlines()[:-1]]
    holders = [p for _, p in seen]
    # Two live holders, then none, then dsp_c alone.
    idle = holders.index(0, holders.index(2))
    assert holders[-1] == 1 and set(holders[idle:]) == {0, 1}, seen
    # Other descriptors come and go with the reads of a tick; none piles up.
    assert seen[-1][0] <= max(total for total, _ in seen[:idle]), seen
    records, _ = read_capture(out)
    gone = [f["path"] for kind, f in records if kind == "file" and f["path"].endswith("/status")
            and not f["present"]]
    assert len(gone) >= 2  # dsp_a and dsp_b ended, each recorded gone


@pytest.mark.parametrize("args, err", [
    ([], "kvt_zqp_capture: say where the capture goes with -o FILE\n"),
    (["-o", "x", "--info", "y"], "kvt_zqp_capture: --info reads a capture; it takes no -o\n"),
    (["-o", "x", "extra"], "kvt_zqp_capture: unexpected argument 'extra'\n"),
    (["--info", "/nonexistent/run.kzc"],
     "cannot read /nonexistent/run.kzc: No such file or directory\n"),
    (["-o", "/nonexistent/run.kzc"],
     "kvt_zqp_capture: cannot write /nonexistent/run.kzc: No such file or directory\n"),
    (["-d", "50", "-o", "x"], "delay valid range is [100, 10000], but get 50\n"),
], ids=["no output", "info and output", "extra word", "missing file", "unwritable", "bad delay"])
def test_capture_refuses(capture_binary, args, err):
    r = subprocess.run([capture_binary] + args, capture_output=True, text=True, timeout=60)
    assert (r.returncode, r.stdout, r.stderr) == (1, "", err)
