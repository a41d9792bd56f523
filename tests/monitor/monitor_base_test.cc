#include "monitor/monitor_base.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "support/test_util.h"

namespace kestro::zqp::monitor {
namespace {

class TestMonitor : public MonitorBase {
 public:
  TestMonitor(const std::string& monitor_name, bool ready_in, int task_count,
              std::shared_ptr<runner::WatchTaskRunner> runner_in = nullptr)
      : MonitorBase(MonitorConfig{.name = monitor_name, .frequency = 500, .delay = 1000},
                    runner_in) {
    ready.store(ready_in);
    // Each task counts its start and runs until the stop flag is set.
    for (int i = 0; i < task_count; ++i)
      AddTask([this] {
        ++started;
        while (!stop.load()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
      });
  }
  using MonitorBase::threads;
  std::atomic<int> started{0};
};

TEST(MonitorBaseTest, StartRunsOneNamedThreadPerTaskOnceAndJoinsThem) {
  TestMonitor not_ready("YPU", false, 0);
  not_ready.Start();
  EXPECT_TRUE(not_ready.IsStopped());
  TestMonitor no_tasks("DSP", true, 0);
  no_tasks.Start();
  EXPECT_FALSE(no_tasks.IsStopped());

  TestMonitor monitor("YPU", true, 2);
  monitor.Start();
  monitor.Start();  // already running: no second set of threads
  EXPECT_TRUE(test_support::WaitFor([&] { return monitor.started.load() == 2; }));
  EXPECT_EQ(test_support::CountThreadsNamed("YPU_loading"), 2);
  monitor.Stop();
  monitor.JoinThreads();
  // A joined thread can stay listed under /proc/self/task for a moment.
  EXPECT_TRUE(test_support::WaitFor([&] {
    return monitor.threads.empty() && test_support::CountThreadsNamed("YPU_loading") == 0;
  }));
}

TEST(MonitorBaseTest, LoadingSlotsAndWatches) {
  auto runner = std::make_shared<runner::WatchTaskRunner>();
  TestMonitor monitor("YPU", false, 0, runner);
  monitor.SetLoadingNum(4);
  monitor.SetLoading(3, 42.5f);
  EXPECT_EQ(test_support::CaptureStderr([&] { monitor.SetLoading(4, 9.0f); }),
            "core id 4 over the loading num 4\n");
  EXPECT_EQ(monitor.LoadingSnapshot(), (std::vector<float>{0.0f, 0.0f, 0.0f, 42.5f}));
  monitor.SetLoadingNum(4);  // a fresh set of zeros
  EXPECT_EQ(monitor.LoadingSnapshot(), (std::vector<float>(4, 0.0f)));
}

}  // namespace
}  // namespace kestro::zqp::monitor
