#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "app/record_app.h"
#include "base/log.h"
#include "base/process_setup.h"

int main(int argc, char** argv) {
  const int filled = kestro::zqp::FillClosedStandardDescriptors();
  if (filled < 0) {
    kestro::zqp::LogError("%s: cannot open /dev/null: %s\n", kestro::zqp::kRecordProgram,
                          std::strerror(errno));
    return 1;
  }
  kestro::zqp::PrepareProcess();
  kestro::zqp::app::RecordOption option = kestro::zqp::app::ParseRecordOptions(argc, argv);
  if (!option.valid) return 1;
  option.stdout_closed = (filled & (1 << STDOUT_FILENO)) != 0;
  kestro::zqp::app::RecordApp session(option);
  // Without Init, Run returns the status of what failed.
  session.Init();
  return session.Run();
}
