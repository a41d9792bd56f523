// The command a recording wraps (`kvt_zqp_record -- COMMAND`): started with
// the recorder's standard streams, its end seen through a process
// descriptor, the recorder's stop signals passed on to it unless it got them
// too.
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace kestro::zqp::app {

class WrappedCommand {
 public:
  WrappedCommand() = default;
  WrappedCommand(const WrappedCommand&) = delete;
  WrappedCommand& operator=(const WrappedCommand&) = delete;
  // Closes the process descriptor and ends the witness. A command still
  // running is left to run.
  ~WrappedCommand();

  // Starts argv[0], searched in PATH as a shell would, under the soft
  // descriptor limit the recorder started with, with an empty signal mask,
  // the signals in `ignored` ignored and every other one at its default
  // action, and SIGKILL as its parent-death signal. Returns 0 once it runs. Otherwise prints
  // "kvt_zqp_record: cannot run 'NAME': REASON" and returns the shell's
  // status: 127 when there is no such file, 126 when it cannot be run.
  int Start(const std::vector<std::string>& argv, const sigset_t& ignored);
  // Readable once the command has ended; -1 before Start.
  int Descriptor() const { return pidfd; }
  bool Running() const { return pid.load() > 0; }
  // True once the command has ended, without collecting it: for a kernel
  // without process descriptors, asked at every record.
  bool HasEnded() const;
  // Sends sig, which the recorder received with siginfo code `code`, to the
  // command while it runs, unless the command got it too: it shares the
  // recorder's process group and the signal went to that whole group (the
  // terminal's keys, kill with a negative pid). Returns whether it was sent.
  bool PassOn(int sig, int code);
  // For the fatal-signal handler: SIGKILL to the command, and to the process
  // group it leads when it made one of its own. Async-signal-safe.
  void KillNow() const;
  // After Descriptor() turned readable: collects the command's status and
  // returns the recorder's: the command's exit status, or 128 + N when
  // signal N killed it (stored in killed_by, else 0).
  int Reap(int& killed_by);
  // Seconds from Start to Reap.
  double WallSeconds() const;

 private:
  // The witness: forked with every signal blocked, it keeps them so.
  void StartWitness(pid_t parent);
  // False when the witness cannot answer (it is then ended); otherwise got
  // says whether sig is pending in it. Every pending signal is taken.
  bool AskWitness(int sig, bool& got);
  void EndWitness();

  // Read by the fatal-signal handler; cleared before the command is reaped,
  // so that its number is never signalled once it could be reused.
  std::atomic<pid_t> pid{-1};
  int pidfd = -1;
  // A child in the recorder's process group that blocks every signal: a
  // signal pending in it went to the whole group. -1 when none could start.
  pid_t witness = -1;
  int witness_ask = -1;
  int witness_answer = -1;
  std::chrono::steady_clock::time_point started, ended;
};

}  // namespace kestro::zqp::app
