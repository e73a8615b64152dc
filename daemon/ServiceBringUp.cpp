#include "daemon/ServiceBringUp.h"

#include <memory>

#include "controller/BluetoothController.h"
#include "logging/Log.h"

namespace Daemon {

namespace {
// Lives as long as the loop: nothing ever resets it.
std::shared_ptr<BluetoothController> g_controller;
}  // namespace

void BringUpService(sd_event* loop) {
    g_controller = std::make_shared<BluetoothController>(loop);
    // the D-Bus server is built here, before the controller is initialised
    (void)g_controller->Initialise();
    if (!g_controller->IsInitialised())
        Logging::Log(LOG_ERR, "Bluetooth Controller failed to initialise, disabling dbus interface");
}

}  // namespace Daemon
