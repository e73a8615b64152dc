#include "bluetooth/HCIToolCommands.h"

#include <iomanip>
#include <sstream>

#include "scan_response/ScanResponse.h"

namespace Bluetooth {
namespace {

void AppendStructure(std::vector<uint8_t>& out, const AdvertisingDataStructure& ads) {
    out.push_back(ads.GetLength());
    out.push_back(ads.GetType());
    const std::vector<uint8_t>& data = ads.GetData();
    out.insert(out.end(), data.begin(), data.end());
}

void AppendLittleEndian16(std::vector<uint8_t>& out, uint16_t value) {
    out.push_back(static_cast<uint8_t>(value & 0xFFu));
    out.push_back(static_cast<uint8_t>(value >> 8));
}

}  // namespace

std::string FormatHCIToolCommand(uint8_t ogf, uint16_t ocf, const std::vector<uint8_t>& parameters) {
    std::ostringstream line;
    line << std::setfill('0') << std::hex;
    line << "/usr/bin/hcitool -i hci0 cmd";
    line << ' ' << std::setw(2) << static_cast<unsigned>(ogf);
    line << ' ' << std::setw(4) << static_cast<unsigned>(ocf);
    for (const uint8_t octet : parameters)
        line << ' ' << std::setw(2) << static_cast<unsigned>(octet);
    return line.str();
}

SetAdvertisingParametersCommand::SetAdvertisingParametersCommand(uint8_t type) : advertisingType(type) {}

std::string SetAdvertisingParametersCommand::GetCommand() const {
    std::vector<uint8_t> parameters;
    parameters.reserve(15);
    AppendLittleEndian16(parameters, intervalMin);
    AppendLittleEndian16(parameters, intervalMax);
    parameters.push_back(advertisingType);
    parameters.push_back(ownAddressType);
    parameters.push_back(peerAddressType);
    parameters.insert(parameters.end(), peerAddress.begin(), peerAddress.end());
    parameters.push_back(channelMap);
    parameters.push_back(filterPolicy);
    return FormatHCIToolCommand(kLeControllerOgf, kOcf, parameters);
}

SetAdvertisingDataCommand::SetAdvertisingDataCommand() = default;

SetAdvertisingDataCommand::SetAdvertisingDataCommand(const ADS::CompleteLocalNameADS& name)
    : localName(name) {}

SetAdvertisingDataCommand::SetAdvertisingDataCommand(const ADS::PartialServiceListADS& services,
                                                     const ADS::CompleteLocalNameADS& name)
    : serviceList(services), localName(name) {}

std::string SetAdvertisingDataCommand::GetCommand() const {
    std::vector<uint8_t> parameters;
    // 3 octets of flags, 3 of Tx power, 2 + 2 of list and name headers. Not capped at 31: an
    // over-long name is sent as it is and the controller rejects it.
    parameters.push_back(
        static_cast<uint8_t>(10u + 2u * serviceList.Uuids().size() + localName.Name().size()));
    AppendStructure(parameters, flags);
    AppendStructure(parameters, txPower);
    AppendStructure(parameters, serviceList);
    AppendStructure(parameters, localName);
    return FormatHCIToolCommand(kLeControllerOgf, kOcf, parameters);
}

SetScanResponseDataCommand::SetScanResponseDataCommand(ScanResponse::Base* scanResponse)
    : payload(scanResponse) {}

std::string SetScanResponseDataCommand::GetCommand() const {
    std::vector<uint8_t> parameters;
    parameters.push_back(static_cast<uint8_t>(payload->Length() + 1u));
    parameters.push_back(static_cast<uint8_t>(payload->Length()));
    parameters.push_back(payload->AdType());
    const std::vector<uint8_t> serialised = payload->Serialise();
    parameters.insert(parameters.end(), serialised.begin(), serialised.end());
    return FormatHCIToolCommand(kLeControllerOgf, kOcf, parameters);
}

void SetScanResponseDataCommand::RefreshPayload() {
    payload->Refresh();
}

}  // namespace Bluetooth
