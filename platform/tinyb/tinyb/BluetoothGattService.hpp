#pragma once
// A GATT service of a connected device (org.bluez.GattService1). A cheap handle owned by the caller.

#include <memory>
#include <string>
#include <vector>

#include "tinyb/BluetoothException.hpp"

namespace tinyb {

class BluetoothDevice;
class BluetoothGattCharacteristic;

namespace detail {
class Core;
struct Object;
}  // namespace detail

class BluetoothGattService {
  public:
    BluetoothGattService(std::shared_ptr<detail::Core> core, std::string objectPath);
    // With the library's record of the object: faster getters, and the last values survive its removal.
    BluetoothGattService(std::shared_ptr<detail::Core> core, std::string objectPath,
                         std::shared_ptr<const detail::Object> object);
    virtual ~BluetoothGattService();

    const std::string& get_object_path() const { return path; }

    // Lower-case 128-bit UUID text as BlueZ gives it. Gone service: as BluetoothDevice's getters.
    virtual std::string get_uuid();
    virtual bool get_primary();
    virtual std::unique_ptr<BluetoothDevice> get_device();
    // The service's characteristics, in BlueZ's order.
    virtual std::vector<std::unique_ptr<BluetoothGattCharacteristic>> get_characteristics();

  protected:
    BluetoothGattService() = default;

  private:
    std::shared_ptr<detail::Core> core;
    std::string path;
    std::shared_ptr<const detail::Object> object;
};

}  // namespace tinyb
