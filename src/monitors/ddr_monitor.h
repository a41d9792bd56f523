// DDR read and write bandwidth, taken from the board's measurement tool
// plox_ddr, which runs as a child process on a pseudo-terminal while one worker
// thread reads and parses its output lines.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "monitor/monitor_base.h"

namespace kestro::zqp::monitors {

// The DDR figures as a frame or a record takes them: the report draws no DDR
// box while not ready.
struct DdrFigures {
  bool ready = false;
  // The tool runs and has answered lately, so the figures are current rather
  // than the last ones it printed. The report draws them either way.
  bool live = false;
  std::uint32_t read = 0;
  std::uint32_t write = 0;
};

// Decides which accelerator port the tool measures: true when the first line
// of soc_name starts with "K4X" or "k4x"; when soc_name cannot be opened, true
// when the first line of the accelerator's core_num is exactly "4". Both files
// are read through BoardPath. False when neither opens, after
// "Get board info failed..." and "Get ypu core num failed..." (both printed
// only when batch is set, at log level <= 1). Reads the files on every call.
bool ChooseFirstYpuPort(bool batch);

// The shell command line that runs the tool: "plox_ddr -t ypu_p0 -p 100000
// -n 2 " when first_port, otherwise the same with "ypu". Note the trailing
// blank, which is part of the command as it appears in messages.
std::string BuildDdrCommand(bool first_port);

// What ParseLine did with one line of the tool's output.
enum class DdrLineResult {
  kIgnored,  // ruling line, fewer than 3 fields, or another first field
  kRead,     // the read figure was stored
  kWrite,    // the write figure was stored
  kInvalid,  // a Read or Write row whose last field is not a whole number
};

// Monitor with one worker task, which runs the tool once per Start and ends
// when the tool closes its output, reading fails, or Stop wakes it. The stop
// is bounded: the tool is hung up, given kToolGraceMs to go, and then its
// whole process group is killed and the tool reaped, so a tool that ignores
// the hang-up and stays silent neither keeps the monitor from ending nor
// outlives it.
// Failures do not throw: a failed forkpty or a non-zero exit of the tool
// clears the ready flag (so the report drops the DDR box and Start no longer
// starts it); a tool ended by a signal, as on Stop, keeps it.
//
// Thread use: the worker writes the figures and ready; ReadBandwidth,
// WriteBandwidth and IsReady may be called from any thread at any time. Stop
// may run on any thread, concurrently with the worker. ParseLine is for the
// worker (and for tests on a monitor that is not running).
class DDRMonitor : public monitor::MonitorBase {
 public:
  // Builds the command from UseFirstYpuPort(config.batch), installs the worker
  // as the only task and sets ready. Never fails.
  explicit DDRMonitor(const monitor::MonitorConfig& config,
                      const std::shared_ptr<runner::WatchTaskRunner>& runner = nullptr);
  // Stop, then join the worker.
  ~DDRMonitor() override;

  // How long a hung-up tool may take to end before its group is killed.
  static constexpr int kToolGraceMs = 300;

  // Called on the worker with every line of the tool's output as it arrived
  // (newline included; cut as ParseLine gets it), before ParseLine. Set
  // before Start; the capture keeps the lines the monitor would parse.
  void SetLineObserver(std::function<void(std::string_view)> observer) {
    line_observer = std::move(observer);
  }
  // Called on the worker with the tool's wait status when it ended by itself
  // (not hung up by Stop). Set before Start.
  void SetExitObserver(std::function<void(int)> observer) { exit_observer = std::move(observer); }

  // When not already stopped: sets the stop flag, then ClosePty. Does not
  // join and never blocks, so a fatal-signal handler may call it.
  void Stop() override;
  // Under the mutex: wakes the worker's wait for output, and when the
  // pseudo-terminal is open (> 0) hangs up the tool's process group, closes
  // the master and stores -1. Safe from any thread, any number of times.
  void ClosePty();

  // Parses one NUL-terminated output line, line end included. Lines starting
  // with '-' and lines with fewer than 3 '|'-separated fields are ignored; a
  // first field of exactly "Read" or "Write" stores the last field into that
  // figure when it is a whole number; otherwise the figure is kept and
  // "Invalid data format, get: <line>" is printed (batch and log level 0).
  DdrLineResult ParseLine(const char* line);

  // Latest figures in MiB/s; 0 until the tool printed one.
  std::uint64_t ReadBandwidth() const;
  std::uint64_t WriteBandwidth() const;
  // True while the tool runs and has stored a figure within the last
  // within_ms milliseconds: the figures above are current, not the last
  // ones of a tool that ended or went quiet. Any thread.
  bool IsAnswering(std::int64_t within_ms) const;

  // For a fatal signal's handler, after Stop: kills what is left of the
  // tool's process group at once, so that a tool ignoring the hang-up does not
  // outlive the program, which is about to die without joining the worker.
  // Async-signal-safe.
  void EndToolNow();
  const std::string& Command() const { return command; }

  // ChooseFirstYpuPort computed by the first caller in the process (with that
  // caller's batch flag) and cached for the process's lifetime. Thread-safe.
  static bool UseFirstYpuPort(bool batch);

 private:
  // The worker task: runs the tool once and reads it to the end.
  void Run();
  // Reads the tool's output line by line, as fgets with a 511-byte size would
  // cut it, until end of output, a read error or a wake-up from ClosePty.
  void ReadLines(int read_fd, int wake);
  // Hands a line to the observer, then to ParseLine.
  void TakeLine(const std::string& line);
  std::function<void(std::string_view)> line_observer;
  std::function<void(int)> exit_observer;
  // Waits up to kToolGraceMs for the tool to end, kills what is left of its
  // process group and reaps it. Returns waitpid's result; status is set.
  pid_t ReapTool(pid_t pid, int& status);

  // Element 0 holds the figure, element 1 is never written. Accessed only
  // through relaxed std::atomic_ref: the report reads them without a lock.
  std::vector<std::uint64_t> read_bw;
  std::vector<std::uint64_t> write_bw;
  // Master side of the pseudo-terminal, -1 when none; guarded by pty_mutex
  // together with child_pid.
  int pty_fd = -1;
  // The tool's shell (and process group leader) while pty_fd is open, else 0.
  pid_t child_pid = 0;
  // Event descriptor the worker waits on beside the tool's output while it
  // runs, else -1.
  int wake_fd = -1;
  std::mutex pty_mutex;
  std::string command;
  // The tool's process group from fork until the worker has killed it;
  // 0 otherwise. Read by EndToolNow without the mutex.
  std::atomic<pid_t> tool_group{0};
  // Set while the worker reads a running tool.
  std::atomic<bool> tool_running{false};
  // Steady-clock milliseconds of the last stored figure, -1 before the first.
  std::atomic<std::int64_t> last_figure_ms{-1};
};

}  // namespace kestro::zqp::monitors
