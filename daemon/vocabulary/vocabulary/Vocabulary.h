#pragma once
// Constant tables shared across the daemon: model names by device type, battery status names, the
// remote camera's state letters, and where this daemon's settings live. Immutable after static
// initialisation and safe to read from any thread. Look names up with find(), never operator[].
//
// The tables are never destroyed: the BLE library's thread and camera workers may still read them while
// the process exits.

#include <cstdint>
#include <map>
#include <string>

using DeviceType = int32_t;
using BatteryStatus = uint16_t;
using ActivePowerSource = int32_t;
using RavelType = uint32_t;

inline const std::map<DeviceType, std::string>& DeviceTypeNames = *new std::map<DeviceType, std::string>{
    {1, "Arbor"}, {2, "Basalt"},  {3, "Cobalt"}, {4, "Dune"},   {5, "Ember"},
    {6, "Fjord"}, {7, "KelpCam"}, {8, "Garnet"}, {9, "Harbor"},
};

// The remote camera model: the only type that is configured over GATT.
inline constexpr DeviceType kRemoteCameraDeviceType = 7;

// 2 and 3 share their name on purpose: there is no separate name for a partly full battery.
inline const std::map<int, std::string>& BatteryStatusNames = *new std::map<int, std::string>{
    {0, "Critical"}, {1, "Low"}, {2, "Partially Empty"}, {3, "Partially Empty"}, {4, "Full"},
};

inline const std::map<char, std::string>& PowerStateNames = *new std::map<char, std::string>{
    {'Z', "On"},
    {'U', "Off"},
    {'Y', "Standby"},
};

inline const std::map<char, std::string>& WiFiStateNames = *new std::map<char, std::string>{
    {'G', "Unavailable"},
    {'B', "Booting"},
    {'R', "Ready"},
    {'C', "Connected"},
};

inline constexpr const char* SettingsObjectPath = "/com/quorbel/common/Settings1";
inline constexpr const char* BluetoothSettingsSection = "bluetooth";

// Keys of the "bluetooth" section and the values used when a key cannot be read.
namespace BluetoothSettings {
inline constexpr const char* AdvertSchema = "advertSchema";              // "u"
inline constexpr const char* AutoScanRateSecs = "autoScanRateSecs";      // "u"
inline constexpr const char* AdvertisingEnabled = "advertisingEnabled";  // "b"
inline constexpr const char* AutoScanEnabled = "autoScanEnabled";        // "b"
inline constexpr const char* Discoverable = "discoverable";              // "b"
inline constexpr const char* Pairable = "pairable";                      // "b"
inline constexpr const char* Powered = "powered";                        // "b"
inline constexpr const char* SystemCallDebug = "systemCallDebug";        // "b"

inline constexpr uint32_t DefaultAdvertSchema = 3;
inline constexpr uint32_t DefaultAutoScanRateSecs = 10;
inline constexpr bool DefaultAdvertisingEnabled = true;
inline constexpr bool DefaultAutoScanEnabled = true;
inline constexpr bool DefaultDiscoverable = false;
inline constexpr bool DefaultPairable = true;
inline constexpr bool DefaultPowered = true;
inline constexpr bool DefaultSystemCallDebug = false;
}  // namespace BluetoothSettings

// Name of `key` in `table`, or `fallback` when the table has no such key. Never inserts.
template <typename Map>
std::string NameOr(const Map& table, const typename Map::key_type& key,
                   const std::string& fallback = "Unknown") {
    const auto it = table.find(key);
    return it == table.end() ? fallback : it->second;
}
