// Scaling of byte counts for the report's size columns.
#pragma once

#include <cstdint>

namespace kestro::zqp::display {

// A byte count scaled to at most four integer digits, printed everywhere as
// "%4lu.%u%c" (value, tenth, unit).
struct HumanSize {
  std::uint64_t value;  // scaled integer part
  std::uint32_t tenth;  // one decimal digit, 0 to 9
  char unit;            // one of " KMGTPEZY"; ' ' for plain bytes
};

// Scales bytes by powers of 1024 until the integer part is at most 1023 and
// rounds the first decimal half-up. A rounded decimal of 10 carries into value
// but never into the next unit, so 1048575 gives 1024.0K. Below 1024 tenth is
// left as the caller set it: out must be zero-initialised before each call.
// Never fails; 64-bit inputs never reach the units Z and Y.
void FormatSize(std::uint64_t bytes, HumanSize& out);

}  // namespace kestro::zqp::display
