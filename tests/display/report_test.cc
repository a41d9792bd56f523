// Golden frames of the report in batch mode, compared byte for byte.
#include "display/report.h"

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/test_util.h"

namespace kestro::zqp::monitor {
namespace {

class FixedMonitor : public MonitorBase {
 public:
  FixedMonitor(const std::string& name, const std::vector<float>& values)
      : MonitorBase(MakeConfig(name), nullptr) {
    SetLoadingNum(static_cast<std::uint32_t>(values.size()));
    for (std::size_t i = 0; i < values.size(); ++i) SetLoading(i, values[i]);
  }

 private:
  static MonitorConfig MakeConfig(const std::string& name) {
    MonitorConfig config;
    config.name = name;
    return config;
  }
};

// No heap file on the board: the collector leaves the record as the test filled it.
class ReportTest : public test_support::BoardRootTest {
 protected:
  std::string Draw(const std::vector<std::shared_ptr<MonitorBase>>& monitors,
                   const DdrFigures& ddr) {
    TerminalDisplay terminal(true);
    testing::internal::CaptureStdout();
    DrawFrame(terminal, monitors, ddr, memory);
    return testing::internal::GetCapturedStdout();
  }

  MemoryUsage memory;
};

const char kTitle[] =
    "+------------------------------------------------+\n"
    "| Monitor 2.2.4                                  |\n"
    "|------------------------------------------------|\n"
    "|            IP            %LOADING              |\n";
const char kRule[] = "|------------------------------------------------|\n";
const char kMemoryHead[] =
    "| ION Info                                       |\n"
    "|------------------------------------------------|\n"
    "|                  total     used     free       |\n";
const char kProcessHead[] =
    "|------------------------------------------------|\n"
    "| Process Mem Info                               |\n"
    "|------------------------------------------------|\n"
    "|       PID  PROC                 RSS    VZMEM   |\n";
const char kBottom[] = "+------------------------------------------------+\n";

TEST_F(ReportTest, EmptyReportWithoutDdr) {
  const std::string frame = Draw({}, DdrFigures{});
  EXPECT_EQ(frame, std::string(kTitle) + kRule + kMemoryHead + kProcessHead + kBottom);
}

TEST_F(ReportTest, FullReport) {
  memory.heap_total = {1048576, 0, 64ull << 20, 0, 0};
  memory.heap_used = {8192, 0, 4ull << 20, 0, 0};
  ProcessMemory process;
  process.rss_kb = 2048;
  process.ion_bytes = 8192;
  std::strcpy(process.name, "camera_service_12345");  // 20 characters
  memory.processes[100] = process;

  auto ypu = std::make_shared<FixedMonitor>("YPU", std::vector<float>{25.0f, 100.0f});
  auto empty = std::make_shared<FixedMonitor>("DSP", std::vector<float>{});
  auto stitch = std::make_shared<FixedMonitor>("STITCH", std::vector<float>{37.5f});
  const std::string frame = Draw({ypu, empty, stitch}, DdrFigures{true, 1234, 567});

  const std::string expected = std::string(kTitle) +
                               "|           YPU0             25.0                |\n"
                               "|           YPU1            100.0                |\n"
                               "|           STITCH0          37.5                |\n" +
                               kRule +
                               "| DDR Bandwidth                                  |\n"
                               "|------------------------------------------------|\n"
                               "|       Perf(MiB/s)           All                |\n"
                               "|          Read             1234                 |\n"
                               "|          Write             567                 |\n" +
                               kRule + kMemoryHead +
                               "| cma_reserved      1.0M     8.0K  1016.0K       |\n"
                               "| carveout         64.0M     4.0M    60.0M       |\n" +
                               kProcessHead +
                               "|       100  camera_service_123   2.0M    8.0K   |\n" + kBottom;
  EXPECT_EQ(frame, expected);
  // The table is emptied after every frame.
  EXPECT_TRUE(memory.processes.empty());
}

}  // namespace
}  // namespace kestro::zqp::monitor
