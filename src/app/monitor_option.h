// The parsed command line and the functions that produce it.
#pragma once

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

namespace kestro::zqp {

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
};

// Parses argv. Prints the usage (exit 1) or the version (exit 0) and ends the
// process itself for -h, unknown options and -V. On any other failure prints
// one message to stderr and returns with valid == false; the other fields are
// then partial and must not be used. Sets the process log level for -v.
MonitorOption ParseOptions(int argc, char** argv);

// True when the list is not empty and every item, upper-cased (ASCII only), is
// an engine name of the configuration registry. The first unknown item prints
// "<item> is invalid, valid value is {YPU,...}, case-insensitive".
bool ValidateEnableList(const std::vector<std::string>& enable_list);

// "2.2.4", built on first use.
const std::string& GetVersion();

// The usage text, byte for byte as -h prints it.
const char* UsageText();

}  // namespace kestro::zqp
