#include "scanned_device/Json.h"

#include "scanned_device/RemoteCamera.h"
#include "scanned_device/ScannedDevice.h"

namespace ScannedDevice {

std::string DumpJson(const nlohmann::json& document) {
    return document.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

namespace {

// The array as DumpJson writes it: the documents' own texts joined by commas, in brackets.
template <typename Keep>
std::string JoinJson(const std::vector<std::shared_ptr<Base>>& devices, Keep keep) {
    std::string out = "[";
    bool first = true;
    for (const auto& device : devices) {
        if (!device || !keep(*device))
            continue;
        if (!first)
            out += ',';
        first = false;
        device->AppendJsonText(out);
    }
    out += ']';
    return out;
}

}  // namespace

std::string DevicesJson(const std::vector<std::shared_ptr<Base>>& devices) {
    return JoinJson(devices, [](const Base&) { return true; });
}

std::string RemoteCamerasJson(const std::vector<std::shared_ptr<Base>>& devices) {
    return JoinJson(devices,
                    [](const Base& device) { return dynamic_cast<const RemoteCamera*>(&device) != nullptr; });
}

}  // namespace ScannedDevice
