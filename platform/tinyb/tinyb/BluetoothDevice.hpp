#pragma once
// A remote device (org.bluez.Device1) known to BlueZ. A cheap handle: an object path and the shared
// library core; the caller owns it. Getters read the library's cache. A handle from a listing keeps the
// last values BlueZ reported after the device vanished (as a D-Bus proxy would); a handle made from a
// path alone throws BluetoothException then. Properties that BlueZ omits (Name, RSSI, Class, ManufacturerData
// are often absent) read as empty / 0. Members are virtual so that tests can substitute their own device.

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tinyb/BluetoothException.hpp"

namespace tinyb {

class BluetoothGattService;

namespace detail {
class Core;
struct Object;
}  // namespace detail

class BluetoothDevice {
  public:
    BluetoothDevice(std::shared_ptr<detail::Core> core, std::string objectPath);
    // With the library's record of the object: faster getters, and the last values survive its removal.
    BluetoothDevice(std::shared_ptr<detail::Core> core, std::string objectPath,
                    std::shared_ptr<const detail::Object> object);
    virtual ~BluetoothDevice();

    const std::string& get_object_path() const { return path; }

    virtual std::string get_address();
    virtual std::string get_name();   // empty when BlueZ has no name
    virtual std::string get_alias();  // BlueZ's Alias (falls back to the address in BlueZ itself)
    virtual int16_t get_rssi();       // 0 when absent
    virtual uint32_t get_class();     // 0 when absent
    virtual uint16_t get_appearance();
    virtual bool get_paired();
    virtual bool get_trusted();
    virtual bool get_connected();
    virtual bool get_services_resolved();
    virtual std::vector<std::string> get_uuids();
    // Company identifier -> the octets BlueZ reported for it; empty when absent.
    virtual std::map<uint16_t, std::vector<uint8_t>> get_manufacturer_data();
    // Object path of the adapter this device belongs to.
    virtual std::string get_adapter_path();

    // Blocking calls to BlueZ; true on success, BluetoothException on a BlueZ error.
    virtual bool pair();
    virtual bool connect();
    virtual bool disconnect();
    // Adapter1.RemoveDevice: BlueZ forgets the device (and unpairs it). This handle becomes stale.
    virtual bool remove_device();
    virtual bool set_trusted(bool value);

    // The device's GATT services (present once connected and resolved), in BlueZ's order.
    virtual std::vector<std::unique_ptr<BluetoothGattService>> get_services();

  protected:
    // For test doubles that override every member they use.
    BluetoothDevice() = default;

  private:
    std::shared_ptr<detail::Core> core;
    std::string path;
    std::shared_ptr<const detail::Object> object;
};

}  // namespace tinyb
