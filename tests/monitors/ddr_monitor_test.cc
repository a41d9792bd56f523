#include "monitors/ddr_monitor.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <random>
#include <sstream>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "app/log.h"
#include "monitor/board_path.h"

namespace kestro::zqp {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

// The machine is small and shared with other builds: waits are bounded but
// generous, and only upper bounds on promptness are asserted.
constexpr auto kLongWait = seconds(30);

class TempDir {
 public:
  TempDir() {
    std::string pattern = (fs::temp_directory_path() / "ddr_monitor_test.XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) std::abort();
    path_ = pattern;
  }
  ~TempDir() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const fs::path& Path() const { return path_; }

  // Writes content to the relative path, creating its directories.
  void Write(const std::string& relative, const std::string& content,
             fs::perms perms = fs::perms::owner_read | fs::perms::owner_write) const {
    const fs::path file = path_ / relative;
    fs::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << content;
    fs::permissions(file, perms);
  }

  std::string Read(const std::string& relative) const {
    std::ifstream in(path_ / relative, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
  }

 private:
  fs::path path_;
};

// Redirects file descriptor 2 into a temporary file, so messages of every
// thread and of fprintf are caught.
class StderrCapture {
 public:
  StderrCapture() {
    std::fflush(stderr);
    saved_ = dup(STDERR_FILENO);
    std::FILE* file = std::tmpfile();
    if (saved_ < 0 || file == nullptr) std::abort();
    file_ = file;
    dup2(fileno(file_), STDERR_FILENO);
  }
  ~StderrCapture() { Finish(); }

  std::string Finish() {
    if (file_ == nullptr) return text_;
    std::fflush(stderr);
    dup2(saved_, STDERR_FILENO);
    close(saved_);
    std::rewind(file_);
    char chunk[512];
    std::size_t got = 0;
    while ((got = std::fread(chunk, 1, sizeof(chunk), file_)) > 0) text_.append(chunk, got);
    std::fclose(file_);
    file_ = nullptr;
    return text_;
  }

 private:
  int saved_ = -1;
  std::FILE* file_ = nullptr;
  std::string text_;
};

class LogLevelGuard {
 public:
  explicit LogLevelGuard(std::uint8_t level) : saved_(GetLogLevel()) { SetLogLevel(level); }
  ~LogLevelGuard() { SetLogLevel(saved_); }

 private:
  std::uint8_t saved_;
};

class BoardRootGuard {
 public:
  explicit BoardRootGuard(const fs::path& root) { SetBoardRootForTesting(root.string()); }
  ~BoardRootGuard() { SetBoardRootForTesting(""); }
};

// Puts dir in front of PATH so that the shell finds the fake tool there.
class PathGuard {
 public:
  explicit PathGuard(const fs::path& dir) {
    const char* old = std::getenv("PATH");
    had_path_ = old != nullptr;
    if (had_path_) saved_ = old;
    const std::string path = dir.string() + ":" + (had_path_ ? saved_ : "/usr/bin:/bin");
    setenv("PATH", path.c_str(), 1);
  }
  ~PathGuard() {
    if (had_path_) {
      setenv("PATH", saved_.c_str(), 1);
    } else {
      unsetenv("PATH");
    }
  }

 private:
  bool had_path_ = false;
  std::string saved_;
};

int CountOpenDescriptors() {
  int count = 0;
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    (void)entry;
    ++count;
  }
  return count;
}

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

template <typename Predicate>
bool WaitFor(Predicate predicate, steady_clock::duration limit) {
  const auto deadline = steady_clock::now() + limit;
  while (!predicate()) {
    if (steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(milliseconds(10));
  }
  return true;
}

// The port choice is cached per process by the first monitor. Settling it on
// a board with neither file makes every command in these tests use "ypu",
// whatever machine runs them.
void SettlePortChoice() {
  static const bool settled = [] {
    TempDir empty_board;
    BoardRootGuard root(empty_board.Path());
    return DDRMonitor::UseFirstYpuPort(false);
  }();
  ASSERT_FALSE(settled);
}

constexpr char kCommand[] = "plox_ddr -t ypu -p 100000 -n 2 ";

// ---------------------------------------------------------------- command

TEST(DdrCommandTest, EndsInOneBlankAndVariesOnlyInThePort) {
  EXPECT_EQ(BuildDdrCommand(false), "plox_ddr -t ypu -p 100000 -n 2 ");
  EXPECT_EQ(BuildDdrCommand(true), "plox_ddr -t ypu_p0 -p 100000 -n 2 ");
}

TEST(DdrCommandTest, MonitorUsesTheCachedPortChoice) {
  SettlePortChoice();
  DDRMonitor monitor(DdrConfig(false));
  EXPECT_EQ(monitor.Command(), kCommand);
  EXPECT_TRUE(monitor.IsReady());
  EXPECT_TRUE(monitor.IsStopped());
  EXPECT_EQ(monitor.ReadBandwidth(), 0u);
  EXPECT_EQ(monitor.WriteBandwidth(), 0u);
}

// ---------------------------------------------------------------- port choice

class PortChoiceTest : public ::testing::Test {
 protected:
  static constexpr char kSoc[] = "sys/class/boardinfo/soc_name";
  static constexpr char kCores[] = "sys/devices/system/ypu/core_num";

  bool Choose(bool batch) {
    BoardRootGuard root(board_.Path());
    return ChooseFirstYpuPort(batch);
  }

  TempDir board_;
};

TEST_F(PortChoiceTest, SocNameStartingWithTheFamilyPicksTheFirstPort) {
  board_.Write(kSoc, "K4X2000\n");
  EXPECT_TRUE(Choose(false));
  board_.Write(kSoc, "k4x\n");
  EXPECT_TRUE(Choose(false));
  board_.Write(kSoc, "K4X");
  EXPECT_TRUE(Choose(false));
}

TEST_F(PortChoiceTest, OtherSocNamesPickTheSharedPortEvenWithFourCores) {
  board_.Write(kCores, "4\n");
  for (const char* soc : {"A1000\n", "K4\n", "K4x1\n", "k4X1\n", " K4X\n", "\nK4X\n", ""}) {
    board_.Write(kSoc, soc);
    EXPECT_FALSE(Choose(true)) << soc;
  }
}

TEST_F(PortChoiceTest, WithoutSocNameFourCoresPickTheFirstPort) {
  LogLevelGuard level(1);
  board_.Write(kCores, "4\n");
  StderrCapture capture;
  EXPECT_TRUE(Choose(true));
  EXPECT_EQ(capture.Finish(), "Get board info failed, error:No such file or directory\n\n");
}

TEST_F(PortChoiceTest, CoreNumMustBeExactlyFourOnItsFirstLine) {
  const std::pair<const char*, bool> cases[] = {
      {"4", true},     {"4\n", true},   {"4\n2\n", true}, {"2\n", false}, {"40\n", false},
      {"4 \n", false}, {" 4\n", false}, {"4\r\n", false}, {"", false},    {"\n4\n", false},
  };
  for (const auto& [content, expected] : cases) {
    board_.Write(kCores, content);
    EXPECT_EQ(Choose(false), expected) << '"' << content << '"';
  }
}

TEST_F(PortChoiceTest, NeitherFileGivesTheSharedPortAndMessagesOnlyInBatch) {
  LogLevelGuard level(1);
  {
    StderrCapture capture;
    EXPECT_FALSE(Choose(true));
    EXPECT_EQ(capture.Finish(),
              "Get board info failed, error:No such file or directory\n\n"
              "Get ypu core num failed, error:No such file or directory\n\n");
  }
  {
    StderrCapture capture;
    EXPECT_FALSE(Choose(false));
    EXPECT_EQ(capture.Finish(), "");
  }
}

// ---------------------------------------------------------------- line parser

class DdrParserTest : public ::testing::Test {
 protected:
  void SetUp() override { SettlePortChoice(); }
};

TEST_F(DdrParserTest, ReadRowsInTheToolsLayoutsSetTheReadFigure) {
  DDRMonitor monitor(DdrConfig(false));
  std::uint64_t expected = 100;
  for (const char* line : {"Read|x|100\r\n", "Read | x | 101\r\n", "| Read | ypu | 102\r\n",
                           "|Read|x|103", "Read\t|  x y  |\t104 \r\n", "Read|a|b|c|105\n"}) {
    EXPECT_EQ(monitor.ParseLine(line), DdrLineResult::kRead) << line;
    EXPECT_EQ(monitor.ReadBandwidth(), expected++) << line;
  }
  EXPECT_EQ(monitor.WriteBandwidth(), 0u);
}

TEST_F(DdrParserTest, BlankBeforeALeadingBarMakesABlankFirstField) {
  // A piece of white space only is kept as it stands, so the first field is
  // " ", not "Read".
  DDRMonitor monitor(DdrConfig(false));
  EXPECT_EQ(monitor.ParseLine(" | Read | ypu | 250\r\n"), DdrLineResult::kIgnored);
  EXPECT_EQ(monitor.ReadBandwidth(), 0u);
}

TEST_F(DdrParserTest, WriteRowSetsTheWriteFigureOnly) {
  DDRMonitor monitor(DdrConfig(false));
  EXPECT_EQ(monitor.ParseLine("Read|x|250\r\n"), DdrLineResult::kRead);
  EXPECT_EQ(monitor.ParseLine("Write | x | 300\r\n"), DdrLineResult::kWrite);
  EXPECT_EQ(monitor.ReadBandwidth(), 250u);
  EXPECT_EQ(monitor.WriteBandwidth(), 300u);
  EXPECT_EQ(monitor.ParseLine("Write|x|0\r\n"), DdrLineResult::kWrite);
  EXPECT_EQ(monitor.WriteBandwidth(), 0u);
  EXPECT_EQ(monitor.ParseLine("Read|x|18446744073709551615\r\n"), DdrLineResult::kRead);
  EXPECT_EQ(monitor.ReadBandwidth(), 18446744073709551615u);
}

TEST_F(DdrParserTest, RowsWithTwoFieldsAreIgnored) {
  DDRMonitor monitor(DdrConfig(false));
  EXPECT_EQ(monitor.ParseLine("Read|250\r\n"), DdrLineResult::kIgnored);
  EXPECT_EQ(monitor.ParseLine("Read||250\r\n"), DdrLineResult::kIgnored);
  EXPECT_EQ(monitor.ParseLine("Write | 250"), DdrLineResult::kIgnored);
  EXPECT_EQ(monitor.ParseLine("Read 250\r\n"), DdrLineResult::kIgnored);
  EXPECT_EQ(monitor.ReadBandwidth(), 0u);
  EXPECT_EQ(monitor.WriteBandwidth(), 0u);
}

TEST_F(DdrParserTest, RulingLinesOtherWordsAndEmptyLinesAreIgnored) {
  DDRMonitor monitor(DdrConfig(true));
  LogLevelGuard level(0);
  StderrCapture capture;
  for (const char* line :
       {"----------------------------\r\n", "-Read|x|5\r\n", "-", "| Port | Read | Write |\r\n",
        "read|x|5\r\n", "READ|x|5\r\n", "Reads|x|5\r\n", "Total|x|5\r\n", "Write:|x|5\r\n", "",
        "\r\n", "|||\r\n", "plox_ddr: command not found\r\n"}) {
    EXPECT_EQ(monitor.ParseLine(line), DdrLineResult::kIgnored) << line;
  }
  EXPECT_EQ(capture.Finish(), "");
  EXPECT_EQ(monitor.ReadBandwidth(), 0u);
  EXPECT_EQ(monitor.WriteBandwidth(), 0u);
}

TEST_F(DdrParserTest, NonIntegerFigureIsRejectedWithTheWholeLineInVerboseBatch) {
  DDRMonitor monitor(DdrConfig(true));
  LogLevelGuard level(0);
  ASSERT_EQ(monitor.ParseLine("Read|x|250\r\n"), DdrLineResult::kRead);
  StderrCapture capture;
  EXPECT_EQ(monitor.ParseLine("Read|x|25.5\r\n"), DdrLineResult::kInvalid);
  EXPECT_EQ(capture.Finish(), "Invalid data format, get: Read|x|25.5\r\n\n");
  EXPECT_EQ(monitor.ReadBandwidth(), 250u);
}

TEST_F(DdrParserTest, TrailingBarLeavesABlankLastFieldThatIsInvalid) {
  DDRMonitor monitor(DdrConfig(true));
  LogLevelGuard level(0);
  ASSERT_EQ(monitor.ParseLine("Write|x|7\r\n"), DdrLineResult::kWrite);
  StderrCapture capture;
  EXPECT_EQ(monitor.ParseLine("| Write | x | 250 |\r\n"), DdrLineResult::kInvalid);
  EXPECT_EQ(monitor.ParseLine("Read|x|"), DdrLineResult::kInvalid);
  EXPECT_EQ(monitor.ParseLine("Read|x|-5\r\n"), DdrLineResult::kInvalid);
  EXPECT_EQ(monitor.ParseLine("Read|x|18446744073709551616\n"), DdrLineResult::kInvalid);
  EXPECT_EQ(capture.Finish(),
            "Invalid data format, get: | Write | x | 250 |\r\n\n"
            "Invalid data format, get: Read|x|\n"
            "Invalid data format, get: Read|x|-5\r\n\n"
            "Invalid data format, get: Read|x|18446744073709551616\n\n");
  EXPECT_EQ(monitor.WriteBandwidth(), 7u);
  EXPECT_EQ(monitor.ReadBandwidth(), 0u);
}

TEST_F(DdrParserTest, InvalidFigureIsSilentOutsideVerboseBatch) {
  const std::pair<bool, int> cases[] = {{true, 1}, {false, 0}, {false, 1}};
  for (const auto& [batch, level_value] : cases) {
    DDRMonitor monitor(DdrConfig(batch));
    LogLevelGuard level(static_cast<std::uint8_t>(level_value));
    StderrCapture capture;
    EXPECT_EQ(monitor.ParseLine("Read|x|25.5\r\n"), DdrLineResult::kInvalid);
    EXPECT_EQ(capture.Finish(), "") << batch << level_value;
  }
}

TEST_F(DdrParserTest, RandomAndTruncatedLinesNeverCrashAndOnlyStoreOnSuccess) {
  DDRMonitor monitor(DdrConfig(true));
  LogLevelGuard level(0);
  StderrCapture capture;
  std::mt19937 random(20240611u);
  const char* tokens[] = {"Read",
                          "Write",
                          "|",
                          " ",
                          "\t",
                          "\r",
                          "\n",
                          "-",
                          "0",
                          "9",
                          "250",
                          ".",
                          "x",
                          "R",
                          "e",
                          "|||",
                          "18446744073709551616"};
  const std::string valid_rows[] = {"| Read | ypu | 1234 |\r\n", "Write|x|98765\r\n",
                                    "Read | all | 42\r\n"};
  for (int i = 0; i < 4000; ++i) {
    std::string line;
    switch (i % 3) {
      case 0: {  // tokens of the tool's vocabulary
        const int count = static_cast<int>(random() % 24);
        for (int t = 0; t < count; ++t) line += tokens[random() % std::size(tokens)];
        break;
      }
      case 1: {  // arbitrary non-NUL bytes, up to more than one read's worth
        const std::size_t length = random() % 600;
        for (std::size_t b = 0; b < length; ++b)
          line.push_back(static_cast<char>(1 + random() % 255));
        break;
      }
      default: {  // a real row cut anywhere
        const std::string& row = valid_rows[random() % std::size(valid_rows)];
        line = row.substr(0, random() % (row.size() + 1));
        break;
      }
    }
    const std::uint64_t read_before = monitor.ReadBandwidth();
    const std::uint64_t write_before = monitor.WriteBandwidth();
    const DdrLineResult result = monitor.ParseLine(line.c_str());
    if (result != DdrLineResult::kRead) {
      EXPECT_EQ(monitor.ReadBandwidth(), read_before) << line;
    }
    if (result != DdrLineResult::kWrite) {
      EXPECT_EQ(monitor.WriteBandwidth(), write_before) << line;
    }
  }
  capture.Finish();
}

// ---------------------------------------------------------------- with a fake tool

class DdrToolTest : public ::testing::Test {
 protected:
  void SetUp() override { SettlePortChoice(); }

  // Installs a plox_ddr shell script with the given body on PATH.
  void InstallTool(const std::string& body) {
    bin_.Write("plox_ddr", "#!/bin/sh\n" + body, fs::perms::owner_all);
    path_ = std::make_unique<PathGuard>(bin_.Path());
  }

  TempDir bin_;
  std::unique_ptr<PathGuard> path_;
};

TEST_F(DdrToolTest, PublishesTheToolsFiguresAndKeepsReadyOnSuccess) {
  InstallTool(
      "printf '%s\\n' \"$*\" > \"$(dirname \"$0\")/args\"\n"
      "echo '------------------------------'\n"
      "echo '| Port | Type | Perf(MiB/s) |'\n"
      "echo '------------------------------'\n"
      "echo '| Read | all  | 1234 |'\n"
      "echo 'Read | all | 1234'\n"
      "echo 'Write | all | 567'\n"
      "echo 'Read | all | 25.5'\n"
      "exit 0\n");
  LogLevelGuard level(0);
  DDRMonitor monitor(DdrConfig(false));
  monitor.Start();
  monitor.JoinThreads();
  EXPECT_EQ(monitor.ReadBandwidth(), 1234u);
  EXPECT_EQ(monitor.WriteBandwidth(), 567u);
  EXPECT_TRUE(monitor.IsReady());
  EXPECT_EQ(bin_.Read("args"), "-t ypu -p 100000 -n 2\n");
}

TEST_F(DdrToolTest, NonZeroExitClearsReadyWithTheMessageInVerboseBatch) {
  InstallTool("exit 1\n");
  LogLevelGuard level(0);
  DDRMonitor monitor(DdrConfig(true));
  StderrCapture capture;
  monitor.Start();
  monitor.JoinThreads();
  EXPECT_EQ(capture.Finish(),
            "Run command:plox_ddr -t ypu -p 100000 -n 2  failed, exit status:1, please check the "
            "previous log\n");
  EXPECT_FALSE(monitor.IsReady());
}

TEST_F(DdrToolTest, NonZeroExitClearsReadySilentlyOtherwise) {
  InstallTool("echo 'Read|x|9'\nexit 3\n");
  const std::pair<bool, int> cases[] = {{true, 1}, {false, 0}};
  for (const auto& [batch, level_value] : cases) {
    LogLevelGuard level(static_cast<std::uint8_t>(level_value));
    DDRMonitor monitor(DdrConfig(batch));
    StderrCapture capture;
    monitor.Start();
    monitor.JoinThreads();
    EXPECT_EQ(capture.Finish(), "");
    EXPECT_FALSE(monitor.IsReady());
    EXPECT_EQ(monitor.ReadBandwidth(), 9u);
    // Not ready any more: a new start runs nothing.
    monitor.Stop();
    monitor.Start();
    EXPECT_TRUE(monitor.IsStopped());
  }
}

TEST_F(DdrToolTest, MissingToolIsAnExitStatusFromTheShell) {
  // PATH holds only an empty directory, so sh reports 127.
  TempDir empty;
  const char* old = std::getenv("PATH");
  const std::string saved = old != nullptr ? old : "";
  setenv("PATH", empty.Path().c_str(), 1);
  LogLevelGuard level(0);
  DDRMonitor monitor(DdrConfig(true));
  StderrCapture capture;
  monitor.Start();
  monitor.JoinThreads();
  const std::string text = capture.Finish();
  setenv("PATH", saved.c_str(), 1);
  EXPECT_EQ(text, std::string("Run command:") + kCommand +
                      " failed, exit status:127, please check the previous log\n");
  EXPECT_FALSE(monitor.IsReady());
}

TEST_F(DdrToolTest, StopWhileTheToolRunsEndsTheWorkerPromptlyAndKeepsReady) {
  InstallTool(
      "echo $$ > \"$(dirname \"$0\")/pid\"\n"
      "echo 'Read | all | 250'\n"
      "echo 'Write | all | 260'\n"
      "sleep 60\n"
      "exit 5\n");
  LogLevelGuard level(0);
  DDRMonitor monitor(DdrConfig(true));
  StderrCapture capture;
  const int descriptors_before = CountOpenDescriptors();
  monitor.Start();
  ASSERT_TRUE(WaitFor([&] { return monitor.WriteBandwidth() == 260u; }, kLongWait));

  const auto stop_started = steady_clock::now();
  monitor.Stop();
  EXPECT_LT(steady_clock::now() - stop_started, seconds(2));
  auto joined = std::async(std::launch::async, [&] { monitor.JoinThreads(); });
  EXPECT_EQ(joined.wait_for(seconds(20)), std::future_status::ready);
  joined.get();

  EXPECT_EQ(CountOpenDescriptors(), descriptors_before);
  EXPECT_EQ(capture.Finish(), "");
  EXPECT_TRUE(monitor.IsReady());
  EXPECT_EQ(monitor.ReadBandwidth(), 250u);
  // The hang-up reached the script too, even when the shell ran it as a
  // child of its own rather than in its place.
  const pid_t tool = static_cast<pid_t>(std::stol(bin_.Read("pid")));
  EXPECT_TRUE(WaitFor([&] { return HasEnded(tool); }, kLongWait));
}

TEST_F(DdrToolTest, RestartAfterStopRunsTheToolAgainWithoutLeaking) {
  InstallTool("echo 'Read|x|11'\nsleep 60\n");
  DDRMonitor monitor(DdrConfig(false));
  const int descriptors_before = CountOpenDescriptors();
  for (int round = 0; round < 2; ++round) {
    monitor.Start();
    ASSERT_TRUE(WaitFor([&] { return monitor.ReadBandwidth() == 11u; }, kLongWait));
    monitor.Stop();
    monitor.JoinThreads();
    EXPECT_TRUE(monitor.IsReady());
    monitor.ParseLine("Read|x|0\n");
  }
  EXPECT_EQ(CountOpenDescriptors(), descriptors_before);
}

TEST_F(DdrToolTest, StopRightAfterStartNeverHangsNorFails) {
  InstallTool("echo 'Read|x|11'\nsleep 60\n");
  LogLevelGuard level(0);
  DDRMonitor monitor(DdrConfig(true));
  StderrCapture capture;
  const int descriptors_before = CountOpenDescriptors();
  for (int round = 0; round < 20; ++round) {
    monitor.Start();
    if (round % 2 == 1) std::this_thread::sleep_for(milliseconds(round));
    monitor.Stop();
    auto joined = std::async(std::launch::async, [&] { monitor.JoinThreads(); });
    ASSERT_EQ(joined.wait_for(seconds(20)), std::future_status::ready) << round;
    joined.get();
    ASSERT_TRUE(monitor.IsReady()) << round;
  }
  EXPECT_EQ(CountOpenDescriptors(), descriptors_before);
  EXPECT_EQ(capture.Finish(), "");
}

TEST_F(DdrToolTest, DestructorStopsAndJoinsARunningTool) {
  InstallTool("echo 'Read|x|11'\nsleep 60\n");
  const auto started = steady_clock::now();
  {
    DDRMonitor monitor(DdrConfig(false));
    monitor.Start();
    ASSERT_TRUE(WaitFor([&] { return monitor.ReadBandwidth() == 11u; }, kLongWait));
  }
  EXPECT_LT(steady_clock::now() - started, seconds(40));
}

}  // namespace
}  // namespace kestro::zqp
