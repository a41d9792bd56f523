// Common base of every monitor: name and sampling settings from the
// configuration, worker tasks each run on a thread of its own, and the
// per-core loading slots that the report reads.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "monitor/monitor_config.h"
#include "runner/watch_task_runner.h"

namespace kestro::zqp::monitor {

class MonitorBase {
 public:
  MonitorBase(const MonitorConfig& config, const std::shared_ptr<runner::WatchTaskRunner>& runner);
  MonitorBase(const MonitorBase&) = delete;
  MonitorBase& operator=(const MonitorBase&) = delete;
  // Joins the worker threads. Does not set the stop flag: the owner must call
  // Stop first or this waits for ever.
  virtual ~MonitorBase();

  // Starts one thread per task, named "<name>_loading". Does nothing while
  // running or not ready. Restarting after Stop requires JoinThreads first.
  virtual void Start();
  // Asks the workers to end; does not join.
  virtual void Stop();
  // Sampling period in ms; 0 for the base.
  virtual std::uint32_t GetSamplePeriod() { return 0; }

  // Joins every joinable worker in order and empties the thread list.
  void JoinThreads();
  // Replaces the loading slots by n zeros (n NaNs, "no figure yet", for a
  // read-only configuration). Only while no worker runs.
  void SetLoadingNum(std::uint32_t n);
  // Atomically publishes value in slot core; out of range prints
  // "core id %u over the loading num %lu" and drops the value.
  void SetLoading(std::uint32_t core, float value);
  void SetTasks(std::vector<std::function<void()>> tasks);
  void AddTask(std::function<void()> task);
  // Forwarded to the runner; without a runner the callback is dropped.
  void AddWatch(int fd, std::function<void(int)> callback);
  void RemoveWatch(int fd);

  const std::string& Name() const { return name; }
  bool IsReady() const { return ready.load(); }
  bool IsStopped() const { return stop.load(); }
  std::size_t LoadingCount() const { return loading.size(); }
  // Atomic load of slot core; the caller keeps core below LoadingCount().
  float GetLoading(std::size_t core) const;
  // Atomic copy of every slot.
  std::vector<float> LoadingSnapshot() const;

  // What a sampler has taken since its slots were sized: samples, and per
  // core the busy ones among them. Differences of two snapshots give the
  // share over exactly the time between them, whatever the sampler's own
  // window. Samplers count only in a read-only configuration (the
  // recorder); other monitors have samples 0 and busy counts of 0. A
  // snapshot is whole: its busy counts belong to exactly its samples, never
  // to a pass the worker is in the middle of.
  struct SampleCounts {
    std::uint64_t samples = 0;
    std::vector<std::uint64_t> busy;
  };
  SampleCounts CountsSnapshot() const;
  // True for monitors whose figures come from their own samples.
  virtual bool IsSampler() const { return false; }
  // True when every core is known to be idle right now, without sampling
  // (a sampler that pauses while nothing can be busy).
  virtual bool SurelyIdle() const { return false; }

 protected:
  // Sleeps ms milliseconds, resuming after a signal for the time left; any
  // other failure ends the sleep early and the caller's loop goes on.
  static void SleepMs(std::uint32_t ms);
  // What a slot holds when there is no figure to vouch for: 0 for the
  // monitor, whose report always shows a number; NaN for a read-only program.
  float NoFigure() const;
  // The sampler's worker, once every core has answered: BeginSample,
  // CountBusy for each core found busy, then CountSample. Atomic stores of
  // the one writer, the worker.
  void BeginSample();
  void CountBusy(std::uint32_t core);
  void CountSample();

  std::shared_ptr<runner::WatchTaskRunner> runner;
  std::vector<std::function<void()>> tasks;
  std::vector<std::thread> threads;
  // Written by workers and read by the report only through std::atomic_ref,
  // so the layout stays a plain vector of 32-bit floats.
  std::vector<float> loading;
  // The passes' totals, written by the one worker and read by
  // CountsSnapshot through std::atomic_ref; sized with the slots.
  std::vector<std::uint64_t> busy_total;
  // Twice the samples taken, plus one while a pass is counting: a reader
  // that sees the same even value before and after loading the busy counts
  // has loaded them whole.
  std::uint64_t sample_sequence = 0;
  std::string name;
  std::uint32_t frequency;
  std::uint32_t delay;
  bool task_per_file;
  bool write_sample_time;
  bool batch;
  // MonitorConfig::read_only.
  bool read_only;
  std::vector<std::string> files;
  std::uint32_t loading_num = 0;
  // Atomic because the DDR worker clears it while the report reads it.
  std::atomic<bool> ready{false};
  std::atomic<bool> stop{true};
};

}  // namespace kestro::zqp::monitor
