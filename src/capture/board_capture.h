// kvt_zqp_capture's work: the board's raw inputs, as the monitor reads them,
// written as capture records until a stop signal or the duration ends.
// Read-only on the board, like the recorder: no sampling period is written,
// no DSP fifo, lock or node is touched but to read it.
#pragma once

#include <signal.h>

#include <cstdint>
#include <string>

#include "base/monitor_option.h"
#include "record/output_file.h"

namespace kestro::zqp::capture {

class BoardCapture {
 public:
  // option: -d (the files' period, clamped to 3000 ms for loading files as
  // the monitor clamps it; the heap text and processes every -d), -f (the
  // accelerator and DSP nodes), -e (the engines; all when empty),
  // duration_s (0: until a stop signal of stop_signals arrives).
  BoardCapture(const base::MonitorOption& option, record::OutputFile& out);

  // Captures; the signals of stop_signals must be blocked in every thread.
  // False with error set when a write failed (the file then ends with the
  // last whole record).
  bool Run(const sigset_t& stop_signals, std::string& error);

 private:
  const base::MonitorOption& option;
  record::OutputFile& out;
};

}  // namespace kestro::zqp::capture
