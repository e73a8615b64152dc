// Runs inside the e2e VM: the real HCIToolAdvertiser start sequence on hci0 (real hcitool and
// hciconfig, real kernel, emulated controller) with a schema-3 scan response, then, on the line "stop"
// from stdin, the real stop. The scenario script reads the two result lines and checks the air.
//
// Output, one line each:
//   STARTED status=<n> payload=<Serialise() as hex> name=<serial number> advertising=<0|1> configured=<0|1>
//   STOPPED status=<n> advertising=<0|1> configured=<0|1>

#include <cinttypes>
#include <cstdio>
#include <iostream>
#include <memory>
#include <string>

#include "backend/HCIToolAdvertiser.h"
#include "scan_response/ScanResponse.h"
#include "scan_response/ThisDevice.h"

namespace {

std::string Hex(const std::vector<uint8_t>& bytes) {
    std::string out;
    char octet[3];
    for (uint8_t b : bytes) {
        std::snprintf(octet, sizeof octet, "%02x", b);
        out += octet;
    }
    return out;
}

}  // namespace

int main() {
    namespace ThisDevice = ScanResponse::Utils::ThisDevice;
    // A unit on battery with a network: every field of the payload carries something.
    ThisDevice::SetActivePowerSource(1);
    ThisDevice::SetBatteryTypes(1, 1);
    ThisDevice::SetBatteryChargePercentages(50, 51);
    ThisDevice::SetIPAddress("192.168.1.20");
    ThisDevice::SetSSID("QB-E2E-AP");

    auto payload = std::make_shared<ScanResponse::V3>();
    Backend::HCIToolAdvertiser advertiser;
    advertiser.SetScanResponse(payload);

    const int started = advertiser.StartAdvertising();
    std::printf("STARTED status=%d payload=%s name=%s advertising=%d configured=%d\n", started,
                Hex(payload->Serialise()).c_str(), ThisDevice::SerialNumber().c_str(),
                advertiser.IsAdvertising() ? 1 : 0, advertiser.IsConfigured() ? 1 : 0);
    std::fflush(stdout);

    std::string line;
    while (std::getline(std::cin, line) && line != "stop") {
    }
    const int stopped = advertiser.StopAdvertising();
    std::printf("STOPPED status=%d advertising=%d configured=%d\n", stopped,
                advertiser.IsAdvertising() ? 1 : 0, advertiser.IsConfigured() ? 1 : 0);
    std::fflush(stdout);
    return started == 0 && stopped == 0 ? 0 : 1;
}
