"""The simulated board: its files, mounts, fakes and processes, as a scenario
(sim/scenarios/*.json) describes them. Used by sim/run-board, which enters the
namespaces first; see sim/README.md."""
import errno
import glob
import json
import os
import shutil
import signal
import struct
import subprocess
import sys
import threading
import time

SIM_DIR = os.path.dirname(os.path.realpath(__file__))
REPO_DIR = os.path.dirname(SIM_DIR)
CANNOT_RUN = 77

DSP_MAGIC = 0xAFAF3B8A40992FD3
VPS_ROOT = "/sys/devices/virtual/vps"
DEBUG_ROOT = "/sys/kernel/debug"
# The accelerator library is added to the loader's own default folder, so a
# plain dlopen("libypu.so.2") finds it without any environment variable.
LIB_DIR = "/usr/lib/x86_64-linux-gnu"
MS_BIND = 4096
ARTIFACTS = ("libypu.so.2", "kzm_board_fs", "kzm_dsp_client", "kzm_proc_holder")
HEAP_RULE = "-" * 60
HEAP_RULE2 = "=" * 60
# How soon a heap row that waits for a file follows its appearance.
FILE_POLL_S = 0.01


class BoardError(Exception):
    pass


class NoFuse(BoardError):
    """FUSE cannot serve the drivers' files here; plain files stand in."""


def log(msg):
    print(f"run-board: {msg}", file=sys.stderr, flush=True)


def scenario_path(name):
    if os.sep in name or name.endswith(".json"):
        return os.path.abspath(name)
    return os.path.join(SIM_DIR, "scenarios", name + ".json")


def load_scenario(path):
    with open(path) as f:
        return json.load(f)






