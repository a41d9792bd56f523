#include "display/terminal_display.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <string>

namespace kestro::zqp::monitor {
namespace {

// Redirects descriptors 0 and 1 to the given descriptors for the life of the
// object, flushing stdout on both edges so that no byte goes astray.
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
  ScopedStdio(const ScopedStdio&) = delete;
  ScopedStdio& operator=(const ScopedStdio&) = delete;

 private:
  int saved_in_;
  int saved_out_;
};

// A pseudo-terminal standing in for the user's terminal. Output processing is
// off so that the bytes read back are exactly the bytes written; the local
// modes keep their canonical defaults so that raw mode has something to clear.
class PtyTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(openpty(&master_, &slave_, nullptr, nullptr, nullptr), 0);
    termios settings{};
    ASSERT_EQ(tcgetattr(slave_, &settings), 0);
    settings.c_oflag &= ~static_cast<tcflag_t>(OPOST);
    settings.c_lflag |= ISIG | ICANON | ECHO;
    ASSERT_EQ(tcsetattr(slave_, TCSANOW, &settings), 0);
    original_ = settings;
    SetSize(24, 80);
  }
  void TearDown() override {
    close(master_);
    close(slave_);
  }

  void SetSize(unsigned short rows, unsigned short columns) {
    winsize size{};
    size.ws_row = rows;
    size.ws_col = columns;
    ASSERT_EQ(ioctl(master_, TIOCSWINSZ, &size), 0);
  }

  termios Settings() const {
    termios settings{};
    tcgetattr(slave_, &settings);
    return settings;
  }

  void Type(const std::string& keys) {
    ASSERT_EQ(write(master_, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
  }

  // Runs body with the pty as standard input and output and returns every
  // byte it wrote. Assertions belong after the call, when stdout is back.
  std::string Run(const std::function<void()>& body) {
    {
      ScopedStdio stdio(slave_, slave_);
      body();
    }
    std::string out;
    char buffer[4096];
    pollfd poll_fd{master_, POLLIN, 0};
    // The pty moves data to the master side asynchronously; a quiet period
    // marks the end.
    while (poll(&poll_fd, 1, 200) > 0 && (poll_fd.revents & POLLIN) != 0) {
      const ssize_t got = read(master_, buffer, sizeof(buffer));
      if (got <= 0) break;
      out.append(buffer, static_cast<std::size_t>(got));
    }
    return out;
  }

  int master_ = -1;
  int slave_ = -1;
  termios original_{};
};

constexpr char kHide[] = "\x1b[?25l";
constexpr char kClear[] = "\x1b[H\x1b[0J";

std::string Repeat(const std::string& piece, int count) {
  std::string out;
  for (int i = 0; i < count; ++i) out += piece;
  return out;
}

TEST_F(PtyTest, RawModeClearsLocalFlagsAndRestoreBringsThemBack) {
  termios raw{};
  termios restored{};
  const std::string out = Run([&] {
    TerminalDisplay display(false);
    raw = Settings();
    display.RestoreTerminal();
    restored = Settings();
  });
  EXPECT_EQ(raw.c_lflag & (ISIG | ICANON | ECHO | ECHONL), 0u);
  // Only those four flags change (the mask 0x4B).
  EXPECT_EQ(raw.c_lflag | 0x4Bu, original_.c_lflag | 0x4Bu);
  EXPECT_EQ(raw.c_cc[VMIN], 1);
  EXPECT_EQ(raw.c_cc[VTIME], 0);
  EXPECT_EQ(raw.c_iflag, original_.c_iflag);
  EXPECT_EQ(restored.c_lflag, original_.c_lflag);
  EXPECT_EQ(restored.c_cc[VMIN], original_.c_cc[VMIN]);
  // Hidden at start; never started, so no home; shown again on the way out,
  // once by the explicit call and once by the destructor.
  EXPECT_EQ(out, std::string(kHide) + Repeat("\x1b[0B\n\x1b[?25h", 2));
}

TEST_F(PtyTest, FirstRefreshClearsThenDraws) {
  std::uint32_t width = 0;
  std::uint64_t limit = 0;
  int calls = 0;
  int results[2] = {-1, -1};
  const std::string out = Run([&] {
    TerminalDisplay display(false);
    display.SetDrawCallback([&] {
      ++calls;
      width = display.Width();
      limit = display.LineLimit();
      display.PrintLine("frame");
      display.EraseRest();
      display.CursorUp(display.Line());
      return 7;
    });
    results[0] = display.Refresh();
    results[1] = display.Refresh();
    // Started: home, then below the one-line frame; the destructor repeats it.
    display.RestoreTerminal();
  });
  EXPECT_EQ(calls, 2);
  EXPECT_EQ(results[0], 7);
  EXPECT_EQ(results[1], 7);
  EXPECT_EQ(width, 80u);
  EXPECT_EQ(limit, 22u);
  EXPECT_EQ(out, std::string(kHide) + kClear + "frame\n\x1b[1A" + "frame\n\x1b[1A" +
                     "\x1b[H\x1b[1B\n\x1b[?25h" + "\x1b[H\x1b[1B\n\x1b[?25h");
}

struct SizeCase {
  unsigned short rows;
  unsigned short columns;
  bool drawable;
  std::uint32_t width;
  std::uint64_t line_limit;
};

class WindowSizeTest : public PtyTest, public ::testing::WithParamInterface<SizeCase> {};

TEST_P(WindowSizeTest, SizesFromWindow) {
  const SizeCase& c = GetParam();
  SetSize(c.rows, c.columns);
  bool drawable = false;
  int refreshed = -1;
  bool drawn = false;
  std::uint32_t width = 0;
  std::uint64_t limit = 0;
  const std::string out = Run([&] {
    TerminalDisplay display(false);
    drawable = display.UpdateWindowSize();
    width = display.Width();
    limit = display.LineLimit();
    display.SetDrawCallback([&] {
      drawn = true;
      return 5;
    });
    refreshed = display.Refresh();
    display.Flush();
  });
  EXPECT_EQ(drawable, c.drawable);
  EXPECT_EQ(width, c.width);
  EXPECT_EQ(limit, c.line_limit);
  EXPECT_EQ(drawn, c.drawable);
  EXPECT_EQ(refreshed, c.drawable ? 5 : 0);
  const std::string expected_start = std::string(kHide) + (c.drawable ? kClear : "\x1b[0B");
  EXPECT_EQ(out.substr(0, expected_start.size()), expected_start);
}

INSTANTIATE_TEST_SUITE_P(
    Table, WindowSizeTest,
    ::testing::Values(SizeCase{24, 80, true, 80, 22}, SizeCase{24, 500, true, 446, 22},
                      SizeCase{24, 10, true, 10, 22}, SizeCase{24, 9, false, 9, 22},
                      SizeCase{5, 80, true, 80, 3}, SizeCase{4, 80, false, 80, 2}));

std::string Numbered(int count) {
  std::string out;
  for (int i = 0; i < count; ++i) out += (i < 10 ? "0" : "") + std::to_string(i) + "\n";
  return out;
}

TEST_F(PtyTest, FramesWriteOnlyWhatFits) {
  const std::string abc = "0123456789abcdefghijklmnopqrstuvwxyz";
  const struct {
    const char* label;
    unsigned short rows, columns;
    std::function<std::uint32_t(TerminalDisplay&)> draw;  // returns a count to check
    std::string expected_start;                           // after the cursor is hidden
    std::uint32_t count;
  } cases[] = {
      // Lines beyond the limit of 22 are counted, not written.
      {"limit", 24, 80,
       [](TerminalDisplay& d) {
         for (int i = 0; i < 25; ++i) d.PrintLine("%02d", i);
         d.PrintHighlighted("hidden");
         return d.Line();
       },
       Numbered(23) + "\x1b[m", 25},
      // A 30-line frame after a 35-line one erases the 5 leftover rows, then goes up 35.
      {"shorter", 60, 80,
       [](TerminalDisplay& d) {
         for (int i = 0; i < 35; ++i) d.PrintLine("a");
         d.EraseRest();
         d.CursorUp(d.Line());
         for (int i = 0; i < 30; ++i) d.PrintLine("b");
         d.EraseRest();
         const std::uint32_t prev = d.PrevLines();
         d.CursorUp(d.Line());
         return prev;
       },
       Repeat("a\n", 35) + "\x1b[35A" + Repeat("b\n", 30) + Repeat("\x1b[K\x1b[1B", 5) + "\x1b[35A",
       35},
      // Text is cut to the width; highlighted text loses four more columns.
      {"width", 24, 20,
       [&](TerminalDisplay& d) {
         d.PrintLine("%s", abc.c_str());
         d.Print("%s", abc.c_str());
         d.PrintHighlighted("%s", abc.c_str());
         return d.Line();
       },
       abc.substr(0, 20) + "\n" + abc.substr(0, 20) + "\x1b[7m" + abc.substr(0, 16) + "\x1b[m", 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    SetSize(c.rows, c.columns);
    std::uint32_t count = 0;
    const std::string out = Run([&] {
      TerminalDisplay display(false);
      display.UpdateWindowSize();
      count = c.draw(display);
      display.Flush();
    });
    const std::string expected = kHide + c.expected_start;
    EXPECT_EQ(out.substr(0, expected.size()), expected);
    EXPECT_EQ(count, c.count);
  }
}

struct KeyCase {
  const char* keys;
  bool keep_running;
};

class PtyKeyTest : public PtyTest, public ::testing::WithParamInterface<KeyCase> {};

TEST_P(PtyKeyTest, RawKeys) {
  bool result = false;
  Run([&] {
    TerminalDisplay display(false);
    Type(GetParam().keys);
    result = display.HandleKey();
  });
  EXPECT_EQ(result, GetParam().keep_running) << static_cast<int>(GetParam().keys[0]);
}

// With ISIG off the terminal's own interrupt (^C), end-of-file (^D) and
// suspend (^Z) characters arrive as bytes and quit.
INSTANTIATE_TEST_SUITE_P(Table, PtyKeyTest,
                         ::testing::Values(KeyCase{"q", false}, KeyCase{"Q", false},
                                           KeyCase{"x", true}, KeyCase{"\x03", false},
                                           KeyCase{"\x04", false}, KeyCase{"\x1a", false}));

// Batch mode never reads the terminal's settings, so its saved characters are
// all NUL.
bool BatchKey(const std::string& input) {
  int fds[2];
  if (pipe(fds) != 0) return false;
  if (!input.empty() && write(fds[1], input.data(), input.size()) < 0) return false;
  close(fds[1]);
  bool result = false;
  {
    ScopedStdio stdio(fds[0], 1);
    TerminalDisplay display(true);
    result = display.HandleKey();
  }
  close(fds[0]);
  return result;
}

TEST(BatchKeyTest, NulQuitsLikeTheSavedInterruptCharacter) {
  EXPECT_FALSE(BatchKey(std::string(1, '\0')));
  EXPECT_FALSE(BatchKey("Q"));
  EXPECT_FALSE(BatchKey("q"));
  EXPECT_TRUE(BatchKey("x"));
  EXPECT_TRUE(BatchKey("\x03"));
  // End of input keeps running.
  EXPECT_TRUE(BatchKey(""));
}

TEST(BatchOutputTest, WritesNoEscapeSequenceAndNeverCuts) {
  std::FILE* sink = std::tmpfile();
  ASSERT_NE(sink, nullptr);
  const std::string long_text(600, 'w');
  std::uint32_t line = 0;
  std::uint32_t prev = 0;
  int results[2] = {-1, -1};
  {
    ScopedStdio stdio(0, fileno(sink));
    TerminalDisplay display(true);
    display.SetDrawCallback([&] {
      display.PrintLine("frame %d", 1);
      display.Print("|");
      display.PrintHighlighted("%s", "head");
      display.PrintLine("|");
      display.PrintLine("%s", long_text.c_str());
      display.EraseRest();
      display.CursorUp(display.Line());
      return display.Flush();
    });
    for (int i = 0; i < 30; ++i) display.PrintLine("x");
    results[0] = display.Refresh();
    results[1] = display.Refresh();
    display.ClearScreen();
    display.CursorDown(3);
    display.RestoreTerminal();
    line = display.Line();
    prev = display.PrevLines();
  }
  std::fseek(sink, 0, SEEK_SET);
  std::string out;
  char buffer[4096];
  for (std::size_t got; (got = std::fread(buffer, 1, sizeof(buffer), sink)) > 0;) {
    out.append(buffer, got);
  }
  std::fclose(sink);
  const std::string frame = "frame 1\n|head|\n" + long_text.substr(0, 447) + "\n";
  EXPECT_EQ(out, Repeat("x\n", 30) + frame + frame);
  EXPECT_EQ(results[0], 0);
  EXPECT_EQ(results[1], 0);
  EXPECT_EQ(line, 36u);
  EXPECT_EQ(prev, 36u);
}

}  // namespace
}  // namespace kestro::zqp::monitor
