"""Self-tests of the simulated board's fakes and of the launcher."""
import json
import os
import pwd
import re
import shutil
import subprocess
import sys
import tempfile
import textwrap

import pytest

from conftest import (REPO, RUN_BOARD, SIM_BUILD, check_loading, load_scenario, need_report,
                      parse_frame, split_frames)

PY = "/usr/bin/python3"


def built(name):
    path = SIM_BUILD / name
    if not path.exists():
        pytest.skip(f"{name} not built in {SIM_BUILD} (set KZM_BUILD_DIR)")
    return path


# ----------------------------------------------------------- accelerator lib

def sample_ypu(tmp_path, config, seconds="1.5", lib=None):
    built("kzm_ypu_sampler")
    cfg = tmp_path / "ypu.conf"
    log = tmp_path / "ypu.log"
    cfg.write_text(config + f"\nlog {log}\n")
    env = dict(os.environ, KZM_SIM_YPU_CONFIG=str(cfg))
    out = subprocess.run([SIM_BUILD / "kzm_ypu_sampler", lib or built("libypu.so.2"), "500",
                          seconds], capture_output=True, text=True, env=env, timeout=30,
                         check=True).stdout
    busy = {int(m[0]): float(m[1]) for m in re.findall(r"^core (\d+) (\S+)$", out, re.M)}
    opens = {int(m[0]): int(m[1]) for m in re.findall(r"^open (\d+) (-?\d+)$", out, re.M)}
    return busy, opens, log.read_text().splitlines() if log.exists() else []


def test_ypu_busy_fraction_matches_duty(tmp_path):
    busy, opens, calls = sample_ypu(tmp_path, "cores 3\nduty 30 70 0")
    assert opens == {0: 0, 1: 0, 2: 0}
    assert abs(busy[0] - 30) <= 3 and abs(busy[1] - 70) <= 3 and busy[2] == 0, busy
    assert calls[:3] == [f"open core={i} mask=0x{1 << i:x} flags=0 status=0" for i in range(3)]
    assert calls[3:] == ["close core=0", "close core=1", "close core=2"]


def test_ypu_open_failure_and_null_close(tmp_path):
    _, opens, calls = sample_ypu(tmp_path, "cores 3\nduty 50 50 50\nopen_fail 1 -5", "0.1")
    assert opens == {0: 0, 1: -5, 2: 0}
    assert "open core=1 mask=0x2 flags=0 status=-5" in calls
    assert "close core=null" in calls  # the handle of the failed core stays null


def test_ypu_zero_cores(tmp_path):
    busy, opens, calls = sample_ypu(tmp_path, "cores 0", "0.1")
    assert busy == {} and opens == {} and calls == []


# ------------------------------------------------------------------ DDR tool

def run_ddr(tmp_path, cfg, seconds=1.3):
    log = tmp_path / "argv.log"
    cfg = dict(cfg, argv_log=str(log))
    (tmp_path / "ddr.json").write_text(json.dumps(cfg))
    env = dict(os.environ, KZM_SIM_DDR_CONFIG=str(tmp_path / "ddr.json"))
    p = subprocess.Popen([PY, REPO / "sim" / "plox_ddr", "-t", "ypu", "-p", "100000", "-n", "2"],
                         stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, env=env)
    try:
        out, err = p.communicate(timeout=seconds)
    except subprocess.TimeoutExpired:
        p.kill()
        out, err = p.communicate()
    return p.returncode, out, err, log.read_text()


def test_plox_ddr_prints_table(tmp_path):
    rc, out, _, argv = run_ddr(tmp_path, {"read": 1234, "write": [567, 568], "interval_s": 1})
    lines = out.splitlines()
    assert json.loads(argv) == ["-t", "ypu", "-p", "100000", "-n", "2"]
    rows = [[f.strip() for f in l.split("|") if f.strip()] for l in lines if not l.startswith("-")]
    assert ["Read", "ypu", "1234"] in rows and ["Write", "ypu", "567"] in rows
    assert ["Write", "ypu", "568"] in rows  # the second table, a second later
    assert all(set(l) == {"-"} for l in lines if l.startswith("-"))


