// Construction, settings, Initialise and the application of the settings.
#include <algorithm>
#include <any>
#include <string>
#include <vector>

#include "PayloadSchema.h"
#include "test_support/ControllerFixture.h"
#include "test_support/ControllerProbe.h"

using namespace ControllerTest;
using Journal = ControllerTest::Journal;

namespace {
constexpr const char* kCtor = "BluetoothController::BluetoothController(sd_event*): ";

}  // namespace

class Configuration : public ControllerFixture {};

TEST_F(Configuration, ConstructionFollowsTheSiblingsInOrderAndTouchesNoBackend) {
    Make();
    EXPECT_EQ(*journal, (Journal{"listen settings", "follow com.quorbel.common.Settings1", "listen power",
                                 "follow com.quorbel.common.Pylon1", "read power", "listen network",
                                 "follow com.quorbel.Network1", "read network"}));
    EXPECT_TRUE(radio->calls.empty());
    EXPECT_TRUE(advertiser->calls.empty());
    EXPECT_EQ(scanner->ScanCalls(), 0);
    EXPECT_FALSE(controller->IsInitialised());
    EXPECT_EQ(ControllerProbe::Radio(*controller), nullptr);
    // created disarmed
    EXPECT_FALSE(controller->AutoScanArmed());
    EXPECT_EQ(controller->AutoScanDueUsec(), UINT64_MAX);
}

TEST_F(Configuration, FailedListenersAndReadsAreLoggedAndConstructionGoesOn) {
    listenResult = -ECONNREFUSED;
    Logging::Capture capture;
    Make();
    const std::string prefix = kCtor;
    for (const char* line :
         {"Failed to register SettingsDaemon d-bus listener", "Failed to register PylonDaemon d-bus listener",
          "Failed to GetAllPowerProperties from PylonDaemon",
          "Failed to register NetworkDaemon d-bus listener",
          "Failed to GetAllNetworkProperties from NetworkDaemon"}) {
        EXPECT_EQ(capture.Count(prefix + line, LOG_ERR), 1u) << line;
    }
    EXPECT_TRUE(capture.Contains("Configuration from settings:"));
}

TEST_F(Configuration, InitialPropertyMapsReachTheReceivers) {
    powerReadResult = 0;
    powerProperties = Map({{"ActivePowerSource", {"i", int32_t{2}}}});
    networkReadResult = 0;
    networkProperties =
        Map({{"IPAddress", {"s", std::string("192.168.1.20")}}, {"SSID", {"s", std::string("Lab")}}});
    Logging::Capture capture;
    Make();
    EXPECT_EQ(ScanResponse::Utils::ThisDevice::StoredPowerState().activePowerSource, 2);
    EXPECT_EQ(ScanResponse::Utils::ThisDevice::IPAddress(), 2307u);
    EXPECT_EQ(ScanResponse::Utils::ThisDevice::SSID(), "Lab");
    EXPECT_FALSE(capture.Contains(std::string(kCtor) + "Failed to GetAllPowerProperties from PylonDaemon"));
}

TEST_F(Configuration, TheConfigurationBlockIsLoggedExactly) {
    numbers = {{"advertSchema", 4}, {"autoScanRateSecs", 30}};
    flags = {{"powered", true},         {"pairable", false},    {"autoScanEnabled", false},
             {"systemCallDebug", true}, {"discoverable", true}, {"advertisingEnabled", false}};
    Logging::Capture capture;
    Make();
    const std::vector<std::string> block = {
        "Configuration from settings:", "Scan Response Version:  4",     "Scan Rate Seconds:      30",
        "Power Enabled:          true", "Pairable Enabled:       false", "Auto Scan Enabled:      false",
        "System() Debug Enabled: true",
    };
    const auto texts = capture.Texts();
    auto start = std::find(texts.begin(), texts.end(), block.front());
    ASSERT_NE(start, texts.end());
    ASSERT_GE(static_cast<size_t>(texts.end() - start), block.size());
    EXPECT_EQ(std::vector<std::string>(start, start + static_cast<long>(block.size())), block);
    for (const auto& line : capture.Lines()) {
        if (std::find(block.begin(), block.end(), line.text) != block.end()) {
            EXPECT_EQ(line.priority, LOG_INFO) << line.text;
        }
    }
    EXPECT_EQ(controller->GetScanResponseVersion(), 4u);
    EXPECT_EQ(controller->GetAutoScanRateSecs(), 30u);
    EXPECT_FALSE(controller->GetAdvertisingEnabled());
    EXPECT_FALSE(controller->GetAutoScanEnabled());
}

TEST_F(Configuration, UnreadableSettingsGiveTheSafeDefaults) {
    Make();
    EXPECT_EQ(controller->GetScanResponseVersion(), 3u);
    EXPECT_EQ(controller->GetAutoScanRateSecs(), 10u);
    EXPECT_TRUE(controller->GetAdvertisingEnabled());
    EXPECT_TRUE(controller->GetAutoScanEnabled());
}

