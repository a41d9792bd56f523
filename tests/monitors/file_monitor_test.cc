#include "monitors/file_monitor.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "base/board_path.h"
#include "monitors/value_readers.h"
#include "support/test_util.h"

namespace kestro::zqp {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using test_support::BoardRoot;
using test_support::CaptureStderr;
using test_support::CountThreadsNamed;
using test_support::ScopedLogLevel;
using test_support::WaitFor;

constexpr const char* kGdc0 = "/sys/devices/virtual/vps/flow/gdc0_src/loading";
constexpr const char* kGdc1 = "/sys/devices/virtual/vps/flow/gdc1_src/loading";
constexpr const char* kJpu0 = "/sys/kernel/debug/jpu/loading";
constexpr const char* kJpu1 = "/sys/kernel/debug/jpu1/loading";

// A vps flow engine (one task per file, sample time written) or JPU.
MonitorConfig Config(std::vector<std::string> files, std::uint32_t delay = 1000,
                     bool write_sample_time = true, const char* name = "GDC") {
  const bool per_file = name != std::string("JPU");
  return MonitorConfig{name, 500, delay, per_file, write_sample_time, false, std::move(files)};
}

std::unique_ptr<FileMonitor> Make(const MonitorConfig& config,
                                  FileMonitor::Reader reader = ReadSecondToken) {
  return std::make_unique<FileMonitor>(config, nullptr, std::move(reader));
}

TEST(FileMonitorTest, WritesTheClampedSamplePeriodOnce) {
  const struct {
    std::uint32_t delay;
    std::uint32_t period;
    const char* digits;
  } cases[] = {{5000, 3000, "3000"}, {3000, 3000, "3000"}, {100, 100, "100"}, {0, 0, "0"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.delay);
    BoardRoot tree;
    tree.WriteFile(kGdc0, "");
    tree.WriteFile(kGdc1, "gdc1 55.5 %\n");
    {
      auto writing = Make(Config({kGdc0, kGdc1}, c.delay));
      EXPECT_TRUE(writing->IsReady());
      EXPECT_EQ(writing->GetSamplePeriod(), c.period);
    }
    // Digits only, at the start of the file, no newline or terminator.
    EXPECT_EQ(tree.ReadFile(kGdc0), c.digits);
    EXPECT_EQ(tree.ReadFile(kGdc1),
              c.digits + std::string("gdc1 55.5 %\n").substr(strlen(c.digits)));
  }
}

TEST(FileMonitorTest, RefusedSampleTimeIsReportedAndFileStillUsed) {
  BoardRoot tree;
  std::filesystem::create_directories(std::filesystem::path(BoardPath(kGdc0)).parent_path());
  std::filesystem::create_symlink("/dev/full", BoardPath(kGdc0));
  std::unique_ptr<FileMonitor> monitor;
  const std::string err = CaptureStderr([&] {
    ScopedLogLevel verbose(0);
    monitor = Make(Config({kGdc0}, 700));
  });
  EXPECT_EQ(err, std::string("Set sample time 700 for ") + kGdc0 + " failed, use default value\n");
  EXPECT_TRUE(monitor->IsReady());
}

TEST(FileMonitorTest, NotReadyWithoutAnOpenedFile) {
  const std::string gdc0_missing = std::string("GDC0 loading node not exist,") + kGdc0 + "\n";
  const std::string gdc1_missing = std::string("GDC1 loading node not exist,") + kGdc1 + "\n";
  const struct {
    const char* label;
    std::vector<std::string> files;
    bool verbose;
    std::string expected;
  } cases[] = {
      {"no files quiet", {}, false, ""},
      {"no files verbose", {}, true, "No loading node found for GDC\n"},
      {"all missing quiet", {kGdc0, kGdc1}, false, ""},
      {"all missing verbose", {kGdc0, kGdc1}, true, gdc0_missing + gdc1_missing},
      // An empty path is skipped without a word.
      {"empty path verbose", {"", kGdc1}, true, gdc1_missing},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    BoardRoot tree;
    std::unique_ptr<FileMonitor> monitor;
    const std::string err = CaptureStderr([&] {
      ScopedLogLevel level(c.verbose ? 0 : 1);
      monitor = Make(Config(c.files));
    });
    EXPECT_EQ(err, c.expected);
    EXPECT_FALSE(monitor->IsReady());
    EXPECT_EQ(monitor->LoadingCount(), c.files.size());
    monitor->Start();
    EXPECT_TRUE(monitor->IsStopped());
  }
}

TEST(FileMonitorTest, JpuWithOnlyTheFirstFileRunsOneThreadForBoth) {
  BoardRoot tree;
  tree.WriteFile(kJpu0, "42.5\n");
  std::unique_ptr<FileMonitor> monitor;
  const std::string err = CaptureStderr([&] {
    ScopedLogLevel verbose(0);
    monitor = Make(Config({kJpu0, kJpu1}, 200, false, "JPU"), ReadPlainNumber);
  });
  EXPECT_EQ(err, "JPU1 loading node not exist,/sys/kernel/debug/jpu1/loading\n");
  ASSERT_TRUE(monitor->IsReady());
  ASSERT_EQ(monitor->LoadingCount(), 2u);
  // Opened read-only: nothing is written into the file.
  EXPECT_EQ(tree.ReadFile(kJpu0), "42.5\n");
  monitor->Start();
  EXPECT_EQ(CountThreadsNamed("JPU_loading"), 1);
  EXPECT_TRUE(WaitFor([&] { return monitor->GetLoading(0) == 42.5f; }));
  tree.WriteFile(kJpu0, "7\n");
  EXPECT_TRUE(WaitFor([&] { return monitor->GetLoading(0) == 7.0f; }));
  EXPECT_EQ(monitor->GetLoading(1), 0.0f);

  // The stop flag is seen after the current sleep of one period.
  const auto stop_at = steady_clock::now();
  monitor->Stop();
  monitor.reset();
  EXPECT_LT(steady_clock::now() - stop_at, milliseconds(200 + 800));
  EXPECT_EQ(CountThreadsNamed("JPU_loading"), 0);
}

// Records when the worker got each text; one worker calls it.
struct ReadLog {
  std::array<std::atomic<std::int64_t>, 16> at_ms{};
  std::atomic<int> calls{0};

