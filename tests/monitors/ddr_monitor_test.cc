#include "monitors/ddr_monitor.h"

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <tuple>

#include <gtest/gtest.h>

#include "support/test_util.h"

namespace kestro::zqp::monitors {
namespace {

using test_support::CaptureStderr;
using Result = DdrLineResult;

monitor::MonitorConfig DdrConfig(bool batch) {
  return monitor::MonitorConfig{.name = "DDR", .batch = batch};
}

// A fake tool first on PATH. The port choice is cached by the first monitor
// of the process: settled on a board with neither file, every command is "ypu".
class DdrTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    test_support::BoardRoot empty_board;
    ASSERT_FALSE(DDRMonitor::UseFirstYpuPort(false));
  }
  void SetUp() override { setenv("PATH", (bin_.Path() + ":" + saved_path_).c_str(), 1); }
  void TearDown() override { setenv("PATH", saved_path_.c_str(), 1); }
  void InstallTool(const std::string& body) {
    bin_.WriteFile("plox_ddr", "#!/bin/sh\n" + body);
    std::filesystem::permissions(bin_.Path() + "/plox_ddr", std::filesystem::perms::owner_all);
  }

  test_support::TempTree bin_;
  const std::string saved_path_ = std::getenv("PATH") ? std::getenv("PATH") : "/usr/bin:/bin";
};

TEST_F(DdrTest, SocNameThenCoreNumChooseThePortAndOnlyBatchPrintsWhy) {
  const std::string no_soc = "Get board info failed, error:No such file or directory\n\n";
  const std::string no_cores = "Get ypu core num failed, error:No such file or directory\n\n";
  // soc_name, core_num (nullptr: no file), batch, first port, stderr.
  const std::tuple<const char*, const char*, bool, bool, std::string> cases[] = {
      {"K4X2000\n", nullptr, false, true, ""}, {"K4x1\n", "4\n", true, false, ""},
      {nullptr, "4\n", true, true, no_soc},    {nullptr, "40\n", false, false, ""},
      {nullptr, nullptr, false, false, ""},    {nullptr, nullptr, true, false, no_soc + no_cores}};
  for (const auto& [soc, cores, batch, first_port, message] : cases) {
    test_support::BoardRoot board;
    if (soc != nullptr) board.WriteFile("/sys/class/boardinfo/soc_name", soc);
    if (cores != nullptr) board.WriteFile("/sys/devices/system/ypu/core_num", cores);
    bool chosen = !first_port;
    // Named captures: clang 14 cannot capture structured bindings implicitly.
    EXPECT_EQ(CaptureStderr([&, batch = batch] { chosen = ChooseFirstYpuPort(batch); }), message);
    EXPECT_EQ(chosen, first_port) << (soc ? soc : "-") << (cores ? cores : "-");
  }
}

TEST_F(DdrTest, OnlyTheLastFieldOfReadAndWriteRowsIsStoredAndBadOnesAreTold) {
  DDRMonitor monitor(DdrConfig(true));
  test_support::ScopedLogLevel verbose(0);
  EXPECT_EQ(monitor.ParseLine("Write | x | 300\r\n"), Result::kWrite);
  EXPECT_EQ(monitor.ParseLine("Read|a|b|c|7\n"), Result::kRead);
  // None of these figures may be stored.
  for (const char* line :
       {"Read|250\r\n", " | Read | ypu | 250\r\n", "-Read|x|5\r\n", "Reads|x|5", "read|x|5", ""}) {
    EXPECT_EQ(monitor.ParseLine(line), Result::kIgnored) << line;
  }
  std::string expected;
  const std::string err = CaptureStderr([&] {
    for (const char* line : {"Read|x|25.5\r\n", "| Write | x | 250 |\r\n", "Read|x|-5",
                             "Write|x|18446744073709551616\n"}) {
      EXPECT_EQ(monitor.ParseLine(line), Result::kInvalid) << line;
      expected += "Invalid data format, get: " + std::string(line) + "\n";
    }
  });
  EXPECT_EQ(err, expected);
  EXPECT_EQ(monitor.ReadBandwidth(), 7u);
  EXPECT_EQ(monitor.WriteBandwidth(), 300u);
}

// Lines come through the terminal, which ends them with "\r\n".
TEST_F(DdrTest, ExitStatusOfTheToolDecidesReadyAndOnlyVerboseBatchTellsWhatWentWrong) {
  const std::string invalid = "Invalid data format, get: Write | all | 9.5\r\n\n";
  const std::string failed =
      "Run command:plox_ddr -t ypu -p 100000 -n 2  failed, exit status:3, please check the "
      "previous log\n";
  // Exit status, batch, log level, stderr.
  const std::tuple<int, bool, int, std::string> cases[] = {
      {0, true, 0, invalid}, {3, true, 0, invalid + failed}, {3, true, 1, ""}, {3, false, 0, ""}};
  for (const auto& [status, batch, level, message] : cases) {
    InstallTool("echo 'Read | all | 9'\necho 'Write | all | 9.5'\nexit " + std::to_string(status));
    test_support::ScopedLogLevel log_level(level);
    DDRMonitor monitor(DdrConfig(batch));
    EXPECT_EQ(CaptureStderr([&] {
                monitor.Start();
                monitor.JoinThreads();
              }),
              message);
    EXPECT_EQ(monitor.IsReady(), status == 0);
  }
}

// The tool's lines are cut as fgets into a 511-byte size cut them: 510 dashes
// make one ignored line and the row after them another; a NUL ends a line.
TEST_F(DdrTest, LinesAreCutAfter510CharactersAndEndAtANul) {
  InstallTool("printf '%510s' '' | tr ' ' -\nprintf 'Read|x|5\\r\\nWrite|x|7\\000|y|9\\n'\n");
  DDRMonitor monitor(DdrConfig(true));
  monitor.Start();
  monitor.JoinThreads();
  EXPECT_EQ(monitor.ReadBandwidth(), 5u);
  EXPECT_EQ(monitor.WriteBandwidth(), 7u);
}

// Rounds 0-7 stop at any stage of the start, mostly before the tool takes its
// terminal; 8 and 9 a tool that prints nothing more, 9 by destroying the
// monitor. The tool's own child holds the terminal too, so the reader finishes
// only once the hang-up has ended both.
TEST_F(DdrTest, StopAndDestructionHangUpASilentToolWithoutLeaksOrFailure) {
  InstallTool("echo \"Read | all | $$\"\nsleep 60\nexit 5\n");
  test_support::ScopedLogLevel verbose(0);
  const int descriptors_before = test_support::CountOpenFds();
  auto monitor = std::make_unique<DDRMonitor>(DdrConfig(true));
  const std::string err = CaptureStderr([&] {
    for (int round = 0; round < 10; ++round) {
      const std::uint64_t previous_tool = monitor->ReadBandwidth();
      monitor->Start();
      std::this_thread::sleep_for(std::chrono::milliseconds(round % 2 * round));
      EXPECT_TRUE(round < 8 ||
                  test_support::WaitFor([&] { return monitor->ReadBandwidth() != previous_tool; }));
      if (round < 9) monitor->Stop();
      auto ended = std::async(std::launch::async,
                              [&] { round < 9 ? monitor->JoinThreads() : monitor.reset(); });
      ASSERT_EQ(ended.wait_for(std::chrono::seconds(20)), std::future_status::ready) << round;
      EXPECT_TRUE(round == 9 || monitor->IsReady()) << round;
    }
  });
  EXPECT_EQ(err, "");
  EXPECT_EQ(test_support::CountOpenFds(), descriptors_before);
}

}  // namespace
}  // namespace kestro::zqp::monitors