TEST_F(Configuration, InitialiseAppliesThePowerOnPathInOrder) {
    flags = {{"discoverable", true}, {"pairable", false}, {"systemCallDebug", true}};
    Make();
    journal->clear();
    EXPECT_TRUE(controller->Initialise());
    EXPECT_TRUE(controller->IsInitialised());
    EXPECT_EQ(*journal, (Journal{"radio powered on", "radio discoverable on", "radio pairable off",
                                 "advertiser start"}));
    EXPECT_TRUE(advertiser->GetSystemCallDebug());
    EXPECT_TRUE(IsV3(advertiser->GetScanResponse()));
    EXPECT_NE(ControllerProbe::CameraManager(*controller), nullptr);
    EXPECT_TRUE(controller->AutoScanArmed());
    EXPECT_NE(controller->AutoScanDueUsec(), UINT64_MAX);
}

TEST_F(Configuration, AnUnusableBackendLeavesTheControllerDown) {
    for (int which = 0; which < 3; ++which) {
        radio->usable = which != 0;
        scanner->usable = which != 1;
        advertiser->usable = which != 2;
        Make();
        journal->clear();
        EXPECT_FALSE(controller->Initialise()) << which;
        EXPECT_FALSE(controller->IsInitialised()) << which;
        EXPECT_TRUE(journal->empty()) << which;
        EXPECT_EQ(ControllerProbe::CameraManager(*controller), nullptr) << which;
        EXPECT_FALSE(controller->AutoScanArmed()) << which;
    }
}

TEST_F(Configuration, PoweredFalseAtStartSwitchesNothingOn) {
    flags = {{"powered", false}};
    radio->powered = false;
    Make();
    journal->clear();
    EXPECT_TRUE(controller->Initialise());
    // the power-off path: advertising (enabled) is stopped, the timer stopped, the radio left alone
    EXPECT_EQ(*journal, (Journal{"advertiser stop"}));
    EXPECT_TRUE(radio->calls.empty());
    EXPECT_FALSE(radio->powered);
    EXPECT_FALSE(advertiser->IsAdvertising());
    EXPECT_FALSE(controller->AutoScanArmed());
    EXPECT_EQ(controller->AutoScanDueUsec(), UINT64_MAX);
}

TEST_F(Configuration, PoweredFalseLaterStopsAdvertisingAndScanningButNeverSwitchesTheRadioOff) {
    MakeInitialised();
    ASSERT_TRUE(controller->AutoScanArmed());
    auto settings = Map({{"powered", {"b", false}}});
    controller->SettingsChanged(settings);
    EXPECT_EQ(*journal, (Journal{"advertiser stop"}));
    EXPECT_TRUE(radio->powered);
    EXPECT_FALSE(controller->AutoScanArmed());
    EXPECT_EQ(controller->AutoScanDueUsec(), UINT64_MAX);
}

TEST_F(Configuration, PowerOffPathWithAdvertisingAndAutoScanDisabledDoesNothing) {
    flags = {{"powered", false}, {"advertisingEnabled", false}, {"autoScanEnabled", false}};
    Make();
    journal->clear();
    EXPECT_TRUE(controller->Initialise());
    EXPECT_TRUE(journal->empty());
}

TEST_F(Configuration, UnknownKeysStillReapplyTheWholeConfiguration) {
    MakeInitialised();
    auto settings = Map({{"name", {"s", std::string("unit 7")}}, {"brightness", {"u", uint32_t{9}}}});
    Logging::Capture capture;
    controller->SettingsChanged(settings);
    EXPECT_EQ(*journal, (Journal{"radio powered on", "radio discoverable off", "radio pairable on",
                                 "advertiser stop", "advertiser start"}));
    EXPECT_EQ(
        capture.Texts(),
        (std::vector<std::string>{"void BluetoothController::SettingsChanged(sdbus_utils::TypedPropertyMap&)",
                                  "name: brightness", "name: name"}));
    EXPECT_TRUE(controller->AutoScanArmed());
}

TEST_F(Configuration, AnEmptySettingsSignalReappliesTooAndLogsOnlyItsName) {
    MakeInitialised();
    sdbus_utils::TypedPropertyMap settings;
    Logging::Capture capture;
    controller->SettingsChanged(settings);
    EXPECT_EQ(journal->size(), 5u);
    EXPECT_EQ(capture.Texts(),
              std::vector<std::string>{
                  "void BluetoothController::SettingsChanged(sdbus_utils::TypedPropertyMap&)"});
}