def run(*cmd):
    r = subprocess.run(cmd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    if r.returncode != 0:
        raise BoardError(f"{' '.join(cmd)}: {r.stdout.strip()}")


def mount(*args):
    run("mount", "-n", *args)


def write(path, data, mode=0o644):
    """A file of text or bytes, its folders made first."""
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb" if isinstance(data, bytes) else "w") as f:
        f.write(data)
    os.chmod(path, mode)


def make_lock(node):
    """The DSP runtime's lock file of a node, open to every client."""
    lock = os.path.join("/run", f"dsp_loading_flock_{node}")
    open(lock, "w").close()
    os.chmod(lock, 0o666)


def parent_dirs(fp):
    parts = fp.strip("/").split("/")
    return {"/" + "/".join(parts[:i]) for i in range(1, len(parts))}


def format_value(fmt, v):
    return fmt.replace("{}", f"{v:g}" if isinstance(v, (int, float)) else str(v))


def in_user_namespace():
    """True when this runs as the root of a user namespace, not as the real root."""
    try:
        with open("/proc/self/uid_map") as f:
            return f.read().split() != ["0", "0", "4294967295"]
    except OSError:
        return False


class PlainFiles:
    """The drivers' text files as plain files, for machines where FUSE cannot run.

    A thread polls every POLL_S: it writes the text due now (the same clock and
    step as the FUSE daemon) in place, on the same inode, since readers keep
    their descriptor open and read again from offset 0. Bytes it did not write
    are taken as a write by someone else: logged to the write log (the bytes
    from the start of the file to the last one that changed) and overwritten.
    """
    POLL_S = 0.01

    def __init__(self, root, dirs, files, write_log):
        self.root = root
        self.write_log = write_log
        self.files = []  # [fs path, real file, step_ms, backing texts, last written bytes]
        self.stop_event = threading.Event()
        self.thread = None
        for d in sorted(dirs):
            os.makedirs(root + d, exist_ok=True)
        for fp, mode, step, _delay, _gone, backing in files:
            real = root + fp
            os.makedirs(os.path.dirname(real), exist_ok=True)
            open(real, "wb").close()
            os.chmod(real, int(str(mode), 8))
            self.files.append([fp, real, int(step) or 1000, backing, b""])
        open(write_log, "a").close()
        self.poll()

    def due(self, step, backing):
        if not backing:
            return b""
        now_ms = time.clock_gettime_ns(time.CLOCK_MONOTONIC) // 1_000_000
        try:
            with open(backing[(now_ms // step) % len(backing)], "rb") as f:
                return f.read()
        except OSError:
            return b""

    def record(self, fp, old, new):
        if len(new) < len(old):
            data = new  # truncated: the whole text is what was written
        else:
            end = len(new)
            while end > 0 and end <= len(old) and new[end - 1] == old[end - 1]:
                end -= 1
            data = new[:end]
        esc = "".join("\\\\" if c == 0x5c else "\\n" if c == 0x0a else "\\t" if c == 0x09
                      else chr(c) if 0x20 <= c < 0x7f else f"\\x{c:02x}" for c in data)
        with open(self.write_log, "a") as f:
            f.write(f"{fp}\t{esc}\n")

    def poll(self):
        for entry in self.files:
            fp, real, step, backing, last = entry
            try:
                fd = os.open(real, os.O_RDWR | os.O_CLOEXEC)
            except OSError:
                continue
            try:
                now = os.pread(fd, 65536, 0)
                if now != last:
                    self.record(fp, last, now)
                want = self.due(step, backing)
                if now != want:
                    os.pwrite(fd, want, 0)
                    os.ftruncate(fd, len(want))
                entry[4] = want
            finally:
                os.close(fd)

    def run(self):
        while not self.stop_event.wait(self.POLL_S):
            try:
                self.poll()
            except OSError as e:
                log(f"plain-file updater: {e}")

    def start(self):
        self.thread = threading.Thread(target=self.run, daemon=True)
        self.thread.start()

    def stop(self):
        self.stop_event.set()
        if self.thread:
            self.thread.join(1)


def heap_rows(heap):
    return heap.get("summary", []) + heap.get("allocations", [])


class Board:
    def __init__(self, workdir, scen, sim_build, guest_lib=""):
        self.w = workdir
        self.scen = scen
        self.sim_build = sim_build
        # (library, folder) for a program running under an emulator, or None.
        self.guest_lib = tuple(guest_lib.rsplit(":", 1)) if guest_lib else None
        self.helpers = {}  # pid -> description
        self.named_pids = {}
        self.first_seen = {}  # glob pattern -> when a file of it was first seen
        self.statuses = {}
        self.lock = threading.Lock()
        self.heap_lock = threading.Lock()
        # Held while a replay's stand-in is given a captured pid.
        self.pid_lock = threading.Lock()
        self.env = dict(os.environ)
        self.logs = os.path.join(workdir, "logs")
        self.fuse_pid = None
        self.fs_dirs = set()
        self.fs_files = []  # (fs path, mode, step_ms, delay_ms, (gone after ms, errno), texts)
        self.fs_root = self.p("mnt", "fs")
        self.plain = None
        self.userns = in_user_namespace()
        # The board's clock for the timed keys (gone_after_s, heaps' start_s and
        # end_s, processes' lifetime_s): it starts as COMMAND does.
        self.t0 = None

    def p(self, *parts):
        return os.path.join(self.w, *parts)

    # --- the board's files -------------------------------------------------

    def build_tree(self):
        s = self.scen
        for d in ("logs", "texts", "run", "mnt/fs", "mnt/dev", "stub"):
            os.makedirs(self.p(d), exist_ok=True)
        env = self.env
        env["KZM_SIM_WORKDIR"] = self.w
        ypu = s.get("ypu")
        if ypu:
            if ypu.get("sysfs", True):
                write(self.p("board/ypu/core_num"), str(ypu.get("core_num", "")) + "\n")
                write(self.p("board/ypu/ratio"), str(ypu.get("ratio", "0")) + "\n")
            lib = ypu.get("lib")
            if lib is not None:
                lines = [f"cores {lib.get('cores', 0)}",
                         "duty " + " ".join(str(d) for d in lib.get("duty", [])),
                         f"log {self.p('logs', 'ypu_calls.log')}"]
                if lib.get("period_us"):
                    lines.append(f"period_us {lib['period_us']}")
                if lib.get("open_fail"):
                    lines.append(f"open_fail {lib['open_fail']['core']} {lib['open_fail']['status']}")
                self.install_ypu_lib(lines)
        if s.get("soc_name") is not None:
            write(self.p("board/boardinfo/soc_name"), s["soc_name"] + "\n")
        ddr = s.get("ddr")
        if ddr and ddr.get("mode") != "absent":
            self.install_ddr_tool(ddr)
        self.write_fs_config()

    def install_ypu_lib(self, conf_lines):
        """The fake accelerator library (and its guest build), configured by conf_lines."""
        write(self.p("ypu.conf"), "\n".join(conf_lines) + "\n")
        os.makedirs(self.p("lib"), exist_ok=True)
        shutil.copy2(os.path.join(self.sim_build, "libypu.so.2"), self.p("lib"))
        if self.guest_lib:
            os.makedirs(self.p("guestlib"), exist_ok=True)
            shutil.copy2(self.guest_lib[0], self.p("guestlib", "libypu.so.2"))
        self.env["KZM_SIM_YPU_CONFIG"] = self.p("ypu.conf")

    def install_ddr_tool(self, cfg):
        """plox_ddr first on PATH, configured by cfg (plus the board's logs)."""
        cfg = dict(cfg, argv_log=self.p("logs", "ddr_argv.log"),
                   limit_log=self.p("logs", "ddr_limits.log"))
        write(self.p("ddr.json"), json.dumps(cfg))
        os.makedirs(self.p("bin"), exist_ok=True)
        shutil.copy2(os.path.join(SIM_DIR, "plox_ddr"), self.p("bin", "plox_ddr"))
        self.env["KZM_SIM_DDR_CONFIG"] = self.p("ddr.json")
        self.env["PATH"] = self.p("bin") + os.pathsep + self.env.get("PATH", "/usr/bin:/bin")

    def fs_path(self, path):
        for real, top in ((VPS_ROOT, "/vps"), (DEBUG_ROOT, "/debug")):
            if path == real or path.startswith(real + "/"):
                return top + path[len(real):]
        raise BoardError(f"scenario file {path} is not under {VPS_ROOT} or {DEBUG_ROOT}")

    def write_fs_config(self):
        s = self.scen
        dirs = {"/vps", "/debug"}
        files = []
        for d in s.get("dirs", []):
            fp = self.fs_path(d)
            dirs |= {fp} | parent_dirs(fp)
        for n, f in enumerate(s.get("files", [])):
            fp = self.fs_path(f["path"])
            dirs |= parent_dirs(fp)
            texts = f.get("texts")
            if texts is None:
                texts = [format_value(f.get("format", "{}\n"), v) for v in f.get("values", [])]
            backing = []
            for k, t in enumerate(texts):
                b = self.p("texts", f"{n}_{k}.txt")
                write(b, t)
                backing.append(b)
            gone = (0, 0)
            if f.get("gone_after_s") is not None:
                gone = (max(1, int(f["gone_after_s"] * 1000)),
                        getattr(errno, f.get("gone_errno", "ENOENT")))
            files.append((fp, f.get("mode", "0644"), f.get("step_ms", 1000),
                          f.get("read_delay_ms", 0), gone, backing))
        if s.get("ion") is not None:
            fp = "/debug/ion/heaps/all_heap_info"
            dirs |= parent_dirs(fp)
            write(self.p("texts", "all_heap_info"), "")
            files.append((fp, "0444", 1000, 0, (0, 0), [self.p("texts", "all_heap_info")]))
        self.save_fs_config(dirs, files)

    def save_fs_config(self, dirs, files):
        self.fs_dirs, self.fs_files = dirs, files
        with open(self.p("fs.conf"), "w") as c:
            c.write(f"clock\t{self.p('clock')}\n")
            for d in sorted(dirs):
                c.write(f"dir\t{d}\n")
            for fp, mode, step, delay, gone, backing in files:
                c.write("\t".join(["file", fp, str(mode), str(step), str(delay), str(gone[0]),
                                    str(gone[1])] + backing) + "\n")

    # --- mounts -------------------------------------------------------------

    def start_fs(self):
        mnt = self.p("mnt", "fs")
        if not os.access("/dev/fuse", os.R_OK | os.W_OK):
            raise NoFuse("no read-write access to /dev/fuse")
        log_path = self.p("logs", "fs_writes.log")
        open(log_path, "a").close()
        # The daemon's own chatter goes to a log, not to COMMAND's terminal.
        err = os.open(self.p("logs", "board_fs.log"), os.O_WRONLY | os.O_CREAT | os.O_APPEND,
                      0o644)
        pid = os.posix_spawn(os.path.join(self.sim_build, "kzm_board_fs"),
                             ["kzm_board_fs", self.p("fs.conf"), log_path, mnt, "-f", "-o",
                              "allow_other,max_threads=8,fsname=kzm_board,subtype=kzm_board"],
                             self.env, setsid=True,
                             file_actions=[(os.POSIX_SPAWN_DUP2, err, 2),
                                           (os.POSIX_SPAWN_CLOSE, err)])
        os.close(err)
        self.fuse_pid = pid
        self.helpers[pid] = "board file system"
        deadline = time.monotonic() + 5
        while not os.path.ismount(mnt):
            done, status = os.waitpid(pid, os.WNOHANG)
            if done:
                self.statuses[pid] = status
                self.fuse_pid = None
                raise NoFuse(f"FUSE daemon ended ({status}), see logs/board_fs.log")
            if time.monotonic() > deadline:
                raise BoardError("FUSE file system did not come up in 5 s")
            time.sleep(0.02)

    def start_plain(self, why):
        """Serve the drivers' files as plain files kept up to date by a thread."""
        log(f"FUSE fallback: {why}; the drivers' files are plain files rewritten as the "
            "scenario's values change. Lost: writes land in the file until it is restored "
            "(fs_writes.log is rebuilt by comparing contents, so repeated or unchanged writes "
            "are missed), reads after a write may see the written bytes, file modes do not "
            "stop root in the namespace, read delays and vanishing files are not played, "
            "sizes are not a page")
        self.fs_root = self.p("mnt", "plain")
        self.plain = PlainFiles(self.fs_root, self.fs_dirs, self.fs_files,
                                self.p("logs", "fs_writes.log"))
        self.plain.start()

    def optional(self, what, fn, *args):
        """Do a step the board can go without. In a user namespace (no real root)
        a failure is reported and the board goes on without it; as root it is
        fatal, as a board missing a piece would not be the scenario's."""
        try:
            fn(*args)
            return True
        except (BoardError, OSError) as e:
            if not self.userns:
                raise
            log(f"without root, the board goes without {what}: {e}")
            return False

    def overlay_add(self, parent, child, source):
        """Make parent/child appear (sysfs refuses mkdir) and bind source there."""
        stub = self.p("stub", parent.strip("/").replace("/", "_"))
        os.makedirs(os.path.join(stub, child), exist_ok=True)
        if not os.path.isdir(os.path.join(parent, child)):
            mount("-t", "overlay", "overlay", "-o", f"ro,lowerdir={stub}:{parent}", parent)
        mount("--bind", source, os.path.join(parent, child))

    def mount_sys(self):
        if os.path.isdir(self.p("board", "ypu")):
            self.optional("/sys/devices/system/ypu", self.overlay_add, "/sys/devices/system",
                          "ypu", self.p("board", "ypu"))
        if os.path.isdir(self.p("board", "boardinfo")):
            self.optional("/sys/class/boardinfo", self.overlay_add, "/sys/class", "boardinfo",
                          self.p("board", "boardinfo"))
        fs = self.fs_root
        if any(os.scandir(os.path.join(fs, "vps"))):
            self.optional(VPS_ROOT, self.overlay_add, "/sys/devices/virtual", "vps",
                          os.path.join(fs, "vps"))
        # The host's debugfs is never read (it may be closed to non-root): the
        # board's folder is bound over it.
        if not os.path.isdir(DEBUG_ROOT):
            self.optional(DEBUG_ROOT, self.overlay_add, "/sys/kernel", "debug",
                          os.path.join(fs, "debug"))
        else:
            self.optional(DEBUG_ROOT, mount, "--bind", os.path.join(fs, "debug"), DEBUG_ROOT)

    def mount_lib(self):
        if not os.path.isdir(self.p("lib")):
            return
        if self.guest_lib:
            mount("-t", "overlay", "overlay", "-o",
                  f"ro,lowerdir={self.p('guestlib')}:{self.guest_lib[1]}", self.guest_lib[1])
        try:
            mount("-t", "overlay", "overlay", "-o", f"ro,lowerdir={self.p('lib')}:{LIB_DIR}",
                  LIB_DIR)
        except BoardError as e:
            log(f"cannot add the library to {LIB_DIR} ({e}); using LD_LIBRARY_PATH")
            old = self.env.get("LD_LIBRARY_PATH")
            self.env["LD_LIBRARY_PATH"] = self.p("lib") + (":" + old if old else "")

    def mount_dev(self):
        dev = self.p("mnt", "dev")
        mount("-t", "tmpfs", "-o", "mode=755,size=1m", "kzm_dev", dev)
        # Device nodes are bound from the host's /dev (a user namespace may bind
        # them but not mknod them).
        for name in ("null", "zero", "full", "random", "urandom", "tty"):
            if os.path.exists("/dev/" + name):
                open(os.path.join(dev, name), "w").close()
                if not self.optional("/dev/" + name, mount, "--bind", "/dev/" + name,
                                     os.path.join(dev, name)):
                    os.unlink(os.path.join(dev, name))
        os.mkdir(os.path.join(dev, "pts"))
        # A command on the caller's terminal keeps that terminal's /dev/pts/N
        # name only with the host's devpts; otherwise a private instance keeps
        # the board's pseudo-terminals off the host.
        on_tty = any(os.isatty(fd) for fd in (0, 1, 2))
        if on_tty or not self.optional(
                "a private /dev/pts (the host's is used)", mount, "-t", "devpts", "-o",
                "newinstance,ptmxmode=0666,mode=620", "devpts", os.path.join(dev, "pts")):
            self.optional("/dev/pts", mount, "--bind", "/dev/pts", os.path.join(dev, "pts"))
        os.symlink("pts/ptmx", os.path.join(dev, "ptmx"))
        os.mkdir(os.path.join(dev, "shm"))
        os.chmod(os.path.join(dev, "shm"), 0o1777)
        self.optional("a tmpfs on /dev/shm (a folder of /dev stands in)", mount, "-t", "tmpfs",
                      "-o", "mode=1777", "kzm_shm", os.path.join(dev, "shm"))
        os.symlink("/proc/self/fd", os.path.join(dev, "fd"))
        for i, n in enumerate(("stdin", "stdout", "stderr")):
            os.symlink(f"/proc/self/fd/{i}", os.path.join(dev, n))
        for e in self.scen.get("dev", []):
            open(os.path.join(dev, e), "w").close()
        mount("--move", dev, "/dev")

    def mount_run(self):
        mount("--bind", self.p("run"), "/run")

    # --- DSP runtime ----------------------------------------------------------

    def make_dsp_nodes(self):
        dsp = self.scen.get("dsp")
        if not dsp:
            return
        for i, node in enumerate(dsp.get("nodes", [])):
            make_lock(i)
            magic = int(str(node.get("magic", DSP_MAGIC)), 0)
            free = 0xFFFFFFFF
            pids = [0] * 32
            for st in node.get("stale_slots", []):
                free &= ~(1 << st["slot"])
                pids[st["slot"]] = st["pid"]
            data = struct.pack("<QQII32I", magic, 0, free, node.get("running_mask", 0), *pids)
            assert len(data) == 152
            # A runtime caught between creating and sizing a node, or one of
            # an older layout, leaves it shorter.
            data = data[:node.get("size", 152)]
            path = f"/dev/shm/dsp_loading_node_1_{i}"
            with open(path, "wb") as f:
                f.write(data)
            os.chmod(path, 0o666)

    # --- processes ------------------------------------------------------------

    def spawn(self, argv, what):
        pid = os.posix_spawn(argv[0], argv, self.env, setsid=True)
        with self.lock:
            self.helpers[pid] = what
        return pid

    def start_processes(self):
        for proc in self.scen.get("processes", []):
            pid = self.spawn([os.path.join(self.sim_build, "kzm_proc_holder"),
                              str(proc.get("rss_kb", 0)), proc["name"]], proc["name"])
            self.named_pids[proc["name"]] = pid
            proc["pid"] = pid
        self.named_pids.update(self.scen.get("ion", {}).get("ghost_pids", {}) if
                               self.scen.get("ion") else {})

    def start_client(self, i, c):
        nodes = len(self.scen["dsp"].get("nodes", []))
        argv = [os.path.join(self.sim_build, "kzm_dsp_client"), "--nodes", str(nodes),
                "--cores", ",".join(str(x) for x in c.get("cores", [0])),
                "--duty", str(c.get("duty", 50)), "--period-ms", str(c.get("period_ms", 10)),
                "--report", self.p("logs", f"dsp_client_{i}.txt"),
                "--busy-log", self.p("logs", f"dsp_busy_{i}.log")]
        if c.get("lifetime_s") is not None:
            argv += ["--lifetime-ms", str(int(c["lifetime_s"] * 1000))]
        if c.get("die"):
            argv.append("--die")
        pid = self.spawn(argv, f"dsp client {i}")
        name = c.get("name")
        if name:
            self.named_pids[name] = pid

    def dsp_schedule(self, stop, due_started):
        """Starts the clients at their times; due_started is set once those due at
        once run and are named (so the heap text can list them)."""
        clients = (self.scen.get("dsp") or {}).get("clients", [])
        t0 = time.monotonic()
        for i, c in sorted(enumerate(clients), key=lambda ic: ic[1].get("start_s", 0)):
            delay = c.get("start_s", 0) - (time.monotonic() - t0)
            if delay > 0:
                due_started.set()
                if stop.wait(delay):
                    return
            self.start_client(i, c)
        due_started.set()

    def start_clock(self):
        """Start the board's clock; the file tells the FUSE daemon when (CLOCK_MONOTONIC
        milliseconds, which time.monotonic() reads too)."""
        self.t0 = time.monotonic()
        write(self.p("clock.new"), f"{int(self.t0 * 1000)}\n")
        os.replace(self.p("clock.new"), self.p("clock"))

    def timed_events(self, stop):
        """Play the board's timeline: heaps coming and going (the text is written
        again), processes ending (the heap text keeps naming them, as a driver
        whose buffers outlive their owner does)."""
        events = [(p["lifetime_s"], p["pid"]) for p in self.scen.get("processes", [])
                  if p.get("lifetime_s") is not None]
        for h in (self.scen.get("ion") or {}).get("heaps", []):
            events += [(h[k], None) for k in ("start_s", "end_s") if h.get(k) is not None]
            events += [(at, None) for row in heap_rows(h) for at in row[2:4]
                       if isinstance(at, (int, float))]
        for at, pid in sorted(events, key=lambda e: e[0]):
            if stop.wait(max(0.0, self.t0 + at - time.monotonic())):
                return
            if pid is None:
                self.write_heap_info()
                continue
            try:
                os.kill(pid, signal.SIGKILL)
            except ProcessLookupError:
                pass

    def file_events(self, stop):
        """Rewrite the heap text when a file that a heap row waits for appears,
        and again the given seconds after it ("PATTERN+SECONDS")."""
        waits = {at for h in (self.scen.get("ion") or {}).get("heaps", [])
                 for row in heap_rows(h) for at in row[2:4] if isinstance(at, str)}
        seen = set()
        while waits and not stop.wait(FILE_POLL_S):
            now = {w for w in waits if self.appeared(w)}
            if now != seen:
                seen = now
                self.write_heap_info()

    def appeared(self, at):
        """Whether the file of `at` ("PATTERN" or "PATTERN+SECONDS") has been
        there (for that long): the first sight of it is remembered."""
        pattern, _, delay = at.partition("+")
        if pattern not in self.first_seen and glob.glob(self.p(pattern)):
            self.first_seen.setdefault(pattern, time.monotonic())
        seen = self.first_seen.get(pattern)
        return seen is not None and time.monotonic() >= seen + float(delay or 0)

    def heap_text(self):
        ion = self.scen.get("ion")
        # An event's own rewrite is at its time; before the clock starts it is 0.
        now = time.monotonic() - self.t0 + 0.001 if self.t0 is not None else 0.0
        out = []

        def after(at):
            """Whether the moment `at` has come: a time on the board's clock, or
            the appearance of a file in the board's folder (a glob pattern)."""
            return self.appeared(at) if isinstance(at, str) else now >= at

        def present(rows):
            """The (name, bytes) of the rows held now: a row's optional third and
            fourth items are when the memory is taken and given back."""
            return [(row[0], row[1]) for row in rows
                    if (len(row) < 3 or row[2] is None or after(row[2])) and
                    (len(row) < 4 or row[3] is None or not after(row[3]))]

        for h in ion.get("heaps", []):
            if not h.get("start_s", 0) <= now < h.get("end_s", float("inf")):
                continue
            out += [HEAP_RULE2, f"the heap id is {h['id']}", f"heap total size {h['total']}",
                    HEAP_RULE, f"{'':>10}client{'':>15}pid{'':>13}size", HEAP_RULE]
            for name, size in present(h.get("summary", [])):
                if name not in self.named_pids:  # not started yet
                    continue
                out.append(f"client: {name:>16} {self.named_pids[name]:>16} {size:>16}")
            out += [HEAP_RULE, "allocations (info is from last known client):"]
            if h.get("header", "default") == "no_tgid":
                out.append(f"{'client':>16} {'process':>16} {'pid':>8} {'size':>12} {'type':>8}")
            else:
                out.append(f"{'client':>16} {'process':>16} {'tgid':>8} {'pid':>8} "
                           f"{'size':>12} {'type':>8}")
            total = 0
            for name, size in present(h.get("allocations", [])):
                pid = self.named_pids.get(name)
                if pid is None:
                    continue
                out.append(f"{name:>16} {name:>16} {pid:>8} {pid:>8} {size:>12} {'cma':>8}")
                total += size
            out += [HEAP_RULE, f"{'total':>16} {total:>12}", ""]
        return "\n".join(out) + "\n"

    def write_heap_info(self):
        # Called from two threads; the text is replaced whole, as the plain-file
        # updater may read it at any time.
        with self.heap_lock:
            if self.scen.get("ion") is not None:
                tmp = self.p("texts", "all_heap_info.new")
                write(tmp, self.heap_text())
                os.replace(tmp, self.p("texts", "all_heap_info"))
            with open(self.p("logs", "pids.json"), "w") as f:
                json.dump(self.named_pids, f)

    # --- teardown -------------------------------------------------------------

    def stop_helpers(self):
        with self.lock:
            pids = [p for p in self.helpers if p not in self.statuses and p != self.fuse_pid]
        for pid in pids:
            try:
                os.kill(pid, signal.SIGTERM)
            except ProcessLookupError:
                pass
        deadline = time.monotonic() + 2
        for pid in pids + ([self.fuse_pid] if self.fuse_pid else []):
            if pid == self.fuse_pid:
                try:
                    os.kill(pid, signal.SIGTERM)
                except ProcessLookupError:
                    pass
            while pid not in self.statuses and time.monotonic() < deadline:
                try:
                    done, st = os.waitpid(pid, os.WNOHANG)
                except ChildProcessError:
                    break
                if done:
                    self.statuses[pid] = st
                    break
                time.sleep(0.02)
        # Whatever is left dies with this process, the namespace's init.