def test_plox_ddr_failure_modes(tmp_path):
    rc, out, err, _ = run_ddr(tmp_path, {"mode": "fail"})
    assert rc == 1 and out == "" and err
    rc, out, _, _ = run_ddr(tmp_path, {"mode": "malformed", "read": 25, "write": 3}, 0.5)
    assert "| Read  | ypu    | 25.5" in out
    rc, out, _, _ = run_ddr(tmp_path, {"mode": "silent"}, 0.5)
    assert out == ""


# --------------------------------------------------------- board and files

def test_board_shows_fake_entries(run_on_board):
    r = run_on_board("full", ["bash", "-c", textwrap.dedent("""
        ls /dev/vdsp* /dev/jpu* /dev/vpu*; echo ==
        cat /sys/devices/system/ypu/core_num /sys/class/boardinfo/soc_name; echo ==
        ls /dev/shm; echo ==
        ls /sys/devices/virtual/vps/flow; echo ==
        ls -l /run/; echo ==
        command -v plox_ddr; echo ==
        cat /proc/1/cmdline | tr '\\0' ' '""")])
    assert r.returncode == 0, r.stderr
    parts = r.stdout.split("==\n")
    assert parts[0].split() == ["/dev/jpu", "/dev/jpu1", "/dev/vdsp0", "/dev/vdsp1", "/dev/vpu",
                                "/dev/vpu1"]
    assert parts[1].split() == ["2", "ZQ5-sim"]
    assert parts[2].split() == ["dsp_loading_node_1_0", "dsp_loading_node_1_1"]
    assert "pym4_src" in parts[3].split() and "stitch0_ich0" in parts[3].split()
    assert "dsp_loading_flock_0" in parts[4] and "dsp_loading_flock_1" in parts[4]
    assert parts[5].strip().endswith("/bin/plox_ddr")
    assert "run-board --inner" in parts[6]


def test_library_found_by_plain_dlopen(run_on_board):
    r = run_on_board("full", [built("kzm_ypu_sampler"), "libypu.so.2", "200", "0.2"])
    assert r.returncode == 0, r.stderr
    assert "cores 2" in r.stdout


def test_bare_board_has_nothing(run_on_board):
    r = run_on_board("bare", ["bash", "-c", textwrap.dedent("""
        ls /dev | tr '\\n' ' '; echo
        ls /dev/shm | wc -l
        test -e /sys/devices/system/ypu && echo ypu
        test -e /sys/class/boardinfo && echo boardinfo
        test -e /sys/devices/virtual/vps && echo vps
        ls /sys/kernel/debug | wc -l
        command -v plox_ddr || echo no-ddr-tool""")])
    assert r.returncode == 0, r.stderr
    lines = r.stdout.splitlines()
    assert not re.search(r"\b(vdsp|jpu|vpu)", lines[0])
    assert lines[1:] == ["0", "0", "no-ddr-tool"]
    r = run_on_board("bare", [built("kzm_ypu_sampler"), "libypu.so.2", "100", "0.1"])
    assert r.returncode == 1 and "dlopen" in r.stderr


READ_WRITE = """
import os, sys, time
p = sys.argv[1]
fd = os.open(p, os.O_RDWR)
print(os.write(fd, b"1000"))
a = os.read(fd, 63).decode(); os.lseek(fd, 0, 0); b = os.read(fd, 63).decode()
print(repr(a)); print(repr(b))
try:
    os.open("/sys/kernel/debug/jpu/loading", os.O_RDWR); print("jpu-writable")
except PermissionError:
    print("jpu-read-only")
seen = set()
end = time.time() + 2.2
while time.time() < end:
    with open("/sys/kernel/debug/jpu1/loading") as f: seen.add(f.read().strip())
    time.sleep(0.1)
print(sorted(seen))
"""


