#include "daemon/ServiceBringUp.h"

#include <memory>

#include "controller/BluetoothController.h"
#include "dbus/BluetoothDbusServer.h"
#include "logging/Log.h"

namespace Daemon {

namespace {
// Live as long as the loop: nothing ever resets them.
std::shared_ptr<BluetoothController> g_controller;
std::shared_ptr<BluetoothDbusServer> g_server;
}  // namespace

void BringUpService(sd_event* loop) {
    g_controller = std::make_shared<BluetoothController>(loop);
    // built whatever comes next, and only started when the controller came up
    g_server = std::make_shared<BluetoothDbusServer>(g_controller, loop);
    (void)g_controller->Initialise();
    if (g_controller->IsInitialised())
        (void)g_server->Run();
    else
        Logging::Log(LOG_ERR, "Bluetooth Controller failed to initialise, disabling dbus interface");
}

bool StopService() {
    return !g_controller || g_controller->StopCameraWork();
}

const std::shared_ptr<BluetoothController>& ServiceController() {
    return g_controller;
}

const std::shared_ptr<BluetoothDbusServer>& ServiceServer() {
    return g_server;
}

}  // namespace Daemon
