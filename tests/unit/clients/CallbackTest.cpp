// The clients' signal callbacks, called directly with built messages: routing, parsing and failure logs.
#include <gtest/gtest.h>

#include <any>
#include <stdexcept>
#include <string>
#include <vector>

#include "clients/NetworkDaemonDbusHandler.h"
#include "clients/PylonDaemonDbusHandler.h"
#include "clients/SettingsDaemonDbusHandler.h"
#include "logging/Log.h"
#include "test_support/BusPair.h"

using DbusHelperTest::MessageFactory;
using sdbus_utils::TypedPropertyMap;

namespace {

constexpr const char* kSettingsChanged =
    "static int32_t Settingsd::SettingsDaemonDbusHandler::PropertiesChanged(sd_bus_message*, void*, "
    "sd_bus_error*)";
constexpr const char* kNetworkChanged =
    "static int Networkd::NetworkDaemonDbusHandler::NetworkPropertiesChanged(sd_bus_message*, void*, "
    "sd_bus_error*)";
constexpr const char* kPowerChanged =
    "static int Pylond::PylonDaemonDbusHandler::PowerPropertiesChanged(sd_bus_message*, void*, "
    "sd_bus_error*)";

// PropertiesChanged("com.quorbel.x", {name: value...}, []) from `path`.
DbusHelper::Message Changed(MessageFactory& factory, const char* path,
                            const std::function<void(sd_bus_message*)>& entries) {
    return factory.Signal(
        [&](sd_bus_message* m) {
            sd_bus_message_append(m, "s", "com.quorbel.x");
            sd_bus_message_open_container(m, 'a', "{sv}");
            entries(m);
            sd_bus_message_close_container(m);
            sd_bus_message_append(m, "as", 0);
        },
        path);
}

// Records what a section's (or any) properties signal delivered.
struct Sink {
    std::vector<TypedPropertyMap> maps;
    void operator()(TypedPropertyMap& map) { maps.push_back(map); }
};

}  // namespace

// ------------------------------------------------------------------------------------------- settings

TEST(SettingsPropertiesChanged, ABluetoothChangeReachesItsSectionWithTheChangedKeysOnly) {
    MessageFactory factory;
    Settingsd::SettingsDaemonDbusHandler handler(nullptr);
    Sink bluetooth;
    Sink display;
    handler.SectionChanged("bluetooth").connect(sigc::mem_fun(bluetooth, &Sink::operator()));
    handler.SectionChanged("display").connect(sigc::mem_fun(display, &Sink::operator()));
    DbusHelper::Message m =
        Changed(factory, "/com/quorbel/common/Settings1/bluetooth", [](sd_bus_message* m) {
            sd_bus_message_append(m, "{sv}", "advertSchema", "u", 4u);
            sd_bus_message_append(m, "{sv}", "powered", "b", 0);
        });
    Logging::Capture capture;
    EXPECT_EQ(Settingsd::SettingsDaemonDbusHandler::PropertiesChanged(m.get(), &handler, nullptr), 0);
    ASSERT_EQ(bluetooth.maps.size(), 1u);
    EXPECT_TRUE(display.maps.empty());
    const auto& map = bluetooth.maps[0];
    ASSERT_EQ(map.size(), 2u);
    EXPECT_EQ(map.at("advertSchema").first, "u");
    EXPECT_EQ(std::any_cast<uint32_t>(map.at("advertSchema").second), 4u);
    EXPECT_EQ(map.at("powered").first, "b");
    EXPECT_FALSE(std::any_cast<bool>(map.at("powered").second));
    EXPECT_TRUE(capture.Lines().empty());
}

