// The three sibling-daemon clients against the simulated settings, network and power daemons.
#include <gtest/gtest.h>

#include <algorithm>
#include <any>
#include <array>
#include <string>
#include <vector>

#include "clients/NetworkDaemonDbusHandler.h"
#include "clients/NetworkOperations.h"
#include "clients/PylonDaemonDbusHandler.h"
#include "clients/PylonOperations.h"
#include "clients/SettingsDaemonDbusHandler.h"
#include "clients/SettingsOperations.h"
#include "logging/Log.h"
#include "test_support/BusKit.h"
#include "test_support/LoopHelpers.h"
#include "test_support/SimControl.h"
#include "test_support/TestEnv.h"

using Networkd::NetworkDaemonDbusHandler;
using Pylond::PylonDaemonDbusHandler;
using sdbus_utils::TypedPropertyMap;
using Settingsd::SettingsDaemonDbusHandler;
using namespace SimControl;

namespace {

constexpr const char* kBluetoothPath = "/com/quorbel/common/Settings1/bluetooth";
constexpr const char* kSettingsChanged =
    "static int32_t Settingsd::SettingsDaemonDbusHandler::PropertiesChanged(sd_bus_message*, void*, "
    "sd_bus_error*)";

struct Sink {
    std::vector<TypedPropertyMap> maps;
    void operator()(TypedPropertyMap& map) { maps.push_back(map); }
};

template <typename T>
T Value(const TypedPropertyMap& map, const std::string& key, const std::string& signature) {
    const auto it = map.find(key);
    if (it == map.end()) {
        ADD_FAILURE() << "no " << key;
        return T{};
    }
    EXPECT_EQ(it->second.first, signature) << key;
    return std::any_cast<T>(it->second.second);
}

// The calls dbusmock recorded for `method` on `path`: how many.
size_t CallsOf(const char* destination, const char* path, const char* method) {
    DbusHelper::Message reply;
    if (TestSupport::CallForReply(TestSupport::Bus::User, destination, path, kMock, "GetMethodCalls", reply,
                                  "s", method) < 0)
        return 0;
    size_t n = 0;
    sd_bus_message_enter_container(reply.get(), 'a', "(tav)");
    while (sd_bus_message_skip(reply.get(), "(tav)") > 0)
        ++n;
    return n;
}

// The calls dbusmock recorded for the method of `row` on its (local) object.
size_t CallsOf(const SiblingCall::Operation& row) {
    return CallsOf(row.service, row.path, row.member);
}

// CallsOf() every method row of `table` (0 for the other rows).
template <size_t N>
std::vector<size_t> MethodCalls(const SiblingCall::Operation (&table)[N]) {
    std::vector<size_t> calls;
    for (const auto& row : table)
        calls.push_back(row.kind == SiblingCall::Kind::Method ? CallsOf(row) : 0);
    return calls;
}

// Every method row of `table` was called on the simulated daemon since `before` (MethodCalls()).
template <size_t N>
void ExpectEveryMethodRowCalledSince(const SiblingCall::Operation (&table)[N],
                                     const std::vector<size_t>& before) {
    const std::vector<size_t> after = MethodCalls(table);
    for (size_t i = 0; i < N; ++i) {
        if (table[i].kind == SiblingCall::Kind::Method) {
            EXPECT_GT(after[i], before[i]) << table[i].name;
        }
    }
}

// Every property row of `table` names a property that its object (each of its objects) has on the simulated
// daemon, with the interface of the row.
template <size_t N>
void ExpectEveryPropertyRowOnTheSimulation(const SiblingCall::Operation (&table)[N]) {
    for (const auto& row : table) {
        if (row.kind != SiblingCall::Kind::PropertyGet && row.kind != SiblingCall::Kind::PropertySet)
            continue;
        for (const char* path : {row.path, row.remotePath}) {
            if (path == nullptr)
                continue;
            EXPECT_GE(TestSupport::CallMethod(TestSupport::Bus::User, row.service, path,
                                              "org.freedesktop.DBus.Properties", "Get", nullptr, "ss",
                                              row.interface, row.member),
                      0)
                << row.name << " on " << path;
        }
    }
}

class Clients : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(TestSupport::InHarness());
        ASSERT_GE(ResetSettings(), 0);
        owned = BusKit::NewLoop();
        ASSERT_TRUE(owned);
        loop = owned.get();
    }
    void TearDown() override { ResetSettings(); }
    bool PumpUntil(const std::function<bool()>& condition) { return BusTest::PumpUntil(loop, condition); }
    void PumpFor(int ms) { BusTest::PumpFor(loop, std::chrono::milliseconds(ms)); }
    DbusHelper::Event owned;
    sd_event* loop = nullptr;
};

}  // namespace

// ------------------------------------------------------------------------------------------- settings

using SettingsClient = Clients;

TEST_F(SettingsClient, ListenSucceedsQuietly) {
    SettingsDaemonDbusHandler handler(loop);
    Logging::Capture capture;
    EXPECT_EQ(handler.Listen(), 0);
    EXPECT_TRUE(handler.IsConnected());
    EXPECT_TRUE(capture.Lines().empty());
}

