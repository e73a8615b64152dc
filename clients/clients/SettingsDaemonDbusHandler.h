#pragma once
// Client of the unit's settings daemon (com.quorbel.common.Settings1 on the user bus). Every section of the
// unit's settings is an object /com/quorbel/common/Settings1/<section> with the interface
// com.quorbel.common.Settings1, every setting a property of it.
//
// Reads go through fresh connections on the calling thread and fall back to safe defaults; changes arrive as
// PropertiesChanged on the listener's connection (the event loop's thread) and are handed, parsed, to the
// signal of their section.

#include <sigc++/sigc++.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "dbus_helper/DbusConnector.h"
#include "dbus_helper/SdbusUtils.h"
#include "logging/Log.h"
#include "vocabulary/Vocabulary.h"

namespace Settingsd {

inline constexpr const char* kService = "com.quorbel.common.Settings1";
inline constexpr const char* kObjectPath = "/com/quorbel/common/Settings1";
inline constexpr const char* kInterface = "com.quorbel.common.Settings1";

// The unit's settings sections; each has its entry in the handler's table.
inline const std::vector<std::string> kSections = {"bluetooth", "display", "network", "power", "system"};

using SettingsChangedSignal = sigc::signal<void, sdbus_utils::TypedPropertyMap&>;

class SettingsDaemonDbusHandler : public DbusHelper::DbusListener {
  public:
    explicit SettingsDaemonDbusHandler(sd_event* loop);

    // Connects and subscribes to the settings daemon's PropertiesChanged. 0, or the negative error (logged;
    // the handler then stays disconnected).
    int32_t Listen();

    // The notification of one section (changed keys only). Throws std::out_of_range for a section the unit
    // does not have.
    SettingsChangedSignal& SectionChanged(const std::string& section);
    bool HasSection(const std::string& section) const { return sections.count(section) > 0; }

    // One setting of `section`, typed (bool, uint32_t, int32_t, std::string, ... as
    // sdbus_utils::GetProperty). 0, or a negative error (logged); `value` is only written on success.
    template <typename T>
    static int32_t GetSetting(const std::string& section, const std::string& key, T& value);

    // One setting of the "bluetooth" section, or `safeDefault` (logged) when it cannot be read.
    template <typename T>
    static T GetBluetoothSetting(const std::string& key, T safeDefault);

    // The "bluetooth" settings this daemon reads, each with its safe default.
    static uint32_t AdvertSchema();
    static uint32_t AutoScanRateSecs();
    static bool AdvertisingEnabled();
    static bool AutoScanEnabled();
    static bool Discoverable();
    static bool Pairable();
    static bool Powered();
    static bool SystemCallDebug();

    // All settings of `section` (entries added to `settings`). 0, or a negative error (logged).
    static int32_t GetSectionSettings(const std::string& section, sdbus_utils::TypedPropertyMap& settings);

    // Ask the settings daemon to reset values; each returns the method call's result (negative: failed,
    // logged).
    static int32_t ResetToDefaults(bool all);
    static int32_t ResetSection(const std::string& section);
    static int32_t ResetSetting(const std::string& section, const std::string& key);

    // The PropertiesChanged callback; user data is the handler.
    static int32_t PropertiesChanged(sd_bus_message* message, void* userdata, sd_bus_error* error);

  private:
    std::map<std::string, SettingsChangedSignal> sections;
};

template <typename T>
int32_t SettingsDaemonDbusHandler::GetSetting(const std::string& section, const std::string& key, T& value) {
    const std::string path = std::string(kObjectPath) + "/" + section;
    std::string error;
    const int r = sdbus_utils::GetProperty(nullptr, kService, path, kInterface, key, value, error);
    if (r < 0)
        Logging::Log(LOG_ERR, "%s: ERROR sdbus_utils::GetProperty %s failed %s",
                     "int32_t Settingsd::SettingsDaemonDbusHandler::GetSetting(const std::string&, const "
                     "std::string&, T&)",
                     key.c_str(), error.c_str());
    return r;
}

template <typename T>
T SettingsDaemonDbusHandler::GetBluetoothSetting(const std::string& key, T safeDefault) {
    T value{};
    if (GetSetting(BluetoothSettingsSection, key, value) < 0) {
        Logging::Log(LOG_ERR, "%s: Cannot get setting '%s', setting to safe default: %d",
                     "GetBluetoothSetting", key.c_str(), static_cast<int>(safeDefault));
        return safeDefault;
    }
    return value;
}

}  // namespace Settingsd
