#include "daemon/ServiceBringUp.h"

#include <algorithm>
#include <cstdint>
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

// While the bus or the name cannot be had, Run() is tried again on a back-off capped at 1 s: the API is
// back within about a second of the bus appearing, and a bus that stays away costs one connection
// attempt a second.
constexpr uint64_t kFirstBusRetryUsec = 100'000;
constexpr uint64_t kMaxBusRetryUsec = 1'000'000;
DbusHelper::EventSource g_busRetry;
uint64_t g_busRetryUsec = kFirstBusRetryUsec;

int ArmBusRetry(sd_event* loop, sd_event_source* source) {
    uint64_t now = 0;
    int r = sd_event_now(loop, CLOCK_MONOTONIC, &now);
    if (r >= 0)
        r = sd_event_source_set_time(source, now + g_busRetryUsec);
    if (r >= 0)
        r = sd_event_source_set_enabled(source, SD_EVENT_ONESHOT);
    return r;
}

int OnBusRetry(sd_event_source* source, uint64_t, void*) {
    return CBoundary::Call("OnBusRetry", [source] {
        const int r = g_server->RunAgain();
        if (g_server->IsStarted()) {
            g_served = r >= 0;
            g_busRetry.reset();
            return 0;
        }
        g_busRetryUsec = std::min(g_busRetryUsec * 2, kMaxBusRetryUsec);
        return ArmBusRetry(sd_event_source_get_event(source), source);
    });
}

void WaitForBus(sd_event* loop) {
    sd_event_source* source = nullptr;
    int r = sd_event_add_time(loop, &source, CLOCK_MONOTONIC, UINT64_MAX, 0, OnBusRetry, nullptr);
    if (r >= 0) {
        g_busRetry.reset(source);
        r = ArmBusRetry(loop, source);
    }
    if (r < 0)
        Logging::Log(LOG_ERR, "BringUpService: cannot wait for the bus, (%d)", r);
}

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
    if (g_served)
        facts.phase = StatusFacts::Phase::Serving;
    else
        facts.phase = g_busRetry ? StatusFacts::Phase::WaitingForBus : StatusFacts::Phase::NotServed;
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
    if (g_controller->IsInitialised()) {
        g_served = g_server->Run() >= 0;
        // no bus yet, or the name is someone else's: both may change
        if (!g_server->IsStarted())
            WaitForBus(loop);
    } else
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
