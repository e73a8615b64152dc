#include "backend/TinybNotifyCharacteristic.h"

#include <exception>
#include <stdexcept>
#include <utility>

#include "logging/Log.h"
#include "tinyb/tinyb.hpp"

namespace Backend {

namespace {

void LogTinybException(const char* operation, const std::exception& e) {
    Logging::Log(LOG_ERR, "TinyB exception hit in %s: %s", operation, e.what());
}

}  // namespace

TinybNotifyCharacteristic::TinybNotifyCharacteristic(
    std::unique_ptr<tinyb::BluetoothGattCharacteristic> characteristic)
    : characteristic(std::move(characteristic)) {}

TinybNotifyCharacteristic::~TinybNotifyCharacteristic() = default;

bool TinybNotifyCharacteristic::EnableNotifications(ValueCallback callback) {
    try {
        return characteristic->enable_value_notifications(std::move(callback));
    } catch (const std::runtime_error& e) {
        LogTinybException("EnableValueNotifications", e);
        return false;
    }
}

bool TinybNotifyCharacteristic::DisableNotifications() {
    try {
        return characteristic->disable_value_notifications();
    } catch (const std::runtime_error& e) {
        // Typically the link went down first; BlueZ has dropped the notifications with it.
        LogTinybException("DisableValueNotifications", e);
        return false;
    }
}

bool TinybNotifyCharacteristic::IsNotifying() {
    try {
        return characteristic->get_notifying();
    } catch (const std::runtime_error& e) {
        LogTinybException("GetNotifying", e);
        return false;
    }
}

}  // namespace Backend
