// The application: owns the terminal, the event loop, the DDR and engine
// monitors and the display timer, draws a frame at every timer expiry, and
// stops everything on the last frame, a quit key or a fatal signal.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "app/monitor_set.h"
#include "base/monitor_option.h"
#include "display/terminal_display.h"
#include "monitor/monitor_base.h"
#include "monitors/memory_usage.h"
#include "runner/watch_task_runner.h"

namespace kestro::zqp::app {

class MonitorApp {
 public:
  // Prepares the terminal (raw mode unless batch) and creates the runner;
  // starts nothing.
  explicit MonitorApp(const base::MonitorOption& option);
  MonitorApp(const MonitorApp&) = delete;
  MonitorApp& operator=(const MonitorApp&) = delete;
  // Stops the monitors, restores the terminal, then releases the timer, the
  // DDR monitor, the engine monitors (joining their threads) and the runner.
  ~MonitorApp();

  // Installs the fatal-signal handler, creates and starts the monitors,
  // registers the keyboard and the display timer. True when the loop may be
  // entered; false leaves what was started running until destruction.
  bool Init();
  // Runs the event loop until the last frame or a quit key; returns at once
  // when Init did not succeed.
  void Run();
  // Asks every monitor to stop (does not join). Idempotent; safe from the
  // signal handler.
  void StopMonitors();
  // Draws one frame; the terminal's draw callback.
  int DrawFrame();

  // The engine monitors in creation order.
  const std::vector<std::shared_ptr<monitor::MonitorBase>>& Monitors() const {
    return monitor_set.Monitors();
  }

 private:
  void InitInput();
  bool InitDisplay();
  void OnTimer(int fd);

  display::TerminalDisplay terminal;
  const base::MonitorOption option;
  std::shared_ptr<runner::WatchTaskRunner> runner;
  MonitorSet monitor_set;
  runner::PeriodicTimer timer;
  bool initialised = false;
  monitors::MemoryUsage memory;
};

}  // namespace kestro::zqp::app
