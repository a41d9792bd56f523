// The signals that end the program with the terminal restored, and the signal
// masks of the threads and child processes around them.
#pragma once

#include <signal.h>

#include <cstdint>

namespace kestro::zqp::base {

// SIGHUP, SIGINT, SIGQUIT, SIGABRT, SIGUSR1, SIGSEGV, SIGUSR2, SIGPIPE,
// SIGALRM, SIGTERM, SIGXCPU, SIGXFSZ and SIGVTALRM, as bits over signal numbers.
inline constexpr std::uint32_t kFatalSignalMask = 0x0700FC4E;

// The fatal signals that arrive from outside (kill, the terminal, timers)
// rather than from a fault of the receiving thread. Worker threads block
// them, so the handler, which stops the monitors and takes their locks,
// always runs on the main thread and never interrupts a worker holding one of
// those locks.
sigset_t AsyncFatalSignals();

// For a forked child before exec: default action for every fatal signal and
// an empty mask, so the program's handler never runs in the child and a
// hang-up sent to it while it starts is not lost.
void ResetSignalsForChild();

// Ends the process by sig's default action, as if it had arrived with that
// action in place (a parent sees the signal), or with 128 | sig when that
// action does not end it. Async-signal-safe.
[[noreturn]] void DieBySignal(int sig);

}  // namespace kestro::zqp::base
