// The summary of a wrapped command's run, to the byte: the weighted means,
// the nearest-rank 95th percentile, DDR bytes integrated over the intervals,
// heaps from before the command to its end, the largest ION holders first;
// and the loading of a record over exactly the interval before it.
#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "monitor/status_monitor.h"
#include "record/summary.h"

namespace kestro::zqp::record {
namespace {

Record At(std::int64_t elapsed_ms, std::vector<float> dsp, bool ddr, std::uint64_t heap_used,
          std::vector<ProcessFigure> processes) {
  Record record;
  record.elapsed_ms = elapsed_ms;
  for (std::uint32_t core = 0; core < dsp.size(); ++core) {
    record.loading.push_back({"DSP", core, dsp[core]});
  }
  record.ddr_ready = ddr;
  record.ddr_read_bytes_per_s = 100u << 20;
  record.ddr_write_bytes_per_s = static_cast<std::uint64_t>(elapsed_ms / 20) << 20;
  record.heaps.push_back({0, 1u << 20, heap_used});
  record.processes = std::move(processes);
  return record;
}

TEST(RunSummaryTest, TableAndJsonOfARun) {
  RunSummary summary(1000);
  summary.Begin(At(0, {}, false, 12288, {}));
  const float nan = std::nanf("");
  // Core 1 has no figure in the second record; the last one is a short
  // interval at the command's end.
  summary.Add(At(1000, {50, 10}, true, 20480, {{7, "work\x1b", 3 << 20, 8192}, {3, "keep", 0, 0}}),
              1000);
  summary.Add(At(2000, {30, nan}, true, 16384, {{7, "work\x1b", 1 << 20, 4096}}), 1000);
  summary.Add(At(2400, {100, 20}, false, 12288, {{9, "late", 1 << 10, 8192}}), 400);
  summary.SetDspClients({{7, "kzm_dsp_client"}, {8, ""}});
  // A C1 control (CSI) and a byte that is not UTF-8 are not sent to the
  // terminal; valid UTF-8 is.
  const CommandOutcome outcome{
      {"./bench", "two words", "\xc2\x9b\xff\xc3\xa9"}, 137, 9, 2.5049, 1000};
  EXPECT_EQ(summary.Table(outcome),
            "kvt_zqp_record: ./bench 'two words' '??\xc3\xa9'\n"
            "killed by signal 9 (Killed), exit status 137\n"
            "wall time 2.50 s, 3 records of 1000 ms\n"
            "\n"
            "Loading (%)           mean     p95     max\n"
            "  DSP0                50.0    50.0    50.0\n"
            "  DSP1                12.9    10.0    10.0\n"
            "\n"
            "DDR                 mean/s  peak/s   moved\n"
            "  read              100.0M  100.0M  200.0M\n"
            "  write              75.0M  100.0M  150.0M\n"
            "\n"
            "ION heap             total   start    peak     end    kept\n"
            "  cma_reserved        1.0M   12.0K   20.0K   12.0K     0.0\n"
            "\n"
            "ION holders            PID  peak ION  peak RSS\n"
            "  work?                  7      8.0K      3.0M\n"
            "  late                   9      8.0K      1.0K\n"
            "\n"
            "DSP clients: 2\n"
            "  kzm_dsp_client (7), 8\n");
  EXPECT_EQ(
      summary.Json(outcome),
      "{\"command\":[\"./bench\",\"two "
      "words\",\"\xc2\x9b\\udcff\xc3\xa9\"],\"exit_status\":137,\"signal\":9,"
      "\"wall_seconds\":2.505,\"records\":3,\"interval_ms\":1000,\"loading\":{"
      "\"DSP0\":{\"mean_percent\":50,\"p95_percent\":50,\"max_percent\":50},"
      "\"DSP1\":{\"mean_percent\":12.86,\"p95_percent\":10,\"max_percent\":10}},"
      "\"ddr\":{\"read\":{\"mean_bytes_per_second\":104857600,"
      "\"peak_bytes_per_second\":104857600,\"bytes\":209715200},\"write\":{"
      "\"mean_bytes_per_second\":78643200,\"peak_bytes_per_second\":104857600,"
      "\"bytes\":157286400}},\"heaps\":{\"cma_reserved\":{\"total_bytes\":1048576,"
      "\"start_bytes\":12288,\"peak_bytes\":20480,\"end_bytes\":12288}},\"processes\":["
      "{\"pid\":7,\"name\":\"work\\u001b\",\"peak_ion_bytes\":8192,\"peak_rss_bytes\":3145728},"
      "{\"pid\":9,\"name\":\"late\",\"peak_ion_bytes\":8192,\"peak_rss_bytes\":1024}],"
      "\"dsp_clients\":[{\"pid\":7,\"name\":\"kzm_dsp_client\"},{\"pid\":8,\"name\":\"\"}]}\n");
}

// One core's figures, each with its record's length in ms, and the "DSP0"
// object of the summary's JSON, worked out by hand. The recording's interval
// is 1000 ms. The nearest-rank p95 is the ceil(0.95 n)-th smallest figure.
struct StatsCase {
  const char* name;
  std::vector<std::pair<float, std::int64_t>> figures;
  const char* expected;
};

// n, n-1, ..., 1 (descending, so an unsorted pick is caught): mean (n+1)/2,
// and the p95 is its rank.
std::vector<std::pair<float, std::int64_t>> Ramp(int n) {
  std::vector<std::pair<float, std::int64_t>> figures;
  for (int value = n; value >= 1; --value) figures.emplace_back(static_cast<float>(value), 1000);
  return figures;
}

std::string Between(const std::string& text, const std::string& from, const std::string& to) {
  const std::size_t start = text.find(from);
  if (start == std::string::npos) return "missing " + from;
  return text.substr(start, text.find(to, start) - start);
}

TEST(RunSummaryTest, LoadingStatisticsByHand) {
  std::vector<std::pair<float, std::int64_t>> outlier(19, {10.0f, 1000});
  outlier.insert(outlier.begin() + 7, {100, 1000});
  const std::vector<StatsCase> cases = {
      {"1 record", Ramp(1), "\"mean_percent\":1,\"p95_percent\":1,\"max_percent\":1}"},
      // ceil(18.05) = 19
      {"19 records", Ramp(19), "\"mean_percent\":10,\"p95_percent\":19,\"max_percent\":19}"},
      // ceil(19) = 19
      {"20 records", Ramp(20), "\"mean_percent\":10.5,\"p95_percent\":19,\"max_percent\":20}"},
      // ceil(19.95) = 20
      {"21 records", Ramp(21), "\"mean_percent\":11,\"p95_percent\":20,\"max_percent\":21}"},
      {"100 records", Ramp(100), "\"mean_percent\":50.5,\"p95_percent\":95,\"max_percent\":100}"},
      // (19 * 10 + 100) / 20 = 14.5; the 19th of 20 is still 10
      {"one outlier", outlier, "\"mean_percent\":14.5,\"p95_percent\":10,\"max_percent\":100}"},
      // (10 * 1000 + 40 * 500) / 1500 = 20; half an interval is whole
      {"weighted",
       {{10, 1000}, {40, 500}},
       "\"mean_percent\":20,\"p95_percent\":40,\"max_percent\":40}"},
      // (10 * 1000 + 20 * 1000 + 100 * 400) / 2400 = 29.1666...; the short
      // last record is left out of the p95 and max
      {"short last",
       {{10, 1000}, {20, 1000}, {100, 400}},
       "\"mean_percent\":29.17,\"p95_percent\":20,\"max_percent\":20}"},
      // no lengths: each counts once, (10 + 20 + 60) / 3 = 30
      {"no lengths",
       {{10, 0}, {20, 0}, {60, 0}},
       "\"mean_percent\":30,\"p95_percent\":60,\"max_percent\":60}"},
  };
  for (const StatsCase& c : cases) {
    RunSummary summary(1000);
    for (const auto& [percent, ms] : c.figures) {
      Record record;
      record.loading.push_back({"DSP", 0, percent});
      summary.Add(record, ms);
    }
    EXPECT_EQ(Between(summary.Json({}), "\"mean_percent\"", "}") + "}", c.expected) << c.name;
  }
}

TEST(RunSummaryTest, DdrAndHeapsByHand) {
  RunSummary summary(1000);
  constexpr std::uint64_t K = 1024, M = K * K;
  // Heaps 0-2 are in the record before the command; heap 3 appears later.
  Record before;
  before.heaps = {{0, M, 100 * K}, {1, M, 200 * K}, {2, M, 64 * K}};
  summary.Begin(before);
  // DDR read and write in MiB/s, the record's length, and each heap's use in
  // KiB (0: missing from the record).
  struct Step {
    bool ddr;
    std::uint64_t read, write;
    std::int64_t ms;
    std::uint64_t heap[4];
  };
  for (const Step& step :
       {Step{true, 100, 10, 1000, {300, 150, 64, 0}}, Step{true, 400, 40, 500, {50, 100, 64, 32}},
        Step{false, 900, 90, 250, {150, 120, 0, 16}}}) {
    Record record;
    record.ddr_ready = step.ddr;
    record.ddr_read_bytes_per_s = step.read * M;
    record.ddr_write_bytes_per_s = step.write * M;
    for (std::size_t heap = 0; heap < 4; ++heap) {
      if (step.heap[heap] != 0) record.heaps.push_back({heap, M, step.heap[heap] * K});
    }
    summary.Add(record, step.ms);
  }
  // DDR only over the 1500 ms it answered: read (100 * 1000 + 400 * 500) /
  // 1500 = 200M/s and 100M + 200M moved; write a tenth of it. Heap peaks
  // include the start; a heap missing from the last record has no end, one
  // missing from the first none to keep.
  const std::string table = summary.Table({});
  EXPECT_EQ(table.substr(table.find("DDR")),
            "DDR                 mean/s  peak/s   moved\n"
            "  read              200.0M  400.0M  300.0M\n"
            "  write              20.0M   40.0M   30.0M\n"
            "\n"
            "ION heap             total   start    peak     end    kept\n"
            "  cma_reserved        1.0M  100.0K  300.0K  150.0K   50.0K\n"
            "  ion_cma             1.0M  200.0K  200.0K  120.0K  -80.0K\n"
            "  carveout            1.0M   64.0K   64.0K     n/a     n/a\n"
            "  ion_uncache         1.0M     n/a   32.0K   16.0K     n/a\n"
            "\n"
            "DSP clients: 0\n");
}

// A sampler whose busy answers the test sets.
class FakeSampler : public monitor::StatusMonitor {
 public:
  FakeSampler()
      : monitor::StatusMonitor(
            monitor::MonitorConfig{"DSP", 500, 1000, false, false, true, {}, true}, nullptr) {
    SetLoadingNum(2);
    InitCoreStats();
  }
  bool IsCoreBusy(std::uint32_t core) override { return core == 0 ? busy0 : false; }
  bool busy0 = false;
};

TEST(LoadingIntervalsTest, EachRecordCoversTheSamplesSinceTheLast) {
  FakeSampler sampler;
  LoadingIntervals intervals;
  EXPECT_TRUE(std::isnan(intervals.Since(0, sampler)[0]));  // nothing sampled yet
  for (int i = 0; i < 4; ++i) {
    sampler.busy0 = i == 0;
    sampler.Sample();
  }
  EXPECT_EQ(intervals.Since(0, sampler), (std::vector<float>{25, 0}));
  // A step: the next record shows it whole, although the sampler's own
  // window (500 samples) has not ended.
  sampler.busy0 = true;
  sampler.Sample();
  EXPECT_EQ(intervals.Since(0, sampler), (std::vector<float>{100, 0}));
  EXPECT_TRUE(std::isnan(intervals.Since(0, sampler)[1]));
}

}  // namespace
}  // namespace kestro::zqp::record
