#include "base/decimal.h"

namespace kestro::zqp::base {

std::optional<std::uint64_t> ParseDigits(std::string_view text) {
  if (text.empty()) return std::nullopt;
  std::uint64_t value = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
    // Overflow tests rather than a division per digit: heap tables hold
    // thousands of rows.
    if (__builtin_mul_overflow(value, 10u, &value) ||
        __builtin_add_overflow(value, static_cast<std::uint64_t>(c - '0'), &value)) {
      return std::nullopt;
    }
  }
  return value;
}

}  // namespace kestro::zqp::base
