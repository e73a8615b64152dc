#pragma once
// A GATT characteristic whose value notifications can be switched on and off, as the radio hands it out
// (Radio::GetNotifyCharacteristic). Owned through std::unique_ptr to this interface. Every operation
// reports failure as false; none throws.

#include <cstdint>
#include <functional>
#include <vector>

namespace Backend {

// Receives each notified value, on the BLE library's thread.
using ValueCallback = std::function<void(std::vector<uint8_t>&)>;

class NotifyCharacteristic {
  public:
    virtual ~NotifyCharacteristic() = default;
    // Registers `callback` (replacing an earlier one) and asks the peer to notify.
    virtual bool EnableNotifications(ValueCallback callback) = 0;
    // Once this returns the callback is not running and will not run again.
    virtual bool DisableNotifications() = 0;
    virtual bool IsNotifying() = 0;

  protected:
    NotifyCharacteristic() = default;
    NotifyCharacteristic(const NotifyCharacteristic&) = default;
    NotifyCharacteristic& operator=(const NotifyCharacteristic&) = default;
};

}  // namespace Backend
