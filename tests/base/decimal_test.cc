#include "base/decimal.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <string_view>

namespace kestro::zqp {
namespace {

TEST(DecimalTest, TakesTheWholeTextWithinItsRangeOnly) {
  using I64 = std::optional<std::int64_t>;
  using U64 = std::optional<std::uint64_t>;
  using U16 = std::optional<std::uint16_t>;
  using I32 = std::optional<std::int32_t>;
  constexpr auto kNone = std::nullopt;
  // Text, then as the options (int64), the board's tables (digits alone,
  // int32), a port (uint16) and --processes (0 to 1000) read it.
  const struct {
    std::string_view text;
    I64 option;
    U64 digits;
    I32 pid;
    U16 port;
    std::optional<unsigned long> processes;
  } cases[] = {
      {"0", 0, 0u, 0, 0, 0ul},
      {"-0", 0, kNone, 0, kNone, kNone},
      {"-12", -12, kNone, -12, kNone, kNone},
      {"1000", 1000, 1000u, 1000, 1000, 1000ul},
      {"1001", 1001, 1001u, 1001, 1001, kNone},
      {"65536", 65536, 65536u, 65536, kNone, kNone},
      {"2147483648", 2147483648, 2147483648u, kNone, kNone, kNone},
      {"-2147483648", -2147483648, kNone, -2147483648, kNone, kNone},
      {"9223372036854775807", INT64_MAX, 9223372036854775807u, kNone, kNone, kNone},
      {"-9223372036854775808", INT64_MIN, kNone, kNone, kNone, kNone},
      {"9223372036854775808", kNone, 9223372036854775808u, kNone, kNone, kNone},
      {"-9223372036854775809", kNone, kNone, kNone, kNone, kNone},
      {"18446744073709551615", kNone, UINT64_MAX, kNone, kNone, kNone},
      {"18446744073709551616", kNone, kNone, kNone, kNone, kNone},
      {"", kNone, kNone, kNone, kNone, kNone},
      {"+1", kNone, kNone, kNone, kNone, kNone},
      {" 1", kNone, kNone, kNone, kNone, kNone},
      {"-", kNone, kNone, kNone, kNone, kNone},
      {std::string_view("12345").substr(0, 3), 123, 123u, 123, 123, 123ul},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(ParseDecimal<std::int64_t>(c.text), c.option) << c.text;
    EXPECT_EQ(ParseDigits(c.text), c.digits) << c.text;
    EXPECT_EQ(ParseDecimal<std::int32_t>(c.text), c.pid) << c.text;
    EXPECT_EQ(ParseDecimal<std::uint16_t>(c.text), c.port) << c.text;
    EXPECT_EQ(ParseDecimal(c.text, 0ul, 1000ul), c.processes) << c.text;
  }
}

}  // namespace
}  // namespace kestro::zqp