TEST_F(SettingsClient, ABluetoothChangeReachesItsSubscriberWithOnlyTheChangedKeys) {
    SettingsDaemonDbusHandler handler(loop);
    Sink bluetooth;
    handler.SectionChanged("bluetooth").connect(sigc::mem_fun(bluetooth, &Sink::operator()));
    ASSERT_EQ(handler.Listen(), 0);
    ASSERT_GE(SetProp(kSettings, kBluetoothPath, "advertSchema", "u", 7u), 0);
    ASSERT_TRUE(PumpUntil([&] { return bluetooth.maps.size() == 1; }));
    ASSERT_GE(SetProp(kSettings, kBluetoothPath, "powered", "b", 0), 0);
    ASSERT_TRUE(PumpUntil([&] { return bluetooth.maps.size() == 2; }));
    ASSERT_EQ(bluetooth.maps[0].size(), 1u);
    EXPECT_EQ(Value<uint32_t>(bluetooth.maps[0], "advertSchema", "u"), 7u);
    ASSERT_EQ(bluetooth.maps[1].size(), 1u);
    EXPECT_FALSE(Value<bool>(bluetooth.maps[1], "powered", "b"));
}

TEST_F(SettingsClient, AChangeOfAnotherSectionReachesOnlyThatSection) {
    SettingsDaemonDbusHandler handler(loop);
    Sink bluetooth;
    Sink display;
    handler.SectionChanged("bluetooth").connect(sigc::mem_fun(bluetooth, &Sink::operator()));
    handler.SectionChanged("display").connect(sigc::mem_fun(display, &Sink::operator()));
    ASSERT_EQ(handler.Listen(), 0);
    ASSERT_GE(SetProp(kSettings, "/com/quorbel/common/Settings1/display", "brightness", "u", 20u), 0);
    ASSERT_TRUE(PumpUntil([&] { return display.maps.size() == 1; }));
    PumpFor(100);
    EXPECT_EQ(Value<uint32_t>(display.maps[0], "brightness", "u"), 20u);
    EXPECT_TRUE(bluetooth.maps.empty());
}

TEST_F(SettingsClient, APathEndingInASlashIsRejectedAsMalformed) {
    SettingsDaemonDbusHandler handler(loop);
    std::vector<Sink> sinks(Settingsd::kSections.size());
    for (size_t i = 0; i < sinks.size(); ++i)
        handler.SectionChanged(Settingsd::kSections[i]).connect(sigc::mem_fun(sinks[i], &Sink::operator()));
    ASSERT_EQ(handler.Listen(), 0);
    Logging::Capture capture;
    ASSERT_GE(
        EmitBoolChangeFrom(kSettings, kBluetoothPath, "/", "com.quorbel.common.Settings1", "powered", false),
        0);
    const std::string expected = std::string(kSettingsChanged) + ": Mallformed path string";
    ASSERT_TRUE(PumpUntil([&] { return capture.Contains(expected); }));
    EXPECT_EQ(capture.Count(expected, LOG_ERR), 1u);
    for (const auto& sink : sinks)
        EXPECT_TRUE(sink.maps.empty());
}

TEST_F(SettingsClient, ASectionWithoutTableEntryIsDroppedSilently) {
    SettingsDaemonDbusHandler handler(loop);
    std::vector<Sink> sinks(Settingsd::kSections.size());
    for (size_t i = 0; i < sinks.size(); ++i)
        handler.SectionChanged(Settingsd::kSections[i]).connect(sigc::mem_fun(sinks[i], &Sink::operator()));
    ASSERT_EQ(handler.Listen(), 0);
    Logging::Capture capture;
    ASSERT_GE(EmitBoolChangeFrom(kSettings, kBluetoothPath, "/com/quorbel/common/Settings1/nosuchsection",
                                 "com.quorbel.common.Settings1", "powered", false),
              0);
    // a marker behind it: once the marker is in, the unknown section's signal has been handled
    ASSERT_GE(SetProp(kSettings, kBluetoothPath, "pairable", "b", 0), 0);
    size_t total = 0;
    ASSERT_TRUE(PumpUntil([&] {
        total = 0;
        for (const auto& sink : sinks)
            total += sink.maps.size();
        return total > 0;
    }));
    PumpFor(100);
    total = 0;
    for (const auto& sink : sinks)
        total += sink.maps.size();
    EXPECT_EQ(total, 1u);
    const auto bluetooth = std::find(Settingsd::kSections.begin(), Settingsd::kSections.end(), "bluetooth") -
                           Settingsd::kSections.begin();
    ASSERT_EQ(sinks[bluetooth].maps.size(), 1u);
    EXPECT_EQ(sinks[bluetooth].maps[0].count("pairable"), 1u);
    EXPECT_TRUE(capture.Lines().empty());
}

