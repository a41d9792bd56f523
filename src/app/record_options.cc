#include "app/record_options.h"

#include <getopt.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "app/option_parser.h"
#include "base/decimal.h"
#include "base/log.h"

namespace kestro::zqp::app {
namespace {

constexpr const char* kProgram = base::kRecordProgram;
constexpr int kFormatOption = 256;
constexpr int kSummaryOption = 257;
constexpr int kProcessesOption = 258;
constexpr int kListenOption = 259;
constexpr int kHistoryOption = 260;
constexpr std::int64_t kMaxHistoryMinutes = 60;
constexpr std::size_t kDefaultProcesses = 10;
constexpr unsigned long kMaxProcesses = 1000;

const option kRecordOptions[] = {
    {"help", no_argument, nullptr, 'h'},
    {"verbose", no_argument, nullptr, 'v'},
    {"output", required_argument, nullptr, 'o'},
    {"format", required_argument, nullptr, kFormatOption},
    {"summary", required_argument, nullptr, kSummaryOption},
    {"processes", optional_argument, nullptr, kProcessesOption},
    {"listen", required_argument, nullptr, kListenOption},
    {"history", required_argument, nullptr, kHistoryOption},
    {"delay", required_argument, nullptr, 'd'},
    {"freq", required_argument, nullptr, 'f'},
    {"number", required_argument, nullptr, 'n'},
    {"time", required_argument, nullptr, 't'},
    {"enable", required_argument, nullptr, 'e'},
    {nullptr, 0, nullptr, 0},
};

// A printf format: %1$s is the program, %2$s the monitor.
constexpr char kRecordUsage[] =
    "Usage: %1$s [OPTION...]\n"
    "  or:  %1$s [OPTION...] [--] COMMAND [ARG...]\n"
    "Record the figures of %2$s's report, one record per interval;\n"
    "with a COMMAND, while it runs, then print a summary of its run on stderr.\n"
    "\n"
    "  -o, --output FILE      write to FILE (default: standard output)\n"
    "      --format FORMAT    csv (default), jsonl, prometheus or openmetrics; with -o,\n"
    "                         a prometheus FILE is replaced whole at every interval\n"
    "      --processes[=N]    prometheus, openmetrics: also the series of the N\n"
    "                         largest ION holders (default N: 10)\n"
    "      --listen [ADDR][:PORT]\n"
    "                         serve the latest record over HTTP at /metrics for\n"
    "                         Prometheus and a live page of the recent records at /\n"
    "                         (no ADDR: every address; default PORT 10190)\n"
    "      --history MINUTES  with --listen, the minutes of records the page and\n"
    "                         /api/v1/history keep: 1 to 60 (default 10)\n"
    "  -d, --delay MS         interval between records in milliseconds, also the\n"
    "                         loading window of YPU and DSP: 100 to 10000 (default 1000)\n"
    "  -f, --freq N           samples per second of YPU and DSP: 10 to 1000 (default 500)\n"
    "  -n, --number N         stop after N records\n"
    "  -t, --time S           stop after S seconds (S * 1000 / MS records)\n"
    "  -e, --enable LIST      engines to record, comma-separated, any case: ypu, dsp,\n"
    "                         gdc, isp, jpu, pym, stitch, vpu (default: all present)\n"
    "  -v, --verbose          print the settings and informational messages on stderr\n"
    "      --summary FILE     with a COMMAND, also write the summary to FILE as JSON\n"
    "  -h, --help             print this help and exit\n"
    "\n"
    "Without -n or -t the recording runs until SIGINT or SIGTERM, which end it\n"
    "after the record in hand with status 0. A failed write ends it with status 1.\n"
    "\n"
    "With --listen or a COMMAND, records go to -o only when it is given.\n"
    "\n"
    "With a COMMAND, the recording ends when the command does, with its exit\n"
    "status (128+N when signal N killed it; 126 or 127 when it cannot be run).\n"
    "SIGINT, SIGTERM, SIGHUP and SIGQUIT are passed on to the command. -n and -t\n"
    "cannot be combined with a command.\n";

bool ParseFormat(std::string_view text, record::Format& format) {
  if (text == "csv") {
    format = record::Format::kCsv;
  } else if (text == "jsonl") {
    format = record::Format::kJsonLines;
  } else if (text == "prometheus") {
    format = record::Format::kPrometheus;
  } else if (text == "openmetrics") {
    format = record::Format::kOpenMetrics;
  } else {
    base::LogError("%s: format '%.*s' is not one of csv, jsonl, prometheus, openmetrics\n",
                   kProgram, static_cast<int>(text.size()), text.data());
    return false;
  }
  return true;
}

// An engine named twice (any case) is recorded once: a second copy would
// repeat a CSV column and a Prometheus series.
void DropRepeatedEngines(std::vector<std::string>& enable_list) {
  std::vector<std::string> seen;
  std::erase_if(enable_list, [&seen](const std::string& item) {
    const std::string name = monitor::ToUpper(item);
    if (std::find(seen.begin(), seen.end(), name) != seen.end()) return true;
    seen.push_back(name);
    return false;
  });
}

}  // namespace

RecordOption ParseRecordOptions(int argc, char** argv) {
  RecordOption option;
  option.monitor.batch = true;
  // The recorder runs beside the monitor: it reads the board and writes
  // nothing there but its own output.
  option.monitor.read_only = true;
  bool count_given = false;
  bool history_given = false;
  int code;
  // "+": the first word that is not an option starts the command, whose own
  // options are its own.
  while (option.valid &&
         (code = getopt_long(argc, argv, "+hvo:d:f:n:t:e:", kRecordOptions, nullptr)) != -1) {
    switch (code) {
      case 'h':
        std::printf(kRecordUsage, kProgram, base::kMonitorProgram);
        std::exit(0);
      case 'o':
        // "-" is standard output, as for most tools.
        option.output = std::string_view(optarg) == "-" ? "" : optarg;
        option.output_given = true;
        if (*optarg == '\0') {
          base::LogError("%s: the output file name is empty\n", kProgram);
          option.valid = false;
        }
        break;
      case kFormatOption:
        option.valid = ParseFormat(optarg, option.format);
        break;
      case kProcessesOption: {
        option.processes = kDefaultProcesses;
        if (optarg == nullptr) break;
        const std::optional<unsigned long> n = base::ParseDecimal(optarg, 0ul, kMaxProcesses);
        if (!n) {
          base::LogError("%s: --processes takes a number from 0 to %lu, not '%s'\n", kProgram,
                         kMaxProcesses, optarg);
          option.valid = false;
        } else {
          option.processes = *n;
        }
        break;
      }
      case kListenOption: {
        std::string error;
        option.listen = true;
        if (!serve::ParseListenAddress(optarg, option.listen_address, error)) {
          base::LogError("%s: %s\n", kProgram, error.c_str());
          option.valid = false;
        }
        break;
      }
      case kHistoryOption: {
        const std::optional<std::int64_t> n =
            base::ParseDecimal(optarg, std::int64_t{1}, kMaxHistoryMinutes);
        if (!n) {
          base::LogError("%s: --history takes a number of minutes from 1 to %lld, not '%s'\n",
                         kProgram, static_cast<long long>(kMaxHistoryMinutes), optarg);
          option.valid = false;
        } else {
          option.history_minutes = *n;
          history_given = true;
        }
        break;
      }
      case kSummaryOption:
        option.summary = optarg;
        if (*optarg == '\0') {
          base::LogError("%s: the summary file name is empty\n", kProgram);
          option.valid = false;
        }
        break;
      case 'e':
        option.valid = ApplySharedOption(code, optarg, option.monitor);
        // The monitor refuses an empty list without a word; say why here.
        if (!option.valid && option.monitor.enable_list.empty()) {
          base::LogError("%s: the engine list is empty\n", kProgram);
        }
        break;
      case 'n':
      case 't':
        count_given = true;
        option.valid = ApplySharedOption(code, optarg, option.monitor);
        break;
      case 'v':
      case 'd':
      case 'f':
        option.valid = ApplySharedOption(code, optarg, option.monitor);
        break;
      default:  // '?': getopt printed what is wrong
        base::LogError("Try '%s --help' for more information.\n", kProgram);
        option.valid = false;
    }
  }
  if (option.valid) option.command.assign(argv + optind, argv + argc);
  if (option.valid && !option.command.empty() && count_given) {
    base::LogError("%s: -n and -t cannot be combined with a command\n", kProgram);
    option.valid = false;
  }
  if (option.valid && option.command.empty() && !option.summary.empty()) {
    base::LogError("%s: --summary needs a command to summarise\n", kProgram);
    option.valid = false;
  }
  if (option.valid && history_given && !option.listen) {
    base::LogError("%s: --history needs --listen\n", kProgram);
    option.valid = false;
  }
  if (option.valid) option.valid = FinishSharedOptions(option.monitor, true);
  DropRepeatedEngines(option.monitor.enable_list);
  return option;
}

}  // namespace kestro::zqp::app
