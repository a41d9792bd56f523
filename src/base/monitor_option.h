// The parsed command line, as every layer above the parser sees it.
#pragma once

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

namespace kestro::zqp::base {

// Stored in MonitorOption::iterations: run until stopped.
inline constexpr std::uint32_t kForever = std::numeric_limits<std::uint32_t>::max();

struct MonitorOption {
  std::uint32_t delay_ms = 1000;
  std::uint32_t iterations = 0;
  std::uint32_t frequency = 500;
  std::uint32_t duration_s = 0;
  bool batch = false;
  bool valid = true;
  std::vector<std::string> enable_list;
  // Set by the companion programs, never by the monitor's command line: the
  // program writes nothing on the board (no sampling period, no DSP fifo,
  // node or lock), and a figure it cannot vouch for reads as NaN.
  bool read_only = false;
};

}  // namespace kestro::zqp::base
