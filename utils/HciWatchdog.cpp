#include "utils/HciWatchdog.h"

#include <sys/stat.h>

#include <chrono>

#include "logging/Log.h"
#include "loop/Sleep.h"
#include "utils/SystemdUnit.h"

namespace Utils {

WatchdogHooks SystemWatchdogHooks() {
    return {InterfaceExists, RestartServiceUnit, [] { Loop::SleepFor(std::chrono::seconds(1)); }, nullptr};
}

namespace {
bool Stopping(const WatchdogHooks& hooks) {
    return hooks.stopRequested && hooks.stopRequested();
}
}  // namespace

bool InterfaceExists(int index) {
    const std::string path = kHciPathPrefix + std::to_string(index);
    struct stat st;
    return stat(path.c_str(), &st) == 0;  // any file type counts
}

bool WaitForInterface(int index, const WatchdogHooks& hooks) {
    for (int i = 0; i < kWaitChecks; ++i) {
        if (hooks.interfaceExists(index) || Stopping(hooks))
            break;
        Logging::Log(LOG_ERR, "Waiting for HCI%d interface...", index);
        hooks.sleepOneSecond();
    }
    return hooks.interfaceExists(index);
}

bool EnsureInterface(int index, const WatchdogHooks& hooks) {
    bool restarted = false;
    for (int pass = 0; pass < kWatchdogPasses; ++pass) {
        if (Stopping(hooks))
            return restarted;
        if (hooks.interfaceExists(index)) {
            Logging::Log(LOG_INFO, "HCI%d okay, no need to restart services!", index);
            return restarted;
        }
        Logging::Log(LOG_ERR, "HCI%d does not exist, relaunching BT related services...", index);
        hooks.restartUnit(kBoardBluetoothUnit);
        hooks.restartUnit(kBluetoothUnit);
        restarted = true;
        if (WaitForInterface(index, hooks)) {
            Logging::Log(LOG_INFO, "HCI%d has been brought up!", index);
            return true;
        }
    }
    return true;
}

}  // namespace Utils
