#include "tinyb/BluetoothDevice.hpp"

#include "Core.h"
#include "tinyb/BluetoothGattService.hpp"

namespace tinyb {

using detail::kDevice;

BluetoothDevice::BluetoothDevice(std::shared_ptr<detail::Core> shared, std::string objectPath)
    : core(std::move(shared)), path(std::move(objectPath)) {}

BluetoothDevice::BluetoothDevice(std::shared_ptr<detail::Core> shared, std::string objectPath,
                                 std::shared_ptr<const detail::Object> mirrored)
    : core(std::move(shared)), path(std::move(objectPath)), object(std::move(mirrored)) {}

BluetoothDevice::~BluetoothDevice() = default;

std::string BluetoothDevice::get_address() {
    return core->PropertyOr<std::string>(path, object.get(), detail::kDeviceAddress, {});
}

std::string BluetoothDevice::get_name() {
    return core->PropertyOr<std::string>(path, object.get(), detail::kDeviceName, {});
}

std::string BluetoothDevice::get_alias() {
    return core->PropertyOr<std::string>(path, object.get(), detail::kDeviceAlias, {});
}

int16_t BluetoothDevice::get_rssi() {
    return core->PropertyOr<int16_t>(path, object.get(), detail::kRssi, 0);
}

uint32_t BluetoothDevice::get_class() {
    return core->PropertyOr<uint32_t>(path, object.get(), detail::kClass, 0);
}

uint16_t BluetoothDevice::get_appearance() {
    return core->PropertyOr<uint16_t>(path, object.get(), detail::kAppearance, 0);
}

bool BluetoothDevice::get_paired() {
    return core->PropertyOr(path, object.get(), detail::kPaired, false);
}

bool BluetoothDevice::get_trusted() {
    return core->PropertyOr(path, object.get(), detail::kTrusted, false);
}

bool BluetoothDevice::get_connected() {
    return core->PropertyOr(path, object.get(), detail::kConnected, false);
}

bool BluetoothDevice::get_services_resolved() {
    return core->PropertyOr(path, object.get(), detail::kServicesResolved, false);
}

std::vector<std::string> BluetoothDevice::get_uuids() {
    return core->PropertyOr<std::vector<std::string>>(path, object.get(), detail::kUuids, {});
}

std::map<uint16_t, std::vector<uint8_t>> BluetoothDevice::get_manufacturer_data() {
    return core->PropertyOr<detail::ManufacturerData>(path, object.get(), detail::kManufacturerData, {});
}

std::string BluetoothDevice::get_adapter_path() {
    return core->PropertyOr<std::string>(path, object.get(), detail::kDeviceAdapter, {});
}

bool BluetoothDevice::pair() {
    core->CallVoid(path, detail::kIfaceNames[kDevice], "Pair", nullptr, detail::kPairTimeoutUsec);
    return true;
}

namespace {
// The call succeeded whatever the resync does: a failed read leaves the cache to BlueZ's signals.
void Resync(detail::Core& core, const std::string& path) {
    try {
        core.Refresh(path, kDevice);
    } catch (const std::exception&) {
    }
}
}  // namespace

bool BluetoothDevice::connect() {
    core->CallVoid(path, detail::kIfaceNames[kDevice], "Connect");
    Resync(*core, path);
    return true;
}

bool BluetoothDevice::disconnect() {
    core->CallVoid(path, detail::kIfaceNames[kDevice], "Disconnect");
    Resync(*core, path);
    return true;
}

bool BluetoothDevice::remove_device() {
    const std::string adapter = get_adapter_path();
    if (adapter.empty())
        throw BluetoothException("org.bluez.Error.DoesNotExist", "no adapter for " + path);
    const std::string device = path;
    core->CallVoid(adapter, detail::kIfaceNames[detail::kAdapter], "RemoveDevice",
                   [device](sd_bus_message* m) { return sd_bus_message_append(m, "o", device.c_str()); });
    return true;
}

bool BluetoothDevice::set_trusted(bool value) {
    core->SetBool(path, detail::kTrusted, value);
    return true;
}

std::vector<std::unique_ptr<BluetoothGattService>> BluetoothDevice::get_services() {
    std::vector<std::unique_ptr<BluetoothGattService>> services;
    for (auto& child : core->Children(detail::kServiceDevice, path)) {
        services.push_back(
            std::make_unique<BluetoothGattService>(core, std::move(child.path), std::move(child.object)));
    }
    return services;
}

}  // namespace tinyb
