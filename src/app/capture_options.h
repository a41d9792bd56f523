// The command line of kvt_zqp_capture.
#pragma once

#include <string>

#include "base/monitor_option.h"

namespace kestro::zqp::app {

struct CaptureOption {
  // -d, -f, -e, -t and -v as the monitor takes them (-t: duration_s; 0 runs
  // until SIGINT or SIGTERM).
  base::MonitorOption monitor;
  std::string output;  // -o, required unless --info
  std::string info;    // --info FILE: describe a capture instead
  bool valid = true;
};

// Parses argv. -h prints the usage on stdout and ends the process with
// status 0. A bad option or value, a missing -o, or a word that is not an
// option prints one message on stderr and returns with valid false.
CaptureOption ParseCaptureOptions(int argc, char** argv);

}  // namespace kestro::zqp::app
