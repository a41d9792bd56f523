#include "monitors/monitor_registry.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/test_util.h"

namespace kestro::zqp {
namespace {

class MonitorRegistryBoardTest : public test_support::BoardRootTest {};

const char* const kEngines[] = {"YPU", "DSP", "GDC", "STITCH", "PYM", "ISP", "JPU", "VPU"};

MonitorConfig Config(const std::string& name, std::uint32_t frequency, std::uint32_t delay,
                     std::vector<std::string> files = {}) {
  return MonitorConfig{name, frequency, delay, false, false, false, std::move(files)};
}

struct CheckCase {
  const char* name;
  std::uint32_t frequency, delay;
  bool accepted;
  const char* message;
};

TEST(MonitorRegistryTest, CheckMonitorConfig) {
  const CheckCase cases[] = {
      {"YPU", 500, 0, false, "sample time is 0 for YPU\n"},
      {"GDC", 0, 0, false, "sample time is 0 for GDC\n"},
      {"", 0, 0, false, "sample time is 0 for \n"},
      {"YPU", 0, 1000, false, "sample frequency is 0 for YPU\n"},
      {"DSP", 0, 1000, false, "sample frequency is 0 for DSP\n"},
      {"ypu", 0, 1000, true, ""},
      {"GDC", 0, 1000, true, ""},
      {"DSP", 1, 1, true, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message() << "'" << c.name << "' " << c.frequency << " " << c.delay);
    bool accepted = !c.accepted;
    const std::string err = test_support::CaptureStderr(
        [&] { accepted = CheckMonitorConfig(Config(c.name, c.frequency, c.delay)); });
    EXPECT_EQ(accepted, c.accepted);
    EXPECT_EQ(err, c.message);
  }
}

TEST(MonitorRegistryTest, EveryCreatorChecksTheConfigurationFirst) {
  for (const char* engine : kEngines) {
    SCOPED_TRACE(engine);
    std::shared_ptr<MonitorBase> monitor;
    const std::string err = test_support::CaptureStderr(
        [&] { monitor = CreateMonitor(Config(engine, 500, 0), nullptr); });
    EXPECT_EQ(monitor, nullptr);
    EXPECT_EQ(err, std::string("sample time is 0 for ") + engine + "\n");
  }
}

// Unknown names, a JPU without an openable file and a YPU without its library.
TEST_F(MonitorRegistryBoardTest, UnusableConfigurationsGiveNothingSilently) {
  std::vector<MonitorConfig> configs;
  for (const char* name : {"", "gdc", "DDR", "GDC "}) configs.push_back(Config(name, 0, 0));
  configs.push_back(Config("JPU", 500, 1000, {"/sys/kernel/debug/jpu/loading"}));
  configs.push_back(GenerateYpuConfig(MonitorOption{}));
  for (const auto& config : configs) {
    SCOPED_TRACE(config.name);
    std::shared_ptr<MonitorBase> monitor;
    EXPECT_EQ(test_support::CaptureStderr([&] { monitor = CreateMonitor(config, nullptr); }), "");
    EXPECT_EQ(monitor, nullptr);
  }
}

struct ReaderCase {
  const char* engine;
  const char* entry;  // what discovery finds
  const char* file;
  const char* text;
  float expected;
};

// Each file engine gets a ready monitor whose reader suits its driver's text:
// the second token for the vps flow engines, a leading number for JPU and VPU.
TEST_F(MonitorRegistryBoardTest, FileEnginesComeUpReadyWithTheirReader) {
  const char* flow = "/sys/devices/virtual/vps/flow/";
  const ReaderCase cases[] = {
      {"GDC", "", "gdc0_src/loading", "loading 37.5 %\n", 37.5f},
      {"STITCH", "", "stitch0_ich0/loading", "loading 37.5 %\n", 37.5f},
      {"PYM", "", "pym0_src/loading", "loading 37.5 %\n", 37.5f},
      {"ISP", "", "isp0_src/loading", "loading 37.5 %\n", 37.5f},
      {"JPU", "/dev/jpu", "/sys/kernel/debug/jpu/loading", "15\n", 15.0f},
      {"VPU", "/dev/vpu", "/sys/kernel/debug/vpu/loading", "15%\n", 15.0f},
  };
  MonitorOption option;
  option.delay_ms = 20;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.engine);
    test_support::BoardRoot board;
    board.MakeDir("/dev");
    if (*c.entry != '\0') board.WriteFile(c.entry, "");
    const bool vps = *c.entry == '\0';
    board.WriteFile(vps ? std::string(flow) + c.file : c.file, c.text);
    const MonitorConfig config = (*g_gen_config_funcs.Find(c.engine))(option);
    ASSERT_EQ(config.files.size(), 1u);
    std::shared_ptr<MonitorBase> monitor;
    const std::string err =
        test_support::CaptureStderr([&] { monitor = CreateMonitor(config, nullptr); });
    EXPECT_EQ(err, "");
    ASSERT_NE(monitor, nullptr);
    EXPECT_TRUE(monitor->IsReady());
    EXPECT_TRUE(monitor->IsStopped());  // created, not started
    EXPECT_EQ(monitor->Name(), c.engine);
    ASSERT_EQ(monitor->LoadingCount(), 1u);
    monitor->Start();
    EXPECT_TRUE(test_support::WaitFor([&] { return monitor->GetLoading(0) == c.expected; }));
    monitor->Stop();
  }
}

}  // namespace
}  // namespace kestro::zqp
