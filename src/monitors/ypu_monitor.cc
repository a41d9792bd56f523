#include "monitors/ypu_monitor.h"

#include <dlfcn.h>

#include "base/log.h"
#include "base/shared_library.h"

namespace kestro::zqp::monitors {
namespace {

constexpr const char* kYpuLibraryName = "libypu.so.2";
// Free capacity of a core with nothing running on it.
constexpr unsigned int kIdleCapacity = 64;

template <typename Function>
bool Resolve(void* handle, const char* soname, const char* symbol, Function& out) {
  std::string why;
  if (base::ResolveSymbol(handle, symbol, out, why)) return true;
  base::LogVerbose("YPU library %s lacks %s: %s\n", soname, symbol, why.c_str());
  return false;
}

}  // namespace

std::optional<YpuLibrary> OpenYpuLibrary(const char* soname) {
  void* handle = dlopen(soname, RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) {
    const char* why = dlerror();
    base::LogVerbose("YPU library %s not available: %s\n", soname,
                     why != nullptr ? why : "unknown");
    return std::nullopt;
  }
  YpuLibrary library{};
  if (!Resolve(handle, soname, "vz_ypu_core_num", library.core_num) ||
      !Resolve(handle, soname, "vz_ypu_core_open", library.core_open) ||
      !Resolve(handle, soname, "vz_ypu_core_cap", library.core_cap) ||
      !Resolve(handle, soname, "vz_ypu_core_close", library.core_close)) {
    dlclose(handle);
    return std::nullopt;
  }
  // Never closed: the functions are used until the process ends.
  return library;
}

const YpuLibrary* YpuLibrary::Load() {
  static const std::optional<YpuLibrary> library = OpenYpuLibrary(kYpuLibraryName);
  return library ? &*library : nullptr;
}

YpuCoreSet::YpuCoreSet(const YpuLibrary* library_in) : library(library_in) {
  if (library == nullptr) return;
  core_num = library->core_num();
  handles.assign(core_num, nullptr);
  for (std::uint32_t i = 0; i < core_num; ++i) {
    base::LogVerbose("Start open ypu core %u\n", i);
    const int status = library->core_open(&handles[i], 1u << (i % 32), 0);
    if (status != 0) {
      base::LogError("Open YPU core:%u failed, return %d\n", i, status);
      return;
    }
    base::LogVerbose("Open ypu core %u success\n", i);
  }
  opened = true;
}

YpuCoreSet::~YpuCoreSet() {
  // Also the slots behind a failed open, whose handle is still null: the
  // library accepts that, and this keeps the release independent of where
  // the opening stopped.
  for (std::uint32_t i = 0; i < core_num; ++i) library->core_close(handles[i]);
}

YPUMonitor::YPUMonitor(const monitor::MonitorConfig& config,
                       const std::shared_ptr<runner::WatchTaskRunner>& runner)
    : YPUMonitor(config, runner, YpuLibrary::Load()) {}

YPUMonitor::YPUMonitor(const monitor::MonitorConfig& config,
                       const std::shared_ptr<runner::WatchTaskRunner>& runner,
                       const YpuLibrary* library_in)
    : monitor::StatusMonitor(config, runner), library(library_in) {
  cores = std::make_unique<YpuCoreSet>(library);
  if (!cores->opened) return;
  if (cores->core_num == 0) {
    base::LogVerbose("YPU get core num is zero\n");
    return;
  }
  SetLoadingNum(cores->core_num);
  SetTasks({[this] { Run(); }});
  ready.store(true);
}

YPUMonitor::~YPUMonitor() {
  // The worker queries the cores; it must be gone before they are closed.
  JoinThreads();
  cores.reset();
}

bool YPUMonitor::IsCoreBusy(std::uint32_t core) {
  unsigned int cap = 0;
  library->core_cap(core, &cap);
  return cap < kIdleCapacity;
}

}  // namespace kestro::zqp::monitors
