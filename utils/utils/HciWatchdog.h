#pragma once
// Makes sure the kernel's Bluetooth interface hciN exists before the daemon relies on the radio;
// when it does not, the Bluetooth units are restarted and the interface is waited for.

#include <functional>
#include <string>

namespace Utils {

inline constexpr const char* kHciPathPrefix = "/sys/class/bluetooth/hci";
inline constexpr const char* kBoardBluetoothUnit = "variscite-bt.service";
inline constexpr const char* kBluetoothUnit = "bluetooth.service";
inline constexpr int kWatchdogPasses = 5;
inline constexpr int kWaitChecks = 5;

// What the watchdog touches, so tests can replace the sysfs check, the unit restart and the 1 s sleep.
// `stopRequested` (optional) ends the watchdog at its next check, with nothing more restarted: the
// daemon is being stopped while it waits.
struct WatchdogHooks {
    std::function<bool(int index)> interfaceExists;
    std::function<bool(const std::string& unit)> restartUnit;
    std::function<void()> sleepOneSecond;
    std::function<bool()> stopRequested;
};

// The hooks the daemon uses: sysfs, systemd on the system bus and a real one-second sleep.
WatchdogHooks SystemWatchdogHooks();

bool InterfaceExists(int index);
bool WaitForInterface(int index, const WatchdogHooks& hooks = SystemWatchdogHooks());

// Returns false only when the interface existed at the first check; true as soon as any pass had to
// restart the units, whether or not the interface finally appeared.
bool EnsureInterface(int index, const WatchdogHooks& hooks = SystemWatchdogHooks());

}  // namespace Utils
