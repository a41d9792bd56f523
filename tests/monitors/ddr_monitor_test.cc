#include "monitors/ddr_monitor.h"

#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <random>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "support/test_util.h"

namespace kestro::zqp {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using test_support::BoardRoot;
using test_support::CaptureStderr;
using test_support::CountOpenFds;
using test_support::ScopedLogLevel;
using test_support::TempTree;
using test_support::WaitFor;

// True when the process is gone or a zombie: a script that the shell started
// as its own child is reaped by whichever process inherits it, maybe late.
bool HasEnded(pid_t pid) {
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string text;
  if (!std::getline(stat, text)) return true;
  const std::size_t paren = text.rfind(") ");
  return paren != std::string::npos && paren + 2 < text.size() && text[paren + 2] == 'Z';
}

MonitorConfig DdrConfig(bool batch) {
  MonitorConfig config;
  config.name = "DDR";
  config.batch = batch;
  return config;
}

// The port choice is cached per process by the first monitor. Settling it on
// a board with neither file makes every command in these tests use "ypu",
// whatever machine runs them.
void SettlePortChoice() {
  static const bool settled = [] {
    BoardRoot empty_board;
    return DDRMonitor::UseFirstYpuPort(false);
  }();
  ASSERT_FALSE(settled);
}

TEST(DdrCommandTest, EndsInOneBlankAndVariesOnlyInThePort) {
  EXPECT_EQ(BuildDdrCommand(false), "plox_ddr -t ypu -p 100000 -n 2 ");
  EXPECT_EQ(BuildDdrCommand(true), "plox_ddr -t ypu_p0 -p 100000 -n 2 ");
}

TEST(PortChoiceTest, SocNameThenCoreNumDecideAndBatchGatesTheMessages) {
  const std::string no_soc = "Get board info failed, error:No such file or directory\n\n";
  const std::string no_cores = "Get ypu core num failed, error:No such file or directory\n\n";
  const struct {
    const char* soc;    // nullptr: no file
    const char* cores;  // nullptr: no file
    bool batch;
    bool first_port;
    std::string message;
  } cases[] = {
      // A name starting with the family, in any case, decides alone.
      {"K4X2000\n", nullptr, false, true, ""},
      {"k4x\n", nullptr, true, true, ""},
      {"K4X", nullptr, false, true, ""},
      // Any other name gives the shared port even with four cores.
      {"A1000\n", "4\n", true, false, ""},
      {"K4x1\n", "4\n", true, false, ""},
      {" K4X\n", "4\n", true, false, ""},
      {"\nK4X\n", "4\n", true, false, ""},
      {"", "4\n", true, false, ""},
      // Without the name, exactly "4" on the first line of core_num.
      {nullptr, "4\n", true, true, no_soc},
      {nullptr, "4", false, true, ""},
      {nullptr, "4\n2\n", false, true, ""},
      {nullptr, "2\n", false, false, ""},
      {nullptr, "40\n", false, false, ""},
      {nullptr, "4 \n", false, false, ""},
      {nullptr, " 4\n", false, false, ""},
      {nullptr, "4\r\n", false, false, ""},
      {nullptr, "", false, false, ""},
      {nullptr, "\n4\n", false, false, ""},
      {nullptr, nullptr, true, false, no_soc + no_cores},
      {nullptr, nullptr, false, false, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message() << "soc '" << (c.soc ? c.soc : "(none)") << "' cores '"
                                      << (c.cores ? c.cores : "(none)") << "' batch " << c.batch);
    BoardRoot board;
    if (c.soc != nullptr) board.WriteFile("/sys/class/boardinfo/soc_name", c.soc);
    if (c.cores != nullptr) board.WriteFile("/sys/devices/system/ypu/core_num", c.cores);
    bool first_port = !c.first_port;
    EXPECT_EQ(CaptureStderr([&] { first_port = ChooseFirstYpuPort(c.batch); }), c.message);
    EXPECT_EQ(first_port, c.first_port);
  }
}

class DdrParserTest : public ::testing::Test {
 protected:
  void SetUp() override { SettlePortChoice(); }
};

TEST_F(DdrParserTest, RowsSetTheirFigureAndEverythingElseIsIgnoredSilently) {
  DDRMonitor monitor(DdrConfig(true));
  ScopedLogLevel verbose(0);
  const struct {
    const char* line;
    DdrLineResult result;
    std::uint64_t read, write;
  } rows[] = {
      {"Read|x|100\r\n", DdrLineResult::kRead, 100, 0},
      {"Read | x | 101\r\n", DdrLineResult::kRead, 101, 0},
      {"| Read | ypu | 102\r\n", DdrLineResult::kRead, 102, 0},
      {"|Read|x|103", DdrLineResult::kRead, 103, 0},
      {"Read\t|  x y  |\t104 \r\n", DdrLineResult::kRead, 104, 0},
      {"Read|a|b|c|105\n", DdrLineResult::kRead, 105, 0},
      // A blank piece before a leading bar is a first field of its own.
      {" | Read | ypu | 250\r\n", DdrLineResult::kIgnored, 105, 0},
      {"Write | x | 300\r\n", DdrLineResult::kWrite, 105, 300},
      {"Write|x|0\r\n", DdrLineResult::kWrite, 105, 0},
      {"Read|x|18446744073709551615\r\n", DdrLineResult::kRead, 18446744073709551615u, 0},
  };
  const std::string err = CaptureStderr([&] {
    for (const auto& row : rows) {
      EXPECT_EQ(monitor.ParseLine(row.line), row.result) << row.line;
      EXPECT_EQ(monitor.ReadBandwidth(), row.read) << row.line;
      EXPECT_EQ(monitor.WriteBandwidth(), row.write) << row.line;
    }
    monitor.ParseLine("Read|x|7\r\n");
    // Two fields, ruling lines, other first words and empty lines.
    for (const char* line :
         {"Read|250\r\n", "Read||250\r\n", "Write | 250", "Read 250\r\n",
          "----------------------------\r\n", "-Read|x|5\r\n", "-", "| Port | Read | Write |\r\n",
          "read|x|5\r\n", "READ|x|5\r\n", "Reads|x|5\r\n", "Total|x|5\r\n", "Write:|x|5\r\n", "",
          "\r\n", "|||\r\n", "plox_ddr: command not found\r\n"}) {
      EXPECT_EQ(monitor.ParseLine(line), DdrLineResult::kIgnored) << line;
    }
  });
  EXPECT_EQ(err, "");
  EXPECT_EQ(monitor.ReadBandwidth(), 7u);
  EXPECT_EQ(monitor.WriteBandwidth(), 0u);
}

TEST_F(DdrParserTest, InvalidFigureKeepsTheOldOneWithTheWholeLineInVerboseBatch) {
  DDRMonitor monitor(DdrConfig(true));
  ScopedLogLevel verbose(0);
  ASSERT_EQ(monitor.ParseLine("Read|x|250\r\n"), DdrLineResult::kRead);
  ASSERT_EQ(monitor.ParseLine("Write|x|7\r\n"), DdrLineResult::kWrite);
  const std::string err = CaptureStderr([&] {
    EXPECT_EQ(monitor.ParseLine("Read|x|25.5\r\n"), DdrLineResult::kInvalid);
    // A trailing bar leaves a blank last field.
    EXPECT_EQ(monitor.ParseLine("| Write | x | 250 |\r\n"), DdrLineResult::kInvalid);
    EXPECT_EQ(monitor.ParseLine("Read|x|"), DdrLineResult::kInvalid);
    EXPECT_EQ(monitor.ParseLine("Read|x|-5\r\n"), DdrLineResult::kInvalid);
    EXPECT_EQ(monitor.ParseLine("Read|x|18446744073709551616\n"), DdrLineResult::kInvalid);
  });
  EXPECT_EQ(err,
            "Invalid data format, get: Read|x|25.5\r\n\n"
            "Invalid data format, get: | Write | x | 250 |\r\n\n"
            "Invalid data format, get: Read|x|\n"
            "Invalid data format, get: Read|x|-5\r\n\n"
            "Invalid data format, get: Read|x|18446744073709551616\n\n");
  EXPECT_EQ(monitor.ReadBandwidth(), 250u);
  EXPECT_EQ(monitor.WriteBandwidth(), 7u);
}

TEST_F(DdrParserTest, InvalidFigureIsSilentOutsideVerboseBatch) {
  const std::pair<bool, int> cases[] = {{true, 1}, {false, 0}, {false, 1}};
  for (const auto& [batch, level] : cases) {
    DDRMonitor monitor(DdrConfig(batch));
    ScopedLogLevel log_level(level);
    EXPECT_EQ(CaptureStderr([&] {
                EXPECT_EQ(monitor.ParseLine("Read|x|25.5\r\n"), DdrLineResult::kInvalid);
              }),
              "")
        << batch << level;
  }
}

TEST_F(DdrParserTest, RandomAndTruncatedLinesNeverCrashAndOnlyStoreOnSuccess) {
  DDRMonitor monitor(DdrConfig(true));
  ScopedLogLevel verbose(0);
  std::mt19937 random(20240611u);
  const char* tokens[] = {"Read", "Write", "|", " ",   "\t",
                          "\r",   "\n",    "-", "0",   "250",
                          ".",    "x",     "e", "|||", "18446744073709551616"};
  const std::string valid_rows[] = {"| Read | ypu | 1234 |\r\n", "Write|x|98765\r\n"};
  CaptureStderr([&] {
    for (int i = 0; i < 1500; ++i) {
      std::string line;
      if (i % 3 == 0) {  // tokens of the tool's vocabulary
        for (int t = static_cast<int>(random() % 24); t > 0; --t) {
          line += tokens[random() % std::size(tokens)];
        }
      } else if (i % 3 == 1) {  // arbitrary non-NUL bytes, more than one read's worth
        for (std::size_t b = random() % 600; b > 0; --b) {
          line.push_back(static_cast<char>(1 + random() % 255));
        }
      } else {  // a real row cut anywhere
        const std::string& row = valid_rows[random() % std::size(valid_rows)];
        line = row.substr(0, random() % (row.size() + 1));
      }
      const std::uint64_t read_before = monitor.ReadBandwidth();
      const std::uint64_t write_before = monitor.WriteBandwidth();
      const DdrLineResult result = monitor.ParseLine(line.c_str());
      if (result != DdrLineResult::kRead) {
        ASSERT_EQ(monitor.ReadBandwidth(), read_before) << line;
      }
      if (result != DdrLineResult::kWrite) {
        ASSERT_EQ(monitor.WriteBandwidth(), write_before) << line;
      }
    }
  });
}

// With a fake plox_ddr shell script first on PATH.
class DdrToolTest : public ::testing::Test {
 protected:
  void SetUp() override { SettlePortChoice(); }
  void TearDown() override { setenv("PATH", saved_path_.c_str(), 1); }

