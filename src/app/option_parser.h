// The command-line parser: argv to MonitorOption, with the exact messages.
#pragma once

#include <string>
#include <vector>

#include "base/monitor_option.h"

namespace kestro::zqp::app {

// Parses argv. Prints the usage (exit 1) or the version (exit 0) and ends the
// process itself for -h, unknown options and -V. On any other failure prints
// one message to stderr and returns with valid == false; the other fields are
// then partial and must not be used. Sets the process log level for -v.
base::MonitorOption ParseOptions(int argc, char** argv);

// True when the list is not empty and every item, upper-cased (ASCII only), is
// an engine name of the configuration registry. The first unknown item prints
// "<item> is invalid, valid value is {YPU,...}, case-insensitive".
bool ValidateEnableList(const std::vector<std::string>& enable_list);

// The options that every program of the library takes with the same meaning,
// limits and messages: 'v', 'd', 'f', 'n', 't' and 'e' (code), with text the
// option's argument. Applies one to option; false after the one message of a
// bad value, as ParseOptions prints it.
bool ApplySharedOption(int code, const char* text, base::MonitorOption& option);

// Once every option is applied: refuses -n with -t and turns -t into a count,
// or sets kForever when neither was given. False after the message(s). The
// monitor's count wraps for durations beyond 49.7 days (32-bit arithmetic);
// exact_duration counts in 64 bits instead, up to kForever - 1.
bool FinishSharedOptions(base::MonitorOption& option, bool exact_duration);

// The settings summary of -v on stderr (log level 0 only), as main prints it.
void LogSettings(const base::MonitorOption& option);

}  // namespace kestro::zqp::app
