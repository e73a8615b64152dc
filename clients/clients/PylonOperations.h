#pragma once
// The power daemon client's static operations, one row each. The power rows run on the local or the remote
// power object, chosen by the caller.

#include "clients/PylonDaemonDbusHandler.h"
#include "clients/SiblingOperation.h"

namespace Pylond {

inline constexpr SiblingCall::ObjectInterface kPowerObject{kService, kPowerPath, kRemotePowerPath,
                                                           kPowerInterface};
inline constexpr SiblingCall::ObjectInterface kControlObject{kService, kObjectPath, nullptr,
                                                             kControlInterface};
inline constexpr SiblingCall::ObjectInterface kCoolingObject{kService, kCoolingPath, nullptr,
                                                             kCoolingInterface};

inline constexpr SiblingCall::Operation kOperations[] = {
    // power object
    kPowerObject.GetAll("GetAllPowerProperties",
                        "static int Pylond::PylonDaemonDbusHandler::GetAllPowerProperties(bool, "
                        "sdbus_utils::TypedPropertyMap&)"),
    kPowerObject.Get("GetPowerSource",
                     "static int Pylond::PylonDaemonDbusHandler::GetPowerSource(int32_t&, bool)",
                     "POWER_PROP_ACTIVE_POWER_SOURCE", "ActivePowerSource"),
    kPowerObject.Get(
        "ReadBatteryVoltages",
        "static int Pylond::PylonDaemonDbusHandler::ReadBatteryVoltages(std::vector<int32_t>&, bool)",
        "POWER_PROP_BATTERY_VOLTAGES", "BatteryVoltages"),
    kPowerObject.Get(
        "ReadBatteryChargePercentages",
        "static int Pylond::PylonDaemonDbusHandler::ReadBatteryChargePercentages(std::vector<int32_t>&, "
        "bool)",
        "POWER_PROP_BATTERY_CHARGE_PERCENTAGES", "BatteryChargePercentages"),
    kPowerObject.Get(
        "GetBatteryTypes",
        "static int Pylond::PylonDaemonDbusHandler::GetBatteryTypes(std::vector<uint32_t>&, bool)",
        "POWER_PROP_BATTERY_TYPES", "BatteryTypes"),
    kPowerObject.Get("GetSystemPowerLevel",
                     "static int Pylond::PylonDaemonDbusHandler::GetSystemPowerLevel(uint32_t&, bool)",
                     "POWER_PROP_SYSTEM_POWER_LEVEL", "SystemPowerLevel"),
    kPowerObject.Get("GetBatteryDrainMode",
                     "static int Pylond::PylonDaemonDbusHandler::GetBatteryDrainMode(uint32_t&, bool)",
                     "POWER_PROP_BATTERY_DRAIN_MODE", "BatteryDrainMode"),
    kPowerObject.Set("SetBatteryDrainMode",
                     "static int Pylond::PylonDaemonDbusHandler::SetBatteryDrainMode(uint32_t, bool)",
                     "POWER_PROP_BATTERY_DRAIN_MODE", "BatteryDrainMode"),
    kPowerObject.Get("GetLowBatteryWarnings",
                     "static int Pylond::PylonDaemonDbusHandler::GetLowBatteryWarnings(bool&, bool)",
                     "POWER_PROP_LOW_BATTERY_WARNINGS", "LowBatteryWarnings"),
    kPowerObject.Get("GetPermittedActions",
                     "static int Pylond::PylonDaemonDbusHandler::GetPermittedActions(uint32_t&, bool)",
                     "POWER_PROP_PERMITTED_ACTIONS", "PermittedActions"),
    kPowerObject.Get(
        "GetBatteryLevelIcons",
        "static int Pylond::PylonDaemonDbusHandler::GetBatteryLevelIcons(BatteryLevelIcons&, bool)",
        "POWER_PROP_BATTERY_LEVEL_ICONS", "BatteryLevelIcons"),
    kPowerObject.Method(
        "GetBatteryInfo",
        "static int Pylond::PylonDaemonDbusHandler::GetBatteryInfo(uint32_t, std::string&, bool)",
        "POWER_METHOD_GET_BATTERY_INFO", "GetBatteryInfo"),
    kPowerObject.Method("RequestGetBatteryData",
                        "static int Pylond::PylonDaemonDbusHandler::RequestGetBatteryData(bool)",
                        "POWER_METHOD_REQUEST_BATTERY_DATA", "RequestBatteryData"),
    kPowerObject.Method(
        "GetPowerSufficientForAction",
        "static int Pylond::PylonDaemonDbusHandler::GetPowerSufficientForAction(uint32_t, bool&, "
        "bool)",
        "POWER_METHOD_GET_POWER_SUFFICIENT_FOR_ACTION", "GetPowerSufficientForAction"),
    kPowerObject.Method("GetBatteryUpdateState",
                        "static int Pylond::PylonDaemonDbusHandler::GetBatteryUpdateState(uint32_t&, bool)",
                        "POWER_METHOD_GET_BATTERY_UPDATE_STATE", "GetBatteryUpdateState"),
    kPowerObject.Method(
        "GetBatteryUpdateDirection",
        "static int Pylond::PylonDaemonDbusHandler::GetBatteryUpdateDirection(uint32_t&, bool)",
        "POWER_METHOD_GET_BATTERY_UPDATE_DIRECTION", "GetBatteryUpdateDirection"),

    // control object
    kControlObject.Method("SetPowerState",
                          "static int Pylond::PylonDaemonDbusHandler::SetPowerState(int32_t, int32_t)",
                          "CONTROL_METHOD_SET_POWER_STATE", "SetPowerState"),
    kControlObject.Method("GetPowerStates",
                          "static int Pylond::PylonDaemonDbusHandler::GetPowerStates(std::array<bool, 6>&)",
                          "CONTROL_METHOD_GET_POWER_STATES", "GetPowerStates"),
    kControlObject.Method("SetLedState",
                          "static int Pylond::PylonDaemonDbusHandler::SetLedState(uint32_t, uint32_t)",
                          "CONTROL_METHOD_SET_LED_STATE", "SetLedState"),
    kControlObject.Method(
        "BeepBuzzer", "static int Pylond::PylonDaemonDbusHandler::BeepBuzzer(uint32_t, uint32_t, uint32_t)",
        "CONTROL_METHOD_BEEP_BUZZER", "BeepBuzzer"),
    kControlObject.Method("SetRemote",
                          "static int Pylond::PylonDaemonDbusHandler::SetRemote(const std::string&, const "
                          "std::string&)",
                          "CONTROL_METHOD_SET_REMOTE", "SetRemote"),
    kControlObject.Method("SetLocal", "static int Pylond::PylonDaemonDbusHandler::SetLocal()",
                          "CONTROL_METHOD_SET_LOCAL", "SetLocal"),
    kControlObject.Get("GetRemoteIP", "static int Pylond::PylonDaemonDbusHandler::GetRemoteIP(std::string&)",
                       "CONTROL_PROP_REMOTE_IP", "RemoteIP"),
    kControlObject.Get("GetRemoteDbusAddr",
                       "static int Pylond::PylonDaemonDbusHandler::GetRemoteDbusAddr(std::string&)",
                       "CONTROL_PROP_REMOTE_DBUS_ADDRESS", "RemoteDBusAddress"),
    kControlObject.Get("GetPropVideoStatus",
                       "static int Pylond::PylonDaemonDbusHandler::GetPropVideoStatus(uint32_t&)",
                       "CONTROL_PROP_VIDEO_STATUS", "VideoStatus"),
    kControlObject.Method("GetVideoStatus",
                          "static int Pylond::PylonDaemonDbusHandler::GetVideoStatus(uint32_t&)",
                          "CONTROL_METHOD_GET_VIDEO_STATUS", "GetVideoStatus"),
    kControlObject.Method("GetPylonSwVersion",
                          "static int Pylond::PylonDaemonDbusHandler::GetPylonSwVersion(std::string&)",
                          "CONTROL_METHOD_GET_PYLON_SW_VERSION", "GetPylonSwVersion"),
    kControlObject.Method("GetPylonHwVersion",
                          "static int Pylond::PylonDaemonDbusHandler::GetPylonHwVersion(std::string&)",
                          "CONTROL_METHOD_GET_PYLON_HW_VERSION", "GetPylonHwVersion"),
    kControlObject.Method("GetKeypadPicVersion",
                          "static int Pylond::PylonDaemonDbusHandler::GetKeypadPicVersion(std::string&)",
                          "CONTROL_METHOD_GET_KEYPAD_PIC_VERSION", "GetKeypadPicVersion"),

    // cooling object
    kCoolingObject.Get("GetCpuTemp", "static int Pylond::PylonDaemonDbusHandler::GetCpuTemp(int32_t&)",
                       "COOLING_PROP_CPU_TEMP", "CpuTemp"),
    kCoolingObject.Get("GetFanSpeed", "static int Pylond::PylonDaemonDbusHandler::GetFanSpeed(uint32_t&)",
                       "COOLING_PROP_FAN_SPEED", "FanSpeed"),
    kCoolingObject.Get("GetFanCtrlMode",
                       "static int Pylond::PylonDaemonDbusHandler::GetFanCtrlMode(uint32_t&)",
                       "COOLING_PROP_FAN_CTRL_MODE", "FanCtrlMode"),
    kCoolingObject.Set("SetFanCtrlMode",
                       "static int Pylond::PylonDaemonDbusHandler::SetFanCtrlMode(uint32_t)",
                       "COOLING_PROP_FAN_CTRL_MODE", "FanCtrlMode"),
    kCoolingObject.Get("GetManualFanSpeed",
                       "static int Pylond::PylonDaemonDbusHandler::GetManualFanSpeed(uint32_t&)",
                       "COOLING_PROP_MANUAL_FAN_SPEED", "ManualFanSpeed"),
    kCoolingObject.Set("SetManualFanSpeed",
                       "static int Pylond::PylonDaemonDbusHandler::SetManualFanSpeed(uint32_t)",
                       "COOLING_PROP_MANUAL_FAN_SPEED", "ManualFanSpeed"),
    kCoolingObject.Get("GetFanCtrlRangeMinTemp",
                       "static int Pylond::PylonDaemonDbusHandler::GetFanCtrlRangeMinTemp(int32_t&)",
                       "COOLING_PROP_FAN_CTRL_RANGE_MIN_TEMP", "FanCtrlRangeMinTemp"),
    kCoolingObject.Set("SetFanCtrlRangeMinTemp",
                       "static int Pylond::PylonDaemonDbusHandler::SetFanCtrlRangeMinTemp(int32_t)",
                       "COOLING_PROP_FAN_CTRL_RANGE_MIN_TEMP", "FanCtrlRangeMinTemp"),
    kCoolingObject.Get("GetFanCtrlRangeMaxTemp",
                       "static int Pylond::PylonDaemonDbusHandler::GetFanCtrlRangeMaxTemp(int32_t&)",
                       "COOLING_PROP_FAN_CTRL_RANGE_MAX_TEMP", "FanCtrlRangeMaxTemp"),
    kCoolingObject.Set("SetFanCtrlRangeMaxTemp",
                       "static int Pylond::PylonDaemonDbusHandler::SetFanCtrlRangeMaxTemp(int32_t)",
                       "COOLING_PROP_FAN_CTRL_RANGE_MAX_TEMP", "FanCtrlRangeMaxTemp"),
    kCoolingObject.Get("GetCpuTempAvgPeriod",
                       "static int Pylond::PylonDaemonDbusHandler::GetCpuTempAvgPeriod(uint32_t&)",
                       "COOLING_PROP_CPU_TEMP_AVG_PERIOD", "CpuTempAvgPeriod"),
    kCoolingObject.Set("SetCpuTempAvgPeriod",
                       "static int Pylond::PylonDaemonDbusHandler::SetCpuTempAvgPeriod(uint32_t)",
                       "COOLING_PROP_CPU_TEMP_AVG_PERIOD", "CpuTempAvgPeriod"),
    kCoolingObject.Get("GetEmitStatusChanges",
                       "static int Pylond::PylonDaemonDbusHandler::GetEmitStatusChanges(bool&)",
                       "COOLING_PROP_EMIT_STATUS_CHANGES", "EmitStatusChanges"),
    kCoolingObject.Set("SetEmitStatusChanges",
                       "static int Pylond::PylonDaemonDbusHandler::SetEmitStatusChanges(bool)",
                       "COOLING_PROP_EMIT_STATUS_CHANGES", "EmitStatusChanges"),
};

}  // namespace Pylond
