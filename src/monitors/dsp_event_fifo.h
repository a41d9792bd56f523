// The named fifo through which the DSP runtime announces a process that has
// just taken a slot.
#pragma once

#include <string>
#include <utility>

#include "monitors/dsp_loading_node.h"

namespace kestro::zqp::monitors {

// Owner of the event fifo. Both descriptors are -1 until Make, and stay -1
// (each on its own) when making or opening fails. A descriptor counts as open
// only when it is greater than 0.
class DspEventFifo {
 public:
  // path is the logical board path (see BoardPath); messages print it as is.
  explicit DspEventFifo(std::string path) : path_(std::move(path)) {}
  DspEventFifo(const DspEventFifo&) = delete;
  DspEventFifo& operator=(const DspEventFifo&) = delete;
  // Closes the read end, leaves the write end open on purpose, and removes the
  // fifo file when the path is not empty.
  ~DspEventFifo();

  // mkfifo (0666; an existing fifo is reused), then opens a non-blocking read
  // end and a non-blocking write end. Failures print
  // "mkfifo %s failed, %d error:%s\n\n" (both ends stay -1) or
  // "open %s failed, error:%s\n\n" (that end stays -1); returns nothing.
  void Make();

  int read_fd() const { return read_fd_; }
  int write_fd() const { return write_fd_; }
  const std::string& path() const { return path_; }

 private:
  int read_fd_ = -1;
  int write_fd_ = -1;
  std::string path_;
};

// Reads exactly one message from fd. A descriptor of 0 or less, a failed read
// or one that does not return exactly 8 bytes yields kDspEventReadFailed.
DSPEventMsg ReadDspEventMsg(int fd);

}  // namespace kestro::zqp::monitors
