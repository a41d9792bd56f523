#include "display/format_size.h"

namespace kestro::zqp::display {

void FormatSize(std::uint64_t bytes, HumanSize& out) {
  static constexpr char kUnits[] = " KMGTPEZY";
  unsigned unit = 0;
  std::uint64_t value = bytes;
  if (value >= 1024) {
    std::uint64_t previous = 0;
    do {
      previous = value;
      value >>= 10;
      ++unit;
    } while (value > 1023);
    out.tenth = static_cast<std::uint32_t>(((previous & 1023) * 10 + 512) >> 10);
  }
  if (out.tenth > 9) {
    out.tenth = 0;
    ++value;
  }
  out.value = value;
  out.unit = kUnits[unit];
}

}  // namespace kestro::zqp::display
