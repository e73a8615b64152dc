#include <gtest/gtest.h>

#include <set>

#include "JsonKeys.h"
#include "scanned_device/ScannedDevice.h"

using nlohmann::json;

namespace {

void FillAsPhone(ScannedDevice::Base& device) {
    device.SetClass(0x5A020C);
    device.SetClassName("Phone");
    device.SetRssi(-71);
    device.SetName("Pixel");
    device.SetMac("AA:BB:CC:DD:EE:FF");
    device.SetPaired(true);
    device.SetTrusted(false);
}

}  // namespace

TEST(ScannedDeviceBase, NewRecordIsGenericAndEmpty) {
    const ScannedDevice::Base device;
    EXPECT_EQ(device.Type(), 0);
    EXPECT_EQ(device.TypeName(), "Generic");
    EXPECT_EQ(device.Class(), 0u);
    EXPECT_EQ(device.Rssi(), 0);
    EXPECT_FALSE(device.Paired());
    EXPECT_FALSE(device.Trusted());
    EXPECT_EQ(device.Name(), "");
    EXPECT_EQ(device.Mac(), "");
    EXPECT_EQ(device.ClassName(), "");
    EXPECT_EQ(device.MissCredit(), 0);
    EXPECT_FALSE(device.Seen());
}

TEST(ScannedDeviceBase, CarriesTheThreeTypeNames) {
    const ScannedDevice::Base device;
    const std::map<int, std::string> expected = {{0, "Generic"}, {1, "RemoteCamera"}, {2, "HID"}};
    EXPECT_EQ(device.TypeNames(), expected);
}

TEST(ScannedDeviceBase, TypeNameFollowsTheTypeAndFallsBackToUnknown) {
    ScannedDevice::Base device;
    device.SetType(ScannedDevice::kHidType);
    EXPECT_EQ(device.TypeName(), "HID");
    device.SetType(ScannedDevice::kRemoteCameraType);
    EXPECT_EQ(device.TypeName(), "RemoteCamera");
    device.SetType(3);
    EXPECT_EQ(device.TypeName(), "Unknown");
    device.SetType(-1);
    EXPECT_EQ(device.TypeName(), "Unknown");
    EXPECT_EQ(device.TypeNames().size(), 3u);  // looking up did not add entries
}

TEST(ScannedDeviceBase, AccessorsKeepWhatWasSet) {
    ScannedDevice::Base device;
    FillAsPhone(device);
    EXPECT_EQ(device.Class(), 0x5A020Cu);
    EXPECT_EQ(device.ClassName(), "Phone");
    EXPECT_EQ(device.Rssi(), -71);
    EXPECT_EQ(device.Name(), "Pixel");
    EXPECT_EQ(device.Mac(), "AA:BB:CC:DD:EE:FF");
    EXPECT_TRUE(device.Paired());
    EXPECT_FALSE(device.Trusted());
    device.SetTrusted(true);
    EXPECT_TRUE(device.Trusted());
    device.SetMissCredit(2);
    device.SetSeen(true);
    EXPECT_EQ(device.MissCredit(), 2);
    EXPECT_TRUE(device.Seen());
}

TEST(ScannedDeviceClassName, NamesEveryAssignedMajorClass) {
    EXPECT_EQ(ScannedDevice::ClassNameFor(0x000000), "Miscellaneous");
    EXPECT_EQ(ScannedDevice::ClassNameFor(0x00010C), "Computer");
    EXPECT_EQ(ScannedDevice::ClassNameFor(0x5A020C), "Phone");
    EXPECT_EQ(ScannedDevice::ClassNameFor(0x020300), "Network Access Point");
    EXPECT_EQ(ScannedDevice::ClassNameFor(0x240404), "Audio/Video");
    EXPECT_EQ(ScannedDevice::ClassNameFor(0x002540), "Peripheral");
    EXPECT_EQ(ScannedDevice::ClassNameFor(0x000680), "Imaging");
    EXPECT_EQ(ScannedDevice::ClassNameFor(0x000704), "Wearable");
    EXPECT_EQ(ScannedDevice::ClassNameFor(0x000804), "Toy");
    EXPECT_EQ(ScannedDevice::ClassNameFor(0x000904), "Health");
    EXPECT_EQ(ScannedDevice::ClassNameFor(0x001F00), "Uncategorized");
}

