// DbusListener against the simulated settings daemon and against connections of the test's own; the
// property calls against the simulated sibling daemons.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include "dbus_helper/DbusConnector.h"
#include "dbus_helper/SdbusUtils.h"
#include "logging/Log.h"
#include "test_support/BusKit.h"
#include "test_support/LoopHelpers.h"
#include "test_support/SimControl.h"
#include "test_support/TestEnv.h"

using TestSupport::Bus;

namespace {

constexpr const char* kSettings = "com.quorbel.common.Settings1";
constexpr const char* kBluetooth = "/com/quorbel/common/Settings1/bluetooth";
constexpr const char* kDisplay = "/com/quorbel/common/Settings1/display";
constexpr const char* kSettingsIface = "com.quorbel.common.Settings1";
constexpr const char* kNetwork = "com.quorbel.Network1";
constexpr const char* kNetworkPath = "/com/quorbel/Network1";
constexpr const char* kWiFi = "com.quorbel.Network1.WiFi";
constexpr const char* kPylon = "com.quorbel.common.Pylon1";
constexpr const char* kPowerPath = "/com/quorbel/common/Pylon1/power";
constexpr const char* kPowerIface = "com.quorbel.common.Pylon1.power";

// What a PropertiesChanged subscription saw: the object path and the parsed changes of each signal.
struct Received {
    std::vector<std::string> paths;
    std::vector<sdbus_utils::TypedPropertyMap> changes;
    static int OnSignal(sd_bus_message* m, void* userdata, sd_bus_error*) {
        auto* self = static_cast<Received*>(userdata);
        int r = sd_bus_message_skip(m, "s");
        if (r < 0)
            return r;
        sdbus_utils::TypedPropertyMap map;
        r = sdbus_utils::ParsePropertiesWithType(m, map);
        if (r < 0)
            return r;
        self->paths.emplace_back(sd_bus_message_get_path(m));
        self->changes.push_back(std::move(map));
        return 0;
    }
};

class WithLoop : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(TestSupport::InHarness());
        ASSERT_GE(SimControl::ResetSettings(), 0);
        owned = BusKit::NewLoop();
        ASSERT_TRUE(owned);
        loop = owned.get();
    }
    void TearDown() override { SimControl::ResetSettings(); }
    DbusHelper::Event owned;
    sd_event* loop = nullptr;
};

}  // namespace

using DbusListenerTest = WithLoop;

TEST_F(DbusListenerTest, ReceivesPropertiesChangedFromTheSettingsSimulation) {
    DbusHelper::DbusListener listener(loop);
    ASSERT_EQ(listener.Connect(), 0);
    Received received;
    ASSERT_EQ(listener.ListenSignal(kSettings, "", "org.freedesktop.DBus.Properties", "PropertiesChanged",
                                    &Received::OnSignal, &received),
              0);
    ASSERT_GE(SimControl::SetProp(kSettings, kBluetooth, "autoScanRateSecs", "u", 60u), 0);
    ASSERT_TRUE(BusTest::PumpUntil(loop, [&] { return !received.changes.empty(); }));
    EXPECT_EQ(received.paths[0], kBluetooth);
    ASSERT_EQ(received.changes[0].size(), 1u);
    EXPECT_EQ(received.changes[0].at("autoScanRateSecs").first, "u");
    EXPECT_EQ(std::any_cast<uint32_t>(received.changes[0].at("autoScanRateSecs").second), 60u);
}

