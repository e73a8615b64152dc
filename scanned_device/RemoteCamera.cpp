#include "scanned_device/RemoteCamera.h"

#include "logging/Log.h"
#include "scan_response/ScanResponse.h"
#include "scan_response/ThisDevice.h"
#include "vocabulary/Vocabulary.h"

namespace ScannedDevice {

RemoteCamera::RemoteCamera() {
    type = kRemoteCameraType;
}

RemoteCamera::RemoteCamera(const ScanResponse::Base& payload) : RemoteCamera() {
    // Only schema 3 is understood; anything else (V4 included) leaves the camera fields empty.
    const auto* v3 = dynamic_cast<const ScanResponse::V3*>(&payload);
    if (v3 == nullptr || v3->CompanyIdentifier() != ScanResponse::kCompanyIdentifier ||
        v3->SchemaVersion() != 3)
        return;
    ipAddress = v3->IPAddress();
    text = v3->Text();
    deviceType = static_cast<uint16_t>(v3->DeviceTypeCode() & 0xFFu);
    batteryStatus = v3->BatteryStatusCode();
    payloadSchema = 3;
}

std::string RemoteCamera::WiFiFrequency() const {
    std::lock_guard<std::mutex> lock(frequencyMutex);
    return wifiFrequency;
}

void RemoteCamera::SetWiFiFrequency(const std::string& value) {
    {
        std::lock_guard<std::mutex> lock(frequencyMutex);
        wifiFrequency = value;
    }
    Changed();
}

nlohmann::json RemoteCamera::ToJson() const {
    nlohmann::json document = Base::ToJson();

    nlohmann::json info = nlohmann::json::object();
    info["ipAddress"] = {{"number", static_cast<uint64_t>(ipAddress)},
                         {"string", ScanResponse::Utils::ThisDevice::IPAddressToString(ipAddress)}};
    info["deviceType"] = {{"number", static_cast<uint64_t>(deviceType)},
                          {"string", NameOr(DeviceTypeNames, static_cast<int32_t>(deviceType))}};
    info["batteryStatus"] = {{"number", static_cast<uint64_t>(batteryStatus)},
                             {"string", NameOr(BatteryStatusNames, static_cast<int>(batteryStatus))}};
    info["ssid"] = text;
    document["remote-cam-info"] = info;

    const uint8_t power = PowerState();
    const uint8_t wifi = WiFiState();
    nlohmann::json ble = nlohmann::json::object();
    ble["bleVersion"] = static_cast<uint64_t>(BleVersion());
    ble["powerStatus"] = {{"code", static_cast<uint64_t>(power)},
                          {"string", NameOr(PowerStateNames, static_cast<char>(power))}};
    ble["wifiStatus"] = {{"code", static_cast<uint64_t>(wifi)},
                         {"string", NameOr(WiFiStateNames, static_cast<char>(wifi))}};
    ble["wifiFrequency"] = WiFiFrequency();
    document["remote-cam-info"]["ble-info"] = ble;
    return document;
}

void RemoteCamera::Print() const {
    Logging::Log(LOG_INFO, "Device Name: %s", Name().c_str());
    Logging::Log(LOG_INFO, "Device Mac:  %s", Mac().c_str());
    Logging::Log(LOG_INFO, "Device RSSI: %d", static_cast<int>(Rssi()));
    Logging::Log(LOG_INFO, "Device Type: %d (%s)", static_cast<int>(type), TypeName().c_str());
    Logging::Log(LOG_INFO, "Device Code: %d (%s)", static_cast<int>(deviceType),
                 NameOr(DeviceTypeNames, static_cast<int32_t>(deviceType)).c_str());
    Logging::Log(LOG_INFO, "Device IP:   %d (%s)", static_cast<int>(static_cast<int32_t>(ipAddress)),
                 ScanResponse::Utils::ThisDevice::IPAddressToString(ipAddress).c_str());
    Logging::Log(LOG_INFO, "Device Bat:  %d (%s)", static_cast<int>(batteryStatus),
                 NameOr(BatteryStatusNames, static_cast<int>(batteryStatus)).c_str());
}

std::shared_ptr<Base> FromManufacturerData(const ManufacturerData& data) {
    const auto entry = data.find(ScanResponse::kCompanyIdentifier);
    if (entry != data.end()) {
        const std::shared_ptr<ScanResponse::Base> payload = ScanResponse::Create(entry->second);
        if (payload) {
            const unsigned code = payload->DeviceTypeCode() & 0xFFu;
            if (code >= 1 && code <= 9)
                return std::make_shared<RemoteCamera>(*payload);
        }
    }
    return std::make_shared<Base>();
}

}  // namespace ScannedDevice
