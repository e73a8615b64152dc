#include "clients/SettingsDaemonDbusHandler.h"

#include <cstring>
#include <stdexcept>

#include "SiblingCall.h"
#include "clients/SettingsOperations.h"

namespace Settingsd {

namespace {

constexpr const char* kListen = "int32_t Settingsd::SettingsDaemonDbusHandler::Listen()";
constexpr const char* kPropertiesChanged =
    "static int32_t Settingsd::SettingsDaemonDbusHandler::PropertiesChanged(sd_bus_message*, void*, "
    "sd_bus_error*)";
// the operation's row in kOperations, found while compiling
constexpr std::size_t At(std::string_view name) {
    return SiblingCall::IndexOf(kOperations, name);
}

// The resets announce themselves and log their failures in this daemon's own words.
template <std::size_t I>
int32_t Reset(const SiblingCall::Writer& args) {
    const SiblingCall::Operation& op = SiblingCall::Row<kOperations, I, SiblingCall::Kind::Method>();
    Logging::Log(LOG_INFO, "%s", op.where);
    SiblingCall::Failure failure = SiblingCall::Failure::None;
    const int r = SiblingCall::Method(op.service, op.path, op.interface, op.member, args, {}, failure);
    if (failure == SiblingCall::Failure::Open)
        Logging::Log(LOG_ERR, "%s: sd_bus_open_user failed", op.where);
    else if (r < 0)
        Logging::Log(LOG_ERR, "%s:sd_bus_call_method call failed (r = %d)", op.where, r);
    return r;
}

}  // namespace

SettingsDaemonDbusHandler::SettingsDaemonDbusHandler(sd_event* loop) : DbusListener(loop) {
    for (const auto& section : kSections)
        sections[section];
}

SettingsChangedSignal& SettingsDaemonDbusHandler::SectionChanged(const std::string& section) {
    const auto it = sections.find(section);
    if (it == sections.end())
        throw std::out_of_range("no settings section " + section);
    return it->second;
}

int32_t SettingsDaemonDbusHandler::Listen() {
    const int connected = Connect();
    if (connected < 0) {
        Logging::Log(LOG_ERR, "%s: Failed to connect to dbus", kListen);
        return connected;
    }
    const int listening = ListenSignal(kService, "", "org.freedesktop.DBus.Properties", "PropertiesChanged",
                                       &SettingsDaemonDbusHandler::PropertiesChanged, this);
    const int32_t result = connected | listening;
    if (result == 0)
        return 0;
    if (result < 0)
        Logging::Log(LOG_ERR, "%s: Failed to register %s signal", kListen, "PropertiesChanged");
    Logging::Log(LOG_ERR, "LibDbusHelper::Storage: Failed to init signal listeners");
    Disconnect();
    return result;
}

int32_t SettingsDaemonDbusHandler::PropertiesChanged(sd_bus_message* message, void* userdata, sd_bus_error*) {
    auto* self = static_cast<SettingsDaemonDbusHandler*>(userdata);
    const char* path = sd_bus_message_get_path(message);
    const char* slash = path != nullptr ? std::strrchr(path, '/') : nullptr;
    if (slash == nullptr) {
        Logging::Log(LOG_ERR, "%s: Failed to find / in path", kPropertiesChanged);
        return -1;
    }
    if (slash[1] == '\0') {
        Logging::Log(LOG_ERR, "%s: Mallformed path string", kPropertiesChanged);
        return -1;
    }
    const std::string section(slash + 1);
    if (sd_bus_message_skip(message, "s") < 0) {
        Logging::Log(LOG_ERR, "%s: Failed to skip interface string", kPropertiesChanged);
        return -1;
    }
    sdbus_utils::TypedPropertyMap changed;
    const int r = sdbus_utils::ParsePropertiesWithType(message, changed);
    if (r < 0) {
        Logging::Log(LOG_ERR, "%s: ParsePropertiesWithType failed:%d", kPropertiesChanged, r);
        return -1;
    }
    const auto it = self->sections.find(section);
    if (it != self->sections.end())
        it->second.emit(changed);
    // 0: other subscriptions on the same connection still see the signal
    return 0;
}

uint32_t SettingsDaemonDbusHandler::AdvertSchema() {
    return GetBluetoothSetting<uint32_t>(BluetoothSettings::AdvertSchema,
                                         BluetoothSettings::DefaultAdvertSchema);
}
uint32_t SettingsDaemonDbusHandler::AutoScanRateSecs() {
    return GetBluetoothSetting<uint32_t>(BluetoothSettings::AutoScanRateSecs,
                                         BluetoothSettings::DefaultAutoScanRateSecs);
}
bool SettingsDaemonDbusHandler::AdvertisingEnabled() {
    return GetBluetoothSetting<bool>(BluetoothSettings::AdvertisingEnabled,
                                     BluetoothSettings::DefaultAdvertisingEnabled);
}
bool SettingsDaemonDbusHandler::AutoScanEnabled() {
    return GetBluetoothSetting<bool>(BluetoothSettings::AutoScanEnabled,
                                     BluetoothSettings::DefaultAutoScanEnabled);
}
bool SettingsDaemonDbusHandler::Discoverable() {
    return GetBluetoothSetting<bool>(BluetoothSettings::Discoverable, BluetoothSettings::DefaultDiscoverable);
}
bool SettingsDaemonDbusHandler::Pairable() {
    return GetBluetoothSetting<bool>(BluetoothSettings::Pairable, BluetoothSettings::DefaultPairable);
}
bool SettingsDaemonDbusHandler::Powered() {
    return GetBluetoothSetting<bool>(BluetoothSettings::Powered, BluetoothSettings::DefaultPowered);
}
bool SettingsDaemonDbusHandler::SystemCallDebug() {
    return GetBluetoothSetting<bool>(BluetoothSettings::SystemCallDebug,
                                     BluetoothSettings::DefaultSystemCallDebug);
}

int32_t SettingsDaemonDbusHandler::GetSectionSettings(const std::string& section,
                                                      sdbus_utils::TypedPropertyMap& settings) {
    const SiblingCall::Operation& op =
        SiblingCall::Row<kOperations, At("GetSectionSettings"), SiblingCall::Kind::GetAll>();
    const std::string path = std::string(op.path) + "/" + section;
    std::string error;
    const int r = sdbus_utils::GetAllProperties(nullptr, op.service, path, op.interface, settings, error);
    if (r < 0)
        Logging::Log(LOG_ERR, "%s: ERROR sdbus_utils::GetAllProperties %s failed %s", op.where,
                     section.c_str(), error.c_str());
    return r;
}

int32_t SettingsDaemonDbusHandler::ResetToDefaults(bool all) {
    return Reset<At("ResetToDefaults")>(SiblingCall::Args(all));
}

int32_t SettingsDaemonDbusHandler::ResetSection(const std::string& section) {
    return Reset<At("ResetSection")>(SiblingCall::Args(section));
}

int32_t SettingsDaemonDbusHandler::ResetSetting(const std::string& section, const std::string& key) {
    return Reset<At("ResetSetting")>(SiblingCall::Args(section, key));
}

}  // namespace Settingsd
