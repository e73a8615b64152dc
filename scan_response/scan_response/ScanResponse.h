#pragma once
// The manufacturer-specific AD structure of this unit's scan response, and its decoding when another
// unit or a remote camera is scanned. Schema 3 ends with the SSID, schema 4 with the serial number.
//
// Payload (after the length and 0xFF type octets):
//   F3 05 | device type (LE16) | version | battery | IP value (BE32) | text bytes
// Received manufacturer data (company identifier already stripped):
//   device type (1 octet) | ignored | version | battery | IP value (LE32) | text (printable ASCII kept)

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "scan_response/ThisDevice.h"

namespace ScanResponse {

inline constexpr uint8_t kManufacturerSpecificAdType = 0xFF;
inline constexpr uint16_t kCompanyIdentifier = 0x05F3;

class Base {
  public:
    // Octets that follow the length octet on air: the payload plus the AD type octet.
    virtual uint32_t Length() const;
    virtual std::vector<uint8_t> Serialise() const;
    // Reloads every field from ThisDevice.
    virtual void Refresh() = 0;

    uint8_t AdType() const { return adType; }
    uint16_t CompanyIdentifier() const { return companyIdentifier; }
    uint16_t DeviceTypeCode() const { return deviceType; }
    uint8_t SchemaVersion() const { return schemaVersion; }
    uint8_t BatteryStatusCode() const { return batteryStatus; }
    uint32_t IPAddress() const { return ipAddress; }
    const std::string& Text() const { return text; }

  protected:
    explicit Base(uint8_t version);
    // Not virtual: payloads are owned through shared pointers made with their concrete type.
    ~Base() = default;
    Base(const Base&) = default;
    Base& operator=(const Base&) = default;

    void Decode(const std::vector<uint8_t>& received);
    void RefreshCommon(const std::string& newText, uint8_t version);

    uint8_t adType;
    uint16_t companyIdentifier;
    uint16_t deviceType;
    uint8_t schemaVersion;
    uint8_t batteryStatus;
    uint32_t ipAddress;
    std::string text;
};

// Schema 3: the text is the SSID.
class V3 final : public Base {
  public:
    V3();
    explicit V3(const std::vector<uint8_t>& received);
    void Refresh() override;
};

// Schema 4: the text is the serial number.
class V4 final : public Base {
  public:
    V4();
    explicit V4(const std::vector<uint8_t>& received);
    void Refresh() override;
};

// A fresh local payload of schema `version` (3 or 4); empty for any other version.
std::shared_ptr<Base> Create(uint32_t version);
// Decodes received manufacturer data by the version octet at index 2: empty for fewer than 2 octets
// or an unknown version; exactly 2 octets throw std::out_of_range.
std::shared_ptr<Base> Create(const std::vector<uint8_t>& received);

}  // namespace ScanResponse
