#include "app/monitor_app.h"
#include "app/option_parser.h"
#include "base/log.h"

int main(int argc, char** argv) {
  using kestro::zqp::LogVerbose;
  const kestro::zqp::MonitorOption option = kestro::zqp::ParseOptions(argc, argv);
  if (!option.valid) return 1;

  LogVerbose("delay: %u ms\n", option.delay_ms);
  LogVerbose("frequency: %u sample/sec\n", option.frequency);
  LogVerbose("batch mode: %s\n", option.batch ? "true" : "false");
  if (option.iterations != kestro::zqp::kForever) {
    LogVerbose("iterator nums: %u\n", option.iterations);
  }
  if (option.duration_s != 0) LogVerbose("duration time: %u sec\n", option.duration_s);

  int status = 0;
  {
    kestro::zqp::monitor::MonitorApp app(option);
    if (app.Init()) {
      app.Run();
    } else {
      status = 1;
    }
  }
  return status;
}
