#include "monitors/ypu_monitor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "support/test_util.h"

namespace kestro::zqp {
namespace {

using test_support::CaptureStderr;
using test_support::CountThreadsNamed;
using test_support::ScopedLogLevel;
using test_support::WaitFor;

// State behind the fake library's plain function pointers. Opens and closes
// happen on the test thread; capacity queries come from the worker.
struct FakeYpu {
  unsigned int cores = 2;
  int fail_core = -1;
  int fail_status = 0;
  std::vector<unsigned int> open_masks;
  std::vector<std::uintptr_t> closed;
  // Written into *cap unless write_cap is false; quarter_busy overrides it.
  std::atomic<unsigned int> cap{64};
  std::atomic<bool> write_cap{true};
  std::atomic<bool> quarter_busy{false};
  std::atomic<unsigned int> last_cap_core{~0u};
  std::atomic<unsigned int> cap_calls{0};
};

FakeYpu* g_fake = nullptr;

constexpr std::uintptr_t kHandleBase = 0x1000;

unsigned int FakeCoreNum() {
  return g_fake->cores;
}

int FakeCoreOpen(void** handle, unsigned int mask, int flags) {
  EXPECT_EQ(flags, 0);
  g_fake->open_masks.push_back(mask);
  unsigned int core = 0;
  while (core < 32 && (mask >> core) != 1u) ++core;
  if (static_cast<int>(core) == g_fake->fail_core) return g_fake->fail_status;
  *handle = reinterpret_cast<void*>(kHandleBase + core);
  return 0;
}

int FakeCoreCap(unsigned int core, unsigned int* cap) {
  g_fake->last_cap_core.store(core);
  const unsigned int call = g_fake->cap_calls.fetch_add(1);
  if (g_fake->quarter_busy.load()) {
    *cap = call % 4 == 0 ? 0 : 64;
  } else if (g_fake->write_cap.load()) {
    *cap = g_fake->cap.load();
  }
  return -1;
}

int FakeCoreClose(void* handle) {
  g_fake->closed.push_back(reinterpret_cast<std::uintptr_t>(handle));
  return 0;
}

constexpr YpuLibrary kFakeLibrary{FakeCoreNum, FakeCoreOpen, FakeCoreCap, FakeCoreClose};

MonitorConfig YpuConfig(std::uint32_t frequency = 500, std::uint32_t delay = 1000) {
  MonitorConfig config;
  config.name = "YPU";
  config.frequency = frequency;
  config.delay = delay;
  config.files = {"/sys/devices/system/ypu/ratio"};
  return config;
}

class YpuMonitorTest : public ::testing::Test {
 protected:
  void SetUp() override { g_fake = &fake; }
  void TearDown() override { g_fake = nullptr; }

  std::unique_ptr<YPUMonitor> Make(const MonitorConfig& config = YpuConfig()) {
    return std::make_unique<YPUMonitor>(config, runner, &kFakeLibrary);
  }

