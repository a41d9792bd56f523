"""The exact report layout: every line of a frame classified and re-formatted.

Each line of a frame is either a fixed text (borders, rules, titles, column
headers) or a row whose values are read back with a regex and formatted again
with the row's printf format; the result must give the very same bytes.
"""
import re

VERSION = "2.2.4"


def py_format(c_format):
    """A C printf format as a Python %-format (no length modifiers)."""
    return re.sub(r"%([-0-9.]*)l([dui])", r"%\1\2", c_format)


BORDER = "+------------------------------------------------+"
RULE = "|------------------------------------------------|"
TITLE = "| Monitor %s %33s|" % (VERSION, " ")
DDR_TITLE = "| DDR Bandwidth %33s|" % " "
ION_TITLE = "| ION Info %37s |" % ""
PROC_TITLE = "| Process Mem Info %29s |" % ""
# Highlighted headers: "|", the header text (reverse video when interactive), "|".
LOAD_HDR_TEXT = "%14s %19s %13s" % ("IP", "%LOADING", " ")
DDR_HDR_TEXT = "%18s %13s %15s" % ("Perf(MiB/s)", "All", " ")
ION_HDR_TEXT = "%23s %8s %8s%7s" % ("total", "used", "free", " ")
PROC_HDR_TEXT = "%10s %5s %19s %8s%3s" % ("PID", "PROC", "RSS", "VZMEM", " ")
HEADER_TEXTS = (LOAD_HDR_TEXT, DDR_HDR_TEXT, ION_HDR_TEXT, PROC_HDR_TEXT)

ROW_FMT = py_format("|%11s%-8s%13.1f %16s")
DDR_FMT = py_format("|%10s%-8s%13u %17s")
HEAP_FMT = py_format("|%1s%-14s%5lu.%u%c  %4lu.%u%c  %4lu.%u%c %7s")
PROC_FMT = py_format("|%10d%2s%-18.18s%4lu.%u%c %4lu.%u%c %3s")

SIZE = r"(\d+)\.(\d)([ KMGTPEZY])"
ROW_RE = re.compile(r"^\| {11}([A-Z]+[0-9]+) +(-?\d+\.\d) {16}\|$")
DDR_RE = re.compile(r"^\| {10}(Read|Write) +(\d+) {17}\|$")
HEAP_RE = re.compile(r"^\| (cma_reserved|ion_cma|carveout|ion_uncache|custom) +%s +%s +%s +\|$"
                     % (SIZE, SIZE, SIZE))
PROC_RE = re.compile(r"^\| *(\d+)  (.{18}) *%s +%s +\|$" % (SIZE, SIZE))

FIXED = {BORDER: "B", RULE: "R", TITLE: "T", DDR_TITLE: "D", ION_TITLE: "I", PROC_TITLE: "P",
         "|" + LOAD_HDR_TEXT + "|": "L", "|" + DDR_HDR_TEXT + "|": "E",
         "|" + ION_HDR_TEXT + "|": "J", "|" + PROC_HDR_TEXT + "|": "K"}

# Whole frame: title box, loading box, optional DDR box, ION box, process box.
FRAME_GRAMMAR = re.compile(r"^BTRLr*R(DREwxR)?IRJh*RPRKp*B$")


def _sizes(groups):
    return [int(g) if i % 3 < 2 else g for i, g in enumerate(groups)]


def classify(line):
    """(code, values) for one report line; ("?", None) when it fits no layout.

    A row is accepted only when formatting its values again gives the same line.
    """
    if line in FIXED:
        return FIXED[line], None
    if m := ROW_RE.match(line):
        if ROW_FMT % (" ", m[1], float(m[2]), "|") == line:
            return "r", (m[1], float(m[2]))
    if m := DDR_RE.match(line):
        if DDR_FMT % (" ", m[1], int(m[2]), "|") == line:
            return ("w" if m[1] == "Read" else "x"), (m[1], int(m[2]))
    if m := HEAP_RE.match(line):
        sizes = _sizes(m.groups()[1:])
        if HEAP_FMT % tuple([" ", m[1]] + sizes + ["|"]) == line:
            return "h", (m[1], sizes)
    if m := PROC_RE.match(line):
        sizes = _sizes(m.groups()[2:])
        if PROC_FMT % tuple([int(m[1]), " ", m[2]] + sizes + ["|"]) == line:
            return "p", (int(m[1]), m[2].rstrip(), sizes)
    return "?", None


