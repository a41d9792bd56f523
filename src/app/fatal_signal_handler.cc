#include "app/fatal_signal_handler.h"

#include <signal.h>

#include <utility>

#include "base/fatal_signals.h"

namespace kestro::zqp::app {
namespace {

// What a fatal signal runs before the signal is raised again.
std::function<void(int)> g_signal_callback;

void HandleFatalSignal(int sig) {
  if (g_signal_callback) g_signal_callback(sig);
  base::DieBySignal(sig);
}

}  // namespace

void InstallFatalSignalHandler(std::function<void(int)> callback) {
  g_signal_callback = std::move(callback);
  for (int sig = 1; sig < 32; ++sig) {
    if (base::kFatalSignalMask & (1u << sig)) signal(sig, HandleFatalSignal);
  }
}

void ClearFatalSignalCallback() {
  g_signal_callback = nullptr;
}

}  // namespace kestro::zqp::app
