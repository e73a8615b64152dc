#include "daemon/ServiceBringUp.h"

#include <memory>

#include "controller/BluetoothController.h"
#include "daemon/ServiceStatus.h"
#include "dbus/BluetoothDbusServer.h"
#include "dbus_helper/Handles.h"
#include "logging/Log.h"
#include "loop/CBoundary.h"

namespace Daemon {

namespace {
// Live as long as the loop: nothing ever resets them.
std::shared_ptr<BluetoothController> g_controller;
std::shared_ptr<BluetoothDbusServer> g_server;
bool g_served = false;
DbusHelper::EventSource g_statusSource;

// A post source: after every iteration that dispatched anything, the one place state can have changed.
int ReportStatus(sd_event_source*, void*) {
    return CBoundary::Call("ReportStatus", [] { ProcessStatus().Report(StatusText(CurrentStatusFacts())); });
}
}  // namespace

StatusFacts CurrentStatusFacts() {
    StatusFacts facts;
    if (!g_controller || !g_controller->IsInitialised()) {
        facts.phase = StatusFacts::Phase::ControllerFailed;
        return facts;
    }
    facts.phase = g_served ? StatusFacts::Phase::Serving : StatusFacts::Phase::NotServed;
    facts.advertising = g_controller->GetAdvertisingEnabled();
    facts.advertSchema = g_controller->GetScanResponseVersion();
    facts.autoScan = g_controller->GetAutoScanEnabled();
    facts.autoScanRateSecs = g_controller->GetAutoScanRateSecs();
    facts.devicesKnown = g_controller->DevicesKnown();
    facts.lastScan = g_controller->LastScanOutcome();
    return facts;
}

void BringUpService(sd_event* loop) {
    g_controller = std::make_shared<BluetoothController>(loop);
    // built whatever comes next, and only started when the controller came up
    g_server = std::make_shared<BluetoothDbusServer>(g_controller, loop);
    (void)g_controller->Initialise();
    if (g_controller->IsInitialised())
        g_served = g_server->Run() >= 0;
    else
        Logging::Log(LOG_ERR, "Bluetooth Controller failed to initialise, disabling dbus interface");
    sd_event_source* source = nullptr;
    if (sd_event_add_post(loop, &source, ReportStatus, nullptr) >= 0)
        g_statusSource.reset(source);
    else
        Logging::Log(LOG_ERR, "BringUpService: no status reports for systemd");
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
