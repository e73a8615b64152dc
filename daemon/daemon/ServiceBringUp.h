#pragma once
#include <systemd/sd-event.h>

namespace Daemon {

// Builds the daemon's long-lived objects and publishes its D-Bus service. Runs once, on the loop
// thread, from the start callback.
void BringUpService(sd_event* loop);

}  // namespace Daemon