TEST(SettingsPropertiesChanged, APathEndingInASlashIsRejectedAsMalformed) {
    MessageFactory factory;
    Settingsd::SettingsDaemonDbusHandler handler(nullptr);
    Sink bluetooth;
    handler.SectionChanged("bluetooth").connect(sigc::mem_fun(bluetooth, &Sink::operator()));
    // "/" is the one valid object path that ends in '/'
    DbusHelper::Message m =
        Changed(factory, "/", [](sd_bus_message* m) { sd_bus_message_append(m, "{sv}", "powered", "b", 0); });
    Logging::Capture capture;
    EXPECT_EQ(Settingsd::SettingsDaemonDbusHandler::PropertiesChanged(m.get(), &handler, nullptr), -1);
    ASSERT_EQ(capture.Lines().size(), 1u);
    EXPECT_EQ(capture.Lines()[0].text, std::string(kSettingsChanged) + ": Mallformed path string");
    EXPECT_EQ(capture.Lines()[0].priority, LOG_ERR);
    EXPECT_TRUE(bluetooth.maps.empty());
}

TEST(SettingsPropertiesChanged, AMessageWithoutPathFailsToFindTheSlash) {
    MessageFactory factory;
    Settingsd::SettingsDaemonDbusHandler handler(nullptr);
    DbusHelper::Message m = factory.Return([](sd_bus_message* m) { sd_bus_message_append(m, "s", "x"); });
    Logging::Capture capture;
    EXPECT_EQ(Settingsd::SettingsDaemonDbusHandler::PropertiesChanged(m.get(), &handler, nullptr), -1);
    EXPECT_EQ(capture.Texts(),
              std::vector<std::string>{std::string(kSettingsChanged) + ": Failed to find / in path"});
}

TEST(SettingsPropertiesChanged, ASectionWithoutTableEntryIsDroppedSilently) {
    MessageFactory factory;
    Settingsd::SettingsDaemonDbusHandler handler(nullptr);
    std::vector<Sink> sinks(Settingsd::kSections.size());
    for (size_t i = 0; i < sinks.size(); ++i)
        handler.SectionChanged(Settingsd::kSections[i]).connect(sigc::mem_fun(sinks[i], &Sink::operator()));
    DbusHelper::Message m =
        Changed(factory, "/com/quorbel/common/Settings1/nosuchsection",
                [](sd_bus_message* m) { sd_bus_message_append(m, "{sv}", "powered", "b", 0); });
    Logging::Capture capture;
    EXPECT_EQ(Settingsd::SettingsDaemonDbusHandler::PropertiesChanged(m.get(), &handler, nullptr), 0);
    EXPECT_TRUE(capture.Lines().empty());
    for (const auto& sink : sinks)
        EXPECT_TRUE(sink.maps.empty());
}

TEST(SettingsPropertiesChanged, ABodyWithoutInterfaceNameFailsToSkipIt) {
    MessageFactory factory;
    Settingsd::SettingsDaemonDbusHandler handler(nullptr);
    DbusHelper::Message m = factory.Signal([](sd_bus_message* m) { sd_bus_message_append(m, "i", 3); },
                                           "/com/quorbel/common/Settings1/bluetooth");
    Logging::Capture capture;
    EXPECT_EQ(Settingsd::SettingsDaemonDbusHandler::PropertiesChanged(m.get(), &handler, nullptr), -1);
    EXPECT_EQ(capture.Texts(),
              std::vector<std::string>{std::string(kSettingsChanged) + ": Failed to skip interface string"});
}

TEST(SettingsPropertiesChanged, ABodyWithoutDictionaryFailsToParse) {
    MessageFactory factory;
    Settingsd::SettingsDaemonDbusHandler handler(nullptr);
    Sink bluetooth;
    handler.SectionChanged("bluetooth").connect(sigc::mem_fun(bluetooth, &Sink::operator()));
    DbusHelper::Message m =
        factory.Signal([](sd_bus_message* m) { sd_bus_message_append(m, "ss", "iface", "x"); },
                       "/com/quorbel/common/Settings1/bluetooth");
    Logging::Capture capture;
    EXPECT_EQ(Settingsd::SettingsDaemonDbusHandler::PropertiesChanged(m.get(), &handler, nullptr), -1);
    EXPECT_EQ(capture.Texts(), std::vector<std::string>{std::string(kSettingsChanged) +
                                                        ": ParsePropertiesWithType failed:-6"});
    EXPECT_TRUE(bluetooth.maps.empty());
}

