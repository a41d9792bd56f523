#include "runner/watch_task_runner.h"

#include <fcntl.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace kestro::zqp::monitor {
namespace {

struct Pipe {
  int read_end = -1;
  int write_end = -1;
  Pipe() {
    int fds[2];
    EXPECT_EQ(pipe2(fds, O_CLOEXEC | O_NONBLOCK), 0);
    read_end = fds[0];
    write_end = fds[1];
  }
  ~Pipe() {
    CloseWriter();
    if (read_end >= 0) close(read_end);
  }
  void Write(char c = 'x') { EXPECT_EQ(write(write_end, &c, 1), 1); }
  void CloseWriter() {
    if (write_end >= 0) close(write_end);
    write_end = -1;
  }
};

char Drain(int fd) {
  char c = 0;
  while (read(fd, &c, 1) == 1) {
  }
  return c;
}

// Counts its own destruction; captured by a callback to observe when the
// runner destroys that callback.
struct DestructionToken {
  std::shared_ptr<int> counter;
  explicit DestructionToken(std::shared_ptr<int> c) : counter(std::move(c)) {}
  ~DestructionToken() { ++*counter; }
};

TEST(WatchTaskRunnerTest, ReplacingACallbackDestroysTheOldOneAtOnce) {
  WatchTaskRunner runner;
  auto counter = std::make_shared<int>(0);
  auto first = std::make_shared<DestructionToken>(counter);
  runner.AddTask(5, [first](int) {});
  first.reset();
  EXPECT_EQ(*counter, 0);
  int second_calls = 0;
  runner.AddTask(5, [&second_calls](int) { ++second_calls; });
  EXPECT_EQ(*counter, 1);
  runner.GetTask(5)(5);
  EXPECT_EQ(second_calls, 1);
  runner.RemoveTask(5);
  EXPECT_FALSE(runner.GetTask(5));
  runner.RemoveTask(5);  // absent: nothing happens
}

TEST(WatchTaskRunnerTest, CallbackRemovingItselfAndStoppingFinishesThePass) {
  WatchTaskRunner runner;
  Pipe a, b;
  std::vector<int> calls;
  runner.AddTask(a.read_end, [&](int fd) {
    Drain(fd);
    calls.push_back(fd);
    runner.RemoveTask(fd);
    runner.Stop();
  });
  runner.AddTask(b.read_end, [&](int fd) {
    Drain(fd);
    calls.push_back(fd);
    runner.Stop();
  });
  a.Write();
  b.Write();
  runner.Run();
  // Both ready entries of the pass were dispatched before Run returned.
  EXPECT_EQ(calls.size(), 2u);
  EXPECT_FALSE(runner.GetTask(a.read_end));
  EXPECT_TRUE(runner.GetTask(b.read_end));
  // The stop flag is never cleared: a second Run returns at once.
  runner.Run();
  EXPECT_EQ(calls.size(), 2u);
}

TEST(WatchTaskRunnerTest, HangupGivesOneLastCallThenRemoval) {
  WatchTaskRunner runner;
  Pipe hung, control;
  int hung_calls = 0;
  runner.AddTask(hung.read_end, [&](int fd) {
    Drain(fd);
    ++hung_calls;
  });
  int control_calls = 0;
  runner.AddTask(control.read_end, [&](int fd) {
    Drain(fd);
    // Re-arm once so that a second pass happens.
    if (++control_calls == 1) {
      control.Write();
    } else {
      runner.Stop();
    }
  });
  hung.CloseWriter();
  control.Write();
  runner.Run();  // first pass: POLLHUP on hung, POLLIN on control
  // Was the hung task still watched on the second pass it would be called again.
  EXPECT_EQ(hung_calls, 1);
  EXPECT_FALSE(runner.GetTask(hung.read_end));
  EXPECT_EQ(control_calls, 2);
}

TEST(WatchTaskRunnerTest, DataAndHangupTogetherGiveTwoCalls) {
  WatchTaskRunner runner;
  Pipe hung;
  int calls = 0;
  runner.AddTask(hung.read_end, [&](int) {
    ++calls;
    runner.Stop();
  });
  hung.Write();
  hung.CloseWriter();
  runner.Run();
  EXPECT_EQ(calls, 2);
  EXPECT_FALSE(runner.GetTask(hung.read_end));
}

TEST(WatchTaskRunnerTest, TaskAddedFromAnotherThreadIsWatchedAfterTheCurrentPoll) {
  auto runner = std::make_shared<WatchTaskRunner>();
  Pipe wake, late;
  runner->AddTask(wake.read_end, [&](int fd) { Drain(fd); });
  bool late_called = false;
  std::thread loop([&] { runner->Run(); });
  std::thread adder([&] {
    runner->AddTask(late.read_end, [&](int fd) {
      Drain(fd);
      late_called = true;
      runner->Stop();
    });
    late.Write();
    // The loop is blocked in poll without the new descriptor: wake it.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    wake.Write();
  });
  adder.join();
  loop.join();
  EXPECT_TRUE(late_called);
}

TEST(PeriodicTimerTest, PeriodIsProgrammedAsSecondsAndNanoseconds) {
  std::optional<PeriodicTimer> timer(std::in_place);
  EXPECT_EQ(timer->Fd(), -1);
  EXPECT_EQ(timer->SetPeriod(1000), -1);  // not created yet
  ASSERT_EQ(timer->Create(), 0);
  const int fd = timer->Fd();
  EXPECT_GT(fd, 0);
  EXPECT_EQ(fcntl(fd, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
  EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  ASSERT_EQ(timer->SetPeriod(1500), 0);
  itimerspec spec{};
  ASSERT_EQ(timerfd_gettime(fd, &spec), 0);
  EXPECT_EQ(spec.it_interval.tv_sec, 1);
  EXPECT_EQ(spec.it_interval.tv_nsec, 500000000);
  // The first expiry is the same period (a few ns may already have passed).
  EXPECT_EQ(spec.it_value.tv_sec, 1);
  EXPECT_GT(spec.it_value.tv_nsec, 400000000);
  timer.reset();
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);  // destruction closed it
}

}  // namespace
}  // namespace kestro::zqp::monitor
