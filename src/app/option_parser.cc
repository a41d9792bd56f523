#include "app/option_parser.h"

#include <getopt.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "base/decimal.h"
#include "base/log.h"
#include "base/program_name.h"
#include "base/version.h"
#include "monitor/monitor_config.h"

namespace kestro::zqp::app {
namespace {

constexpr char kShortOptions[] = "hvbVd:f:n:t:e:";

const option kLongOptions[] = {
    {"help", no_argument, nullptr, 'h'},         {"version", no_argument, nullptr, 'V'},
    {"verbose", no_argument, nullptr, 'v'},      {"batch", no_argument, nullptr, 'b'},
    {"delay", required_argument, nullptr, 'd'},  {"freq", required_argument, nullptr, 'f'},
    {"number", required_argument, nullptr, 'n'}, {"time", required_argument, nullptr, 't'},
    {"enable", required_argument, nullptr, 'e'}, {nullptr, 0, nullptr, 0},
};

// The whole usage text, a printf format of the program's name; lines 5 and 11 keep the blanks that
// left alignment leaves behind, and line 23 its trailing blank.
constexpr char kUsage[] =
    "\n"
    "Usage:\n"
    "%s [Option...] [Parameter]\n"
    "\n"
    "[Option]                      [Instruction]       \n"
    "---------------------------------------------------------------------------------------------"
    "------------------\n"
    "-h --help                     Display this information\n"
    "-v --verbose                  Show additional information\n"
    "-V --version                  Output version information & exit\n"
    "\n"
    "[Option]                      [Parameter]         \n"
    "---------------------------------------------------------------------------------------------"
    "------------------\n"
    "-b --batch                    [null]  : Run in non-interactive batch mode, default is "
    "interactive mode.\n"
    "-d --delay                    [int]   : Delay between updates in milliseconds, default is "
    "1000 ms.\n"
    "                                        parameter range: [100, 10000].\n"
    "-f --freq                     [int]   : Sampling frequency, default is 500 samples/sec, only "
    "used for YPU and DSP.\n"
    "                                        parameter range: [10, 1000].\n"
    "-n --number                   [int]   : Specifies the maximum number of iterations, default "
    "is forever.\n"
    "                                        parameter range: [1, INT32_MAX].\n"
    "-t --time                     [int]   : Specifies the duration time in seconds, default is "
    "forever.\n"
    "                                        parameter range: [1, INT32_MAX].\n"
    "-e --enable                   [string]: Hardware IP to be monitored, valid values are \"ypu, "
    "dsp, gdc,\n"
    "                                        stitch, pym, isp, jpu, vpu\", case insensitive. "
    "Multiple parameters are \n"
    "                                        separated by comma.\n";

[[noreturn]] void PrintUsageAndExit() {
  std::printf(kUsage, base::kMonitorProgram);
  std::exit(1);
}

// Converts a numeric option value. The long result is deliberately truncated
// to 32 bits before any range check (4294967396 reads as 100).
bool ParseNumber(const char* text, std::int32_t& value) {
  if (text == nullptr) {
    base::LogError("value must no empty\n");
    return false;
  }
  const std::optional<std::int64_t> parsed = base::ParseDecimal<std::int64_t>(text);
  if (!parsed) {
    base::LogError("value %s is invalid number\n", text);
    return false;
  }
  value = static_cast<std::int32_t>(*parsed);
  return true;
}

// low <= value <= high, tested as one unsigned comparison.
bool ParseInRange(const char* text, std::int32_t low, std::int32_t high, const char* message,
                  std::uint32_t& field) {
  std::int32_t value = 0;
  if (!ParseNumber(text, value)) return false;
  if (static_cast<std::uint32_t>(value) - static_cast<std::uint32_t>(low) >
      static_cast<std::uint32_t>(high - low)) {
    base::LogError(message, low, high, value);
    return false;
  }
  field = static_cast<std::uint32_t>(value);
  return true;
}

bool ParsePositive(const char* text, const char* message, std::uint32_t& field) {
  std::int32_t value = 0;
  if (!ParseNumber(text, value)) return false;
  if (value < 1) {
    base::LogError(message, value);
    return false;
  }
  field = static_cast<std::uint32_t>(value);
  return true;
}

void AppendEnableItems(const char* text, std::vector<std::string>& list) {
  std::string_view rest(text);
  while (!rest.empty()) {
    const std::size_t comma = rest.find(',');
    const std::string_view piece = rest.substr(0, comma);
    if (!piece.empty()) list.emplace_back(piece);
    if (comma == std::string_view::npos) break;
    rest.remove_prefix(comma + 1);
  }
}

// Runs the -t conversion: frames = duration * 1000 / delay. The monitor
// computes it in 32-bit arithmetic (the product wraps for durations beyond
// 49.7 days; kept as is); exact computes it in 64 bits, short of kForever.
bool ConvertDuration(base::MonitorOption& option, bool exact) {
  const std::uint64_t total_ms =
      exact ? std::uint64_t{option.duration_s} * 1000u : std::uint64_t{option.duration_s * 1000u};
  option.iterations = static_cast<std::uint32_t>(
      std::min<std::uint64_t>(total_ms / option.delay_ms, base::kForever - 1));
  if (option.delay_ms > total_ms) {
    base::LogError("duration time %u sec must not less than delay time %u ms\n", option.duration_s,
                   option.delay_ms);
    return false;
  }
  return true;
}

}  // namespace

bool ValidateEnableList(const std::vector<std::string>& enable_list) {
  if (enable_list.empty()) return false;
  for (const auto& item : enable_list) {
    if (monitor::g_gen_config_funcs.Find(monitor::ToUpper(item)) != nullptr) continue;
    std::string keys = "{";
    for (const auto& entry : monitor::g_gen_config_funcs) keys += entry.first + ",";
    keys.back() = '}';
    base::LogError("%s is invalid, valid value is %s, case-insensitive\n", item.c_str(),
                   keys.c_str());
    return false;
  }
  return true;
}

bool ApplySharedOption(int code, const char* text, base::MonitorOption& option) {
  switch (code) {
    case 'v':
      base::SetLogLevel(0);
      return true;
    case 'd':
      return ParseInRange(text, 100, 10000, "delay valid range is [%d, %d], but get %d\n",
                          option.delay_ms);
    case 'f':
      return ParseInRange(text, 10, 1000, "sample frequency valid range is [%d, %d], but get %d\n",
                          option.frequency);
    case 'n':
      return ParsePositive(text, "iterater number must great than 0, but get %d\n",
                           option.iterations);
    case 't':
      return ParsePositive(text, "time must great than 0, but get %d\n", option.duration_s);
    case 'e':
      if (text == nullptr) {
        base::LogError("value must no empty\n");
      } else {
        AppendEnableItems(text, option.enable_list);
      }
      return ValidateEnableList(option.enable_list);
    default:
      return false;
  }
}

bool FinishSharedOptions(base::MonitorOption& option, bool exact_duration) {
  const bool count_set = option.iterations != 0;
  const bool time_set = option.duration_s != 0;
  if (count_set && time_set) {
    base::LogError("Not support setting both number and time\n");
    ConvertDuration(option, exact_duration);
    return false;
  }
  if (time_set) return ConvertDuration(option, exact_duration);
  if (!count_set) option.iterations = base::kForever;
  return true;
}

void LogSettings(const base::MonitorOption& option) {
  base::LogVerbose("delay: %u ms\n", option.delay_ms);
  base::LogVerbose("frequency: %u sample/sec\n", option.frequency);
  base::LogVerbose("batch mode: %s\n", option.batch ? "true" : "false");
  if (option.iterations != base::kForever)
    base::LogVerbose("iterator nums: %u\n", option.iterations);
  if (option.duration_s != 0) base::LogVerbose("duration time: %u sec\n", option.duration_s);
}

base::MonitorOption ParseOptions(int argc, char** argv) {
  base::MonitorOption option;
  int code;
  while (option.valid &&
         (code = getopt_long(argc, argv, kShortOptions, kLongOptions, nullptr)) != -1) {
    switch (code) {
      case 'V':
        std::fprintf(stderr, "ZQP Monitor version: %s\n", base::GetVersion().c_str());
        std::exit(0);
      case 'v':
      case 'd':
      case 'f':
      case 'n':
      case 't':
      case 'e':
        option.valid = ApplySharedOption(code, optarg, option);
        break;
      case 'b':
        option.batch = true;
        break;
      default:  // 'h', and '?' for getopt's own errors
        PrintUsageAndExit();
    }
  }
  if (option.valid) option.valid = FinishSharedOptions(option, false);
  return option;
}

}  // namespace kestro::zqp::app
