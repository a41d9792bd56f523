#include "app/record_app.h"

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

#include "app/fatal_signal_handler.h"
#include "app/option_parser.h"
#include "base/fatal_signals.h"
#include "base/log.h"
#include "monitor/monitor_config.h"
#include "monitors/dsp_node_reader.h"
#include "record/record.h"
#include "record/service_watchdog.h"

namespace kestro::zqp::app {
namespace {

constexpr const char* kProgram = base::kRecordProgram;

std::int64_t WallMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

}  // namespace

RecordApp::RecordApp(const RecordOption& option_in)
    : option(option_in),
      runner(std::make_shared<runner::WatchTaskRunner>()),
      summary(option_in.monitor.delay_ms) {}

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
  sigset_t ignored_at_start;
  if (!OpenOutputs() || !RouteSignals(ignored_at_start)) {
    command_status = 1;
    return false;
  }
  PrintSettings();
  command_status = 1;
  if (!monitor_set.Create(option.monitor, runner)) return false;
  const record::Record before = FirstReading();
  if (!StartServer(before) || !WriteHeader(before) || !StartTimer()) return false;
  if (!option.command.empty() && !StartCommand(ignored_at_start)) return false;
  command_status = 0;
  runner->AddTask(timer.Fd(), [this](int fd) { OnTimer(fd); });
  initialised = true;
  return true;
}

bool RecordApp::OpenOutputs() {
  const bool with_command = !option.command.empty();
  // A wrapped command owns standard output, and a server has no use for it:
  // records then go only to a named file.
  writing = option.output_given || (!with_command && !option.listen);
  // Opened while SIGINT and SIGTERM still have their default action, so
  // that either ends an open that blocks (a FIFO nobody reads).
  std::string error;
  if (writing && !output.Open(option.output, option.format == record::Format::kPrometheus,
                              option.stdout_closed, error)) {
    base::LogError("%s: %s\n", kProgram, error.c_str());
    return false;
  }
  // Bound before anything starts, so that a port in use costs nothing.
  if (option.listen && !server.Bind(option.listen_address, error)) {
    base::LogError("%s: %s\n", kProgram, error.c_str());
    return false;
  }
  // Opened before the command runs, so that a bad name costs no run.
  if (!option.summary.empty() && !summary_file.Open(option.summary, true, false, error)) {
    base::LogError("%s: %s\n", kProgram, error.c_str());
    return false;
  }
  return true;
}

bool RecordApp::RouteSignals(sigset_t& ignored_at_start) {
  const bool with_command = !option.command.empty();
  // The monitor's handler stops the monitors on a fatal signal. A signal that
  // was ignored at start (SIGHUP under nohup) stays ignored, except SIGINT and
  // SIGTERM, which end the run. A command is started with the same ones
  // ignored.
  sigset_t ignored;
  sigemptyset(&ignored);
  sigemptyset(&ignored_at_start);
  for (int sig = 1; sig < NSIG; ++sig) {
    struct sigaction action {};
    if (sigaction(sig, nullptr, &action) != 0 || action.sa_handler != SIG_IGN) continue;
    sigaddset(&ignored_at_start, sig);
    if (sig < 32 && (base::kFatalSignalMask & (1u << sig)) && sig != SIGINT && sig != SIGTERM) {
      sigaddset(&ignored, sig);
    }
  }
  // A dying recorder takes its command with it: nobody would wait for it.
  InstallFatalSignalHandler([this](int) {
    command.KillNow();
    monitor_set.Stop();
    monitor_set.EndToolNow();
  });
  for (int sig = 1; sig < 32; ++sig) {
    if (sigismember(&ignored, sig) == 1) signal(sig, SIG_IGN);
  }
  // A file-size limit fails the write (EFBIG), which is then handled like a
  // full disk, instead of killing the process mid-record.
  signal(SIGXFSZ, SIG_IGN);
  // With a command, a reader of the output or of standard error that went
  // away fails the write instead of killing the recorder: the command must
  // still be waited for and its status passed on.
  if (with_command) signal(SIGPIPE, SIG_IGN);
  // SIGINT and SIGTERM are blocked before any thread starts (threads inherit
  // the mask) and read by the loop, so a record in hand is always finished.
  // With a command, SIGHUP and SIGQUIT too (unless ignored): all four are for
  // the command, and the recording ends when it does. Blocked before the
  // settings are printed, so a stop signal sent as soon as they appear ends
  // the run as a later one does.
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGINT);
  sigaddset(&stop_signals, SIGTERM);
  if (with_command) {
    for (const int sig : {SIGHUP, SIGQUIT}) {
      if (sigismember(&ignored, sig) != 1) sigaddset(&stop_signals, sig);
    }
  }
  pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);
  signal_fd = signalfd(-1, &stop_signals, SFD_NONBLOCK | SFD_CLOEXEC);
  if (signal_fd < 0) {
    base::LogError("%s: signalfd failed: %s\n", kProgram, std::strerror(errno));
    return false;
  }
  runner->AddTask(signal_fd, [this](int fd) { OnStopSignal(fd); });
  return true;
}

