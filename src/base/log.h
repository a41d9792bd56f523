// Process-wide log level and the one place where message gates are applied.
//
// The level is 1 at start and 0 after -v. Every diagnostic of the program
// goes to standard error through one of the functions below, which state the
// gate once:
//   LogVerbose       printed only at level 0 (with -v);
//   LogError         printed at level <= 1 (always with this command line);
//   LogBatchVerbose  printed only in batch mode and at level 0;
//   LogBatchError    printed only in batch mode and at level <= 1.
// The batch gates keep messages off the interactive screen. The functions keep
// errno unchanged, so callers may format strerror(errno) after other calls.
#pragma once

#include <cstdint>

namespace kestro::zqp::base {

std::uint8_t GetLogLevel();
void SetLogLevel(std::uint8_t level);

void LogVerbose(const char* format, ...) __attribute__((format(printf, 1, 2)));
void LogError(const char* format, ...) __attribute__((format(printf, 1, 2)));
void LogBatchVerbose(bool batch, const char* format, ...) __attribute__((format(printf, 2, 3)));
void LogBatchError(bool batch, const char* format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace kestro::zqp::base
