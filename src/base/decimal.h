// The one reader of decimal integers in text: options, listen addresses and
// the board's tables all take their numbers through it.
#pragma once

#include <concepts>
#include <cstdint>
#include <limits>
#include <optional>
#include <string_view>
#include <utility>

namespace kestro::zqp::base {

// The value of text when the whole of it is decimal digits (one or more) of a
// value below 2^64; nullopt otherwise (empty, a sign, a blank, any other byte,
// a larger value). Inline: heap tables hold thousands of rows, each with a
// pid and a size.
inline std::optional<std::uint64_t> ParseDigits(std::string_view text) {
  if (text.empty()) return std::nullopt;
  std::uint64_t value = 0;
  // Nineteen digits cannot overflow 64 bits, so most numbers skip the tests.
  if (text.size() <= 19) {
    for (const char c : text) {
      const auto digit = static_cast<unsigned char>(c - '0');
      if (digit > 9) return std::nullopt;
      value = value * 10 + digit;
    }
    return value;
  }
  for (const char c : text) {
    const auto digit = static_cast<unsigned char>(c - '0');
    if (digit > 9 || __builtin_mul_overflow(value, 10u, &value) ||
        __builtin_add_overflow(value, digit, &value)) {
      return std::nullopt;
    }
  }
  return value;
}

// The whole of text as a decimal integer from low to high: a '-' first only
// where low is negative, then digits as ParseDigits reads them; nothing else
// (no blank, no '+'). nullopt otherwise.
template <std::integral T>
std::optional<T> ParseDecimal(std::string_view text, T low = std::numeric_limits<T>::min(),
                              T high = std::numeric_limits<T>::max()) {
  const bool negative = low < 0 && !text.empty() && text.front() == '-';
  if (negative) text.remove_prefix(1);
  const std::optional<std::uint64_t> magnitude = ParseDigits(text);
  if (!magnitude) return std::nullopt;
  if (!negative) {
    if (std::cmp_less(*magnitude, low) || std::cmp_greater(*magnitude, high)) return std::nullopt;
    return static_cast<T>(*magnitude);
  }
  constexpr std::uint64_t kMostNegative = std::uint64_t{1} << 63;
  if (*magnitude > kMostNegative) return std::nullopt;
  const std::int64_t value = *magnitude == kMostNegative ? std::numeric_limits<std::int64_t>::min()
                                                         : -static_cast<std::int64_t>(*magnitude);
  if (std::cmp_less(value, low) || std::cmp_greater(value, high)) return std::nullopt;
  return static_cast<T>(value);
}

}  // namespace kestro::zqp::base
