#pragma once
// The controller's outside world as the unit has it: the BlueZ radio and scanner, the hcitool advertiser,
// the settings, network and power daemons, real sleeps and the real clock.

#include "controller/BluetoothController.h"

namespace Daemon {

ControllerHooks SystemControllerHooks();

}  // namespace Daemon