  static std::int64_t NowMs() {
    return std::chrono::duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
  }
  FileMonitor::Reader Reader() {
    return [this](float& value, const char* text) {
      const int n = calls.load();
      if (n < static_cast<int>(at_ms.size())) at_ms[n].store(NowMs());
      calls.store(n + 1);
      return ReadSecondToken(value, text);
    };
  }
};

TEST(FileMonitorTest, TimeSpentBlockedInTheReadCountsAgainstThePeriod) {
  const struct {
    int block_ms;
    std::int64_t min_gap_ms;
    std::int64_t max_gap_ms;
  } cases[] = {{900, 60, 500}, {1200, 0, 300}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.block_ms);
    BoardRoot tree;
    tree.WriteFile(kGdc0, "");
    std::filesystem::remove(BoardPath(kGdc0));
    ASSERT_EQ(mkfifo(BoardPath(kGdc0).c_str(), 0600), 0);
    // Holding both ends lets the monitor's read-only open return at once.
    const int fifo = open(BoardPath(kGdc0).c_str(), O_RDWR);
    ASSERT_GE(fifo, 0);
    ASSERT_EQ(write(fifo, "a 1 %", 5), 5);

    ReadLog log;
    auto monitor = Make(Config({kGdc0}, 1000, false), log.Reader());
    ASSERT_TRUE(monitor->IsReady());
    monitor->Start();
    std::thread writer([&] {
      if (!WaitFor([&] { return log.calls.load() >= 1; })) return;
      // The second cycle starts a period after the first read and blocks
      // until this text arrives.
      std::this_thread::sleep_until(steady_clock::time_point(milliseconds(log.at_ms[0].load())) +
                                    milliseconds(1000 + c.block_ms));
      EXPECT_EQ(write(fifo, "b 2 %", 5), 5);
      if (!WaitFor([&] { return log.calls.load() >= 2; })) return;
      EXPECT_EQ(write(fifo, "c 3 %", 5), 5);
    });
    const bool third_read = WaitFor([&] { return log.calls.load() >= 3; });
    writer.join();
    ASSERT_TRUE(third_read);
    const std::int64_t gap = log.at_ms[2].load() - log.at_ms[1].load();
    EXPECT_GE(gap, c.min_gap_ms);
    EXPECT_LT(gap, c.max_gap_ms);
    EXPECT_EQ(monitor->GetLoading(0), 3.0f);

    const auto stop_at = steady_clock::now();
    monitor->Stop();
    // In case the worker is already waiting in the next read.
    EXPECT_EQ(write(fifo, "d 4 %", 5), 5);
    monitor.reset();
    EXPECT_LT(steady_clock::now() - stop_at, milliseconds(1000 + 600));
    close(fifo);
  }
}

}  // namespace
}  // namespace kestro::zqp
