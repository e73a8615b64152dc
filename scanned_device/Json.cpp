#include "scanned_device/Json.h"

#include <algorithm>

#include "scanned_device/RemoteCamera.h"
#include "scanned_device/ScannedDevice.h"

namespace ScannedDevice {

std::string DumpJson(const nlohmann::json& document) {
    return document.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

JsonArray JsonArray::Devices(const std::vector<std::shared_ptr<Base>>& devices) {
    JsonArray array;
    array.parts.reserve(devices.size());
    for (const auto& device : devices) {
        if (!device)
            continue;
        array.parts.push_back(device->JsonText());
        array.size += array.parts.back()->size();
    }
    if (array.parts.size() > 1)
        array.size += array.parts.size() - 1;
    return array;
}

JsonArray JsonArray::RemoteCameras(const std::vector<std::shared_ptr<Base>>& devices) {
    std::vector<std::shared_ptr<Base>> cameras;
    for (const auto& device : devices) {
        if (dynamic_cast<const RemoteCamera*>(device.get()) != nullptr)
            cameras.push_back(device);
    }
    return Devices(cameras);
}

void JsonArray::CopyTo(char* out) const {
    *out++ = '[';
    bool first = true;
    for (const auto& part : parts) {
        if (!first)
            *out++ = ',';
        first = false;
        out = std::copy(part->begin(), part->end(), out);
    }
    *out = ']';
}

std::string JsonArray::Text() const {
    std::string text(size, '\0');
    CopyTo(text.data());
    return text;
}

std::string DevicesJson(const std::vector<std::shared_ptr<Base>>& devices) {
    return JsonArray::Devices(devices).Text();
}

std::string RemoteCamerasJson(const std::vector<std::shared_ptr<Base>>& devices) {
    return JsonArray::RemoteCameras(devices).Text();
}

}  // namespace ScannedDevice