TEST_F(DbusListenerTest, APathLimitsTheSubscriptionToOneObject) {
    DbusHelper::DbusListener listener(loop);
    ASSERT_EQ(listener.Connect(), 0);
    Received received;
    ASSERT_EQ(listener.ListenSignal(kSettings, kDisplay, "org.freedesktop.DBus.Properties",
                                    "PropertiesChanged", &Received::OnSignal, &received),
              0);
    ASSERT_GE(SimControl::SetProp(kSettings, kBluetooth, "powered", "b", 0), 0);
    ASSERT_GE(SimControl::SetProp(kSettings, kDisplay, "brightness", "u", 10u), 0);
    ASSERT_TRUE(BusTest::PumpUntil(loop, [&] { return !received.changes.empty(); }));
    BusTest::PumpFor(loop, std::chrono::milliseconds(100));
    ASSERT_EQ(received.paths.size(), 1u);
    EXPECT_EQ(received.paths[0], kDisplay);
}

TEST_F(DbusListenerTest, OtherSendersOfTheSameSignalAreNotDelivered) {
    DbusHelper::DbusListener listener(loop);
    ASSERT_EQ(listener.Connect(), 0);
    Received received;
    ASSERT_EQ(listener.ListenSignal(kSettings, "", "org.freedesktop.DBus.Properties", "PropertiesChanged",
                                    &Received::OnSignal, &received),
              0);
    // a stranger emits the very same signal from the very same path
    const auto owned = BusKit::OpenBus(BusKit::BusKind::User);
    ASSERT_TRUE(owned);
    sd_bus* stranger = owned.get();
    ASSERT_GE(sd_bus_emit_signal(stranger, kBluetooth, "org.freedesktop.DBus.Properties", "PropertiesChanged",
                                 "sa{sv}as", kSettingsIface, 1, "powered", "b", 0, 0),
              0);
    sd_bus_flush(stranger);
    // then the real sender
    ASSERT_GE(SimControl::SetProp(kSettings, kBluetooth, "discoverable", "b", 0), 0);
    ASSERT_TRUE(BusTest::PumpUntil(loop, [&] { return !received.changes.empty(); }));
    BusTest::PumpFor(loop, std::chrono::milliseconds(100));
    ASSERT_EQ(received.changes.size(), 1u);
    EXPECT_EQ(received.changes[0].count("discoverable"), 1u);
}

TEST_F(DbusListenerTest, SignalsKeepArrivingWhenTheSenderRestartsUnderANewUniqueName) {
    constexpr const char* kName = "com.quorbel.test.Restarting1";
    DbusHelper::DbusListener listener(loop);
    ASSERT_EQ(listener.Connect(), 0);
    std::vector<std::string> senders;
    ASSERT_EQ(
        listener.ListenSignal(
            kName, "", "com.quorbel.test.Restarting1", "Tick",
            [](sd_bus_message* m, void* userdata, sd_bus_error*) {
                static_cast<std::vector<std::string>*>(userdata)->emplace_back(sd_bus_message_get_sender(m));
                return 0;
            },
            &senders),
        0);
    auto runPeer = [&](std::string& unique) {
        const auto owned = BusKit::OpenBus(BusKit::BusKind::User);
        ASSERT_TRUE(owned);
        sd_bus* peer = owned.get();
        ASSERT_GE(sd_bus_request_name(peer, kName, 0), 0);
        const char* id = nullptr;
        ASSERT_GE(sd_bus_get_unique_name(peer, &id), 0);
        unique = id;
        ASSERT_GE(sd_bus_emit_signal(peer, "/", "com.quorbel.test.Restarting1", "Tick", ""), 0);
        sd_bus_flush(peer);
    };
    std::string first;
    std::string second;
    runPeer(first);
    ASSERT_TRUE(BusTest::PumpUntil(loop, [&] { return senders.size() == 1; }));
    runPeer(second);
    ASSERT_TRUE(BusTest::PumpUntil(loop, [&] { return senders.size() == 2; }));
    EXPECT_NE(first, second);
    EXPECT_EQ(senders, (std::vector<std::string>{first, second}));
}

