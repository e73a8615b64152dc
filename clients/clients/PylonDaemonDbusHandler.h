#pragma once
// Client of the unit's power, cooling and control daemon (com.quorbel.common.Pylon1 on the user bus).
//
// Objects: /com/quorbel/common/Pylon1 (Control), .../power and .../remotepower (power; `remote` selects the
// second), .../cooling (cooling), .../reel, .../reel/firmware and .../reel/distance.
// Listen() subscribes to the daemon's signals and forwards each, parsed, to a sigc++ signal of the handler.
// The static operations use a fresh connection of the calling thread per call. Results: 0 or positive on
// success, a negative error (logged) on failure; out values are only written on success.

#include <sigc++/sigc++.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <array>
#include <cstdint>
#include <string>
#include <tuple>
#include <vector>

#include "dbus_helper/DbusConnector.h"
#include "dbus_helper/SdbusUtils.h"

namespace Pylond {

inline constexpr const char* kService = "com.quorbel.common.Pylon1";
inline constexpr const char* kObjectPath = "/com/quorbel/common/Pylon1";
inline constexpr const char* kPowerPath = "/com/quorbel/common/Pylon1/power";
inline constexpr const char* kRemotePowerPath = "/com/quorbel/common/Pylon1/remotepower";
inline constexpr const char* kCoolingPath = "/com/quorbel/common/Pylon1/cooling";
inline constexpr const char* kReelPath = "/com/quorbel/common/Pylon1/reel";
inline constexpr const char* kReelFirmwarePath = "/com/quorbel/common/Pylon1/reel/firmware";
inline constexpr const char* kReelDistancePath = "/com/quorbel/common/Pylon1/reel/distance";
inline constexpr const char* kControlInterface = "com.quorbel.common.Pylon1.Control";
inline constexpr const char* kPowerInterface = "com.quorbel.common.Pylon1.power";
inline constexpr const char* kCoolingInterface = "com.quorbel.common.Pylon1.cooling";

// "BatteryLevelIcons", D-Bus "(sassas)"
using BatteryLevelIcons =
    std::tuple<std::string, std::vector<std::string>, std::string, std::vector<std::string>>;

using PropertiesChangedSignal = sigc::signal<void, sdbus_utils::TypedPropertyMap&>;
using VideoStatusSignal = sigc::signal<void, uint32_t>;
using KeyPressSignal = sigc::signal<void, int32_t, int32_t, int32_t>;
using ObjectSignal = sigc::signal<void, const std::string&>;

class PylonDaemonDbusHandler : public DbusHelper::DbusListener {
  public:
    explicit PylonDaemonDbusHandler(sd_event* loop);

    // Connects and subscribes to every signal below. 0, or the combined negative error (logged; the handler
    // then stays disconnected).
    int Listen();

    PropertiesChangedSignal& PowerSignal() { return power; }  // what this daemon follows
    PropertiesChangedSignal& ReelSignal() { return reel; }
    PropertiesChangedSignal& ReelFirmwareSignal() { return reelFirmware; }
    PropertiesChangedSignal& ReelDistanceSignal() { return reelDistance; }
    PropertiesChangedSignal& CoolingSignal() { return cooling; }
    VideoStatusSignal& VideoStatusChangedSignal() { return videoStatus; }
    KeyPressSignal& KeyPressEventSignal() { return keyPress; }
    ObjectSignal& InterfacesAddedSignal() { return interfacesAdded; }  // the object's path
    ObjectSignal& InterfacesRemovedSignal() { return interfacesRemoved; }

    // All power properties of the local (or remote) power object (entries added to `properties`).
    static int GetAllPowerProperties(bool remote, sdbus_utils::TypedPropertyMap& properties);