TEST(SettingsHandler, TheTableHoldsEveryUnitSectionAndNothingElse) {
    Settingsd::SettingsDaemonDbusHandler handler(nullptr);
    for (const auto& section : Settingsd::kSections)
        EXPECT_TRUE(handler.HasSection(section)) << section;
    EXPECT_TRUE(handler.HasSection("bluetooth"));
    EXPECT_FALSE(handler.HasSection("nosuchsection"));
    EXPECT_THROW(handler.SectionChanged("nosuchsection"), std::out_of_range);
    EXPECT_FALSE(handler.HasSection("nosuchsection"));  // asking does not add it
}

// -------------------------------------------------------------------------------------------- network

TEST(NetworkPropertiesChanged, ChangesAreDeliveredWithTheirSignatures) {
    MessageFactory factory;
    Networkd::NetworkDaemonDbusHandler handler(nullptr);
    Sink sink;
    handler.PropertiesChanged().connect(sigc::mem_fun(sink, &Sink::operator()));
    DbusHelper::Message m = Changed(factory, "/com/quorbel/Network1", [](sd_bus_message* m) {
        sd_bus_message_append(m, "{sv}", "IPAddress", "s", "10.0.0.5");
        sd_bus_message_append(m, "{sv}", "SSID", "s", "");
        sd_bus_message_append(m, "{sv}", "WiFiState", "u", 2u);
    });
    EXPECT_EQ(Networkd::NetworkDaemonDbusHandler::NetworkPropertiesChanged(m.get(), &handler, nullptr), 0);
    ASSERT_EQ(sink.maps.size(), 1u);
    EXPECT_EQ(sink.maps[0].at("IPAddress").first, "s");
    EXPECT_EQ(std::any_cast<std::string>(sink.maps[0].at("IPAddress").second), "10.0.0.5");
    EXPECT_EQ(std::any_cast<std::string>(sink.maps[0].at("SSID").second), "");
    EXPECT_EQ(sink.maps[0].at("WiFiState").first, "u");
}

TEST(NetworkPropertiesChanged, FailuresAreLoggedAndNothingIsDelivered) {
    MessageFactory factory;
    Networkd::NetworkDaemonDbusHandler handler(nullptr);
    Sink sink;
    handler.PropertiesChanged().connect(sigc::mem_fun(sink, &Sink::operator()));
    Logging::Capture capture;
    DbusHelper::Message noInterface =
        factory.Signal([](sd_bus_message* m) { sd_bus_message_append(m, "u", 1u); });
    EXPECT_LT(
        Networkd::NetworkDaemonDbusHandler::NetworkPropertiesChanged(noInterface.get(), &handler, nullptr),
        0);
    DbusHelper::Message noDictionary =
        factory.Signal([](sd_bus_message* m) { sd_bus_message_append(m, "su", "x", 1u); });
    EXPECT_EQ(
        Networkd::NetworkDaemonDbusHandler::NetworkPropertiesChanged(noDictionary.get(), &handler, nullptr),
        -1);
    EXPECT_EQ(capture.Texts(), (std::vector<std::string>{
                                   std::string(kNetworkChanged) + ": Failed to skip interface string",
                                   std::string(kNetworkChanged) + ": ParsePropertiesWithType failed:-6"}));
    for (const auto& line : capture.Lines())
        EXPECT_EQ(line.priority, LOG_ERR);
    EXPECT_TRUE(sink.maps.empty());
}

TEST(NetworkAccessPoint, IsBuiltFromTheStructFieldsInOrder) {
    const auto ap = Networkd::AccessPoint::From({"unit-ap", 6, -40, true});
    EXPECT_EQ(ap.ssid, "unit-ap");
    EXPECT_EQ(ap.channel, 6);
    EXPECT_EQ(ap.signal, -40);
    EXPECT_TRUE(ap.secured);
}

// ---------------------------------------------------------------------------------------------- power

