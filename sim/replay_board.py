"""The board a kvt_zqp_capture file describes, its inputs played on the
capture's timeline (sim/run-board --replay); see sim/README.md."""
import ctypes
import errno
import os
import signal
import stat
import struct
import time

import replay
from board import DEBUG_ROOT, VPS_ROOT, Board, log, make_lock, parent_dirs, write

MS_BIND = 4096


def rewrite_in_place(path, data):
    """New content on the same inode: a bind mount and open descriptors see it."""
    fd = os.open(path, os.O_WRONLY | os.O_CREAT | os.O_CLOEXEC, 0o444)
    try:
        os.pwrite(fd, data, 0)
        os.ftruncate(fd, len(data))
    finally:
        os.close(fd)


def bind_file(source, target):
    """mount --bind without a process per call (a replay binds three files per
    stand-in, at its time)."""
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.mount(source.encode(), target.encode(), None, MS_BIND, None) != 0:
        e = ctypes.get_errno()
        raise OSError(e, os.strerror(e), target)


def node_claims(data):
    """{(pid, slot)} a DSP loading node shows held: slots whose free bit is clear
    and whose pid is set."""
    if not data or len(data) < 152:
        return set()
    free = struct.unpack_from("<I", data, 16)[0]
    pids = struct.unpack_from("<32I", data, 24)
    return {(pid, s) for s, pid in enumerate(pids) if pid and not free >> s & 1}


