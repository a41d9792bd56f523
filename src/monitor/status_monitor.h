// Base of the monitors that can only ask whether a core is busy right now.
// One worker samples every core at the configured frequency and, once per
// interval of delay ms worth of samples, publishes each core's busy share.
#pragma once

#include <cstdint>
#include <vector>

#include "monitor/monitor_base.h"

namespace kestro::zqp::monitor {

class StatusMonitor : public MonitorBase {
 public:
  StatusMonitor(const MonitorConfig& config,
                const std::shared_ptr<runner::WatchTaskRunner>& runner);

  // 1000 / frequency ms (0 when the frequency is 0 or above 1000).
  std::uint32_t GetSamplePeriod() override { return sample_period; }
  // Sizes the per-core counters to the loading slots, keeping existing ones,
  // so a restarted worker continues the interrupted interval.
  virtual void InitCoreStats();
  // One pass over every core. Allocates nothing, locks nothing, and makes no
  // system call beyond IsCoreBusy.
  virtual void Sample();
  // True when the core is doing work at this instant. Runs on the worker at
  // the sampling frequency and must not block.
  virtual bool IsCoreBusy(std::uint32_t core) = 0;
  // Worker body: samples until the stop flag is seen between passes.
  virtual void Run();

  bool IsSampler() const override { return true; }
  std::uint32_t SamplesPerInterval() const { return samples_per_interval; }

 protected:
  std::uint32_t sample_period;
  std::uint32_t samples_per_interval;
  std::uint32_t sample_count = 0;
  std::vector<std::uint32_t> busy_counts;
  std::vector<float> loading_values;
  // This pass's answers, counted for a recording only once every core has
  // answered: a reader waits while a pass counts, and must never wait on a
  // core's answer.
  std::vector<std::uint8_t> busy_now;
};

}  // namespace kestro::zqp::monitor
