#pragma once
// The three HCI LE advertising commands, each rendered as one "/usr/bin/hcitool -i hci0 cmd" line.
// The lines carry only the significant octets (no padding to the HCI parameter size) and no shell
// redirection; the advertiser adds that.

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "bluetooth/AdvertisingDataStructure.h"

namespace ScanResponse {
class Base;
}

namespace Bluetooth {

inline constexpr uint8_t kLeControllerOgf = 0x08;

class HCIToolInterface {
  public:
    virtual ~HCIToolInterface() = default;
    virtual std::string GetCommand() const = 0;
};

// "/usr/bin/hcitool -i hci0 cmd OG OCFX pp pp ...": lower-case hex, OGF two digits, OCF four, octets two.
std::string FormatHCIToolCommand(uint8_t ogf, uint16_t ocf, const std::vector<uint8_t>& parameters);

// LE Set Advertising Parameters.
class SetAdvertisingParametersCommand : public HCIToolInterface {
  public:
    static constexpr uint16_t kOcf = 0x0006;
    explicit SetAdvertisingParametersCommand(uint8_t advertisingType);
    std::string GetCommand() const override;

  private:
    uint16_t intervalMin = 0x0800;  // 1.28 s in 0.625 ms units
    uint16_t intervalMax = 0x0800;
    uint8_t advertisingType;
    uint8_t ownAddressType = 0x00;
    uint8_t peerAddressType = 0x00;
    std::array<uint8_t, 6> peerAddress{};
    uint8_t channelMap = 0x07;  // channels 37, 38 and 39
    uint8_t filterPolicy = 0x00;
};

// LE Set Advertising Data: flags, Tx power, service list and local name, in that order.
class SetAdvertisingDataCommand : public HCIToolInterface {
  public:
    static constexpr uint16_t kOcf = 0x0008;
    SetAdvertisingDataCommand();
    explicit SetAdvertisingDataCommand(const ADS::CompleteLocalNameADS& name);
    SetAdvertisingDataCommand(const ADS::PartialServiceListADS& services,
                              const ADS::CompleteLocalNameADS& name);
    std::string GetCommand() const override;

  private:
    ADS::FlagsADS flags;
    ADS::TxPowerLevelADS txPower;
    ADS::PartialServiceListADS serviceList;
    ADS::CompleteLocalNameADS localName;
};

// LE Set Scan Response Data: one manufacturer-specific structure holding the payload.
class SetScanResponseDataCommand : public HCIToolInterface {
  public:
    static constexpr uint16_t kOcf = 0x0009;
    // `payload` is not owned and must outlive the command.
    explicit SetScanResponseDataCommand(ScanResponse::Base* payload);
    std::string GetCommand() const override;
    // Makes the payload re-read the unit's state; sends nothing.
    void RefreshPayload();

  private:
    ScanResponse::Base* payload;
};

}  // namespace Bluetooth
