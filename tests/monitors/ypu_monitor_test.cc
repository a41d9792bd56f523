#include "monitors/ypu_monitor.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "support/test_util.h"

namespace kestro::zqp::monitors {
namespace {

using test_support::CaptureStderr;
using test_support::ScopedLogLevel;

// The fake library's state: the handle of the core opened with mask m is the
// address m; opens and closes are logged. The capacity query of core k writes
// kCaps[k], or nothing.
constexpr unsigned int kWriteNothing = ~0u;
constexpr unsigned int kCaps[] = {63, 64, kWriteNothing};
struct {
  unsigned int cores, failing_mask;  // the failing open returns 5
  std::string calls;
} g_fake;

const YpuLibrary kFake{
    [] { return g_fake.cores; },
    [](void** handle, unsigned int mask, int flags) {
      g_fake.calls += "open " + std::to_string(mask) + "," + std::to_string(flags) + ";";
      if (mask == g_fake.failing_mask) return 5;
      *handle = reinterpret_cast<void*>(std::uintptr_t{mask});
      return 0;
    },
    [](unsigned int core, unsigned int* cap) {
      if (kCaps[core] != kWriteNothing) *cap = kCaps[core];
      return -1;
    },
    [](void* handle) {
      g_fake.calls += "close " + std::to_string(reinterpret_cast<std::uintptr_t>(handle)) + ";";
      return 0;
    }};

TEST(YpuMonitorTest, OpensCoresInOrderStopsAtAFailureClosesEverySlotAndAsksByIndex) {
  const std::string fail = "Open YPU core:1 failed, return 5\n";
  const std::string try01 =
      "Start open ypu core 0\nOpen ypu core 0 success\nStart open ypu core 1\n";
  const struct {
    unsigned int cores, failing_mask;
    std::string verbose_stderr, quiet_stderr, calls;
  } cases[] = {
      {2, 0, try01 + "Open ypu core 1 success\n", "", "open 1,0;open 2,0;close 1;close 2;"},
      // Core 2 is never tried, yet its null slot is closed too.
      {3, 2, try01 + fail, fail, "open 1,0;open 2,0;close 1;close 0;close 0;"},
      {0, 0, "YPU get core num is zero\n", "", ""},
  };
  for (const auto& c : cases) {
    for (const int level : {0, 1}) {
      SCOPED_TRACE(::testing::Message() << c.cores << " cores, log level " << level);
      g_fake = {c.cores, c.failing_mask, ""};
      const std::string err = CaptureStderr([&] {
        ScopedLogLevel scoped(level);
        YPUMonitor monitor({"YPU", 500, 1000, false, false, false, {}}, nullptr, &kFake);
        EXPECT_EQ(monitor.IsReady(), c.cores == 2);  // only the case where every core opens
        EXPECT_EQ(monitor.LoadingCount(), monitor.IsReady() ? c.cores : 0u);
        // Busy while less than the full 64 is free; writing nothing leaves 0.
        EXPECT_EQ(
            (std::vector{monitor.IsCoreBusy(0), monitor.IsCoreBusy(1), monitor.IsCoreBusy(2)}),
            (std::vector{true, false, true}));
      });
      EXPECT_EQ(err, level == 0 ? c.verbose_stderr : c.quiet_stderr);
      EXPECT_EQ(g_fake.calls, c.calls);
    }
  }
}

TEST(YpuLibraryTest, MissingOrIncompleteLibrarySaysWhyOnlyWithVerbose) {
  // No accelerator library is installed where the tests run.
  for (const auto& [soname, prefix] :
       {std::pair{"libypu.so.2", "YPU library libypu.so.2 not available: libypu.so.2"},
        {"libm.so.6", "YPU library libm.so.6 lacks vz_ypu_core_num: "}}) {
    // Named captures: clang 14 cannot capture structured bindings implicitly.
    EXPECT_EQ(CaptureStderr([soname = soname] { EXPECT_FALSE(OpenYpuLibrary(soname)); }), "");
    ScopedLogLevel verbose(0);
    const std::string err =
        CaptureStderr([soname = soname] { EXPECT_FALSE(OpenYpuLibrary(soname)); });
    EXPECT_EQ(err.rfind(prefix, 0), 0u) << err;
    EXPECT_EQ(err.find('\n'), err.size() - 1) << err;  // one line
  }
}

}  // namespace
}  // namespace kestro::zqp::monitors
