#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "app/record_app.h"
#include "base/fatal_signals.h"
#include "base/log.h"
#include "base/process_setup.h"

int main(int argc, char** argv) {
  const int filled = kestro::zqp::base::FillClosedStandardDescriptors();
  if (filled < 0) {
    kestro::zqp::base::LogError("%s: cannot open /dev/null: %s\n",
                                kestro::zqp::base::kRecordProgram, std::strerror(errno));
    return 1;
  }
  kestro::zqp::base::PrepareProcess();
  kestro::zqp::app::RecordOption option = kestro::zqp::app::ParseRecordOptions(argc, argv);
  if (!option.valid) return 1;
  option.stdout_closed = (filled & (1 << STDOUT_FILENO)) != 0;
  int status = 0;
  int die_by = 0;
  {
    kestro::zqp::app::RecordApp session(option);
    // Without Init, Run returns the status of what failed.
    session.Init();
    status = session.Run();
    die_by = session.SignalToDieBy();
  }
  // The session is gone: monitors joined, the DDR tool reaped, files closed.
  if (die_by != 0) {
    std::fflush(nullptr);
    // The command's quit may dump its core; the recorder's would be noise.
    if (die_by == SIGQUIT) {
      const rlimit none{0, 0};
      setrlimit(RLIMIT_CORE, &none);
    }
    kestro::zqp::base::DieBySignal(die_by);
  }
  return status;
}
