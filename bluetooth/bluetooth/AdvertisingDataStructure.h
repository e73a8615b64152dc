#pragma once
// AD structures of the unit's advertising data: a length octet, an AD type octet, then the AD data.
// Each structure builds its data octets once, at construction; the commands that carry them write the
// length octet, the type and the data in that order.

#include <cstdint>
#include <string>
#include <vector>

namespace Bluetooth {

class AdvertisingDataStructure {
  public:
    virtual ~AdvertisingDataStructure() = default;
    // Octets that follow the length octet: the type octet plus the data octets.
    virtual uint8_t GetLength() const = 0;
    virtual const std::vector<uint8_t>& GetData() const { return data; }

    uint8_t GetType() const { return type; }

  protected:
    explicit AdvertisingDataStructure(uint8_t adType) : type(adType) {}
    AdvertisingDataStructure(const AdvertisingDataStructure&) = default;
    AdvertisingDataStructure& operator=(const AdvertisingDataStructure&) = default;

    uint8_t type;
    std::vector<uint8_t> data;
};

namespace ADS {

inline constexpr uint8_t kFlagsType = 0x01;
inline constexpr uint8_t kIncompleteServiceListType = 0x02;
inline constexpr uint8_t kCompleteLocalNameType = 0x09;
inline constexpr uint8_t kTxPowerLevelType = 0x0A;

// The unit family's 16-bit service UUID.
inline constexpr uint16_t kServiceUuid = 0xFDEA;

// LE Limited and General Discoverable both set, BR/EDR Not Supported left clear: what the units send.
class FlagsADS : public AdvertisingDataStructure {
  public:
    FlagsADS();
    uint8_t GetLength() const override { return 2; }
};

// A fixed claim of +20 dBm; nothing measures it.
class TxPowerLevelADS : public AdvertisingDataStructure {
  public:
    TxPowerLevelADS();
    uint8_t GetLength() const override { return 2; }
};

class PartialServiceListADS : public AdvertisingDataStructure {
  public:
    // The family's service UUID only.
    PartialServiceListADS();
    explicit PartialServiceListADS(std::vector<uint16_t> serviceUuids);
    // 1 + 2 per UUID, wrapping at 256.
    uint8_t GetLength() const override;
    const std::vector<uint16_t>& Uuids() const { return uuids; }

  private:
    std::vector<uint16_t> uuids;
};

class CompleteLocalNameADS : public AdvertisingDataStructure {
  public:
    // The unit's serial number, or "UNKNOWN" when the identity has none.
    CompleteLocalNameADS();
    explicit CompleteLocalNameADS(const std::string& localName);
    // 1 + name octets, wrapping at 256: nothing limits the name here.
    uint8_t GetLength() const override;
    const std::string& Name() const { return name; }

  private:
    std::string name;
};

}  // namespace ADS
}  // namespace Bluetooth
