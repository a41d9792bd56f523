"""The command lines of the real binaries: exact stdout, stderr and exit status.

Command lines that end in the parser run on the host; accepted ones start the
monitor and run on the bare board."""
import subprocess

import pytest


def usage():
    def row(option, text, kind=None):
        return option.ljust(30) + (kind.ljust(8) if kind else "") + text

    ind = " " * 40
    lines = ["", "Usage:", "kvt_zqp_monitor [Option...] [Parameter]", "",
             "[Option]".ljust(30) + "[Instruction]".ljust(20), "-" * 111,
             row("-h --help", "Display this information"),
             row("-v --verbose", "Show additional information"),
             row("-V --version", "Output version information & exit"), "",
             "[Option]".ljust(30) + "[Parameter]".ljust(20), "-" * 111,
             row("-b --batch", ": Run in non-interactive batch mode, default is interactive mode.",
                 "[null]"),
             row("-d --delay", ": Delay between updates in milliseconds, default is 1000 ms.",
                 "[int]"), ind + "parameter range: [100, 10000].",
             row("-f --freq", ": Sampling frequency, default is 500 samples/sec, only used for "
                 "YPU and DSP.", "[int]"), ind + "parameter range: [10, 1000].",
             row("-n --number", ": Specifies the maximum number of iterations, default is "
                 "forever.", "[int]"), ind + "parameter range: [1, INT32_MAX].",
             row("-t --time", ": Specifies the duration time in seconds, default is forever.",
                 "[int]"), ind + "parameter range: [1, INT32_MAX].",
             row("-e --enable", ': Hardware IP to be monitored, valid values are "ypu, dsp, gdc,',
                 "[string]"),
             ind + 'stitch, pym, isp, jpu, vpu", case insensitive. Multiple parameters are ',
             ind + "separated by comma."]
    return "\n".join(lines) + "\n"


USAGE = usage()
VERSION = "ZQP Monitor version: 2.2.4\n"
KEYS = "{YPU,DSP,GDC,ISP,JPU,PYM,STITCH,VPU}"
DELAY = "delay valid range is [100, 10000], but get %s\n"
BOTH = "Not support setting both number and time\n"


def invalid(item):
    return f"{item} is invalid, valid value is {KEYS}, case-insensitive\n"


def run(binary, args, name="kvt_zqp_monitor", cwd=None):
    # argv[0] as typed on the board: getopt's messages start with it.
    r = subprocess.run([name] + args, executable=binary, stdin=subprocess.DEVNULL,
                       capture_output=True, text=True, timeout=30, cwd=cwd)
    return r.stdout, r.stderr, r.returncode


@pytest.mark.parametrize("args,out,err,status", [
    (["-h"], USAGE, "", 1),
    (["--help"], USAGE, "", 1),
    (["-V"], "", VERSION, 0),
    (["--version", "-d", "5"], "", VERSION, 0),
    (["-d", "5", "-V"], "", DELAY % 5, 1),
    (["-d", "5", "-h"], "", DELAY % 5, 1),
    # getopt's own messages come before the usage.
    (["-x"], USAGE, "kvt_zqp_monitor: invalid option -- 'x'\n", 1),
    (["-d"], USAGE, "kvt_zqp_monitor: option requires an argument -- 'd'\n", 1),
    (["--bogus"], USAGE, "kvt_zqp_monitor: unrecognized option '--bogus'\n", 1),
    (["-d", "99"], "", DELAY % 99, 1),
    (["-d", "10001"], "", DELAY % 10001, 1),
    (["-d", "10000", "-V"], "", VERSION, 0),
    (["-d", "100", "-V"], "", VERSION, 0),
    (["-f", "1001"], "", "sample frequency valid range is [10, 1000], but get 1001\n", 1),
    (["-f", "9"], "", "sample frequency valid range is [10, 1000], but get 9\n", 1),
    (["-f", "1000", "-V"], "", VERSION, 0),
    (["-n", "0"], "", "iterater number must great than 0, but get 0\n", 1),
    (["-n", "-3"], "", "iterater number must great than 0, but get -3\n", 1),
    (["-t", "0"], "", "time must great than 0, but get 0\n", 1),
    (["-d", "1e3"], "", "value 1e3 is invalid number\n", 1),
    (["-d", " 100"], "", "value  100 is invalid number\n", 1),
    (["-d", "+100"], "", "value +100 is invalid number\n", 1),
    (["-d", ""], "", "value  is invalid number\n", 1),
    (["-n", "-"], "", "value - is invalid number\n", 1),
    (["-n", "99999999999999999999"], "", "value 99999999999999999999 is invalid number\n", 1),
    # The value is cut to 32 bits before the check.
    (["-n", "4294967296"], "", "iterater number must great than 0, but get 0\n", 1),
    (["-t", "2", "-d", "3000"], "", "duration time 2 sec must not less than delay time 3000 ms\n",
     1),
    (["-n", "3", "-t", "5"], "", BOTH, 1),
    (["-n", "3", "-t", "2", "-d", "3000"], "",
     BOTH + "duration time 2 sec must not less than delay time 3000 ms\n", 1),
    # 4294968 s in milliseconds wraps to 704 in 32 bits.
    (["-t", "4294968"], "", "duration time 4294968 sec must not less than delay time 1000 ms\n",
     1),
    (["-e", "ypu, dsp"], "", invalid(" dsp"), 1),
    (["-e", "ypu", "-e", "Stitch,vpu,cpu"], "", invalid("cpu"), 1),
    (["-e", ""], "", "", 1),
    (["-e", ",,"], "", "", 1),
    # The first failure ends the parse: later options are not looked at.
    (["-d", "5", "-v", "-f", "1"], "", DELAY % 5, 1),
    (["-e", "cpu", "-d", "5"], "", invalid("cpu"), 1),
], ids=lambda v: " ".join(v) if isinstance(v, list) else "")
def test_command_line_output_and_status(binary, args, out, err, status):
    assert run(binary, args) == (out, err, status)


