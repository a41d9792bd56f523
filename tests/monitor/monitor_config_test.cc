#include "monitor/monitor_config.h"

#include <gtest/gtest.h>

#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/test_util.h"

namespace kestro::zqp::monitor {
namespace {

const std::string kFlow = "/sys/devices/virtual/vps/flow/";
const std::string kDebug = "/sys/kernel/debug/";
const base::MonitorOption kOptions{
    .delay_ms = 700, .frequency = 250, .batch = true, .enable_list = {}};

// Name, frequency, delay, task_per_file, write_sample_time, batch and files,
// with F/ for the vps flow folder and D/ for the debugfs one.
std::string Render(const MonitorConfig& c) {
  std::string out = c.name + ' ' + std::to_string(c.frequency) + ' ' + std::to_string(c.delay) +
                    ' ' + char('0' + c.task_per_file) + char('0' + c.write_sample_time) +
                    char('0' + c.batch);
  for (std::string file : c.files) {
    if (file.starts_with(kFlow)) file.replace(0, kFlow.size(), "F/");
    if (file.starts_with(kDebug)) file.replace(0, kDebug.size(), "D/");
    out += ' ' + file;
  }
  return out;
}

// Engine, board entries, then what it prints and the configuration. Entries
// ending in '/' are made directories, the others plain files, as the kind must
// not matter; their parents are made as needed, so no entry at all leaves the
// board without even /dev. Cores are numbered by count, whatever the names.
TEST(MonitorConfigTest, DiscoveryOnBoards) {
  const char* const cases[][3] = {
      // Only a board with exactly three pyramid engines numbers the third one 4.
      {"PYM", "F/pym0_src F/pym1_src/ F/pym2_src F/pym3_src/",
       "PYM 250 700 111 F/pym0_src/loading F/pym1_src/loading F/pym2_src/loading "
       "F/pym3_src/loading"},
      {"STITCH", "F/stitch0_src/ F/stitch5_ich0/", "STITCH 250 700 111 F/stitch0_ich0/loading"},
      {"GDC", "F/gdc0_src/ F/gdc7_src F/gdc2_dst/ F/.gdc3_src/",
       "GDC 250 700 111 F/gdc0_src/loading F/gdc1_src/loading"},
      {"ISP", "F/isp_dst/ F/gdc0_src/", "ISP 250 700 111"},
      {"GDC", "", "Failed to open directory /sys/devices/virtual/vps/flow/\n 0 0 000"},
      {"VPU", "/dev/vpu0 /dev/vpu3/ /dev/.vpu /dev/jpu",
       "VPU 250 700 001 D/vpu/loading D/vpu1/loading"},
      {"JPU", "/dev/jpu-old /dev/jpu", "JPU 250 700 001 D/jpu/loading D/jpu1/loading"},
      {"JPU", "/dev/vdsp0 /dev/ypu", " 0 0 000"},
      {"VPU", "", "Failed to open directory /dev/\n 0 0 000"},
      {"DSP", "/dev/vdsp0 /dev/vdsp1/ /dev/dsp2",
       "DSP 250 700 001 /dsp_loading_node_1_0 /dsp_loading_node_1_1"},
  };
  for (const auto& [engine, board_entries, expected] : cases) {
    SCOPED_TRACE(std::string(engine) + " on " + board_entries);
    test_support::BoardRoot board;
    std::istringstream entries(board_entries);
    for (std::string entry; entries >> entry;) {
      if (entry.starts_with("F/")) entry.replace(0, 2, kFlow);
      entry.ends_with('/') ? board.MakeDir(entry) : board.WriteFile(entry, "");
    }
    MonitorConfig got;
    const GenConfigFunc& generate = *g_gen_config_funcs.Find(engine);
    const std::string err = test_support::CaptureStderr([&] { got = generate(kOptions); });
    EXPECT_EQ(err + Render(got), expected);
  }
  MonitorConfig ddr{.name = "junk",
                    .frequency = 9,
                    .delay = 9,
                    .task_per_file = true,
                    .write_sample_time = true,
                    .files = {"file"}};
  EXPECT_TRUE(BuildDdrConfig(kOptions, ddr));
  EXPECT_EQ(Render(ddr), "DDR 0 700 001");
}

TEST(MonitorConfigTest, DspWithoutDevThrowsLogicError) {
  test_support::BoardRoot board;
  EXPECT_EQ(test_support::CaptureStderr(
                [] { EXPECT_THROW(GenerateDspConfig(kOptions), std::logic_error); }),
            "Failed to open directory /dev/\n");
}

// The option parser refuses unknown names first, so only here can one arrive.
TEST(MonitorConfigTest, UnknownEnableItemStopsWithVerboseMessage) {
  test_support::BoardRoot board;
  base::MonitorOption option = kOptions;
  option.enable_list = {"yPu", "ddr", "dsp"};
  for (const int level : {1, 0}) {
    test_support::ScopedLogLevel log_level(level);
    std::vector<MonitorConfig> configs;
    EXPECT_EQ(
        test_support::CaptureStderr([&] { EXPECT_FALSE(GenerateMonitorConfigs(option, configs)); }),
        level == 0 ? "ddr not support\n" : "");
    ASSERT_EQ(configs.size(), 1u);
    EXPECT_EQ(Render(configs[0]), "YPU 250 700 001 /sys/devices/system/ypu/ratio");
  }
}

}  // namespace
}  // namespace kestro::zqp::monitor
