#include "tinyb/BluetoothGattService.hpp"

#include "Core.h"
#include "tinyb/BluetoothDevice.hpp"
#include "tinyb/BluetoothGattCharacteristic.hpp"

namespace tinyb {

using detail::kService;

BluetoothGattService::BluetoothGattService(std::shared_ptr<detail::Core> shared, std::string objectPath)
    : core(std::move(shared)), path(std::move(objectPath)) {}

BluetoothGattService::BluetoothGattService(std::shared_ptr<detail::Core> shared, std::string objectPath,
                                           std::shared_ptr<const detail::Object> mirrored)
    : core(std::move(shared)), path(std::move(objectPath)), object(std::move(mirrored)) {}

BluetoothGattService::~BluetoothGattService() = default;

std::string BluetoothGattService::get_uuid() {
    return core->PropertyOr<std::string>(path, object.get(), detail::kServiceUuid, {});
}

bool BluetoothGattService::get_primary() {
    return core->PropertyOr(path, object.get(), detail::kPrimary, false);
}

std::unique_ptr<BluetoothDevice> BluetoothGattService::get_device() {
    auto device = core->Property<std::string>(path, object.get(), detail::kServiceDevice);
    if (!device)
        throw BluetoothException("org.bluez.Error.DoesNotExist", "no device for " + path);
    return std::make_unique<BluetoothDevice>(core, std::move(*device));
}

std::vector<std::unique_ptr<BluetoothGattCharacteristic>> BluetoothGattService::get_characteristics() {
    std::vector<std::unique_ptr<BluetoothGattCharacteristic>> characteristics;
    for (auto& child : core->Children(detail::kCharacteristicService, path)) {
        characteristics.push_back(std::make_unique<BluetoothGattCharacteristic>(core, std::move(child.path),
                                                                                std::move(child.object)));
    }
    return characteristics;
}

}  // namespace tinyb
