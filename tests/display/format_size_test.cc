#include "display/format_size.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <limits>
#include <string>

namespace kestro::zqp::monitor {
namespace {

struct SizeCase {
  std::uint64_t bytes;
  std::uint64_t value;
  std::uint32_t tenth;
  char unit;
  const char* text;  // as the report prints it with "%4lu.%u%c"
};

class FormatSizeTest : public ::testing::TestWithParam<SizeCase> {};

TEST_P(FormatSizeTest, ScalesAndRenders) {
  const SizeCase& c = GetParam();
  HumanSize size{};
  FormatSize(c.bytes, size);
  EXPECT_EQ(size.value, c.value);
  EXPECT_EQ(size.tenth, c.tenth);
  EXPECT_EQ(size.unit, c.unit);
  char text[32];
  std::snprintf(text, sizeof(text), "%4lu.%u%c", static_cast<unsigned long>(size.value), size.tenth,
                size.unit);
  EXPECT_EQ(std::string(text), c.text);
}

constexpr std::uint64_t kMax = std::numeric_limits<std::uint64_t>::max();

INSTANTIATE_TEST_SUITE_P(
    Table, FormatSizeTest,
    ::testing::Values(
        SizeCase{0, 0, 0, ' ', "   0.0 "}, SizeCase{1023, 1023, 0, ' ', "1023.0 "},
        SizeCase{1024, 1, 0, 'K', "   1.0K"}, SizeCase{1536, 1, 5, 'K', "   1.5K"},
        // 1100/1024 = 1.074..., the decimal rounds down to 1.1
        SizeCase{1100, 1, 1, 'K', "   1.1K"},
        // A remainder of exactly half a tenth (51.2) goes up.
        SizeCase{1024 + 52, 1, 1, 'K', "   1.1K"}, SizeCase{1048064, 1023, 5, 'K', "1023.5K"},
        // Carry into the value but not into the next unit.
        SizeCase{1048575, 1024, 0, 'K', "1024.0K"}, SizeCase{1048576, 1, 0, 'M', "   1.0M"},
        SizeCase{1ull << 30, 1, 0, 'G', "   1.0G"}, SizeCase{3ull << 40, 3, 0, 'T', "   3.0T"},
        SizeCase{1ull << 50, 1, 0, 'P', "   1.0P"}, SizeCase{1ull << 60, 1, 0, 'E', "   1.0E"},
        // The largest count: 15.99... E rounds to 16.0E.
        SizeCase{kMax, 16, 0, 'E', "  16.0E"}));

TEST(FormatSizeTest, BelowOneKibiLeavesCallersTenth) {
  HumanSize size{0, 7, 'x'};
  FormatSize(100, size);
  EXPECT_EQ(size.value, 100u);
  EXPECT_EQ(size.tenth, 7u);
  EXPECT_EQ(size.unit, ' ');
}

}  // namespace
}  // namespace kestro::zqp::monitor
