#include <signal.h>
#include <unistd.h>

#include <cstdio>

#include "app/capture_options.h"
#include "base/log.h"
#include "base/process_setup.h"
#include "base/program_name.h"
#include "capture/board_capture.h"
#include "capture/capture_info.h"
#include "record/output_file.h"

int main(int argc, char** argv) {
  namespace zqp = kestro::zqp;
  const int filled = zqp::base::FillClosedStandardDescriptors();
  if (filled < 0) return 1;
  zqp::base::PrepareProcess();
  const zqp::app::CaptureOption option = zqp::app::ParseCaptureOptions(argc, argv);
  if (!option.valid) return 1;
  if (!option.info.empty()) return zqp::capture::DescribeCapture(option.info, stdout, stderr);

  // Opened while a stop signal still ends the program: a FIFO without a
  // reader would otherwise hold it for good.
  zqp::record::OutputFile out;
  std::string error;
  const bool stdout_closed = (filled & (1 << STDOUT_FILENO)) != 0;
  if (!out.Open(option.output == "-" ? "" : option.output, false, stdout_closed, error)) {
    zqp::base::LogError("%s: %s\n", zqp::base::kCaptureProgram, error.c_str());
    return 1;
  }
  // Blocked before any thread starts, so every thread leaves them to the
  // main thread's wait, which ends the capture between two of its ticks.
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGINT);
  sigaddset(&stop_signals, SIGTERM);
  sigaddset(&stop_signals, SIGHUP);
  pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);

  zqp::capture::BoardCapture capture(option.monitor, out);
  if (!capture.Run(stop_signals, error)) {
    zqp::base::LogError("%s: %s\n", zqp::base::kCaptureProgram, error.c_str());
    return 1;
  }
  return 0;
}
