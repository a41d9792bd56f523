#include "monitors/ypu_monitor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "test_util.h"

namespace kestro::zqp {
namespace {

using testing::CaptureStderr;
using testing::CountThreadsNamed;
using testing::VerboseScope;
using testing::WaitFor;

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

struct OpenCase {
  const char* label;
  unsigned int cores;
  int fail_core;
  int fail_status;
  bool verbose;
  const char* expected_stderr;
  bool ready;
  std::vector<unsigned int> open_masks;
  std::vector<std::uintptr_t> closed;
};

TEST_F(YpuMonitorTest, OpensCoresInOrderAndClosesEverySlot) {
  const std::uintptr_t h0 = kHandleBase, h1 = kHandleBase + 1;
  const std::vector<OpenCase> cases = {
      {"two cores verbose",
       2,
       -1,
       0,
       true,
       "Start open ypu core 0\nOpen ypu core 0 success\n"
       "Start open ypu core 1\nOpen ypu core 1 success\n",
       true,
       {1, 2},
       {h0, h1}},
      // Core 2 is never tried, yet its null slot is closed like the others.
      {"core 1 of 3 fails quiet",
       3,
       1,
       -5,
       false,
       "Open YPU core:1 failed, return -5\n",
       false,
       {1, 2},
       {h0, 0, 0}},
      {"core 1 of 3 fails verbose",
       3,
       1,
       -5,
       true,
       "Start open ypu core 0\nOpen ypu core 0 success\n"
       "Start open ypu core 1\nOpen YPU core:1 failed, return -5\n",
       false,
       {1, 2},
       {h0, 0, 0}},
      {"zero cores quiet", 0, -1, 0, false, "", false, {}, {}},
      {"zero cores verbose", 0, -1, 0, true, "YPU get core num is zero\n", false, {}, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    fake.cores = c.cores;
    fake.fail_core = c.fail_core;
    fake.fail_status = c.fail_status;
    fake.open_masks.clear();
    fake.closed.clear();
    bool ready = false;
    std::size_t slots = 0;
    std::unique_ptr<YPUMonitor> monitor;
    const std::string err = CaptureStderr([&] {
      std::unique_ptr<VerboseScope> verbose;
      if (c.verbose) verbose = std::make_unique<VerboseScope>();
      monitor = Make();
      ready = monitor->IsReady();
      slots = monitor->LoadingCount();
    });
    EXPECT_EQ(err, c.expected_stderr);
    EXPECT_EQ(ready, c.ready);
    EXPECT_EQ(slots, c.ready ? c.cores : 0u);
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
  const CapCase cases[] = {{true, 0, true},   {true, 63, true},   {true, 64, false},
                           {true, 65, false}, {true, 200, false}, {false, 200, true}};
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
      VerboseScope verbose;
      EXPECT_FALSE(OpenYpuLibrary(c.soname));
    });
    EXPECT_EQ(err.rfind(c.prefix, 0), 0u) << err;
    EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1);
    EXPECT_EQ(err.back(), '\n');
  }
}

}  // namespace
}  // namespace kestro::zqp
