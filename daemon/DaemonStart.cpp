#include "daemon/DaemonStart.h"

#include <systemd/sd-daemon.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <ctime>

#include "daemon/ServiceBringUp.h"
#include "logging/Log.h"
#include "loop/CBoundary.h"
#include "loop/Sleep.h"
#include "utils/HciWatchdog.h"

namespace Daemon {

namespace {
sd_event* g_loop = nullptr;

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

int Main() {
    const int r = sd_event_default(&g_loop);
    if (r >= 0)
        ExitLoopOnTermination(g_loop);
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
