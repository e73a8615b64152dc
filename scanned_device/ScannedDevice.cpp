#include "scanned_device/ScannedDevice.h"

#include "scanned_device/Json.h"
#include "vocabulary/Vocabulary.h"

namespace ScannedDevice {

std::string ClassNameFor(uint32_t deviceClass) {
    static const std::map<uint32_t, std::string> majorClassNames = {
        {0x00, "Miscellaneous"}, {0x01, "Computer"},
        {0x02, "Phone"},         {0x03, "Network Access Point"},
        {0x04, "Audio/Video"},   {0x05, "Peripheral"},
        {0x06, "Imaging"},       {0x07, "Wearable"},
        {0x08, "Toy"},           {0x09, "Health"},
        {0x1F, "Uncategorized"},
    };
    return NameOr(majorClassNames, (deviceClass >> 8) & 0x1Fu);
}

Base::Base() = default;

const std::map<int, std::string>& Base::TypeNames() const {
    static const std::map<int, std::string> names{
        {kGenericType, "Generic"}, {kRemoteCameraType, "RemoteCamera"}, {kHidType, "HID"}};
    return names;
}

std::shared_ptr<const std::string> Base::JsonText() const {
    std::lock_guard<std::mutex> lock(jsonMutex);
    if (!jsonText)
        jsonText = std::make_shared<const std::string>(DumpJson(ToJson()));
    return jsonText;
}

void Base::Changed() {
    std::lock_guard<std::mutex> lock(jsonMutex);
    jsonText.reset();
}

std::string Base::TypeName() const {
    return NameOr(TypeNames(), type);
}

nlohmann::json Base::ToJson() const {
    nlohmann::json document = nlohmann::json::object();
    document["type"] = static_cast<int64_t>(type);
    // The class is a bit field, but consumers read every top-level number as signed.
    document["class"] = static_cast<int64_t>(deviceClass);
    document["class-name"] = className;
    document["rssi"] = static_cast<int64_t>(rssi);
    document["name"] = name;
    document["mac"] = mac;
    document["paired"] = paired;
    document["trusted"] = trusted;
    return document;
}

}  // namespace ScannedDevice
