#pragma once
// Notifications of one tinyb characteristic, as TinybRadio::GetNotifyCharacteristic hands them out. tinyb
// exceptions from the switches are logged as the radio logs its own ("TinyB exception hit in %s: %s")
// and become false.

#include <memory>

#include "backend/NotifyCharacteristic.h"

namespace tinyb {
class BluetoothGattCharacteristic;
}

namespace Backend {

class TinybNotifyCharacteristic final : public NotifyCharacteristic {
  public:
    explicit TinybNotifyCharacteristic(std::unique_ptr<tinyb::BluetoothGattCharacteristic> characteristic);
    ~TinybNotifyCharacteristic() override;
    TinybNotifyCharacteristic(const TinybNotifyCharacteristic&) = delete;
    TinybNotifyCharacteristic& operator=(const TinybNotifyCharacteristic&) = delete;

    bool EnableNotifications(ValueCallback callback) override;
    bool DisableNotifications() override;
    bool IsNotifying() override;

  private:
    std::unique_ptr<tinyb::BluetoothGattCharacteristic> characteristic;
};

}  // namespace Backend
