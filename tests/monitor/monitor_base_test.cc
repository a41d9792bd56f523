#include "monitor/monitor_base.h"

#include <dirent.h>
#include <pthread.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "board_root_fixture.h"

namespace kestro::zqp {
namespace {

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
  // A task that counts its start and then waits for the stop flag.
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

int CountThreadsNamed(const std::string& name) {
  int count = 0;
  DIR* dir = opendir("/proc/self/task");
  if (dir == nullptr) return -1;
  while (const dirent* entry = readdir(dir)) {
    if (entry->d_name[0] == '.') continue;
    std::ifstream comm(std::string("/proc/self/task/") + entry->d_name + "/comm");
    std::string line;
    if (std::getline(comm, line) && line == name) ++count;
  }
  closedir(dir);
  return count;
}

bool WaitFor(const std::function<bool()>& predicate) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!predicate()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

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
  EXPECT_EQ(CountThreadsNamed("YPU_loading"), 0);
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

TEST(MonitorBaseTest, LoadingSlots) {
  TestMonitor monitor("YPU");
  monitor.SetLoadingNum(4);
  monitor.SetLoading(3, 42.5f);
  EXPECT_EQ(test_support::StderrOf([&] { monitor.SetLoading(5, 9.0f); }),
            "core id 5 over the loading num 4\n");
  EXPECT_EQ(test_support::StderrOf([&] { monitor.SetLoading(4, 9.0f); }),
            "core id 4 over the loading num 4\n");
  EXPECT_EQ(monitor.LoadingSnapshot(), (std::vector<float>{0.0f, 0.0f, 0.0f, 42.5f}));

  monitor.SetLoadingNum(2);
  EXPECT_EQ(monitor.LoadingSnapshot(), (std::vector<float>{0.0f, 0.0f}));
  monitor.SetLoadingNum(0);
  EXPECT_EQ(monitor.LoadingCount(), 0u);
  EXPECT_EQ(test_support::StderrOf([&] { monitor.SetLoading(0, 1.0f); }),
            "core id 0 over the loading num 0\n");
}

TEST(MonitorBaseTest, WatchesGoToTheRunnerOrAreDropped) {
  auto runner = std::make_shared<WatchTaskRunner>();
  TestMonitor with_runner("DSP", runner);
  int seen = -1;
  with_runner.AddWatch(7, [&](int fd) { seen = fd; });
  auto callback = runner->GetTask(7);
  ASSERT_TRUE(callback);
  callback(7);
  EXPECT_EQ(seen, 7);
  with_runner.RemoveWatch(7);
  EXPECT_FALSE(runner->GetTask(7));

  TestMonitor without_runner("DSP");
  auto token = std::make_shared<int>(0);
  without_runner.AddWatch(7, [token](int) {});
  EXPECT_EQ(token.use_count(), 1);  // the callback was destroyed, not kept
  without_runner.RemoveWatch(7);
}

}  // namespace
}  // namespace kestro::zqp
