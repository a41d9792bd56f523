// What the simulated board cannot show: rounding corners of the size columns,
// the kB-to-bytes scaling of RSS and the process table emptied after a frame.
#include "display/report.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "display/format_size.h"
#include "support/test_util.h"

namespace kestro::zqp::display {
namespace {

// Scaled by 1024 until at most 1023 remains, the tenth rounded half up (1.25K
// is 1.3K); a tenth rounded to 10 carries into the value, never into the unit.
TEST(FormatSizeTest, RoundsHalfUpAndCarriesIntoTheValueOnly) {
  std::string got;
  for (const std::uint64_t bytes : {0ull, 1023ull, 1024ull, 1279ull, 1280ull, 1048575ull,
                                    1ull << 20, 1ull << 30, 3ull << 40, 1ull << 50, ~0ull}) {
    HumanSize size{};
    FormatSize(bytes, size);
    char text[32];
    std::snprintf(text, sizeof text, "%4lu.%u%c|", size.value, size.tenth, size.unit);
    got += text;
  }
  EXPECT_EQ(
      got,
      "   0.0 |1023.0 |   1.0K|   1.2K|   1.3K|1024.0K|   1.0M|   1.0G|   3.0T|   1.0P|  16.0E|");
}

// No heap file on the board: the collector keeps the process the test put in.
TEST(ReportTest, ProcessRowAndTheTableEmptiedAfterTheFrame) {
  test_support::BoardRoot board;
  monitors::MemoryUsage memory;
  monitors::ProcessMemory& process = memory.processes[100];
  process.rss_kb = 4096;
  process.ion_bytes = 8192;
  std::strcpy(process.name, "camera_service_12345");
  TerminalDisplay terminal(true);
  testing::internal::CaptureStdout();
  DrawMemoryTables(terminal, memory);
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_NE(out.find("\n|       100  camera_service_123   4.0M    8.0K   |\n"), out.npos) << out;
  EXPECT_TRUE(memory.processes.empty());
}

}  // namespace
}  // namespace kestro::zqp::display