SUMMARY = "delay: %d ms\nfrequency: %d sample/sec\nbatch mode: %s\n"


@pytest.mark.parametrize("args,summary", [
    (["-v", "-b", "-n", "1"], SUMMARY % (1000, 500, "true") + "iterator nums: 1\n"),
    (["-v", "-n", "1", "-d", "100"], SUMMARY % (100, 500, "false") + "iterator nums: 1\n"),
    (["-b", "-d", "4294967396", "-v", "-f", "10", "-n", "2"],
     SUMMARY % (100, 10, "true") + "iterator nums: 2\n"),
    (["-v", "-b", "-t", "1", "-d", "300", "-e", "YPU,dsp", "-e", "ypu,,Vpu,"],
     SUMMARY % (300, 500, "true") + "iterator nums: 3\nduration time: 1 sec\n"),
    (["--verbose", "--batch", "--time=1", "--delay=1000"],
     SUMMARY % (1000, 500, "true") + "iterator nums: 1\nduration time: 1 sec\n"),
], ids=lambda v: " ".join(v) if isinstance(v, list) else "")
def test_verbose_summary_of_accepted_command_lines(run_monitor, args, summary):
    # These start the monitor, so they run on the board, not the host.
    r = run_monitor("bare", args, timeout=30)
    assert r.returncode == 0, r.stderr
    assert r.stderr[:len(summary)] == summary


REC = "kvt_zqp_record: "
COMBINED = REC + "-n and -t cannot be combined with a command\n"


def processes(value):
    return REC + f"--processes takes a number from 0 to 1000, not '{value}'\n"


# The recorder refuses these before it reads the board or creates a file.
@pytest.mark.parametrize("args,err", [
    (["-d", "99"], DELAY % 99),
    (["-x"], REC + "invalid option -- 'x'\nTry 'kvt_zqp_record --help' for more information.\n"),
    (["--format", "xml"], REC + "format 'xml' is not one of csv, jsonl, prometheus, openmetrics\n"),
    (["-n", "2", "-t", "2"], BOTH),
    (["-n", "2", "out.csv"], COMBINED),
    (["-t", "3", "--summary", "s.json", "--", "true"], COMBINED),
    (["-e", ""], REC + "the engine list is empty\n"),
    (["--processes=1001"], processes("1001")),
    (["--processes=-1"], processes("-1")),
    (["--processes="], processes("")),
    (["--processes=+5"], processes("+5")),
    (["--summary", "s.json"], REC + "--summary needs a command to summarise\n"),
    (["--summary=", "true"], REC + "the summary file name is empty\n"),
    (["-o", ""], REC + "the output file name is empty\n"),
    (["--listen=:65536"], REC + "listen port '65536' is not a number from 0 to 65535\n"),
    *[(["--listen=:0", "--history", m], REC + "--history takes a number of minutes from 1 to 60, "
       f"not '{m}'\n") for m in ("0", "61", "1.5", "")],
    (["--history", "5"], REC + "--history needs --listen\n"),
], ids=lambda v: " ".join(v) if isinstance(v, list) else "")
def test_recorder_refusals(record_binary, tmp_path, args, err):
    assert run(record_binary, args, "kvt_zqp_record", tmp_path) == ("", err, 1)
    assert list(tmp_path.iterdir()) == []
