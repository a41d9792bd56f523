#include "app/wrapped_command.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/log.h"
#include "base/process_descriptor.h"
#include "base/process_setup.h"
#include "base/program_name.h"

namespace kestro::zqp::app {
namespace {

// How long the witness may take to answer: a hang bound, far above the
// microseconds a healthy answer takes.
constexpr int kWitnessAnswerMs = 2000;

// For a forked child: SIGKILL once the recorder is gone, even when it went
// between the fork and this call.
bool DieWithParent(pid_t parent) {
  return prctl(PR_SET_PDEATHSIG, SIGKILL) == 0 && getppid() == parent;
}

// The witness's life: every signal stays blocked (as it was at the fork), so
// whatever is sent to the group stays pending until asked for; each byte read
// from `ask` takes every pending signal and answers their set as a 64-bit
// mask. Ends when the recorder closes `ask` or dies.
[[noreturn]] void RunWitness(int ask, int answer, pid_t parent) {
  if (!DieWithParent(parent) || dup2(ask, 0) != 0 || dup2(answer, 1) != 1) _exit(1);
  // Holds none of the recorder's files: a reader waiting for the end of the
  // output must not wait for the witness.
  if (close_range(2, ~0U, 0) != 0) {
    for (int fd = 2; fd < 1024; ++fd) close(fd);
  }
  sigset_t all;
  sigfillset(&all);
  const timespec now{};
  char byte = 0;
  while (read(0, &byte, 1) == 1) {
    std::uint64_t got = 0;
    for (int sig; (sig = sigtimedwait(&all, nullptr, &now)) > 0;) {
      if (sig < 64) got |= std::uint64_t{1} << sig;
    }
    if (write(1, &got, sizeof got) != static_cast<ssize_t>(sizeof got)) break;
  }
  _exit(0);
}

}  // namespace

WrappedCommand::~WrappedCommand() {
  if (pidfd >= 0) close(pidfd);
  EndWitness();
}

void WrappedCommand::StartWitness(pid_t parent) {
  int ask[2], answer[2];
  if (pipe2(ask, O_CLOEXEC) != 0) return;
  if (pipe2(answer, O_CLOEXEC) != 0) {
    close(ask[0]);
    close(ask[1]);
    return;
  }
  const pid_t child = fork();
  if (child == 0) RunWitness(ask[0], answer[1], parent);
  close(ask[0]);
  close(answer[1]);
  if (child < 0) {
    close(ask[1]);
    close(answer[0]);
    return;
  }
  witness = child;
  witness_ask = ask[1];
  witness_answer = answer[0];
}

void WrappedCommand::EndWitness() {
  if (witness <= 0) return;
  // Closing the question ends the witness; SIGKILL in case it is stuck.
  close(witness_ask);
  close(witness_answer);
  kill(witness, SIGKILL);
  while (waitpid(witness, nullptr, 0) < 0 && errno == EINTR) {
  }
  witness = -1;
  witness_ask = witness_answer = -1;
}

bool WrappedCommand::AskWitness(int sig, bool& got) {
  if (witness <= 0) return false;
  const char byte = 0;
  std::uint64_t mask = 0;
  pollfd answer{witness_answer, POLLIN, 0};
  if (write(witness_ask, &byte, 1) != 1 || poll(&answer, 1, kWitnessAnswerMs) != 1 ||
      read(witness_answer, &mask, sizeof mask) != static_cast<ssize_t>(sizeof mask)) {
    EndWitness();
    return false;
  }
  got = (mask >> sig & 1) != 0;
  return true;
}

int WrappedCommand::Start(const std::vector<std::string>& argv, const sigset_t& ignored) {
  std::vector<char*> args;
  for (const std::string& word : argv) args.push_back(const_cast<char*>(word.c_str()));
  args.push_back(nullptr);
  // Carries exec's errno back; closed by a successful exec.
  int report[2];
  if (pipe2(report, O_CLOEXEC) != 0) {
    base::LogError("%s: cannot run '%s': %s\n", base::kRecordProgram, argv[0].c_str(),
                   std::strerror(errno));
    return 126;
  }
  // Every signal stays blocked from the fork until the child has put its
  // dispositions back, so none of the recorder's handlers runs in the child.
  sigset_t all, previous;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &previous);
  const pid_t parent = getpid();
  // Before the command, so that no signal sent to the group can reach the
  // command and not the witness.
  StartWitness(parent);
  started = std::chrono::steady_clock::now();
  const pid_t child = fork();
  if (child == 0) {
    // A recorder killed outright (SIGKILL, the memory killer) takes its
    // command with it; exec keeps this unless it gains privileges.
    if (!DieWithParent(parent)) _exit(127);
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
    base::RestoreLimitsForChild();
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
    EndWitness();
    close(report[0]);
    base::LogError("%s: cannot run '%s': %s\n", base::kRecordProgram, argv[0].c_str(),
                   std::strerror(fork_error));
    return 126;
  }
  int error = 0;
  ssize_t got;
  while ((got = read(report[0], &error, sizeof error)) < 0 && errno == EINTR) {
  }
  close(report[0]);
  if (got == static_cast<ssize_t>(sizeof error)) {
    EndWitness();
    waitpid(child, nullptr, 0);
    base::LogError("%s: cannot run '%s': %s\n", base::kRecordProgram, argv[0].c_str(),
                   std::strerror(error));
    return error == ENOENT ? 127 : 126;
  }
  pid = child;
  pidfd = base::OpenProcessDescriptor(child);
  if (pidfd < 0) {
    // Only when the kernel has no process descriptors: wait for it here.
    base::LogError("%s: cannot watch '%s': %s\n", base::kRecordProgram, argv[0].c_str(),
                   std::strerror(errno));
  }
  return 0;
}

bool WrappedCommand::HasEnded() const {
  const pid_t child = pid.load();
  siginfo_t info{};
  return child > 0 &&
         waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
         info.si_pid == child;
}

bool WrappedCommand::PassOn(int sig, int code) {
  const pid_t child = pid.load();
  if (child <= 0) return false;
  // A command that left the recorder's group (setsid, a job-control shell)
  // gets nothing sent to that group. One still in it got the signal too when
  // the witness, which nobody signals alone, did; without a witness, when
  // the terminal sent it, to the whole foreground group.
  if (getpgid(child) == getpgrp()) {
    bool group_wide = false;
    if (!AskWitness(sig, group_wide)) group_wide = code == SI_KERNEL;
    if (group_wide) return false;
  }
  kill(child, sig);
  return true;
}

void WrappedCommand::KillNow() const {
  const pid_t child = pid.load();
  if (child <= 0) return;
  if (getpgid(child) == child) kill(-child, SIGKILL);
  kill(child, SIGKILL);
}

int WrappedCommand::Reap(int& killed_by) {
  killed_by = 0;
  // Cleared first: once reaped, the number may belong to another process.
  const pid_t child = pid.exchange(-1);
  EndWitness();
  int status = 0;
  pid_t got;
  while ((got = waitpid(child, &status, 0)) < 0 && errno == EINTR) {
  }
  ended = std::chrono::steady_clock::now();
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