TEST_F(Configuration, AdvertSchemaOfAnotherSignatureIsIgnoredAndAsUIsStoredAndBuilt) {
    MakeInitialised();
    auto asInt = Map({{"advertSchema", {"i", int32_t{4}}}});
    controller->SettingsChanged(asInt);
    EXPECT_EQ(controller->GetScanResponseVersion(), 3u);
    EXPECT_TRUE(IsV3(advertiser->GetScanResponse()));
    auto asUnsigned = Map({{"advertSchema", {"u", uint32_t{4}}}});
    controller->SettingsChanged(asUnsigned);
    EXPECT_EQ(controller->GetScanResponseVersion(), 4u);
    EXPECT_TRUE(IsV4(advertiser->GetScanResponse()));
}

TEST_F(Configuration, EveryKeyOfTheTableIsStoredUnderItsSignature) {
    MakeInitialised();
    auto settings = Map({{"advertSchema", {"u", uint32_t{4}}},
                         {"autoScanRateSecs", {"u", uint32_t{42}}},
                         {"advertisingEnabled", {"b", false}},
                         {"autoScanEnabled", {"b", false}},
                         {"discoverable", {"b", true}},
                         {"pairable", {"b", false}},
                         {"systemCallDebug", {"b", true}}});
    controller->SettingsChanged(settings);
    EXPECT_EQ(controller->GetScanResponseVersion(), 4u);
    EXPECT_EQ(controller->GetAutoScanRateSecs(), 42u);
    EXPECT_FALSE(controller->GetAdvertisingEnabled());
    EXPECT_FALSE(controller->GetAutoScanEnabled());
    EXPECT_TRUE(advertiser->GetSystemCallDebug());
    // stored flags reach the radio and the advertiser through the re-application
    EXPECT_EQ(*journal, (Journal{"radio powered on", "radio discoverable on", "radio pairable off",
                                 "advertiser stop"}));
    EXPECT_FALSE(controller->AutoScanArmed());
}

TEST_F(Configuration, AFlagSentWithAnotherSignatureIsSkipped) {
    MakeInitialised();
    auto settings = Map({{"advertisingEnabled", {"i", int32_t{0}}}, {"autoScanRateSecs", {"b", true}}});
    controller->SettingsChanged(settings);
    EXPECT_TRUE(controller->GetAdvertisingEnabled());
    EXPECT_EQ(controller->GetAutoScanRateSecs(), 10u);
}

TEST_F(Configuration, AValueOfTheWrongTypeBehindTheRightSignatureThrows) {
    MakeInitialised();
    auto settings = Map({{"powered", {"b", std::string("yes")}}});
    EXPECT_THROW(controller->SettingsChanged(settings), std::bad_any_cast);
}

TEST_F(Configuration, SetAdvertisingEnabledActsOnlyOnAChange) {
    MakeInitialised();
    controller->SetAdvertisingEnabled(true);
    EXPECT_TRUE(journal->empty());
    controller->SetAdvertisingEnabled(false);
    EXPECT_EQ(*journal, Journal{"advertiser stop"});
    controller->SetAdvertisingEnabled(false);
    EXPECT_EQ(*journal, Journal{"advertiser stop"});
    // the radio's power setting is not consulted
    auto off = Map({{"powered", {"b", false}}});
    controller->SettingsChanged(off);
    journal->clear();
    controller->SetAdvertisingEnabled(true);
    EXPECT_EQ(*journal, Journal{"advertiser start"});
    EXPECT_TRUE(controller->GetAdvertisingEnabled());
}

TEST_F(Configuration, TheBusReturningListensAgainAndReadsWhatTheSiblingsHoldNow) {
    MakeInitialised();
    powerReadResult = 0;
    powerProperties = Map({{"ActivePowerSource", {"i", int32_t{1}}}});
    networkReadResult = 0;
    networkProperties = Map({{"SSID", {"s", std::string("Field")}}});
    settingsReadResult = 0;
    controller->SiblingBusReturned();
    // the fakes' listeners never hold a connection, so every one listens again
    EXPECT_EQ(*journal,
              (Journal{"listen settings", "follow com.quorbel.common.Settings1", "listen power",
                       "follow com.quorbel.common.Pylon1", "listen network", "follow com.quorbel.Network1",
                       "read power", "read network", "read settings"}));
    EXPECT_EQ(ScanResponse::Utils::ThisDevice::StoredPowerState().activePowerSource, 1);
    EXPECT_EQ(ScanResponse::Utils::ThisDevice::SSID(), "Field");
}