void RecordApp::PrintSettings() const {
  static constexpr const char* kFormatNames[] = {"csv", "jsonl", "prometheus", "openmetrics"};
  LogSettings(option.monitor);
  base::LogVerbose("format: %s\n", kFormatNames[static_cast<int>(option.format)]);
  if (writing) {
    base::LogVerbose("output: %s\n",
                     option.output.empty() ? "standard output" : option.output.c_str());
  }
  if (option.listen) {
    base::LogVerbose("listening: http://%s/metrics\n", server.BoundAddress().c_str());
    base::LogVerbose("live page: http://%s/ (%lld minutes)\n", server.BoundAddress().c_str(),
                     static_cast<long long>(option.history_minutes));
  }
}

record::Record RecordApp::FirstReading() {
  start = std::chrono::steady_clock::now();
  // Before the command: the CSV's columns, the heaps' start, and the start
  // of the first interval.
  const record::Record before =
      record::TakeRecord(monitor_set.Monitors(), monitor_set.Ddr(), memory, WallMs(), 0, intervals);
  summary.Begin(before);
  return before;
}

bool RecordApp::StartServer(const record::Record& before) {
  if (!option.listen) return true;
  // Started once the stop signals are blocked, so that its thread never
  // takes them; it serves the start's figures until the first interval ends.
  Publish(before);
  history = std::make_unique<record::History>(option.monitor.delay_ms,
                                              option.history_minutes * 60000, option.processes);
  server.ServeHistory(history.get());
  std::string error;
  if (server.Start(serve::ServerLimits{}, error)) return true;
  base::LogError("%s: %s\n", kProgram, error.c_str());
  return false;
}

bool RecordApp::WriteHeader(const record::Record& before) {
  if (!writing || option.format != record::Format::kCsv) return true;
  layout = record::LayoutOf(before);
  return Emit(record::CsvHeader(layout));
}

bool RecordApp::StartTimer() {
  if (timer.Create() == 0 && timer.SetPeriod(option.monitor.delay_ms) == 0) return true;
  base::LogError("%s: timer failed: %s\n", kProgram, std::strerror(errno));
  return false;
}

