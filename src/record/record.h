// One recorded interval: what the report shows at a frame, as numbers in base
// units, with the wall-clock time and the time since the recording started.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "monitor/monitor_base.h"
#include "monitors/ddr_monitor.h"
#include "monitors/memory_usage.h"

namespace kestro::zqp::record {

struct LoadingFigure {
  std::string engine;  // monitor name: "YPU", "DSP", ...
  std::uint32_t core = 0;
  float percent = 0;  // NaN: no figure to vouch for (no window ended yet, a failed read)
};

struct HeapFigure {
  std::size_t index = 0;  // into kHeapNames
  std::uint64_t total_bytes = 0;
  std::uint64_t used_bytes = 0;  // at most total_bytes, as the collector caps it
};

struct ProcessFigure {
  std::int32_t pid = 0;
  std::string name;  // the driver's client name: raw bytes, not necessarily UTF-8
  std::uint64_t rss_bytes = 0;
  std::uint64_t ion_bytes = 0;
};

struct Record {
  std::int64_t wall_ms = 0;            // UTC, milliseconds since the epoch
  std::int64_t elapsed_ms = 0;         // since the recording started
  std::vector<LoadingFigure> loading;  // report order
  bool ddr_ready = false;              // false: no DDR box, or the tool is not answering
  std::uint64_t ddr_read_bytes_per_s = 0;
  std::uint64_t ddr_write_bytes_per_s = 0;
  std::vector<HeapFigure> heaps;  // the heaps the report lists and this read found, in its order
  std::vector<ProcessFigure> processes;  // by pid
};

// The loading of sampling monitors (YPU, DSP) over exactly the time between
// two records, from the samplers' running counts, whatever their own windows:
// a step in load shows in the first record after it.
class LoadingIntervals {
 public:
  // Each core's busy share (percent) of monitor `index` (its place in the
  // monitor list) since the previous call for that index, or since sampling
  // began; NaN when no sample was taken in between, unless the monitor is
  // SurelyIdle (then 0). A monitor that does not
  // sample gives its loading slots as they are.
  std::vector<float> Since(std::size_t index, const monitor::MonitorBase& monitor);

 private:
  std::vector<monitor::MonitorBase::SampleCounts> last_;
};

// The figures of one report frame, taken as DrawFrame takes them: every
// monitor's loading (LoadingIntervals for the samplers), the DDR figures (MiB/s, scaled to
// bytes/s), one CollectMemoryUsage, after which the process table is emptied as after a frame, so
// that the next collection starts from an empty table.
Record TakeRecord(const std::vector<std::shared_ptr<monitor::MonitorBase>>& monitors,
                  const monitors::DdrFigures& ddr, monitors::MemoryUsage& memory,
                  std::int64_t wall_ms, std::int64_t elapsed_ms, LoadingIntervals& intervals);

// "YPU0": the report's row label.
std::string Label(const LoadingFigure& figure);

}  // namespace kestro::zqp::record
