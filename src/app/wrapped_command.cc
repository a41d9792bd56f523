#include "app/wrapped_command.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/log.h"
#include "base/process_descriptor.h"
#include "base/process_setup.h"

namespace kestro::zqp::app {

WrappedCommand::~WrappedCommand() {
  if (pidfd >= 0) close(pidfd);
}

int WrappedCommand::Start(const std::vector<std::string>& argv, const sigset_t& ignored) {
  std::vector<char*> args;
  for (const std::string& word : argv) args.push_back(const_cast<char*>(word.c_str()));
  args.push_back(nullptr);
  // Carries exec's errno back; closed by a successful exec.
  int report[2];
  if (pipe2(report, O_CLOEXEC) != 0) {
    LogError("kvt_zqp_record: cannot run '%s': %s\n", argv[0].c_str(), std::strerror(errno));
    return 126;
  }
  // Every signal stays blocked from the fork until the child has put its
  // dispositions back, so none of the recorder's handlers runs in the child.
  sigset_t all, previous;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &previous);
  started = std::chrono::steady_clock::now();
  const pid_t child = fork();
  if (child == 0) {
    for (int sig = 1; sig < NSIG; ++sig) {
      struct sigaction action {};
      if (sigismember(&ignored, sig) == 1) {
        action.sa_handler = SIG_IGN;
        sigaction(sig, &action, nullptr);
      } else if (sigaction(sig, nullptr, &action) == 0 && action.sa_handler != SIG_DFL) {
        action = {};
        action.sa_handler = SIG_DFL;
        sigaction(sig, &action, nullptr);
      }
    }
    // Descriptors another thread opened without close-on-exec (the DDR
    // tool's terminal between its openpty and its own fork, a vendor
    // library's devices) are not the command's. report[1] is close-on-exec
    // already and stays open for a failed exec.
    if (close_range(3, ~0U, CLOSE_RANGE_CLOEXEC) != 0) {
      for (int fd = 3; fd < 65536; ++fd) fcntl(fd, F_SETFD, FD_CLOEXEC);
    }
    RestoreLimitsForChild();
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    execvp(args[0], args.data());
    const int error = errno;
    (void)!write(report[1], &error, sizeof error);
    _exit(127);
  }
  const int fork_error = errno;
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  close(report[1]);
  if (child < 0) {
    close(report[0]);
    LogError("kvt_zqp_record: cannot run '%s': %s\n", argv[0].c_str(), std::strerror(fork_error));
    return 126;
  }
  int error = 0;
  ssize_t got;
  while ((got = read(report[0], &error, sizeof error)) < 0 && errno == EINTR) {
  }
  close(report[0]);
  if (got == static_cast<ssize_t>(sizeof error)) {
    waitpid(child, nullptr, 0);
    LogError("kvt_zqp_record: cannot run '%s': %s\n", argv[0].c_str(), std::strerror(error));
    return error == ENOENT ? 127 : 126;
  }
  pid = child;
  pidfd = OpenProcessDescriptor(child);
  if (pidfd < 0) {
    // Only when the kernel has no process descriptors: wait for it here.
    LogError("kvt_zqp_record: cannot watch '%s': %s\n", argv[0].c_str(), std::strerror(errno));
  }
  return 0;
}

bool WrappedCommand::HasEnded() const {
  siginfo_t info{};
  return pid > 0 &&
         waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
         info.si_pid == pid;
}

void WrappedCommand::Forward(int sig) const {
  if (pid > 0) kill(pid, sig);
}

int WrappedCommand::Reap(int& killed_by) {
  killed_by = 0;
  int status = 0;
  pid_t got;
  while ((got = waitpid(pid, &status, 0)) < 0 && errno == EINTR) {
  }
  ended = std::chrono::steady_clock::now();
  pid = -1;
  if (got < 0) return 1;
  if (WIFSIGNALED(status)) {
    killed_by = WTERMSIG(status);
    return 128 + killed_by;
  }
  return WEXITSTATUS(status);
}

double WrappedCommand::WallSeconds() const {
  return std::chrono::duration<double>(ended - started).count();
}

}  // namespace kestro::zqp::app
