// The program's one event loop: poll() over registered descriptors, calling
// each descriptor's callback on the thread that runs the loop.
#pragma once

#include <poll.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <unordered_map>
#include <vector>

namespace kestro::zqp::runner {

class WatchTaskRunner {
 public:
  using Callback = std::function<void(int)>;

  WatchTaskRunner();
  WatchTaskRunner(const WatchTaskRunner&) = delete;
  WatchTaskRunner& operator=(const WatchTaskRunner&) = delete;

  // Inserts or replaces the callback of fd; a replaced callback is destroyed
  // at once. Safe from any thread; watched from the next loop pass on.
  void AddTask(int fd, Callback callback);
  // Erases fd's callback; nothing when there is none. Safe from any thread.
  void RemoveTask(int fd);
  // A copy of fd's callback, empty when fd has none.
  Callback GetTask(int fd);
  // Rebuilds the poll set from the table (events POLLIN | POLLHUP).
  void BuildPollFds();

  // Loops until Stop is seen at the top of a pass. POLLIN calls the callback;
  // POLLHUP calls it once more and then removes the task. Callbacks never run
  // under the table lock, so they may add, remove or stop freely.
  void Run();
  // Safe from any thread and from callbacks; never cleared.
  void Stop();

  // The poll set of the last BuildPollFds; for tests.
  const std::vector<pollfd>& PollFds() const { return poll_fds_; }

 private:
  std::vector<pollfd> poll_fds_;
  std::mutex lock_;
  std::unordered_map<int, Callback> tasks_;
  std::atomic<bool> stop_{false};
};

// Owner of the display timer descriptor (monotonic timerfd).
class PeriodicTimer {
 public:
  PeriodicTimer() = default;
  PeriodicTimer(const PeriodicTimer&) = delete;
  PeriodicTimer& operator=(const PeriodicTimer&) = delete;
  // Closes each descriptor that is greater than 0.
  ~PeriodicTimer();

  // 0 on success, -1 on failure with errno left for the caller.
  int Create();
  int Fd() const { return fds_[0]; }
  // First expiry and interval both period_ms; returns timerfd_settime's result.
  int SetPeriod(std::uint32_t period_ms);

 private:
  // The second descriptor is never opened; it is closed like the first.
  int fds_[2] = {-1, -1};
};

}  // namespace kestro::zqp::runner
