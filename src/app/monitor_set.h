// The DDR monitor and the engine monitors that the options select, created
// and started together and stopped together; every program of the library
// takes its figures from one.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "base/monitor_option.h"
#include "monitor/monitor_base.h"
#include "monitors/ddr_monitor.h"
#include "runner/watch_task_runner.h"

namespace kestro::zqp::app {

class MonitorSet {
 public:
  MonitorSet() = default;
  MonitorSet(const MonitorSet&) = delete;
  MonitorSet& operator=(const MonitorSet&) = delete;

  // Builds the DDR configuration and starts the DDR monitor, generates the
  // engine configurations and creates and starts a monitor for each that comes
  // up. False when the configurations cannot be made (after their message);
  // what was started then runs until Stop.
  bool Create(const base::MonitorOption& option,
              const std::shared_ptr<runner::WatchTaskRunner>& runner);
  // Asks every monitor to stop (does not join). Idempotent; safe from the
  // signal handler.
  void Stop();
  // For a fatal signal's handler, after Stop: kills the DDR tool's process
  // group at once, even when it ignores the hang-up, since the process is
  // about to die without joining the worker that would have.
  void EndToolNow();
  bool Stopped() const { return stopped.load(); }

  // The engine monitors in creation order.
  const std::vector<std::shared_ptr<monitor::MonitorBase>>& Monitors() const { return monitors; }
  // The DDR figures as the report shows them.
  monitors::DdrFigures Ddr() const;

 private:
  // Destroyed in reverse: the DDR monitor first, then the engine monitors
  // (each joining its workers).
  std::vector<std::shared_ptr<monitor::MonitorBase>> monitors;
  std::unique_ptr<monitors::DDRMonitor> ddr_monitor;
  // The DDR figures count as live while the tool printed one within this
  // many milliseconds: three of the tool's one-second tables, or three
  // intervals when those are longer.
  std::int64_t ddr_silence_ms = 3000;
  // Atomic: a fatal signal may run Stop on any thread.
  std::atomic<bool> stopped{false};
};

}  // namespace kestro::zqp::app
