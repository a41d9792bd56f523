#include "base/log.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>

namespace kestro::zqp::base {
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

#define KZM_LOG_IF(condition) \
  do {                        \
    if (!(condition)) return; \
    va_list args;             \
    va_start(args, format);   \
    Emit(format, args);       \
    va_end(args);             \
  } while (0)

void LogVerbose(const char* format, ...) {
  KZM_LOG_IF(GetLogLevel() == 0);
}

void LogError(const char* format, ...) {
  KZM_LOG_IF(GetLogLevel() <= 1);
}

void LogBatchVerbose(bool batch, const char* format, ...) {
  KZM_LOG_IF(batch && GetLogLevel() == 0);
}

void LogBatchError(bool batch, const char* format, ...) {
  KZM_LOG_IF(batch && GetLogLevel() <= 1);
}

#undef KZM_LOG_IF

}  // namespace kestro::zqp::base
