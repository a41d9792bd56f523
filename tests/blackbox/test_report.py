"""Batch runs of the real binary on the simulated boards: frame counts, the exact
bytes of every line, the figures against each scenario's ground truth, what the
monitor writes and runs, engine selection, and DSP clients coming and going."""
import json

import pytest

from board_truth import check_loading, tolerance
from conftest import SCENARIOS
from report_layout import codes, expected_codes, format_size, layout_problems, split_report, values


def batch_frames(run, count):
    """The frames of a batch run, checked for what holds in every batch run."""
    assert run.returncode == 0, run.stderr
    frames = split_report(run.stdout)
    assert len(frames) == count
    # The output is the frames and nothing else: no escape bytes, no diagnostics.
    assert "\x1b" not in run.stdout
    assert run.stdout == "".join(line + "\n" for f in frames for line in f)
    for i, f in enumerate(frames):
        assert layout_problems(f) == [], f"frame {i}"
    return frames


def truth_codes(t, rows=None, ddr=None):
    return expected_codes(len(t["rows"] if rows is None else rows),
                          t["ddr"] is not None if ddr is None else ddr, len(t["heaps"]),
                          len(t["processes"]))


def heap_figures(t):
    return {name: (format_size(h["total"]), format_size(h["used"]),
                   format_size(h["total"] - h["used"])) for name, h in t["heaps"].items()}


def check_figures(frame, t, loading):
    """The frame against the truth; `loading` is the truth's, with the DSP clients'
    real shares for the frame."""
    got = values(frame)
    assert [label for label, _ in got["rows"]] == t["rows"]
    assert check_loading(loading, t, got["rows"]) == []
    assert got["ddr"] == t["ddr"]
    assert got["heaps"] == heap_figures(t)
    assert {name: p[2] for name, p in got["processes"].items()} == {
        name: format_size(p["ion_bytes"]) for name, p in t["processes"].items()}


# full runs with -t at half the default delay: 4 s are 8 frames, and the period
# written into the loading files is the delay.
@pytest.mark.parametrize("scenario,args,count,delay", [
    ("full", ["-t", "4", "-d", "500"], 8, 0.5),
    ("bare", ["-n", "3", "-d", "1000"], 3, None),
    ("faults", ["-n", "7"], 7, 1.0),
])
def test_batch_report_matches_truth(run_monitor, truth, scenario, args, count, delay):
    t = truth(scenario)
    r = run_monitor(scenario, ["-b"] + args, timeout=40)
    frames = batch_frames(r, count)
    times = r.frame_times(frames)
    dsp = r.dsp(times, delay or 1.0)
    assert codes(frames[-1]) == truth_codes(t)
    check_figures(frames[-1], t, dsp.loading(t["loading"], times[-1], delay or 1.0))
    for line in t["stderr"]:
        assert line in r.stderr
    assert r.log("ypu_calls.log").splitlines() == t["ypu_calls"]
    argv = r.log("ddr_argv.log").splitlines()
    assert (json.loads(argv[0]) if argv else None) == t["ddr_argv"]
    written = dict(r.writes())
    period = None if delay is None else str(int(delay * 1000))
    assert written == {path: period for path in t["sample_period_written"]}
    if "early" in t:
        i = int(t["early"]["before_s"]) - 1
        early = dsp.loading(t["early"]["loading"], times[i], delay)
        assert check_loading(early, t, values(frames[i])["rows"]) == []


@pytest.mark.parametrize("enable,rows", [
    (["-e", "vpu,YPU"], ["VPU0", "VPU1", "YPU0", "YPU1"]),
    (["-e", "jpu", "-e", "Dsp"], ["JPU0", "JPU1", "DSP0", "DSP1"]),
    (["-e", "stitch,,gdc,"], ["STITCH0", "GDC0", "GDC1"]),
], ids=["vpu-ypu", "two-options", "empty-items"])
def test_enable_list_selects_and_orders_engines(run_monitor, truth, enable, rows):
    t = truth("full")
    r = run_monitor("full", ["-b", "-d", "500", "-n", "2"] + enable, timeout=40)
    frames = batch_frames(r, 2)
    for f in frames:
        assert [label for label, _ in values(f)["rows"]] == rows
    # The rest of the report does not depend on -e.
    assert codes(frames[-1]) == truth_codes(t, rows, True)
    want = {k: v for k, v in t["loading"].items() if k in rows and not k.startswith(("YPU", "DSP"))}
    assert check_loading(want, t, values(frames[-1])["rows"]) == []