bool RecordApp::StartCommand(const sigset_t& ignored) {
  // A stop signal that came during the start (a Ctrl-C typed while the
  // monitors started) was meant for the command, which does not exist yet:
  // it is not started, as if it had been killed at once.
  signalfd_siginfo info{};
  if (read(signal_fd, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
    base::LogVerbose("signal %u before the command started: not started\n", info.ssi_signo);
    command_status = 128 + static_cast<int>(info.ssi_signo);
    return false;
  }
  for (const auto& monitor : monitor_set.Monitors()) {
    if (auto* reader = dynamic_cast<monitors::DspNodeReader*>(monitor.get()))
      reader->KeepSeenClients();
  }
  command_status = command.Start(option.command, ignored);
  if (command_status != 0) return false;
  if (command.Descriptor() >= 0) {
    runner->AddTask(command.Descriptor(), [this](int) { OnCommandEnd(); });
  }
  return true;
}

int RecordApp::Run() {
  if (!initialised) return command_status;
  runner->Run();
  // Ended by the count, a stop signal or the command's end: the exposition
  // is complete.
  if (writing && option.format == record::Format::kOpenMetrics) {
    Emit(record::OpenMetricsWriter::kEnd);
  }
  if (option.command.empty()) return failed ? 1 : 0;
  // Stopped before the summary, so the DDR tool is not left running while
  // it is written.
  monitor_set.Stop();
  std::vector<record::DspClient> clients;
  for (const auto& monitor : monitor_set.Monitors()) {
    if (const auto* reader = dynamic_cast<const monitors::DspNodeReader*>(monitor.get())) {
      for (const auto& client : reader->SeenClients()) clients.push_back({client.pid, client.name});
    }
  }
  summary.SetDspClients(std::move(clients));
  const record::CommandOutcome outcome{option.command, command_status, killed_by,
                                       command.WallSeconds(), option.monitor.delay_ms};
  const std::string table = summary.Table(outcome);
  std::fputs(("\n" + table).c_str(), stderr);
  std::string error;
  if (!option.summary.empty() && !summary_file.Write(summary.Json(outcome), error)) {
    base::LogError("%s: %s\n", kProgram, error.c_str());
  }
  return command_status;
}

int RecordApp::SignalToDieBy() const {
  return killed_by == SIGINT || killed_by == SIGQUIT ? killed_by : 0;
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
    base::LogError("Read timer expire time failed\n");
  }
  if (!option.command.empty() && command.Running() && command.Descriptor() < 0 &&
      command.HasEnded()) {
    OnCommandEnd();
    return;
  }
  TakeAndWrite();
  if (option.command.empty() && option.monitor.iterations <= ++records) runner->Stop();
}

void RecordApp::TakeAndWrite() {
  const std::int64_t elapsed_ms = ElapsedMs();
  const record::Record record = record::TakeRecord(monitor_set.Monitors(), monitor_set.Ddr(),
                                                   memory, WallMs(), elapsed_ms, intervals);
  if (!option.command.empty()) summary.Add(record, elapsed_ms - last_record_ms);
  last_record_ms = elapsed_ms;
  if (option.listen) {
    Publish(record);
    history->Add(record);
  }
  record::NotifyWatchdog();
  if (!writing) return;
  std::string text;
  switch (option.format) {
    case record::Format::kCsv:
      text = record::CsvRow(layout, record);
      break;
    case record::Format::kJsonLines:
      text = record::JsonLine(record);
      break;
    case record::Format::kPrometheus:
      text = record::PrometheusText(record, option.processes);
      break;
    case record::Format::kOpenMetrics:
      text = open_metrics.Samples(record, option.processes);
      break;
  }
  Emit(text);
}

void RecordApp::Publish(const record::Record& record) {
  server.Publish(record::PrometheusText(record, option.processes),
                 record::OpenMetricsText(record, option.processes));
}

void RecordApp::OnCommandEnd() {
  if (command.Descriptor() >= 0) runner->RemoveTask(command.Descriptor());
  command_status = command.Reap(killed_by);
  // The last record covers the command's end.
  TakeAndWrite();
  runner->Stop();
}

void RecordApp::OnStopSignal(int fd) {
  signalfd_siginfo info{};
  if (read(fd, &info, sizeof info) != static_cast<ssize_t>(sizeof info)) return;
  if (option.command.empty()) {
    base::LogVerbose("signal %u: recording ends\n", info.ssi_signo);
    runner->Stop();
    return;
  }
  // The terminal sends its keys' signals to the whole foreground process
  // group, and kill with a negative pid to a whole group: a command in it got
  // the signal already, and passing it on would deliver it twice.
  if (command.PassOn(static_cast<int>(info.ssi_signo), info.ssi_code)) {
    base::LogVerbose("signal %u: passed on to the command\n", info.ssi_signo);
  } else {
    base::LogVerbose("signal %u: the command got it too\n", info.ssi_signo);
  }
}

bool RecordApp::Emit(const std::string& text) {
  std::string error;
  if (output.Write(text, error)) return true;
  base::LogError("%s: %s\n", kProgram, error.c_str());
  failed = true;
  // A wrapped command goes on; only the recording to the file ends.
  writing = false;
  if (option.command.empty()) runner->Stop();
  return false;
}

}  // namespace kestro::zqp::app
