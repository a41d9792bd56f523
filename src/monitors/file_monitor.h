// Loading of the engines whose drivers publish it as a small text file per
// core or channel. Each file is opened once and re-read from the top every
// sample period; the value parsed from it is published unchanged in the
// loading slot of the same index.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "monitor/monitor_base.h"

namespace kestro::zqp::monitors {

class FileMonitor : public monitor::MonitorBase {
 public:
  // Given a file's text, stores the value and returns the number of values
  // converted; only 1 is accepted. Called from several workers at once, so it
  // must hold no shared state.
  using Reader = std::function<long(float&, const char*)>;

  // Opens every file of config (logical board paths; read-write and primed
  // with the sample period when config.write_sample_time is set), sizes one
  // loading slot per file and installs the workers: one per opened file with
  // config.task_per_file, else one for all files. Not ready, with no tasks,
  // when config has no files ("No loading node found for %s\n" with -v) or
  // none of them opens (per file "%s%u loading node not exist,%s\n" with -v).
  FileMonitor(const monitor::MonitorConfig& config,
              const std::shared_ptr<runner::WatchTaskRunner>& runner, Reader reader);
  // Joins the workers (Stop must have been called), then closes every
  // descriptor greater than 0.
  ~FileMonitor() override;

  // config.delay clamped to at most 3000 ms.
  std::uint32_t GetSamplePeriod() override { return sample_period; }

  // One read of at most size - 1 bytes into buffer, whose last byte the caller
  // keeps 0, then the reader. 0.0 when nothing was read (end of file, error,
  // descriptor -1) or the reader does not return 1. Throws
  // std::bad_function_call when the reader is empty.
  float ReadLoading(int fd, char* buffer, std::size_t size);

 private:
  void RunOneFile(std::size_t index);
  void RunAllFiles();

  // One per configured file, -1 for a file that was not opened.
  std::vector<int> fds;
  Reader reader;
  std::uint32_t sample_period;
};

}  // namespace kestro::zqp::monitors
