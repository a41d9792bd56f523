// The least a program of the monitor's shape can take: its thirteen threads
// (main, samplers, display, DDR tool reader) started and asleep, built with
// the same flags and C++ runtime, nothing read or drawn. bench/measure.py
// reports each program's peak resident memory beside this one's, from the
// same run, so the figure is a ratio any machine can check. Ends on SIGTERM.
#include <signal.h>
#include <unistd.h>

#include <thread>
#include <vector>

int main() {
  sigset_t term;
  sigemptyset(&term);
  sigaddset(&term, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &term, nullptr);
  std::vector<std::thread> threads;
  for (int i = 0; i < 12; ++i) {
    threads.emplace_back([] {
      for (;;) pause();
    });
  }
  int signal = 0;
  sigwait(&term, &signal);
  _exit(0);
}