  void InstallTool(const std::string& body) {
    bin_.WriteFile("plox_ddr", "#!/bin/sh\n" + body);
    std::filesystem::permissions(bin_.Path() + "/plox_ddr", std::filesystem::perms::owner_all);
    setenv("PATH", (bin_.Path() + ":" + saved_path_).c_str(), 1);
  }

  TempTree bin_;
  const std::string saved_path_ = std::getenv("PATH") ? std::getenv("PATH") : "/usr/bin:/bin";
};

TEST_F(DdrToolTest, PublishesTheToolsFiguresAndKeepsReadyOnSuccess) {
  InstallTool(
      "printf '%s\\n' \"$*\" > \"$(dirname \"$0\")/args\"\n"
      "echo '------------------------------'\n"
      "echo '| Port | Type | Perf(MiB/s) |'\n"
      "echo '| Read | all  | 1234 |'\n"
      "echo 'Read | all | 1234'\n"
      "echo 'Write | all | 567'\n"
      "echo 'Read | all | 25.5'\n"
      "exit 0\n");
  DDRMonitor monitor(DdrConfig(false));
  monitor.Start();
  monitor.JoinThreads();
  EXPECT_EQ(monitor.ReadBandwidth(), 1234u);
  EXPECT_EQ(monitor.WriteBandwidth(), 567u);
  EXPECT_TRUE(monitor.IsReady());
  EXPECT_EQ(bin_.ReadFile("args"), "-t ypu -p 100000 -n 2\n");
}

TEST_F(DdrToolTest, NonZeroExitClearsReadyWithTheMessageOnlyInVerboseBatch) {
  InstallTool("echo 'Read|x|9'\nexit 1\n");
  const std::string message =
      "Run command:plox_ddr -t ypu -p 100000 -n 2  failed, exit status:1, please check the "
      "previous log\n";
  const struct {
    bool batch;
    int level;
    std::string message;
  } cases[] = {{true, 0, message}, {true, 1, ""}, {false, 0, ""}};
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message() << "batch " << c.batch << " level " << c.level);
    ScopedLogLevel level(c.level);
    DDRMonitor monitor(DdrConfig(c.batch));
    EXPECT_EQ(CaptureStderr([&] {
                monitor.Start();
                monitor.JoinThreads();
              }),
              c.message);
    EXPECT_FALSE(monitor.IsReady());
    EXPECT_EQ(monitor.ReadBandwidth(), 9u);
    // Not ready any more: a new start runs nothing.
    monitor.Stop();
    monitor.Start();
    EXPECT_TRUE(monitor.IsStopped());
  }
}

