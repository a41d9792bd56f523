"""The one check of the simulated board itself: the launcher leaves nothing
behind. (The fakes' figures are checked by every test that compares the
programs with the truth, the command's status by every test of a status.)"""
import os
import subprocess
from pathlib import Path

from conftest import RUN_BOARD, SIM_BUILD


# ------------------------------------------------------------ the launcher

def snapshot():
    with open("/proc/self/mountinfo") as f:
        return sorted(" ".join(l.split()[3:5]) for l in f)


def processes_of(workdir):
    """Processes whose command line or environment names the board's folder.

    Everything the launcher starts carries KZM_SIM_WORKDIR or the folder in its
    arguments, so other boards running on the same machine are not counted."""
    mark = workdir.encode()
    found = set()
    for p in filter(str.isdigit, os.listdir("/proc")):
        try:
            cmd, env = (Path(f"/proc/{p}/{n}").read_bytes() for n in ("cmdline", "environ"))
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
