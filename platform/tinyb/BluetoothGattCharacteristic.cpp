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

BluetoothGattCharacteristic::BluetoothGattCharacteristic(std::shared_ptr<detail::Core> core,
                                                         std::string objectPath)
    : core_(std::move(core)), path_(std::move(objectPath)) {}

BluetoothGattCharacteristic::BluetoothGattCharacteristic(std::shared_ptr<detail::Core> core,
                                                         std::string objectPath,
                                                         std::shared_ptr<const detail::Object> object)
    : core_(std::move(core)), path_(std::move(objectPath)), object_(std::move(object)) {}

BluetoothGattCharacteristic::~BluetoothGattCharacteristic() = default;

std::string BluetoothGattCharacteristic::get_uuid() {
    return core_->PropertyOr<std::string>(path_, object_.get(), detail::kCharacteristicUuid, {});
}

std::vector<std::string> BluetoothGattCharacteristic::get_flags() {
    return core_->PropertyOr<std::vector<std::string>>(path_, object_.get(), detail::kFlags, {});
}

bool BluetoothGattCharacteristic::get_notifying() {
    return core_->PropertyOr(path_, object_.get(), detail::kNotifying, false);
}

std::vector<uint8_t> BluetoothGattCharacteristic::get_value() {
    return core_->PropertyOr<detail::Bytes>(path_, object_.get(), detail::kValue, {});
}

std::unique_ptr<BluetoothGattService> BluetoothGattCharacteristic::get_service() {
    auto service = core_->Property<std::string>(path_, object_.get(), detail::kCharacteristicService);
    if (!service)
        throw BluetoothException("org.bluez.Error.DoesNotExist", "no service for " + path_);
    return std::make_unique<BluetoothGattService>(core_, std::move(*service));
}

std::vector<uint8_t> BluetoothGattCharacteristic::read_value(uint16_t offset) {
    return core_->Call<std::vector<uint8_t>>(
        path_, kCharacteristicIface, "ReadValue",
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
    core_->CallVoid(path_, kCharacteristicIface, "WriteValue", [value, offset](sd_bus_message* m) {
        int r = sd_bus_message_append_array(m, SD_BUS_TYPE_BYTE, value.data(), value.size());
        return r < 0 ? r : AppendOptions(m, offset);
    });
    return true;
}

bool BluetoothGattCharacteristic::enable_value_notifications(ValueCallback callback) {
    auto core = core_;
    const std::string path = path_;
    // Registered before StartNotify goes out, so that the first notification already finds it.
    core->RunOnLoop([core, path, callback] { core->SetValueCallback(path, callback); });
    try {
        core->CallVoid(path, kCharacteristicIface, "StartNotify");
    } catch (...) {
        core->RunOnLoop([core, path] { core->ClearValueCallback(path); });
        throw;
    }
    return true;
}

bool BluetoothGattCharacteristic::disable_value_notifications() {
    auto core = core_;
    const std::string path = path_;
    core->RunOnLoop([core, path] { core->ClearValueCallback(path); });
    core->CallVoid(path, kCharacteristicIface, "StopNotify");
    return true;
}

}  // namespace tinyb
