#pragma once
// KelpGatt::Access over the daemon's radio: connection through Backend::RadioInterface, the GATT
// operations through Backend::TinybRadio, and notifications switched directly on tinyb's characteristic.
// tinyb exceptions from the notification switches are logged as the radio logs its own
// ("TinyB exception hit in %s: %s") and become false.

#include <memory>

#include "remote_camera/GattAccess.h"

namespace Backend {
class RadioInterface;
class TinybRadio;
}  // namespace Backend

namespace KelpGatt {

class TinybGattAccess : public Access {
  public:
    // A radio that is not a Backend::TinybRadio can still connect, but has no GATT: every GATT operation
    // then fails.
    explicit TinybGattAccess(std::shared_ptr<Backend::RadioInterface> radio);

    bool ConnectDevice(const std::string& mac, bool connect) override;
    bool WaitForServiceDiscovery(const std::string& mac, unsigned timeoutSeconds) override;
    bool WriteCharacteristic(const std::string& mac, const std::string& serviceUuidPart,
                             const std::string& characteristicUuidPart, const std::vector<uint8_t>& value,
                             int delayMs) override;
    std::unique_ptr<NotifyCharacteristic> GetCharacteristic(
        const std::string& mac, const std::string& serviceUuidPart,
        const std::string& characteristicUuidPart) override;

  private:
    std::shared_ptr<Backend::RadioInterface> radio;
    std::shared_ptr<Backend::TinybRadio> tinybRadio;
};

}  // namespace KelpGatt
