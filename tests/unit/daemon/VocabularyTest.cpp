#include <gtest/gtest.h>

#include "vocabulary/Vocabulary.h"

TEST(Vocabulary, DeviceTypesOneToNineHaveTheirDisplayNames) {
    const std::map<DeviceType, std::string> expected = {
        {1, "Arbor"}, {2, "Basalt"},  {3, "Cobalt"}, {4, "Dune"},   {5, "Ember"},
        {6, "Fjord"}, {7, "KelpCam"}, {8, "Garnet"}, {9, "Harbor"},
    };
    EXPECT_EQ(DeviceTypeNames, expected);
    EXPECT_EQ(kRemoteCameraDeviceType, 7);
}

TEST(Vocabulary, BatteryCodesTwoAndThreeShareTheirName) {
    EXPECT_EQ(BatteryStatusNames.at(2), "Partially Empty");
    EXPECT_EQ(BatteryStatusNames.at(3), "Partially Empty");
    EXPECT_EQ(BatteryStatusNames.at(0), "Critical");
    EXPECT_EQ(BatteryStatusNames.at(1), "Low");
    EXPECT_EQ(BatteryStatusNames.at(4), "Full");
    EXPECT_EQ(BatteryStatusNames.size(), 5u);
}

TEST(Vocabulary, DeviceTypesZeroAndTenHaveNoNameAndLookingThemUpAddsNothing) {
    EXPECT_EQ(DeviceTypeNames.find(0), DeviceTypeNames.end());
    EXPECT_EQ(DeviceTypeNames.find(10), DeviceTypeNames.end());
    EXPECT_EQ(NameOr(DeviceTypeNames, 0), "Unknown");
    EXPECT_EQ(NameOr(DeviceTypeNames, 10), "Unknown");
    EXPECT_EQ(DeviceTypeNames.size(), 9u);
}

TEST(Vocabulary, StateLettersAreCaseSensitive) {
    EXPECT_EQ(NameOr(PowerStateNames, 'Z'), "On");
    EXPECT_EQ(NameOr(PowerStateNames, 'z'), "Unknown");
    EXPECT_EQ(NameOr(PowerStateNames, 'U'), "Off");
    EXPECT_EQ(NameOr(PowerStateNames, 'Y'), "Standby");
    EXPECT_EQ(NameOr(WiFiStateNames, 'G'), "Unavailable");
    EXPECT_EQ(NameOr(WiFiStateNames, 'B'), "Booting");
    EXPECT_EQ(NameOr(WiFiStateNames, 'R'), "Ready");
    EXPECT_EQ(NameOr(WiFiStateNames, 'C'), "Connected");
    EXPECT_EQ(NameOr(WiFiStateNames, 'r'), "Unknown");
    EXPECT_EQ(PowerStateNames.size(), 3u);
    EXPECT_EQ(WiFiStateNames.size(), 4u);
}

TEST(Vocabulary, SettingsLocationAndSafeDefaults) {
    EXPECT_STREQ(SettingsObjectPath, "/com/quorbel/common/Settings1");
    EXPECT_STREQ(BluetoothSettingsSection, "bluetooth");
    using namespace BluetoothSettings;
    EXPECT_STREQ(AdvertSchema, "advertSchema");
    EXPECT_STREQ(AutoScanRateSecs, "autoScanRateSecs");
    EXPECT_STREQ(AdvertisingEnabled, "advertisingEnabled");
    EXPECT_STREQ(AutoScanEnabled, "autoScanEnabled");
    EXPECT_STREQ(Discoverable, "discoverable");
    EXPECT_STREQ(Pairable, "pairable");
    EXPECT_STREQ(Powered, "powered");
    EXPECT_STREQ(SystemCallDebug, "systemCallDebug");
    EXPECT_EQ(DefaultAdvertSchema, 3u);
    EXPECT_EQ(DefaultAutoScanRateSecs, 10u);
    EXPECT_TRUE(DefaultAdvertisingEnabled);
    EXPECT_TRUE(DefaultAutoScanEnabled);
    EXPECT_FALSE(DefaultDiscoverable);
    EXPECT_TRUE(DefaultPairable);
    EXPECT_TRUE(DefaultPowered);
    EXPECT_FALSE(DefaultSystemCallDebug);
}
