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

// A sampler whose busy answers the test sets.
class FakeSampler : public StatusMonitor {
 public:
  FakeSampler()
      : StatusMonitor(MonitorConfig{"DSP", 500, 1000, false, false, true, {}, true}, nullptr) {
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
