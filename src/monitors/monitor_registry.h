// Engine name to monitor factory: turns a configuration into a ready monitor,
// or into nothing.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <unordered_map>

#include "monitor/monitor_base.h"
#include "monitor/monitor_config.h"

namespace kestro::zqp::monitors {

using MonitorFactory = std::function<std::shared_ptr<monitor::MonitorBase>(
    const monitor::MonitorConfig&, const std::shared_ptr<runner::WatchTaskRunner>&)>;

// The eight creators, keyed by engine name. Each returns an empty pointer when
// the configuration is refused or the monitor did not come up ready; it never
// starts the monitor. Immutable after static initialisation.
extern const std::unordered_map<std::string, MonitorFactory> MonitorCreator;

// False, after "sample time is 0 for %s" or (YPU, DSP only) "sample frequency
// is 0 for %s", when the configuration cannot drive a monitor.
bool CheckMonitorConfig(const monitor::MonitorConfig& config);

// Looks the configuration's name up exactly; an unknown or empty name gives an
// empty pointer without a message.
std::shared_ptr<monitor::MonitorBase> CreateMonitor(
    const monitor::MonitorConfig& config, const std::shared_ptr<runner::WatchTaskRunner>& runner);

}  // namespace kestro::zqp::monitors
