#include "app/monitor_app.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "app/fatal_signal_handler.h"
#include "base/log.h"
#include "display/report.h"

namespace kestro::zqp::app {
namespace {

// Frames drawn so far plus one; only the main thread touches it.
std::uint32_t g_frame_counter = 1;

}  // namespace

MonitorApp::MonitorApp(const base::MonitorOption& option)
    : terminal(option.batch), option(option), runner(std::make_shared<runner::WatchTaskRunner>()) {}

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

  if (!monitor_set.Create(option, runner)) return false;
  InitInput();
  initialised = InitDisplay();
  return initialised;
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
    base::LogError("timerfd_create failed, zqp monitor is not available, error:%s\n",
                   std::strerror(errno));
    terminal.RestoreTerminal();
    return false;
  }
  if (timer.SetPeriod(option.delay_ms) != 0) {
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
    base::LogBatchError(option.batch, "Read timer expire time failed\n");
  }
  terminal.Refresh();
  if (option.iterations <= g_frame_counter) runner->Stop();
  ++g_frame_counter;
}

void MonitorApp::Run() {
  if (initialised) runner->Run();
}

void MonitorApp::StopMonitors() {
  monitor_set.Stop();
}

int MonitorApp::DrawFrame() {
  return display::DrawFrame(terminal, monitor_set.Monitors(), monitor_set.Ddr(), memory);
}

}  // namespace kestro::zqp::app
