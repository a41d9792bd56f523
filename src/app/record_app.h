// The recording session of kvt_zqp_record: the monitor's engines, sampling
// and figures, written as one record per interval (CSV, JSON lines, the
// Prometheus text format or OpenMetrics) to standard output or a file, and
// served over HTTP with --listen, until the count is reached or SIGINT or
// SIGTERM ends the run after the record in hand.
#pragma once

#include <signal.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "app/monitor_set.h"
#include "app/record_options.h"
#include "app/wrapped_command.h"
#include "monitors/memory_usage.h"
#include "record/history.h"
#include "record/output_file.h"
#include "record/record.h"
#include "record/summary.h"
#include "record/writers.h"
#include "runner/watch_task_runner.h"
#include "serve/metrics_server.h"

namespace kestro::zqp::app {

class RecordApp {
 public:
  explicit RecordApp(const RecordOption& option);
  RecordApp(const RecordApp&) = delete;
  RecordApp& operator=(const RecordApp&) = delete;
  // Stops the monitors, then releases the timer, the output, the monitors
  // (joining their threads) and the runner.
  ~RecordApp();

  // Opens the outputs, routes the signals, starts the monitors and takes the
  // first reading, starts the server, writes the CSV header, starts the
  // timer and, last, the command if there is one. False after a message; Run
  // then returns the exit status.
  bool Init();
  // Runs until the last record, SIGINT or SIGTERM, or a failed write; returns
  // the exit status: 0, or 1 after a failed write. With a command: runs until
  // the command ends, passing SIGINT, SIGTERM, SIGHUP and SIGQUIT on to it
  // unless it got them too, prints the summary and returns the command's
  // status (128 + N when signal N killed it); 126 or 127 when it could not be
  // started.
  int Run();
  // After Run: SIGINT or SIGQUIT when that signal killed the command, which
  // the recorder then dies by too once it is destroyed, so that a shell stops
  // its loop as it would for the command alone; otherwise 0.
  int SignalToDieBy() const;

 private:
  // The steps of Init, in its order.
  bool OpenOutputs();
  // Fills ignored_at_start with the signals ignored when the recorder started.
  bool RouteSignals(sigset_t& ignored_at_start);
  void PrintSettings() const;
  record::Record FirstReading();
  bool StartServer(const record::Record& before);
  bool WriteHeader(const record::Record& before);
  bool StartTimer();
  bool StartCommand(const sigset_t& ignored);

  void OnTimer(int fd);
  void OnStopSignal(int fd);
  void OnCommandEnd();
  // Takes a record; writes it when there is an output; adds it to the
  // summary when a command runs.
  void TakeAndWrite();
  // Hands a record's texts to the HTTP server.
  void Publish(const record::Record& record);
  // Writes text as one record; on failure prints why and ends the loop.
  bool Emit(const std::string& text);
  std::int64_t ElapsedMs() const;

  RecordOption option;
  std::shared_ptr<runner::WatchTaskRunner> runner;
  MonitorSet monitor_set;
  monitors::MemoryUsage memory;
  record::OutputFile output;
  record::CsvLayout layout;
  record::OpenMetricsWriter open_metrics;
  record::LoadingIntervals intervals;
  record::RunSummary summary;
  record::OutputFile summary_file;
  WrappedCommand command;
  // With --listen only; outlives the server, which reads it.
  std::unique_ptr<record::History> history;
  serve::MetricsServer server;
  int command_status = 0;
  int killed_by = 0;
  std::int64_t last_record_ms = 0;
  // An output was asked for (always, without a command) and no write failed.
  bool writing = true;
  runner::PeriodicTimer timer;
  int signal_fd = -1;
  std::chrono::steady_clock::time_point start;
  std::uint32_t records = 0;
  bool failed = false;
  bool initialised = false;
};

}  // namespace kestro::zqp::app
