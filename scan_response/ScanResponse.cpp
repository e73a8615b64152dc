#include "scan_response/ScanResponse.h"

namespace ScanResponse {

Base::Base(uint8_t version)
    : adType(kManufacturerSpecificAdType),
      companyIdentifier(kCompanyIdentifier),
      deviceType(0),
      schemaVersion(version),
      batteryStatus(0),
      ipAddress(0) {}

uint32_t Base::Length() const {
    return static_cast<uint32_t>(text.size()) + 11u;
}

std::vector<uint8_t> Base::Serialise() const {
    std::vector<uint8_t> out;
    out.reserve(10 + text.size());
    out.push_back(static_cast<uint8_t>(companyIdentifier & 0xFFu));
    out.push_back(static_cast<uint8_t>(companyIdentifier >> 8));
    out.push_back(static_cast<uint8_t>(deviceType & 0xFFu));
    out.push_back(static_cast<uint8_t>(deviceType >> 8));
    out.push_back(schemaVersion);
    out.push_back(batteryStatus);
    // Big-endian here although received payloads are read little-endian: peers rely on both.
    out.push_back(static_cast<uint8_t>(ipAddress >> 24));
    out.push_back(static_cast<uint8_t>((ipAddress >> 16) & 0xFFu));
    out.push_back(static_cast<uint8_t>((ipAddress >> 8) & 0xFFu));
    out.push_back(static_cast<uint8_t>(ipAddress & 0xFFu));
    out.insert(out.end(), text.begin(), text.end());
    return out;
}

void Base::Decode(const std::vector<uint8_t>& received) {
    const std::size_t n = received.size();
    if (n == 0)
        return;
    // Only the low octet of the device type is read; octet 1 is ignored.
    deviceType = received[0];
    if (n < 4)
        return;
    batteryStatus = received[3];
    if (n < 5)
        return;
    // Little-endian, from the octets present only: a short payload leaves the high octets 0.
    uint32_t ip = 0;
    for (std::size_t i = 4; i < n && i < 8; ++i)
        ip |= static_cast<uint32_t>(received[i]) << (8 * (i - 4));
    ipAddress = ip;
    if (n < 9)
        return;
    for (std::size_t i = 8; i < n; ++i) {
        const uint8_t c = received[i];
        if (c >= 0x20 && c <= 0x7E)
            text += static_cast<char>(c);
    }
}

void Base::RefreshCommon(const std::string& newText, uint8_t version) {
    ipAddress = Utils::ThisDevice::IPAddress();
    text = newText;
    deviceType = Utils::ThisDevice::ModelDeviceType();
    companyIdentifier = kCompanyIdentifier;
    schemaVersion = version;
    batteryStatus = static_cast<uint8_t>(Utils::ThisDevice::DeviceBatteryStatus());
}

V3::V3() : Base(3) {
    Refresh();
}

V3::V3(const std::vector<uint8_t>& received) : Base(3) {
    Decode(received);
}

void V3::Refresh() {
    RefreshCommon(Utils::ThisDevice::SSID(), 3);
}

V4::V4() : Base(4) {
    Refresh();
}

V4::V4(const std::vector<uint8_t>& received) : Base(4) {
    Decode(received);
}

void V4::Refresh() {
    RefreshCommon(Utils::ThisDevice::SerialNumber(), 4);
}

std::shared_ptr<Base> Create(uint32_t version) {
    switch (version) {
        case 3:
            return std::make_shared<V3>();
        case 4:
            return std::make_shared<V4>();
        default:
            return nullptr;
    }
}

std::shared_ptr<Base> Create(const std::vector<uint8_t>& received) {
    if (received.size() < 2)
        return nullptr;
    // at(): two octets are a truncated header, and the caller is told so by std::out_of_range.
    switch (received.at(2)) {
        case 3:
            return std::make_shared<V3>(received);
        case 4:
            return std::make_shared<V4>(received);
        default:
            return nullptr;
    }
}

}  // namespace ScanResponse
