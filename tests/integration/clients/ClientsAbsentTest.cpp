// The three clients in a unit whose settings, network and power daemons are not running.
#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <string>
#include <vector>

#include "clients/NetworkDaemonDbusHandler.h"
#include "clients/PylonDaemonDbusHandler.h"
#include "clients/SettingsDaemonDbusHandler.h"
#include "logging/Log.h"
#include "test_support/TestEnv.h"

using Networkd::NetworkDaemonDbusHandler;
using Pylond::PylonDaemonDbusHandler;
using Settingsd::SettingsDaemonDbusHandler;

namespace {

std::string NotProvided(const char* name) {
    return std::string("The name ") + name + " was not provided by any .service files";
}

struct Operation {
    std::string name;
    std::function<int()> call;
    std::string log;  // the one line it must log
};

// Runs each operation: it fails, logs exactly its line at error level, and writes no out value.
void ExpectEachFailsWithItsLine(const std::vector<Operation>& operations) {
    for (const auto& op : operations) {
        Logging::Capture capture;
        EXPECT_LT(op.call(), 0) << op.name;
        ASSERT_EQ(capture.Lines().size(), 1u) << op.name;
        EXPECT_EQ(capture.Lines()[0].text, op.log) << op.name;
        EXPECT_EQ(capture.Lines()[0].priority, LOG_ERR) << op.name;
    }
}

}  // namespace

TEST(AbsentPeers, TheHarnessRunsWithoutThem) {
    ASSERT_TRUE(TestSupport::InHarness());
    sd_bus_message* reply = nullptr;
    for (const char* name : {Settingsd::kService, Networkd::kService, Pylond::kService}) {
        ASSERT_GE(
            TestSupport::CallMethod(TestSupport::Bus::User, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                    "org.freedesktop.DBus", "NameHasOwner", &reply, "s", name),
            0);
        int owned = 1;
        sd_bus_message_read(reply, "b", &owned);
        sd_bus_message_unref(reply);
        EXPECT_FALSE(owned) << name;
    }
}

TEST(AbsentPeers, ListeningNeedsNoPeer) {
    // subscriptions name the peers' well-known names; they wait for the peers to appear
    sd_event* loop = nullptr;
    ASSERT_GE(sd_event_new(&loop), 0);
    {
        Logging::Capture capture;
        SettingsDaemonDbusHandler settings(loop);
        NetworkDaemonDbusHandler network(loop);
        PylonDaemonDbusHandler power(loop);
        EXPECT_EQ(settings.Listen(), 0);
        EXPECT_EQ(network.Listen(), 0);
        EXPECT_EQ(power.Listen(), 0);
        EXPECT_TRUE(capture.Lines().empty());
    }
    sd_event_unref(loop);
}

TEST(AbsentSettingsDaemon, EveryReaderReturnsItsSafeDefaultAndLogsTwice) {
    Logging::Capture capture;
    EXPECT_EQ(SettingsDaemonDbusHandler::AdvertSchema(), 3u);
    EXPECT_EQ(SettingsDaemonDbusHandler::AutoScanRateSecs(), 10u);
    EXPECT_TRUE(SettingsDaemonDbusHandler::AdvertisingEnabled());
    EXPECT_TRUE(SettingsDaemonDbusHandler::AutoScanEnabled());
    EXPECT_TRUE(SettingsDaemonDbusHandler::Pairable());
    EXPECT_TRUE(SettingsDaemonDbusHandler::Powered());
    EXPECT_FALSE(SettingsDaemonDbusHandler::Discoverable());
    EXPECT_FALSE(SettingsDaemonDbusHandler::SystemCallDebug());
    std::vector<std::string> expected;
    const std::pair<const char*, int> keys[] = {
        {"advertSchema", 3}, {"autoScanRateSecs", 10}, {"advertisingEnabled", 1}, {"autoScanEnabled", 1},
        {"pairable", 1},     {"powered", 1},           {"discoverable", 0},       {"systemCallDebug", 0}};
    for (const auto& [key, safe] : keys) {
        expected.push_back(
            "int32_t Settingsd::SettingsDaemonDbusHandler::GetSetting(const std::string&, const "
            "std::string&, T&): "
            "ERROR sdbus_utils::GetProperty " +
            std::string(key) + " failed " + NotProvided(Settingsd::kService));
        expected.push_back("GetBluetoothSetting: Cannot get setting '" + std::string(key) +
                           "', setting to safe default: " + std::to_string(safe));
    }
    EXPECT_EQ(capture.Texts(), expected);
    for (const auto& line : capture.Lines())
        EXPECT_EQ(line.priority, LOG_ERR);
}

