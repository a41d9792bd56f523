// The OpenMetrics texts to the byte: a scrape's exposition and a recording
// for backfilling, whose HELP and TYPE come once, where a family first has a
// sample.
#include "record/openmetrics_writer.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "base/version.h"

namespace kestro::zqp::record {
namespace {

const std::string kBuild =
    "# HELP kvt_zqp_build Version of kvt_zqp_record; always 1.\n"
    "# TYPE kvt_zqp_build info\n"
    "kvt_zqp_build_info{version=\"" +
    base::GetVersion() + "\"} 1";
constexpr char kTime[] =
    "# HELP kvt_zqp_sample_timestamp_seconds Wall-clock time of the sample, seconds since the "
    "epoch.\n# TYPE kvt_zqp_sample_timestamp_seconds gauge\n";
constexpr char kElapsed[] =
    "# HELP kvt_zqp_elapsed_seconds Time since the recording started.\n"
    "# TYPE kvt_zqp_elapsed_seconds gauge\n";
constexpr char kLoading[] =
    "# HELP kvt_zqp_loading_ratio Share of the last completed interval an engine core was busy, 0 "
    "to 1.\n# TYPE kvt_zqp_loading_ratio gauge\n";
constexpr char kLive[] =
    "# HELP kvt_zqp_ddr_figures_live 1 when the DDR tool runs and answered within 3 s (or three "
    "intervals), else 0.\n# TYPE kvt_zqp_ddr_figures_live gauge\n";

TEST(OpenMetricsWriterTest, ScrapeAndRecordingToTheByte) {
  Record record;
  record.wall_ms = 1714564800123;
  record.elapsed_ms = 2005;
  // A core without a figure has no sample.
  record.loading = {{"DSP", 0, 50.0f}, {"DSP", 1, std::nanf("")}};
  record.processes = {{9, "big", 3072, 4096}, {7, "a\"b\\\n\xff", 1024, 8192}};
  // One holder asked for: the largest, its name escaped as a label value.
  EXPECT_EQ(OpenMetricsText(record, 1),
            kBuild + "\n" + kTime + "kvt_zqp_sample_timestamp_seconds 1714564800.123\n" + kElapsed +
                "kvt_zqp_elapsed_seconds 2.005\n" + kLoading +
                "kvt_zqp_loading_ratio{engine=\"DSP\",core=\"0\"} 0.5\n" + kLive +
                "kvt_zqp_ddr_figures_live 0\n"
                "# HELP kvt_zqp_process_resident_bytes Resident memory of one of the largest ION "
                "holders.\n# TYPE kvt_zqp_process_resident_bytes gauge\n"
                "kvt_zqp_process_resident_bytes{pid=\"7\",name=\"a\\\"b\\\\\\n\xef\xbf\xbd\"} "
                "1024\n# HELP kvt_zqp_process_ion_bytes ION memory counted for one of the largest "
                "holders.\n# TYPE kvt_zqp_process_ion_bytes gauge\n"
                "kvt_zqp_process_ion_bytes{pid=\"7\",name=\"a\\\"b\\\\\\n\xef\xbf\xbd\"} 8192\n"
                "# EOF\n");

  // A recording: every sample stamped; the second record declares only the
  // family it brings (the DDR tool now answering), and the end is written once.
  OpenMetricsWriter writer;
  std::string recording = writer.Samples(record, 0);
  record.wall_ms += 1000;
  record.elapsed_ms += 1000;
  record.ddr_ready = true;
  record.ddr_read_bytes_per_s = 5;
  record.ddr_write_bytes_per_s = 6;
  recording += writer.Samples(record, 0) + OpenMetricsWriter::kEnd;
  EXPECT_EQ(recording,
            kBuild + " 1714564800.123\n" + kTime +
                "kvt_zqp_sample_timestamp_seconds 1714564800.123 1714564800.123\n" + kElapsed +
                "kvt_zqp_elapsed_seconds 2.005 1714564800.123\n" + kLoading +
                "kvt_zqp_loading_ratio{engine=\"DSP\",core=\"0\"} 0.5 1714564800.123\n" + kLive +
                "kvt_zqp_ddr_figures_live 0 1714564800.123\n"
                "kvt_zqp_build_info{version=\"" +
                base::GetVersion() +
                "\"} 1 1714564801.123\n"
                "kvt_zqp_sample_timestamp_seconds 1714564801.123 1714564801.123\n"
                "kvt_zqp_elapsed_seconds 3.005 1714564801.123\n"
                "kvt_zqp_loading_ratio{engine=\"DSP\",core=\"0\"} 0.5 1714564801.123\n"
                "kvt_zqp_ddr_figures_live 1 1714564801.123\n"
                "# HELP kvt_zqp_ddr_bandwidth_bytes_per_second DDR bandwidth over the last "
                "interval the DDR tool reported.\n"
                "# TYPE kvt_zqp_ddr_bandwidth_bytes_per_second gauge\n"
                "kvt_zqp_ddr_bandwidth_bytes_per_second{direction=\"read\"} 5 1714564801.123\n"
                "kvt_zqp_ddr_bandwidth_bytes_per_second{direction=\"write\"} 6 1714564801.123\n"
                "# EOF\n");
}

}  // namespace
}  // namespace kestro::zqp::record
