"""The real binary on the simulated board, compared with each scenario's ground truth.

Report checks skip (with the reason) while the binary draws no report; set
KZM_BLACKBOX_STRICT=1 to make that a failure.
"""
import json

import pytest

from conftest import check_loading, format_size, need_report, parse_frame, split_frames


def frames_of(run):
    frames = split_frames(run.stdout)
    need_report(frames, run.stdout + run.stderr)
    return [parse_frame(f) for f in frames]


def check_final(frame, t):
    assert [label for label, _ in frame["rows"]] == t["rows"]
    assert check_loading(t["loading"], t, frame["rows"]) == []
    if t["ddr"] is None:
        assert not frame["has_ddr_box"]
    else:
        assert frame["ddr"] == t["ddr"]
    want_heaps = {name: (format_size(h["total"]), format_size(h["used"]),
                         format_size(h["total"] - h["used"])) for name, h in t["heaps"].items()}
    assert frame["heaps"] == want_heaps
    assert set(frame["processes"]) == set(t["processes"])
    for name, p in t["processes"].items():
        _, rss, ion = frame["processes"][name]
        assert ion == format_size(p["ion_bytes"])


@pytest.mark.parametrize("scenario", ["full", "bare"])
def test_batch_report_matches_truth(run_monitor, truth, scenario):
    t = truth(scenario)
    n = int(t["settle_s"]) + 2
    r = run_monitor(scenario, ["-b", "-d", "1000", "-n", str(n)], timeout=n + 30)
    assert r.returncode == 0, r.stderr
    frames = frames_of(r)
    assert len(frames) == n
    check_final(frames[-1], t)
    for line in t["stderr"]:
        assert line in r.stderr


def test_batch_faults(run_monitor, truth):
    t = truth("faults")
    n = int(t["settle_s"]) + 1
    r = run_monitor("faults", ["-b", "-d", "1000", "-n", str(n)], timeout=n + 30)
    assert r.returncode == 0, r.stderr
    frames = frames_of(r)
    assert r.log("ypu_calls.log").splitlines() == t["ypu_calls"]
    assert json.loads(r.log("ddr_argv.log").splitlines()[0]) == t["ddr_argv"]
    for line in t["stderr"]:
        assert line in r.stderr
    early = frames[int(t["early"]["before_s"]) - 1]
    assert check_loading(t["early"]["loading"], t, early["rows"]) == []
    check_final(frames[-1], t)


@pytest.mark.parametrize("scenario", ["full", "faults"])
def test_sample_period_written_and_tool_command(run_monitor, truth, scenario):
    t = truth(scenario)
    r = run_monitor(scenario, ["-b", "-d", "1000", "-n", "2"], timeout=40)
    assert r.returncode == 0, r.stderr
    if not r.writes() and not r.log("ddr_argv.log"):
        need_report([], r.stdout + r.stderr)
    written = {path: data for path, data in r.writes()}
    for path in t["sample_period_written"]:
        assert written.get(path) == "1000", written
    assert set(written) <= set(t["sample_period_written"]) | {
        p for p in written if p.startswith("/sys/devices/virtual/vps/")}
    assert json.loads(r.log("ddr_argv.log").splitlines()[0]) == t["ddr_argv"]


def test_interactive_quit_key(pty_session, binary, truth):
    s = pty_session([binary], rows=50, cols=100, scenario="full")
    drew = s.wait_for(r"Monitor 2\.2\.4", timeout=6)
    if not drew:
        status = s.wait_exit(2)
        need_report([], f"exit {status}: {s.raw[-300:]!r}")
    assert s.wait_for(r"YPU0", timeout=4), s.text()
    s.send("q")
    assert s.wait_exit(5) == 0
    assert b"\x1b[?25h" in s.raw  # the cursor is shown again
