// The application: owns the terminal, the event loop, the DDR and engine
// monitors and the display timer, draws a frame at every timer expiry, and
// stops everything on the last frame, a quit key or a fatal signal.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "base/monitor_option.h"
#include "display/report.h"
#include "display/terminal_display.h"
#include "monitor/monitor_base.h"
#include "monitors/ddr_monitor.h"
#include "monitors/memory_usage.h"
#include "runner/watch_task_runner.h"

namespace kestro::zqp::monitor {

// Installs the one handler for the thirteen fatal signals (kFatalSignalMask),
// which runs callback, then the signal's default action. Replaces the callback
// of an earlier call.
void InstallFatalSignalHandler(std::function<void(int)> callback);
// Empties the handler's callback, so that it no longer reaches its owner.
void ClearFatalSignalCallback();

// The DDR monitor and the engine monitors that the options select, created
// and started together and stopped together; every program of the library
// takes its figures from one.
class MonitorSet {
 public:
  MonitorSet() = default;
  MonitorSet(const MonitorSet&) = delete;
  MonitorSet& operator=(const MonitorSet&) = delete;

  // Builds the DDR configuration and starts the DDR monitor, generates the
  // engine configurations and creates and starts a monitor for each that comes
  // up. False when the configurations cannot be made (after their message);
  // what was started then runs until Stop.
  bool Create(const MonitorOption& option, const std::shared_ptr<WatchTaskRunner>& runner);
  // Asks every monitor to stop (does not join). Idempotent; safe from the
  // signal handler.
  void Stop();
  // For a fatal signal's handler, after Stop: kills the DDR tool's process
  // group at once, even when it ignores the hang-up, since the process is
  // about to die without joining the worker that would have.
  void EndToolNow();
  bool Stopped() const { return stopped.load(); }

  // The engine monitors in creation order.
  const std::vector<std::shared_ptr<MonitorBase>>& Monitors() const { return monitors; }
  // The DDR figures as the report shows them.
  DdrFigures Ddr() const;

 private:
  // Destroyed in reverse: the DDR monitor first, then the engine monitors
  // (each joining its workers).
  std::vector<std::shared_ptr<MonitorBase>> monitors;
  std::unique_ptr<DDRMonitor> ddr_monitor;
  // The DDR figures count as live while the tool printed one within this
  // many milliseconds: three of the tool's one-second tables, or three
  // intervals when those are longer.
  std::int64_t ddr_silence_ms = 3000;
  // Atomic: a fatal signal may run Stop on any thread.
  std::atomic<bool> stopped{false};
};

class MonitorApp {
 public:
  // Prepares the terminal (raw mode unless batch) and creates the runner;
  // starts nothing.
  explicit MonitorApp(const MonitorOption& option);
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
  const std::vector<std::shared_ptr<MonitorBase>>& Monitors() const {
    return monitor_set.Monitors();
  }

 private:
  bool CreateMonitors();
  void InitInput();
  bool InitDisplay();
  void OnTimer(int fd);

  TerminalDisplay terminal;
  std::uint32_t delay_ms;
  std::uint32_t iterations;
  std::uint32_t frequency;
  std::uint32_t duration_s;
  bool batch;
  std::vector<std::string> enable_list;
  std::shared_ptr<WatchTaskRunner> runner;
  MonitorSet monitor_set;
  PeriodicTimer timer;
  bool initialised = false;
  MemoryUsage memory;
};

}  // namespace kestro::zqp::monitor
