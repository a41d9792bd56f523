// What both programs settle about their own process before any thread or
// child starts: descriptor limits, the child-exit signal and the standard
// descriptors.
#pragma once

namespace kestro::zqp::base {

// Raises the soft limit on open descriptors to the hard limit, remembering
// the soft limit found, and resets SIGCHLD to its default action so that the
// DDR tool's exit status can be waited for even under a parent that ignores
// the signal. Call once, on the main thread, before anything starts.
void PrepareProcess();

// Opens /dev/null on each of descriptors 0, 1 and 2 that is closed, so that a
// file opened later never lands on a standard stream. Returns the filled
// descriptors as bits (bit n: descriptor n was closed), or -1 (errno set)
// when /dev/null cannot be opened.
int FillClosedStandardDescriptors();

// For a forked child before exec: puts back the soft descriptor limit that
// PrepareProcess found, so the tool runs under the limit it would have had.
// Async-signal-safe; does nothing before PrepareProcess.
void RestoreLimitsForChild();

}  // namespace kestro::zqp::base
