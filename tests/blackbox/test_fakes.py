"""The few checks of the simulated board itself: the fakes give the ground truth
the report is compared with, and the launcher leaves nothing behind."""
import os
import re
import subprocess

import pytest

from conftest import RUN_BOARD, SIM_BUILD


def built(name):
    path = SIM_BUILD / name
    if not path.exists():
        pytest.skip(f"{name} not built in {SIM_BUILD} (set KZM_BUILD_DIR)")
    return path


# ----------------------------------------------------------- accelerator lib

def test_ypu_busy_fraction_matches_duty(tmp_path):
    cfg, log = tmp_path / "ypu.conf", tmp_path / "ypu.log"
    cfg.write_text(f"cores 3\nduty 30 70 0\nlog {log}\n")
    out = subprocess.run([built("kzm_ypu_sampler"), built("libypu.so.2"), "500", "1.5"],
                         capture_output=True, text=True, timeout=30, check=True,
                         env=dict(os.environ, KZM_SIM_YPU_CONFIG=str(cfg))).stdout
    busy = {int(m[0]): float(m[1]) for m in re.findall(r"^core (\d+) (\S+)$", out, re.M)}
    opens = {int(m[0]): int(m[1]) for m in re.findall(r"^open (\d+) (-?\d+)$", out, re.M)}
    calls = log.read_text().splitlines()
    assert opens == {0: 0, 1: 0, 2: 0}
    assert abs(busy[0] - 30) <= 3 and abs(busy[1] - 70) <= 3 and busy[2] == 0, busy
    assert calls[:3] == [f"open core={i} mask=0x{1 << i:x} flags=0 status=0" for i in range(3)]
    assert calls[3:] == ["close core=0", "close core=1", "close core=2"]


# --------------------------------------------------------- board and files

def test_heap_info_names_live_processes(run_on_board, truth):
    r = run_on_board("full", ["bash", "-c",
                              "cat /sys/kernel/debug/ion/heaps/all_heap_info; echo @@; "
                              "for p in $(cat $KZM_SIM_WORKDIR/logs/pids.json | tr -dc '0-9 ,' "
                              "| tr ',' ' '); do grep -H VmRSS /proc/$p/status; done"])
    assert r.returncode == 0, r.stderr
    info, rss = r.stdout.split("@@\n")
    pids = r.pids()
    assert set(pids) >= {"cam_svc", "media_svc", "dsp_app"}
    for name in ("cam_svc", "media_svc"):
        assert re.search(rf"^\s*{name}\s+{name}\s+{pids[name]}\s", info, re.M)
    for i in (6, 4, 2, 10, 5):
        assert f"the heap id is {i}\n" in info
    got = {int(m[0]): int(m[1]) for m in re.findall(r"/proc/(\d+)/status:VmRSS:\s+(\d+)", rss)}
    assert got[pids["cam_svc"]] >= 6144 and got[pids["media_svc"]] >= 3072


# ------------------------------------------------------------ the launcher

def snapshot():
    with open("/proc/self/mountinfo") as f:
        mounts = sorted(" ".join(l.split()[3:5]) for l in f)
    return mounts


def processes_of(workdir):
    """Processes whose command line or environment names the board's folder.

    Everything the launcher starts carries KZM_SIM_WORKDIR or the folder in its
    arguments, so other boards running on the same machine are not counted."""
    mark = workdir.encode()
    found = set()
    for p in os.listdir("/proc"):
        if not p.isdigit():
            continue
        try:
            with open(f"/proc/{p}/cmdline", "rb") as f:
                cmd = f.read()
            with open(f"/proc/{p}/environ", "rb") as f:
                env = f.read()
        except OSError:
            continue
        if mark in cmd or mark in env:
            found.add((p, cmd))
    return found


def test_nothing_left_on_host(board_available):
    before = snapshot()
    r = subprocess.run([RUN_BOARD, "--scenario", "faults", "--build-dir", SIM_BUILD.parent, "--",
                        "bash", "-c", 'sleep 0.5; ls /dev/shm >/dev/null; echo "$KZM_SIM_WORKDIR"'],
                       capture_output=True, text=True, timeout=60)
    assert r.returncode == 0, r.stderr
    workdir = r.stdout.strip()
    assert workdir.startswith("/tmp/kzm-board-"), r.stdout
    assert snapshot() == before, "mounts changed on the host"
    assert processes_of(workdir) == set(), "processes left"
    # Only this run's own folder: other boards may come and go meanwhile.
    assert not os.path.exists(workdir), "temporary board folder left in /tmp"


def test_exit_status_propagates(run_on_board):
    assert run_on_board("bare", ["bash", "-c", "exit 3"]).returncode == 3
    assert run_on_board("bare", ["bash", "-c", "kill -TERM $$"]).returncode == 128 + 15
    assert run_on_board("bare", ["/nonexistent/cmd"]).returncode == 127