def test_loading_file_write_semantics(run_on_board):
    gdc0 = "/sys/devices/virtual/vps/flow/gdc0_src/loading"
    r = run_on_board("full", [PY, "-c", READ_WRITE, gdc0])
    assert r.returncode == 0, r.stderr
    if "FUSE fallback" in r.stderr:
        pytest.skip("the board's files are plain files here (no FUSE): no write semantics")
    lines = r.stdout.splitlines()
    assert lines[0] == "4"
    # Like sysfs, the write moved the file position: the text is read from
    # there, and in full after a rewind; the write changed nothing.
    assert lines[1] == repr("ing: 37.5 %\n")
    assert lines[2] == repr("loading: 37.5 %\n")
    assert lines[3] == "jpu-read-only"
    assert lines[4] == "['10', '30']"  # alternating once a second
    assert r.writes() == [(gdc0, "1000")]


DSP_PROBE = """
import json, os, struct, subprocess, sys, time
client, fifo = sys.argv[1], "/run/dsp_event"
os.mkfifo(fifo, 0o666)
rfd = os.open(fifo, os.O_RDONLY | os.O_NONBLOCK)
def node(i):
    with open(f"/dev/shm/dsp_loading_node_1_{i}", "rb") as f:
        return struct.unpack("<QQII32I", f.read(152))
p = subprocess.Popen([client, "--nodes", "2", "--cores", "1", "--duty", "30", "--period-ms", "10",
                      "--lifetime-ms", "1500"])
time.sleep(0.3)
msg = struct.unpack("<II", os.read(rfd, 8))
n0, n1 = node(0), node(1)
slot = msg[1]
busy = [0, 0]
for _ in range(2000):
    for c in (0, 1):
        busy[c] += bool(node(c)[3] & (1 << slot))
    time.sleep(0.0003)
p.wait()
after = node(0), node(1)
d = subprocess.Popen([client, "--nodes", "2", "--cores", "0", "--duty", "100", "--lifetime-ms", "200",
                      "--die"])
d.wait()
dead = node(0)
print(json.dumps({"pid": p.pid, "msg": msg, "magic": n0[0], "free0": n0[2], "free1": n1[2],
    "pids0": n0[4 + slot], "pids1": n1[4 + slot], "busy": [b / 20 for b in busy],
    "rc": p.returncode, "free_after": [after[0][2], after[1][2]],
    "running_after": [after[0][3], after[1][3]], "die_rc": d.returncode, "die_free": dead[2],
    "die_running": dead[3], "die_pid": d.pid, "die_slot_pid": dead[4 + slot]}))
"""


def test_dsp_client_slot_fifo_and_duty(run_on_board, tmp_path):
    scen = load_scenario("full")
    scen["dsp"]["clients"] = []
    path = tmp_path / "dsp_only.json"
    path.write_text(json.dumps(scen))
    r = run_on_board(path, [PY, "-c", DSP_PROBE, built("kzm_dsp_client")])
    assert r.returncode == 0, r.stderr
    d = json.loads(r.stdout)
    assert d["magic"] == 0xAFAF3B8A40992FD3
    assert d["msg"] == [d["pid"], 0]  # lowest free slot, announced on the fifo
    assert d["free0"] == d["free1"] == 0xFFFFFFFE
    assert d["pids0"] == d["pids1"] == d["pid"]
    assert d["busy"][0] == 0 and abs(d["busy"][1] - 30) <= 5, d["busy"]
    assert d["rc"] == 0 and d["free_after"] == [0xFFFFFFFF] * 2 and d["running_after"] == [0, 0]
    # A client that dies keeps its slot and its running bit.
    assert d["die_rc"] == -9 and d["die_free"] == 0xFFFFFFFE and d["die_running"] == 1
    assert d["die_slot_pid"] == d["die_pid"]


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


def test_interactive_terminal_keeps_working(pty_session):
    s = pty_session(["bash", "-c", "stty size; tty; read -r x; echo got:$x"], rows=30, cols=100)
    assert s.wait_for(r"30 100"), s.text()
    assert s.wait_for(r"/dev/pts/\d+"), s.text()
    s.send("hello\r")
    assert s.wait_for(r"got:hello"), s.text()
    assert s.wait_exit(10) == 0


NOBODY = 65534
AS_NOBODY = ["setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}", "--clear-groups"]


