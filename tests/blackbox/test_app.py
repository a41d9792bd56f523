"""Batch runs of the real binary: frame counts, the exact layout of every line,
engine selection, and DSP user processes coming and going."""
import pytest

from conftest import check_loading, need_report, parse_frame, split_frames
from report_layout import codes, expected_codes, layout_problems, split_report


def frames_of(run):
    need_report(split_frames(run.stdout), run.stdout + run.stderr)
    frames = split_report(run.stdout)
    assert len(frames) == len(split_frames(run.stdout))
    return frames


def expected_frame_codes(t):
    return expected_codes(len(t["rows"]), t["ddr"] is not None, len(t["heaps"]),
                          len(t["processes"]))


@pytest.mark.parametrize("args,count", [
    (["-n", "3", "-d", "500"], 3),
    (["-t", "2", "-d", "500"], 4),
    (["-n", "1", "-d", "200"], 1),
], ids=["n3", "t2-d500", "n1"])
def test_batch_frame_count_and_exact_layout(run_monitor, truth, args, count):
    t = truth("full")
    r = run_monitor("full", ["-b"] + args, timeout=40)
    assert r.returncode == 0, r.stderr
    frames = frames_of(r)
    assert len(frames) == count
    # Batch output is the frames and nothing else: no escape bytes, no stray text.
    assert "\x1b" not in r.stdout
    assert r.stdout == "".join(line + "\n" for f in frames for line in f)
    for i, f in enumerate(frames):
        assert layout_problems(f) == [], f"frame {i}"
    # Once the engines are up, every section is complete.
    assert codes(frames[-1]) == expected_frame_codes(t)


@pytest.mark.parametrize("enable,rows", [
    (["-e", "vpu,YPU"], ["VPU0", "VPU1", "YPU0", "YPU1"]),
    (["-e", "jpu", "-e", "Dsp"], ["JPU0", "JPU1", "DSP0", "DSP1"]),
    (["-e", "stitch,,gdc,"], ["STITCH0", "GDC0", "GDC1"]),
], ids=["vpu-ypu", "two-options", "empty-items"])
def test_enable_list_selects_and_orders_engines(run_monitor, truth, enable, rows):
    t = truth("full")
    r = run_monitor("full", ["-b", "-d", "500", "-n", "2"] + enable, timeout=40)
    assert r.returncode == 0, r.stderr
    frames = frames_of(r)
    assert len(frames) == 2
    for f in frames:
        assert layout_problems(f) == []
        assert [label for label, _ in parse_frame(f)["rows"]] == rows
    # The rest of the report does not depend on -e.
    last = frames[-1]
    assert codes(last) == expected_codes(len(rows), True, len(t["heaps"]), len(t["processes"]))
    want = {k: v for k, v in t["loading"].items() if k in rows and not k.startswith(("YPU", "DSP"))}
    assert check_loading(want, t, parse_frame(last)["rows"]) == []


def test_bare_board_report_is_boxes_only(run_monitor, truth):
    t = truth("bare")
    n = int(t["settle_s"]) + 1
    r = run_monitor("bare", ["-b", "-d", "1000", "-n", str(n)], timeout=40)
    assert r.returncode == 0, r.stderr
    frames = frames_of(r)
    assert len(frames) == n
    for f in frames:
        assert layout_problems(f) == []
    last = frames[-1]
    # Title, loading header and one rule, no DDR box, empty ION and process boxes.
    assert codes(last) == "BTRLRIRJRPRKB"
    assert codes(last) == expected_frame_codes(t)


def frame_times(args_delay_ms, n):
    """Nominal draw time (seconds after start) of frames 1..n."""
    return [(i + 1) * args_delay_ms / 1000.0 for i in range(n)]


def test_dsp_processes_appear_and_leave(run_monitor, truth):
    """Clients start, end cleanly, get killed mid-work and start again after the
    monitor went idle; the loading follows within about one interval."""
    t = truth("dsp_churn")
    n = 18
    r = run_monitor("dsp_churn", ["-b", "-d", "500", "-n", str(n)], timeout=60)
    assert r.returncode == 0, r.stderr
    frames = frames_of(r)
    assert len(frames) == n
    parsed = [parse_frame(f) for f in frames]
    times = frame_times(500, n)
    problems = []
    for phase in t["phases"]:
        for at, fr in zip(times, parsed):
            if not phase["from_s"] <= at <= phase["to_s"]:
                continue
            assert [label for label, _ in fr["rows"]] == t["rows"]
            if phase.get("exact"):
                got = {k: v for k, v in fr["rows"] if k in phase["loading"]}
                if got != phase["loading"]:
                    problems.append(f"{at}s: {got}, want exactly {phase['loading']}")
            else:
                problems += [f"{at}s: {p}" for p in check_loading(phase["loading"], t, fr["rows"])]
    assert problems == []
    # The client that ended holds no memory any more: its row leaves the table.
    assert "dsp_a" in parsed[1]["processes"]
    for fr in parsed[8:]:
        assert set(fr["processes"]) == set(t["processes"])
    for f in frames:
        assert layout_problems(f) == []


def test_faults_board_keeps_a_well_formed_report(run_monitor, truth):
    t = truth("faults")
    n = int(t["settle_s"]) + 1
    r = run_monitor("faults", ["-b", "-d", "1000", "-n", str(n)], timeout=40)
    assert r.returncode == 0, r.stderr
    frames = frames_of(r)
    assert len(frames) == n
    for i, f in enumerate(frames):
        assert layout_problems(f) == [], f"frame {i}"
    assert codes(frames[-1]) == expected_frame_codes(t)
    # Diagnostics go to standard error only.
    assert not [line for f in frames for line in f if "failed" in line or "wrong" in line]