  FakeYpu fake;
  std::shared_ptr<WatchTaskRunner> runner = std::make_shared<WatchTaskRunner>();
};

const std::string kOpened0 = "Start open ypu core 0\nOpen ypu core 0 success\n";
const std::string kStart1 = "Start open ypu core 1\n";
const std::string kFailed1 = "Open YPU core:1 failed, return -5\n";

struct OpenCase {
  unsigned int cores;
  bool core1_fails;  // with -5
  bool verbose;
  std::string expected_stderr;
  std::vector<unsigned int> open_masks;
  std::vector<std::uintptr_t> closed;
};

TEST_F(YpuMonitorTest, OpensCoresInOrderAndClosesEverySlot) {
  const std::uintptr_t h0 = kHandleBase, h1 = kHandleBase + 1;
  // Core 2 is never tried after core 1 fails, yet its null slot is closed too.
  const OpenCase cases[] = {
      {2, false, true, kOpened0 + kStart1 + "Open ypu core 1 success\n", {1, 2}, {h0, h1}},
      {3, true, false, kFailed1, {1, 2}, {h0, 0, 0}},
      {3, true, true, kOpened0 + kStart1 + kFailed1, {1, 2}, {h0, 0, 0}},
      {0, false, false, "", {}, {}},
      {0, false, true, "YPU get core num is zero\n", {}, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message() << c.cores << " cores, verbose " << c.verbose);
    fake.cores = c.cores;
    fake.fail_core = c.core1_fails ? 1 : -1;
    fake.fail_status = -5;
    fake.open_masks.clear();
    fake.closed.clear();
    std::unique_ptr<YPUMonitor> monitor;
    const std::string err = CaptureStderr([&] {
      ScopedLogLevel level(c.verbose ? 0 : 1);
      monitor = Make();
    });
    const bool ready = c.cores > 0 && !c.core1_fails;
    EXPECT_EQ(err, c.expected_stderr);
    EXPECT_EQ(monitor->IsReady(), ready);
    EXPECT_EQ(monitor->LoadingCount(), ready ? c.cores : 0u);
    EXPECT_EQ(fake.open_masks, c.open_masks);
    EXPECT_TRUE(fake.closed.empty());
    monitor.reset();
    EXPECT_EQ(fake.closed, c.closed);
  }
}

TEST_F(YpuMonitorTest, BusyWhileLessThanFullCapacityIsFree) {
  auto monitor = Make();
  struct CapCase {
    bool write;
    unsigned int cap;
    bool busy;
  };
  // A library that writes no capacity leaves it at zero: busy.
  const CapCase cases[] = {
      {true, 63, true}, {true, 64, false}, {true, 200, false}, {false, 200, true}};
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message() << "write " << c.write << " cap " << c.cap);
    fake.write_cap = c.write;
    fake.cap = c.cap;
    const unsigned int calls = fake.cap_calls.load();
    EXPECT_EQ(monitor->IsCoreBusy(1), c.busy);
    EXPECT_EQ(fake.cap_calls.load(), calls + 1);
    // The index, not the handle, goes to the library.
    EXPECT_EQ(fake.last_cap_core.load(), 1u);
  }
}

TEST_F(YpuMonitorTest, WorkerIsNamedAndPublishesBusyShare) {
  fake.cores = 1;
  fake.quarter_busy = true;
  // 2 ms period, 100 samples per interval: one busy sample in four.
  auto monitor = Make(YpuConfig(500, 200));
  ASSERT_TRUE(monitor->IsReady());
  EXPECT_EQ(CountThreadsNamed("YPU_loading"), 0);
  monitor->Start();
  EXPECT_EQ(CountThreadsNamed("YPU_loading"), 1);
  EXPECT_TRUE(WaitFor([&] { return monitor->GetLoading(0) != 0.0f; }));
  EXPECT_NEAR(monitor->GetLoading(0), 25.0f, 0.5f);
  monitor->Stop();
  monitor.reset();
  EXPECT_EQ(CountThreadsNamed("YPU_loading"), 0);
  EXPECT_EQ(fake.closed, std::vector<std::uintptr_t>{kHandleBase});
}

TEST(YpuLibraryTest, MissingLibraryLeavesMonitorNotReady) {
  // No accelerator library is installed on the build machines.
  EXPECT_EQ(YpuLibrary::Load(), nullptr);
  EXPECT_EQ(YpuLibrary::Load(), nullptr);
  YPUMonitor monitor(YpuConfig(), nullptr);
  EXPECT_FALSE(monitor.IsReady());
  EXPECT_EQ(monitor.LoadingCount(), 0u);
  monitor.Start();
  EXPECT_TRUE(monitor.IsStopped());
}

TEST(YpuLibraryTest, SaysOnceWhyTheLibraryIsUnusable) {
  const struct {
    const char* soname;
    const char* prefix;
  } cases[] = {
      {"libypu.so.2", "YPU library libypu.so.2 not available: libypu.so.2"},
      // Present but without the accelerator's functions.
      {"libm.so.6", "YPU library libm.so.6 lacks vz_ypu_core_num: "},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.soname);
    std::string quiet = CaptureStderr([&] { EXPECT_FALSE(OpenYpuLibrary(c.soname)); });
    EXPECT_EQ(quiet, "");
    std::string err = CaptureStderr([&] {
      ScopedLogLevel verbose(0);
      EXPECT_FALSE(OpenYpuLibrary(c.soname));
    });
    EXPECT_EQ(err.rfind(c.prefix, 0), 0u) << err;
    EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1);
    EXPECT_EQ(err.back(), '\n');
  }
}

}  // namespace
}  // namespace kestro::zqp
