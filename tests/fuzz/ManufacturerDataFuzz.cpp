// Manufacturer data under our company identifier, as any device in radio range can send them: decoded by
// ScanResponse::Create and ScannedDevice::FromManufacturerData, and the record published as JSON text.
//
// Exactly two octets throw std::out_of_range (documented, left to the scanner); no other input may throw.
// The decoded fields must follow the received layout of ScanResponse.h, and the record's text must be JSON
// that parses back to the record, whatever name the device gave itself.
#include <cstdint>
#include <exception>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "scan_response/ScanResponse.h"
#include "scanned_device/Json.h"
#include "scanned_device/RemoteCamera.h"
#include "scanned_device/ScannedDevice.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Fuzz::Check;

// Runs `decode`; returns false when it threw the one documented exception (two octets).
template <typename Decode>
bool Decodes(const Bytes& bytes, const char* what, Decode decode) {
    try {
        decode();
    } catch (const std::out_of_range& e) {
        Check(bytes.size() == 2, std::string(what) + " threw std::out_of_range for " +
                                     std::to_string(bytes.size()) + " octets: " + e.what());
        return false;
    } catch (const std::exception& e) {
        Fuzz::Fail(std::string(what) + " threw: " + e.what());
    } catch (...) {
        Fuzz::Fail(std::string(what) + " threw something that is not a std::exception");
    }
    Check(bytes.size() != 2, std::string(what) + " did not throw for two octets");
    return true;
}

// The received layout, read here without the daemon's decoder: type (1 octet) | ignored | version |
// battery | IP (LE32, octets present only) | text (printable ASCII kept).
struct Fields {
    uint16_t deviceType = 0;
    uint8_t battery = 0;
    uint32_t ip = 0;
    std::string text;
};

Fields Layout(const Bytes& b) {
    Fields f;
    if (!b.empty())
        f.deviceType = b[0];
    if (b.size() >= 4)
        f.battery = b[3];
    for (std::size_t i = 4; i < b.size() && i < 8; ++i)
        f.ip |= static_cast<uint32_t>(b[i]) << (8 * (i - 4));
    for (std::size_t i = 8; i < b.size(); ++i) {
        if (b[i] >= 0x20 && b[i] <= 0x7E)
            f.text += static_cast<char>(b[i]);
    }
    return f;
}

void CheckPayload(const Bytes& bytes, const std::shared_ptr<ScanResponse::Base>& payload) {
    const int version = bytes.size() > 2 ? bytes[2] : -1;
    if (version != 3 && version != 4) {
        Check(payload == nullptr, "a payload was made without version 3 or 4 at octet 2");
        return;
    }
    Check(payload != nullptr, "no payload for version " + std::to_string(version));
    Check((dynamic_cast<const ScanResponse::V3*>(payload.get()) != nullptr) == (version == 3),
          "the payload's class does not follow octet 2");
    Check(payload->SchemaVersion() == version, "schema version");
    Check(payload->CompanyIdentifier() == ScanResponse::kCompanyIdentifier, "company identifier");
    const Fields want = Layout(bytes);
    Check(payload->DeviceTypeCode() == want.deviceType, "device type");
    Check(payload->BatteryStatusCode() == want.battery, "battery status");
    Check(payload->IPAddress() == want.ip, "IP value");
    Check(payload->Text() == want.text, "text");
}

// What the name must read back as: itself when it is UTF-8, otherwise something else with U+FFFD in it.
void CheckText(const nlohmann::json& back, const std::string& sent, const char* what) {
    Check(back.is_string(), std::string(what) + " is not a string");
    const std::string got = back.get<std::string>();
    if (Fuzz::IsUtf8(sent))
        Check(got == sent, std::string(what) + " changed on its way through JSON");
    else
        Check(got != sent && got.find("\xEF\xBF\xBD") != std::string::npos,
              std::string(what) + " is not UTF-8 but came back without a replacement character");
}

void CheckRecord(const Bytes& bytes, const std::shared_ptr<ScannedDevice::Base>& record,
                 const std::string& name) {
    const std::vector<std::shared_ptr<ScannedDevice::Base>> list{record};
    // published once before the name arrives, as a scan pass does: the kept text must not outlive it
    (void)nlohmann::json::parse(ScannedDevice::DevicesJson(list));
    record->SetName(name);

    const std::string text = ScannedDevice::DumpJson(record->ToJson());
    const nlohmann::json document = nlohmann::json::parse(text);
    Check(document.is_object(), "the record is not a JSON object");
    Check(document.at("type") == record->Type(), "type");
    CheckText(document.at("name"), name, "the name");

    const auto* camera = dynamic_cast<const ScannedDevice::RemoteCamera*>(record.get());
    if (camera != nullptr && bytes[2] == 3) {
        // only a schema-3 payload fills the camera's fields
        const Fields want = Layout(bytes);
        const nlohmann::json& info = document.at("remote-cam-info");
        Check(info.at("ipAddress").at("number") == want.ip, "ipAddress in JSON");
        Check(info.at("deviceType").at("number") == want.deviceType, "deviceType in JSON");
        Check(info.at("batteryStatus").at("number") == want.battery, "batteryStatus in JSON");
        Check(info.at("ssid") == want.text, "ssid in JSON");
    }

    const nlohmann::json all = nlohmann::json::parse(ScannedDevice::DevicesJson(list));
    Check(all.is_array() && all.size() == 1 && all[0] == document, "DevicesJson differs from the record");
    const nlohmann::json cameras = nlohmann::json::parse(ScannedDevice::RemoteCamerasJson(list));
    Check(cameras.size() == (camera != nullptr ? 1u : 0u) && (cameras.empty() || cameras[0] == document),
          "RemoteCamerasJson lists the wrong records");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    Fuzz::QuietLog();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const Bytes bytes(data, data + size);

    // each throws for two octets and only then (Decodes checks it)
    std::shared_ptr<ScanResponse::Base> payload;
    const bool created =
        Decodes(bytes, "ScanResponse::Create", [&] { payload = ScanResponse::Create(bytes); });
    std::shared_ptr<ScannedDevice::Base> record;
    const bool recorded = Decodes(bytes, "FromManufacturerData", [&] {
        record = ScannedDevice::FromManufacturerData({{ScanResponse::kCompanyIdentifier, bytes}});
    });
    if (!created || !recorded)
        return 0;

    CheckPayload(bytes, payload);
    Check(record != nullptr, "no record");
    const bool camera = payload != nullptr && bytes[0] >= 1 && bytes[0] <= 9;
    Check((dynamic_cast<ScannedDevice::RemoteCamera*>(record.get()) != nullptr) == camera,
          "a record is a RemoteCamera exactly for a payload with device type 1..9");
    Check(record->Type() == (camera ? ScannedDevice::kRemoteCameraType : ScannedDevice::kGenericType),
          "type");

    // The device's name is outside data as well: the same octets, not necessarily UTF-8.
    CheckRecord(bytes, record, std::string(bytes.begin(), bytes.end()));
    return 0;
}
