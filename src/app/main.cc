#include <cstdio>

#include "app/log.h"
#include "app/monitor_option.h"

using kestro::zqp::kForever;

int main(int argc, char** argv) {
  const kestro::zqp::MonitorOption option = kestro::zqp::ParseOptions(argc, argv);
  if (!option.valid) return 1;

  kestro::zqp::LogVerbose("delay: %u ms\n", option.delay_ms);
  kestro::zqp::LogVerbose("frequency: %u sample/sec\n", option.frequency);
  kestro::zqp::LogVerbose("batch mode: %s\n", option.batch ? "true" : "false");
  if (option.iterations != kForever)
    kestro::zqp::LogVerbose("iterator nums: %u\n", option.iterations);
  if (option.duration_s != 0) kestro::zqp::LogVerbose("duration time: %u sec\n", option.duration_s);
  return 0;
}
