#include "monitors/file_monitor.h"

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>

#include "base/board_path.h"
#include "base/log.h"

namespace kestro::zqp::monitors {
namespace {

constexpr std::uint32_t kMaxSamplePeriodMs = 3000;
// Enough for short driver texts such as "loading 37.5 %"; one byte stays 0.
constexpr std::size_t kBufferSize = 64;

}  // namespace

FileMonitor::FileMonitor(const monitor::MonitorConfig& config,
                         const std::shared_ptr<runner::WatchTaskRunner>& runner, Reader reader_in)
    : monitor::MonitorBase(config, runner),
      reader(std::move(reader_in)),
      sample_period(std::min(config.delay, kMaxSamplePeriodMs)) {
  const std::size_t n = files.size();
  if (n == 0) base::LogVerbose("No loading node found for %s\n", name.c_str());
  SetLoadingNum(static_cast<std::uint32_t>(n));
  fds.assign(n, -1);
  if (n == 0) return;

  char digits[16];
  std::snprintf(digits, sizeof digits, "%u", sample_period);
  bool any_opened = false;
  for (std::size_t i = 0; i < n; ++i) {
    const std::string& path = files[i];
    if (path.empty()) continue;
    // Close-on-exec so that children of the program (the DDR tool) do not
    // inherit the driver files.
    const int flags = (write_sample_time ? O_RDWR : O_RDONLY) | O_CLOEXEC;
    fds[i] = open(base::BoardPath(path).c_str(), flags);
    if (fds[i] < 0) {
      base::LogVerbose("%s%u loading node not exist,%s\n", name.c_str(), static_cast<unsigned>(i),
                       path.c_str());
      continue;
    }
    // The driver averages over the period it is told; a refused write leaves
    // its own default, and the file is still worth reading.
    if (write_sample_time && write(fds[i], digits, std::strlen(digits)) < 1) {
      base::LogVerbose("Set sample time %s for %s failed, use default value\n", digits,
                       path.c_str());
    }
    any_opened = true;
  }
  if (!any_opened) return;

  if (task_per_file) {
    for (std::size_t i = 0; i < n; ++i) {
      // Descriptor 0 is treated as not opened here and in the destructor.
      if (fds[i] > 0) AddTask([this, i] { RunOneFile(i); });
    }
  } else {
    SetTasks({[this] { RunAllFiles(); }});
  }
  ready.store(true);
}

FileMonitor::~FileMonitor() {
  JoinThreads();
  for (const int fd : fds) {
    if (fd > 0) close(fd);
  }
}

float FileMonitor::ReadLoading(int fd, char* buffer, std::size_t size) {
  if (size < 2) return NoFigure();
  if (read(fd, buffer, size - 1) < 1) return NoFigure();
  float value = 0.0f;
  if (reader(value, buffer) != 1) return NoFigure();
  return value;
}

void FileMonitor::RunOneFile(std::size_t index) {
  // Zeroed once and kept between reads: a shorter text leaves the tail of a
  // longer one behind it, which the readers never reach as they stop at their
  // first tokens. The last byte is never read into and stays 0.
  char buffer[kBufferSize] = {};
  const int fd = fds[index];
  const auto slot = static_cast<std::uint32_t>(index);
  while (!stop.load()) {
    const auto t0 = std::chrono::steady_clock::now();
    SetLoading(slot, ReadLoading(fd, buffer, sizeof buffer));
    lseek(fd, 0, SEEK_SET);
    // A driver read may block until its next figure is ready; that wait is
    // part of the period, so the file is sampled once per period.
    const auto elapsed = static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0)
            .count());
    const std::uint32_t period = GetSamplePeriod();
    if (elapsed >= period) continue;
    SleepMs(period - static_cast<std::uint32_t>(elapsed));
  }
}

void FileMonitor::RunAllFiles() {
  char buffer[kBufferSize] = {};
  while (!stop.load()) {
    for (std::size_t i = 0; i < fds.size(); ++i) {
      SetLoading(static_cast<std::uint32_t>(i), ReadLoading(fds[i], buffer, sizeof buffer));
      lseek(fds[i], 0, SEEK_SET);
    }
    const std::uint32_t period = GetSamplePeriod();
    if (period == 0) continue;
    SleepMs(period);
  }
}

}  // namespace kestro::zqp::monitors
