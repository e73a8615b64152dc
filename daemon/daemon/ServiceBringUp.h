#pragma once
#include <systemd/sd-event.h>

#include <memory>

class BluetoothController;
class BluetoothDbusServer;

namespace Daemon {

// Builds the daemon's long-lived objects and publishes its D-Bus service. Runs once, on the loop
// thread, from the start callback.
void BringUpService(sd_event* loop);

// What BringUpService built (null before it ran), for tests.
const std::shared_ptr<BluetoothController>& ServiceController();
const std::shared_ptr<BluetoothDbusServer>& ServiceServer();

}  // namespace Daemon