class ReplayBoard(Board):
    """The board a capture describes, its inputs played on the capture's timeline.

    The files the capture read are served as captured and rewritten at their
    times; the accelerator library and the DDR tool answer from the capture;
    the DSP nodes are rewritten at their times; stand-ins run under the
    captured pids (the PID namespace is new), the captured /proc files bound
    over theirs, while the capture saw them.
    """

    def __init__(self, workdir, plan, sim_build, guest_lib="", loop=False):
        super().__init__(workdir, {"dev": plan.dev}, sim_build, guest_lib)
        self.plan = plan
        self.loop_us = max(plan.end_us, 1) if loop else 0
        self.procs = plan.processes()
        self.stand_ins = {}  # captured pid -> the stand-in's pid
        self.proc_warned = set()
        self.events = []
        for path, timeline in plan.files.items():
            if path.startswith((VPS_ROOT + "/", DEBUG_ROOT + "/")):
                self.events += [(t, "file", path, content)
                                for t, present, _, content in timeline[1:] if present]
        for pid, files in self.procs.items():
            for name, timeline in files.items():
                self.events += [(t, "proc", pid, name, present, content)
                                for t, present, _, content in timeline]
        self.events += [(t, "node", i, present, data) for t, i, present, data in plan.dsp]
        self.events.sort(key=lambda e: e[0])
        self.backing = {}  # captured path -> the file serving it
        self.command_pid = None

    # --- the board's files -------------------------------------------------

    def build_tree(self):
        plan = self.plan
        for d in ("logs", "texts", "run", "mnt/fs", "mnt/dev", "stub", "proc"):
            os.makedirs(self.p(d), exist_ok=True)
        self.keep_pids_free()
        self.env["KZM_SIM_WORKDIR"] = self.w
        for folder, board in (("/sys/devices/system/ypu/", "board/ypu"),
                              ("/sys/class/boardinfo/", "board/boardinfo")):
            for path in plan.files:
                got = plan.start_content(path)
                if path.startswith(folder) and got:
                    write(self.p(board, path[len(folder):]), got[1], got[0] & 0o777 or 0o644)
        event = plan.start_content("/var/run/dsp_event")
        if event and stat.S_ISFIFO(event[0]):
            os.mkfifo(self.p("run", "dsp_event"), event[0] & 0o777)
        elif event:
            write(self.p("run", "dsp_event"), event[1], event[0] & 0o777 or 0o644)
        if plan.ypu_cores is not None:
            with open(self.p("ypu_replay.txt"), "w") as f:
                f.writelines(f"{t} {core} {cap}\n" for t, core, cap in plan.ypu)
            self.install_ypu_lib([
                f"cores {plan.ypu_cores}", f"replay {self.p('ypu_replay.txt')}",
                f"clock_us {self.p('clock_us')}", f"loop_us {self.loop_us}",
                f"log {self.p('logs', 'ypu_calls.log')}"])
        # Neither a line nor an exit captured: the board had no DDR tool.
        if plan.ddr or plan.ddr_exit:
            self.install_ddr_tool({
                "mode": "replay", "clock_us": self.p("clock_us"), "loop_us": self.loop_us,
                "lines": [[t, line.decode("latin-1")] for t, line in plan.ddr],
                "exit": plan.ddr_exit})
        self.write_fs_config()

    def write_fs_config(self):
        plan = self.plan
        dirs = {"/vps", "/debug"}
        for name in plan.flow:
            fp = self.fs_path(replay.FLOW + name)
            dirs |= {fp} | parent_dirs(fp)
        files = []
        for n, (path, timeline) in enumerate(sorted(plan.files.items())):
            if not path.startswith((VPS_ROOT + "/", DEBUG_ROOT + "/")):
                continue
            got = plan.start_content(path)
            if got is None:
                log(f"replay: {path} was absent at the start; the board has none")
                continue
            fp = self.fs_path(path)
            dirs |= parent_dirs(fp)
            backing = self.p("texts", f"file_{n}.txt")
            write(backing, got[1])
            self.backing[path] = backing
            gone = next(((max(1, t // 1000), errno.ENOENT) for t, present, _, _ in timeline
                         if not present), (0, 0))
            files.append((fp, f"{got[0] & 0o777 or 0o444:o}", 1000, 0, gone, [backing]))
        self.save_fs_config(dirs, files)

    def make_dsp_nodes(self):
        for i in range(len(self.plan.dsp_nodes)):
            make_lock(i)
        self.reset_nodes()

    def reset_nodes(self):
        """The nodes as at the capture's start; their claims are not news."""
        self.claimed = set()
        for i in range(len(self.plan.dsp_nodes)):
            self.write_node(i, self.plan.node_start(i))
            self.claimed |= node_claims(self.plan.node_start(i))

    def announce(self, claims):
        """The runtime announces each slot a process claims ({pid, slot} on the
        event fifo, which the capture leaves to the monitor): a claim that first
        shows in a node is announced as it shows."""
        for pid, slot in sorted(claims):
            self.claimed.add((pid, slot))
            try:
                fd = os.open("/run/dsp_event", os.O_WRONLY | os.O_NONBLOCK | os.O_CLOEXEC)
            except OSError:
                continue  # no fifo, or nobody reading it: the runtime's message is lost too
            try:
                os.write(fd, struct.pack("<II", pid, slot))
            except OSError:
                pass
            finally:
                os.close(fd)

    def write_node(self, i, data):
        path = self.plan.dsp_nodes[i]
        if data is None:
            try:
                os.unlink(path)
            except FileNotFoundError:
                pass
            return
        # In place, as the runtime writes its mapping: a reader keeps its mapping.
        fd = os.open(path, os.O_RDWR | os.O_CREAT | os.O_CLOEXEC, 0o666)
        try:
            if os.fstat(fd).st_size != len(data):
                os.ftruncate(fd, len(data))
            os.pwrite(fd, data, 0)
        finally:
            os.close(fd)

    # --- processes ------------------------------------------------------------

    def keep_pids_free(self):
        """The board's own helpers take pids above the captured ones."""
        top = max(self.procs, default=0)
        try:
            with open("/proc/sys/kernel/ns_last_pid", "w") as f:
                f.write(str(top + 100))
        except OSError as e:
            log(f"replay: cannot keep the captured pids free ({e})")

    def start_stand_in(self, pid, name):
        running = self.stand_ins.get(pid)
        if running is not None and running not in self.statuses:
            return
        holder = os.path.join(self.sim_build, "kzm_proc_holder")
        try:
            with self.pid_lock, open("/proc/sys/kernel/ns_last_pid", "r+") as f:
                last = int(f.read())
                f.seek(0)
                f.write(str(pid - 1))
                f.flush()
                got = self.spawn([holder, "0", name], f"stand-in for {pid}")
                f.seek(0)
                f.write(str(max(last, got)))
        except OSError as e:
            log(f"replay: no stand-in for pid {pid} ({e})")
            return
        self.stand_ins[pid] = got
        if got != pid:
            if pid not in self.proc_warned:
                log(f"replay: pid {pid} is taken; its stand-in runs as {got}, unseen")
                self.proc_warned.add(pid)
            return
        for file in self.procs.get(pid, {}):
            try:
                bind_file(self.proc_backing(pid, file), f"/proc/{pid}/{file}")
            except OSError as e:
                if (pid, file) not in self.proc_warned:
                    log(f"replay: /proc/{pid}/{file} is the stand-in's own ({e})")
                    self.proc_warned.add((pid, file))

    def start_early(self, pid):
        running = self.stand_ins.get(pid)
        if pid not in self.procs or (running is not None and running not in self.statuses):
            return
        for file, timeline in self.procs[pid].items():
            first = next((content for _, present, _, content in timeline if present), None)
            if first is not None:
                rewrite_in_place(self.proc_backing(pid, file), first)
        status = next((c for _, present, _, c in self.procs[pid].get("status", []) if present),
                      None)
        if status is not None:
            self.apply((0, "proc", pid, "status", True, status))

    def stop_stand_in(self, pid):
        got = self.stand_ins.pop(pid, None)
        if got is not None:
            try:
                os.kill(got, signal.SIGKILL)
            except ProcessLookupError:
                pass

    def proc_backing(self, pid, file):
        path = self.p("proc", str(pid), file)
        if not os.path.exists(path):
            os.makedirs(os.path.dirname(path), exist_ok=True)
            open(path, "wb").close()
        return path

    def apply(self, event):
        kind = event[1]
        if kind == "file":
            _, _, path, content = event
            backing = self.backing.get(path)
            if backing:
                # Replaced whole: the file system reads the backing afresh by name.
                write(backing + ".new", content)
                os.replace(backing + ".new", backing)
        elif kind == "node":
            _, _, i, present, data = event
            if i < len(self.plan.dsp_nodes):
                claims = node_claims(data) - self.claimed if present else set()
                # The capture reads /proc at its period, so it met a new client
                # after its claim; a client runs before it claims.
                for pid, _ in claims:
                    self.start_early(pid)
                self.write_node(i, data if present else None)
                self.announce(claims)
        elif kind == "proc":
            _, _, pid, file, present, content = event
            if present:
                rewrite_in_place(self.proc_backing(pid, file), content)
            if file != "status":
                return
            if not present:
                self.stop_stand_in(pid)
                return
            name = "standin"
            for line in content.split(b"\n"):
                if line.startswith(b"Name:"):
                    name = line[5:].strip().decode(errors="replace")[:15] or name
            self.start_stand_in(pid, name)

    def start_processes(self):
        """The processes the capture's first look found run before COMMAND does."""
        for event in self.events:
            if event[1] == "proc" and event[0] <= self.plan.first_tick_us:
                self.apply(event)

    def restart_timeline(self):
        """Back to the capture's start for another round of --loop."""
        for path, backing in self.backing.items():
            got = self.plan.start_content(path)
            if got:
                self.apply((0, "file", path, got[1]))
        self.reset_nodes()
        stopped = [self.stand_ins[pid] for pid in self.stand_ins]
        for pid in list(self.stand_ins):
            self.stop_stand_in(pid)
        # Their pids are given again at once: wait until the board's init reaped them.
        deadline = time.monotonic() + 2
        while any(p not in self.statuses for p in stopped) and time.monotonic() < deadline:
            time.sleep(0.005)

    def start_clock(self):
        super().start_clock()
        write(self.p("clock_us.new"), f"{int(self.t0 * 1_000_000)}\n")
        os.replace(self.p("clock_us.new"), self.p("clock_us"))

    def timed_events(self, stop):
        """Play the capture's timeline (again and again with --loop); without
        --loop COMMAND is asked to end (SIGTERM) when the timeline does."""
        base = self.t0
        while True:
            for event in self.events:
                if event[1] == "proc" and event[0] <= self.plan.first_tick_us:
                    continue  # played before the round began
                if stop.wait(max(0.0, base + event[0] / 1e6 - time.monotonic())):
                    return
                try:
                    self.apply(event)
                except OSError as e:
                    log(f"replay: {e}")
            if stop.wait(max(0.0, base + self.plan.end_us / 1e6 - time.monotonic())):
                return
            if not self.loop_us:
                if self.command_pid:
                    try:
                        os.kill(self.command_pid, signal.SIGTERM)
                    except ProcessLookupError:
                        pass
                return
            base += self.loop_us / 1e6
            self.restart_timeline()
            self.start_processes()

    def file_events(self, stop):
        pass