def test_dsp_processes_appear_and_leave(run_monitor, truth):
    """Clients start, end cleanly, get killed mid-work and start again after the
    monitor went idle; the loading follows within about one interval. Each frame
    is compared with what the clients really did (their logs) over the windows
    it can cover, at the time it really came; idle, the monitor shows exactly 0.0."""
    t = truth("dsp_churn")
    n, delay = 45, 0.2
    r = run_monitor("dsp_churn", ["-b", "-d", "200", "-n", str(n)], timeout=60)
    frames = batch_frames(r, n)
    times = r.frame_times(frames)
    dsp = r.dsp(times, delay)
    parsed = [values(f) for f in frames]
    problems, shown, idle = [], {label: 0 for label in t["rows"]}, 0
    for fr, at in zip(parsed, times):
        assert [label for label, _ in fr["rows"]] == t["rows"]
        want = dsp.loading(t["loading"], at, delay)
        problems += [f"{at - r.clock_start():.2f}s: {p}"
                     for p in check_loading(want, t, fr["rows"])]
        for label, share in want.items():
            shown[label] += share.definite(tolerance(t, label))
        idle += all(share.exact_zero for share in want.values())
    assert problems == []
    # Not vacuous: each core had frames that had to show a client's load, and
    # frames of the idle monitor had to show 0.0.
    assert min(shown.values()) > 0 and idle > 0, (shown, idle)
    # The client that ended holds no memory any more: its row leaves the table.
    early = [fr for fr, at in zip(parsed, times) if at - r.clock_start() < 2.0]
    assert early and all("dsp_a" in fr["processes"] for fr in early)
    late = [fr for fr, at in zip(parsed, times) if at - r.clock_start() > t["settle_s"]]
    assert late
    for fr in late:
        assert set(fr["processes"]) == set(t["processes"])
        # The heap text still lists what the ended client held.
        assert fr["heaps"] == heap_figures(t)


def test_heap_text_of_5000_rows_is_read_whole(run_monitor, tmp_path):
    """debugfs texts have no size limit: a heap text of 5,000 allocation rows
    (about 370 KB) is summed to its last row, and the heap after it is read."""
    names = ["cam_svc", "media_svc", "dsp_app", "npu_pipeline"]
    # Small rows of varied page counts, then one large row per process at the
    # very end, so that a text cut short anywhere shows a smaller used figure.
    rows = [(names[i % 4], 4096 * (1 + i * 7 % 13)) for i in range(4996)]
    rows += [(name, (k + 3) << 23) for k, name in enumerate(names)]
    scen = json.loads((SCENARIOS / "bare.json").read_text())
    scen["processes"] = [{"name": n, "rss_kb": 1024} for n in names]
    scen["ion"] = {"heaps": [{"id": 6, "total": 1 << 30, "allocations": rows},
                             {"id": 5, "total": 1 << 25, "allocations": []}]}
    path = tmp_path / "heap_5000.json"
    path.write_text(json.dumps(scen))
    used = sum(size for _, size in rows)
    ion = {n: format_size(sum(size for name, size in rows if name == n)) for n in names}
    frames = batch_frames(run_monitor(path, ["-b", "-n", "3", "-d", "300"], timeout=40), 3)
    for f in frames:
        assert codes(f) == expected_codes(0, False, 2, len(names))
        got = values(f)
        assert got["heaps"] == {name: tuple(format_size(n) for n in (total, u, total - u))
                                for name, total, u in (("cma_reserved", 1 << 30, used),
                                                       ("custom", 1 << 25, 0))}
        assert {name: p[2] for name, p in got["processes"].items()} == ion