def codes(lines):
    return "".join(classify(line)[0] for line in lines)


def layout_problems(lines, complete=True):
    """Lines that fit no layout, and a wrong order of sections; [] when all is well."""
    problems = [f"line {i}: {line!r}" for i, line in enumerate(lines) if classify(line)[0] == "?"]
    problems += [f"line {i} is {len(line)} columns: {line!r}"
                 for i, line in enumerate(lines) if len(line) != 50]
    seq = codes(lines)
    if complete and not FRAME_GRAMMAR.match(seq):
        problems.append(f"sections out of order: {seq}")
    return problems


def split_report(text):
    """Batch output -> frames (lists of lines), each from its top border to its bottom one."""
    lines = text.split("\n")
    starts = [i for i in range(len(lines) - 1) if lines[i] == BORDER and lines[i + 1] == TITLE]
    return [lines[a:b] for a, b in zip(starts, starts[1:] + [len(lines) - 1])]


def expected_codes(n_rows, ddr, n_heaps, n_procs):
    return ("BTRL" + "r" * n_rows + "R" + ("DREwxR" if ddr else "") + "IRJ" + "h" * n_heaps
            + "RPRK" + "p" * n_procs + "B")


def format_size(n):
    """The report's human size of n bytes, as "%lu.%u%c" prints it."""
    unit, v, tenth = 0, n, 0
    while v >= 1024:
        unit, v, tenth = unit + 1, v >> 10, ((v & 1023) * 10 + 512) >> 10
    if tenth > 9:
        tenth, v = 0, v + 1
    return f"{v}.{tenth}{' KMGTPEZY'[unit]}"


def values(lines):
    """What one frame shows: loading rows in order, DDR figures (None without the
    box), heaps and processes by name with their sizes as printed."""
    def size(s):
        return [f"{s[i]}.{s[i + 1]}{s[i + 2]}" for i in range(0, len(s), 3)]

    out = {"rows": [], "ddr": None, "heaps": {}, "processes": {}}
    for line in lines:
        code, v = classify(line)
        if code == "r":
            out["rows"].append(v)
        elif code in ("w", "x"):
            out["ddr"] = dict(out["ddr"] or {}, **{v[0].lower(): v[1]})
        elif code == "h":
            out["heaps"][v[0]] = tuple(size(v[1]))
        elif code == "p":
            out["processes"][v[1]] = (v[0], *size(v[2]))
    return out


# ------------------------------------------------------------- batch output

CRASH_TEXT = ("Sanitizer", "runtime error", "Segmentation", "core dumped", "terminate called",
              "Aborted")


def well_formed(stdout, stderr, count=None):
    """The frames of a batch output, each checked; no crash text on stderr."""
    frames = split_report(stdout)
    assert frames and len(frames) == (count or len(frames)), len(frames)
    assert [i for i, f in enumerate(frames) if layout_problems(f)] == []
    assert [t for t in CRASH_TEXT if t in stderr] == [], stderr[-500:]
    return frames


def dsp0(frame):
    return dict(values(frame)["rows"])["DSP0"]


# ------------------------------------------------------- interactive output

CURSOR_UP = re.compile(rb"\x1b\[(\d+)A")
FULL_CODES = expected_codes(15, True, 4, 2)  # the "full" board once running: 40 lines
SHOW = b"\x1b[?25h"


def frames_done(raw):
    """Frames completed so far: each frame ends by moving the cursor back up."""
    return len(CURSOR_UP.findall(raw))


def lines(screen):
    return [line.rstrip() for line in screen.display]
