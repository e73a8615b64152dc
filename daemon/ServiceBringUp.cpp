#include "daemon/ServiceBringUp.h"

#include <sys/inotify.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "controller/BluetoothController.h"
#include "daemon/ServiceStatus.h"
#include "daemon/SystemHooks.h"
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

// While the bus cannot be had (at start, or after the bus went away), Run() is tried again
// on a back-off capped at 250 ms, and at once when the bus's socket appears in its folder. The folder's
// watch does not survive /run/user/0 being mounted again (user@0 restarted), so the cap is what bounds
// the wait then; a bus that stays away costs four failed connect() calls a second.
constexpr uint64_t kFirstBusRetryUsec = 100'000;
constexpr uint64_t kMaxBusRetryUsec = 250'000;
// sd-event's default slack of 250 ms would add to every step
constexpr uint64_t kBusRetryAccuracyUsec = 10'000;
DbusHelper::EventSource g_busRetry;
DbusHelper::EventSource g_busSocketWatch;
uint64_t g_busRetryUsec = kFirstBusRetryUsec;

int ArmBusRetry(sd_event* loop, uint64_t delayUsec) {
    uint64_t now = 0;
    int r = sd_event_now(loop, CLOCK_MONOTONIC, &now);
    if (r >= 0)
        r = sd_event_source_set_time(g_busRetry.get(), now + delayUsec);
    if (r >= 0)
        r = sd_event_source_set_enabled(g_busRetry.get(), SD_EVENT_ONESHOT);
    return r;
}

void StopWaitingForBus() {
    g_busSocketWatch.reset();
    g_busRetry.reset();
}

int OnBusRetry(sd_event_source* source, uint64_t, void*) {
    return CBoundary::Call("OnBusRetry", [source] {
        // a connection whose bus went away is dropped here, out of its own dispatch
        if (g_server->IsStarted() && !g_server->IsConnected())
            g_server->Stop();
        const int r = g_server->RunAgain();
        if (g_server->IsStarted()) {
            g_served = r >= 0;
            StopWaitingForBus();
            // the siblings' listeners and what they hold come back with the bus
            g_controller->SiblingBusReturned();
            return 0;
        }
        g_busRetryUsec = std::min(g_busRetryUsec * 2, kMaxBusRetryUsec);
        return ArmBusRetry(sd_event_source_get_event(source), g_busRetryUsec);
    });
}

// The user bus's socket, as sd-bus finds it: a unix:path= address, or $XDG_RUNTIME_DIR/bus. Empty for
// any other kind of address, which is left to the back-off.
std::string UserBusSocket() {
    const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS");
    if (address == nullptr) {
        const char* runtime = std::getenv("XDG_RUNTIME_DIR");
        return runtime != nullptr ? std::string(runtime) + "/bus" : std::string();
    }
    const std::string text = address;
    const std::string prefix = "unix:path=";
    if (text.rfind(prefix, 0) != 0)
        return {};
    return text.substr(prefix.size(), text.find(',') == std::string::npos ? std::string::npos
                                                                          : text.find(',') - prefix.size());
}

int OnBusFolderChanged(sd_event_source* source, const struct inotify_event* event, void* userdata) {
    return CBoundary::Call("OnBusFolderChanged", [source, event, userdata] {
        const auto* name = static_cast<const std::string*>(userdata);
        if (event->len == 0 || *name != event->name || !g_busRetry)
            return 0;
        g_busRetryUsec = kFirstBusRetryUsec;
        return ArmBusRetry(sd_event_source_get_event(source), 0);
    });
}

void WatchBusSocket(sd_event* loop) {
    static std::string socketName;
    const std::string socket = UserBusSocket();
    const std::string::size_type slash = socket.rfind('/');
    if (slash == std::string::npos || slash == 0)
        return;
    socketName = socket.substr(slash + 1);
    sd_event_source* source = nullptr;
    // a folder that is not there yet (/run/user/0 before user@0.service) leaves it to the back-off
    if (sd_event_add_inotify(loop, &source, socket.substr(0, slash).c_str(), IN_CREATE | IN_MOVED_TO,
                             OnBusFolderChanged, &socketName) >= 0)
        g_busSocketWatch.reset(source);
}

void WaitForBus(sd_event* loop) {
    if (g_busRetry)
        return;
    g_busRetryUsec = kFirstBusRetryUsec;
    sd_event_source* source = nullptr;
    int r = sd_event_add_time(loop, &source, CLOCK_MONOTONIC, UINT64_MAX, kBusRetryAccuracyUsec, OnBusRetry,
                              nullptr);
    if (r >= 0) {
        g_busRetry.reset(source);
        r = ArmBusRetry(loop, g_busRetryUsec);
    }
    if (r < 0)
        Logging::Log(LOG_ERR, "BringUpService: cannot wait for the bus, (%d)", r);
    else
        WatchBusSocket(loop);
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
    // queued for a name another process holds counts as waiting, as a missing bus does
    const bool queued = g_server && g_server->IsStarted() && !g_server->OwnsName();
    if (g_served)
        facts.phase = StatusFacts::Phase::Serving;
    else
        facts.phase =
            g_busRetry || queued ? StatusFacts::Phase::WaitingForBus : StatusFacts::Phase::NotServed;
    facts.advertising = g_controller->GetAdvertisingEnabled();
    facts.advertSchema = g_controller->GetScanResponseVersion();
    facts.autoScan = g_controller->GetAutoScanEnabled();
    facts.autoScanRateSecs = g_controller->GetAutoScanRateSecs();
    facts.devicesKnown = g_controller->DevicesKnown();
    facts.lastScan = g_controller->LastScanOutcome();
    return facts;
}

void BringUpService(sd_event* loop) {
    g_controller = std::make_shared<BluetoothController>(loop, SystemControllerHooks());
    // built whatever comes next, and only started when the controller came up
    g_server = std::make_shared<BluetoothDbusServer>(g_controller, loop);
    // the radio, advertising and auto-scan go on untouched: only the API waits for the bus to return
    // the name another process held is handed over: nothing to do but serve
    g_server->OnNameAcquired([] { g_served = true; });
    g_server->OnBusLost([loop] {
        Logging::Log(LOG_ERR, "%s: the bus went away, serving again once it is back", "Run");
        g_served = false;
        WaitForBus(loop);
    });
    (void)g_controller->Initialise();
    if (g_controller->IsInitialised()) {
        g_served = g_server->Run() >= 0;
        // no bus yet: it may come (a name that is someone else's is queued for by the server)
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
