#include "record/service_watchdog.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace kestro::zqp::record {
namespace {

struct Watchdog {
  int fd = -1;
  sockaddr_un address{};
  socklen_t length = 0;
};

Watchdog OpenWatchdog() {
  Watchdog watchdog;
  const char* path = std::getenv("NOTIFY_SOCKET");
  const char* period = std::getenv("WATCHDOG_USEC");
  const char* pid = std::getenv("WATCHDOG_PID");
  if (path == nullptr || period == nullptr || *period == '\0') return watchdog;
  // Set for the service's main process; a child that inherited it is not.
  if (pid != nullptr && std::strtol(pid, nullptr, 10) != getpid()) return watchdog;
  const std::size_t size = std::strlen(path);
  if ((path[0] != '/' && path[0] != '@') || size >= sizeof watchdog.address.sun_path) {
    return watchdog;
  }
  watchdog.address.sun_family = AF_UNIX;
  std::memcpy(watchdog.address.sun_path, path, size);
  // "@" names a socket of the abstract namespace.
  if (path[0] == '@') watchdog.address.sun_path[0] = '\0';
  watchdog.length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + size);
  watchdog.fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  return watchdog;
}

}  // namespace

void NotifyWatchdog() {
  static const Watchdog watchdog = OpenWatchdog();
  if (watchdog.fd < 0) return;
  static constexpr char kAlive[] = "WATCHDOG=1";
  // A manager slow to read loses a keep-alive rather than delaying a record.
  sendto(watchdog.fd, kAlive, sizeof kAlive - 1, MSG_DONTWAIT | MSG_NOSIGNAL,
         reinterpret_cast<const sockaddr*>(&watchdog.address), watchdog.length);
}

}  // namespace kestro::zqp::record