TEST_F(SettingsClient, ReadersReturnTheStoredSettingsWithoutLogging) {
    Logging::Capture capture;
    EXPECT_EQ(SettingsDaemonDbusHandler::AdvertSchema(), 4u);
    EXPECT_EQ(SettingsDaemonDbusHandler::AutoScanRateSecs(), 30u);
    EXPECT_TRUE(SettingsDaemonDbusHandler::AdvertisingEnabled());
    EXPECT_TRUE(SettingsDaemonDbusHandler::AutoScanEnabled());
    EXPECT_TRUE(SettingsDaemonDbusHandler::Discoverable());
    EXPECT_TRUE(SettingsDaemonDbusHandler::Pairable());
    EXPECT_TRUE(SettingsDaemonDbusHandler::Powered());
    EXPECT_FALSE(SettingsDaemonDbusHandler::SystemCallDebug());
    EXPECT_TRUE(capture.Lines().empty());
    ASSERT_GE(SetProp(kSettings, kBluetoothPath, "powered", "b", 0), 0);
    ASSERT_GE(SetProp(kSettings, kBluetoothPath, "systemCallDebug", "b", 1), 0);
    EXPECT_FALSE(SettingsDaemonDbusHandler::Powered());
    EXPECT_TRUE(SettingsDaemonDbusHandler::SystemCallDebug());
}

TEST_F(SettingsClient, GetSettingReadsAnySectionAndLogsAWrongType) {
    uint32_t brightness = 0;
    EXPECT_EQ(SettingsDaemonDbusHandler::GetSetting("display", "brightness", brightness), 0);
    EXPECT_EQ(brightness, 80u);
    std::string language;
    EXPECT_EQ(SettingsDaemonDbusHandler::GetSetting("system", "language", language), 0);
    EXPECT_EQ(language, "en");
    Logging::Capture capture;
    bool wrong = true;
    EXPECT_LT(SettingsDaemonDbusHandler::GetSetting("display", "brightness", wrong), 0);
    EXPECT_TRUE(wrong);
    EXPECT_EQ(capture.Texts(),
              std::vector<std::string>{"int32_t Settingsd::SettingsDaemonDbusHandler::GetSetting(const "
                                       "std::string&, const std::string&, "
                                       "T&): ERROR sdbus_utils::GetProperty brightness failed property "
                                       "brightness has type u, expected b"});
    // a reader whose key holds another type falls back like an absent one
    capture.Clear();
    EXPECT_EQ(SettingsDaemonDbusHandler::GetBluetoothSetting<bool>("advertSchema", false), false);
    EXPECT_TRUE(capture.Contains(
        "GetBluetoothSetting: Cannot get setting 'advertSchema', setting to safe default: 0", LOG_ERR));
}

TEST_F(SettingsClient, GetSectionSettingsReadsAWholeSection) {
    TypedPropertyMap settings;
    ASSERT_EQ(SettingsDaemonDbusHandler::GetSectionSettings("bluetooth", settings), 0);
    EXPECT_EQ(settings.size(), 8u);
    EXPECT_EQ(Value<uint32_t>(settings, "advertSchema", "u"), 4u);
    EXPECT_EQ(Value<uint32_t>(settings, "autoScanRateSecs", "u"), 30u);
    EXPECT_TRUE(Value<bool>(settings, "discoverable", "b"));
    Logging::Capture capture;
    TypedPropertyMap none;
    EXPECT_LT(SettingsDaemonDbusHandler::GetSectionSettings("nosuchsection", none), 0);
    EXPECT_TRUE(none.empty());
    EXPECT_EQ(
        capture.CountContaining("GetSectionSettings(const std::string&, sdbus_utils::TypedPropertyMap&): "
                                "ERROR sdbus_utils::GetAllProperties nosuchsection failed"),
        1u);
}

TEST_F(SettingsClient, ResetsRestoreTheDefaultsAndAreAnnounced) {
    SettingsDaemonDbusHandler handler(loop);
    Sink bluetooth;
    handler.SectionChanged("bluetooth").connect(sigc::mem_fun(bluetooth, &Sink::operator()));
    ASSERT_EQ(handler.Listen(), 0);
    ASSERT_GE(SetProp(kSettings, kBluetoothPath, "autoScanRateSecs", "u", 99u), 0);
    ASSERT_TRUE(PumpUntil([&] { return bluetooth.maps.size() == 1; }));
    Logging::Capture capture;
    EXPECT_GE(SettingsDaemonDbusHandler::ResetSetting("bluetooth", "autoScanRateSecs"), 0);
    ASSERT_TRUE(PumpUntil([&] { return bluetooth.maps.size() == 2; }));
    EXPECT_EQ(bluetooth.maps[1].size(), 1u);
    EXPECT_EQ(Value<uint32_t>(bluetooth.maps[1], "autoScanRateSecs", "u"), 30u);
    EXPECT_GE(SettingsDaemonDbusHandler::ResetSection("bluetooth"), 0);
    ASSERT_TRUE(PumpUntil([&] { return bluetooth.maps.size() == 3; }));
    EXPECT_EQ(bluetooth.maps[2].size(), 8u);
    EXPECT_GE(SettingsDaemonDbusHandler::ResetToDefaults(true), 0);
    ASSERT_TRUE(PumpUntil([&] { return bluetooth.maps.size() == 4; }));
    auto where = [](const char* name) { return SiblingCall::Find(Settingsd::kOperations, name).where; };
    EXPECT_EQ(capture.Texts(), (std::vector<std::string>{where("ResetSetting"), where("ResetSection"),
                                                         where("ResetToDefaults")}));
    for (const auto& line : capture.Lines())
        EXPECT_EQ(line.priority, LOG_INFO);
}