TEST_F(DbusListenerTest, AnExceptionInACallbackIsLoggedAndTheListenerGoesOn) {
    DbusHelper::DbusListener listener(loop);
    ASSERT_EQ(listener.Connect(), 0);
    int calls = 0;
    ASSERT_EQ(listener.ListenSignal(
                  kSettings, kBluetooth, "org.freedesktop.DBus.Properties", "PropertiesChanged",
                  [](sd_bus_message*, void* userdata, sd_bus_error*) -> int {
                      if (++*static_cast<int*>(userdata) == 1)
                          throw std::bad_any_cast();
                      return 0;
                  },
                  &calls),
              0);
    Logging::Capture capture;
    ASSERT_GE(SimControl::SetProp(kSettings, kBluetooth, "powered", "b", 0), 0);
    ASSERT_GE(SimControl::SetProp(kSettings, kBluetooth, "powered", "b", 1), 0);
    ASSERT_TRUE(BusTest::PumpUntil(loop, [&] { return calls == 2; }));
    EXPECT_EQ(capture.CountContaining("signal org.freedesktop.DBus.Properties.PropertiesChanged from "
                                      "com.quorbel.common.Settings1: exception stopped at the C boundary"),
              1u);
    EXPECT_TRUE(listener.IsConnected());
}

TEST_F(DbusListenerTest, ConnectAndListenPreconditions) {
    DbusHelper::DbusListener listener(loop);
    EXPECT_EQ(listener.ListenSignal(kSettings, "", "org.freedesktop.DBus.Properties", "PropertiesChanged",
                                    &Received::OnSignal, nullptr),
              -ENOTCONN);
    ASSERT_EQ(listener.Connect(), 0);
    EXPECT_EQ(listener.Connect(), -EALREADY);
    EXPECT_EQ(listener.ListenSignal(kSettings, "", "", "PropertiesChanged", nullptr, nullptr), -EINVAL);
    EXPECT_EQ(
        listener.ListenSignal("not a bus name", "", "", "PropertiesChanged", &Received::OnSignal, nullptr),
        -EINVAL);
    EXPECT_EQ(listener.SubscriptionCount(), 0u);
}

TEST_F(DbusListenerTest, DisconnectEndsDeliveryAndAllowsANewConnect) {
    DbusHelper::DbusListener listener(loop);
    ASSERT_EQ(listener.Connect(), 0);
    Received received;
    ASSERT_EQ(listener.ListenSignal(kSettings, "", "org.freedesktop.DBus.Properties", "PropertiesChanged",
                                    &Received::OnSignal, &received),
              0);
    EXPECT_EQ(listener.SubscriptionCount(), 1u);
    listener.Disconnect();
    EXPECT_FALSE(listener.IsConnected());
    EXPECT_EQ(listener.SubscriptionCount(), 0u);
    ASSERT_GE(SimControl::SetProp(kSettings, kBluetooth, "powered", "b", 0), 0);
    BusTest::PumpFor(loop, std::chrono::milliseconds(150));
    EXPECT_TRUE(received.changes.empty());
    listener.Disconnect();  // twice is harmless
    ASSERT_EQ(listener.Connect(), 0);
    ASSERT_EQ(listener.ListenSignal(kSettings, "", "org.freedesktop.DBus.Properties", "PropertiesChanged",
                                    &Received::OnSignal, &received),
              0);
    ASSERT_GE(SimControl::SetProp(kSettings, kBluetooth, "powered", "b", 1), 0);
    ASSERT_TRUE(BusTest::PumpUntil(loop, [&] { return !received.changes.empty(); }));
}

// ------------------------------------------------------------------------------------------------------

using PropertyCalls = WithLoop;

