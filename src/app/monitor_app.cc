#include "app/monitor_app.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>

#include "base/fatal_signals.h"
#include "base/log.h"
#include "display/report.h"
#include "monitor/monitor_config.h"
#include "monitors/monitor_registry.h"

namespace kestro::zqp::monitor {
namespace {

// Frames drawn so far plus one; only the main thread touches it.
std::uint32_t g_frame_counter = 1;

// What a fatal signal runs before the signal is raised again.
std::function<void(int)> g_signal_callback;

void HandleFatalSignal(int sig) {
  if (g_signal_callback) g_signal_callback(sig);
  DieBySignal(sig);
}

}  // namespace

void InstallFatalSignalHandler(std::function<void(int)> callback) {
  g_signal_callback = std::move(callback);
  for (int sig = 1; sig < 32; ++sig) {
    if (kFatalSignalMask & (1u << sig)) signal(sig, HandleFatalSignal);
  }
}

void ClearFatalSignalCallback() {
  g_signal_callback = nullptr;
}

bool MonitorSet::Create(const MonitorOption& option,
                        const std::shared_ptr<WatchTaskRunner>& runner) {
  ddr_silence_ms = std::max<std::int64_t>(3000, 3 * static_cast<std::int64_t>(option.delay_ms));
  MonitorConfig ddr_config;
  if (!BuildDdrConfig(option, ddr_config)) return false;
  ddr_monitor = std::make_unique<DDRMonitor>(ddr_config);
  ddr_monitor->Start();

  std::vector<MonitorConfig> configs;
  if (!GenerateMonitorConfigs(option, configs)) return false;
  for (const MonitorConfig& config : configs) {
    std::shared_ptr<MonitorBase> monitor = CreateMonitor(config, runner);
    if (!monitor) continue;
    monitors.push_back(monitor);
    monitor->Start();
  }
  return true;
}

void MonitorSet::Stop() {
  if (stopped.load()) return;
  if (ddr_monitor) ddr_monitor->Stop();
  for (const auto& monitor : monitors) monitor->Stop();
  stopped.store(true);
}

void MonitorSet::EndToolNow() {
  if (ddr_monitor) ddr_monitor->EndToolNow();
}

DdrFigures MonitorSet::Ddr() const {
  DdrFigures ddr;
  if (ddr_monitor) {
    ddr.ready = ddr_monitor->IsReady();
    ddr.live = ddr_monitor->IsAnswering(ddr_silence_ms);
    ddr.read = static_cast<std::uint32_t>(ddr_monitor->ReadBandwidth());
    ddr.write = static_cast<std::uint32_t>(ddr_monitor->WriteBandwidth());
  }
  return ddr;
}

MonitorApp::MonitorApp(const MonitorOption& option)
    : terminal(option.batch),
      delay_ms(option.delay_ms),
      iterations(option.iterations),
      frequency(option.frequency),
      duration_s(option.duration_s),
      batch(option.batch),
      enable_list(option.enable_list),
      runner(std::make_shared<WatchTaskRunner>()) {}

MonitorApp::~MonitorApp() {
  StopMonitors();
  terminal.RestoreTerminal();
  // The handler must not reach this object once it is gone.
  ClearFatalSignalCallback();
}

bool MonitorApp::Init() {
  if (initialised) return true;
  if (monitor_set.Stopped()) return false;

  InstallFatalSignalHandler([this](int) {
    StopMonitors();
    terminal.RestoreTerminal();
    monitor_set.EndToolNow();
  });

  if (!CreateMonitors()) return false;
  InitInput();
  initialised = InitDisplay();
  return initialised;
}

bool MonitorApp::CreateMonitors() {
  MonitorOption option;
  option.delay_ms = delay_ms;
  option.iterations = iterations;
  option.frequency = frequency;
  option.duration_s = duration_s;
  option.batch = batch;
  option.enable_list = enable_list;

  return monitor_set.Create(option, runner);
}

void MonitorApp::InitInput() {
  runner->AddTask(0, [this](int fd) {
    if (!terminal.HandleKey()) {
      runner->Stop();
    } else if (terminal.InputEnded() && !isatty(fd)) {
      // An ended file or pipe (a batch run from /dev/null, say) stays readable
      // for ever; watching it further would spin the loop. A terminal's
      // end-of-file is one keystroke and keys may follow, so it stays watched.
      runner->RemoveTask(fd);
    }
  });
}

bool MonitorApp::InitDisplay() {
  if (timer.Create() != 0) {
    LogError("timerfd_create failed, zqp monitor is not available, error:%s\n",
             std::strerror(errno));
    terminal.RestoreTerminal();
    return false;
  }
  if (timer.SetPeriod(delay_ms) != 0) {
    terminal.RestoreTerminal();
    return false;
  }
  terminal.SetDrawCallback([this] { return DrawFrame(); });
  runner->AddTask(timer.Fd(), [this](int fd) { OnTimer(fd); });
  return true;
}

void MonitorApp::OnTimer(int fd) {
  // Expiries missed while busy are read as one count and give one frame.
  std::uint64_t expirations = 0;
  if (read(fd, &expirations, sizeof expirations) < static_cast<ssize_t>(sizeof expirations)) {
    LogBatchError(batch, "Read timer expire time failed\n");
  }
  terminal.Refresh();
  if (iterations <= g_frame_counter) runner->Stop();
  ++g_frame_counter;
}

void MonitorApp::Run() {
  if (initialised) runner->Run();
}

void MonitorApp::StopMonitors() {
  monitor_set.Stop();
}

int MonitorApp::DrawFrame() {
  return monitor::DrawFrame(terminal, monitor_set.Monitors(), monitor_set.Ddr(), memory);
}

}  // namespace kestro::zqp::monitor