TEST_F(SettingsClient, AResetTheDaemonRefusesIsLoggedWithItsResult) {
    Logging::Capture capture;
    const int r = SettingsDaemonDbusHandler::ResetSection("nosuchsection");
    EXPECT_LT(r, 0);
    const int s = SettingsDaemonDbusHandler::ResetSetting("bluetooth", "nosuchkey");
    EXPECT_LT(s, 0);
    const std::string section = SiblingCall::Find(Settingsd::kOperations, "ResetSection").where;
    const std::string setting = SiblingCall::Find(Settingsd::kOperations, "ResetSetting").where;
    EXPECT_EQ(capture.Texts(),
              (std::vector<std::string>{
                  section, section + ":sd_bus_call_method call failed (r = " + std::to_string(r) + ")",
                  setting, setting + ":sd_bus_call_method call failed (r = " + std::to_string(s) + ")"}));
}

// -------------------------------------------------------------------------------------------- network

using NetworkClient = Clients;

TEST_F(NetworkClient, ListenDeliversChangesAsTypedMaps) {
    NetworkDaemonDbusHandler handler(loop);
    Sink sink;
    handler.PropertiesChanged().connect(sigc::mem_fun(sink, &Sink::operator()));
    Logging::Capture capture;
    ASSERT_EQ(handler.Listen(), 0);
    ASSERT_GE(SetProp(kNetwork, Networkd::kObjectPath, "IPAddress", "s", "10.0.0.5"), 0);
    ASSERT_GE(SetProp(kNetwork, Networkd::kObjectPath, "SSID", "s", ""), 0);
    ASSERT_GE(SetProp(kNetwork, Networkd::kObjectPath, "WiFiState", "u", 2u), 0);
    ASSERT_TRUE(PumpUntil([&] { return sink.maps.size() == 3; }));
    EXPECT_EQ(Value<std::string>(sink.maps[0], "IPAddress", "s"), "10.0.0.5");
    EXPECT_EQ(Value<std::string>(sink.maps[1], "SSID", "s"), "");
    EXPECT_EQ(Value<uint32_t>(sink.maps[2], "WiFiState", "u"), 2u);
    EXPECT_TRUE(capture.Lines().empty());
    SetProp(kNetwork, Networkd::kObjectPath, "IPAddress", "s", "192.168.1.20");
    SetProp(kNetwork, Networkd::kObjectPath, "SSID", "s", "unit-sim-ap");
    SetProp(kNetwork, Networkd::kObjectPath, "WiFiState", "u", 1u);
}

TEST_F(NetworkClient, TheInitialReadHoldsEveryWiFiProperty) {
    TypedPropertyMap properties;
    ASSERT_EQ(NetworkDaemonDbusHandler::GetAllNetworkProperties(properties), 0);
    EXPECT_EQ(properties.size(), 13u);
    EXPECT_EQ(Value<std::string>(properties, "IPAddress", "s"), "192.168.1.20");
    EXPECT_EQ(Value<std::string>(properties, "SSID", "s"), "unit-sim-ap");
    EXPECT_EQ(Value<uint32_t>(properties, "WiFiState", "u"), 1u);
    EXPECT_EQ(Value<std::vector<std::string>>(properties, "WiFiAvailableFrequencies", "as"),
              (std::vector<std::string>{"2.4", "5.0"}));
    EXPECT_EQ(Value<std::vector<sdbus_utils::AccessPointTuple>>(properties, "AccessPoints", "a(siib)").size(),
              2u);
    EXPECT_TRUE(Value<bool>(properties, "WiFiAccessPointInitialised", "b"));
}

