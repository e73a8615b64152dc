#include "remote_camera/TinybGattAccess.h"

#include <stdexcept>
#include <utility>

#include "backend/RadioInterface.h"
#include "backend/TinybRadio.h"
#include "logging/Log.h"
#include "tinyb/tinyb.hpp"

namespace KelpGatt {

namespace {

void LogTinybException(const char* operation, const std::exception& e) {
    Logging::Log(LOG_ERR, "TinyB exception hit in %s: %s", operation, e.what());
}

class TinybNotifyCharacteristic : public NotifyCharacteristic {
  public:
    explicit TinybNotifyCharacteristic(std::unique_ptr<tinyb::BluetoothGattCharacteristic> characteristic)
        : characteristic(std::move(characteristic)) {}

    bool EnableNotifications(ValueCallback callback) override {
        try {
            return characteristic->enable_value_notifications(std::move(callback));
        } catch (const std::runtime_error& e) {
            LogTinybException("EnableValueNotifications", e);
            return false;
        }
    }

    bool DisableNotifications() override {
        try {
            return characteristic->disable_value_notifications();
        } catch (const std::runtime_error& e) {
            // Typically the link went down first; BlueZ has dropped the notifications with it.
            LogTinybException("DisableValueNotifications", e);
            return false;
        }
    }

    bool IsNotifying() override {
        try {
            return characteristic->get_notifying();
        } catch (const std::runtime_error& e) {
            LogTinybException("GetNotifying", e);
            return false;
        }
    }

  private:
    std::unique_ptr<tinyb::BluetoothGattCharacteristic> characteristic;
};

}  // namespace

TinybGattAccess::TinybGattAccess(std::shared_ptr<Backend::RadioInterface> radio)
    : radio(std::move(radio)), tinybRadio(std::dynamic_pointer_cast<Backend::TinybRadio>(this->radio)) {}

bool TinybGattAccess::ConnectDevice(const std::string& mac, bool connect) {
    return radio && radio->ConnectDevice(mac, connect);
}

bool TinybGattAccess::WaitForServiceDiscovery(const std::string& mac, unsigned timeoutSeconds) {
    return tinybRadio && tinybRadio->WaitForServiceDiscovery(mac, timeoutSeconds);
}

bool TinybGattAccess::WriteCharacteristic(const std::string& mac, const std::string& serviceUuidPart,
                                          const std::string& characteristicUuidPart,
                                          const std::vector<uint8_t>& value, int delayMs) {
    return tinybRadio &&
           tinybRadio->WriteCharacteristic(mac, serviceUuidPart, characteristicUuidPart, value, delayMs);
}

std::unique_ptr<NotifyCharacteristic> TinybGattAccess::GetCharacteristic(
    const std::string& mac, const std::string& serviceUuidPart, const std::string& characteristicUuidPart) {
    if (!tinybRadio)
        return nullptr;
    auto characteristic =
        Backend::TinybRadio::GetCharacteristic(mac, serviceUuidPart, characteristicUuidPart);
    if (!characteristic)
        return nullptr;
    return std::make_unique<TinybNotifyCharacteristic>(std::move(characteristic));
}

}  // namespace KelpGatt
