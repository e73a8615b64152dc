#pragma once
#include <systemd/sd-event.h>

#include <memory>

#include "daemon/ServiceStatus.h"

class BluetoothController;
class BluetoothDbusServer;

namespace Daemon {

// Builds the daemon's long-lived objects and publishes its D-Bus service, and from then on keeps
// systemd's status line current. Runs once, on the loop thread, from the start callback.
void BringUpService(sd_event* loop);

// When the loop has ended: ends the camera work (its threads would otherwise outlive main and race the
// process's static objects). False when a worker is still running after the grace.
bool StopService();

// The state the status line reports, read from what BringUpService built. Loop thread.
StatusFacts CurrentStatusFacts();

// What BringUpService built (null before it ran), for tests.
const std::shared_ptr<BluetoothController>& ServiceController();
const std::shared_ptr<BluetoothDbusServer>& ServiceServer();

}  // namespace Daemon