TEST_F(NetworkClient, EveryOperationWorksAgainstTheSimulation) {
    using N = NetworkDaemonDbusHandler;
    ExpectEveryPropertyRowOnTheSimulation(Networkd::kOperations);
    const auto methodCalls = MethodCalls(Networkd::kOperations);
    Logging::Capture capture;
    const auto& scan = SiblingCall::Find(Networkd::kOperations, "Scan");
    const auto& connect = SiblingCall::Find(Networkd::kOperations, "Connect");
    const auto& disconnect = SiblingCall::Find(Networkd::kOperations, "Disconnect");
    const size_t scans = CallsOf(scan);
    const size_t connects = CallsOf(connect);
    const size_t disconnects = CallsOf(disconnect);
    EXPECT_GE(N::Scan(), 0);
    EXPECT_GE(N::Connect("camera-ap", "secret"), 0);
    EXPECT_GE(N::Disconnect(), 0);
    EXPECT_EQ(CallsOf(scan), scans + 1);
    EXPECT_EQ(CallsOf(connect), connects + 1);
    EXPECT_EQ(CallsOf(disconnect), disconnects + 1);

    std::string text;
    EXPECT_EQ(N::SetMode("client"), 0);
    EXPECT_EQ(N::GetMode(text), 0);
    EXPECT_EQ(text, "client");
    EXPECT_EQ(N::SetMode("ap"), 0);
    EXPECT_EQ(N::SetSSID("other-ap"), 0);
    EXPECT_EQ(N::GetSSID(text), 0);
    EXPECT_EQ(text, "other-ap");
    EXPECT_EQ(N::SetSSID("unit-sim-ap"), 0);
    EXPECT_EQ(N::SetFrequency("2.4"), 0);
    EXPECT_EQ(N::GetFrequency(text), 0);
    EXPECT_EQ(text, "2.4");
    EXPECT_EQ(N::SetFrequency("5.0"), 0);
    std::vector<std::string> frequencies;
    EXPECT_EQ(N::GetAvailableFrequencies(frequencies), 0);
    EXPECT_EQ(frequencies, (std::vector<std::string>{"2.4", "5.0"}));
    uint32_t number = 99;
    EXPECT_EQ(N::GetClients(number), 0);
    EXPECT_EQ(number, 0u);
    EXPECT_EQ(N::GetIpAddress(text), 0);
    EXPECT_EQ(text, "192.168.1.20");
    EXPECT_EQ(N::GetMacAddress(text), 0);
    EXPECT_EQ(text, "02:00:00:00:00:01");
    number = 99;
    EXPECT_EQ(N::GetSignal(number), 0);
    EXPECT_EQ(number, 0u);
    number = 99;
    EXPECT_EQ(N::GetClientState(number), 0);
    EXPECT_EQ(number, 0u);
    text = "x";
    EXPECT_EQ(N::GetClientSSID(text), 0);
    EXPECT_EQ(text, "");
    EXPECT_EQ(N::SetPower(0), 0);
    EXPECT_EQ(N::GetPower(number), 0);
    EXPECT_EQ(number, 0u);
    EXPECT_EQ(N::SetPower(1), 0);
    bool initialised = false;
    EXPECT_EQ(N::GetAccessPointInitialised(initialised), 0);
    EXPECT_TRUE(initialised);
    std::vector<Networkd::AccessPoint> aps;
    EXPECT_EQ(N::GetAccessPoints(aps), 0);
    ASSERT_EQ(aps.size(), 2u);
    EXPECT_EQ(aps[0], (Networkd::AccessPoint{"unit-sim-ap", 6, -40, true}));
    EXPECT_EQ(aps[1], (Networkd::AccessPoint{"neighbour", 11, -71, false}));
    EXPECT_TRUE(capture.Lines().empty());
    ExpectEveryMethodRowCalledSince(Networkd::kOperations, methodCalls);
}

// ---------------------------------------------------------------------------------------------- power

using PowerClient = Clients;

TEST_F(PowerClient, ListenDeliversPowerChangesWithIntAndArrayTypes) {
    PylonDaemonDbusHandler handler(loop);
    Sink power;
    handler.PowerSignal().connect(sigc::mem_fun(power, &Sink::operator()));
    Logging::Capture capture;
    ASSERT_EQ(handler.Listen(), 0);
    EXPECT_EQ(handler.SubscriptionCount(), 9u);
    ASSERT_GE(SetProp(kPylon, Pylond::kPowerPath, "ActivePowerSource", "i", 0), 0);
    ASSERT_GE(SetProp(kPylon, Pylond::kPowerPath, "BatteryVoltages", "ai", 2, 18000, 17000), 0);
    ASSERT_GE(SetProp(kPylon, Pylond::kPowerPath, "BatteryChargePercentages", "ai", 1, 12), 0);
    ASSERT_GE(SetProp(kPylon, Pylond::kPowerPath, "BatteryTypes", "au", 1, 2u), 0);
    ASSERT_TRUE(PumpUntil([&] { return power.maps.size() == 4; }));
    EXPECT_EQ(Value<int32_t>(power.maps[0], "ActivePowerSource", "i"), 0);
    EXPECT_EQ(Value<std::vector<int32_t>>(power.maps[1], "BatteryVoltages", "ai"),
              (std::vector<int32_t>{18000, 17000}));
    EXPECT_EQ(Value<std::vector<int32_t>>(power.maps[2], "BatteryChargePercentages", "ai"),
              std::vector<int32_t>{12});
    EXPECT_EQ(Value<std::vector<uint32_t>>(power.maps[3], "BatteryTypes", "au"), std::vector<uint32_t>{2});
    EXPECT_TRUE(capture.Lines().empty());
    SetProp(kPylon, Pylond::kPowerPath, "ActivePowerSource", "i", 1);
    SetProp(kPylon, Pylond::kPowerPath, "BatteryVoltages", "ai", 2, 16900, 17600);
    SetProp(kPylon, Pylond::kPowerPath, "BatteryChargePercentages", "ai", 2, 87, 85);
    SetProp(kPylon, Pylond::kPowerPath, "BatteryTypes", "au", 2, 1u, 1u);
}