    // power object
    static int GetPowerSource(int32_t& source, bool remote = false);
    static int ReadBatteryVoltages(std::vector<int32_t>& voltages, bool remote = false);
    static int ReadBatteryChargePercentages(std::vector<int32_t>& percentages, bool remote = false);
    static int GetBatteryTypes(std::vector<uint32_t>& types, bool remote = false);
    static int GetSystemPowerLevel(uint32_t& level, bool remote = false);
    static int GetBatteryDrainMode(uint32_t& mode, bool remote = false);
    static int SetBatteryDrainMode(uint32_t mode, bool remote = false);
    static int GetLowBatteryWarnings(bool& warnings, bool remote = false);
    static int GetPermittedActions(uint32_t& actions, bool remote = false);
    static int GetBatteryLevelIcons(BatteryLevelIcons& icons, bool remote = false);
    static int GetBatteryInfo(uint32_t battery, std::string& info, bool remote = false);
    static int RequestGetBatteryData(bool remote = false);
    static int GetPowerSufficientForAction(uint32_t action, bool& sufficient, bool remote = false);
    static int GetBatteryUpdateState(uint32_t& state, bool remote = false);
    static int GetBatteryUpdateDirection(uint32_t& direction, bool remote = false);

    // control object
    static int SetPowerState(int32_t state, int32_t delaySecs);
    static int GetPowerStates(std::array<bool, 6>& states);
    static int SetLedState(uint32_t led, uint32_t state);
    static int BeepBuzzer(uint32_t count, uint32_t onMillis, uint32_t offMillis);
    static int SetRemote(const std::string& ip, const std::string& dbusAddress);
    static int SetLocal();
    static int GetRemoteIP(std::string& ip);
    static int GetRemoteDbusAddr(std::string& address);
    static int GetPropVideoStatus(uint32_t& status);
    static int GetVideoStatus(uint32_t& status);
    static int GetPylonSwVersion(std::string& version);
    static int GetPylonHwVersion(std::string& version);
    static int GetKeypadPicVersion(std::string& version);

    // cooling object
    static int GetCpuTemp(int32_t& temperature);
    static int GetFanSpeed(uint32_t& rpm);
    static int GetFanCtrlMode(uint32_t& mode);
    static int SetFanCtrlMode(uint32_t mode);
    static int GetManualFanSpeed(uint32_t& speed);
    static int SetManualFanSpeed(uint32_t speed);
    static int GetFanCtrlRangeMinTemp(int32_t& temperature);
    static int SetFanCtrlRangeMinTemp(int32_t temperature);
    static int GetFanCtrlRangeMaxTemp(int32_t& temperature);
    static int SetFanCtrlRangeMaxTemp(int32_t temperature);
    static int GetCpuTempAvgPeriod(uint32_t& seconds);
    static int SetCpuTempAvgPeriod(uint32_t seconds);
    static int GetEmitStatusChanges(bool& emit);
    static int SetEmitStatusChanges(bool emit);

    // Signal callbacks; user data is the handler.
    static int VideoStatusChangedHandler(sd_bus_message* message, void* userdata, sd_bus_error* error);
    static int KeyPressEventHandler(sd_bus_message* message, void* userdata, sd_bus_error* error);
    static int ReelPropertiesChanged(sd_bus_message* message, void* userdata, sd_bus_error* error);
    static int ReelFirmwarePropertiesChanged(sd_bus_message* message, void* userdata, sd_bus_error* error);
    static int ReelDistancePropertiesChanged(sd_bus_message* message, void* userdata, sd_bus_error* error);
    static int PowerPropertiesChanged(sd_bus_message* message, void* userdata, sd_bus_error* error);
    static int CoolingPropertiesChanged(sd_bus_message* message, void* userdata, sd_bus_error* error);
    static int InterfacesAddedHandler(sd_bus_message* message, void* userdata, sd_bus_error* error);
    static int InterfacesRemovedHandler(sd_bus_message* message, void* userdata, sd_bus_error* error);

  private:
    PropertiesChangedSignal power;
    PropertiesChangedSignal reel;
    PropertiesChangedSignal reelFirmware;
    PropertiesChangedSignal reelDistance;
    PropertiesChangedSignal cooling;
    VideoStatusSignal videoStatus;
    KeyPressSignal keyPress;
    ObjectSignal interfacesAdded;
    ObjectSignal interfacesRemoved;
};

}  // namespace Pylond
