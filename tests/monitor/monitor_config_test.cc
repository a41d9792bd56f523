#include "monitor/monitor_config.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "support/test_util.h"

namespace kestro::zqp {
namespace {

using Files = std::vector<std::string>;

constexpr const char* kFlow = "/sys/devices/virtual/vps/flow/";

MonitorOption Options(std::uint32_t frequency = 250, std::uint32_t delay = 700, bool batch = true) {
  MonitorOption option;
  option.frequency = frequency;
  option.delay_ms = delay;
  option.batch = batch;
  return option;
}

std::string Flow(const std::string& leaf) {
  return kFlow + leaf;
}

// Every field, so that one comparison covers a whole configuration.
auto Fields(const MonitorConfig& c) {
  return std::tuple(c.name, c.frequency, c.delay, c.task_per_file, c.write_sample_time, c.batch,
                    c.files);
}

MonitorConfig Generate(const std::string& engine, const MonitorOption& option = Options()) {
  const GenConfigFunc* generate = g_gen_config_funcs.Find(engine);
  EXPECT_NE(generate, nullptr) << engine;
  return generate == nullptr ? MonitorConfig{} : (*generate)(option);
}

class MonitorConfigTest : public test_support::BoardRootTest {
 protected:
  // Entries ending in '/' become directories, the others plain files: the
  // kind of an entry must not matter to discovery.
  static void Populate(test_support::TempTree& board, const Files& entries) {
    board.MakeDir("/dev");
    board.MakeDir(kFlow);
    for (const auto& entry : entries) {
      if (entry.ends_with('/')) {
        board.MakeDir(entry);
      } else {
        board.WriteFile(entry, "");
      }
    }
  }
};

struct DiscoveryCase {
  const char* engine;
  Files entries;
  Files expected;
};

TEST_F(MonitorConfigTest, DiscoveryCountsMatchesAndNumbersFromZero) {
  const std::vector<DiscoveryCase> cases = {
      {"PYM",
       {Flow("pym0_src/"), Flow("pym1_src/"), Flow("pym4_src/")},
       {Flow("pym0_src/loading"), Flow("pym1_src/loading"), Flow("pym4_src/loading")}},
      {"STITCH", {Flow("stitch0_src/"), Flow("stitch1_ich0/")}, {Flow("stitch0_ich0/loading")}},
      {"GDC",
       {Flow("gdc0_src/"), Flow("gdc1_src"), Flow("gdc2_dst/"), Flow(".gdc3_src/")},
       {Flow("gdc0_src/loading"), Flow("gdc1_src/loading")}},
      {"VPU",
       {"/dev/vpu0", "/dev/vpu3/"},
       {"/sys/kernel/debug/vpu/loading", "/sys/kernel/debug/vpu1/loading"}},
      {"VPU", {"/dev/.vpu", "/dev/vpu-old", "/dev/jpu"}, {"/sys/kernel/debug/vpu/loading"}},
      {"JPU",
       {"/dev/jpu", "/dev/jpu1", "/dev/vpu"},
       {"/sys/kernel/debug/jpu/loading", "/sys/kernel/debug/jpu1/loading"}},
      {"DSP",
       {"/dev/vdsp0", "/dev/vdsp1/", "/dev/dsp2"},
       {"/dsp_loading_node_1_0", "/dsp_loading_node_1_1"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.engine + ::testing::PrintToString(c.entries));
    test_support::BoardRoot board;
    Populate(board, c.entries);
    const bool flow = c.expected[0].starts_with(kFlow);
    EXPECT_EQ(Fields(Generate(c.engine)),
              Fields({c.engine, 250, 700, flow, flow, true, c.expected}));
  }
}

// JPU and VPU look at /dev, the vps flow engines at their flow directory.
TEST_F(MonitorConfigTest, AbsentEnginesGiveTheEmptyConfiguration) {
  const struct {
    const char* engine;
    Files entries;  // {"-"}: an empty board, not even /dev
    const char* message;
  } cases[] = {
      {"JPU", {"/dev/vdsp0", "/dev/ypu"}, ""},
      {"VPU", {"/dev/vdsp0", "/dev/ypu"}, ""},
      {"JPU", {"-"}, "Failed to open directory /dev/\n"},
      {"VPU", {"-"}, "Failed to open directory /dev/\n"},
      {"GDC", {"-"}, "Failed to open directory /sys/devices/virtual/vps/flow/\n"},
      {"STITCH", {"-"}, "Failed to open directory /sys/devices/virtual/vps/flow/\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.engine + ::testing::PrintToString(c.entries));
    test_support::BoardRoot board;
    if (c.entries[0] != "-") Populate(board, c.entries);
    MonitorConfig config;
    EXPECT_EQ(test_support::CaptureStderr([&] { config = Generate(c.engine); }), c.message);
    EXPECT_EQ(Fields(config), Fields(MonitorConfig{}));
  }
}

TEST_F(MonitorConfigTest, VpsFlowEngineWithoutMatchKeepsItsName) {
  Populate(tree, {Flow("isp0_src/"), Flow("gdc0_dst/"), Flow("pym0_dst/"), Flow("stitch0_src/")});
  for (const char* engine : {"GDC", "PYM", "STITCH"}) {
    SCOPED_TRACE(engine);
    EXPECT_EQ(Fields(Generate(engine)), Fields({engine, 250, 700, true, true, true, {}}));
  }
}

TEST_F(MonitorConfigTest, DspWithoutDevThrowsLogicError) {
  const std::string err = test_support::CaptureStderr([] {
    try {
      GenerateDspConfig(Options());
      ADD_FAILURE() << "no exception";
    } catch (const std::logic_error& e) {
      EXPECT_STREQ(e.what(), "basic_string: construction from null is not valid");
    }
  });
  EXPECT_EQ(err, "Failed to open directory /dev/\n");
}

TEST_F(MonitorConfigTest, EnableListIsUpperCasedAndAppended) {
  Populate(tree, {"/dev/vpu", Flow("gdc0_src/")});
  MonitorOption option = Options();
  option.enable_list = {"vpu", "gDc", "YPU"};
  std::vector<MonitorConfig> configs(1);
  configs[0].name = "kept";
  EXPECT_TRUE(GenerateMonitorConfigs(option, configs));
  ASSERT_EQ(configs.size(), 4u);
  EXPECT_EQ(configs[0].name, "kept");
  EXPECT_EQ(configs[1].name, "VPU");
  EXPECT_EQ(configs[2].name, "GDC");
  EXPECT_EQ(configs[2].files, Files{Flow("gdc0_src/loading")});
  EXPECT_EQ(configs[3].name, "YPU");
}

TEST_F(MonitorConfigTest, UnknownEnableItemStopsWithVerboseMessage) {
  Populate(tree, {"/dev/vpu"});
  MonitorOption option = Options();
  option.enable_list = {"Vpu", "ddr", "ypu"};
  for (const int level : {1, 0}) {
    test_support::ScopedLogLevel log_level(level);
    std::vector<MonitorConfig> configs;
    const std::string err =
        test_support::CaptureStderr([&] { EXPECT_FALSE(GenerateMonitorConfigs(option, configs)); });
    EXPECT_EQ(err, level == 0 ? "ddr not support\n" : "");
    ASSERT_EQ(configs.size(), 1u);
    EXPECT_EQ(configs[0].name, "VPU");
  }
}

// The tree of the simulated board's "full" scenario (sim/scenarios/full.json):
// its /dev entries, its extra directory and the directories of its files.
TEST_F(MonitorConfigTest, FullBoardGivesEveryEngineInTableOrder) {
  Populate(tree, {"/dev/vdsp0", "/dev/vdsp1", "/dev/jpu", "/dev/jpu1", "/dev/vpu", "/dev/vpu1",
                  Flow("stitch0_src/")});
  for (const char* leaf :
       {"gdc0_src", "gdc1_src", "isp0_src", "pym0_src", "pym1_src", "pym4_src", "stitch0_ich0"}) {
    tree.WriteFile(Flow(leaf) + "/loading", "loading: 1 %\n");
  }
  for (const char* dir : {"jpu", "jpu1", "vpu", "vpu1"}) {
    tree.WriteFile(std::string("/sys/kernel/debug/") + dir + "/loading", "1\n");
  }
  const std::vector<std::pair<std::string, Files>> expected = {
      {"YPU", {"/sys/devices/system/ypu/ratio"}},
      {"DSP", {"/dsp_loading_node_1_0", "/dsp_loading_node_1_1"}},
      {"GDC", {Flow("gdc0_src/loading"), Flow("gdc1_src/loading")}},
      {"ISP", {Flow("isp0_src/loading")}},
      {"JPU", {"/sys/kernel/debug/jpu/loading", "/sys/kernel/debug/jpu1/loading"}},
      {"PYM", {Flow("pym0_src/loading"), Flow("pym1_src/loading"), Flow("pym4_src/loading")}},
      {"STITCH", {Flow("stitch0_ich0/loading")}},
      {"VPU", {"/sys/kernel/debug/vpu/loading", "/sys/kernel/debug/vpu1/loading"}},
  };
  std::vector<MonitorConfig> configs;
  const std::string err =
      test_support::CaptureStderr([&] { EXPECT_TRUE(GenerateMonitorConfigs(Options(), configs)); });
  EXPECT_EQ(err, "");
  ASSERT_EQ(configs.size(), expected.size());
  for (std::size_t i = 0; i < expected.size(); ++i) {
    SCOPED_TRACE(expected[i].first);
    const bool flow = expected[i].second[0].starts_with(kFlow);
    EXPECT_EQ(Fields(configs[i]),
              Fields({expected[i].first, 250, 700, flow, flow, true, expected[i].second}));
  }
}

}  // namespace
}  // namespace kestro::zqp
