#include "app/monitor_app.h"
#include "app/option_parser.h"
#include "base/process_setup.h"

int main(int argc, char** argv) {
  kestro::zqp::base::PrepareProcess();
  const kestro::zqp::base::MonitorOption option = kestro::zqp::app::ParseOptions(argc, argv);
  if (!option.valid) return 1;
  kestro::zqp::app::LogSettings(option);

  int status = 0;
  {
    kestro::zqp::app::MonitorApp app(option);
    if (app.Init()) {
      app.Run();
    } else {
      status = 1;
    }
  }
  return status;
}
