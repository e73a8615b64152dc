#include "daemon/DaemonStart.h"

#include <systemd/sd-daemon.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "daemon/InstanceLock.h"
#include "daemon/ServiceBringUp.h"
#include "daemon/ServiceStatus.h"
#include "logging/Log.h"
#include "loop/CBoundary.h"
#include "loop/Sleep.h"
#include "utils/HciWatchdog.h"

namespace Daemon {

namespace {
sd_event* g_loop = nullptr;

constexpr const char* kHelp =
    "Usage: quorbel-bluetoothd\n"
    "Bluetooth LE daemon of the camera control unit: advertises the unit, scans for other units and\n"
    "remote cameras, and serves com.quorbel.common.Bluetooth1 on the user bus. Runs as a systemd\n"
    "service; one copy per unit. See quorbel-bluetoothd(8).\n"
    "\n"
    "  --help     print this text and exit\n"
    "  --version  print the version and exit\n";
constexpr const char* kVersion = "quorbel-bluetoothd " QB_VERSION "\n";

// systemd stops the service with SIGTERM; leaving the loop cleanly gives exit status 0 instead of
// death by signal. Must run before any thread exists so every thread inherits the mask, and before the
// wait for hci0, which systemd may cut short.
void ExitLoopOnTermination(sd_event* loop) {
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGTERM);
    sigaddset(&mask, SIGINT);
    if (pthread_sigmask(SIG_BLOCK, &mask, nullptr) != 0)
        return;
    // a signal the loop cannot take must keep its default action, not stay blocked for ever
    if (sd_event_add_signal(loop, nullptr, SIGTERM, nullptr, nullptr) < 0 ||
        sd_event_add_signal(loop, nullptr, SIGINT, nullptr, nullptr) < 0)
        pthread_sigmask(SIG_UNBLOCK, &mask, nullptr);
}
// A termination signal waits, blocked, for the loop: the watchdog looks for it without taking it.
bool TerminationPending() {
    sigset_t pending;
    if (sigpending(&pending) != 0)
        return false;
    return sigismember(&pending, SIGTERM) == 1 || sigismember(&pending, SIGINT) == 1;
}

// The watchdog's hooks, with its one-second waits cut short by a termination signal.
Utils::WatchdogHooks StoppableWatchdogHooks() {
    Utils::WatchdogHooks hooks = Utils::SystemWatchdogHooks();
    hooks.stopRequested = TerminationPending;
    // a restart means hci0 is missing: systemd shows it while the units come back
    hooks.restartUnit = [restart = hooks.restartUnit](const std::string& unit) {
        StatusFacts waiting;
        waiting.phase = StatusFacts::Phase::WaitingForHci0;
        ProcessStatus().Report(StatusText(waiting));
        return restart(unit);
    };
    hooks.sleepOneSecond = [] {
        for (int slice = 0; slice < 10 && !TerminationPending(); ++slice)
            Loop::SleepFor(std::chrono::milliseconds(100));
    };
    return hooks;
}
}  // namespace

sd_event* EventLoop() {
    return g_loop;
}

uint64_t StartTime(sd_event* loop, bool servicesRestarted) {
    if (!servicesRestarted)
        return 0;
    uint64_t now = 0;
    sd_event_now(loop, CLOCK_MONOTONIC, &now);
    return now + kRestartGraceUsec;
}

int RunLoop(sd_event* loop) {
    if (sd_event_loop(loop) < 0)
        Logging::Log(LOG_INFO, "Failed to start main event loop");
    return 0;
}

int BluetoothDaemonStart(sd_event_source*, uint64_t, void*) {
    CBoundary::Call("BluetoothDaemonStart", [] {
        Logging::Log(LOG_INFO, "Initialising bluetooth daemon...");
        // a bring-up that throws is logged and the daemon stays up with what it has
        CBoundary::Call("BringUpService", [] { BringUpService(g_loop); });
        // ready whatever the bring-up did: the daemon keeps serving what it can
        sd_notify(0, "READY=1");
    });
    return 0;
}

const char* InformationRequested(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--help") == 0)
            return kHelp;
        if (std::strcmp(argv[i], "--version") == 0)
            return kVersion;
    }
    return nullptr;
}

int Main(int argc, char** argv) {
    // answered before anything else: a look at the version must not start a second daemon
    if (const char* text = InformationRequested(argc, argv)) {
        std::fputs(text, stdout);
        return 0;
    }
    // before hci0, the tools or any bus: a second copy would drive the same radio
    if (!TakeProcessInstanceLock())
        return kExitNotStarted;
    const int r = sd_event_default(&g_loop);
    if (r >= 0) {
        ExitLoopOnTermination(g_loop);
        // pings systemd's watchdog from the loop when the unit asks for it (WATCHDOG_USEC); a loop that
        // stops turning stops the pings
        if (sd_event_set_watchdog(g_loop, true) < 0)
            Logging::Log(LOG_ERR, "Main: systemd's watchdog cannot be served");
    }
    const bool restarted = Utils::EnsureInterface(0, StoppableWatchdogHooks());
    // floating source, owned by the loop; its result is deliberately not checked
    sd_event_add_time(g_loop, nullptr, CLOCK_MONOTONIC, StartTime(g_loop, restarted), 0, BluetoothDaemonStart,
                      nullptr);
    if (r < 0)
        return 0;
    // stopped while it waited for hci0: nothing was brought up, nothing to take down
    if (TerminationPending())
        return 0;
    const int status = RunLoop(g_loop);
    if (!StopService()) {
        // a worker stuck in the BLE library: leave without running static destructors beside it
        Logging::Log(LOG_WARNING, "Camera work still running at exit");
        std::_Exit(status);
    }
    return status;
}

}  // namespace Daemon
