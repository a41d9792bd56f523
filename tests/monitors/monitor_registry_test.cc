#include "monitors/monitor_registry.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "support/test_util.h"

namespace kestro::zqp::monitors {
namespace {

using test_support::CaptureStderr;

monitor::MonitorConfig Config(const std::string& name, std::uint32_t frequency, std::uint32_t delay,
                              const char* file = "/loading") {
  return monitor::MonitorConfig{
      .name = name, .frequency = frequency, .delay = delay, .files = {file}};
}

// A zero delay is refused for every engine, a zero frequency for YPU and DSP
// only; unknown names and monitors that did not come up give nothing, silently.
TEST(MonitorRegistryTest, GivesOnlyReadyUnstartedMonitorsOfKnownNamesWithUsableSettings) {
  test_support::BoardRoot board;
  board.WriteFile("/loading", "loading 37.5 %\n");
  std::vector<std::pair<monitor::MonitorConfig, std::string>> refused = {
      {Config("YPU", 0, 1000), "sample frequency is 0 for YPU\n"},
      {Config("DSP", 0, 1000), "sample frequency is 0 for DSP\n"},
      {Config("", 0, 0), ""},
      {Config("gdc", 500, 1000), ""},
      {Config("GDC ", 500, 1000), ""},
      {Config("DDR", 500, 1000), ""},
      {Config("JPU", 500, 1000, "/missing"), ""}};
  ASSERT_EQ(MonitorCreator.size(), 8u);
  for (const auto& [engine, unused] : MonitorCreator) {
    refused.emplace_back(Config(engine, 500, 0), "sample time is 0 for " + engine + "\n");
  }
  for (const auto& [config, message] : refused) {
    EXPECT_EQ(
        // Named captures: clang 14 cannot capture structured bindings implicitly.
        CaptureStderr([&config = config] { EXPECT_EQ(CreateMonitor(config, nullptr), nullptr); }),
        message)
        << config.name;
  }
  const auto gdc = CreateMonitor(Config("GDC", 0, 1000), nullptr);
  ASSERT_NE(gdc, nullptr);
  EXPECT_EQ(gdc->Name(), "GDC");
  EXPECT_TRUE(gdc->IsStopped());
}

}  // namespace
}  // namespace kestro::zqp::monitors
