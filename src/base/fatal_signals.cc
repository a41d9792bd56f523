#include "base/fatal_signals.h"

#include <unistd.h>

#include <initializer_list>

namespace kestro::zqp::base {

sigset_t AsyncFatalSignals() {
  sigset_t set;
  sigemptyset(&set);
  for (int sig :
       {SIGHUP, SIGINT, SIGQUIT, SIGUSR1, SIGUSR2, SIGPIPE, SIGALRM, SIGTERM, SIGXCPU, SIGVTALRM}) {
    sigaddset(&set, sig);
  }
  return set;
}

void ResetSignalsForChild() {
  for (int sig = 1; sig < 32; ++sig) {
    if (kFatalSignalMask & (1u << sig)) signal(sig, SIG_DFL);
  }
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
}

void DieBySignal(int sig) {
  signal(sig, SIG_DFL);
  sigset_t only;
  sigemptyset(&only);
  sigaddset(&only, sig);
  sigprocmask(SIG_UNBLOCK, &only, nullptr);
  raise(sig);
  _exit(128 | sig);
}

}  // namespace kestro::zqp::base
