#include "display/terminal_display.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <limits>
#include <utility>

namespace kestro::zqp::display {
namespace {

constexpr char kCursorHome[] = "\x1b[H";
constexpr char kClearToEnd[] = "\x1b[0J";
constexpr char kEraseLine[] = "\x1b[K";
constexpr char kReverseVideo[] = "\x1b[7m";
constexpr char kAttributesOff[] = "\x1b[m";
constexpr char kHideCursor[] = "\x1b[?25l";
constexpr char kShowCursor[] = "\x1b[?25h";
constexpr std::size_t kReverseVideoLength = sizeof(kReverseVideo) - 1;

// Capped below the line buffer so that a full-width line always fits.
constexpr std::uint32_t kMaxWidth = 446;

void Write(const char* sequence) {
  std::fputs(sequence, stdout);
}

}  // namespace

TerminalDisplay::TerminalDisplay(bool batch) : batch_(batch) {
  if (batch) {
    line_limit_ = std::numeric_limits<std::uint64_t>::max();
    return;
  }
  EnterRawMode();
}

TerminalDisplay::~TerminalDisplay() {
  RestoreTerminal();
}

void TerminalDisplay::EnterRawMode() {
  tcgetattr(0, &saved_termios_);
  raw_termios_ = saved_termios_;
  // With ISIG off the interrupt, end-of-file and suspend keys arrive as bytes
  // and HandleKey turns them into a quit, so the terminal is always restored.
  raw_termios_.c_lflag &= ~static_cast<tcflag_t>(ISIG | ICANON | ECHO | ECHONL);
  raw_termios_.c_cc[VTIME] = 0;
  raw_termios_.c_cc[VMIN] = 1;
  tcsetattr(0, TCSANOW, &raw_termios_);
  Write(kHideCursor);
  Flush();
}

bool TerminalDisplay::UpdateWindowSize() {
  if (batch_) return true;
  winsize size{};
  ioctl(1, TIOCGWINSZ, &size);
  width_ = std::min<std::uint32_t>(size.ws_col, kMaxWidth);
  if (size.ws_row > 2) {
    // The last row stays free so that a full frame never scrolls the screen.
    line_limit_ = size.ws_row - 2u;
    return size.ws_col > 9 && size.ws_row > 4;
  }
  line_limit_ = 0;
  return false;
}

void TerminalDisplay::ClearScreen() {
  if (batch_) return;
  Write(kCursorHome);
  Write(kClearToEnd);
}

void TerminalDisplay::CursorUp(std::uint32_t n) {
  if (batch_) return;
  std::fprintf(stdout, "\x1b[%uA", n);
  line_ -= n;
}

void TerminalDisplay::CursorDown(std::uint32_t n) {
  if (batch_) return;
  std::fprintf(stdout, "\x1b[%uB", n);
  line_ += n;
}

void TerminalDisplay::NewLine() {
  std::fputc('\n', stdout);
  ++line_;
}

void TerminalDisplay::EraseRest() {
  const std::uint32_t end = prev_lines_;
  for (std::uint32_t i = line_; i < end; ++i) {
    Write(kEraseLine);
    CursorDown(1);
  }
  prev_lines_ = line_;
}

void TerminalDisplay::VWriteClipped(const char* format, va_list args) {
  if (line_ > line_limit_) return;
  std::vfprintf(stdout, format, args);
}

void TerminalDisplay::WriteClipped(const char* format, ...) {
  va_list args;
  va_start(args, format);
  VWriteClipped(format, args);
  va_end(args);
}

void TerminalDisplay::Print(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::vsnprintf(line_buffer_, sizeof(line_buffer_), format, args);
  va_end(args);
  WriteClipped("%.*s", static_cast<int>(width_), line_buffer_);
}

void TerminalDisplay::PrintLine(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::vsnprintf(line_buffer_, sizeof(line_buffer_), format, args);
  va_end(args);
  WriteClipped("%.*s\n", static_cast<int>(width_), line_buffer_);
  ++line_;
}

void TerminalDisplay::PrintHighlighted(const char* format, ...) {
  va_list args;
  va_start(args, format);
  if (batch_) {
    std::vsnprintf(line_buffer_, sizeof(line_buffer_), format, args);
    va_end(args);
    WriteClipped("%.*s", static_cast<int>(width_), line_buffer_);
    return;
  }
  std::memcpy(line_buffer_, kReverseVideo, kReverseVideoLength);
  std::vsnprintf(line_buffer_ + kReverseVideoLength, sizeof(line_buffer_) - kReverseVideoLength,
                 format, args);
  va_end(args);
  WriteClipped("%.*s", static_cast<int>(width_), line_buffer_);
  Write(kAttributesOff);
}

int TerminalDisplay::Flush() {
  return std::fflush(stdout);
}

void TerminalDisplay::SetDrawCallback(std::function<int()> callback) {
  draw_callback_ = std::move(callback);
}

int TerminalDisplay::Refresh() {
  if (!UpdateWindowSize()) return 0;
  if (!started_) {
    ClearScreen();
    started_ = true;
  }
  return draw_callback_();
}

void TerminalDisplay::RestoreTerminal() {
  if (batch_) return;
  if (started_) Write(kCursorHome);
  CursorDown(prev_lines_);
  NewLine();
  Write(kShowCursor);
  Flush();
  tcsetattr(0, TCSANOW, &saved_termios_);
}

std::int32_t TerminalDisplay::ReadChar() {
  unsigned char c = 0;
  for (;;) {
    // Cleared first so that end of input is not mistaken for a stale EAGAIN
    // by HandleKey.
    errno = 0;
    const ssize_t got = read(0, &c, 1);
    if (got == 1) return c;
    if (got < 0 && errno == EINTR) continue;
    if (got == 0) input_ended_ = true;
    return -1;
  }
}

bool TerminalDisplay::HandleKey() {
  for (;;) {
    const std::int32_t c = ReadChar();
    if (c == -1) {
      if (errno == EAGAIN) continue;
      return true;
    }
    if (c == saved_termios_.c_cc[VINTR] || c == saved_termios_.c_cc[VEOF] ||
        c == saved_termios_.c_cc[VSUSP]) {
      return false;
    }
    return (c | 0x20) != 'q';
  }
}

}  // namespace kestro::zqp::display
