#include "tinyb/BluetoothGattService.hpp"

#include "Core.h"
#include "tinyb/BluetoothDevice.hpp"
#include "tinyb/BluetoothGattCharacteristic.hpp"

namespace tinyb {

using detail::kService;

BluetoothGattService::BluetoothGattService(std::shared_ptr<detail::Core> shared, std::string objectPath)
    : core_(std::move(shared)), path_(std::move(objectPath)) {}

BluetoothGattService::BluetoothGattService(std::shared_ptr<detail::Core> shared, std::string objectPath,
                                           std::shared_ptr<const detail::Object> mirrored)
    : core_(std::move(shared)), path_(std::move(objectPath)), object_(std::move(mirrored)) {}

BluetoothGattService::~BluetoothGattService() = default;

std::string BluetoothGattService::get_uuid() {
    return core_->PropertyOr<std::string>(path_, object_.get(), detail::kServiceUuid, {});
}

bool BluetoothGattService::get_primary() {
    return core_->PropertyOr(path_, object_.get(), detail::kPrimary, false);
}

std::unique_ptr<BluetoothDevice> BluetoothGattService::get_device() {
    auto device = core_->Property<std::string>(path_, object_.get(), detail::kServiceDevice);
    if (!device)
        throw BluetoothException("org.bluez.Error.DoesNotExist", "no device for " + path_);
    return std::make_unique<BluetoothDevice>(core_, std::move(*device));
}

std::vector<std::unique_ptr<BluetoothGattCharacteristic>> BluetoothGattService::get_characteristics() {
    std::vector<std::unique_ptr<BluetoothGattCharacteristic>> characteristics;
    for (auto& child : core_->Children(detail::kCharacteristicService, path_)) {
        characteristics.push_back(std::make_unique<BluetoothGattCharacteristic>(core_, std::move(child.path),
                                                                                std::move(child.object)));
    }
    return characteristics;
}

}  // namespace tinyb
