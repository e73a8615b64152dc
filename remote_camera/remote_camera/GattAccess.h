#pragma once
// The GATT operations KelpBleManager needs from the radio, behind a small interface: production uses
// TinybGattAccess (over Backend::TinybRadio and tinyb's characteristics), unit tests a fake without a bus.
// Every operation reports failure as false or a null pointer; none throws.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace KelpGatt {

// Receives each notified value, on the BLE library's thread.
using ValueCallback = std::function<void(std::vector<uint8_t>&)>;

// A characteristic whose value notifications can be switched on and off.
class NotifyCharacteristic {
  public:
    virtual ~NotifyCharacteristic() = default;
    // Registers `callback` (replacing an earlier one) and asks the peer to notify.
    virtual bool EnableNotifications(ValueCallback callback) = 0;
    // Once this returns the callback is not running and will not run again.
    virtual bool DisableNotifications() = 0;
    virtual bool IsNotifying() = 0;
};

class Access {
  public:
    virtual ~Access() = default;
    // Connects (true) or disconnects (false).
    virtual bool ConnectDevice(const std::string& mac, bool connect) = 0;
    virtual bool WaitForServiceDiscovery(const std::string& mac, unsigned timeoutSeconds) = 0;
    // Characteristic found by fragments of its service and characteristic UUIDs; after a successful write
    // the caller is held `delayMs` so that the peer can act before the next command.
    virtual bool WriteCharacteristic(const std::string& mac, const std::string& serviceUuidPart,
                                     const std::string& characteristicUuidPart,
                                     const std::vector<uint8_t>& value, int delayMs) = 0;
    // Null when the device, the service or the characteristic is not there.
    virtual std::unique_ptr<NotifyCharacteristic> GetCharacteristic(
        const std::string& mac, const std::string& serviceUuidPart,
        const std::string& characteristicUuidPart) = 0;
};

}  // namespace KelpGatt
