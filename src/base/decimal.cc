#include "base/decimal.h"

namespace kestro::zqp::base {

std::optional<std::uint64_t> ParseDigits(std::string_view text) {
  if (text.empty()) return std::nullopt;
  // Nineteen digits cannot overflow 64 bits, so most numbers (heap tables
  // hold thousands of rows, each with a pid and a size) skip the tests; they
  // replace a division per digit for the rest.
  const bool may_overflow = text.size() > 19;
  std::uint64_t value = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
    const auto digit = static_cast<std::uint64_t>(c - '0');
    if (!may_overflow) {
      value = value * 10 + digit;
    } else if (__builtin_mul_overflow(value, 10u, &value) ||
               __builtin_add_overflow(value, digit, &value)) {
      return std::nullopt;
    }
  }
  return value;
}

}  // namespace kestro::zqp::base
