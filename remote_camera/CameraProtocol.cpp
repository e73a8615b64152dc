#include "remote_camera/CameraProtocol.h"

#include <cstdlib>

#include "logging/Log.h"
#include "scan_response/ThisDevice.h"
#include "scanned_device/RemoteCamera.h"
#include "vocabulary/Vocabulary.h"

namespace CameraProtocol {

namespace {
std::vector<uint8_t> Bytes(const std::string& text) {
    return std::vector<uint8_t>(text.begin(), text.end());
}
}  // namespace

std::vector<uint8_t> ReadVersionCommand() {
    return Bytes("RV\r");
}
std::vector<uint8_t> ReadPowerCommand() {
    return Bytes("RP\r");
}
std::vector<uint8_t> ReadWiFiCommand() {
    return Bytes("RF\r");
}

std::vector<uint8_t> WritePowerCommand(uint8_t letter) {
    std::string command = "WPX\r";
    command.replace(command.find('X'), 1, 1, static_cast<char>(letter));
    return Bytes(command);
}

std::vector<uint8_t> WriteWiFiCommand(const std::string& frequency) {
    std::string command = "WFX.XU\r";
    command.replace(command.find("X.X"), 3, frequency);
    // The band suffix goes on the first "U" of the filled text, wherever that landed.
    command.replace(command.find('U'), 1, "G");
    return Bytes(command);
}

bool IsVersionAnswer(const std::vector<uint8_t>& bytes) {
    return bytes.size() == 4 && bytes[0] == 'V';
}
bool IsPowerAnswer(const std::vector<uint8_t>& bytes) {
    return bytes.size() == 3 && bytes[0] == 'P';
}
bool IsWiFiAnswer(const std::vector<uint8_t>& bytes) {
    return bytes.size() == 6 && bytes[0] == 'F';
}

uint8_t ParseVersion(const std::vector<uint8_t>& bytes) {
    if (!IsVersionAnswer(bytes))
        return 0;
    const char digits[3] = {static_cast<char>(bytes[1]), static_cast<char>(bytes[2]), '\0'};
    return static_cast<uint8_t>(std::strtol(digits, nullptr, 10) & 0xFF);
}

uint8_t ParsePower(const std::vector<uint8_t>& bytes) {
    return IsPowerAnswer(bytes) ? bytes[1] : 0xFF;
}

uint8_t ParseWiFi(const std::vector<uint8_t>& bytes, std::string& frequency) {
    frequency.clear();
    if (!IsWiFiAnswer(bytes))
        return 'G';
    frequency.append(bytes.begin() + 1, bytes.begin() + 4);
    return bytes[4];
}

std::string PowerStateName(uint8_t letter) {
    return NameOr(PowerStateNames, static_cast<char>(letter));
}
std::string WiFiStateName(uint8_t letter) {
    return NameOr(WiFiStateNames, static_cast<char>(letter));
}

void OnNotification(ScannedDevice::RemoteCamera& device, const std::vector<uint8_t>& bytes) {
    if (bytes.empty())
        return;

    // Order matters: a value counts as the first kind of answer it matches.
    if (IsVersionAnswer(bytes)) {
        const uint8_t version = ParseVersion(bytes);
        device.SetBleVersion(version);
        Logging::Log(LOG_INFO, "%s: BLE Version: %d", device.Name().c_str(), static_cast<int>(version));
    } else if (IsWiFiAnswer(bytes)) {
        std::string frequency;
        const uint8_t state = ParseWiFi(bytes, frequency);
        device.SetWiFiState(state);
        device.SetWiFiFrequency(frequency);
        Logging::Log(LOG_INFO, "%s: WiFi State: %c WiFi Freq: %s", device.Name().c_str(),
                     static_cast<int>(state), frequency.c_str());
    } else if (IsPowerAnswer(bytes)) {
        const uint8_t state = ParsePower(bytes);
        device.SetPowerState(state);
        Logging::Log(LOG_INFO, "%s: Power Status: %c", device.Name().c_str(), static_cast<int>(state));
    } else {
        Logging::Log(LOG_ERR, "Unknown notification type found: 0x%x", static_cast<unsigned>(bytes[0]));
        Logging::Log(LOG_INFO, "Contents: %s",
                     ScanResponse::Utils::ThisDevice::BytesToHexString(bytes).c_str());
    }
}

}  // namespace CameraProtocol
