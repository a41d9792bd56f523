#include "monitor/status_monitor.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>
#include <vector>

namespace kestro::zqp {
namespace {

using Busy = std::function<bool(std::uint32_t core, std::uint32_t call)>;

// Busy answers come from a script of (core, number of earlier calls for it).
class ScriptedMonitor : public StatusMonitor {
 public:
  ScriptedMonitor(std::uint32_t frequency, std::uint32_t delay, std::uint32_t cores, Busy busy_in)
      : StatusMonitor(MonitorConfig{"YPU", frequency, delay, false, false, false, {}}, nullptr),
        busy(std::move(busy_in)),
        calls(cores) {
    SetLoadingNum(cores);
    SetTasks({[this] { Run(); }});
    ready.store(true);
  }
  ~ScriptedMonitor() override {
    Stop();
    JoinThreads();
  }

  bool IsCoreBusy(std::uint32_t core) override {
    ++total_calls;
    return busy(core, calls[core]++);
  }
  void SampleTimes(int n) {
    for (int i = 0; i < n; ++i) Sample();
  }
  std::uint32_t SampleCount() const { return sample_count; }

  Busy busy;
  std::vector<std::uint32_t> calls;
  std::atomic<int> total_calls{0};
};

const Busy kAlways = [](std::uint32_t, std::uint32_t) { return true; };

struct PeriodCase {
  std::uint32_t frequency, delay, period, samples_per_interval;
};

TEST(StatusMonitorTest, PeriodAndSamplesPerInterval) {
  const PeriodCase cases[] = {{500, 1000, 2, 500}, {1000, 1000, 1, 1000}, {3, 1000, 333, 3},
                              {0, 1000, 0, 0},     {1001, 1000, 0, 0},    {500, 1, 2, 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message() << c.frequency << " Hz, " << c.delay << " ms");
    ScriptedMonitor monitor(c.frequency, c.delay, 1, kAlways);
    EXPECT_EQ(monitor.GetSamplePeriod(), c.period);
    EXPECT_EQ(monitor.SamplesPerInterval(), c.samples_per_interval);
  }
}

TEST(StatusMonitorTest, PublishesTheBusyShareOfEachCompleteInterval) {
  // Core 0 busy in the first 125 samples only, core 1 always, core 2 never.
  ScriptedMonitor monitor(500, 1000, 3, [](std::uint32_t core, std::uint32_t call) {
    return core == 1 || (core == 0 && call < 125);
  });
  monitor.InitCoreStats();
  monitor.SetLoading(2, 7.0f);
  monitor.SampleTimes(499);
  EXPECT_EQ(monitor.LoadingSnapshot(), (std::vector<float>{0.0f, 0.0f, 7.0f}));
  EXPECT_EQ(monitor.SampleCount(), 499u);
  monitor.Sample();
  EXPECT_EQ(monitor.LoadingSnapshot(), (std::vector<float>{25.0f, 100.0f, 0.0f}));
  EXPECT_EQ(monitor.SampleCount(), 0u);
  monitor.SampleTimes(500);  // the counters started again from zero
  EXPECT_EQ(monitor.LoadingSnapshot(), (std::vector<float>{0.0f, 100.0f, 0.0f}));
}

TEST(StatusMonitorTest, WithoutSamplesPerIntervalEveryPassIsAnInterval) {
  const std::pair<std::uint32_t, std::uint32_t> settings[] = {{0, 1000}, {2000, 1000}, {500, 1}};
  for (const auto& [frequency, delay] : settings) {
    SCOPED_TRACE(::testing::Message() << frequency << " Hz, " << delay << " ms");
    ScriptedMonitor monitor(frequency, delay, 1,
                            [](std::uint32_t, std::uint32_t call) { return call % 2 == 0; });
    monitor.InitCoreStats();
    for (const float expected : {100.0f, 0.0f, 100.0f}) {
      monitor.Sample();
      EXPECT_EQ(monitor.GetLoading(0), expected);
      EXPECT_EQ(monitor.SampleCount(), 0u);
    }
  }
}

TEST(StatusMonitorTest, RestartKeepsTheInterruptedInterval) {
  // Busy in the first two samples; four samples per interval.
  ScriptedMonitor monitor(500, 8, 1, [](std::uint32_t, std::uint32_t call) { return call < 2; });
  monitor.InitCoreStats();
  monitor.SampleTimes(2);
  monitor.InitCoreStats();  // what a restarted worker does first
  EXPECT_EQ(monitor.SampleCount(), 2u);
  monitor.SampleTimes(2);
  EXPECT_EQ(monitor.GetLoading(0), 50.0f);
}

TEST(StatusMonitorTest, RunSleepsOnePeriodBetweenPassesAndSeesStop) {
  ScriptedMonitor monitor(20, 1000, 1, kAlways);  // 50 ms period
  const auto start = std::chrono::steady_clock::now();
  monitor.Start();
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  const int passes = monitor.total_calls.load();
  const auto elapsed = std::chrono::steady_clock::now() - start;
  EXPECT_GE(passes, 2);
  // One pass at once, then at most one per 50 ms.
  EXPECT_LE(passes, 2 + elapsed / std::chrono::milliseconds(50));
  const auto before = std::chrono::steady_clock::now();
  monitor.Stop();
  monitor.JoinThreads();
  EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(1000));
}

}  // namespace
}  // namespace kestro::zqp
