// The one handler of the thirteen fatal signals (kFatalSignalMask) that both
// programs install: it runs its owner's callback (stop the monitors, restore
// the terminal, end the DDR tool), then the signal's default action.
#pragma once

#include <functional>

namespace kestro::zqp::app {

// Installs the handler for the thirteen fatal signals, which runs callback,
// then the signal's default action. Replaces the callback of an earlier call.
void InstallFatalSignalHandler(std::function<void(int)> callback);
// Empties the handler's callback, so that it no longer reaches its owner.
void ClearFatalSignalCallback();

}  // namespace kestro::zqp::app