TEST_F(PowerClient, RemotePowerChangesDoNotReachThePowerSignal) {
    PylonDaemonDbusHandler handler(loop);
    Sink power;
    handler.PowerSignal().connect(sigc::mem_fun(power, &Sink::operator()));
    ASSERT_EQ(handler.Listen(), 0);
    ASSERT_GE(SetProp(kPylon, Pylond::kRemotePowerPath, "ActivePowerSource", "i", 3), 0);
    ASSERT_GE(SetProp(kPylon, Pylond::kPowerPath, "SystemPowerLevel", "u", 2u), 0);
    ASSERT_TRUE(PumpUntil([&] { return !power.maps.empty(); }));
    PumpFor(100);
    ASSERT_EQ(power.maps.size(), 1u);
    EXPECT_EQ(Value<uint32_t>(power.maps[0], "SystemPowerLevel", "u"), 2u);
    SetProp(kPylon, Pylond::kRemotePowerPath, "ActivePowerSource", "i", 1);
    SetProp(kPylon, Pylond::kPowerPath, "SystemPowerLevel", "u", 3u);
}

TEST_F(PowerClient, ReelCoolingAndControlSignalsReachTheirOwnSignals) {
    PylonDaemonDbusHandler handler(loop);
    Sink power, reel, firmware, distance, cooling;
    std::vector<uint32_t> video;
    std::vector<std::vector<int32_t>> keys;
    std::vector<std::string> added, removed;
    handler.PowerSignal().connect(sigc::mem_fun(power, &Sink::operator()));
    handler.ReelSignal().connect(sigc::mem_fun(reel, &Sink::operator()));
    handler.ReelFirmwareSignal().connect(sigc::mem_fun(firmware, &Sink::operator()));
    handler.ReelDistanceSignal().connect(sigc::mem_fun(distance, &Sink::operator()));
    handler.CoolingSignal().connect(sigc::mem_fun(cooling, &Sink::operator()));
    handler.VideoStatusChangedSignal().connect([&](uint32_t v) { video.push_back(v); });
    handler.KeyPressEventSignal().connect([&](int32_t a, int32_t b, int32_t c) {
        keys.push_back({a, b, c});
    });
    handler.InterfacesAddedSignal().connect([&](const std::string& p) { added.push_back(p); });
    handler.InterfacesRemovedSignal().connect([&](const std::string& p) { removed.push_back(p); });
    ASSERT_EQ(handler.Listen(), 0);

    ASSERT_GE(SetProp(kPylon, Pylond::kReelPath, "Connected", "b", 0), 0);
    ASSERT_GE(SetProp(kPylon, Pylond::kReelFirmwarePath, "Version", "s", "3.2.0"), 0);
    ASSERT_GE(SetProp(kPylon, Pylond::kReelDistancePath, "DistanceMm", "i", 13000), 0);
    ASSERT_GE(SetProp(kPylon, Pylond::kCoolingPath, "CpuTemp", "i", 71), 0);
    ASSERT_GE(EmitSignal(kPylon, Pylond::kObjectPath, Pylond::kControlInterface, "VideoStatusChanged", "u",
                         [](sd_bus_message* m) { return sd_bus_message_append(m, "v", "u", 2u); }),
              0);
    ASSERT_GE(EmitSignal(kPylon, Pylond::kObjectPath, Pylond::kControlInterface, "KeyPressEvent", "iii",
                         [](sd_bus_message* m) {
                             return sd_bus_message_append(m, "vvv", "i", 5, "i", 1, "i", 250);
                         }),
              0);
    ASSERT_GE(EmitSignal(kPylon, Pylond::kObjectPath, "org.freedesktop.DBus.ObjectManager", "InterfacesAdded",
                         "oa{sa{sv}}",
                         [](sd_bus_message* m) {
                             int r = sd_bus_message_append(m, "v", "o", "/com/quorbel/common/Pylon1/reel");
                             if (r >= 0)
                                 r = sd_bus_message_append(m, "v", "a{sa{sv}}", 0);
                             return r;
                         }),
              0);
    ASSERT_GE(EmitSignal(kPylon, Pylond::kObjectPath, "org.freedesktop.DBus.ObjectManager",
                         "InterfacesRemoved", "oas",
                         [](sd_bus_message* m) {
                             int r = sd_bus_message_append(m, "v", "o", "/com/quorbel/common/Pylon1/reel");
                             if (r >= 0)
                                 r = sd_bus_message_append(m, "v", "as", 1, "com.quorbel.common.Pylon1.reel");
                             return r;
                         }),
              0);
    ASSERT_TRUE(PumpUntil([&] { return removed.size() == 1; }));
    PumpFor(50);
    ASSERT_EQ(reel.maps.size(), 1u);
    EXPECT_FALSE(Value<bool>(reel.maps[0], "Connected", "b"));
    ASSERT_EQ(firmware.maps.size(), 1u);
    EXPECT_EQ(Value<std::string>(firmware.maps[0], "Version", "s"), "3.2.0");
    ASSERT_EQ(distance.maps.size(), 1u);
    EXPECT_EQ(Value<int32_t>(distance.maps[0], "DistanceMm", "i"), 13000);
    ASSERT_EQ(cooling.maps.size(), 1u);
    EXPECT_EQ(Value<int32_t>(cooling.maps[0], "CpuTemp", "i"), 71);
    EXPECT_TRUE(power.maps.empty());
    EXPECT_EQ(video, std::vector<uint32_t>{2});
    EXPECT_EQ(keys, (std::vector<std::vector<int32_t>>{{5, 1, 250}}));
    EXPECT_EQ(added, std::vector<std::string>{"/com/quorbel/common/Pylon1/reel"});
    EXPECT_EQ(removed, std::vector<std::string>{"/com/quorbel/common/Pylon1/reel"});
    SetProp(kPylon, Pylond::kReelPath, "Connected", "b", 1);
    SetProp(kPylon, Pylond::kReelFirmwarePath, "Version", "s", "3.1.4");
    SetProp(kPylon, Pylond::kReelDistancePath, "DistanceMm", "i", 12500);
    SetProp(kPylon, Pylond::kCoolingPath, "CpuTemp", "i", 48);
}

