// Runs the real binary with each command line and compares stdout, stderr and
// the exit status byte for byte.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "app/option_parser.h"

#include <getopt.h>

namespace {

using kestro::zqp::MonitorOption;

struct Result {
  std::string out;
  std::string err;
  int status = -1;
};

std::string ReadAll(int fd) {
  std::string text;
  char buffer[4096];
  ssize_t n;
  while ((n = read(fd, buffer, sizeof buffer)) > 0) text.append(buffer, n);
  return text;
}

Result RunBinary(const std::vector<std::string>& args) {
  char out_path[] = "/tmp/kzm_out_XXXXXX";
  char err_path[] = "/tmp/kzm_err_XXXXXX";
  const int out_fd = mkstemp(out_path);
  const int err_fd = mkstemp(err_path);
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(out_fd, 1);
    dup2(err_fd, 2);
    const int null_fd = open("/dev/null", O_RDONLY);
    dup2(null_fd, 0);
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>("kvt_zqp_monitor"));
    for (const auto& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    execv(KZM_BINARY, argv.data());
    _exit(127);
  }
  Result result;
  int status = 0;
  waitpid(pid, &status, 0);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  lseek(out_fd, 0, SEEK_SET);
  lseek(err_fd, 0, SEEK_SET);
  result.out = ReadAll(out_fd);
  result.err = ReadAll(err_fd);
  close(out_fd);
  close(err_fd);
  unlink(out_path);
  unlink(err_path);
  return result;
}

std::string Line(const std::vector<std::string>& args) {
  std::string line;
  for (const auto& arg : args) line += "[" + arg + "] ";
  return line;
}

const std::string kUsage = kestro::zqp::UsageText();
const std::string kKeys = "{YPU,DSP,GDC,ISP,JPU,PYM,STITCH,VPU}";

struct Case {
  std::vector<std::string> args;
  std::string out;
  std::string err;
  int status;
};

