// Keeps a service manager's watchdog (systemd's WatchdogSec=) from firing
// while the recorder's loop goes on, by its notification protocol: a
// "WATCHDOG=1" datagram to the Unix socket that NOTIFY_SOCKET names. No
// library and no thread: the loop itself says it is alive.
#pragma once

namespace kestro::zqp::record {

// Sends one keep-alive when the environment asks for them (NOTIFY_SOCKET and
// WATCHDOG_USEC set, WATCHDOG_PID unset or this process's); does nothing
// otherwise. Never blocks.
void NotifyWatchdog();

}  // namespace kestro::zqp::record
