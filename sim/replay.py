"""What a replay of a kvt_zqp_capture file plays on the simulated board.

    plan = ReplayPlan(path)

A plan is the board's shape as captured (the /dev names, the stream folders,
the files read at start, the engines) and the timelines of its inputs, in
microseconds since the capture began:

  files       path -> [(t_us, present, mode, content)] of the drivers' text
              files (stream folders, debugfs, the heap text) and of /proc
  ypu         [(t_us, core, free capacity)] the accelerator library answered
  dsp         [(t_us, node, present, bytes)] of the DSP loading nodes
  ddr         [(t_us, line)] the DDR tool printed
  ddr_exit    (t_us, wait status) when the DDR tool ended by itself, or None
  end_us      when the capture ended (its last record's time if cut short)
  problem     why reading stopped early (a cut-short or corrupt record), or None

ReplayPlan raises CaptureError for a file that is not a readable capture, and
for one whose names could reach outside the board being built (a listed name
with a "/", a path with "." or ".." in it): the replay writes them as root.
"""
import posixpath

from capture_file import CaptureError, read_capture  # noqa: F401 (re-exported)

DEV = "/dev/"
FLOW = "/sys/devices/virtual/vps/flow/"
SHM = "/dev/shm"


class ReplayPlan:
    def __init__(self, path):
        records, self.problem = read_capture(path)
        if not records or records[0][0] != "start":
            raise CaptureError(f"{path}: holds no start record")
        self.start = records[0][1]
        self.dev, self.flow = [], []
        self.files = {}
        self.engines = {}
        self.ypu_cores, self.ypu = None, []
        self.dsp_nodes, self.dsp = [], []
        self.ddr = []
        self.ddr_exit = None
        self.end_us = None
        last = 0

        def safe_path(path):
            if not path.startswith("/") or posixpath.normpath(path) != path:
                raise CaptureError(f"{path!r} in {source}: not a plain absolute path")
            return path

        def safe_name(name):
            if "/" in name or name in ("", ".", "..") or "\0" in name:
                raise CaptureError(f"{name!r} in {source}: not a plain file name")
            return name

        source = path
        for kind, f in records[1:]:
            if kind == "list":
                if f["ok"] and f["dir"] == DEV:
                    self.dev = [safe_name(n) for n in f["names"]]
                elif f["ok"] and f["dir"] == FLOW:
                    self.flow = [safe_name(n) for n in f["names"]]
            elif kind == "file":
                self.files.setdefault(safe_path(f["path"]), []).append(
                    (f["t_us"], f["present"], f["mode"], f["content"]))
                last = max(last, f["t_us"])
            elif kind == "engine":
                self.engines[f["name"]] = f
                if f["name"] == "YPU":
                    self.ypu_cores = f["cores"]
                elif f["name"] == "DSP":
                    self.dsp_nodes = [SHM + "/" + safe_name(name.lstrip("/")) for name in f["files"]]
            elif kind == "ypu":
                self.ypu += [(c["t_us"], c["index"], c["cap"]) for c in f["changes"]]
            elif kind == "dsp":
                self.dsp += [(c["t_us"], c["index"], c["present"], c["bytes"])
                             for c in f["changes"]]
            elif kind == "ddr":
                self.ddr.append((f["t_us"], f["line"]))
                last = max(last, f["t_us"])
            elif kind == "end":
                self.end_us = f["t_us"]
            elif kind == "ddr-exit":
                self.ddr_exit = (f["t_us"], f["status"])
                last = max(last, f["t_us"])
        # Batches are written a tick apart, each ordered in itself.
        self.ypu.sort(key=lambda c: c[0])
        self.dsp.sort(key=lambda c: c[0])
        last = max([last] + [c[0] for c in self.ypu[-1:] + self.dsp[-1:]])
        if self.end_us is None:
            self.end_us = last
        # The capture's first tick: what it read then was there from the start.
        ticks = [t for timeline in self.files.values() for t, *_ in timeline if t > 0]
        self.first_tick_us = min(ticks, default=0)

    def start_content(self, path):
        """(mode, content) of a file at the capture's start; None when it was absent."""
        timeline = self.files.get(path)
        if not timeline or not timeline[0][1]:
            return None
        return timeline[0][2], timeline[0][3]

    def processes(self):
        """pid -> {file name: timeline} of the captured /proc files; a process
        lives while its status is present."""
        out = {}
        for path, timeline in self.files.items():
            parts = path.split("/")
            if len(parts) != 4 or parts[1] != "proc" or not parts[2].isdigit():
                continue
            out.setdefault(int(parts[2]), {})[parts[3]] = timeline
        return out

    def node_start(self, node):
        """A DSP node's bytes before its first change: its first captured state."""
        for _, i, present, data in self.dsp:
            if i == node:
                return data if present else None
        return None