TEST_F(PowerClient, TheInitialReadHoldsThePowerPropertiesOfTheChosenObject) {
    TypedPropertyMap local;
    ASSERT_EQ(PylonDaemonDbusHandler::GetAllPowerProperties(false, local), 0);
    EXPECT_EQ(Value<int32_t>(local, "ActivePowerSource", "i"), 1);
    EXPECT_EQ(Value<std::vector<int32_t>>(local, "BatteryVoltages", "ai"),
              (std::vector<int32_t>{16900, 17600}));
    EXPECT_EQ(Value<std::vector<int32_t>>(local, "BatteryChargePercentages", "ai"),
              (std::vector<int32_t>{87, 85}));
    EXPECT_EQ(Value<std::vector<uint32_t>>(local, "BatteryTypes", "au"), (std::vector<uint32_t>{1, 1}));
    // "(sassas)" is not a type the parser keeps: left out, the rest is there
    EXPECT_EQ(local.count("BatteryLevelIcons"), 0u);
    EXPECT_EQ(local.size(), 8u);

    ASSERT_GE(SetProp(kPylon, Pylond::kRemotePowerPath, "ActivePowerSource", "i", 3), 0);
    TypedPropertyMap remote;
    ASSERT_EQ(PylonDaemonDbusHandler::GetAllPowerProperties(true, remote), 0);
    EXPECT_EQ(Value<int32_t>(remote, "ActivePowerSource", "i"), 3);
    SetProp(kPylon, Pylond::kRemotePowerPath, "ActivePowerSource", "i", 1);
}

