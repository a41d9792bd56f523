// The command line of kvt_zqp_record: the monitor's own options it shares,
// the output and its format, the HTTP endpoint, and the command to measure.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "base/monitor_option.h"
#include "base/program_name.h"
#include "record/writers.h"
#include "serve/metrics_server.h"

namespace kestro::zqp::app {

struct RecordOption {
  // -d, -f, -n, -t, -e and -v as the monitor takes them; batch is set, since
  // there is no screen to keep the monitors' messages off.
  base::MonitorOption monitor;
  std::string output;         // -o; empty for standard output
  bool output_given = false;  // -o was given, "-" included
  record::Format format = record::Format::kCsv;
  // --processes[=N]: the Prometheus series of the N largest ION holders
  // (none by default: their labels grow without bound).
  std::size_t processes = 0;
  bool valid = true;
  // Standard output was closed at start (and is now /dev/null): refused as
  // the output.
  bool stdout_closed = false;
  // The command to run and summarise (after the options, or after "--");
  // empty for a plain recording.
  std::vector<std::string> command;
  std::string summary;  // --summary: the summary's JSON goes there too
  // --listen: serve the latest record over HTTP for Prometheus.
  bool listen = false;
  serve::ListenAddress listen_address;
  // --history: minutes of records the live page and /api/v1/history serve.
  std::int64_t history_minutes = 10;
};

// Parses argv; options end at "--" or the first word that is not one, which
// starts the command. -h prints the usage on stdout and ends the process with status
// 0. A bad option or value prints one message on stderr (the monitor's for the
// options it shares) and returns with valid false.
RecordOption ParseRecordOptions(int argc, char** argv);

}  // namespace kestro::zqp::app
