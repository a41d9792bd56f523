#include "runner/watch_task_runner.h"

#include <fcntl.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <thread>
#include <utility>

#include <gtest/gtest.h>

#include "support/test_util.h"

namespace kestro::zqp::runner {
namespace {

struct Pipe {
  int fds[2] = {-1, -1};
  Pipe() { EXPECT_EQ(pipe2(fds, O_CLOEXEC | O_NONBLOCK), 0); }
  ~Pipe() {
    for (int fd : fds) close(fd);
  }
  int Reader() const { return fds[0]; }
  void Write() { EXPECT_EQ(write(fds[1], "x", 1), 1); }
};

// Pass 1: the hung pipe gives data and a hang-up, `once` removes itself and
// wakes `last`. Pass 2: `other`, never drained, runs again and `last` stops.
TEST(WatchTaskRunnerTest, TableChangesFromCallbacksAndHangups) {
  WatchTaskRunner runner;
  Pipe hung, once, other, last;
  auto token = std::make_shared<int>(0);
  runner.AddTask(other.Reader(), [token](int) {});
  int hung_calls = 0, once_calls = 0, other_calls = 0, last_calls = 0;
  runner.AddTask(other.Reader(), [&](int) { ++other_calls; });
  EXPECT_EQ(token.use_count(), 1);  // the replaced callback is destroyed at once
  runner.AddTask(hung.Reader(), [&](int) { ++hung_calls; });
  runner.AddTask(once.Reader(), [&](int fd) { ++once_calls, runner.RemoveTask(fd), last.Write(); });
  runner.AddTask(last.Reader(), [&](int) { ++last_calls, runner.Stop(); });
  hung.Write();
  close(std::exchange(hung.fds[1], -1));
  once.Write();
  other.Write();
  runner.Run();
  EXPECT_EQ(hung_calls, 2);  // once for the data, once more for the hang-up
  EXPECT_EQ(once_calls, 1);
  EXPECT_EQ(other_calls, 2);
  EXPECT_EQ(last_calls, 1);
  EXPECT_FALSE(runner.GetTask(hung.Reader()));
  EXPECT_FALSE(runner.GetTask(once.Reader()));
  runner.RemoveTask(once.Reader());  // absent: nothing happens
  // The stop flag is never cleared: a second run returns at once.
  runner.Run();
  EXPECT_EQ(other_calls, 2);
}

TEST(WatchTaskRunnerTest, TaskAddedFromAnotherThreadIsWatchedFromTheNextPass) {
  WatchTaskRunner runner;
  Pipe wake, late;
  std::atomic<int> passes{0};
  runner.AddTask(wake.Reader(), [&passes](int fd) {
    char c;
    while (read(fd, &c, 1) == 1) {
    }
    ++passes;
  });
  std::thread loop([&] { runner.Run(); });
  // The loop has run a pass, so its poll set was built before the task below
  // exists: a runner that builds it once never sees the new descriptor.
  wake.Write();
  ASSERT_TRUE(test_support::WaitFor([&] { return passes.load() == 1; }));
  std::atomic<bool> late_called{false};
  runner.AddTask(late.Reader(), [&](int) { late_called = true, runner.Stop(); });
  late.Write();
  wake.Write();
  const bool seen = test_support::WaitFor([&] { return late_called.load(); });
  runner.Stop();
  wake.Write();  // ends a loop that never saw the new task
  loop.join();
  EXPECT_TRUE(seen);
}

TEST(PeriodicTimerTest, PeriodIsProgrammedAsSecondsAndNanoseconds) {
  std::optional<PeriodicTimer> timer(std::in_place);
  EXPECT_EQ(timer->SetPeriod(1000), -1);  // not created yet
  ASSERT_EQ(timer->Create(), 0);
  const int fd = timer->Fd();
  EXPECT_EQ(fcntl(fd, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
  EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  // Between 1000 and 1024 ms so that the seconds cannot come from a 1024 divisor.
  ASSERT_EQ(timer->SetPeriod(1010), 0);
  itimerspec spec{};
  ASSERT_EQ(timerfd_gettime(fd, &spec), 0);
  EXPECT_EQ(spec.it_interval.tv_sec, 1);
  EXPECT_EQ(spec.it_interval.tv_nsec, 10000000);
  // The first expiry is the same period, less what has passed since.
  EXPECT_GT(spec.it_value.tv_sec * 1000000000L + spec.it_value.tv_nsec, 500000000L);
  timer.reset();
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);  // destruction closed it
}

}  // namespace
}  // namespace kestro::zqp::runner