TEST_F(Configuration, TheBusReturningAppliesOnlySettingsThatDifferThroughTheChangePath) {
    numbers = {{"autoScanRateSecs", 30}};
    MakeInitialised();
    settingsReadResult = 0;
    settingsSection = Map({{"autoScanRateSecs", {"u", uint32_t{30}}},
                           {"autoScanEnabled", {"b", false}},
                           {"pairable", {"b", true}},
                           {"someOtherKey", {"s", std::string("x")}}});
    Logging::Capture capture;
    controller->SiblingBusReturned();
    EXPECT_TRUE(
        capture.Contains("void BluetoothController::SettingsChanged(sdbus_utils::TypedPropertyMap&)"));
    EXPECT_EQ(capture.Count("name: autoScanEnabled", LOG_INFO), 1u);
    EXPECT_EQ(capture.Count("name: autoScanRateSecs", LOG_INFO), 0u);
    EXPECT_EQ(capture.Count("name: pairable", LOG_INFO), 0u);
    EXPECT_EQ(capture.Count("name: someOtherKey", LOG_INFO), 0u);
    EXPECT_FALSE(controller->GetAutoScanEnabled());
    EXPECT_FALSE(controller->AutoScanArmed());
}

TEST_F(Configuration, TheBusReturningWithSettingsAsTheyWereAppliesNothing) {
    MakeInitialised();
    settingsReadResult = 0;
    settingsSection = Map({{"advertSchema", {"u", uint32_t{3}}}, {"powered", {"b", true}}});
    Logging::Capture capture;
    controller->SiblingBusReturned();
    EXPECT_FALSE(
        capture.Contains("void BluetoothController::SettingsChanged(sdbus_utils::TypedPropertyMap&)"));
    EXPECT_TRUE(radio->calls.empty());
    EXPECT_TRUE(advertiser->calls.empty());
}

TEST_F(Configuration, TheBusReturningWithSiblingsStillAwayKeepsWhatTheControllerHas) {
    flags = {{"autoScanEnabled", false}};
    MakeInitialised();
    listenResult = -ECONNREFUSED;
    Logging::Capture capture;
    controller->SiblingBusReturned();
    for (const char* sibling : {"SettingsDaemon", "PylonDaemon", "NetworkDaemon"})
        EXPECT_EQ(capture.Count(
                      std::string("SiblingBusReturned: Failed to register ") + sibling + " d-bus listener",
                      LOG_ERR),
                  1u)
            << sibling;
    EXPECT_FALSE(
        capture.Contains("void BluetoothController::SettingsChanged(sdbus_utils::TypedPropertyMap&)"));
    EXPECT_FALSE(controller->GetAutoScanEnabled());
    EXPECT_TRUE(radio->calls.empty());
}

TEST_F(Configuration, AListenerThatFailedFollowsNoName) {
    listenResult = -ECONNREFUSED;
    Make();
    EXPECT_EQ(*journal,
              (Journal{"listen settings", "listen power", "read power", "listen network", "read network"}));
    EXPECT_TRUE(siblingAppeared.empty());
}

TEST_F(Configuration, AFollowThatFailsIsLoggedAndConstructionGoesOn) {
    followResult = -ENOMEM;
    Logging::Capture capture;
    Make();
    EXPECT_EQ(capture.Count(std::string(kCtor) + "Failed to follow com.quorbel.common.Settings1", LOG_ERR),
              1u);
    EXPECT_EQ(capture.Count(std::string(kCtor) + "Failed to follow com.quorbel.common.Pylon1", LOG_ERR), 1u);
    EXPECT_EQ(capture.Count(std::string(kCtor) + "Failed to follow com.quorbel.Network1", LOG_ERR), 1u);
    EXPECT_TRUE(controller->Initialise());
}

TEST_F(Configuration, ASiblingThatStartsLaterIsReadAsItStarts) {
    MakeInitialised();
    ASSERT_EQ(siblingAppeared.size(), 3u);
    settingsReadResult = 0;
    settingsSection = Map({{"advertisingEnabled", {"b", false}}});
    Logging::Capture capture;
    siblingAppeared.at("com.quorbel.common.Settings1")();
    ASSERT_FALSE(journal->empty());
    EXPECT_EQ(journal->front(), "read settings");
    EXPECT_EQ(std::count(journal->begin(), journal->end(), "read settings"), 1);
    EXPECT_EQ(capture.Count("name: advertisingEnabled", LOG_INFO), 1u);
    EXPECT_FALSE(controller->GetAdvertisingEnabled());

    journal->clear();
    powerReadResult = 0;
    powerProperties = Map({{"ActivePowerSource", {"i", int32_t{3}}}});
    siblingAppeared.at("com.quorbel.common.Pylon1")();
    EXPECT_EQ(ScanResponse::Utils::ThisDevice::StoredPowerState().activePowerSource, 3);
    networkReadResult = 0;
    networkProperties = Map({{"IPAddress", {"s", std::string("10.0.0.7")}}});
    siblingAppeared.at("com.quorbel.Network1")();
    EXPECT_EQ(*journal, (Journal{"read power", "read network"}));
}
