#include "monitor/status_monitor.h"

namespace kestro::zqp::monitor {

StatusMonitor::StatusMonitor(const MonitorConfig& config,
                             const std::shared_ptr<runner::WatchTaskRunner>& runner)
    : MonitorBase(config, runner),
      sample_period(config.frequency != 0 ? 1000 / config.frequency : 0),
      samples_per_interval(sample_period != 0 ? config.delay / sample_period : 0) {}

void StatusMonitor::InitCoreStats() {
  busy_counts.resize(loading_num);
  loading_values.resize(loading_num);
  busy_now.resize(loading_num);
}

void StatusMonitor::Sample() {
  ++sample_count;
  const bool interval_done = sample_count >= samples_per_interval;
  for (std::uint32_t i = 0; i < loading_values.size(); ++i) {
    busy_now[i] = IsCoreBusy(i);
    if (busy_now[i]) ++busy_counts[i];
    if (interval_done) {
      loading_values[i] =
          static_cast<float>(busy_counts[i]) / static_cast<float>(sample_count) * 100.0f;
      busy_counts[i] = 0;
      SetLoading(i, loading_values[i]);
    }
  }
  // Only a recording reads the running counts: the monitor's loop does no
  // more than it did.
  if (read_only) {
    BeginSample();
    for (std::uint32_t i = 0; i < loading_values.size(); ++i) {
      if (busy_now[i]) CountBusy(i);
    }
    CountSample();
  }
  if (interval_done) sample_count = 0;
}

void StatusMonitor::Run() {
  InitCoreStats();
  const std::uint32_t period = GetSamplePeriod();
  while (!stop.load()) {
    Sample();
    if (period != 0) SleepMs(period);
  }
}

}  // namespace kestro::zqp::monitor
