#include "monitors/file_monitor.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <tuple>

#include "base/board_path.h"
#include "monitors/value_readers.h"
#include "support/test_util.h"

namespace kestro::zqp::monitors {
namespace {

using std::chrono::milliseconds;

// GDC: one worker per file, sample period written; JPU: one worker, nothing written.
auto Make(std::vector<std::string> files, std::uint32_t delay, const std::string& name = "GDC",
          FileMonitor::Reader reader = ReadSecondToken) {
  const bool gdc = name == "GDC";
  return std::make_unique<FileMonitor>(monitor::MonitorConfig{.name = name,
                                                              .frequency = 500,
                                                              .delay = delay,
                                                              .task_per_file = gdc,
                                                              .write_sample_time = gdc,
                                                              .files = std::move(files)},
                                       nullptr, reader);
}

TEST(FileMonitorTest, WritesThePeriodClampedTo3sAsBareDigitsOverTheFilesStartAndClosesIt) {
  for (const auto& [delay, period, text] :
       {std::tuple{5000u, 3000u, "3000 55.5 %\n"}, std::tuple{100u, 100u, "1001 55.5 %\n"}}) {
    test_support::BoardRoot tree;
    tree.WriteFile("/loading", "gdc1 55.5 %\n");
    const int descriptors_before = test_support::CountOpenFds();
    EXPECT_EQ(Make({"/loading"}, delay)->GetSamplePeriod(), period);
    EXPECT_EQ(test_support::CountOpenFds(), descriptors_before);
    EXPECT_EQ(tree.ReadFile("/loading"), text);
  }
}

// "/full" refuses the sample period (it is /dev/full); "/missing" does not exist.
TEST(FileMonitorTest, RunsOneWorkerPerOpenedFileOrOneForAllAndTellsWhyUnderVerbose) {
  const std::string refused = "Set sample time 100 for /full failed, use default value\n";
  const std::string missing = "GDC1 loading node not exist,/missing\n";
  // Engine, files, -v, stderr, workers once started (0: not ready).
  const std::tuple<std::string, std::vector<std::string>, bool, std::string, int> cases[] = {
      {"GDC", {}, true, "No loading node found for GDC\n", 0},
      {"GDC", {"", "/missing"}, true, missing, 0},
      {"GDC", {"/full", "/missing"}, true, refused + missing, 1},
      {"GDC", {"/full", "/missing"}, false, "", 1},
      {"JPU", {"/full", "/full"}, true, "", 1}};
  for (const auto& [name, files, verbose, message, workers] : cases) {
    test_support::BoardRoot tree;
    ASSERT_EQ(symlink("/dev/full", base::BoardPath("/full").c_str()), 0);
    std::unique_ptr<FileMonitor> monitor;
    test_support::ScopedLogLevel level(verbose ? 0 : 1);
    EXPECT_EQ(test_support::CaptureStderr(
                  // Named captures: clang 14 cannot capture structured bindings implicitly.
                  [&, &files = files, &name = name] { monitor = Make(files, 100, name); }),
              message);
    monitor->Start();
    // Polled: the previous case's joined workers can stay listed for a moment.
    EXPECT_TRUE(test_support::WaitFor([&, &name = name, workers = workers] {
      return test_support::CountThreadsNamed(name + "_loading") == workers;
    })) << message;
    monitor->Stop();
  }
}

// The driver's read blocks until its next figure; a 1000 ms period counts from
// the start of the read, so after 900 ms blocked the next read follows 100 ms
// after this one returned, and at once after 1200 ms.
TEST(FileMonitorTest, TimeBlockedInTheReadCountsAgainstThePeriod) {
  for (const auto& [block, least, most] : {std::tuple{900, 30, 500}, std::tuple{1200, 0, 300}}) {
    test_support::BoardRoot tree;
    ASSERT_EQ(mkfifo(base::BoardPath("/loading").c_str(), 0600), 0);
    // Holding both ends lets the monitor's open return at once.
    const int fifo = open(base::BoardPath("/loading").c_str(), O_RDWR);
    std::atomic<std::chrono::steady_clock::time_point> read_at[3];
    std::atomic<int> reads = 0;
    // The first read takes the period that the monitor wrote.
    auto monitor = Make({"/loading"}, 1000, "GDC", [&](float& value, const char* text) {
      if (reads < 3) read_at[reads].store(std::chrono::steady_clock::now());
      ++reads;
      return ReadSecondToken(value, text);
    });
    monitor->Start();
    ASSERT_TRUE(test_support::WaitFor([&] { return reads >= 1; }));
    std::this_thread::sleep_until(read_at[0].load() + milliseconds(1000 + block));
    ASSERT_EQ(write(fifo, "b 2 %", 5), 5);
    ASSERT_TRUE(test_support::WaitFor([&] { return reads >= 2; }));
    ASSERT_EQ(write(fifo, "c 3 %", 5), 5);
    ASSERT_TRUE(test_support::WaitFor([&] { return reads >= 3; }));
    EXPECT_GE(read_at[2].load() - read_at[1].load(), milliseconds(least));
    EXPECT_LT(read_at[2].load() - read_at[1].load(), milliseconds(most));
    monitor->Stop();
    ASSERT_EQ(write(fifo, "d", 1), 1);  // for a worker already in its next read
    close(fifo);
  }
}

}  // namespace
}  // namespace kestro::zqp::monitors
