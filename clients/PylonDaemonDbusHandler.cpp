#include "clients/PylonDaemonDbusHandler.h"

#include "SiblingCall.h"
#include "logging/Log.h"

namespace Pylond {

namespace {

constexpr const char* kListen = "int Pylond::PylonDaemonDbusHandler::Listen()";
constexpr const char* kPropertiesIface = "org.freedesktop.DBus.Properties";
constexpr const char* kObjectManagerIface = "org.freedesktop.DBus.ObjectManager";

const char* PowerPath(bool remote) {
    return remote ? kRemotePowerPath : kPowerPath;
}

template <typename T>
int GetPower(const char* where, const char* macro, const char* member, bool remote, T& value) {
    return SiblingCall::GetProperty(where, macro, kService, PowerPath(remote), kPowerInterface, member,
                                    value);
}

template <typename T>
int GetControl(const char* where, const char* macro, const char* member, T& value) {
    return SiblingCall::GetProperty(where, macro, kService, kObjectPath, kControlInterface, member, value);
}

template <typename T>
int GetCooling(const char* where, const char* macro, const char* member, T& value) {
    return SiblingCall::GetProperty(where, macro, kService, kCoolingPath, kCoolingInterface, member, value);
}

template <typename T>
int SetCooling(const char* where, const char* macro, const char* member, const T& value) {
    return SiblingCall::SetProperty(where, macro, kService, kCoolingPath, kCoolingInterface, member, value);
}

int PowerMethod(const char* where, const char* macro, const char* member, bool remote,
                const SiblingCall::Writer& args = {}, const SiblingCall::Reader& read = {}) {
    return SiblingCall::LoggedMethod(where, macro, kService, PowerPath(remote), kPowerInterface, member, args,
                                     read);
}

int ControlMethod(const char* where, const char* macro, const char* member,
                  const SiblingCall::Writer& args = {}, const SiblingCall::Reader& read = {}) {
    return SiblingCall::LoggedMethod(where, macro, kService, kObjectPath, kControlInterface, member, args,
                                     read);
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
    const Subscription subscriptions[] = {
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
    for (const auto& s : subscriptions) {
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
    Self(userdata)->videoStatus_.emit(status);
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
    Self(userdata)->keyPress_.emit(key, state, duration);
    return 0;
}

int PylonDaemonDbusHandler::ReelPropertiesChanged(sd_bus_message* message, void* userdata, sd_bus_error*) {
    return ForwardChanges(
        "static int Pylond::PylonDaemonDbusHandler::ReelPropertiesChanged(sd_bus_message*, void*, "
        "sd_bus_error*)",
        message, Self(userdata)->reel_);
}

int PylonDaemonDbusHandler::ReelFirmwarePropertiesChanged(sd_bus_message* message, void* userdata,
                                                          sd_bus_error*) {
    return ForwardChanges(
        "static int Pylond::PylonDaemonDbusHandler::ReelFirmwarePropertiesChanged(sd_bus_message*, void*, "
        "sd_bus_error*)",
        message, Self(userdata)->reelFirmware_);
}

int PylonDaemonDbusHandler::ReelDistancePropertiesChanged(sd_bus_message* message, void* userdata,
                                                          sd_bus_error*) {
    return ForwardChanges(
        "static int Pylond::PylonDaemonDbusHandler::ReelDistancePropertiesChanged(sd_bus_message*, void*, "
        "sd_bus_error*)",
        message, Self(userdata)->reelDistance_);
}

int PylonDaemonDbusHandler::PowerPropertiesChanged(sd_bus_message* message, void* userdata, sd_bus_error*) {
    return ForwardChanges(
        "static int Pylond::PylonDaemonDbusHandler::PowerPropertiesChanged(sd_bus_message*, void*, "
        "sd_bus_error*)",
        message, Self(userdata)->power_);
}

int PylonDaemonDbusHandler::CoolingPropertiesChanged(sd_bus_message* message, void* userdata, sd_bus_error*) {
    return ForwardChanges(
        "static int Pylond::PylonDaemonDbusHandler::CoolingPropertiesChanged(sd_bus_message*, void*, "
        "sd_bus_error*)",
        message, Self(userdata)->cooling_);
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
    Self(userdata)->interfacesAdded_.emit(path);
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
    Self(userdata)->interfacesRemoved_.emit(path);
    return 0;
}

int PylonDaemonDbusHandler::GetAllPowerProperties(bool remote, sdbus_utils::TypedPropertyMap& properties) {
    std::string error;
    const int r = sdbus_utils::GetAllProperties(nullptr, kService, PowerPath(remote), kPowerInterface,
                                                properties, error);
    if (r < 0)
        Logging::Log(LOG_ERR, "%s: sdbus_utils::GetAllProperties failed %s",
                     "static int Pylond::PylonDaemonDbusHandler::GetAllPowerProperties(bool, "
                     "sdbus_utils::TypedPropertyMap&)",
                     error.c_str());
    return r;
}

// ---------------------------------------------------------------------------------------------- power

int PylonDaemonDbusHandler::GetPowerSource(int32_t& source, bool remote) {
    return GetPower("static int Pylond::PylonDaemonDbusHandler::GetPowerSource(int32_t&, bool)",
                    "POWER_PROP_ACTIVE_POWER_SOURCE", "ActivePowerSource", remote, source);
}

int PylonDaemonDbusHandler::ReadBatteryVoltages(std::vector<int32_t>& voltages, bool remote) {
    return GetPower(
        "static int Pylond::PylonDaemonDbusHandler::ReadBatteryVoltages(std::vector<int32_t>&, bool)",
        "POWER_PROP_BATTERY_VOLTAGES", "BatteryVoltages", remote, voltages);
}

int PylonDaemonDbusHandler::ReadBatteryChargePercentages(std::vector<int32_t>& percentages, bool remote) {
    return GetPower(
        "static int Pylond::PylonDaemonDbusHandler::ReadBatteryChargePercentages(std::vector<int32_t>&, "
        "bool)",
        "POWER_PROP_BATTERY_CHARGE_PERCENTAGES", "BatteryChargePercentages", remote, percentages);
}

int PylonDaemonDbusHandler::GetBatteryTypes(std::vector<uint32_t>& types, bool remote) {
    return GetPower(
        "static int Pylond::PylonDaemonDbusHandler::GetBatteryTypes(std::vector<uint32_t>&, bool)",
        "POWER_PROP_BATTERY_TYPES", "BatteryTypes", remote, types);
}

int PylonDaemonDbusHandler::GetSystemPowerLevel(uint32_t& level, bool remote) {
    return GetPower("static int Pylond::PylonDaemonDbusHandler::GetSystemPowerLevel(uint32_t&, bool)",
                    "POWER_PROP_SYSTEM_POWER_LEVEL", "SystemPowerLevel", remote, level);
}

int PylonDaemonDbusHandler::GetBatteryDrainMode(uint32_t& mode, bool remote) {
    return GetPower("static int Pylond::PylonDaemonDbusHandler::GetBatteryDrainMode(uint32_t&, bool)",
                    "POWER_PROP_BATTERY_DRAIN_MODE", "BatteryDrainMode", remote, mode);
}

int PylonDaemonDbusHandler::SetBatteryDrainMode(uint32_t mode, bool remote) {
    return SiblingCall::SetProperty(
        "static int Pylond::PylonDaemonDbusHandler::SetBatteryDrainMode(uint32_t, bool)",
        "POWER_PROP_BATTERY_DRAIN_MODE", kService, PowerPath(remote), kPowerInterface, "BatteryDrainMode",
        mode);
}

int PylonDaemonDbusHandler::GetLowBatteryWarnings(bool& warnings, bool remote) {
    return GetPower("static int Pylond::PylonDaemonDbusHandler::GetLowBatteryWarnings(bool&, bool)",
                    "POWER_PROP_LOW_BATTERY_WARNINGS", "LowBatteryWarnings", remote, warnings);
}

int PylonDaemonDbusHandler::GetPermittedActions(uint32_t& actions, bool remote) {
    return GetPower("static int Pylond::PylonDaemonDbusHandler::GetPermittedActions(uint32_t&, bool)",
                    "POWER_PROP_PERMITTED_ACTIONS", "PermittedActions", remote, actions);
}

int PylonDaemonDbusHandler::GetBatteryLevelIcons(BatteryLevelIcons& icons, bool remote) {
    return GetPower(
        "static int Pylond::PylonDaemonDbusHandler::GetBatteryLevelIcons(BatteryLevelIcons&, bool)",
        "POWER_PROP_BATTERY_LEVEL_ICONS", "BatteryLevelIcons", remote, icons);
}

int PylonDaemonDbusHandler::GetBatteryInfo(uint32_t battery, std::string& info, bool remote) {
    std::string read;
    const int r =
        PowerMethod("static int Pylond::PylonDaemonDbusHandler::GetBatteryInfo(uint32_t, std::string&, bool)",
                    "POWER_METHOD_GET_BATTERY_INFO", "GetBatteryInfo", remote, SiblingCall::Args(battery),
                    SiblingCall::Into(read));
    if (r >= 0)
        info = read;
    return r;
}

int PylonDaemonDbusHandler::RequestGetBatteryData(bool remote) {
    return PowerMethod("static int Pylond::PylonDaemonDbusHandler::RequestGetBatteryData(bool)",
                       "POWER_METHOD_REQUEST_BATTERY_DATA", "RequestBatteryData", remote);
}

int PylonDaemonDbusHandler::GetPowerSufficientForAction(uint32_t action, bool& sufficient, bool remote) {
    bool read = false;
    const int r = PowerMethod(
        "static int Pylond::PylonDaemonDbusHandler::GetPowerSufficientForAction(uint32_t, bool&, bool)",
        "POWER_METHOD_GET_POWER_SUFFICIENT_FOR_ACTION", "GetPowerSufficientForAction", remote,
        SiblingCall::Args(action), SiblingCall::Into(read));
    if (r >= 0)
        sufficient = read;
    return r;
}

int PylonDaemonDbusHandler::GetBatteryUpdateState(uint32_t& state, bool remote) {
    uint32_t read = 0;
    const int r =
        PowerMethod("static int Pylond::PylonDaemonDbusHandler::GetBatteryUpdateState(uint32_t&, bool)",
                    "POWER_METHOD_GET_BATTERY_UPDATE_STATE", "GetBatteryUpdateState", remote, {},
                    SiblingCall::Into(read));
    if (r >= 0)
        state = read;
    return r;
}

int PylonDaemonDbusHandler::GetBatteryUpdateDirection(uint32_t& direction, bool remote) {
    uint32_t read = 0;
    const int r =
        PowerMethod("static int Pylond::PylonDaemonDbusHandler::GetBatteryUpdateDirection(uint32_t&, bool)",
                    "POWER_METHOD_GET_BATTERY_UPDATE_DIRECTION", "GetBatteryUpdateDirection", remote, {},
                    SiblingCall::Into(read));
    if (r >= 0)
        direction = read;
    return r;
}

// -------------------------------------------------------------------------------------------- control

int PylonDaemonDbusHandler::SetPowerState(int32_t state, int32_t delaySecs) {
    return ControlMethod("static int Pylond::PylonDaemonDbusHandler::SetPowerState(int32_t, int32_t)",
                         "CONTROL_METHOD_SET_POWER_STATE", "SetPowerState",
                         SiblingCall::Args(state, delaySecs));
}

int PylonDaemonDbusHandler::GetPowerStates(std::array<bool, 6>& states) {
    std::array<bool, 6> read{};
    const int r =
        ControlMethod("static int Pylond::PylonDaemonDbusHandler::GetPowerStates(std::array<bool, 6>&)",
                      "CONTROL_METHOD_GET_POWER_STATES", "GetPowerStates", {}, [&read](sd_bus_message* m) {
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
    return ControlMethod("static int Pylond::PylonDaemonDbusHandler::SetLedState(uint32_t, uint32_t)",
                         "CONTROL_METHOD_SET_LED_STATE", "SetLedState", SiblingCall::Args(led, state));
}

int PylonDaemonDbusHandler::BeepBuzzer(uint32_t count, uint32_t onMillis, uint32_t offMillis) {
    return ControlMethod(
        "static int Pylond::PylonDaemonDbusHandler::BeepBuzzer(uint32_t, uint32_t, uint32_t)",
        "CONTROL_METHOD_BEEP_BUZZER", "BeepBuzzer", SiblingCall::Args(count, onMillis, offMillis));
}

int PylonDaemonDbusHandler::SetRemote(const std::string& ip, const std::string& dbusAddress) {
    return ControlMethod(
        "static int Pylond::PylonDaemonDbusHandler::SetRemote(const std::string&, const std::string&)",
        "CONTROL_METHOD_SET_REMOTE", "SetRemote", SiblingCall::Args(ip, dbusAddress));
}

int PylonDaemonDbusHandler::SetLocal() {
    return ControlMethod("static int Pylond::PylonDaemonDbusHandler::SetLocal()", "CONTROL_METHOD_SET_LOCAL",
                         "SetLocal");
}

int PylonDaemonDbusHandler::GetRemoteIP(std::string& ip) {
    return GetControl("static int Pylond::PylonDaemonDbusHandler::GetRemoteIP(std::string&)",
                      "CONTROL_PROP_REMOTE_IP", "RemoteIP", ip);
}

int PylonDaemonDbusHandler::GetRemoteDbusAddr(std::string& address) {
    return GetControl("static int Pylond::PylonDaemonDbusHandler::GetRemoteDbusAddr(std::string&)",
                      "CONTROL_PROP_REMOTE_DBUS_ADDRESS", "RemoteDBusAddress", address);
}

int PylonDaemonDbusHandler::GetPropVideoStatus(uint32_t& status) {
    return GetControl("static int Pylond::PylonDaemonDbusHandler::GetPropVideoStatus(uint32_t&)",
                      "CONTROL_PROP_VIDEO_STATUS", "VideoStatus", status);
}

namespace {
template <typename T>
int ControlQuery(const char* where, const char* macro, const char* member, T& value) {
    T read{};
    const int r = ControlMethod(where, macro, member, {}, SiblingCall::Into(read));
    if (r >= 0)
        value = read;
    return r;
}
}  // namespace

int PylonDaemonDbusHandler::GetVideoStatus(uint32_t& status) {
    return ControlQuery("static int Pylond::PylonDaemonDbusHandler::GetVideoStatus(uint32_t&)",
                        "CONTROL_METHOD_GET_VIDEO_STATUS", "GetVideoStatus", status);
}

int PylonDaemonDbusHandler::GetPylonSwVersion(std::string& version) {
    return ControlQuery("static int Pylond::PylonDaemonDbusHandler::GetPylonSwVersion(std::string&)",
                        "CONTROL_METHOD_GET_PYLON_SW_VERSION", "GetPylonSwVersion", version);
}

int PylonDaemonDbusHandler::GetPylonHwVersion(std::string& version) {
    return ControlQuery("static int Pylond::PylonDaemonDbusHandler::GetPylonHwVersion(std::string&)",
                        "CONTROL_METHOD_GET_PYLON_HW_VERSION", "GetPylonHwVersion", version);
}

int PylonDaemonDbusHandler::GetKeypadPicVersion(std::string& version) {
    return ControlQuery("static int Pylond::PylonDaemonDbusHandler::GetKeypadPicVersion(std::string&)",
                        "CONTROL_METHOD_GET_KEYPAD_PIC_VERSION", "GetKeypadPicVersion", version);
}

// -------------------------------------------------------------------------------------------- cooling

int PylonDaemonDbusHandler::GetCpuTemp(int32_t& temperature) {
    return GetCooling("static int Pylond::PylonDaemonDbusHandler::GetCpuTemp(int32_t&)",
                      "COOLING_PROP_CPU_TEMP", "CpuTemp", temperature);
}

int PylonDaemonDbusHandler::GetFanSpeed(uint32_t& rpm) {
    return GetCooling("static int Pylond::PylonDaemonDbusHandler::GetFanSpeed(uint32_t&)",
                      "COOLING_PROP_FAN_SPEED", "FanSpeed", rpm);
}

int PylonDaemonDbusHandler::GetFanCtrlMode(uint32_t& mode) {
    return GetCooling("static int Pylond::PylonDaemonDbusHandler::GetFanCtrlMode(uint32_t&)",
                      "COOLING_PROP_FAN_CTRL_MODE", "FanCtrlMode", mode);
}

int PylonDaemonDbusHandler::SetFanCtrlMode(uint32_t mode) {
    return SetCooling("static int Pylond::PylonDaemonDbusHandler::SetFanCtrlMode(uint32_t)",
                      "COOLING_PROP_FAN_CTRL_MODE", "FanCtrlMode", mode);
}

int PylonDaemonDbusHandler::GetManualFanSpeed(uint32_t& speed) {
    return GetCooling("static int Pylond::PylonDaemonDbusHandler::GetManualFanSpeed(uint32_t&)",
                      "COOLING_PROP_MANUAL_FAN_SPEED", "ManualFanSpeed", speed);
}

int PylonDaemonDbusHandler::SetManualFanSpeed(uint32_t speed) {
    return SetCooling("static int Pylond::PylonDaemonDbusHandler::SetManualFanSpeed(uint32_t)",
                      "COOLING_PROP_MANUAL_FAN_SPEED", "ManualFanSpeed", speed);
}

int PylonDaemonDbusHandler::GetFanCtrlRangeMinTemp(int32_t& temperature) {
    return GetCooling("static int Pylond::PylonDaemonDbusHandler::GetFanCtrlRangeMinTemp(int32_t&)",
                      "COOLING_PROP_FAN_CTRL_RANGE_MIN_TEMP", "FanCtrlRangeMinTemp", temperature);
}

int PylonDaemonDbusHandler::SetFanCtrlRangeMinTemp(int32_t temperature) {
    return SetCooling("static int Pylond::PylonDaemonDbusHandler::SetFanCtrlRangeMinTemp(int32_t)",
                      "COOLING_PROP_FAN_CTRL_RANGE_MIN_TEMP", "FanCtrlRangeMinTemp", temperature);
}

int PylonDaemonDbusHandler::GetFanCtrlRangeMaxTemp(int32_t& temperature) {
    return GetCooling("static int Pylond::PylonDaemonDbusHandler::GetFanCtrlRangeMaxTemp(int32_t&)",
                      "COOLING_PROP_FAN_CTRL_RANGE_MAX_TEMP", "FanCtrlRangeMaxTemp", temperature);
}

int PylonDaemonDbusHandler::SetFanCtrlRangeMaxTemp(int32_t temperature) {
    return SetCooling("static int Pylond::PylonDaemonDbusHandler::SetFanCtrlRangeMaxTemp(int32_t)",
                      "COOLING_PROP_FAN_CTRL_RANGE_MAX_TEMP", "FanCtrlRangeMaxTemp", temperature);
}

int PylonDaemonDbusHandler::GetCpuTempAvgPeriod(uint32_t& seconds) {
    return GetCooling("static int Pylond::PylonDaemonDbusHandler::GetCpuTempAvgPeriod(uint32_t&)",
                      "COOLING_PROP_CPU_TEMP_AVG_PERIOD", "CpuTempAvgPeriod", seconds);
}

int PylonDaemonDbusHandler::SetCpuTempAvgPeriod(uint32_t seconds) {
    return SetCooling("static int Pylond::PylonDaemonDbusHandler::SetCpuTempAvgPeriod(uint32_t)",
                      "COOLING_PROP_CPU_TEMP_AVG_PERIOD", "CpuTempAvgPeriod", seconds);
}

int PylonDaemonDbusHandler::GetEmitStatusChanges(bool& emit) {
    return GetCooling("static int Pylond::PylonDaemonDbusHandler::GetEmitStatusChanges(bool&)",
                      "COOLING_PROP_EMIT_STATUS_CHANGES", "EmitStatusChanges", emit);
}

int PylonDaemonDbusHandler::SetEmitStatusChanges(bool emit) {
    return SetCooling("static int Pylond::PylonDaemonDbusHandler::SetEmitStatusChanges(bool)",
                      "COOLING_PROP_EMIT_STATUS_CHANGES", "EmitStatusChanges", emit);
}

}  // namespace Pylond
