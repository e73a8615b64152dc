#include "tinyb/BluetoothAdapter.hpp"

#include "Core.h"
#include "tinyb/BluetoothDevice.hpp"

namespace tinyb {

using detail::kAdapter;

BluetoothAdapter::BluetoothAdapter(std::shared_ptr<detail::Core> shared, std::string objectPath)
    : core_(std::move(shared)), path_(std::move(objectPath)) {}

BluetoothAdapter::BluetoothAdapter(std::shared_ptr<detail::Core> shared, std::string objectPath,
                                   std::shared_ptr<const detail::Object> mirrored)
    : core_(std::move(shared)), path_(std::move(objectPath)), object_(std::move(mirrored)) {}

BluetoothAdapter::~BluetoothAdapter() = default;

std::string BluetoothAdapter::get_address() {
    return core_->PropertyOr<std::string>(path_, object_.get(), detail::kAdapterAddress, {});
}

std::string BluetoothAdapter::get_name() {
    return core_->PropertyOr<std::string>(path_, object_.get(), detail::kAdapterName, {});
}

bool BluetoothAdapter::get_powered() {
    return core_->PropertyOr(path_, object_.get(), detail::kPowered, false);
}

bool BluetoothAdapter::get_pairable() {
    return core_->PropertyOr(path_, object_.get(), detail::kPairable, false);
}

bool BluetoothAdapter::get_discoverable() {
    return core_->PropertyOr(path_, object_.get(), detail::kDiscoverable, false);
}

bool BluetoothAdapter::get_discovering() {
    return core_->PropertyOr(path_, object_.get(), detail::kDiscovering, false);
}

bool BluetoothAdapter::set_powered(bool value) {
    core_->SetBool(path_, detail::kPowered, value);
    return true;
}

bool BluetoothAdapter::set_pairable(bool value) {
    core_->SetBool(path_, detail::kPairable, value);
    return true;
}

bool BluetoothAdapter::set_discoverable(bool value) {
    core_->SetBool(path_, detail::kDiscoverable, value);
    return true;
}

bool BluetoothAdapter::start_discovery() {
    return core_->StartDiscovery(path_);
}

bool BluetoothAdapter::stop_discovery() {
    return core_->StopDiscovery(path_);
}

std::vector<std::unique_ptr<BluetoothDevice>> BluetoothAdapter::get_devices() {
    std::vector<std::unique_ptr<BluetoothDevice>> devices;
    for (auto& child : core_->Children(detail::kDeviceAdapter, path_)) {
        devices.push_back(
            std::make_unique<BluetoothDevice>(core_, std::move(child.path), std::move(child.object)));
    }
    return devices;
}

}  // namespace tinyb