TEST(AbsentSettingsDaemon, SectionReadsAndResetsFailWithTheirLines) {
    sdbus_utils::TypedPropertyMap settings;
    std::string text = "unchanged";
    ExpectEachFailsWithItsLine({
        {"GetSetting", [&] { return SettingsDaemonDbusHandler::GetSetting("display", "brightness", text); },
         "int32_t Settingsd::SettingsDaemonDbusHandler::GetSetting(const std::string&, const std::string&, "
         "T&): "
         "ERROR sdbus_utils::GetProperty brightness failed " +
             NotProvided(Settingsd::kService)},
        {"GetSectionSettings",
         [&] { return SettingsDaemonDbusHandler::GetSectionSettings("bluetooth", settings); },
         "static int32_t Settingsd::SettingsDaemonDbusHandler::GetSectionSettings(const std::string&, "
         "sdbus_utils::TypedPropertyMap&): ERROR sdbus_utils::GetAllProperties bluetooth failed " +
             NotProvided(Settingsd::kService)},
    });
    EXPECT_EQ(text, "unchanged");
    EXPECT_TRUE(settings.empty());

    struct Reset {
        std::function<int()> call;
        std::string signature;
    };
    const Reset resets[] = {
        {[] { return SettingsDaemonDbusHandler::ResetToDefaults(true); },
         "static int32_t Settingsd::SettingsDaemonDbusHandler::ResetToDefaults(bool)"},
        {[] { return SettingsDaemonDbusHandler::ResetSection("bluetooth"); },
         "static int32_t Settingsd::SettingsDaemonDbusHandler::ResetSection(const std::string&)"},
        {[] { return SettingsDaemonDbusHandler::ResetSetting("bluetooth", "powered"); },
         "static int32_t Settingsd::SettingsDaemonDbusHandler::ResetSetting(const std::string&, const "
         "std::string&)"},
    };
    for (const auto& reset : resets) {
        Logging::Capture capture;
        const int r = reset.call();
        EXPECT_LT(r, 0);
        ASSERT_EQ(capture.Lines().size(), 2u) << reset.signature;
        EXPECT_EQ(capture.Lines()[0].text, reset.signature);
        EXPECT_EQ(capture.Lines()[0].priority, LOG_INFO);
        EXPECT_EQ(capture.Lines()[1].text,
                  reset.signature + ":sd_bus_call_method call failed (r = " + std::to_string(r) + ")");
        EXPECT_EQ(capture.Lines()[1].priority, LOG_ERR);
    }
}

