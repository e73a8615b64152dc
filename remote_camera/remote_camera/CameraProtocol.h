#pragma once
// The language spoken to a remote camera over its GATT service: short ASCII commands ending in a
// carriage return (no terminating zero), and answers that the camera notifies whenever it likes.
// Nothing answers a command directly; a command's outcome shows up in the camera's record once
// OnNotification has stored the answer.

#include <cstdint>
#include <string>
#include <vector>

namespace ScannedDevice {
class RemoteCamera;
}

namespace CameraProtocol {

std::vector<uint8_t> ReadVersionCommand();  // "RV\r"
std::vector<uint8_t> ReadPowerCommand();    // "RP\r"
std::vector<uint8_t> ReadWiFiCommand();     // "RF\r"
// "WP<letter>\r"; the letter is not checked.
std::vector<uint8_t> WritePowerCommand(uint8_t letter);
// "WF<frequency>G\r", for frequencies such as "2.4" and "5.0".
std::vector<uint8_t> WriteWiFiCommand(const std::string& frequency);

// Each looks at the byte count and the first byte only.
bool IsVersionAnswer(const std::vector<uint8_t>& bytes);  // 4 bytes, 'V'
bool IsPowerAnswer(const std::vector<uint8_t>& bytes);    // 3 bytes, 'P'
bool IsWiFiAnswer(const std::vector<uint8_t>& bytes);     // 6 bytes, 'F'

// The two digits of a version answer as decimal (masked to 8 bits), or 0.
uint8_t ParseVersion(const std::vector<uint8_t>& bytes);
// The power-state letter of a power answer, or 0xFF.
uint8_t ParsePower(const std::vector<uint8_t>& bytes);
// Clears `frequency`; for a Wi-Fi answer sets it to the three frequency characters and returns the
// Wi-Fi state letter, otherwise returns 'G' (unavailable).
uint8_t ParseWiFi(const std::vector<uint8_t>& bytes, std::string& frequency);

// Names of the state letters, "Unknown" for any other letter.
std::string PowerStateName(uint8_t letter);
std::string WiFiStateName(uint8_t letter);

// Stores one notified value in the camera's record and logs it; values that match no answer are
// logged as unknown, with a hex dump, and change nothing. Safe to call from the BLE library's thread.
void OnNotification(ScannedDevice::RemoteCamera& device, const std::vector<uint8_t>& bytes);

}  // namespace CameraProtocol
