#pragma once
// What this unit says about itself in its scan response: device type and serial number (read from the
// identity library on every call), battery status, IP value and SSID (written by the controller as the
// power and network daemons report them).
//
// One process-wide record without a lock: read and write it from the event-loop thread only.

#include <cstdint>
#include <string>
#include <vector>

namespace ScanResponse {
namespace Utils {
namespace ThisDevice {

std::string SerialNumber();
// Code of the model display name in DeviceTypeNames (letter case ignored, highest code wins), 0 if none.
uint16_t ModelDeviceType();
// BatteryStatus code 0..4 from the power source and the two battery slots.
uint16_t DeviceBatteryStatus();
uint32_t IPAddress();
std::string SSID();

void SetActivePowerSource(int32_t source);
void SetBatteryTypes(uint32_t first, uint32_t second);
void SetBatteryChargePercentages(int32_t first, int32_t second);
void SetBatteryVoltages(int32_t first, int32_t second);
// Stores the value that the scan response carries for `address`; this is not the address as a number
// (192.168.1.20 stores 2307), because units in the field decode exactly this value.
// Throws std::invalid_argument / std::out_of_range when the first group does not convert.
void SetIPAddress(const std::string& address);
void SetSSID(const std::string& ssid);

// The four bytes of `value`, least significant first, as "%d" joined with ".".
std::string IPAddressToString(uint32_t value);
// "0A FF " style: two upper-case digits and one blank per byte.
std::string BytesToHexString(const std::vector<uint8_t>& bytes);

// The power daemon's values as stored, each battery property as its two slots.
struct PowerState {
    int32_t activePowerSource = 0;
    uint32_t batteryTypes[2] = {0, 0};
    int32_t chargePercentages[2] = {0, 0};
    int32_t voltages[2] = {0, 0};
};
PowerState StoredPowerState();

// Puts the record back to its start-up state (all zero, empty SSID). For tests only.
void ResetForTests();

}  // namespace ThisDevice
}  // namespace Utils
}  // namespace ScanResponse