TEST(PowerPropertiesChanged, BatteryChangesArriveAsIntAndArrayTypes) {
    MessageFactory factory;
    Pylond::PylonDaemonDbusHandler handler(nullptr);
    Sink power;
    Sink cooling;
    handler.PowerSignal().connect(sigc::mem_fun(power, &Sink::operator()));
    handler.CoolingSignal().connect(sigc::mem_fun(cooling, &Sink::operator()));
    DbusHelper::Message m = Changed(factory, "/com/quorbel/common/Pylon1/power", [](sd_bus_message* m) {
        sd_bus_message_append(m, "{sv}", "ActivePowerSource", "i", 1);
        sd_bus_message_append(m, "{sv}", "BatteryVoltages", "ai", 2, 17500, 16000);
        sd_bus_message_append(m, "{sv}", "BatteryTypes", "au", 1, 2u);
    });
    EXPECT_EQ(Pylond::PylonDaemonDbusHandler::PowerPropertiesChanged(m.get(), &handler, nullptr), 0);
    ASSERT_EQ(power.maps.size(), 1u);
    EXPECT_TRUE(cooling.maps.empty());
    const auto& map = power.maps[0];
    EXPECT_EQ(map.at("ActivePowerSource").first, "i");
    EXPECT_EQ(std::any_cast<int32_t>(map.at("ActivePowerSource").second), 1);
    EXPECT_EQ(map.at("BatteryVoltages").first, "ai");
    EXPECT_EQ(std::any_cast<std::vector<int32_t>>(map.at("BatteryVoltages").second),
              (std::vector<int32_t>{17500, 16000}));
    EXPECT_EQ(map.at("BatteryTypes").first, "au");
    EXPECT_EQ(std::any_cast<std::vector<uint32_t>>(map.at("BatteryTypes").second), std::vector<uint32_t>{2});
}

TEST(PowerPropertiesChanged, EachCallbackFeedsItsOwnSignal) {
    MessageFactory factory;
    Pylond::PylonDaemonDbusHandler handler(nullptr);
    Sink reel, firmware, distance, cooling, power;
    handler.ReelSignal().connect(sigc::mem_fun(reel, &Sink::operator()));
    handler.ReelFirmwareSignal().connect(sigc::mem_fun(firmware, &Sink::operator()));
    handler.ReelDistanceSignal().connect(sigc::mem_fun(distance, &Sink::operator()));
    handler.CoolingSignal().connect(sigc::mem_fun(cooling, &Sink::operator()));
    handler.PowerSignal().connect(sigc::mem_fun(power, &Sink::operator()));
    auto call = [&](int (*callback)(sd_bus_message*, void*, sd_bus_error*)) {
        DbusHelper::Message m =
            Changed(factory, "/x", [](sd_bus_message* m) { sd_bus_message_append(m, "{sv}", "K", "i", 1); });
        EXPECT_EQ(callback(m.get(), &handler, nullptr), 0);
    };
    call(&Pylond::PylonDaemonDbusHandler::ReelPropertiesChanged);
    call(&Pylond::PylonDaemonDbusHandler::ReelFirmwarePropertiesChanged);
    call(&Pylond::PylonDaemonDbusHandler::ReelFirmwarePropertiesChanged);
    call(&Pylond::PylonDaemonDbusHandler::ReelDistancePropertiesChanged);
    call(&Pylond::PylonDaemonDbusHandler::CoolingPropertiesChanged);
    EXPECT_EQ(reel.maps.size(), 1u);
    EXPECT_EQ(firmware.maps.size(), 2u);
    EXPECT_EQ(distance.maps.size(), 1u);
    EXPECT_EQ(cooling.maps.size(), 1u);
    EXPECT_TRUE(power.maps.empty());
}

TEST(PowerPropertiesChanged, FailuresAreLogged) {
    MessageFactory factory;
    Pylond::PylonDaemonDbusHandler handler(nullptr);
    Logging::Capture capture;
    DbusHelper::Message noInterface =
        factory.Signal([](sd_bus_message* m) { sd_bus_message_append(m, "u", 1u); });
    EXPECT_LT(Pylond::PylonDaemonDbusHandler::PowerPropertiesChanged(noInterface.get(), &handler, nullptr),
              0);
    DbusHelper::Message noDictionary =
        factory.Signal([](sd_bus_message* m) { sd_bus_message_append(m, "su", "x", 1u); });
    EXPECT_EQ(Pylond::PylonDaemonDbusHandler::PowerPropertiesChanged(noDictionary.get(), &handler, nullptr),
              -1);
    EXPECT_EQ(capture.Texts(),
              (std::vector<std::string>{std::string(kPowerChanged) + ": Failed to skip interface string",
                                        std::string(kPowerChanged) + ": ParsePropertiesWithType failed:-6"}));
}

