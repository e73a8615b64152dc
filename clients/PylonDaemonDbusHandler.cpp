#include "clients/PylonDaemonDbusHandler.h"

#include "SiblingCall.h"
#include "clients/PylonOperations.h"
#include "logging/Log.h"

namespace Pylond {

namespace {

constexpr const char* kListen = "int Pylond::PylonDaemonDbusHandler::Listen()";
constexpr const char* kPropertiesIface = "org.freedesktop.DBus.Properties";
constexpr const char* kObjectManagerIface = "org.freedesktop.DBus.ObjectManager";

// the operation's row in kOperations, found while compiling
constexpr std::size_t At(std::string_view name) {
    return SiblingCall::IndexOf(kOperations, name);
}

// The PropertiesChanged callbacks: skip the interface name, parse the changes, hand them on.
int ForwardChanges(const char* where, sd_bus_message* message, PropertiesChangedSignal& signal) {
    const int skipped = sd_bus_message_skip(message, "s");
    if (skipped < 0) {
        Logging::Log(LOG_ERR, "%s: Failed to skip interface string", where);
        return skipped;
    }
    sdbus_utils::TypedPropertyMap changed;
    const int r = sdbus_utils::ParsePropertiesWithType(message, changed);
    if (r < 0) {
        Logging::Log(LOG_ERR, "%s: ParsePropertiesWithType failed:%d", where, r);
        return -1;
    }
    signal.emit(changed);
    return 0;
}

PylonDaemonDbusHandler* Self(void* userdata) {
    return static_cast<PylonDaemonDbusHandler*>(userdata);
}

}  // namespace

PylonDaemonDbusHandler::PylonDaemonDbusHandler(sd_event* loop) : DbusListener(loop) {}

int PylonDaemonDbusHandler::Listen() {
    const int connected = Connect();
    if (connected < 0) {
        Logging::Log(LOG_ERR, "Failed to connect to the dbus, %s", kListen);
        return connected;
    }
    struct Subscription {
        const char* path;
        const char* interface;
        const char* member;
        sd_bus_message_handler_t callback;
        const char* name;
    };
    const Subscription wanted[] = {
        {kObjectPath, kControlInterface, "VideoStatusChanged", &VideoStatusChangedHandler,
         "VideoStatusChangedHandler"},
        {kObjectPath, kControlInterface, "KeyPressEvent", &KeyPressEventHandler, "KeyPressEventHandler"},
        {kReelPath, kPropertiesIface, "PropertiesChanged", &ReelPropertiesChanged, "ReelPropertiesChanged"},
        {kReelFirmwarePath, kPropertiesIface, "PropertiesChanged", &ReelFirmwarePropertiesChanged,
         "ReelFirmwarePropertiesChanged"},
        {kReelDistancePath, kPropertiesIface, "PropertiesChanged", &ReelDistancePropertiesChanged,
         "ReelDistancePropertiesChanged"},
        {kPowerPath, kPropertiesIface, "PropertiesChanged", &PowerPropertiesChanged,
         "PowerPropertiesChanged"},
        {kCoolingPath, kPropertiesIface, "PropertiesChanged", &CoolingPropertiesChanged,
         "CoolingPropertiesChanged"},
        {kObjectPath, kObjectManagerIface, "InterfacesAdded", &InterfacesAddedHandler,
         "InterfacesAddedHandler"},
        {kObjectPath, kObjectManagerIface, "InterfacesRemoved", &InterfacesRemovedHandler,
         "InterfacesRemovedHandler"},
    };
    int result = connected;
    for (const auto& s : wanted) {
        const int r = ListenSignal(kService, s.path, s.interface, s.member, s.callback, this);
        if (r < 0)
            Logging::Log(LOG_ERR, "Failed to register %s signal, %s", s.name, kListen);
        result |= r;
    }
    if (result != 0) {
        Logging::Log(LOG_ERR, "Storage: Failed to init signal listeners");
        Disconnect();
    }
    return result;
}

int PylonDaemonDbusHandler::VideoStatusChangedHandler(sd_bus_message* message, void* userdata,
                                                      sd_bus_error*) {
    uint32_t status = 0;
    const int r = sdbus_utils::Codec<uint32_t>::Read(message, status);
    if (r < 0) {
        Logging::Log(
            LOG_ERR, "%s: Failed to read video status",
            "static int Pylond::PylonDaemonDbusHandler::VideoStatusChangedHandler(sd_bus_message*, void*, "
            "sd_bus_error*)");
        return r;
    }
    Self(userdata)->videoStatus.emit(status);
    return 0;
}

int PylonDaemonDbusHandler::KeyPressEventHandler(sd_bus_message* message, void* userdata, sd_bus_error*) {
    int32_t key = 0;
    int32_t state = 0;
    int32_t duration = 0;
    const int r = sd_bus_message_read(message, "iii", &key, &state, &duration);
    if (r <= 0) {
        Logging::Log(
            LOG_ERR, "%s: Failed to read key press",
            "static int Pylond::PylonDaemonDbusHandler::KeyPressEventHandler(sd_bus_message*, void*, "
            "sd_bus_error*)");
        return r < 0 ? r : -ENXIO;
    }
    Self(userdata)->keyPress.emit(key, state, duration);
    return 0;
}

int PylonDaemonDbusHandler::ReelPropertiesChanged(sd_bus_message* message, void* userdata, sd_bus_error*) {
    return ForwardChanges(
        "static int Pylond::PylonDaemonDbusHandler::ReelPropertiesChanged(sd_bus_message*, void*, "
        "sd_bus_error*)",
        message, Self(userdata)->reel);
}

int PylonDaemonDbusHandler::ReelFirmwarePropertiesChanged(sd_bus_message* message, void* userdata,
                                                          sd_bus_error*) {
    return ForwardChanges(
        "static int Pylond::PylonDaemonDbusHandler::ReelFirmwarePropertiesChanged(sd_bus_message*, void*, "
        "sd_bus_error*)",
        message, Self(userdata)->reelFirmware);
}

int PylonDaemonDbusHandler::ReelDistancePropertiesChanged(sd_bus_message* message, void* userdata,
                                                          sd_bus_error*) {
    return ForwardChanges(
        "static int Pylond::PylonDaemonDbusHandler::ReelDistancePropertiesChanged(sd_bus_message*, void*, "
        "sd_bus_error*)",
        message, Self(userdata)->reelDistance);
}

int PylonDaemonDbusHandler::PowerPropertiesChanged(sd_bus_message* message, void* userdata, sd_bus_error*) {
    return ForwardChanges(
        "static int Pylond::PylonDaemonDbusHandler::PowerPropertiesChanged(sd_bus_message*, void*, "
        "sd_bus_error*)",
        message, Self(userdata)->power);
}

int PylonDaemonDbusHandler::CoolingPropertiesChanged(sd_bus_message* message, void* userdata, sd_bus_error*) {
    return ForwardChanges(
        "static int Pylond::PylonDaemonDbusHandler::CoolingPropertiesChanged(sd_bus_message*, void*, "
        "sd_bus_error*)",
        message, Self(userdata)->cooling);
}

int PylonDaemonDbusHandler::InterfacesAddedHandler(sd_bus_message* message, void* userdata, sd_bus_error*) {
    std::string path;
    const int r = sdbus_utils::Codec<std::string>::Read(message, path);
    if (r < 0) {
        Logging::Log(
            LOG_ERR, "%s: Failed to read object path",
            "static int Pylond::PylonDaemonDbusHandler::InterfacesAddedHandler(sd_bus_message*, void*, "
            "sd_bus_error*)");
        return r;
    }
    Self(userdata)->interfacesAdded.emit(path);
    return 0;
}

int PylonDaemonDbusHandler::InterfacesRemovedHandler(sd_bus_message* message, void* userdata, sd_bus_error*) {
    std::string path;
    const int r = sdbus_utils::Codec<std::string>::Read(message, path);
    if (r < 0) {
        Logging::Log(
            LOG_ERR, "%s: Failed to read object path",
            "static int Pylond::PylonDaemonDbusHandler::InterfacesRemovedHandler(sd_bus_message*, void*, "
            "sd_bus_error*)");
        return r;
    }
    Self(userdata)->interfacesRemoved.emit(path);
    return 0;
}

int PylonDaemonDbusHandler::GetAllPowerProperties(bool remote, sdbus_utils::TypedPropertyMap& properties) {
    return SiblingCall::GetAll<kOperations, At("GetAllPowerProperties")>(properties, remote);
}

// ---------------------------------------------------------------------------------------------- power

int PylonDaemonDbusHandler::GetPowerSource(int32_t& source, bool remote) {
    return SiblingCall::Get<kOperations, At("GetPowerSource")>(source, remote);
}

int PylonDaemonDbusHandler::ReadBatteryVoltages(std::vector<int32_t>& voltages, bool remote) {
    return SiblingCall::Get<kOperations, At("ReadBatteryVoltages")>(voltages, remote);
}

int PylonDaemonDbusHandler::ReadBatteryChargePercentages(std::vector<int32_t>& percentages, bool remote) {
    return SiblingCall::Get<kOperations, At("ReadBatteryChargePercentages")>(percentages, remote);
}

int PylonDaemonDbusHandler::GetBatteryTypes(std::vector<uint32_t>& types, bool remote) {
    return SiblingCall::Get<kOperations, At("GetBatteryTypes")>(types, remote);
}

int PylonDaemonDbusHandler::GetSystemPowerLevel(uint32_t& level, bool remote) {
    return SiblingCall::Get<kOperations, At("GetSystemPowerLevel")>(level, remote);
}

int PylonDaemonDbusHandler::GetBatteryDrainMode(uint32_t& mode, bool remote) {
    return SiblingCall::Get<kOperations, At("GetBatteryDrainMode")>(mode, remote);
}

int PylonDaemonDbusHandler::SetBatteryDrainMode(uint32_t mode, bool remote) {
    return SiblingCall::Set<kOperations, At("SetBatteryDrainMode")>(mode, remote);
}

int PylonDaemonDbusHandler::GetLowBatteryWarnings(bool& warnings, bool remote) {
    return SiblingCall::Get<kOperations, At("GetLowBatteryWarnings")>(warnings, remote);
}

int PylonDaemonDbusHandler::GetPermittedActions(uint32_t& actions, bool remote) {
    return SiblingCall::Get<kOperations, At("GetPermittedActions")>(actions, remote);
}

int PylonDaemonDbusHandler::GetBatteryLevelIcons(BatteryLevelIcons& icons, bool remote) {
    return SiblingCall::Get<kOperations, At("GetBatteryLevelIcons")>(icons, remote);
}

int PylonDaemonDbusHandler::GetBatteryInfo(uint32_t battery, std::string& info, bool remote) {
    return SiblingCall::Query<kOperations, At("GetBatteryInfo")>(info, SiblingCall::Args(battery), remote);
}

int PylonDaemonDbusHandler::RequestGetBatteryData(bool remote) {
    return SiblingCall::Call<kOperations, At("RequestGetBatteryData")>({}, {}, remote);
}

int PylonDaemonDbusHandler::GetPowerSufficientForAction(uint32_t action, bool& sufficient, bool remote) {
    return SiblingCall::Query<kOperations, At("GetPowerSufficientForAction")>(
        sufficient, SiblingCall::Args(action), remote);
}

int PylonDaemonDbusHandler::GetBatteryUpdateState(uint32_t& state, bool remote) {
    return SiblingCall::Query<kOperations, At("GetBatteryUpdateState")>(state, {}, remote);
}

int PylonDaemonDbusHandler::GetBatteryUpdateDirection(uint32_t& direction, bool remote) {
    return SiblingCall::Query<kOperations, At("GetBatteryUpdateDirection")>(direction, {}, remote);
}

// -------------------------------------------------------------------------------------------- control

int PylonDaemonDbusHandler::SetPowerState(int32_t state, int32_t delaySecs) {
    return SiblingCall::Call<kOperations, At("SetPowerState")>(SiblingCall::Args(state, delaySecs));
}

int PylonDaemonDbusHandler::GetPowerStates(std::array<bool, 6>& states) {
    std::array<bool, 6> read{};
    const int r = SiblingCall::Call<kOperations, At("GetPowerStates")>({}, [&read](sd_bus_message* m) {
        for (bool& state : read) {
            const int rr = sdbus_utils::Codec<bool>::Read(m, state);
            if (rr < 0)
                return rr;
        }
        return 0;
    });
    if (r >= 0)
        states = read;
    return r;
}

int PylonDaemonDbusHandler::SetLedState(uint32_t led, uint32_t state) {
    return SiblingCall::Call<kOperations, At("SetLedState")>(SiblingCall::Args(led, state));
}

int PylonDaemonDbusHandler::BeepBuzzer(uint32_t count, uint32_t onMillis, uint32_t offMillis) {
    return SiblingCall::Call<kOperations, At("BeepBuzzer")>(SiblingCall::Args(count, onMillis, offMillis));
}

int PylonDaemonDbusHandler::SetRemote(const std::string& ip, const std::string& dbusAddress) {
    return SiblingCall::Call<kOperations, At("SetRemote")>(SiblingCall::Args(ip, dbusAddress));
}

int PylonDaemonDbusHandler::SetLocal() {
    return SiblingCall::Call<kOperations, At("SetLocal")>();
}

int PylonDaemonDbusHandler::GetRemoteIP(std::string& ip) {
    return SiblingCall::Get<kOperations, At("GetRemoteIP")>(ip);
}

int PylonDaemonDbusHandler::GetRemoteDbusAddr(std::string& address) {
    return SiblingCall::Get<kOperations, At("GetRemoteDbusAddr")>(address);
}

int PylonDaemonDbusHandler::GetPropVideoStatus(uint32_t& status) {
    return SiblingCall::Get<kOperations, At("GetPropVideoStatus")>(status);
}

int PylonDaemonDbusHandler::GetVideoStatus(uint32_t& status) {
    return SiblingCall::Query<kOperations, At("GetVideoStatus")>(status);
}

int PylonDaemonDbusHandler::GetPylonSwVersion(std::string& version) {
    return SiblingCall::Query<kOperations, At("GetPylonSwVersion")>(version);
}

int PylonDaemonDbusHandler::GetPylonHwVersion(std::string& version) {
    return SiblingCall::Query<kOperations, At("GetPylonHwVersion")>(version);
}

int PylonDaemonDbusHandler::GetKeypadPicVersion(std::string& version) {
    return SiblingCall::Query<kOperations, At("GetKeypadPicVersion")>(version);
}

// -------------------------------------------------------------------------------------------- cooling

int PylonDaemonDbusHandler::GetCpuTemp(int32_t& temperature) {
    return SiblingCall::Get<kOperations, At("GetCpuTemp")>(temperature);
}

int PylonDaemonDbusHandler::GetFanSpeed(uint32_t& rpm) {
    return SiblingCall::Get<kOperations, At("GetFanSpeed")>(rpm);
}

int PylonDaemonDbusHandler::GetFanCtrlMode(uint32_t& mode) {
    return SiblingCall::Get<kOperations, At("GetFanCtrlMode")>(mode);
}

int PylonDaemonDbusHandler::SetFanCtrlMode(uint32_t mode) {
    return SiblingCall::Set<kOperations, At("SetFanCtrlMode")>(mode);
}

int PylonDaemonDbusHandler::GetManualFanSpeed(uint32_t& speed) {
    return SiblingCall::Get<kOperations, At("GetManualFanSpeed")>(speed);
}

int PylonDaemonDbusHandler::SetManualFanSpeed(uint32_t speed) {
    return SiblingCall::Set<kOperations, At("SetManualFanSpeed")>(speed);
}

int PylonDaemonDbusHandler::GetFanCtrlRangeMinTemp(int32_t& temperature) {
    return SiblingCall::Get<kOperations, At("GetFanCtrlRangeMinTemp")>(temperature);
}

int PylonDaemonDbusHandler::SetFanCtrlRangeMinTemp(int32_t temperature) {
    return SiblingCall::Set<kOperations, At("SetFanCtrlRangeMinTemp")>(temperature);
}

int PylonDaemonDbusHandler::GetFanCtrlRangeMaxTemp(int32_t& temperature) {
    return SiblingCall::Get<kOperations, At("GetFanCtrlRangeMaxTemp")>(temperature);
}

int PylonDaemonDbusHandler::SetFanCtrlRangeMaxTemp(int32_t temperature) {
    return SiblingCall::Set<kOperations, At("SetFanCtrlRangeMaxTemp")>(temperature);
}

int PylonDaemonDbusHandler::GetCpuTempAvgPeriod(uint32_t& seconds) {
    return SiblingCall::Get<kOperations, At("GetCpuTempAvgPeriod")>(seconds);
}

int PylonDaemonDbusHandler::SetCpuTempAvgPeriod(uint32_t seconds) {
    return SiblingCall::Set<kOperations, At("SetCpuTempAvgPeriod")>(seconds);
}

int PylonDaemonDbusHandler::GetEmitStatusChanges(bool& emit) {
    return SiblingCall::Get<kOperations, At("GetEmitStatusChanges")>(emit);
}

int PylonDaemonDbusHandler::SetEmitStatusChanges(bool emit) {
    return SiblingCall::Set<kOperations, At("SetEmitStatusChanges")>(emit);
}

}  // namespace Pylond