TEST(AbsentNetworkDaemon, EveryOperationFailsWithItsLine) {
    using N = NetworkDaemonDbusHandler;
    const std::string failed = " failed " + NotProvided(Networkd::kService);
    std::string text = "unchanged";
    uint32_t number = 77;
    bool flag = true;
    std::vector<std::string> frequencies{"kept"};
    std::vector<Networkd::AccessPoint> aps(1);
    sdbus_utils::TypedPropertyMap properties;
    auto get = [&](const char* signature, const char* word) {
        return std::string(signature) + ": sdbus_utils::GetProperty QUORBEL_NETMAN_PROP_" + word + failed;
    };
    auto set = [&](const char* signature, const char* word) {
        return std::string(signature) + ": sdbus_utils::SetProperty QUORBEL_NETMAN_PROP_" + word + failed;
    };
    auto method = [](const char* signature, const char* word) {
        return std::string(signature) + ": sd_bus_call_method QUORBEL_NETMAN_METHOD_" + word + " failed";
    };
    ExpectEachFailsWithItsLine({
        {"GetAllNetworkProperties", [&] { return N::GetAllNetworkProperties(properties); },
         "static int "
         "Networkd::NetworkDaemonDbusHandler::GetAllNetworkProperties(sdbus_utils::TypedPropertyMap&): "
         "sdbus_utils::GetAllProperties failed " +
             NotProvided(Networkd::kService)},
        {"Scan", [] { return N::Scan(); },
         method("static int Networkd::NetworkDaemonDbusHandler::Scan()", "SCAN")},
        {"Connect", [] { return N::Connect("ap", "secret"); },
         method(
             "static int Networkd::NetworkDaemonDbusHandler::Connect(const std::string&, const std::string&)",
             "CONNECT")},
        {"Disconnect", [] { return N::Disconnect(); },
         method("static int Networkd::NetworkDaemonDbusHandler::Disconnect()", "DISCONNECT")},
        {"SetMode", [] { return N::SetMode("ap"); },
         set("static int Networkd::NetworkDaemonDbusHandler::SetMode(const std::string&)", "MODE")},
        {"GetMode", [&] { return N::GetMode(text); },
         get("static int Networkd::NetworkDaemonDbusHandler::GetMode(std::string&)", "MODE")},
        {"SetSSID", [] { return N::SetSSID("x"); },
         set("static int Networkd::NetworkDaemonDbusHandler::SetSSID(const std::string&)", "SSID")},
        {"GetSSID", [&] { return N::GetSSID(text); },
         get("static int Networkd::NetworkDaemonDbusHandler::GetSSID(std::string&)", "SSID")},
        {"SetFrequency", [] { return N::SetFrequency("5.0"); },
         set("static int Networkd::NetworkDaemonDbusHandler::SetFrequency(const std::string&)", "FREQ")},
        {"GetFrequency", [&] { return N::GetFrequency(text); },
         get("static int Networkd::NetworkDaemonDbusHandler::GetFrequency(std::string&)", "FREQ")},
        {"GetAvailableFrequencies", [&] { return N::GetAvailableFrequencies(frequencies); },
         get("static int "
             "Networkd::NetworkDaemonDbusHandler::GetAvailableFrequencies(std::vector<std::string>&)",
             "AV_FREQS")},
        {"GetClients", [&] { return N::GetClients(number); },
         get("static int Networkd::NetworkDaemonDbusHandler::GetClients(uint32_t&)", "CLIENTS")},
        {"GetIpAddress", [&] { return N::GetIpAddress(text); },
         get("static int Networkd::NetworkDaemonDbusHandler::GetIpAddress(std::string&)", "IP")},
        {"GetMacAddress", [&] { return N::GetMacAddress(text); },
         get("static int Networkd::NetworkDaemonDbusHandler::GetMacAddress(std::string&)", "MAC")},
        {"GetSignal", [&] { return N::GetSignal(number); },
         get("static int Networkd::NetworkDaemonDbusHandler::GetSignal(uint32_t&)", "SIG")},
        {"GetClientState", [&] { return N::GetClientState(number); },
         get("static int Networkd::NetworkDaemonDbusHandler::GetClientState(uint32_t&)", "CLIENT_STATE")},
        // the client SSID logs with the SSID word and the access point flag with the STATE word: kept
        {"GetClientSSID", [&] { return N::GetClientSSID(text); },
         get("static int Networkd::NetworkDaemonDbusHandler::GetClientSSID(std::string&)", "SSID")},
        {"SetPower", [] { return N::SetPower(1); },
         set("static int Networkd::NetworkDaemonDbusHandler::SetPower(uint32_t)", "STATE")},
        {"GetPower", [&] { return N::GetPower(number); },
         get("static int Networkd::NetworkDaemonDbusHandler::GetPower(uint32_t&)", "STATE")},
        {"GetAccessPointInitialised", [&] { return N::GetAccessPointInitialised(flag); },
         get("static int Networkd::NetworkDaemonDbusHandler::GetAccessPointInitialised(bool&)", "STATE")},
        {"GetAccessPoints", [&] { return N::GetAccessPoints(aps); },
         get("static int Networkd::NetworkDaemonDbusHandler::GetAccessPoints(std::vector<AccessPoint>&)",
             "ACCESS_POINTS")},
    });
    EXPECT_EQ(text, "unchanged");
    EXPECT_EQ(number, 77u);
    EXPECT_TRUE(flag);
    EXPECT_EQ(frequencies, std::vector<std::string>{"kept"});
    EXPECT_EQ(aps.size(), 1u);
    EXPECT_TRUE(properties.empty());
}