TEST_F(PowerClient, EveryOperationWorksAgainstTheSimulation) {
    using P = PylonDaemonDbusHandler;
    ExpectEveryPropertyRowOnTheSimulation(Pylond::kOperations);
    const auto methodCalls = MethodCalls(Pylond::kOperations);
    Logging::Capture capture;
    int32_t i32 = -1;
    uint32_t u32 = 99;
    bool flag = false;
    std::string text;
    std::vector<int32_t> ints;
    std::vector<uint32_t> uints;

    EXPECT_EQ(P::GetPowerSource(i32), 0);
    EXPECT_EQ(i32, 1);
    ASSERT_GE(SetProp(kPylon, Pylond::kRemotePowerPath, "ActivePowerSource", "i", 2), 0);
    EXPECT_EQ(P::GetPowerSource(i32, true), 0);
    EXPECT_EQ(i32, 2);
    SetProp(kPylon, Pylond::kRemotePowerPath, "ActivePowerSource", "i", 1);
    EXPECT_EQ(P::ReadBatteryVoltages(ints), 0);
    EXPECT_EQ(ints, (std::vector<int32_t>{16900, 17600}));
    EXPECT_EQ(P::ReadBatteryChargePercentages(ints), 0);
    EXPECT_EQ(ints, (std::vector<int32_t>{87, 85}));
    EXPECT_EQ(P::GetBatteryTypes(uints), 0);
    EXPECT_EQ(uints, (std::vector<uint32_t>{1, 1}));
    EXPECT_EQ(P::GetSystemPowerLevel(u32), 0);
    EXPECT_EQ(u32, 3u);
    EXPECT_EQ(P::SetBatteryDrainMode(2), 0);
    EXPECT_EQ(P::GetBatteryDrainMode(u32), 0);
    EXPECT_EQ(u32, 2u);
    EXPECT_EQ(P::SetBatteryDrainMode(0), 0);
    flag = true;
    EXPECT_EQ(P::GetLowBatteryWarnings(flag), 0);
    EXPECT_FALSE(flag);
    EXPECT_EQ(P::GetPermittedActions(u32), 0);
    EXPECT_EQ(u32, 0xFFFFu);
    Pylond::BatteryLevelIcons icons;
    EXPECT_EQ(P::GetBatteryLevelIcons(icons), 0);
    EXPECT_EQ(std::get<0>(icons), "battery-good");
    EXPECT_EQ(std::get<1>(icons), (std::vector<std::string>{"battery-good", "battery-full"}));
    EXPECT_EQ(std::get<2>(icons), "battery-none");
    EXPECT_GE(P::GetBatteryInfo(1, text), 0);
    EXPECT_EQ(text, "battery 1: type 1, 85%");
    const auto& request = SiblingCall::Find(Pylond::kOperations, "RequestGetBatteryData");
    const size_t requests = CallsOf(request);
    EXPECT_GE(P::RequestGetBatteryData(), 0);
    EXPECT_EQ(CallsOf(request), requests + 1);
    flag = false;
    EXPECT_GE(P::GetPowerSufficientForAction(3, flag), 0);
    EXPECT_TRUE(flag);
    EXPECT_GE(P::GetBatteryUpdateState(u32), 0);
    EXPECT_EQ(u32, 0u);
    EXPECT_GE(P::GetBatteryUpdateDirection(u32), 0);
    EXPECT_EQ(u32, 1u);

    const auto& setPowerState = SiblingCall::Find(Pylond::kOperations, "SetPowerState");
    const auto& setLedState = SiblingCall::Find(Pylond::kOperations, "SetLedState");
    const auto& beepBuzzer = SiblingCall::Find(Pylond::kOperations, "BeepBuzzer");
    const size_t powerStates = CallsOf(setPowerState);
    const size_t leds = CallsOf(setLedState);
    const size_t beeps = CallsOf(beepBuzzer);
    EXPECT_GE(P::SetPowerState(2, 5), 0);
    EXPECT_EQ(CallsOf(setPowerState), powerStates + 1);
    std::array<bool, 6> states{};
    EXPECT_GE(P::GetPowerStates(states), 0);
    EXPECT_EQ(states, (std::array<bool, 6>{true, true, false, true, false, false}));
    EXPECT_GE(P::SetLedState(1, 2), 0);
    EXPECT_EQ(CallsOf(setLedState), leds + 1);
    EXPECT_GE(P::BeepBuzzer(2, 100, 50), 0);
    EXPECT_EQ(CallsOf(beepBuzzer), beeps + 1);
    EXPECT_GE(P::SetRemote("10.1.1.9", "tcp:host=10.1.1.9,port=5555"), 0);
    EXPECT_EQ(P::GetRemoteIP(text), 0);
    EXPECT_EQ(text, "10.1.1.9");
    EXPECT_EQ(P::GetRemoteDbusAddr(text), 0);
    EXPECT_EQ(text, "tcp:host=10.1.1.9,port=5555");
    EXPECT_GE(P::SetLocal(), 0);
    EXPECT_EQ(P::GetRemoteIP(text), 0);
    EXPECT_EQ(text, "");
    ASSERT_GE(SetProp(kPylon, Pylond::kObjectPath, "VideoStatus", "u", 4u), 0);
    EXPECT_EQ(P::GetPropVideoStatus(u32), 0);
    EXPECT_EQ(u32, 4u);
    u32 = 0;
    EXPECT_GE(P::GetVideoStatus(u32), 0);
    EXPECT_EQ(u32, 4u);
    SetProp(kPylon, Pylond::kObjectPath, "VideoStatus", "u", 0u);
    EXPECT_GE(P::GetPylonSwVersion(text), 0);
    EXPECT_EQ(text, "2.7.0-sim");
    EXPECT_GE(P::GetPylonHwVersion(text), 0);
    EXPECT_EQ(text, "C");
    EXPECT_GE(P::GetKeypadPicVersion(text), 0);
    EXPECT_EQ(text, "1.12");

    EXPECT_EQ(P::GetCpuTemp(i32), 0);
    EXPECT_EQ(i32, 48);
    EXPECT_EQ(P::GetFanSpeed(u32), 0);
    EXPECT_EQ(u32, 1800u);
    EXPECT_EQ(P::SetFanCtrlMode(1), 0);
    EXPECT_EQ(P::GetFanCtrlMode(u32), 0);
    EXPECT_EQ(u32, 1u);
    EXPECT_EQ(P::SetManualFanSpeed(75), 0);
    EXPECT_EQ(P::GetManualFanSpeed(u32), 0);
    EXPECT_EQ(u32, 75u);
    EXPECT_EQ(P::SetFanCtrlRangeMinTemp(35), 0);
    EXPECT_EQ(P::GetFanCtrlRangeMinTemp(i32), 0);
    EXPECT_EQ(i32, 35);
    EXPECT_EQ(P::SetFanCtrlRangeMaxTemp(85), 0);
    EXPECT_EQ(P::GetFanCtrlRangeMaxTemp(i32), 0);
    EXPECT_EQ(i32, 85);
    EXPECT_EQ(P::SetCpuTempAvgPeriod(20), 0);
    EXPECT_EQ(P::GetCpuTempAvgPeriod(u32), 0);
    EXPECT_EQ(u32, 20u);
    EXPECT_EQ(P::SetEmitStatusChanges(false), 0);
    flag = true;
    EXPECT_EQ(P::GetEmitStatusChanges(flag), 0);
    EXPECT_FALSE(flag);
    P::SetFanCtrlMode(0);
    P::SetManualFanSpeed(50);
    P::SetFanCtrlRangeMinTemp(40);
    P::SetFanCtrlRangeMaxTemp(80);
    P::SetCpuTempAvgPeriod(10);
    P::SetEmitStatusChanges(true);
    EXPECT_TRUE(capture.Lines().empty());
    ExpectEveryMethodRowCalledSince(Pylond::kOperations, methodCalls);
}
