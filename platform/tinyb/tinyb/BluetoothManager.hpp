#pragma once
// Entry point of the BlueZ client. One process-wide manager owns one background thread that runs its own
// sd-event loop and system-bus connection; every D-Bus exchange happens on that thread. BlueZ's objects
// are mirrored in a cache (one GetManagedObjects at start, then InterfacesAdded/Removed and
// PropertiesChanged), so getters never go to the bus. Method calls from any thread are handed to the
// library thread and the caller blocks until the reply. All members are safe to call from several threads
// at once, and from inside a notification callback.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tinyb/BluetoothException.hpp"

namespace tinyb {

class BluetoothAdapter;
class BluetoothDevice;

namespace detail {
class Core;
}

class BluetoothManager {
  public:
    // The process-wide manager, created on first use (connects to the system bus named by
    // DBUS_SYSTEM_BUS_ADDRESS or the default one, and loads BlueZ's objects). Throws BluetoothException when
    // the bus or BlueZ cannot be reached; a later call tries again. Never returns null; not to be deleted.
    static BluetoothManager* get_bluetooth_manager();

    BluetoothManager(const BluetoothManager&) = delete;
    BluetoothManager& operator=(const BluetoothManager&) = delete;

    // BlueZ's adapter with the lowest hciN index. Throws BluetoothException when BlueZ has no adapter.
    std::unique_ptr<BluetoothAdapter> get_default_adapter();
    std::vector<std::unique_ptr<BluetoothAdapter>> get_adapters();

    // The default adapter's devices, in the order BlueZ reported them. Empty when there is no adapter.
    std::vector<std::unique_ptr<BluetoothDevice>> get_devices();

    // Discovery on the default adapter. The library tracks its own discovery session from the calls'
    // results: start_discovery() while its session runs returns true without a call, stop_discovery()
    // without a session returns false without a call. Both throw BluetoothException on a BlueZ error.
    bool start_discovery();
    bool stop_discovery();
    // Whether this process's discovery session on the default adapter is running, as tracked above.
    bool get_discovering();

    // Diagnostics: the number of method calls the library has sent to BlueZ since the process started
    // (GetManagedObjects, discovery, Properties.Set, Pair, ReadValue, ...). Bus-driver calls are not counted.
    static uint64_t get_method_call_count();

  private:
    friend class detail::Core;
    explicit BluetoothManager(std::shared_ptr<detail::Core> core);
    std::shared_ptr<detail::Core> core;
};

}  // namespace tinyb
