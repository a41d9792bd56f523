#include "app/monitor_set.h"

#include <algorithm>

#include "monitor/monitor_config.h"
#include "monitors/monitor_registry.h"

namespace kestro::zqp::app {

bool MonitorSet::Create(const base::MonitorOption& option,
                        const std::shared_ptr<runner::WatchTaskRunner>& runner) {
  ddr_silence_ms = std::max<std::int64_t>(3000, 3 * static_cast<std::int64_t>(option.delay_ms));
  monitor::MonitorConfig ddr_config;
  if (!monitor::BuildDdrConfig(option, ddr_config)) return false;
  ddr_monitor = std::make_unique<monitors::DDRMonitor>(ddr_config);
  ddr_monitor->Start();

  std::vector<monitor::MonitorConfig> configs;
  if (!monitor::GenerateMonitorConfigs(option, configs)) return false;
  for (const monitor::MonitorConfig& config : configs) {
    std::shared_ptr<monitor::MonitorBase> monitor = monitors::CreateMonitor(config, runner);
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

monitors::DdrFigures MonitorSet::Ddr() const {
  monitors::DdrFigures ddr;
  if (ddr_monitor) {
    ddr.ready = ddr_monitor->IsReady();
    ddr.live = ddr_monitor->IsAnswering(ddr_silence_ms);
    ddr.read = static_cast<std::uint32_t>(ddr_monitor->ReadBandwidth());
    ddr.write = static_cast<std::uint32_t>(ddr_monitor->WriteBandwidth());
  }
  return ddr;
}

}  // namespace kestro::zqp::app
