#include "record/record.h"

#include <algorithm>
#include <cstring>
#include <limits>

namespace kestro::zqp::record {

std::vector<float> LoadingIntervals::Since(std::size_t index, const monitor::MonitorBase& monitor) {
  if (!monitor.IsSampler()) return monitor.LoadingSnapshot();
  if (last_.size() <= index) last_.resize(index + 1);
  monitor::MonitorBase::SampleCounts now = monitor.CountsSnapshot();
  monitor::MonitorBase::SampleCounts& before = last_[index];
  before.busy.resize(now.busy.size(), 0);
  const std::uint64_t samples = now.samples - before.samples;
  // A sampler that pauses while nothing can be busy may have taken no
  // sample in a short interval that it knows was idle.
  std::vector<float> values(now.busy.size(), samples == 0 && monitor.SurelyIdle()
                                                 ? 0.0f
                                                 : std::numeric_limits<float>::quiet_NaN());
  for (std::size_t core = 0; samples != 0 && core < values.size(); ++core) {
    const std::uint64_t busy = now.busy[core] - before.busy[core];
    values[core] = static_cast<float>(busy) / static_cast<float>(samples) * 100.0f;
  }
  before = std::move(now);
  return values;
}

Record TakeRecord(const std::vector<std::shared_ptr<monitor::MonitorBase>>& monitors,
                  const monitors::DdrFigures& ddr, monitors::MemoryUsage& memory,
                  std::int64_t wall_ms, std::int64_t elapsed_ms, LoadingIntervals& intervals) {
  constexpr std::uint64_t kMiB = 1u << 20;
  Record record;
  record.wall_ms = wall_ms;
  record.elapsed_ms = elapsed_ms;
  for (std::size_t index = 0; index < monitors.size(); ++index) {
    const auto& monitor = monitors[index];
    const std::vector<float> values = intervals.Since(index, *monitor);
    for (std::size_t core = 0; core < values.size(); ++core) {
      record.loading.push_back({monitor->Name(), static_cast<std::uint32_t>(core), values[core]});
    }
  }
  // A tool that ended or went quiet leaves its last figures behind; a record
  // must not present them as current.
  record.ddr_ready = ddr.ready && ddr.live;
  record.ddr_read_bytes_per_s = ddr.read * kMiB;
  record.ddr_write_bytes_per_s = ddr.write * kMiB;

  monitors::CollectMemoryUsage(memory);
  for (std::size_t heap = 0; heap < monitors::kHeapCount; ++heap) {
    // A heap missing from this read (or an unreadable file) keeps the last
    // figures for the report; here it is missing.
    if (memory.heap_total[heap] == 0 || !memory.heap_current[heap]) continue;
    record.heaps.push_back({heap, memory.heap_total[heap], memory.heap_used[heap]});
  }
  for (const auto& [pid, process] : memory.processes) {
    record.processes.push_back(
        {pid, std::string(process.name, strnlen(process.name, sizeof process.name)),
         process.rss_kb << 10, process.ion_bytes});
  }
  std::sort(record.processes.begin(), record.processes.end(),
            [](const ProcessFigure& a, const ProcessFigure& b) { return a.pid < b.pid; });
  memory.processes.clear();
  return record;
}

std::string Label(const LoadingFigure& figure) {
  return figure.engine + std::to_string(figure.core);
}

}  // namespace kestro::zqp::record
