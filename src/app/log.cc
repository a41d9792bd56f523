#include "app/log.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>

namespace kestro::zqp {
namespace {

// Written once by the option parser on the main thread, read by every thread.
std::atomic<std::uint8_t> g_log_level{1};

void Emit(const char* format, va_list args) {
  std::vfprintf(stderr, format, args);
}

}  // namespace

std::uint8_t GetLogLevel() {
  return g_log_level.load(std::memory_order_relaxed);
}

void SetLogLevel(std::uint8_t level) {
  g_log_level.store(level, std::memory_order_relaxed);
}

void LogVerbose(const char* format, ...) {
  if (GetLogLevel() != 0) return;
  va_list args;
  va_start(args, format);
  Emit(format, args);
  va_end(args);
}

void LogError(const char* format, ...) {
  if (GetLogLevel() > 1) return;
  va_list args;
  va_start(args, format);
  Emit(format, args);
  va_end(args);
}

void LogBatchVerbose(bool batch, const char* format, ...) {
  if (!batch || GetLogLevel() != 0) return;
  va_list args;
  va_start(args, format);
  Emit(format, args);
  va_end(args);
}

void LogBatchError(bool batch, const char* format, ...) {
  if (!batch || GetLogLevel() > 1) return;
  va_list args;
  va_start(args, format);
  Emit(format, args);
  va_end(args);
}

}  // namespace kestro::zqp
