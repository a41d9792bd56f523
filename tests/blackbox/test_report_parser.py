"""The harness's reading of a report frame, checked on a frame drawn by hand."""
from conftest import check_loading, format_size, parse_frame, split_frames

RULE = "|------------------------------------------------|"
BOX = "+------------------------------------------------+"


def size(n):
    v, rest = format_size(n)[:-1].split("."), format_size(n)[-1]
    return int(v[0]), int(v[1]), rest


def frame():
    lines = [BOX, "| Monitor %s %33s|" % ("2.2.4", " "), RULE,
             "|\x1b[7m" + "%14s %19s %13s" % ("IP", "%LOADING", " ") + "\x1b[0m|"]
    lines += ["|%11s%-8s%13.1f %16s" % (" ", l, v, "|") for l, v in (("YPU0", 30.0),
                                                                      ("STITCH0", 100.0))]
    lines += [RULE, "| DDR Bandwidth %33s|" % " ", RULE,
              "|%18s %13s %15s|" % ("Perf(MiB/s)", "All", " ")]
    lines += ["|%10s%-8s%13u %17s" % (" ", k, v, "|") for k, v in (("Read", 1234), ("Write", 5))]
    lines += [RULE, "| ION Info %37s |" % "", RULE]
    t, u = 268435456, 12582912
    lines.append("|%1s%-14s%5d.%d%c  %4d.%d%c  %4d.%d%c %7s" % (
        (" ", "cma_reserved") + size(t) + size(u) + size(t - u) + ("|",)))
    lines += [RULE, "| Process Mem Info %29s |" % "", RULE]
    lines.append("|%10d%2s%-18.18s%4d.%d%c %4d.%d%c %3s" % (
        (123, " ", "a_very_long_process_name") + size(3 << 20) + size(100) + ("|",)))
    lines.append(BOX)
    assert all(len(l) == 50 for l in lines if "\x1b" not in l)
    return "\n".join(lines)


def test_parse_hand_drawn_frames():
    frames = split_frames(frame() + "\n" + frame())
    assert len(frames) == 2
    f = parse_frame(frames[1])
    assert f["rows"] == [("YPU0", 30.0), ("STITCH0", 100.0)]
    assert f["has_ddr_box"] and f["ddr"] == {"read": 1234, "write": 5}
    assert f["heaps"] == {"cma_reserved": ("256.0M", "12.0M", "244.0M")}
    assert f["processes"] == {"a_very_long_proces": (123, "3.0M", "100.0 ")}
    truth = {"tolerance": {"YPU": 5.0}}
    assert check_loading({"YPU0": 33.0, "STITCH0": [10.0, 100.0]}, truth, f["rows"]) == []
    assert check_loading({"YPU0": 40.0}, truth, f["rows"]) != []


def test_format_size_examples():
    assert [format_size(n) for n in (0, 1023, 1536, 1048064, 1048576, 1048575)] == [
        "0.0 ", "1023.0 ", "1.5K", "1023.5K", "1.0M", "1024.0K"]
