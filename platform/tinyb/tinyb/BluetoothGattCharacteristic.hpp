#pragma once
// A GATT characteristic (org.bluez.GattCharacteristic1). A cheap handle owned by the caller.

#include <cstdint>
#include <functional>
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

class BluetoothGattCharacteristic {
  public:
    // Receives each notified value. Runs on the library's own thread, never on the caller's; an exception
    // it throws is caught and logged. It may call back into the library.
    using ValueCallback = std::function<void(std::vector<uint8_t>&)>;

    BluetoothGattCharacteristic(std::shared_ptr<detail::Core> core, std::string objectPath);
    // With the library's record of the object: faster getters, and the last values survive its removal.
    BluetoothGattCharacteristic(std::shared_ptr<detail::Core> core, std::string objectPath,
                                std::shared_ptr<const detail::Object> object);
    virtual ~BluetoothGattCharacteristic();

    const std::string& get_object_path() const { return path; }

    // Getters: as BluetoothDevice's (last values for a handle from a listing, else BluetoothException
    // once the characteristic is gone).
    virtual std::string get_uuid();
    virtual std::vector<std::string> get_flags();
    virtual bool get_notifying();
    // The last value BlueZ reported (read or notified).
    virtual std::vector<uint8_t> get_value();
    virtual std::unique_ptr<BluetoothGattService> get_service();

    // Blocking ReadValue/WriteValue; BluetoothException on a BlueZ error.
    virtual std::vector<uint8_t> read_value(uint16_t offset = 0);
    virtual bool write_value(const std::vector<uint8_t>& value, uint16_t offset = 0);

    // Registers `callback` for this characteristic (replacing an earlier one) and then sends StartNotify.
    // The registration belongs to the characteristic, not to this handle: it lasts until
    // disable_value_notifications() or until BlueZ drops the characteristic (disconnection). Returns true
    // on success; on a BlueZ error the registration is withdrawn and BluetoothException thrown.
    virtual bool enable_value_notifications(ValueCallback callback);
    // Withdraws the callback (once this returns, it is not running and will not run again) and sends
    // StopNotify. Returns true on success.
    virtual bool disable_value_notifications();

  protected:
    BluetoothGattCharacteristic() = default;

  private:
    std::shared_ptr<detail::Core> core;
    std::string path;
    std::shared_ptr<const detail::Object> object;
};

}  // namespace tinyb
