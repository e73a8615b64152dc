#include "tinyb/BluetoothGattCharacteristic.hpp"

#include "Core.h"
#include "tinyb/BluetoothGattService.hpp"

namespace tinyb {

using detail::kCharacteristic;

namespace {

const char* const kCharacteristicIface = detail::kIfaceNames[kCharacteristic];

// The options dictionary of ReadValue/WriteValue: an offset only when there is one.
int AppendOptions(sd_bus_message* m, uint16_t offset) {
    if (offset == 0)
        return sd_bus_message_append(m, "a{sv}", 0);
    return sd_bus_message_append(m, "a{sv}", 1, "offset", "q", offset);
}

}  // namespace

BluetoothGattCharacteristic::BluetoothGattCharacteristic(std::shared_ptr<detail::Core> shared,
                                                         std::string objectPath)
    : core(std::move(shared)), path(std::move(objectPath)) {}

BluetoothGattCharacteristic::BluetoothGattCharacteristic(std::shared_ptr<detail::Core> shared,
                                                         std::string objectPath,
                                                         std::shared_ptr<const detail::Object> mirrored)
    : core(std::move(shared)), path(std::move(objectPath)), object(std::move(mirrored)) {}

BluetoothGattCharacteristic::~BluetoothGattCharacteristic() = default;

std::string BluetoothGattCharacteristic::get_uuid() {
    return core->PropertyOr<std::string>(path, object.get(), detail::kCharacteristicUuid, {});
}

std::vector<std::string> BluetoothGattCharacteristic::get_flags() {
    return core->PropertyOr<std::vector<std::string>>(path, object.get(), detail::kFlags, {});
}

bool BluetoothGattCharacteristic::get_notifying() {
    return core->PropertyOr(path, object.get(), detail::kNotifying, false);
}

std::vector<uint8_t> BluetoothGattCharacteristic::get_value() {
    return core->PropertyOr<detail::Bytes>(path, object.get(), detail::kValue, {});
}

std::unique_ptr<BluetoothGattService> BluetoothGattCharacteristic::get_service() {
    auto service = core->Property<std::string>(path, object.get(), detail::kCharacteristicService);
    if (!service)
        throw BluetoothException("org.bluez.Error.DoesNotExist", "no service for " + path);
    return std::make_unique<BluetoothGattService>(core, std::move(*service));
}

std::vector<uint8_t> BluetoothGattCharacteristic::read_value(uint16_t offset) {
    return core->Call<std::vector<uint8_t>>(
        path, kCharacteristicIface, "ReadValue",
        [offset](sd_bus_message* m) { return AppendOptions(m, offset); },
        [](sd_bus_message* reply) {
            const void* data = nullptr;
            size_t size = 0;
            const int r = sd_bus_message_read_array(reply, SD_BUS_TYPE_BYTE, &data, &size);
            if (r < 0)
                throw BluetoothException("malformed ReadValue reply");
            const auto* bytes = static_cast<const uint8_t*>(data);
            return std::vector<uint8_t>(bytes, bytes + size);
        });
}

bool BluetoothGattCharacteristic::write_value(const std::vector<uint8_t>& value, uint16_t offset) {
    core->CallVoid(path, kCharacteristicIface, "WriteValue", [value, offset](sd_bus_message* m) {
        int r = sd_bus_message_append_array(m, SD_BUS_TYPE_BYTE, value.data(), value.size());
        return r < 0 ? r : AppendOptions(m, offset);
    });
    return true;
}

bool BluetoothGattCharacteristic::enable_value_notifications(ValueCallback callback) {
    auto shared = core;
    const std::string characteristicPath = path;
    // Registered before StartNotify goes out, so that the first notification already finds it.
    shared->RunOnLoop(
        [shared, characteristicPath, callback] { shared->SetValueCallback(characteristicPath, callback); });
    try {
        shared->CallVoid(characteristicPath, kCharacteristicIface, "StartNotify");
    } catch (...) {
        shared->RunOnLoop([shared, characteristicPath] { shared->ClearValueCallback(characteristicPath); });
        throw;
    }
    return true;
}

bool BluetoothGattCharacteristic::disable_value_notifications() {
    auto shared = core;
    const std::string characteristicPath = path;
    shared->RunOnLoop([shared, characteristicPath] { shared->ClearValueCallback(characteristicPath); });
    shared->CallVoid(characteristicPath, kCharacteristicIface, "StopNotify");
    return true;
}

}  // namespace tinyb
