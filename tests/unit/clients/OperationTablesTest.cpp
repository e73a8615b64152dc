// The clients' operation tables: every row in its client's shape, and the words of a few rows spelled out,
// so that a slip in a table shows here and not only in the lines the other tests build from it.
#include <gtest/gtest.h>

#include <iterator>
#include <set>
#include <stdexcept>
#include <string>

#include "clients/NetworkOperations.h"
#include "clients/PylonOperations.h"
#include "clients/SettingsOperations.h"
#include "test_support/OperationLines.h"

using ClientsTest::FailureLine;
using SiblingCall::Find;
using SiblingCall::Kind;
using SiblingCall::Operation;

namespace {

bool StartsWith(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

// What every table holds to: unique names and where-texts, each where-text "<prefix><name>(...)", the
// client's service, and a member for all but the GetAll reads.
template <size_t N>
void ExpectRowsOfTheClient(const Operation (&table)[N], const std::string& prefix, const char* service) {
    std::set<std::string> names;
    std::set<std::string> wheres;
    for (const auto& op : table) {
        const std::string where = op.where;
        EXPECT_TRUE(names.insert(op.name).second) << op.name;
        EXPECT_TRUE(wheres.insert(where).second) << where;
        EXPECT_TRUE(StartsWith(where, prefix + op.name + "(")) << where;
        EXPECT_EQ(where.back(), ')') << where;
        EXPECT_STREQ(op.service, service) << op.name;
        EXPECT_EQ(std::string(op.member).empty(), op.kind == Kind::GetAll) << op.name;
    }
}

// Property rows name a "<base>PROP_" macro, method rows a "<base>METHOD_" one, GetAll rows none.
void ExpectMacroOf(const Operation& op, const std::string& base) {
    const std::string macro = op.macro;
    switch (op.kind) {
        case Kind::PropertyGet:
        case Kind::PropertySet:
            EXPECT_TRUE(StartsWith(macro, base + "PROP_")) << op.name << " " << macro;
            break;
        case Kind::Method:
            EXPECT_TRUE(StartsWith(macro, base + "METHOD_")) << op.name << " " << macro;
            break;
        case Kind::GetAll:
            EXPECT_EQ(macro, "") << op.name;
            break;
    }
}

// Row `name` of `table` calls `member` and, failing with the error "X", logs `line`.
template <size_t N>
void ExpectRowSpelledOut(const Operation (&table)[N], const char* name, const char* member,
                         const std::string& line) {
    const Operation& op = Find(table, name);
    EXPECT_STREQ(op.member, member) << name;
    EXPECT_EQ(FailureLine(op, "X"), line) << name;
}

}  // namespace

TEST(OperationTable, AnUnknownNameIsNotFound) {
    EXPECT_THROW(Find(Networkd::kOperations, "NoSuchOperation"), std::out_of_range);
    EXPECT_EQ(SiblingCall::IndexOf(Networkd::kOperations, "GetAllNetworkProperties"), 0u);
    EXPECT_STREQ(Find(Pylond::kOperations, "SetLocal").name, "SetLocal");
}

// -------------------------------------------------------------------------------------------- network

TEST(NetworkOperationTable, EveryRowHasTheClientsShape) {
    EXPECT_EQ(std::size(Networkd::kOperations), 21u);
    ExpectRowsOfTheClient(Networkd::kOperations,
                          "static int Networkd::NetworkDaemonDbusHandler::", Networkd::kService);
    for (const auto& op : Networkd::kOperations) {
        ExpectMacroOf(op, "QUORBEL_NETMAN_");
        EXPECT_STREQ(op.path, Networkd::kObjectPath) << op.name;
        EXPECT_EQ(op.remotePath, nullptr) << op.name;
        EXPECT_STREQ(op.interface, Networkd::kInterface) << op.name;
    }
}

TEST(NetworkOperationTable, SomeRowsSpelledOut) {
    const auto& table = Networkd::kOperations;
    ExpectRowSpelledOut(table, "GetSSID", "SSID",
                        "static int Networkd::NetworkDaemonDbusHandler::GetSSID(std::string&): "
                        "sdbus_utils::GetProperty QUORBEL_NETMAN_PROP_SSID failed X");
    // the client SSID logs with the SSID word and the access point flag with the STATE word
    ExpectRowSpelledOut(table, "GetClientSSID", "ClientSSID",
                        "static int Networkd::NetworkDaemonDbusHandler::GetClientSSID(std::string&): "
                        "sdbus_utils::GetProperty QUORBEL_NETMAN_PROP_SSID failed X");
    ExpectRowSpelledOut(table, "GetAccessPointInitialised", "WiFiAccessPointInitialised",
                        "static int Networkd::NetworkDaemonDbusHandler::GetAccessPointInitialised(bool&): "
                        "sdbus_utils::GetProperty QUORBEL_NETMAN_PROP_STATE failed X");
    ExpectRowSpelledOut(table, "SetFrequency", "WiFiFrequency",
                        "static int Networkd::NetworkDaemonDbusHandler::SetFrequency(const std::string&): "
                        "sdbus_utils::SetProperty QUORBEL_NETMAN_PROP_FREQ failed X");
    ExpectRowSpelledOut(table, "Connect", "Connect",
                        "static int Networkd::NetworkDaemonDbusHandler::Connect(const std::string&, const "
                        "std::string&): sd_bus_call_method QUORBEL_NETMAN_METHOD_CONNECT failed");
    ExpectRowSpelledOut(table, "GetAllNetworkProperties", "",
                        "static int Networkd::NetworkDaemonDbusHandler::GetAllNetworkProperties("
                        "sdbus_utils::TypedPropertyMap&): sdbus_utils::GetAllProperties failed X");
}

// ---------------------------------------------------------------------------------------------- power

TEST(PylonOperationTable, EveryRowHasTheClientsShape) {
    EXPECT_EQ(std::size(Pylond::kOperations), 43u);
    ExpectRowsOfTheClient(Pylond::kOperations,
                          "static int Pylond::PylonDaemonDbusHandler::", Pylond::kService);
    for (const auto& op : Pylond::kOperations) {
        const std::string interface = op.interface;
        if (interface == Pylond::kPowerInterface) {
            ExpectMacroOf(op, "POWER_");
            // the caller picks the local or the remote power object
            EXPECT_STREQ(op.path, Pylond::kPowerPath) << op.name;
            EXPECT_STREQ(op.remotePath, Pylond::kRemotePowerPath) << op.name;
            EXPECT_STREQ(op.Path(false), Pylond::kPowerPath) << op.name;
            EXPECT_STREQ(op.Path(true), Pylond::kRemotePowerPath) << op.name;
            EXPECT_TRUE(std::string(op.where).find("bool") != std::string::npos) << op.where;
        } else if (interface == Pylond::kControlInterface) {
            ExpectMacroOf(op, "CONTROL_");
            EXPECT_STREQ(op.path, Pylond::kObjectPath) << op.name;
            EXPECT_EQ(op.remotePath, nullptr) << op.name;
        } else if (interface == Pylond::kCoolingInterface) {
            ExpectMacroOf(op, "COOLING_");
            EXPECT_STREQ(op.path, Pylond::kCoolingPath) << op.name;
            EXPECT_EQ(op.remotePath, nullptr) << op.name;
        } else {
            ADD_FAILURE() << op.name << " on " << interface;
        }
    }
}

TEST(PylonOperationTable, SomeRowsSpelledOut) {
    const auto& table = Pylond::kOperations;
    ExpectRowSpelledOut(table, "GetPowerSource", "ActivePowerSource",
                        "static int Pylond::PylonDaemonDbusHandler::GetPowerSource(int32_t&, bool): "
                        "sdbus_utils::GetProperty POWER_PROP_ACTIVE_POWER_SOURCE failed X");
    ExpectRowSpelledOut(table, "RequestGetBatteryData", "RequestBatteryData",
                        "static int Pylond::PylonDaemonDbusHandler::RequestGetBatteryData(bool): "
                        "sd_bus_call_method POWER_METHOD_REQUEST_BATTERY_DATA failed");
    ExpectRowSpelledOut(
        table, "BeepBuzzer", "BeepBuzzer",
        "static int Pylond::PylonDaemonDbusHandler::BeepBuzzer(uint32_t, uint32_t, uint32_t): "
        "sd_bus_call_method CONTROL_METHOD_BEEP_BUZZER failed");
    ExpectRowSpelledOut(table, "GetRemoteDbusAddr", "RemoteDBusAddress",
                        "static int Pylond::PylonDaemonDbusHandler::GetRemoteDbusAddr(std::string&): "
                        "sdbus_utils::GetProperty CONTROL_PROP_REMOTE_DBUS_ADDRESS failed X");
    ExpectRowSpelledOut(table, "SetFanCtrlRangeMinTemp", "FanCtrlRangeMinTemp",
                        "static int Pylond::PylonDaemonDbusHandler::SetFanCtrlRangeMinTemp(int32_t): "
                        "sdbus_utils::SetProperty COOLING_PROP_FAN_CTRL_RANGE_MIN_TEMP failed X");
    ExpectRowSpelledOut(table, "GetAllPowerProperties", "",
                        "static int Pylond::PylonDaemonDbusHandler::GetAllPowerProperties(bool, "
                        "sdbus_utils::TypedPropertyMap&): sdbus_utils::GetAllProperties failed X");
}

// ------------------------------------------------------------------------------------------- settings

TEST(SettingsOperationTable, EveryRowHasTheClientsShape) {
    EXPECT_EQ(std::size(Settingsd::kOperations), 4u);
    ExpectRowsOfTheClient(Settingsd::kOperations,
                          "static int32_t Settingsd::SettingsDaemonDbusHandler::", Settingsd::kService);
    for (const auto& op : Settingsd::kOperations) {
        // the settings daemon's own failure lines name no macro
        EXPECT_STREQ(op.macro, "") << op.name;
        EXPECT_STREQ(op.path, Settingsd::kObjectPath) << op.name;
        EXPECT_EQ(op.remotePath, nullptr) << op.name;
        EXPECT_STREQ(op.interface, Settingsd::kInterface) << op.name;
        EXPECT_TRUE(op.kind == Kind::Method || op.kind == Kind::GetAll) << op.name;
    }
}

TEST(SettingsOperationTable, SomeRowsSpelledOut) {
    const Operation& reset = Find(Settingsd::kOperations, "ResetSetting");
    EXPECT_STREQ(
        reset.where,
        "static int32_t Settingsd::SettingsDaemonDbusHandler::ResetSetting(const std::string&, const "
        "std::string&)");
    EXPECT_STREQ(reset.member, "ResetSetting");
    EXPECT_EQ(reset.kind, Kind::Method);
    const Operation& section = Find(Settingsd::kOperations, "GetSectionSettings");
    EXPECT_STREQ(
        section.where,
        "static int32_t Settingsd::SettingsDaemonDbusHandler::GetSectionSettings(const std::string&, "
        "sdbus_utils::TypedPropertyMap&)");
    EXPECT_EQ(section.kind, Kind::GetAll);
}
