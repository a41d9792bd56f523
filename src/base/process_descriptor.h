// Process descriptors (pidfds): a descriptor that turns readable when its
// process ends, for a poll loop to learn of an exit without a SIGCHLD.
#pragma once

#include <cstdint>

namespace kestro::zqp::base {

// pidfd_open(pid, 0): a close-on-exec descriptor that turns readable when the
// process ends; -1 (errno set) when it is gone.
int OpenProcessDescriptor(std::int32_t pid);

}  // namespace kestro::zqp::base
