#include "base/process_setup.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

namespace kestro::zqp::base {
namespace {

// The soft limit found at start; read by forked children only.
std::atomic<rlim_t> g_original_soft_limit{RLIM_INFINITY};
std::atomic<bool> g_limit_raised{false};

}  // namespace

void PrepareProcess() {
  // Every DSP client the monitor has seen keeps a process descriptor, so a
  // long run on a busy board needs every descriptor the hard limit allows.
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
    const rlim_t original = limit.rlim_cur;
    limit.rlim_cur = limit.rlim_max;
    if (setrlimit(RLIMIT_NOFILE, &limit) == 0) {
      g_original_soft_limit.store(original, std::memory_order_relaxed);
      g_limit_raised.store(true, std::memory_order_relaxed);
    }
  }
  signal(SIGCHLD, SIG_DFL);
}

int FillClosedStandardDescriptors() {
  int filled = 0;
  for (int fd = 0; fd <= 2; ++fd) {
    if (fcntl(fd, F_GETFD) >= 0) continue;
    // open returns the lowest free number, which is fd itself here: the ones
    // below it are open by now.
    const int opened = open("/dev/null", fd == 0 ? O_RDONLY : O_WRONLY);
    if (opened < 0) return -1;
    if (opened != fd) {
      close(opened);
      errno = EBADF;
      return -1;
    }
    filled |= 1 << fd;
  }
  return filled;
}

void RestoreLimitsForChild() {
  if (!g_limit_raised.load(std::memory_order_relaxed)) return;
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = g_original_soft_limit.load(std::memory_order_relaxed);
  setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace kestro::zqp::base
