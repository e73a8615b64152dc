// What the network and power daemons report, copied into the state the scan response carries.
#include <any>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "controller/BluetoothController.h"
#include "logging/Log.h"
#include "scan_response/ThisDevice.h"

namespace ThisDevice = ScanResponse::Utils::ThisDevice;

namespace {

// The first two elements; a missing one counts as 0.
template <typename T>
std::pair<T, T> FirstTwo(const std::any& value) {
    const auto list = std::any_cast<std::vector<T>>(value);
    return {list.size() > 0 ? list[0] : T{}, list.size() > 1 ? list[1] : T{}};
}

}  // namespace

void BluetoothController::NetworkPropertiesChanged(sdbus_utils::TypedPropertyMap& properties) {
    Logging::Log(LOG_INFO, "%s",
                 "void BluetoothController::NetworkPropertiesChanged(sdbus_utils::TypedPropertyMap&)");
    for (const auto& [key, typed] : properties) {
        const auto& [signature, value] = typed;
        if (signature != "s")
            continue;
        if (key == "IPAddress") {
            const auto address = std::any_cast<std::string>(value);
            ThisDevice::SetIPAddress(address);
            Logging::Log(LOG_INFO, "IPAddress: %s", address.c_str());
        } else if (key == "SSID") {
            // Deliberately unlike the address: an empty SSID keeps the last network's name on air.
            const auto ssid = std::any_cast<std::string>(value);
            if (!ssid.empty()) {
                ThisDevice::SetSSID(ssid);
                Logging::Log(LOG_INFO, "SSID: %s", ssid.c_str());
            }
        }
    }
}

void BluetoothController::PowerPropertiesChanged(sdbus_utils::TypedPropertyMap& properties) {
    Logging::Log(LOG_INFO, "%s",
                 "void BluetoothController::PowerPropertiesChanged(sdbus_utils::TypedPropertyMap&)");
    for (const auto& [key, typed] : properties) {
        const auto& [signature, value] = typed;
        if (key == "ActivePowerSource" && signature == "i") {
            ThisDevice::SetActivePowerSource(std::any_cast<int32_t>(value));
        } else if (key == "BatteryVoltages" && signature == "ai") {
            const auto [first, second] = FirstTwo<int32_t>(value);
            ThisDevice::SetBatteryVoltages(first, second);
        } else if (key == "BatteryChargePercentages" && signature == "ai") {
            const auto [first, second] = FirstTwo<int32_t>(value);
            ThisDevice::SetBatteryChargePercentages(first, second);
        } else if (key == "BatteryTypes" && signature == "au") {
            const auto [first, second] = FirstTwo<uint32_t>(value);
            ThisDevice::SetBatteryTypes(first, second);
        }
    }
}
