#include "monitor/monitor_base.h"

#include <pthread.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "support/test_util.h"

namespace kestro::zqp {
namespace {

using test_support::CaptureStderr;
using test_support::CountThreadsNamed;
using test_support::WaitFor;

class TestMonitor : public MonitorBase {
 public:
  explicit TestMonitor(const std::string& monitor_name,
                       std::shared_ptr<WatchTaskRunner> runner_in = nullptr)
      : MonitorBase(MonitorConfig{monitor_name, 500, 1000, false, false, false, {}}, runner_in) {}
  ~TestMonitor() override {
    Stop();
    JoinThreads();
  }

  void SetReady(bool value) { ready.store(value); }
  std::size_t ThreadCount() const { return threads.size(); }
  // A task that counts its start, waits for the stop flag and notes its name.
  void AddWaitingTask() {
    AddTask([this] {
      ++started;
      while (!stop.load()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
      char own[32] = {};
      pthread_getname_np(pthread_self(), own, sizeof own);
      std::lock_guard<std::mutex> hold(name_lock);
      last_name = own;
    });
  }

  std::atomic<int> started{0};
  std::mutex name_lock;
  std::string last_name;  // read only after JoinThreads
};

TEST(MonitorBaseTest, StartOnNotReadyMonitorStartsNothing) {
  TestMonitor monitor("YPU");
  monitor.AddWaitingTask();
  monitor.Start();
  EXPECT_TRUE(monitor.IsStopped());
  EXPECT_EQ(monitor.ThreadCount(), 0u);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(monitor.started.load(), 0);
}

TEST(MonitorBaseTest, StartTwiceStartsTheThreadsOnceAndTheyCarryTheName) {
  TestMonitor monitor("YPU");
  monitor.SetReady(true);
  monitor.AddWaitingTask();
  monitor.AddWaitingTask();
  monitor.Start();
  monitor.Start();
  EXPECT_FALSE(monitor.IsStopped());
  EXPECT_EQ(monitor.ThreadCount(), 2u);
  EXPECT_TRUE(WaitFor([&] { return monitor.started.load() == 2; }));
  EXPECT_EQ(CountThreadsNamed("YPU_loading"), 2);
  monitor.Stop();
  monitor.JoinThreads();
  EXPECT_EQ(monitor.ThreadCount(), 0u);
  EXPECT_EQ(monitor.started.load(), 2);
  EXPECT_EQ(monitor.last_name, "YPU_loading");
  // A joined thread can stay listed under /proc/self/task for a moment.
  EXPECT_TRUE(WaitFor([] { return CountThreadsNamed("YPU_loading") == 0; }));
}

TEST(MonitorBaseTest, ReadyMonitorWithoutTasksOnlyClearsStop) {
  TestMonitor monitor("DSP");
  monitor.SetReady(true);
  monitor.Start();
  EXPECT_FALSE(monitor.IsStopped());
  EXPECT_EQ(monitor.ThreadCount(), 0u);
  monitor.Stop();
  EXPECT_TRUE(monitor.IsStopped());
}

TEST(MonitorBaseTest, NameTooLongForTheKernelLeavesTheThreadUnnamedButRunning) {
  char inherited[32] = {};
  pthread_getname_np(pthread_self(), inherited, sizeof inherited);
  TestMonitor monitor("STITCHXXXXX");
  monitor.SetReady(true);
  monitor.AddWaitingTask();
  monitor.Start();
  EXPECT_TRUE(WaitFor([&] { return monitor.started.load() == 1; }));
  monitor.Stop();
  monitor.JoinThreads();
  EXPECT_EQ(monitor.last_name, inherited);
}

TEST(MonitorBaseTest, LoadingSlotsAndOverRangeMessage) {
  TestMonitor monitor("YPU");
  monitor.SetLoadingNum(4);
  monitor.SetLoading(3, 42.5f);
  EXPECT_EQ(CaptureStderr([&] {
              monitor.SetLoading(4, 9.0f);
              monitor.SetLoading(5, 9.0f);
            }),
            "core id 4 over the loading num 4\ncore id 5 over the loading num 4\n");
  EXPECT_EQ(monitor.LoadingSnapshot(), (std::vector<float>{0.0f, 0.0f, 0.0f, 42.5f}));
  monitor.SetLoadingNum(2);
  EXPECT_EQ(monitor.LoadingSnapshot(), (std::vector<float>{0.0f, 0.0f}));
}

TEST(MonitorBaseTest, WatchesGoToTheRunnerOrAreDropped) {
  auto runner = std::make_shared<WatchTaskRunner>();
  TestMonitor with_runner("DSP", runner);
  int seen = -1;
  with_runner.AddWatch(7, [&](int fd) { seen = fd; });
  ASSERT_TRUE(runner->GetTask(7));
  runner->GetTask(7)(7);
  EXPECT_EQ(seen, 7);
  with_runner.RemoveWatch(7);
  EXPECT_FALSE(runner->GetTask(7));

  TestMonitor without_runner("DSP");
  auto token = std::make_shared<int>(0);
  without_runner.AddWatch(7, [token](int) {});
  EXPECT_EQ(token.use_count(), 1);  // the callback was destroyed, not kept
}

}  // namespace
}  // namespace kestro::zqp