TEST_F(PropertyCalls, GetPropertyReadsTheSimulationsTypedValues) {
    std::string error;
    uint32_t schema = 0;
    ASSERT_EQ(sdbus_utils::GetProperty(nullptr, kSettings, kBluetooth, kSettingsIface, "advertSchema", schema,
                                       error),
              0)
        << error;
    EXPECT_EQ(schema, 4u);
    bool discoverable = false;
    ASSERT_EQ(sdbus_utils::GetProperty(nullptr, kSettings, kBluetooth, kSettingsIface, "discoverable",
                                       discoverable, error),
              0);
    EXPECT_TRUE(discoverable);
    std::vector<int32_t> voltages;
    ASSERT_EQ(sdbus_utils::GetProperty(nullptr, kPylon, kPowerPath, kPowerIface, "BatteryVoltages", voltages,
                                       error),
              0)
        << error;
    EXPECT_EQ(voltages, (std::vector<int32_t>{16900, 17600}));
    std::vector<uint32_t> types;
    ASSERT_EQ(
        sdbus_utils::GetProperty(nullptr, kPylon, kPowerPath, kPowerIface, "BatteryTypes", types, error), 0);
    EXPECT_EQ(types, (std::vector<uint32_t>{1, 1}));
    std::vector<sdbus_utils::AccessPointTuple> aps;
    ASSERT_EQ(sdbus_utils::GetProperty(nullptr, kNetwork, kNetworkPath, kWiFi, "AccessPoints", aps, error), 0)
        << error;
    ASSERT_EQ(aps.size(), 2u);
    EXPECT_EQ(std::get<0>(aps[0]), "unit-sim-ap");
    EXPECT_EQ(std::get<2>(aps[1]), -71);
    std::vector<std::string> frequencies;
    ASSERT_EQ(sdbus_utils::GetProperty(nullptr, kNetwork, kNetworkPath, kWiFi, "WiFiAvailableFrequencies",
                                       frequencies, error),
              0);
    EXPECT_EQ(frequencies, (std::vector<std::string>{"2.4", "5.0"}));
}

TEST_F(PropertyCalls, SetPropertyThenGetPropertyRoundTrips) {
    std::string error;
    ASSERT_EQ(sdbus_utils::SetProperty(nullptr, kSettings, kBluetooth, kSettingsIface, "autoScanRateSecs",
                                       uint32_t{77}, error),
              0)
        << error;
    uint32_t rate = 0;
    ASSERT_EQ(sdbus_utils::GetProperty(nullptr, kSettings, kBluetooth, kSettingsIface, "autoScanRateSecs",
                                       rate, error),
              0);
    EXPECT_EQ(rate, 77u);
}

TEST_F(PropertyCalls, AGivenBusIsUsedAndLeftOpen) {
    const auto owned = BusKit::OpenBus(BusKit::BusKind::User);
    ASSERT_TRUE(owned);
    sd_bus* bus = owned.get();
    std::string error;
    bool powered = false;
    EXPECT_EQ(sdbus_utils::GetProperty(bus, kSettings, kBluetooth, kSettingsIface, "powered", powered, error),
              0);
    EXPECT_TRUE(powered);
    EXPECT_GT(sd_bus_is_open(bus), 0);
    sdbus_utils::TypedPropertyMap map;
    EXPECT_EQ(sdbus_utils::GetAllProperties(bus, kNetwork, kNetworkPath, kWiFi, map, error), 0);
    EXPECT_GT(sd_bus_is_open(bus), 0);
}

TEST_F(PropertyCalls, GetAllPropertiesFillsATypedMap) {
    sdbus_utils::TypedPropertyMap map;
    std::string error;
    ASSERT_EQ(sdbus_utils::GetAllProperties(nullptr, kSettings, kBluetooth, kSettingsIface, map, error), 0)
        << error;
    ASSERT_EQ(map.size(), 8u);
    EXPECT_EQ(map.at("advertSchema").first, "u");
    EXPECT_EQ(std::any_cast<uint32_t>(map.at("autoScanRateSecs").second), 30u);
    for (const char* key :
         {"advertisingEnabled", "autoScanEnabled", "discoverable", "pairable", "powered", "systemCallDebug"})
        EXPECT_EQ(map.at(key).first, "b") << key;

    sdbus_utils::TypedPropertyMap power;
    ASSERT_EQ(sdbus_utils::GetAllProperties(nullptr, kPylon, kPowerPath, kPowerIface, power), 0);
    EXPECT_EQ(power.at("ActivePowerSource").first, "i");
    EXPECT_EQ(power.at("BatteryVoltages").first, "ai");
    EXPECT_EQ(power.at("BatteryChargePercentages").first, "ai");
    EXPECT_EQ(power.at("BatteryTypes").first, "au");
}

