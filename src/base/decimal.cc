#include "base/decimal.h"

namespace kestro::zqp::base {

std::optional<std::uint64_t> ParseDigits(std::string_view text) {
  if (text.empty()) return std::nullopt;
  std::uint64_t value = 0;
  // Nineteen digits cannot overflow 64 bits: heap tables hold thousands of
  // rows, each with a pid and a size, so most numbers take this loop.
  if (text.size() <= 19) {
    for (const char c : text) {
      if (c < '0' || c > '9') return std::nullopt;
      value = value * 10 + static_cast<std::uint64_t>(c - '0');
    }
    return value;
  }
  for (const char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
    // Overflow tests rather than a division per digit.
    if (__builtin_mul_overflow(value, 10u, &value) ||
        __builtin_add_overflow(value, static_cast<std::uint64_t>(c - '0'), &value)) {
      return std::nullopt;
    }
  }
  return value;
}

}  // namespace kestro::zqp::base