TEST_F(DdrToolTest, StopWhileTheToolRunsEndsTheWorkerPromptlyAndKeepsReady) {
  InstallTool(
      "echo $$ > \"$(dirname \"$0\")/pid\"\n"
      "echo 'Read | all | 250'\n"
      "echo 'Write | all | 260'\n"
      "sleep 60\n"
      "exit 5\n");
  ScopedLogLevel verbose(0);
  DDRMonitor monitor(DdrConfig(true));
  const int descriptors_before = CountOpenFds();
  const std::string err = CaptureStderr([&] {
    monitor.Start();
    ASSERT_TRUE(WaitFor([&] { return monitor.WriteBandwidth() == 260u; }));
    const auto stop_started = steady_clock::now();
    monitor.Stop();
    EXPECT_LT(steady_clock::now() - stop_started, seconds(2));
    auto joined = std::async(std::launch::async, [&] { monitor.JoinThreads(); });
    EXPECT_EQ(joined.wait_for(seconds(20)), std::future_status::ready);
  });
  EXPECT_EQ(CountOpenFds(), descriptors_before);
  EXPECT_EQ(err, "");
  EXPECT_TRUE(monitor.IsReady());
  EXPECT_EQ(monitor.ReadBandwidth(), 250u);
  // The hang-up reached the script too, even when the shell ran it as a
  // child of its own rather than in its place.
  const pid_t tool = static_cast<pid_t>(std::stol(bin_.ReadFile("pid")));
  EXPECT_TRUE(WaitFor([&] { return HasEnded(tool); }, seconds(30)));
}

TEST_F(DdrToolTest, StopRightAfterStartNeverHangsNorFails) {
  InstallTool("echo 'Read|x|11'\nsleep 60\n");
  ScopedLogLevel verbose(0);
  DDRMonitor monitor(DdrConfig(true));
  const int descriptors_before = CountOpenFds();
  const std::string err = CaptureStderr([&] {
    for (int round = 0; round < 10; ++round) {
      monitor.Start();
      if (round % 2 == 1) std::this_thread::sleep_for(milliseconds(2 * round));
      monitor.Stop();
      auto joined = std::async(std::launch::async, [&] { monitor.JoinThreads(); });
      ASSERT_EQ(joined.wait_for(seconds(20)), std::future_status::ready) << round;
      ASSERT_TRUE(monitor.IsReady()) << round;
    }
  });
  EXPECT_EQ(CountOpenFds(), descriptors_before);
  EXPECT_EQ(err, "");
}

}  // namespace
}  // namespace kestro::zqp
