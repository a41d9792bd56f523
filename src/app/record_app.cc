#include "app/record_app.h"

#include <getopt.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <vector>

#include "app/option_parser.h"
#include "base/fatal_signals.h"
#include "base/log.h"
#include "monitor/monitor_config.h"
#include "record/record.h"

namespace kestro::zqp::monitor {
namespace {

constexpr char kProgram[] = "kvt_zqp_record";
constexpr int kFormatOption = 256;

const option kRecordOptions[] = {
    {"help", no_argument, nullptr, 'h'},
    {"verbose", no_argument, nullptr, 'v'},
    {"output", required_argument, nullptr, 'o'},
    {"format", required_argument, nullptr, kFormatOption},
    {"delay", required_argument, nullptr, 'd'},
    {"freq", required_argument, nullptr, 'f'},
    {"number", required_argument, nullptr, 'n'},
    {"time", required_argument, nullptr, 't'},
    {"enable", required_argument, nullptr, 'e'},
    {nullptr, 0, nullptr, 0},
};

constexpr char kRecordUsage[] =
    "Usage: kvt_zqp_record [OPTION...]\n"
    "Record the figures of kvt_zqp_monitor's report, one record per interval.\n"
    "\n"
    "  -o, --output FILE      write to FILE (default: standard output)\n"
    "      --format FORMAT    csv (default), jsonl or prometheus; with -o, a prometheus\n"
    "                         FILE is replaced whole at every interval\n"
    "  -d, --delay MS         interval between records in milliseconds, also the\n"
    "                         loading window of YPU and DSP: 100 to 10000 (default 1000)\n"
    "  -f, --freq N           samples per second of YPU and DSP: 10 to 1000 (default 500)\n"
    "  -n, --number N         stop after N records\n"
    "  -t, --time S           stop after S seconds (S * 1000 / MS records)\n"
    "  -e, --enable LIST      engines to record, comma-separated, any case: ypu, dsp,\n"
    "                         gdc, isp, jpu, pym, stitch, vpu (default: all present)\n"
    "  -v, --verbose          print the settings and informational messages on stderr\n"
    "  -h, --help             print this help and exit\n"
    "\n"
    "Without -n or -t the recording runs until SIGINT or SIGTERM, which end it\n"
    "after the record in hand with status 0. A failed write ends it with status 1.\n";

bool ParseFormat(std::string_view text, record::Format& format) {
  if (text == "csv") {
    format = record::Format::kCsv;
  } else if (text == "jsonl") {
    format = record::Format::kJsonLines;
  } else if (text == "prometheus") {
    format = record::Format::kPrometheus;
  } else {
    LogError("%s: format '%.*s' is not one of csv, jsonl, prometheus\n", kProgram,
             static_cast<int>(text.size()), text.data());
    return false;
  }
  return true;
}

// An engine named twice (any case) is recorded once: a second copy would
// repeat a CSV column and a Prometheus series.
void DropRepeatedEngines(std::vector<std::string>& enable_list) {
  std::vector<std::string> seen;
  std::erase_if(enable_list, [&seen](const std::string& item) {
    const std::string name = ToUpper(item);
    if (std::find(seen.begin(), seen.end(), name) != seen.end()) return true;
    seen.push_back(name);
    return false;
  });
}

std::int64_t WallMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

}  // namespace

RecordOption ParseRecordOptions(int argc, char** argv) {
  RecordOption option;
  option.monitor.batch = true;
  // The recorder runs beside the monitor: it reads the board and writes
  // nothing there but its own output.
  option.monitor.read_only = true;
  int code;
  while (option.valid &&
         (code = getopt_long(argc, argv, "hvo:d:f:n:t:e:", kRecordOptions, nullptr)) != -1) {
    switch (code) {
      case 'h':
        std::fputs(kRecordUsage, stdout);
        std::exit(0);
      case 'o':
        // "-" is standard output, as for most tools.
        option.output = std::string_view(optarg) == "-" ? "" : optarg;
        if (*optarg == '\0') {
          LogError("%s: the output file name is empty\n", kProgram);
          option.valid = false;
        }
        break;
      case kFormatOption:
        option.valid = ParseFormat(optarg, option.format);
        break;
      case 'e':
        option.valid = ApplySharedOption(code, optarg, option.monitor);
        // The monitor refuses an empty list without a word; say why here.
        if (!option.valid && option.monitor.enable_list.empty()) {
          LogError("%s: the engine list is empty\n", kProgram);
        }
        break;
      case 'v':
      case 'd':
      case 'f':
      case 'n':
      case 't':
        option.valid = ApplySharedOption(code, optarg, option.monitor);
        break;
      default:  // '?': getopt printed what is wrong
        LogError("Try '%s --help' for more information.\n", kProgram);
        option.valid = false;
    }
  }
  if (option.valid && optind < argc) {
    LogError("%s: unexpected argument '%s'\n", kProgram, argv[optind]);
    option.valid = false;
  }
  if (option.valid) option.valid = FinishSharedOptions(option.monitor, true);
  DropRepeatedEngines(option.monitor.enable_list);
  return option;
}

RecordApp::RecordApp(const RecordOption& option_in)
    : option(option_in), runner(std::make_shared<WatchTaskRunner>()) {}

RecordApp::~RecordApp() {
  monitor_set.Stop();
  // The handler must not reach this object once it is gone.
  ClearFatalSignalCallback();
  if (signal_fd >= 0) {
    runner->RemoveTask(signal_fd);
    close(signal_fd);
  }
}

bool RecordApp::Init() {
  static constexpr const char* kFormatNames[] = {"csv", "jsonl", "prometheus"};
  LogSettings(option.monitor);
  LogVerbose("format: %s\n", kFormatNames[static_cast<int>(option.format)]);
  LogVerbose("output: %s\n", option.output.empty() ? "standard output" : option.output.c_str());

  std::string error;
  if (!output.Open(option.output, option.format == record::Format::kPrometheus,
                   option.stdout_closed, error)) {
    LogError("%s: %s\n", kProgram, error.c_str());
    return false;
  }

  // The monitor's handler stops the monitors on a fatal signal. A signal that
  // was ignored at start (SIGHUP under nohup) stays ignored, except SIGINT and
  // SIGTERM, which end the run.
  sigset_t ignored;
  sigemptyset(&ignored);
  for (int sig = 1; sig < 32; ++sig) {
    struct sigaction action {};
    if ((kFatalSignalMask & (1u << sig)) && sig != SIGINT && sig != SIGTERM &&
        sigaction(sig, nullptr, &action) == 0 && action.sa_handler == SIG_IGN) {
      sigaddset(&ignored, sig);
    }
  }
  InstallFatalSignalHandler([this](int) {
    monitor_set.Stop();
    monitor_set.EndToolNow();
  });
  for (int sig = 1; sig < 32; ++sig) {
    if (sigismember(&ignored, sig) == 1) signal(sig, SIG_IGN);
  }
  // A file-size limit fails the write (EFBIG), which is then handled like a
  // full disk, instead of killing the process mid-record.
  signal(SIGXFSZ, SIG_IGN);
  // SIGINT and SIGTERM are blocked before any thread starts (threads inherit
  // the mask) and read by the loop, so a record in hand is always finished.
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGINT);
  sigaddset(&stop_signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);
  signal_fd = signalfd(-1, &stop_signals, SFD_NONBLOCK | SFD_CLOEXEC);
  if (signal_fd < 0) {
    LogError("%s: signalfd failed: %s\n", kProgram, std::strerror(errno));
    return false;
  }
  runner->AddTask(signal_fd, [this](int fd) { OnStopSignal(fd); });

