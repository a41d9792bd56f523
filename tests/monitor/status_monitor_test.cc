#include "monitor/status_monitor.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <vector>

#include "support/test_util.h"

namespace kestro::zqp::monitor {
namespace {

// IsCoreBusy answers from a script and counts its calls.
class ScriptedMonitor : public StatusMonitor {
 public:
  ScriptedMonitor(std::uint32_t frequency, std::uint32_t delay, std::uint32_t cores,
                  std::function<bool(std::uint32_t)> busy_in)
      : StatusMonitor(MonitorConfig{.name = "YPU", .frequency = frequency, .delay = delay},
                      nullptr),
        busy(std::move(busy_in)) {
    SetLoadingNum(cores);
    SetTasks({[this] { Run(); }});
    ready.store(true);
  }
  bool IsCoreBusy(std::uint32_t core) override { return ++calls > 0 && busy(core); }

  std::function<bool(std::uint32_t)> busy;
  std::atomic<int> calls{0};
};

TEST(StatusMonitorTest, PeriodSamplesPerIntervalAndTheFirstPass) {
  // frequency, delay, period, samples per interval
  const std::uint32_t cases[][4] = {{500, 1000, 2, 500}, {1000, 1000, 1, 1000}, {3, 1000, 333, 3},
                                    {0, 1000, 0, 0},     {1001, 1000, 0, 0},    {1, 1, 1000, 0},
                                    {1000, 1, 1, 1}};
  for (const auto& [frequency, delay, period, per_interval] : cases) {
    SCOPED_TRACE(::testing::Message() << frequency << " Hz, " << delay << " ms");
    ScriptedMonitor monitor(frequency, delay, 1, [](std::uint32_t) { return true; });
    EXPECT_EQ(monitor.GetSamplePeriod(), period);
    EXPECT_EQ(monitor.SamplesPerInterval(), per_interval);
    monitor.InitCoreStats();
    monitor.Sample();
    // Without two samples per interval every pass is a complete interval.
    EXPECT_EQ(monitor.GetLoading(0), per_interval <= 1 ? 100.0f : 0.0f);
  }
}

TEST(StatusMonitorTest, PublishesEachIntervalsBusyShareAndARestartContinuesIt) {
  // Core 0 busy in its first 125 samples only, core 1 always, core 2 never.
  ScriptedMonitor monitor(500, 1000, 3, [n = 0](std::uint32_t core) mutable {
    return core == 1 || (core == 0 && n++ < 125);
  });
  monitor.InitCoreStats();
  monitor.SetLoading(2, 7.0f);
  for (int i = 0; i < 500; ++i) monitor.Sample();
  EXPECT_EQ(monitor.LoadingSnapshot(), (std::vector<float>{25.0f, 100.0f, 0.0f}));
  for (int i = 0; i < 250; ++i) monitor.Sample();
  monitor.InitCoreStats();  // what a restarted worker does first
  for (int i = 0; i < 250; ++i) monitor.Sample();
  EXPECT_EQ(monitor.LoadingSnapshot(), (std::vector<float>{0.0f, 100.0f, 0.0f}));
}

TEST(StatusMonitorTest, RunSleepsOnePeriodBetweenPassesUntilStopped) {
  ScriptedMonitor monitor(20, 1000, 1, [](std::uint32_t) { return true; });  // 50 ms period
  const auto start = std::chrono::steady_clock::now();
  monitor.Start();
  EXPECT_TRUE(test_support::WaitFor([&] { return monitor.calls.load() >= 3; }));
  // One pass at once, then one per 50 ms.
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(100));
  monitor.Stop();
  // Joined here: the base's destructor would join only after the sampler's
  // own members, which the worker still uses, are gone.
  monitor.JoinThreads();
}

}  // namespace
}  // namespace kestro::zqp::monitor
