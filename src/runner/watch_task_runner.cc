#include "runner/watch_task_runner.h"

#include <sys/timerfd.h>
#include <unistd.h>

namespace kestro::zqp::runner {

WatchTaskRunner::WatchTaskRunner() : tasks_(1) {
  tasks_.max_load_factor(1.0f);
}

void WatchTaskRunner::AddTask(int fd, Callback callback) {
  Callback old;
  {
    std::lock_guard<std::mutex> guard(lock_);
    Callback& slot = tasks_[fd];
    old = std::move(slot);
    slot = std::move(callback);
  }
  // The replaced callback is destroyed here, outside the lock, so that its
  // captures may themselves use the runner.
}

void WatchTaskRunner::RemoveTask(int fd) {
  Callback old;
  {
    std::lock_guard<std::mutex> guard(lock_);
    auto it = tasks_.find(fd);
    if (it == tasks_.end()) return;
    old = std::move(it->second);
    tasks_.erase(it);
  }
}

WatchTaskRunner::Callback WatchTaskRunner::GetTask(int fd) {
  std::lock_guard<std::mutex> guard(lock_);
  auto it = tasks_.find(fd);
  return it == tasks_.end() ? Callback() : it->second;
}

void WatchTaskRunner::BuildPollFds() {
  std::lock_guard<std::mutex> guard(lock_);
  poll_fds_.clear();
  for (const auto& entry : tasks_) {
    poll_fds_.push_back(pollfd{entry.first, POLLIN | POLLHUP, 0});
  }
}

void WatchTaskRunner::Run() {
  while (!stop_.load(std::memory_order_acquire)) {
    BuildPollFds();
    if (poll(poll_fds_.data(), poll_fds_.size(), -1) < 1) continue;
    for (const pollfd& entry : poll_fds_) {
      if (entry.revents & POLLIN) {
        if (Callback callback = GetTask(entry.fd)) callback(entry.fd);
      }
      if (entry.revents & POLLHUP) {
        if (Callback callback = GetTask(entry.fd)) {
          callback(entry.fd);
          RemoveTask(entry.fd);
        }
      }
    }
  }
}

void WatchTaskRunner::Stop() {
  stop_.store(true, std::memory_order_release);
}

PeriodicTimer::~PeriodicTimer() {
  for (int fd : fds_) {
    if (fd > 0) close(fd);
  }
}

int PeriodicTimer::Create() {
  fds_[0] = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
  return fds_[0] < 0 ? -1 : 0;
}

int PeriodicTimer::SetPeriod(std::uint32_t period_ms) {
  itimerspec spec{};
  spec.it_interval.tv_sec = period_ms / 1000;
  spec.it_interval.tv_nsec = static_cast<long>(period_ms % 1000) * 1000000L;
  spec.it_value = spec.it_interval;
  return timerfd_settime(fds_[0], 0, &spec, nullptr);
}

}  // namespace kestro::zqp::runner
