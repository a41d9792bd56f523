// Loading of the neural accelerator's cores, sampled through the four
// functions of the accelerator's user library, which is loaded at run time
// (nothing links against it, so the program runs on boards without it).
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "monitor/status_monitor.h"

namespace kestro::zqp::monitors {

// The accelerator library's entry points. Every pointer is non-null in a
// table handed to YpuCoreSet or YPUMonitor.
struct YpuLibrary {
  // Number of accelerator cores.
  unsigned int (*core_num)();
  // Opens the cores of core_mask and stores the handle in *handle; 0 on
  // success, anything else is a failure status.
  int (*core_open)(void** handle, unsigned int core_mask, int flags);
  // Writes the free capacity of core (an index, not a handle) into *cap; 64 is
  // a completely idle core. The result is not used.
  int (*core_cap)(unsigned int core, unsigned int* cap);
  // Closes a handle; must accept a null handle. The result is not used.
  int (*core_close)(void* handle);

  // The table of "libypu.so.2", loaded and resolved once per process and kept
  // for its lifetime; nullptr when the library or one of its functions is
  // missing (then one verbose line says why, on the first call only).
  static const YpuLibrary* Load();
};

// dlopen(soname, RTLD_NOW | RTLD_LOCAL) and resolve the four functions, every
// call anew. On success the library stays loaded for good. On failure returns
// nullopt after one verbose line with the dlerror() text:
// "YPU library %s not available: %s\n" or "YPU library %s lacks %s: %s\n".
std::optional<YpuLibrary> OpenYpuLibrary(const char* soname);

// The opened accelerator cores. Construction opens core 0, 1, ... in order
// and stops at the first failure ("Open YPU core:%u failed, return %d\n",
// always printed), leaving opened false and the earlier cores open.
// Destruction closes every one of the core_num slots, also those never opened
// (null handle). A null library gives core_num 0, opened false and no calls.
class YpuCoreSet {
 public:
  explicit YpuCoreSet(const YpuLibrary* library);
  YpuCoreSet(const YpuCoreSet&) = delete;
  YpuCoreSet& operator=(const YpuCoreSet&) = delete;
  ~YpuCoreSet();

  std::uint32_t core_num = 0;
  // True when every core opened; also true for a library reporting 0 cores.
  bool opened = false;
  std::vector<void*> handles;

 private:
  const YpuLibrary* library;
};

// Status monitor of the accelerator ("YPU"). Ready only when the library is
// present, reports at least one core and every core opened; then it has one
// loading slot per core and one worker task. Not ready otherwise (a library
// reporting 0 cores prints "YPU get core num is zero\n" with -v).
class YPUMonitor : public monitor::StatusMonitor {
 public:
  YPUMonitor(const monitor::MonitorConfig& config,
             const std::shared_ptr<runner::WatchTaskRunner>& runner);
  // As above with a given function table instead of the loaded library
  // (nullptr: library missing). The table must outlive the monitor.
  YPUMonitor(const monitor::MonitorConfig& config,
             const std::shared_ptr<runner::WatchTaskRunner>& runner, const YpuLibrary* library);
  // Joins the worker (Stop must have been called), then closes the cores.
  ~YPUMonitor() override;

  // One capacity query: busy while less than the full 64 is free. A query
  // that writes nothing leaves 0 and counts as busy. Needs the library, so
  // only a ready monitor may be asked.
  bool IsCoreBusy(std::uint32_t core) override;

 private:
  const YpuLibrary* library;
  std::unique_ptr<YpuCoreSet> cores;
};

}  // namespace kestro::zqp::monitors
