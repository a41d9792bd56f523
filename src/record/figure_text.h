// The texts every output format shares: times, loading figures and the
// UTF-8 test the escaping of names rests on.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace kestro::zqp::record {

// Length of the valid UTF-8 sequence at bytes[at] (RFC 3629: no overlong
// forms, no surrogates, nothing above U+10FFFF), 0 when there is none.
std::size_t Utf8SequenceLength(std::string_view bytes, std::size_t at);
// C0 controls and DEL.
inline bool IsControl(unsigned char byte) {
  return byte < 0x20 || byte == 0x7f;
}
// "2024-05-01T12:00:00.123Z"
std::string Rfc3339(std::int64_t wall_ms);
// Milliseconds as seconds with three decimals: "12.003".
std::string Seconds(std::int64_t ms);
// Loading in percent to the hundredth, shortest form: "29.6", "100", "0.25";
// empty for NaN and infinities (an empty CSV cell, null in JSON, no sample in
// the Prometheus text).
std::string Percent(float value);
// A loading percentage as a ratio of 1 to the ten-thousandth, shortest form:
// "0.296", "1", "0.0025"; empty for NaN and infinities.
std::string Ratio(float percent);

}  // namespace kestro::zqp::record