  if (!monitor_set.Create(option.monitor, runner)) return false;
  start = std::chrono::steady_clock::now();
  if (option.format == record::Format::kCsv) {
    layout = record::LayoutOf(
        record::TakeRecord(monitor_set.Monitors(), monitor_set.Ddr(), memory, WallMs(), 0));
    if (!Emit(record::CsvHeader(layout))) return false;
  }
  if (timer.Create() != 0 || timer.SetPeriod(option.monitor.delay_ms) != 0) {
    LogError("%s: timer failed: %s\n", kProgram, std::strerror(errno));
    return false;
  }
  runner->AddTask(timer.Fd(), [this](int fd) { OnTimer(fd); });
  initialised = true;
  return true;
}

int RecordApp::Run() {
  if (!initialised) return 1;
  runner->Run();
  return failed ? 1 : 0;
}

std::int64_t RecordApp::ElapsedMs() const {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                               start)
      .count();
}

void RecordApp::OnTimer(int fd) {
  // Expiries missed while busy are read as one count and give one record.
  std::uint64_t expirations = 0;
  if (read(fd, &expirations, sizeof expirations) < static_cast<ssize_t>(sizeof expirations)) {
    LogError("Read timer expire time failed\n");
  }
  const record::Record record =
      record::TakeRecord(monitor_set.Monitors(), monitor_set.Ddr(), memory, WallMs(), ElapsedMs());
  std::string text;
  switch (option.format) {
    case record::Format::kCsv:
      text = record::CsvRow(layout, record);
      break;
    case record::Format::kJsonLines:
      text = record::JsonLine(record);
      break;
    case record::Format::kPrometheus:
      text = record::PrometheusText(record);
      break;
  }
  if (!Emit(text)) return;
  if (option.monitor.iterations <= ++records) runner->Stop();
}

void RecordApp::OnStopSignal(int fd) {
  signalfd_siginfo info{};
  if (read(fd, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
    LogVerbose("signal %u: recording ends\n", info.ssi_signo);
  }
  runner->Stop();
}

bool RecordApp::Emit(const std::string& text) {
  std::string error;
  if (output.Write(text, error)) return true;
  LogError("%s: %s\n", kProgram, error.c_str());
  failed = true;
  runner->Stop();
  return false;
}

}  // namespace kestro::zqp::monitor