TEST(OptionsTest, CommandLinesGiveExactOutputAndStatus) {
  const std::vector<Case> cases = {
      // Help and version.
      {{"-h"}, kUsage, "", 1},
      {{"--help"}, kUsage, "", 1},
      {{"-V"}, "", "ZQP Monitor version: 2.2.4\n", 0},
      {{"--version", "-d", "5"}, "", "ZQP Monitor version: 2.2.4\n", 0},
      {{"-d", "5", "-V"}, "", "delay valid range is [100, 10000], but get 5\n", 1},
      // getopt's own errors come before the usage.
      {{"-x"}, kUsage, "kvt_zqp_monitor: invalid option -- 'x'\n", 1},
      {{"-d"}, kUsage, "kvt_zqp_monitor: option requires an argument -- 'd'\n", 1},
      {{"--bogus"}, kUsage, "kvt_zqp_monitor: unrecognized option '--bogus'\n", 1},
      // Ranges.
      {{"-d", "99"}, "", "delay valid range is [100, 10000], but get 99\n", 1},
      {{"-d", "10001"}, "", "delay valid range is [100, 10000], but get 10001\n", 1},
      {{"-d", "10000", "-V"}, "", "ZQP Monitor version: 2.2.4\n", 0},
      {{"-f", "1001"}, "", "sample frequency valid range is [10, 1000], but get 1001\n", 1},
      {{"-f", "9"}, "", "sample frequency valid range is [10, 1000], but get 9\n", 1},
      {{"-f", "10", "-V"}, "", "ZQP Monitor version: 2.2.4\n", 0},
      {{"-n", "0"}, "", "iterater number must great than 0, but get 0\n", 1},
      {{"-n", "-3"}, "", "iterater number must great than 0, but get -3\n", 1},
      {{"-t", "0"}, "", "time must great than 0, but get 0\n", 1},
      // Invalid numbers, as typed.
      {{"-d", "1e3"}, "", "value 1e3 is invalid number\n", 1},
      {{"-d", "5x"}, "", "value 5x is invalid number\n", 1},
      {{"-d", " 100"}, "", "value  100 is invalid number\n", 1},
      {{"-d", "+100"}, "", "value +100 is invalid number\n", 1},
      {{"-d", ""}, "", "value  is invalid number\n", 1},
      {{"-n", "-"}, "", "value - is invalid number\n", 1},
      {{"-n", "99999999999999999999"}, "", "value 99999999999999999999 is invalid number\n", 1},
      {{"-n", "4294967296"}, "", "iterater number must great than 0, but get 0\n", 1},
      // Count and time.
      {{"-t", "2", "-d", "3000"},
       "",
       "duration time 2 sec must not less than delay time 3000 ms\n",
       1},
      {{"-n", "3", "-t", "5"}, "", "Not support setting both number and time\n", 1},
      {{"-n", "3", "-t", "2", "-d", "3000"},
       "",
       "Not support setting both number and time\n"
       "duration time 2 sec must not less than delay time 3000 ms\n",
       1},
      // -t 4294968 wraps the 32-bit product of milliseconds to 704.
      {{"-t", "4294968"},
       "",
       "duration time 4294968 sec must not less than delay time 1000 ms\n",
       1},
      // Enable lists.
      {{"-e", "ypu, dsp"},
       "",
       " dsp is invalid, valid value is " + kKeys + ", case-insensitive\n",
       1},
      {{"-e", "cpu"}, "", "cpu is invalid, valid value is " + kKeys + ", case-insensitive\n", 1},
      {{"-e", "ypu", "-e", "Stitch,vpu,cpu"},
       "",
       "cpu is invalid, valid value is " + kKeys + ", case-insensitive\n",
       1},
      {{"-e", ""}, "", "", 1},
      {{"-e", ",,"}, "", "", 1},
      // The first failure stops the parse: later options are not looked at.
      {{"-d", "5", "-v", "-f", "1"}, "", "delay valid range is [100, 10000], but get 5\n", 1},
      {{"-e", "cpu", "-d", "5"},
       "",
       "cpu is invalid, valid value is " + kKeys + ", case-insensitive\n",
       1},
      {{"-d", "5", "-h"}, "", "delay valid range is [100, 10000], but get 5\n", 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(Line(c.args));
    const Result result = RunBinary(c.args);
    EXPECT_EQ(result.out, c.out);
    EXPECT_EQ(result.err, c.err);
    EXPECT_EQ(result.status, c.status);
  }
}

// Accepted command lines run the monitor; one short batch frame is enough to
// see the settings summary that -v prints before anything else.
TEST(OptionsTest, VerboseSummaryOfAcceptedCommandLines) {
  const std::string fast_batch = "delay: 100 ms\nfrequency: 500 sample/sec\nbatch mode: true\n";
  const std::vector<Case> cases = {
      // 2^32 + 100 is truncated to 100 before the range check.
      {{"-v", "-b", "-d", "4294967396", "-n", "1"}, "", fast_batch + "iterator nums: 1\n", 0},
      {{"-b", "-v", "-d", "100", "-t", "1"},
       "",
       fast_batch + "iterator nums: 10\nduration time: 1 sec\n",
       0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(Line(c.args));
    const Result result = RunBinary(c.args);
    EXPECT_EQ(result.err.substr(0, c.err.size()), c.err);
    EXPECT_EQ(result.status, c.status);
  }
}

MonitorOption Parse(std::vector<std::string> args) {
  std::vector<char*> argv;
  static char program[] = "kvt_zqp_monitor";
  argv.push_back(program);
  for (auto& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  optind = 0;  // getopt keeps its position between calls
  return kestro::zqp::ParseOptions(static_cast<int>(argv.size() - 1), argv.data());
}

TEST(OptionsTest, ParsedValues) {
  const MonitorOption none = Parse({});
  EXPECT_TRUE(none.valid);
  EXPECT_EQ(none.delay_ms, 1000u);
  EXPECT_EQ(none.frequency, 500u);
  EXPECT_EQ(none.iterations, kestro::zqp::kForever);
  EXPECT_EQ(none.duration_s, 0u);
  EXPECT_FALSE(none.batch);
  EXPECT_TRUE(none.enable_list.empty());

  EXPECT_EQ(Parse({"-t", "10", "-d", "3000"}).iterations, 3u);
  EXPECT_EQ(Parse({"-t", "5"}).iterations, 5u);
  EXPECT_EQ(Parse({"-n", "7"}).iterations, 7u);
  EXPECT_EQ(Parse({"--delay=10000"}).delay_ms, 10000u);
  EXPECT_EQ(Parse({"-f", "10"}).frequency, 10u);
  EXPECT_EQ(Parse({"-e", "ypu,,dsp,", "-e", "Vpu"}).enable_list,
            (std::vector<std::string>{"ypu", "dsp", "Vpu"}));
  EXPECT_TRUE(Parse({"--batch"}).batch);
}

TEST(OptionsTest, UsageTextLayout) {
  // Line 5 and 11 keep the blanks that padding leaves; line 23 ends in one.
  std::vector<std::string> lines;
  std::string::size_type start = 0, end;
  while ((end = kUsage.find('\n', start)) != std::string::npos) {
    lines.push_back(kUsage.substr(start, end - start));
    start = end + 1;
  }
  ASSERT_EQ(lines.size(), 24u);
  EXPECT_EQ(lines[4], "[Option]" + std::string(22, ' ') + "[Instruction]" + std::string(7, ' '));
  EXPECT_EQ(lines[5], std::string(111, '-'));
  EXPECT_EQ(lines[10], "[Option]" + std::string(22, ' ') + "[Parameter]" + std::string(9, ' '));
  EXPECT_EQ(lines[14], std::string(40, ' ') + "parameter range: [100, 10000].");
  EXPECT_EQ(lines[21],
            "-e --enable" + std::string(19, ' ') +
                "[string]: Hardware IP to be monitored, valid values are \"ypu, dsp, gdc,");
  EXPECT_EQ(lines[22],
            std::string(40, ' ') +
                "stitch, pym, isp, jpu, vpu\", case insensitive. Multiple parameters are ");
}

}  // namespace