TEST_F(PropertyCalls, AWronglyTypedReadFailsWithATextAndKeepsTheValue) {
    std::string error;
    bool value = true;
    EXPECT_EQ(sdbus_utils::GetProperty(nullptr, kSettings, kBluetooth, kSettingsIface, "advertSchema", value,
                                       error),
              -ENXIO);
    EXPECT_TRUE(value);
    EXPECT_EQ(error, "property advertSchema has type u, expected b");
}

TEST_F(PropertyCalls, AnUnknownPropertyIsAnErrorFromThePeer) {
    std::string error;
    uint32_t value = 5;
    EXPECT_LT(
        sdbus_utils::GetProperty(nullptr, kSettings, kBluetooth, kSettingsIface, "noSuchKey", value, error),
        0);
    EXPECT_EQ(value, 5u);
    EXPECT_NE(error.find("noSuchKey"), std::string::npos) << error;
}

TEST_F(PropertyCalls, AnAbsentPeerFailsEveryCallWithTheBusDaemonsText) {
    constexpr const char* kAbsent = "com.quorbel.Absent1";
    const std::string expected = "The name com.quorbel.Absent1 was not provided by any .service files";
    std::string error;
    uint32_t value = 3;
    EXPECT_LT(sdbus_utils::GetProperty(nullptr, kAbsent, "/com/quorbel/Absent1", "com.quorbel.Absent1", "X",
                                       value, error),
              0);
    EXPECT_EQ(value, 3u);
    EXPECT_EQ(error, expected);
    error.clear();
    EXPECT_LT(sdbus_utils::SetProperty(nullptr, kAbsent, "/com/quorbel/Absent1", "com.quorbel.Absent1", "X",
                                       std::string("v"), error),
              0);
    EXPECT_EQ(error, expected);
    error.clear();
    sdbus_utils::TypedPropertyMap map{{"kept", {"b", true}}};
    EXPECT_LT(sdbus_utils::GetAllProperties(nullptr, kAbsent, "/com/quorbel/Absent1", "com.quorbel.Absent1",
                                            map, error),
              0);
    EXPECT_EQ(error, expected);
    EXPECT_EQ(map.size(), 1u);
}

TEST_F(PropertyCalls, AnUnreachableBusFailsWithAConnectionText) {
    const std::string saved = getenv("DBUS_SESSION_BUS_ADDRESS");
    setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/qb-test/bus", 1);
    std::string error;
    uint32_t value = 0;
    const int r = sdbus_utils::GetProperty(nullptr, kSettings, kBluetooth, kSettingsIface, "advertSchema",
                                           value, error);
    std::string setError;
    const int s = sdbus_utils::SetProperty(nullptr, kSettings, kBluetooth, kSettingsIface, "advertSchema",
                                           uint32_t{1}, setError);
    sdbus_utils::TypedPropertyMap map;
    std::string allError;
    const int a =
        sdbus_utils::GetAllProperties(nullptr, kSettings, kBluetooth, kSettingsIface, map, allError);
    setenv("DBUS_SESSION_BUS_ADDRESS", saved.c_str(), 1);
    EXPECT_EQ(r, -ENOENT);
    EXPECT_EQ(error, "cannot connect to the user bus: No such file or directory");
    EXPECT_EQ(s, -ENOENT);
    EXPECT_EQ(setError, error);
    EXPECT_EQ(a, -ENOENT);
    EXPECT_EQ(allError, error);
}
