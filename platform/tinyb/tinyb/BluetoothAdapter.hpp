#pragma once
// A local adapter (org.bluez.Adapter1). A cheap handle: an object path and the shared library core.
// Getters read the library's cache; setters send org.freedesktop.DBus.Properties.Set and return once BlueZ
// accepted it; the cache then follows BlueZ's PropertiesChanged, so a getter reports the new state only when
// BlueZ has applied it. Members are virtual so that tests can substitute their own adapter.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tinyb/BluetoothException.hpp"

namespace tinyb {

class BluetoothDevice;

namespace detail {
class Core;
struct Object;
}  // namespace detail

class BluetoothAdapter {
  public:
    BluetoothAdapter(std::shared_ptr<detail::Core> core, std::string objectPath);
    // With the library's record of the object: faster getters, and the last values survive its removal.
    BluetoothAdapter(std::shared_ptr<detail::Core> core, std::string objectPath,
                     std::shared_ptr<const detail::Object> object);
    virtual ~BluetoothAdapter();

    const std::string& get_object_path() const { return path; }

    // Getters throw BluetoothException while BlueZ has no adapter at this path (it may come back, e.g.
    // after bluetoothd restarts, and the handle follows it).
    virtual std::string get_address();
    virtual std::string get_name();
    virtual bool get_powered();
    virtual bool get_pairable();
    virtual bool get_discoverable();
    // BlueZ's Discovering property (any client's discovery), as last reported.
    virtual bool get_discovering();

    // Throw BluetoothException when BlueZ refuses.
    virtual bool set_powered(bool value);
    virtual bool set_pairable(bool value);
    virtual bool set_discoverable(bool value);

    // Same session tracking as BluetoothManager::start_discovery()/stop_discovery().
    virtual bool start_discovery();
    virtual bool stop_discovery();

    // This adapter's devices, in BlueZ's order.
    virtual std::vector<std::unique_ptr<BluetoothDevice>> get_devices();

  protected:
    // For test doubles that override every member they use.
    BluetoothAdapter() = default;

  private:
    std::shared_ptr<detail::Core> core;
    std::string path;
    std::shared_ptr<const detail::Object> object;
};

}  // namespace tinyb
