#include "app/record_app.h"

int main(int argc, char** argv) {
  const kestro::zqp::monitor::RecordOption option =
      kestro::zqp::monitor::ParseRecordOptions(argc, argv);
  if (!option.valid) return 1;
  kestro::zqp::monitor::RecordApp session(option);
  if (!session.Init()) return 1;
  return session.Run();
}
