#pragma once
// What the scanner knows about one device it has seen. Plain devices stay a Base; devices that carry
// our own scan-response payload become a RemoteCamera (RemoteCamera.h). Records are held by
// std::shared_ptr and published as JSON.

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>

namespace ScannedDevice {

using ScannedDeviceType = int32_t;
inline constexpr ScannedDeviceType kGenericType = 0;
inline constexpr ScannedDeviceType kRemoteCameraType = 1;
inline constexpr ScannedDeviceType kHidType = 2;

// Text for a Bluetooth Class of Device, from its major device class (bits 8..12): "Miscellaneous",
// "Computer", "Phone", "Network Access Point", "Audio/Video", "Peripheral", "Imaging", "Wearable",
// "Toy", "Health", "Uncategorized" (0x1F); the reserved majors give "Unknown". BLE devices without
// a class report 0, which reads as "Miscellaneous".
std::string ClassNameFor(uint32_t deviceClass);

class Base {
  public:
    Base();
    virtual ~Base() = default;
    Base(const Base&) = delete;
    Base& operator=(const Base&) = delete;

    virtual nlohmann::json ToJson() const;
    // ToJson() dumped as DumpJson does. The text is kept until a field of the document changes, so
    // publishing a thousand devices copies texts instead of rebuilding documents; the shared text
    // stays valid however the record changes afterwards.
    std::shared_ptr<const std::string> JsonText() const;

    ScannedDeviceType Type() const { return type; }
    void SetType(ScannedDeviceType value) {
        type = value;
        Changed();
    }
    uint32_t Class() const { return deviceClass; }
    void SetClass(uint32_t value) {
        deviceClass = value;
        Changed();
    }
    int32_t Rssi() const { return rssi; }
    void SetRssi(int32_t value) {
        rssi = value;
        Changed();
    }
    bool Paired() const { return paired; }
    void SetPaired(bool value) {
        paired = value;
        Changed();
    }
    bool Trusted() const { return trusted; }
    void SetTrusted(bool value) {
        trusted = value;
        Changed();
    }
    const std::string& Name() const { return name; }
    void SetName(const std::string& value) {
        name = value;
        Changed();
    }
    const std::string& Mac() const { return mac; }
    void SetMac(const std::string& value) {
        mac = value;
        Changed();
    }
    const std::string& ClassName() const { return className; }
    void SetClassName(const std::string& value) {
        className = value;
        Changed();
    }
    // Sets the class-name text from the class field (ClassNameFor).
    void DeriveClassName() {
        className = ClassNameFor(deviceClass);
        Changed();
    }

    // The same table for every record: a scan pass builds a candidate per listed device.
    const std::map<int, std::string>& TypeNames() const;
    // Name of this record's type in TypeNames(), or "Unknown".
    std::string TypeName() const;

    // Only the scanner uses these, to age out devices that stopped appearing.
    int MissCredit() const { return missCredit; }
    void SetMissCredit(int value) { missCredit = value; }
    bool Seen() const { return seen; }
    void SetSeen(bool value) { seen = value; }

  protected:
    // Every setter of a field that ToJson() shows calls this after storing the value.
    void Changed();

    ScannedDeviceType type = kGenericType;

  private:
    uint32_t deviceClass = 0;
    int32_t rssi = 0;
    bool paired = false;
    bool trusted = false;
    std::string name;
    std::string mac;
    std::string className;
    int missCredit = 0;
    bool seen = false;
    // Camera fields change on the BLE library's thread while the loop thread publishes the lists.
    mutable std::mutex jsonMutex;
    mutable std::shared_ptr<const std::string> jsonText;
};

}  // namespace ScannedDevice
