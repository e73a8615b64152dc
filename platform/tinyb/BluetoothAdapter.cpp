#include "tinyb/BluetoothAdapter.hpp"

#include "Core.h"
#include "tinyb/BluetoothDevice.hpp"

namespace tinyb {

using detail::kAdapter;

BluetoothAdapter::BluetoothAdapter(std::shared_ptr<detail::Core> shared, std::string objectPath)
    : core(std::move(shared)), path(std::move(objectPath)) {}

BluetoothAdapter::BluetoothAdapter(std::shared_ptr<detail::Core> shared, std::string objectPath,
                                   std::shared_ptr<const detail::Object> mirrored)
    : core(std::move(shared)), path(std::move(objectPath)), object(std::move(mirrored)) {}

BluetoothAdapter::~BluetoothAdapter() = default;

std::string BluetoothAdapter::get_address() {
    return core->PropertyOr<std::string>(path, object.get(), detail::kAdapterAddress, {});
}

std::string BluetoothAdapter::get_name() {
    return core->PropertyOr<std::string>(path, object.get(), detail::kAdapterName, {});
}

bool BluetoothAdapter::get_powered() {
    return core->PropertyOr(path, object.get(), detail::kPowered, false);
}

bool BluetoothAdapter::get_pairable() {
    return core->PropertyOr(path, object.get(), detail::kPairable, false);
}

bool BluetoothAdapter::get_discoverable() {
    return core->PropertyOr(path, object.get(), detail::kDiscoverable, false);
}

bool BluetoothAdapter::get_discovering() {
    return core->PropertyOr(path, object.get(), detail::kDiscovering, false);
}

bool BluetoothAdapter::set_powered(bool value) {
    core->SetBool(path, detail::kPowered, value);
    return true;
}

bool BluetoothAdapter::set_pairable(bool value) {
    core->SetBool(path, detail::kPairable, value);
    return true;
}

bool BluetoothAdapter::set_discoverable(bool value) {
    core->SetBool(path, detail::kDiscoverable, value);
    return true;
}

bool BluetoothAdapter::start_discovery() {
    return core->StartDiscovery(path);
}

bool BluetoothAdapter::stop_discovery() {
    return core->StopDiscovery(path);
}

std::vector<std::unique_ptr<BluetoothDevice>> BluetoothAdapter::get_devices() {
    std::vector<std::unique_ptr<BluetoothDevice>> devices;
    for (auto& child : core->Children(detail::kDeviceAdapter, path)) {
        devices.push_back(
            std::make_unique<BluetoothDevice>(core, std::move(child.path), std::move(child.object)));
    }
    return devices;
}

}  // namespace tinyb
