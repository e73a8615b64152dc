#pragma once
// A scanned device whose manufacturer data carry our scan-response payload: another unit or a remote
// camera. Besides the decoded payload it keeps what the camera last reported over GATT.
//
// The state letters, the BLE version and the frequency are written on the BLE library's thread while
// a worker thread polls them, so the letters are atomic bytes and the frequency sits behind a mutex.

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "scanned_device/ScannedDevice.h"

namespace ScanResponse {
class Base;
}

namespace ScannedDevice {

class RemoteCamera : public Base {
  public:
    // Type 1, payload schema 3, everything else zero or empty.
    RemoteCamera();
    // Copies the payload only when it is a schema-3 payload (ScanResponse::V3) of our company; any
    // other payload leaves the camera fields zero and empty. Base fields are filled by the caller.
    explicit RemoteCamera(const ScanResponse::Base& payload);

    nlohmann::json ToJson() const override;

    // Logs name, address, RSSI, type, device code, IP and battery, one line each at LOG_INFO.
    void Print() const;

    uint16_t DeviceType() const { return deviceType; }
    void SetDeviceType(uint16_t value) {
        deviceType = value;
        Changed();
    }
    uint8_t PayloadSchema() const { return payloadSchema; }
    void SetPayloadSchema(uint8_t value) {
        payloadSchema = value;
        Changed();
    }
    uint8_t BatteryStatus() const { return batteryStatus; }
    void SetBatteryStatus(uint8_t value) {
        batteryStatus = value;
        Changed();
    }
    // The payload's IP word as read (little-endian), so byte 0 is the first group of the dotted text.
    uint32_t IPAddress() const { return ipAddress; }
    void SetIPAddress(uint32_t value) {
        ipAddress = value;
        Changed();
    }
    // The payload's text: the SSID of a schema-3 payload.
    const std::string& Text() const { return text; }
    void SetText(const std::string& value) {
        text = value;
        Changed();
    }

    uint8_t BleVersion() const { return bleVersion.load(); }
    void SetBleVersion(uint8_t value) {
        bleVersion.store(value);
        Changed();
    }
    uint8_t PowerState() const { return powerState.load(); }
    void SetPowerState(uint8_t letter) {
        powerState.store(letter);
        Changed();
    }
    uint8_t WiFiState() const { return wifiState.load(); }
    void SetWiFiState(uint8_t letter) {
        wifiState.store(letter);
        Changed();
    }
    std::string WiFiFrequency() const;
    void SetWiFiFrequency(const std::string& value);

  private:
    uint16_t deviceType = 0;
    uint8_t payloadSchema = 3;
    uint8_t batteryStatus = 0;
    uint32_t ipAddress = 0;
    std::string text;
    std::atomic<uint8_t> bleVersion{0};
    std::atomic<uint8_t> powerState{0};
    std::atomic<uint8_t> wifiState{0};
    mutable std::mutex frequencyMutex;
    std::string wifiFrequency;
};

// Manufacturer data as the radio library reports them: company identifier to bytes.
using ManufacturerData = std::map<uint16_t, std::vector<uint8_t>>;

// A RemoteCamera when the data hold our company's entry, it decodes to a payload and the payload's
// device type (low byte) is 1..9; otherwise a plain Base of type 0. Only the payload-derived fields are
// set. A two-byte entry makes the payload decoder throw std::out_of_range, which is not caught here.
std::shared_ptr<Base> FromManufacturerData(const ManufacturerData& data);

}  // namespace ScannedDevice
