#pragma once
// The settings client's static operations, one row each. GetSectionSettings reads the section's object
// below the row's path.

#include "clients/SettingsDaemonDbusHandler.h"
#include "clients/SiblingOperation.h"

namespace Settingsd {

inline constexpr SiblingCall::ObjectInterface kSettingsObject{kService, kObjectPath, nullptr, kInterface};

inline constexpr SiblingCall::Operation kOperations[] = {
    kSettingsObject.GetAll("GetSectionSettings",
                           "static int32_t Settingsd::SettingsDaemonDbusHandler::GetSectionSettings(const "
                           "std::string&, sdbus_utils::TypedPropertyMap&)"),
    kSettingsObject.Method("ResetToDefaults",
                           "static int32_t Settingsd::SettingsDaemonDbusHandler::ResetToDefaults(bool)", "",
                           "ResetToDefaults"),
    kSettingsObject.Method(
        "ResetSection",
        "static int32_t Settingsd::SettingsDaemonDbusHandler::ResetSection(const std::string&)", "",
        "ResetSection"),
    kSettingsObject.Method(
        "ResetSetting",
        "static int32_t Settingsd::SettingsDaemonDbusHandler::ResetSetting(const std::string&, "
        "const std::string&)",
        "", "ResetSetting"),
};

}  // namespace Settingsd
