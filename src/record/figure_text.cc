#include "record/figure_text.h"

#include <chrono>
#include <cmath>
#include <cstdio>

namespace kestro::zqp::record {
namespace {

// value * 10^decimals rounded half away from zero, printed in its shortest
// exact form with at most `decimals` decimals ("29.6", "100", "0.0025").
// Integers only: std::round would pull in libm and to_chars(double) its
// shortest-form tables, resident pages the monitor does not have.
std::string Fixed(double value, int decimals, std::int64_t unit) {
  if (!std::isfinite(value)) return "";
  const double scaled = value * static_cast<double>(unit);
  char text[64];
  if (!(scaled > -1e15 && scaled < 1e15)) {
    std::snprintf(text, sizeof text, "%.0f", value);
    return text;
  }
  const auto units = static_cast<std::int64_t>(scaled + (scaled < 0 ? -0.5 : 0.5));
  const std::uint64_t magnitude = static_cast<std::uint64_t>(units < 0 ? -units : units);
  auto fraction = static_cast<unsigned>(magnitude % static_cast<std::uint64_t>(unit));
  int length = std::snprintf(text, sizeof text, "%s%llu", units < 0 ? "-" : "",
                             static_cast<unsigned long long>(magnitude / unit));
  if (fraction != 0) {
    while (fraction % 10 == 0) {
      fraction /= 10;
      --decimals;
    }
    length += std::snprintf(text + length, sizeof text - length, ".%0*u", decimals, fraction);
  }
  return std::string(text, static_cast<std::size_t>(length));
}

}  // namespace

std::size_t Utf8SequenceLength(std::string_view bytes, std::size_t at) {
  const auto byte = [&bytes](std::size_t i) { return static_cast<unsigned char>(bytes[i]); };
  const unsigned char lead = byte(at);
  if (lead < 0x80) return 1;
  std::size_t length = 0;
  unsigned char low = 0x80;
  unsigned char high = 0xbf;
  if (lead >= 0xc2 && lead <= 0xdf) {
    length = 2;
  } else if (lead >= 0xe0 && lead <= 0xef) {
    length = 3;
    if (lead == 0xe0) low = 0xa0;   // overlong below U+0800
    if (lead == 0xed) high = 0x9f;  // surrogates U+D800..U+DFFF
  } else if (lead >= 0xf0 && lead <= 0xf4) {
    length = 4;
    if (lead == 0xf0) low = 0x90;   // overlong below U+10000
    if (lead == 0xf4) high = 0x8f;  // above U+10FFFF
  } else {
    return 0;
  }
  if (at + length > bytes.size() || byte(at + 1) < low || byte(at + 1) > high) return 0;
  for (std::size_t i = 2; i < length; ++i) {
    if ((byte(at + i) & 0xc0) != 0x80) return 0;
  }
  return length;
}

std::string Rfc3339(std::int64_t wall_ms) {
  // Calendar arithmetic only: gmtime_r would first load the local time zone
  // (/etc/localtime), whose code and data a UTC stamp has no use for.
  using namespace std::chrono;
  const sys_time<milliseconds> time{milliseconds(wall_ms)};
  const sys_days day = floor<days>(time);
  const year_month_day date(day);
  const hh_mm_ss<milliseconds> clock(time - day);
  char text[48];
  std::snprintf(
      text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02d.%03dZ", static_cast<int>(date.year()),
      static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
      static_cast<int>(clock.hours().count()), static_cast<int>(clock.minutes().count()),
      static_cast<int>(clock.seconds().count()), static_cast<int>(clock.subseconds().count()));
  return text;
}

std::string Seconds(std::int64_t ms) {
  char text[32];
  std::snprintf(text, sizeof text, "%lld.%03lld", static_cast<long long>(ms / 1000),
                static_cast<long long>(ms % 1000));
  return text;
}

std::string Percent(float value) {
  return Fixed(static_cast<double>(value), 2, 100);
}

std::string Ratio(float percent) {
  // Percent to the hundredth is the ratio to 1e-4.
  return Fixed(static_cast<double>(percent) / 100.0, 4, 10000);
}

}  // namespace kestro::zqp::record
