"""The few checks of the simulated board itself: the launcher leaves nothing
behind and passes its command's status on. (The fakes' figures are checked
by every test that compares the programs with the truth.)"""
import os
import subprocess

from conftest import RUN_BOARD, SIM_BUILD


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


