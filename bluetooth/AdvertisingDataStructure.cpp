#include "bluetooth/AdvertisingDataStructure.h"

#include <utility>

#include "vantu_info/VantuInfo.h"

namespace Bluetooth {
namespace ADS {

FlagsADS::FlagsADS() : AdvertisingDataStructure(kFlagsType) {
    data.push_back(0x03);
}

TxPowerLevelADS::TxPowerLevelADS() : AdvertisingDataStructure(kTxPowerLevelType) {
    data.push_back(0x14);
}

PartialServiceListADS::PartialServiceListADS() : PartialServiceListADS(std::vector<uint16_t>{kServiceUuid}) {}

PartialServiceListADS::PartialServiceListADS(std::vector<uint16_t> serviceUuids)
    : AdvertisingDataStructure(kIncompleteServiceListType), uuids(std::move(serviceUuids)) {
    for (const uint16_t uuid : uuids) {
        data.push_back(static_cast<uint8_t>(uuid & 0xFFu));
        data.push_back(static_cast<uint8_t>(uuid >> 8));
    }
}

uint8_t PartialServiceListADS::GetLength() const {
    return static_cast<uint8_t>(1u + 2u * uuids.size());
}

CompleteLocalNameADS::CompleteLocalNameADS()
    : AdvertisingDataStructure(kCompleteLocalNameType), name("UNKNOWN") {
    std::string serial = VantuInfo::ThisVantu::SerialNumber();
    if (!serial.empty())
        name = std::move(serial);
    data.assign(name.begin(), name.end());
}

CompleteLocalNameADS::CompleteLocalNameADS(const std::string& localName)
    : AdvertisingDataStructure(kCompleteLocalNameType), name(localName) {
    data.assign(name.begin(), name.end());
}

uint8_t CompleteLocalNameADS::GetLength() const {
    return static_cast<uint8_t>(1u + name.size());
}

}  // namespace ADS
}  // namespace Bluetooth
