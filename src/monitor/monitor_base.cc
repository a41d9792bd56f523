#include "monitor/monitor_base.h"

#include <pthread.h>
#include <sched.h>
#include <time.h>

#include <atomic>
#include <cerrno>
#include <limits>

#include "base/fatal_signals.h"
#include "base/log.h"

namespace kestro::zqp::monitor {

static_assert(std::atomic_ref<float>::is_always_lock_free);

MonitorBase::MonitorBase(const MonitorConfig& config,
                         const std::shared_ptr<runner::WatchTaskRunner>& runner_in)
    : runner(runner_in),
      name(config.name),
      frequency(config.frequency),
      delay(config.delay),
      task_per_file(config.task_per_file),
      write_sample_time(config.write_sample_time),
      batch(config.batch),
      read_only(config.read_only),
      files(config.files) {}

MonitorBase::~MonitorBase() {
  JoinThreads();
}

void MonitorBase::Start() {
  if (!stop.load()) return;
  if (!ready.load()) return;
  threads.resize(tasks.size());
  stop.store(false);
  if (threads.empty()) return;
  // Threads inherit the creating thread's mask: keep asynchronous fatal
  // signals on the main thread.
  const sigset_t blocked = base::AsyncFatalSignals();
  sigset_t previous;
  pthread_sigmask(SIG_BLOCK, &blocked, &previous);
  for (std::size_t i = 0; i < threads.size(); ++i) {
    // A still-joinable thread here ends the process, as a restart without
    // JoinThreads must.
    threads[i] = std::thread([this, i] { tasks[i](); });
    // Names over 15 characters are refused by the kernel; the thread then
    // simply keeps its inherited name.
    pthread_setname_np(threads[i].native_handle(), (name + "_loading").c_str());
  }
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
}

void MonitorBase::SleepMs(std::uint32_t ms) {
  timespec remaining{static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000L};
  while (nanosleep(&remaining, &remaining) != 0 && errno == EINTR) {
  }
}

void MonitorBase::Stop() {
  stop.store(true);
}

void MonitorBase::JoinThreads() {
  for (auto& thread : threads) {
    if (thread.joinable()) thread.join();
  }
  threads.clear();
}

void MonitorBase::SetLoadingNum(std::uint32_t n) {
  loading_num = n;
  loading.assign(n, NoFigure());
  busy_total.assign(n, 0);
}

float MonitorBase::NoFigure() const {
  return read_only ? std::numeric_limits<float>::quiet_NaN() : 0.0f;
}

void MonitorBase::SetLoading(std::uint32_t core, float value) {
  if (core < loading.size()) {
    std::atomic_ref<float>(loading[core]).store(value);
    return;
  }
  base::LogError("core id %u over the loading num %lu\n", core, loading.size());
}

void MonitorBase::SetTasks(std::vector<std::function<void()>> new_tasks) {
  tasks = std::move(new_tasks);
}

void MonitorBase::AddTask(std::function<void()> task) {
  tasks.push_back(std::move(task));
}

void MonitorBase::AddWatch(int fd, std::function<void(int)> callback) {
  if (runner) runner->AddTask(fd, std::move(callback));
}

void MonitorBase::RemoveWatch(int fd) {
  if (runner) runner->RemoveTask(fd);
}

float MonitorBase::GetLoading(std::size_t core) const {
  return std::atomic_ref<float>(const_cast<float&>(loading[core])).load();
}

std::vector<float> MonitorBase::LoadingSnapshot() const {
  std::vector<float> values(loading.size());
  for (std::size_t i = 0; i < values.size(); ++i) values[i] = GetLoading(i);
  return values;
}

void MonitorBase::BeginSample() {
  std::atomic_ref<std::uint64_t>(sample_sequence)
      .store(sample_sequence + 1, std::memory_order_relaxed);
}

void MonitorBase::CountBusy(std::uint32_t core) {
  // Release: a reader that loads this count also sees the pass begun, and
  // tries again.
  if (core < busy_total.size()) {
    std::atomic_ref<std::uint64_t>(busy_total[core])
        .store(busy_total[core] + 1, std::memory_order_release);
  }
}

void MonitorBase::CountSample() {
  std::atomic_ref<std::uint64_t>(sample_sequence)
      .store(sample_sequence + 1, std::memory_order_release);
}

MonitorBase::SampleCounts MonitorBase::CountsSnapshot() const {
  std::atomic_ref<std::uint64_t> sequence(const_cast<std::uint64_t&>(sample_sequence));
  SampleCounts counts;
  counts.busy.resize(busy_total.size());
  for (;;) {
    const std::uint64_t before = sequence.load(std::memory_order_acquire);
    for (std::size_t i = 0; i < busy_total.size(); ++i) {
      counts.busy[i] = std::atomic_ref<std::uint64_t>(const_cast<std::uint64_t&>(busy_total[i]))
                           .load(std::memory_order_acquire);
    }
    if ((before & 1) == 0 && sequence.load(std::memory_order_relaxed) == before) {
      counts.samples = before / 2;
      return counts;
    }
    // The worker is inside a pass: a handful of loads, unless it was
    // preempted there.
    sched_yield();
  }
}

}  // namespace kestro::zqp::monitor
