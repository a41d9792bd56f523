// Terminal state of the interactive report: raw keyboard input, hidden cursor,
// lines clipped to the window, frames redrawn in place by moving the cursor
// back up. In batch mode it touches nothing: no raw mode, no escape sequence,
// no clipping by height, frames simply follow one another.
//
// Output goes to stdout (the FILE), terminal settings are those of descriptor
// 0 and the window size is that of descriptor 1. Results of the terminal calls
// are not checked: a failing tcgetattr leaves zero settings that are applied
// anyway, a failing size query suppresses drawing, write errors are ignored.
// Every operation runs on the application's event thread; `started` and
// `batch` are atomics only so that other threads may read them.
#pragma once

#include <termios.h>

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <functional>

namespace kestro::zqp::display {

class TerminalDisplay {
 public:
  // Interactive mode enters raw mode and hides the cursor; batch mode sets
  // the line limit to all ones and does nothing else.
  explicit TerminalDisplay(bool batch);
  // RestoreTerminal, then the callback is destroyed.
  ~TerminalDisplay();
  TerminalDisplay(const TerminalDisplay&) = delete;
  TerminalDisplay& operator=(const TerminalDisplay&) = delete;

  // Saves the settings of descriptor 0, clears ISIG, ICANON, ECHO and ECHONL,
  // sets VMIN 1 and VTIME 0, applies them and hides the cursor.
  void EnterRawMode();

  // Batch: true. Otherwise reads the window size of descriptor 1: width is the
  // columns capped at 446, the line limit rows - 2 (0 for 2 rows or fewer).
  // False when the window has 9 columns or fewer, 4 rows or fewer, or the
  // query fails.
  bool UpdateWindowSize();

  // Cursor home and clear to end of screen; nothing in batch mode.
  void ClearScreen();
  // Moves the cursor and adjusts the line count by n; nothing in batch mode.
  void CursorUp(std::uint32_t n);
  void CursorDown(std::uint32_t n);
  // One newline and one more line, in every mode.
  void NewLine();
  // Erases the rows that the previous, longer frame left below the cursor and
  // records the resulting line count as the previous frame's.
  void EraseRest();

  // vfprintf to stdout unless the current line is past the line limit.
  void WriteClipped(const char* format, ...) __attribute__((format(printf, 2, 3)));
  // Formats into the 448-byte line buffer and writes at most Width()
  // characters of it; the line count is unchanged.
  void Print(const char* format, ...) __attribute__((format(printf, 2, 3)));
  // As Print followed by a newline; the line counts even when clipped away.
  void PrintLine(const char* format, ...) __attribute__((format(printf, 2, 3)));
  // As Print in reverse video. The 4 bytes of the reverse-video sequence count
  // against the width, so the text shows Width() - 4 characters; the
  // attributes-off sequence follows even when the line itself was suppressed.
  void PrintHighlighted(const char* format, ...) __attribute__((format(printf, 2, 3)));

  // fflush(stdout)'s result.
  int Flush();

  void SetDrawCallback(std::function<int()> callback);
  // 0 without drawing when UpdateWindowSize fails. Otherwise clears the
  // screen on the first frame and returns the callback's result; an empty
  // callback throws std::bad_function_call.
  int Refresh();

  // Interactive mode only: moves the cursor below the last frame, shows the
  // cursor and restores the saved settings. Safe to repeat.
  void RestoreTerminal();

  // One byte from descriptor 0 (0 to 255), retrying on EINTR; -1 at end of
  // input (errno 0) or on another error (errno set).
  std::int32_t ReadChar();
  // Reads one key: false (quit) for the saved interrupt, end-of-file and
  // suspend characters and for 'q' and 'Q'; true for any other key and at end
  // of input or on a read error other than EAGAIN (which reads again).
  bool HandleKey();

  // True once a read of standard input met its end: no key can arrive any
  // more, so the caller may stop watching the descriptor.
  bool InputEnded() const { return input_ended_; }

  std::uint32_t Line() const { return line_; }
  std::uint32_t PrevLines() const { return prev_lines_; }
  std::uint32_t Width() const { return width_; }
  std::uint64_t LineLimit() const { return line_limit_; }

 private:
  static constexpr std::size_t kLineBufferSize = 448;

  void VWriteClipped(const char* format, va_list args);

  std::function<int()> draw_callback_;
  termios saved_termios_{};
  termios raw_termios_{};
  char line_buffer_[kLineBufferSize] = {};
  std::atomic<bool> started_{false};
  std::atomic<bool> batch_;
  // Highest line index still written in this frame.
  std::uint64_t line_limit_ = 0;
  std::uint32_t width_ = kLineBufferSize - 1;
  // Lines written or counted since the cursor last went back to the top.
  std::uint32_t line_ = 0;
  std::uint32_t prev_lines_ = 0;
  bool input_ended_ = false;
};

}  // namespace kestro::zqp::display
