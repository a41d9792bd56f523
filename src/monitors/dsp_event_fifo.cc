#include "monitors/dsp_event_fifo.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/board_path.h"
#include "base/log.h"

namespace kestro::zqp::monitors {

DspEventFifo::~DspEventFifo() {
  if (read_fd_ > 0) close(read_fd_);
  // Kept as intended: the write end is never closed by the monitor, so the
  // fifo never reports a hang-up while the monitor lives. The read end is
  // closed once only: closing its number a second time could close a
  // descriptor that another thread has just been given.
  if (!path_.empty()) unlink(base::BoardPath(path_).c_str());
}

void DspEventFifo::Make() {
  const std::string real_path = base::BoardPath(path_);
  if (mkfifo(real_path.c_str(), 0666) != 0 && errno != EEXIST) {
    const int error = errno;
    base::LogError("mkfifo %s failed, %d error:%s\n\n", path_.c_str(), error, strerror(error));
    return;
  }
  // Non-blocking on both ends: opening the read end must not wait for a
  // writer, and opening the write end succeeds because the read end is open.
  // Close-on-exec keeps the ends out of child tools the program starts.
  read_fd_ = open(real_path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (read_fd_ < 0) {
    base::LogError("open %s failed, error:%s\n\n", path_.c_str(), strerror(errno));
  }
  // Something else left at the path (a stale regular file or a folder) would
  // be readable for ever and spin the event loop: refuse it, and leave it
  // where it is at destruction since it is not ours.
  struct stat status;
  if (read_fd_ > 0 && (fstat(read_fd_, &status) != 0 || !S_ISFIFO(status.st_mode))) {
    base::LogError("open %s failed, error:%s\n\n", path_.c_str(), "not a fifo");
    close(read_fd_);
    read_fd_ = -1;
    path_.clear();
    return;
  }
  // Held for the monitor's whole life and never written: with a writer always
  // present the read end never sees end-of-file or POLLHUP between runtime
  // writers.
  write_fd_ = open(real_path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
  if (write_fd_ < 0) {
    base::LogError("open %s failed, error:%s\n\n", path_.c_str(), strerror(errno));
  }
}

DSPEventMsg ReadDspEventMsg(int fd) {
  if (fd <= 0) return kDspEventReadFailed;
  DSPEventMsg msg = 0;
  if (read(fd, &msg, sizeof(msg)) != static_cast<ssize_t>(sizeof(msg))) {
    return kDspEventReadFailed;
  }
  return msg;
}

}  // namespace kestro::zqp::monitors