TEST(ScannedDeviceClassName, ReservedMajorClassesAreUnknown) {
    EXPECT_EQ(ScannedDevice::ClassNameFor(0x000A00), "Unknown");
    EXPECT_EQ(ScannedDevice::ClassNameFor(0x001E00), "Unknown");
}

TEST(ScannedDeviceClassName, OnlyTheMajorClassBitsCount) {
    // Service-class and minor bits set everywhere, major class bits (8..12) zero or Imaging.
    EXPECT_EQ(ScannedDevice::ClassNameFor(0xFFE0FF), "Miscellaneous");
    EXPECT_EQ(ScannedDevice::ClassNameFor(0xFFE6FF), "Imaging");
    EXPECT_EQ(ScannedDevice::ClassNameFor(0xFF00061Cu), "Imaging");
}

TEST(ScannedDeviceClassName, DeriveClassNameUsesTheClassField) {
    ScannedDevice::Base device;
    device.SetClass(0x000680);
    EXPECT_EQ(device.ClassName(), "");
    device.DeriveClassName();
    EXPECT_EQ(device.ClassName(), "Imaging");
    device.SetClass(0x001F00);
    device.DeriveClassName();
    EXPECT_EQ(device.ClassName(), "Uncategorized");
}

TEST(ScannedDeviceJson, BaseDocumentHasExactlyTheEightBaseKeys) {
    ScannedDevice::Base device;
    FillAsPhone(device);
    const json document = device.ToJson();
    const json expected = {
        {"type", 0},       {"class", 0x5A020C},          {"class-name", "Phone"}, {"rssi", -71},
        {"name", "Pixel"}, {"mac", "AA:BB:CC:DD:EE:FF"}, {"paired", true},        {"trusted", false},
    };
    EXPECT_EQ(document, expected);
    EXPECT_EQ(KeysOf(document), (std::set<std::string>{"type", "class", "class-name", "rssi", "name", "mac",
                                                       "paired", "trusted"}));
    EXPECT_FALSE(document.contains("remote-cam-info"));
}

TEST(ScannedDeviceJson, TopLevelNumbersAreSignedIntegers) {
    ScannedDevice::Base device;
    FillAsPhone(device);
    device.SetClass(0xFFFFFFFFu);  // stays a positive number even with every bit set
    const json document = device.ToJson();
    for (const char* key : {"type", "class", "rssi"}) {
        SCOPED_TRACE(key);
        EXPECT_TRUE(document.at(key).is_number_integer());
        EXPECT_FALSE(document.at(key).is_number_unsigned());
    }
    EXPECT_EQ(document.at("class").get<int64_t>(), 4294967295LL);
    EXPECT_EQ(document.at("rssi").get<int64_t>(), -71);
    EXPECT_TRUE(document.at("paired").is_boolean());
    EXPECT_TRUE(document.at("trusted").is_boolean());
    EXPECT_EQ(
        device.ToJson().dump(),
        "{\"class\":4294967295,\"class-name\":\"Phone\",\"mac\":\"AA:BB:CC:DD:EE:FF\",\"name\":\"Pixel\","
        "\"paired\":true,\"rssi\":-71,\"trusted\":false,\"type\":0}");
}

TEST(ScannedDeviceJson, TypeFollowsTheRecord) {
    ScannedDevice::Base device;
    device.SetType(ScannedDevice::kHidType);
    EXPECT_EQ(device.ToJson().at("type"), 2);
}