def nobody_can_use(paths):
    """True when user nobody can read (and run) every path."""
    tests = " && ".join(f"test -r '{p}'" + (f" && test -x '{p}'" if os.access(p, os.X_OK) else "")
                        for p in paths)
    return subprocess.run(AS_NOBODY + ["sh", "-c", tests], cwd="/",
                          stdin=subprocess.DEVNULL, capture_output=True).returncode == 0


def test_board_runs_without_root(binary):
    if os.geteuid() != 0:
        pytest.skip("needs root to run the launcher as user nobody")
    try:
        if pwd.getpwuid(NOBODY).pw_name != "nobody":
            raise KeyError
    except KeyError:
        pytest.skip("no user nobody (uid 65534) on this machine")
    if shutil.which("setpriv") is None:
        pytest.skip("setpriv (util-linux) is not installed")
    probe = subprocess.run(AS_NOBODY + ["unshare", "--user", "--map-root-user", "--mount",
                                        "--pid", "--fork", "--mount-proc", "true"], cwd="/",
                           stdin=subprocess.DEVNULL, capture_output=True, text=True)
    if probe.returncode != 0:
        pytest.skip("unprivileged user namespaces are not available: " + probe.stderr.strip())
    artifacts = [built(a) for a in ("libypu.so.2", "kzm_board_fs", "kzm_dsp_client",
                                    "kzm_proc_holder")]
    top = tempfile.mkdtemp(prefix="kzm-nonroot-")
    try:
        os.chmod(top, 0o755)
        run_board, build_dir, mon = RUN_BOARD, SIM_BUILD.parent, binary
        sim_files = [RUN_BOARD, REPO / "sim" / "plox_ddr", REPO / "sim" / "scenarios" / "full.json"]
        if not nobody_can_use(sim_files + artifacts + [binary]):
            # A copy where nobody can reach it, laid out as the launcher expects.
            for f in sim_files:
                dst = os.path.join(top, os.path.relpath(f, REPO))
                os.makedirs(os.path.dirname(dst), mode=0o755, exist_ok=True)
                shutil.copy(f, dst)
            os.makedirs(os.path.join(top, "build", "sim"), mode=0o755)
            for a in artifacts:
                shutil.copy(a, os.path.join(top, "build", "sim"))
            shutil.copy(binary, os.path.join(top, "build"))
            for d, dirs, files in os.walk(top):
                for n in dirs + files:
                    p = os.path.join(d, n)
                    os.chmod(p, 0o755 if os.access(p, os.X_OK) else 0o644)
            run_board = os.path.join(top, "sim", "run-board")
            build_dir = os.path.join(top, "build")
            mon = os.path.join(build_dir, os.path.basename(binary))
        work = os.path.join(top, "board")
        os.mkdir(work)
        os.chown(work, NOBODY, NOBODY)
        r = subprocess.run(AS_NOBODY + [run_board, "--scenario", "full", "--build-dir", build_dir,
                                        "--workdir", work, "--", mon, "-b", "-n", "2", "-d", "500"],
                           cwd="/", stdin=subprocess.DEVNULL, capture_output=True, text=True,
                           timeout=60)
        if r.returncode == 77 and "cannot build the board" in r.stderr:
            pytest.skip("board cannot be built as nobody here: " + r.stderr.strip())
        assert r.returncode == 0, r.stderr
        frames = split_frames(r.stdout)
        need_report(frames, r.stdout + r.stderr)
        assert len(frames) == 2
        last = parse_frame(frames[-1])
        t = load_scenario("full")["truth"]
        labels = [label for label, _ in last["rows"]]
        assert labels[:2] == ["YPU0", "YPU1"], labels
        want = {k: t["loading"][k] for k in ("YPU0", "YPU1", "GDC0", "ISP0", "PYM2")}
        assert check_loading(want, t, last["rows"]) == [], (last["rows"], r.stderr)
        assert last["ddr"] == t["ddr"]
        if not (os.path.exists("/dev/fuse") and os.stat("/dev/fuse").st_mode & 0o006 == 0o006):
            # FUSE is closed to nobody: the launcher said it used plain files.
            assert "FUSE fallback" in r.stderr, r.stderr
    finally:
        shutil.rmtree(top, ignore_errors=True)
