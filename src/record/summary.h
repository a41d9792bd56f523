// What a wrapped command's run did to the board, summed up from the records
// taken while it ran: the table printed when `kvt_zqp_record -- COMMAND`
// ends, and the same as one JSON object in base units.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "record/record.h"

namespace kestro::zqp::record {

struct CommandOutcome {
  std::vector<std::string> argv;
  int exit_status = 0;      // the recorder's: the command's own, or 128 + signal
  int signal = 0;           // the signal that killed the command; 0 when it exited
  double wall_seconds = 0;  // from its start to its end
  std::uint32_t interval_ms = 0;
};

struct DspClient {
  std::int32_t pid = 0;
  std::string name;
};

class RunSummary {
 public:
  // How many ION holders the summary names, largest peak first.
  static constexpr std::size_t kProcessCount = 10;

  // interval_ms: the recording's; a record covering less than half of it
  // (the last, at the command's end) counts in the means only, since a few
  // samples would make its figure an extreme of chance.
  explicit RunSummary(std::uint32_t interval_ms = 0) : interval_ms_(interval_ms) {}

  // The record taken just before the command started: each heap's start.
  void Begin(const Record& before);
  // A record taken while the command ran, the last one at its end, covering
  // the interval_ms before it. Loading and DDR means are weighted by it.
  void Add(const Record& record, std::int64_t interval_ms);
  void SetDspClients(std::vector<DspClient> clients) { dsp_clients_ = std::move(clients); }
  std::uint32_t Records() const { return records_; }

  // Aligned columns, no line over 80 columns, sizes as the report prints
  // them (K/M/G with one decimal).
  std::string Table(const CommandOutcome& outcome) const;
  // One object and "\n"; loading in percent, everything else in bytes,
  // bytes per second and seconds; null for a figure never taken.
  std::string Json(const CommandOutcome& outcome) const;

 private:
  struct Core {
    std::string label;
    std::vector<float> values;  // the records' figures, missing ones left out
    std::vector<float> whole;   // those of records covering half an interval or more
    double weighted = 0;        // sum of figure * interval
    double weight = 0;          // sum of intervals with a figure
  };
  struct Direction {
    double weighted = 0;  // sum of bytes per second * interval in ms
    std::uint64_t peak = 0;
  };
  struct Heap {
    std::uint64_t total = 0;
    std::optional<std::uint64_t> start, peak, end;
  };
  struct Holder {
    std::string name;
    std::uint64_t peak_ion = 0;
    std::uint64_t peak_rss = 0;
  };
  struct Stats {
    std::optional<double> mean, p95, max;
  };

  static Stats StatsOf(const Core& core);  // p95 and max over `whole` when it has any
  // The holders by peak ION, largest first (pid breaks ties), at most
  // kProcessCount.
  std::vector<std::pair<std::int32_t, Holder>> TopHolders() const;

  std::vector<Core> cores_;  // report order, as first seen
  Direction read_, write_;
  double ddr_ms_ = 0;                  // sum of intervals with DDR figures
  std::map<std::size_t, Heap> heaps_;  // by heap index
  std::map<std::int32_t, Holder> holders_;
  std::vector<DspClient> dsp_clients_;
  std::uint32_t records_ = 0;
  std::uint32_t interval_ms_;
};

}  // namespace kestro::zqp::record
