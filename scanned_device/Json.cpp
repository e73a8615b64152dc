#include "scanned_device/Json.h"

#include "scanned_device/RemoteCamera.h"
#include "scanned_device/ScannedDevice.h"

namespace ScannedDevice {

std::string DumpJson(const nlohmann::json& document) {
    return document.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string DevicesJson(const std::vector<std::shared_ptr<Base>>& devices) {
    nlohmann::json array = nlohmann::json::array();
    for (const auto& device : devices) {
        if (device)
            array.push_back(device->ToJson());
    }
    return DumpJson(array);
}

std::string RemoteCamerasJson(const std::vector<std::shared_ptr<Base>>& devices) {
    nlohmann::json array = nlohmann::json::array();
    for (const auto& device : devices) {
        if (dynamic_cast<const RemoteCamera*>(device.get()) != nullptr)
            array.push_back(device->ToJson());
    }
    return DumpJson(array);
}

}  // namespace ScannedDevice