TEST(PylonSignals, VideoKeyAndObjectManagerSignalsAreForwarded) {
    MessageFactory factory;
    Pylond::PylonDaemonDbusHandler handler(nullptr);
    std::vector<uint32_t> video;
    std::vector<std::vector<int32_t>> keys;
    std::vector<std::string> added, removed;
    handler.VideoStatusChangedSignal().connect([&](uint32_t v) { video.push_back(v); });
    handler.KeyPressEventSignal().connect([&](int32_t a, int32_t b, int32_t c) {
        keys.push_back({a, b, c});
    });
    handler.InterfacesAddedSignal().connect([&](const std::string& p) { added.push_back(p); });
    handler.InterfacesRemovedSignal().connect([&](const std::string& p) { removed.push_back(p); });

    DbusHelper::Message m = factory.Signal([](sd_bus_message* m) { sd_bus_message_append(m, "u", 3u); });
    EXPECT_EQ(Pylond::PylonDaemonDbusHandler::VideoStatusChangedHandler(m.get(), &handler, nullptr), 0);
    m = factory.Signal([](sd_bus_message* m) { sd_bus_message_append(m, "iii", 4, 1, -2); });
    EXPECT_EQ(Pylond::PylonDaemonDbusHandler::KeyPressEventHandler(m.get(), &handler, nullptr), 0);
    m = factory.Signal([](sd_bus_message* m) {
        sd_bus_message_append(m, "oa{sa{sv}}", "/com/quorbel/common/Pylon1/reel", 1,
                              "com.quorbel.common.Pylon1.reel", 1, "Connected", "b", 1);
    });
    EXPECT_EQ(Pylond::PylonDaemonDbusHandler::InterfacesAddedHandler(m.get(), &handler, nullptr), 0);
    m = factory.Signal([](sd_bus_message* m) {
        sd_bus_message_append(m, "oas", "/com/quorbel/common/Pylon1/reel", 1,
                              "com.quorbel.common.Pylon1.reel");
    });
    EXPECT_EQ(Pylond::PylonDaemonDbusHandler::InterfacesRemovedHandler(m.get(), &handler, nullptr), 0);

    EXPECT_EQ(video, std::vector<uint32_t>{3});
    EXPECT_EQ(keys, (std::vector<std::vector<int32_t>>{{4, 1, -2}}));
    EXPECT_EQ(added, std::vector<std::string>{"/com/quorbel/common/Pylon1/reel"});
    EXPECT_EQ(removed, std::vector<std::string>{"/com/quorbel/common/Pylon1/reel"});

    // wrongly typed bodies are logged and forward nothing
    Logging::Capture capture;
    m = factory.Signal([](sd_bus_message* m) { sd_bus_message_append(m, "s", "x"); });
    EXPECT_LT(Pylond::PylonDaemonDbusHandler::VideoStatusChangedHandler(m.get(), &handler, nullptr), 0);
    EXPECT_LT(Pylond::PylonDaemonDbusHandler::KeyPressEventHandler(m.get(), &handler, nullptr), 0);
    m = factory.Signal([](sd_bus_message* m) { sd_bus_message_append(m, "u", 1u); });
    EXPECT_LT(Pylond::PylonDaemonDbusHandler::InterfacesAddedHandler(m.get(), &handler, nullptr), 0);
    EXPECT_LT(Pylond::PylonDaemonDbusHandler::InterfacesRemovedHandler(m.get(), &handler, nullptr), 0);
    EXPECT_EQ(capture.Lines().size(), 4u);
    EXPECT_EQ(video.size() + keys.size() + added.size() + removed.size(), 4u);
}
