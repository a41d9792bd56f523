#include "monitors/ddr_monitor.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>
#include <utmp.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <thread>

#include "base/board_path.h"
#include "base/decimal.h"
#include "base/fatal_signals.h"
#include "base/log.h"
#include "base/process_setup.h"
#include "monitors/text_fields.h"

namespace kestro::zqp::monitors {
namespace {

static_assert(std::atomic_ref<std::uint64_t>::is_always_lock_free);

// The tool's lines were always read with fgets into a 512-byte buffer with a
// size of 511: at most 510 characters per line, a longer one arriving in
// pieces of 510.
constexpr std::size_t kMaxLineChars = 510;
constexpr int kReapPollMs = 5;

std::int64_t SteadyMs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// Reads at most max_chars characters of the first line, without its '\n'.
std::string ReadFirstLine(std::FILE* file, std::size_t max_chars) {
  std::string line;
  while (line.size() < max_chars) {
    const int c = std::fgetc(file);
    if (c == EOF || c == '\n') break;
    line.push_back(static_cast<char>(c));
  }
  return line;
}

}  // namespace

bool ChooseFirstYpuPort(bool batch) {
  const std::string soc_path = base::BoardPath("/sys/class/boardinfo/soc_name");
  if (std::FILE* soc = std::fopen(soc_path.c_str(), "re")) {
    const std::string prefix = ReadFirstLine(soc, 3);
    std::fclose(soc);
    return prefix == "K4X" || prefix == "k4x";
  }
  base::LogBatchError(batch, "Get board info failed, error:%s\n\n", std::strerror(errno));
  const std::string core_path = base::BoardPath("/sys/devices/system/ypu/core_num");
  std::FILE* cores = std::fopen(core_path.c_str(), "re");
  if (cores == nullptr) {
    base::LogBatchError(batch, "Get ypu core num failed, error:%s\n\n", std::strerror(errno));
    return false;
  }
  // Two characters are enough to tell "4" from every other first line.
  const std::string count = ReadFirstLine(cores, 2);
  std::fclose(cores);
  return count == "4";
}

std::string BuildDdrCommand(bool first_port) {
  std::string command = "plox_ddr -t ";
  command += first_port ? "ypu_p0 " : "ypu ";
  command += "-p ";
  command += std::to_string(100000);
  command += " -n 2 ";
  return command;
}

bool DDRMonitor::UseFirstYpuPort(bool batch) {
  static const bool use_first_port = ChooseFirstYpuPort(batch);
  return use_first_port;
}

DDRMonitor::DDRMonitor(const monitor::MonitorConfig& config,
                       const std::shared_ptr<runner::WatchTaskRunner>& runner_in)
    : monitor::MonitorBase(config, runner_in),
      read_bw(2, 0),
      write_bw(2, 0),
      command(BuildDdrCommand(UseFirstYpuPort(config.batch))) {
  std::vector<std::function<void()>> worker;
  worker.emplace_back([this] { Run(); });
  SetTasks(std::move(worker));
  ready.store(true);
}

DDRMonitor::~DDRMonitor() {
  Stop();
  JoinThreads();
}

void DDRMonitor::Stop() {
  if (stop.load()) return;
  monitor::MonitorBase::Stop();
  ClosePty();
}

void DDRMonitor::ClosePty() {
  std::lock_guard<std::mutex> lock(pty_mutex);
  if (wake_fd >= 0) {
    const std::uint64_t one = 1;
    // Cannot fail short of overflowing the counter; a wake-up is all it means.
    [[maybe_unused]] const ssize_t written = write(wake_fd, &one, sizeof one);
  }
  if (pty_fd <= 0) return;
  // Closing the master does not wake a read() blocked on it in another thread:
  // the reader holds its own reference, so the kernel hangs up the tool only
  // when that read returns, which a quiet tool may never let happen. Sending
  // the hang-up ourselves ends the tool, the slave side closes and the read
  // fails with EIO. forkpty made the child a session and group leader; before
  // it gets there the group does not exist yet, so signal the child itself.
  if (child_pid > 0 && kill(-child_pid, SIGHUP) != 0) kill(child_pid, SIGHUP);
  close(pty_fd);
  pty_fd = -1;
  child_pid = 0;
}

DdrLineResult DDRMonitor::ParseLine(const char* line) {
  if (line[0] == '-') return DdrLineResult::kIgnored;
  const std::vector<std::string_view> fields = SplitFields(line, '|');
  if (fields.size() < 3) return DdrLineResult::kIgnored;
  std::vector<std::uint64_t>* target = nullptr;
  DdrLineResult stored = DdrLineResult::kIgnored;
  if (fields.front() == "Read") {
    target = &read_bw;
    stored = DdrLineResult::kRead;
  } else if (fields.front() == "Write") {
    target = &write_bw;
    stored = DdrLineResult::kWrite;
  } else {
    return DdrLineResult::kIgnored;
  }
  const std::optional<std::uint64_t> value = base::ParseDigits(fields.back());
  if (!value) {
    base::LogBatchVerbose(batch, "Invalid data format, get: %s\n", line);
    return DdrLineResult::kInvalid;
  }
  std::atomic_ref<std::uint64_t>((*target)[0]).store(*value, std::memory_order_relaxed);
  last_figure_ms.store(SteadyMs(), std::memory_order_relaxed);
  return stored;
}

std::uint64_t DDRMonitor::ReadBandwidth() const {
  return std::atomic_ref<std::uint64_t>(const_cast<std::uint64_t&>(read_bw[0]))
      .load(std::memory_order_relaxed);
}

std::uint64_t DDRMonitor::WriteBandwidth() const {
  return std::atomic_ref<std::uint64_t>(const_cast<std::uint64_t&>(write_bw[0]))
      .load(std::memory_order_relaxed);
}

bool DDRMonitor::IsAnswering(std::int64_t within_ms) const {
  if (!tool_running.load(std::memory_order_relaxed)) return false;
  const std::int64_t last = last_figure_ms.load(std::memory_order_relaxed);
  return last >= 0 && SteadyMs() - last <= within_ms;
}

void DDRMonitor::EndToolNow() {
  // No grace here: waiting in the handler would let the worker run on and
  // exit its thread while the process is being killed by the signal, a race
  // the program never had before. The hang-up Stop just sent is all the
  // notice a dying program can give.
  const pid_t group = tool_group.load();
  if (group > 0 && kill(-group, SIGKILL) != 0) kill(group, SIGKILL);
}

void DDRMonitor::Run() {
  // forkpty, spelled out: the child must drop the program's signal handling
  // before it touches the terminal. A stop right after the start hangs the
  // tool up before it is running; with the hang-up's default action restored
  // first, the child dies by that signal (not an error) instead of failing
  // to take a terminal whose master is already closed (an exit status of 1
  // that would read as a failed tool).
  int master = -1;
  int slave = -1;
  if (openpty(&master, &slave, nullptr, nullptr, nullptr) != 0) {
    base::LogBatchError(batch, "Create pty failed, error:%s\n\n", std::strerror(errno));
    ready.store(false);
    return;
  }
  const pid_t pid = fork();
  if (pid < 0) {
    base::LogBatchError(batch, "Create pty failed, error:%s\n\n", std::strerror(errno));
    close(master);
    close(slave);
    ready.store(false);
    return;
  }
  if (pid == 0) {
    base::ResetSignalsForChild();
    base::RestoreLimitsForChild();
    close(master);
    if (login_tty(slave) != 0) _exit(1);
    // The slave is now the standard streams, so the message below reaches the
    // parent through the pseudo-terminal, as the tool's own messages do.
    execlp("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
    base::LogBatchError(batch, "Run cmd:%s failed, error:%s\n", command.c_str(),
                        std::strerror(errno));
    _exit(1);
  }
  close(slave);

  fcntl(master, F_SETFD, FD_CLOEXEC);
  // The worker reads a duplicate so that ClosePty, possibly on another thread,
  // never closes the descriptor being read: the number could be reused by
  // another open before the reader closed it a second time.
  const int read_fd = fcntl(master, F_DUPFD_CLOEXEC, 1);
  const int wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  {
    std::lock_guard<std::mutex> lock(pty_mutex);
    pty_fd = master;
    child_pid = pid;
    wake_fd = wake;
  }
  tool_group.store(pid);
  // A Stop that ran before the descriptors were stored found nothing to wake;
  // the flag it set first is seen by the loop, and the ClosePty below hangs
  // the tool up.
  if (read_fd > 0 && wake >= 0) {
    tool_running.store(true, std::memory_order_relaxed);
    ReadLines(read_fd, wake);
    tool_running.store(false, std::memory_order_relaxed);
  }

  ClosePty();
  {
    std::lock_guard<std::mutex> lock(pty_mutex);
    wake_fd = -1;
  }
  if (wake >= 0) close(wake);
  // The duplicate is the last reference to the master; dropping it lets the
  // kernel hang up the terminal, so a tool blocked writing to it wakes.
  if (read_fd > 0) close(read_fd);

  int status = 0;
  if (ReapTool(pid, status) < 0) {
    base::LogBatchError(batch, "Wait subprocess exit failed, error:%s\n", std::strerror(errno));
    return;
  }
  if (exit_observer && !stop.load()) exit_observer(status);
  if (!WIFSIGNALED(status) && status != 0) {
    ready.store(false);
    base::LogBatchVerbose(batch,
                          "Run command:%s failed, exit status:%d, please check the previous log\n",
                          command.c_str(), WEXITSTATUS(status));
  }
}

void DDRMonitor::ReadLines(int read_fd, int wake) {
  std::string line;
  line.reserve(kMaxLineChars + 1);
  char chunk[512];
  pollfd waits[2] = {{read_fd, POLLIN, 0}, {wake, POLLIN, 0}};
  while (!stop.load()) {
    if (poll(waits, 2, -1) < 0) {
      if (errno == EINTR) continue;
      return;
    }
    if (waits[1].revents != 0) return;
    const ssize_t got = read(read_fd, chunk, sizeof chunk);
    if (got < 0 && errno == EINTR) continue;
    // Once the tool and every child of it closed the terminal, the master
    // reads EIO rather than end of file. Like fgets, a read error drops an
    // unfinished line; only a true end of file delivers it.
    if (got < 0) return;
    if (got == 0) {
      if (!line.empty()) TakeLine(line);
      return;
    }
    for (ssize_t i = 0; i < got; ++i) {
      line.push_back(chunk[i]);
      if (chunk[i] == '\n' || line.size() == kMaxLineChars) {
        TakeLine(line);
        line.clear();
      }
    }
  }
}

void DDRMonitor::TakeLine(const std::string& line) {
  if (line_observer) line_observer(line);
  // An embedded NUL ends the line for the parser, as it did for fgets'
  // caller.
  ParseLine(line.c_str());
}

pid_t DDRMonitor::ReapTool(pid_t pid, int& status) {
  // Waiting without reaping keeps the tool's number, and so its process group,
  // from being reused while the group is killed below.
  for (int waited = 0; waited < kToolGraceMs; waited += kReapPollMs) {
    siginfo_t info{};
    const int rc = waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT);
    if (rc == 0 && info.si_pid == pid) break;
    if (rc != 0 && errno != EINTR) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(kReapPollMs));
  }
  // A tool that ignores the hang-up, or a child of it still holding the
  // terminal, goes now. The group's leader is the tool's shell; until the
  // child has made its group, only the child itself can be reached.
  if (kill(-pid, SIGKILL) != 0) kill(pid, SIGKILL);
  // Still unreaped, so the number cannot have been reused by now.
  tool_group.store(0);
  pid_t waited = -1;
  do {
    waited = waitpid(pid, &status, 0);
  } while (waited < 0 && errno == EINTR);
  return waited;
}

}  // namespace kestro::zqp::monitors
