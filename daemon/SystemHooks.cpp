// The production hooks: the only place the concrete backends and the sibling daemons' calls are named.
#include "daemon/SystemHooks.h"

#include <time.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <utility>

#include "backend/HCIToolAdvertiser.h"
#include "backend/TinybRadio.h"
#include "backend/TinybScanner.h"
#include "clients/NetworkDaemonDbusHandler.h"
#include "clients/PylonDaemonDbusHandler.h"
#include "clients/SettingsDaemonDbusHandler.h"
#include "dbus_helper/DbusConnector.h"
#include "loop/Sleep.h"
#include "vantu_info/VantuInfo.h"
#include "vocabulary/Vocabulary.h"

namespace Daemon {

namespace {

uint64_t MonotonicNowUsec() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000u + static_cast<uint64_t>(now.tv_nsec) / 1'000u;
}

}  // namespace

ControllerHooks SystemControllerHooks() {
    ControllerHooks hooks;
    hooks.makeRadio = [] { return std::make_shared<Backend::TinybRadio>(); };
    hooks.makeScanner = [] { return std::make_shared<Backend::TinybScanner>(); };
    hooks.makeAdvertiser = [] { return std::make_shared<Backend::HCIToolAdvertiser>(); };
    hooks.listenSettings = [](Settingsd::SettingsDaemonDbusHandler& client) { return client.Listen(); };
    hooks.listenPower = [](Pylond::PylonDaemonDbusHandler& client) { return client.Listen(); };
    hooks.listenNetwork = [](Networkd::NetworkDaemonDbusHandler& client) { return client.Listen(); };
    hooks.readNumberSetting = [](const char* key, uint32_t safeDefault) {
        return Settingsd::SettingsDaemonDbusHandler::GetBluetoothSetting<uint32_t>(key, safeDefault);
    };
    hooks.readFlagSetting = [](const char* key, bool safeDefault) {
        return Settingsd::SettingsDaemonDbusHandler::GetBluetoothSetting<bool>(key, safeDefault);
    };
    hooks.readPowerProperties = [](sdbus_utils::TypedPropertyMap& properties) {
        return Pylond::PylonDaemonDbusHandler::GetAllPowerProperties(false, properties);
    };
    hooks.readNetworkProperties = [](sdbus_utils::TypedPropertyMap& properties) {
        return Networkd::NetworkDaemonDbusHandler::GetAllNetworkProperties(properties);
    };
    hooks.followSibling = [](DbusHelper::DbusListener& client, const char* service,
                             std::function<void()> appeared) {
        return client.ListenNameAppeared(service, std::move(appeared));
    };
    hooks.readSettingsSection = [](sdbus_utils::TypedPropertyMap& settings) {
        return Settingsd::SettingsDaemonDbusHandler::GetSectionSettings(BluetoothSettingsSection, settings);
    };
    hooks.sleep = Loop::SleepFor;
    hooks.radioType = VantuInfo::ThisVantu::RadioType;
    hooks.monotonicNowUsec = MonotonicNowUsec;
    return hooks;
}

}  // namespace Daemon
