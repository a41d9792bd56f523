#include "base/process_descriptor.h"

#include <sys/syscall.h>
#include <unistd.h>

namespace kestro::zqp::base {
namespace {

// pidfd_open has the same number on every architecture of the unified system
// call table, AArch64 included; it is called raw because older C libraries of
// the board have no wrapper.
constexpr long kPidfdOpenSyscall = 434;

}  // namespace

int OpenProcessDescriptor(std::int32_t pid) {
  return static_cast<int>(syscall(kPidfdOpenSyscall, pid, 0));
}

}  // namespace kestro::zqp::base
