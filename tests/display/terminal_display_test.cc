#include "display/terminal_display.h"

#include <pty.h>
#include <termios.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace kestro::zqp::display {
namespace {

// Points descriptors 0 and 1 elsewhere for the life of the object, flushing
// stdout on both edges so that no byte goes astray.
class ScopedStdio {
 public:
  ScopedStdio(int in, int out) : saved_in_(dup(0)), saved_out_(dup(1)) {
    std::fflush(stdout);
    dup2(in, 0);
    dup2(out, 1);
  }
  ~ScopedStdio() {
    std::fflush(stdout);
    dup2(saved_in_, 0);
    dup2(saved_out_, 1);
    close(saved_in_);
    close(saved_out_);
  }

 private:
  int saved_in_;
  int saved_out_;
};

constexpr tcflag_t kRawCleared = ISIG | ICANON | ECHO | ECHONL;

// A pseudo-terminal wider than the line buffer. Every flag raw mode clears is
// set and VMIN/VTIME differ from the raw values, so each change is visible;
// output processing stays on, so newlines come back as CR LF.
TEST(TerminalDisplayTest, RawModeRestoreAndWidthCapOnAPseudoTerminal) {
  int master = -1;
  int slave = -1;
  winsize size{24, 500, 0, 0};
  ASSERT_EQ(openpty(&master, &slave, nullptr, nullptr, &size), 0);
  termios original{};
  ASSERT_EQ(tcgetattr(slave, &original), 0);
  original.c_lflag |= kRawCleared;
  original.c_cc[VMIN] = 4;
  original.c_cc[VTIME] = 3;
  ASSERT_EQ(tcsetattr(slave, TCSANOW, &original), 0);
  ASSERT_EQ(tcgetattr(slave, &original), 0);
  termios raw{};
  termios restored{};
  bool drawable = false;
  std::uint32_t width = 0;
  std::uint64_t limit = 0;
  {
    ScopedStdio stdio(slave, slave);
    TerminalDisplay display(false);
    tcgetattr(slave, &raw);
    drawable = display.UpdateWindowSize();
    width = display.Width();
    limit = display.LineLimit();
    display.PrintHighlighted("head");
    display.RestoreTerminal();
    tcgetattr(slave, &restored);
  }
  close(slave);
  // With the slave closed the master reads what was written, then fails.
  std::string out;
  char buffer[256];
  for (ssize_t got; (got = read(master, buffer, sizeof buffer)) > 0;) out.append(buffer, got);
  close(master);
  // Never started, so no cursor home; restored twice, by the call and the destructor.
  const std::string restore = "\x1b[0B\r\n\x1b[?25h";
  EXPECT_EQ(out, "\x1b[?25l\x1b[7mhead\x1b[m" + restore + restore);
  EXPECT_EQ(raw.c_lflag, original.c_lflag & ~kRawCleared);
  EXPECT_EQ(raw.c_iflag, original.c_iflag);
  EXPECT_EQ(raw.c_oflag, original.c_oflag);
  EXPECT_EQ(raw.c_cc[VMIN], 1);
  EXPECT_EQ(raw.c_cc[VTIME], 0);
  EXPECT_EQ(raw.c_cc[VINTR], original.c_cc[VINTR]);
  EXPECT_EQ(restored.c_lflag, original.c_lflag);
  EXPECT_EQ(restored.c_cc[VMIN], 4);
  EXPECT_EQ(restored.c_cc[VTIME], 3);
  EXPECT_TRUE(drawable);
  EXPECT_EQ(width, 446u);
  EXPECT_EQ(limit, 22u);
}

// Batch mode never reads the terminal's settings, so the saved interrupt,
// end-of-file and suspend characters it compares keys with are all NUL.
TEST(TerminalDisplayTest, BatchKeysAndEndOfInput) {
  const struct {
    std::string input;
    bool keep_running;
    bool ended;
  } cases[] = {{std::string(1, '\0'), false, false},
               {"q", false, false},
               {"Q", false, false},
               {"x", true, false},
               {"\x03", true, false},
               {"\x1a", true, false},
               {"", true, true}};
  for (const auto& c : cases) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    ASSERT_EQ(write(fds[1], c.input.data(), c.input.size()), ssize_t(c.input.size()));
    close(fds[1]);
    {
      ScopedStdio stdio(fds[0], 1);
      TerminalDisplay display(true);
      EXPECT_EQ(display.HandleKey(), c.keep_running) << int(c.input[0]);
      EXPECT_EQ(display.InputEnded(), c.ended) << int(c.input[0]);
    }
    close(fds[0]);
  }
}

// No window in batch mode: only the 448-byte line buffer cuts a line.
TEST(TerminalDisplayTest, BatchLinesAreCutOnlyByTheLineBuffer) {
  std::FILE* sink = std::tmpfile();
  ASSERT_NE(sink, nullptr);
  {
    ScopedStdio stdio(0, fileno(sink));
    TerminalDisplay display(true);
    display.PrintLine("%s", std::string(600, 'w').c_str());
    display.PrintHighlighted("%s", std::string(600, 'h').c_str());
  }
  std::string out(2000, '\0');
  std::rewind(sink);
  out.resize(std::fread(out.data(), 1, out.size(), sink));
  std::fclose(sink);
  EXPECT_EQ(out, std::string(447, 'w') + "\n" + std::string(447, 'h'));
}

}  // namespace
}  // namespace kestro::zqp::display
