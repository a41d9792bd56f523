// The command a recording wraps (`kvt_zqp_record -- COMMAND`): started with
// the recorder's standard streams, its end seen through a process
// descriptor, the recorder's stop signals passed on to it.
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace kestro::zqp::app {

class WrappedCommand {
 public:
  WrappedCommand() = default;
  WrappedCommand(const WrappedCommand&) = delete;
  WrappedCommand& operator=(const WrappedCommand&) = delete;
  // Closes the process descriptor. A command still running is left to run.
  ~WrappedCommand();

  // Starts argv[0], searched in PATH as a shell would, under the soft
  // descriptor limit the recorder started with, with an empty signal mask,
  // the signals in `ignored` ignored and every other one at its default
  // action. Returns 0 once it runs. Otherwise prints
  // "kvt_zqp_record: cannot run 'NAME': REASON" and returns the shell's
  // status: 127 when there is no such file, 126 when it cannot be run.
  int Start(const std::vector<std::string>& argv, const sigset_t& ignored);
  // Readable once the command has ended; -1 before Start.
  int Descriptor() const { return pidfd; }
  bool Running() const { return pid > 0; }
  // True once the command has ended, without collecting it: for a kernel
  // without process descriptors, asked at every record.
  bool HasEnded() const;
  // Sends sig to the command while it runs.
  void Forward(int sig) const;
  // After Descriptor() turned readable: collects the command's status and
  // returns the recorder's: the command's exit status, or 128 + N when
  // signal N killed it (stored in killed_by, else 0).
  int Reap(int& killed_by);
  // Seconds from Start to Reap.
  double WallSeconds() const;

 private:
  pid_t pid = -1;
  int pidfd = -1;
  std::chrono::steady_clock::time_point started, ended;
};

}  // namespace kestro::zqp::app