TEST(AbsentPowerDaemon, EveryOperationFailsWithItsLine) {
    using P = PylonDaemonDbusHandler;
    const std::string failed = " failed " + NotProvided(Pylond::kService);
    int32_t i32 = 5;
    uint32_t u32 = 77;
    bool flag = true;
    std::string text = "unchanged";
    std::vector<int32_t> ints{9};
    std::vector<uint32_t> uints{9};
    Pylond::BatteryLevelIcons icons;
    std::array<bool, 6> states{};
    sdbus_utils::TypedPropertyMap properties;
    auto get = [&](const char* signature, const char* macro) {
        return std::string(signature) + ": sdbus_utils::GetProperty " + macro + failed;
    };
    auto set = [&](const char* signature, const char* macro) {
        return std::string(signature) + ": sdbus_utils::SetProperty " + macro + failed;
    };
    auto method = [](const char* signature, const char* macro) {
        return std::string(signature) + ": sd_bus_call_method " + macro + " failed";
    };
    const char* P_ = "static int Pylond::PylonDaemonDbusHandler::";
    auto sig = [&](const char* rest) { return std::string(P_) + rest; };
    ExpectEachFailsWithItsLine({
        {"GetAllPowerProperties local", [&] { return P::GetAllPowerProperties(false, properties); },
         sig("GetAllPowerProperties(bool, sdbus_utils::TypedPropertyMap&): sdbus_utils::GetAllProperties "
             "failed ") +
             NotProvided(Pylond::kService)},
        {"GetAllPowerProperties remote", [&] { return P::GetAllPowerProperties(true, properties); },
         sig("GetAllPowerProperties(bool, sdbus_utils::TypedPropertyMap&): sdbus_utils::GetAllProperties "
             "failed ") +
             NotProvided(Pylond::kService)},
        {"GetPowerSource", [&] { return P::GetPowerSource(i32); },
         get(sig("GetPowerSource(int32_t&, bool)").c_str(), "POWER_PROP_ACTIVE_POWER_SOURCE")},
        {"GetPowerSource remote", [&] { return P::GetPowerSource(i32, true); },
         get(sig("GetPowerSource(int32_t&, bool)").c_str(), "POWER_PROP_ACTIVE_POWER_SOURCE")},
        {"ReadBatteryVoltages", [&] { return P::ReadBatteryVoltages(ints); },
         get(sig("ReadBatteryVoltages(std::vector<int32_t>&, bool)").c_str(), "POWER_PROP_BATTERY_VOLTAGES")},
        {"ReadBatteryChargePercentages", [&] { return P::ReadBatteryChargePercentages(ints); },
         get(sig("ReadBatteryChargePercentages(std::vector<int32_t>&, bool)").c_str(),
             "POWER_PROP_BATTERY_CHARGE_PERCENTAGES")},
        {"GetBatteryTypes", [&] { return P::GetBatteryTypes(uints); },
         get(sig("GetBatteryTypes(std::vector<uint32_t>&, bool)").c_str(), "POWER_PROP_BATTERY_TYPES")},
        {"GetSystemPowerLevel", [&] { return P::GetSystemPowerLevel(u32); },
         get(sig("GetSystemPowerLevel(uint32_t&, bool)").c_str(), "POWER_PROP_SYSTEM_POWER_LEVEL")},
        {"GetBatteryDrainMode", [&] { return P::GetBatteryDrainMode(u32); },
         get(sig("GetBatteryDrainMode(uint32_t&, bool)").c_str(), "POWER_PROP_BATTERY_DRAIN_MODE")},
        {"SetBatteryDrainMode", [] { return P::SetBatteryDrainMode(1); },
         set(sig("SetBatteryDrainMode(uint32_t, bool)").c_str(), "POWER_PROP_BATTERY_DRAIN_MODE")},
        {"GetLowBatteryWarnings", [&] { return P::GetLowBatteryWarnings(flag); },
         get(sig("GetLowBatteryWarnings(bool&, bool)").c_str(), "POWER_PROP_LOW_BATTERY_WARNINGS")},
        {"GetPermittedActions", [&] { return P::GetPermittedActions(u32); },
         get(sig("GetPermittedActions(uint32_t&, bool)").c_str(), "POWER_PROP_PERMITTED_ACTIONS")},
        {"GetBatteryLevelIcons", [&] { return P::GetBatteryLevelIcons(icons); },
         get(sig("GetBatteryLevelIcons(BatteryLevelIcons&, bool)").c_str(),
             "POWER_PROP_BATTERY_LEVEL_ICONS")},
        {"GetBatteryInfo", [&] { return P::GetBatteryInfo(0, text); },
         method(sig("GetBatteryInfo(uint32_t, std::string&, bool)").c_str(),
                "POWER_METHOD_GET_BATTERY_INFO")},
        {"RequestGetBatteryData", [] { return P::RequestGetBatteryData(); },
         method(sig("RequestGetBatteryData(bool)").c_str(), "POWER_METHOD_REQUEST_BATTERY_DATA")},
        {"GetPowerSufficientForAction", [&] { return P::GetPowerSufficientForAction(1, flag); },
         method(sig("GetPowerSufficientForAction(uint32_t, bool&, bool)").c_str(),
                "POWER_METHOD_GET_POWER_SUFFICIENT_FOR_ACTION")},
        {"GetBatteryUpdateState", [&] { return P::GetBatteryUpdateState(u32); },
         method(sig("GetBatteryUpdateState(uint32_t&, bool)").c_str(),
                "POWER_METHOD_GET_BATTERY_UPDATE_STATE")},
        {"GetBatteryUpdateDirection", [&] { return P::GetBatteryUpdateDirection(u32); },
         method(sig("GetBatteryUpdateDirection(uint32_t&, bool)").c_str(),
                "POWER_METHOD_GET_BATTERY_UPDATE_DIRECTION")},
        {"SetPowerState", [] { return P::SetPowerState(1, 0); },
         method(sig("SetPowerState(int32_t, int32_t)").c_str(), "CONTROL_METHOD_SET_POWER_STATE")},
        {"GetPowerStates", [&] { return P::GetPowerStates(states); },
         method(sig("GetPowerStates(std::array<bool, 6>&)").c_str(), "CONTROL_METHOD_GET_POWER_STATES")},
        {"SetLedState", [] { return P::SetLedState(1, 1); },
         method(sig("SetLedState(uint32_t, uint32_t)").c_str(), "CONTROL_METHOD_SET_LED_STATE")},
        {"BeepBuzzer", [] { return P::BeepBuzzer(1, 1, 1); },
         method(sig("BeepBuzzer(uint32_t, uint32_t, uint32_t)").c_str(), "CONTROL_METHOD_BEEP_BUZZER")},
        {"SetRemote", [] { return P::SetRemote("10.0.0.2", "tcp:host=10.0.0.2"); },
         method(sig("SetRemote(const std::string&, const std::string&)").c_str(),
                "CONTROL_METHOD_SET_REMOTE")},
        {"SetLocal", [] { return P::SetLocal(); },
         method(sig("SetLocal()").c_str(), "CONTROL_METHOD_SET_LOCAL")},
        {"GetRemoteIP", [&] { return P::GetRemoteIP(text); },
         get(sig("GetRemoteIP(std::string&)").c_str(), "CONTROL_PROP_REMOTE_IP")},
        {"GetRemoteDbusAddr", [&] { return P::GetRemoteDbusAddr(text); },
         get(sig("GetRemoteDbusAddr(std::string&)").c_str(), "CONTROL_PROP_REMOTE_DBUS_ADDRESS")},
        {"GetPropVideoStatus", [&] { return P::GetPropVideoStatus(u32); },
         get(sig("GetPropVideoStatus(uint32_t&)").c_str(), "CONTROL_PROP_VIDEO_STATUS")},
        {"GetVideoStatus", [&] { return P::GetVideoStatus(u32); },
         method(sig("GetVideoStatus(uint32_t&)").c_str(), "CONTROL_METHOD_GET_VIDEO_STATUS")},
        {"GetPylonSwVersion", [&] { return P::GetPylonSwVersion(text); },
         method(sig("GetPylonSwVersion(std::string&)").c_str(), "CONTROL_METHOD_GET_PYLON_SW_VERSION")},
        {"GetPylonHwVersion", [&] { return P::GetPylonHwVersion(text); },
         method(sig("GetPylonHwVersion(std::string&)").c_str(), "CONTROL_METHOD_GET_PYLON_HW_VERSION")},
        {"GetKeypadPicVersion", [&] { return P::GetKeypadPicVersion(text); },
         method(sig("GetKeypadPicVersion(std::string&)").c_str(), "CONTROL_METHOD_GET_KEYPAD_PIC_VERSION")},
        {"GetCpuTemp", [&] { return P::GetCpuTemp(i32); },
         get(sig("GetCpuTemp(int32_t&)").c_str(), "COOLING_PROP_CPU_TEMP")},
        {"GetFanSpeed", [&] { return P::GetFanSpeed(u32); },
         get(sig("GetFanSpeed(uint32_t&)").c_str(), "COOLING_PROP_FAN_SPEED")},
        {"GetFanCtrlMode", [&] { return P::GetFanCtrlMode(u32); },
         get(sig("GetFanCtrlMode(uint32_t&)").c_str(), "COOLING_PROP_FAN_CTRL_MODE")},
        {"SetFanCtrlMode", [] { return P::SetFanCtrlMode(1); },
         set(sig("SetFanCtrlMode(uint32_t)").c_str(), "COOLING_PROP_FAN_CTRL_MODE")},
        {"GetManualFanSpeed", [&] { return P::GetManualFanSpeed(u32); },
         get(sig("GetManualFanSpeed(uint32_t&)").c_str(), "COOLING_PROP_MANUAL_FAN_SPEED")},
        {"SetManualFanSpeed", [] { return P::SetManualFanSpeed(1); },
         set(sig("SetManualFanSpeed(uint32_t)").c_str(), "COOLING_PROP_MANUAL_FAN_SPEED")},
        {"GetFanCtrlRangeMinTemp", [&] { return P::GetFanCtrlRangeMinTemp(i32); },
         get(sig("GetFanCtrlRangeMinTemp(int32_t&)").c_str(), "COOLING_PROP_FAN_CTRL_RANGE_MIN_TEMP")},
        {"SetFanCtrlRangeMinTemp", [] { return P::SetFanCtrlRangeMinTemp(1); },
         set(sig("SetFanCtrlRangeMinTemp(int32_t)").c_str(), "COOLING_PROP_FAN_CTRL_RANGE_MIN_TEMP")},
        {"GetFanCtrlRangeMaxTemp", [&] { return P::GetFanCtrlRangeMaxTemp(i32); },
         get(sig("GetFanCtrlRangeMaxTemp(int32_t&)").c_str(), "COOLING_PROP_FAN_CTRL_RANGE_MAX_TEMP")},
        {"SetFanCtrlRangeMaxTemp", [] { return P::SetFanCtrlRangeMaxTemp(1); },
         set(sig("SetFanCtrlRangeMaxTemp(int32_t)").c_str(), "COOLING_PROP_FAN_CTRL_RANGE_MAX_TEMP")},
        {"GetCpuTempAvgPeriod", [&] { return P::GetCpuTempAvgPeriod(u32); },
         get(sig("GetCpuTempAvgPeriod(uint32_t&)").c_str(), "COOLING_PROP_CPU_TEMP_AVG_PERIOD")},
        {"SetCpuTempAvgPeriod", [] { return P::SetCpuTempAvgPeriod(1); },
         set(sig("SetCpuTempAvgPeriod(uint32_t)").c_str(), "COOLING_PROP_CPU_TEMP_AVG_PERIOD")},
        {"GetEmitStatusChanges", [&] { return P::GetEmitStatusChanges(flag); },
         get(sig("GetEmitStatusChanges(bool&)").c_str(), "COOLING_PROP_EMIT_STATUS_CHANGES")},
        {"SetEmitStatusChanges", [] { return P::SetEmitStatusChanges(false); },
         set(sig("SetEmitStatusChanges(bool)").c_str(), "COOLING_PROP_EMIT_STATUS_CHANGES")},
    });
    EXPECT_EQ(i32, 5);
    EXPECT_EQ(u32, 77u);
    EXPECT_TRUE(flag);
    EXPECT_EQ(text, "unchanged");
    EXPECT_EQ(ints, std::vector<int32_t>{9});
    EXPECT_EQ(uints, std::vector<uint32_t>{9});
    EXPECT_TRUE(std::get<0>(icons).empty());
    EXPECT_EQ(states, (std::array<bool, 6>{}));
    EXPECT_TRUE(properties.empty());
}
