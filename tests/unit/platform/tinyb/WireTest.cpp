// Decoding of BlueZ's property dictionaries, straight from sd-bus messages built here (no bus).
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "Wire.h"
#include "test_support/BusPair.h"

using namespace tinyb::detail;
using DbusHelperTest::MessageFactory;

namespace {

// A sealed message whose body `fill` appends, read from the start.
struct Body {
    MessageFactory factory;
    sd_bus_message* m;
    explicit Body(const std::function<void(sd_bus_message*)>& fill) : m(factory.Return(fill).release()) {}
    ~Body() { sd_bus_message_unref(m); }
    Body(const Body&) = delete;
    Body& operator=(const Body&) = delete;
};

template <typename T>
const T* As(const PropSet& set, Prop prop) {
    const Value* value = set.Get(prop);
    return value == nullptr ? nullptr : std::get_if<T>(value);
}

}  // namespace

TEST(WireNames, InterfacesAndPropertiesMapBothWays) {
    EXPECT_EQ(IfaceFromName("org.bluez.Adapter1"), kAdapter);
    EXPECT_EQ(IfaceFromName("org.bluez.Device1"), kDevice);
    EXPECT_EQ(IfaceFromName("org.bluez.GattService1"), kService);
    EXPECT_EQ(IfaceFromName("org.bluez.GattCharacteristic1"), kCharacteristic);
    EXPECT_EQ(IfaceFromName("org.bluez.Battery1"), -1);
    EXPECT_EQ(IfaceFromName("org.bluez.device1"), -1);

    EXPECT_STREQ(PropName(kRssi), "RSSI");
    EXPECT_STREQ(PropName(kManufacturerData), "ManufacturerData");
    EXPECT_STREQ(PropName(kServicesResolved), "ServicesResolved");
    EXPECT_EQ(IfaceOf(kDiscovering), kAdapter);
    EXPECT_EQ(IfaceOf(kDeviceAddress), kDevice);
    EXPECT_EQ(IfaceOf(kDeviceAdapter), kDevice);
    EXPECT_EQ(IfaceOf(kServiceDevice), kService);
    EXPECT_EQ(IfaceOf(kValue), kCharacteristic);
}

TEST(WireDevice, EveryReadPropertyIsDecodedWithItsType) {
    Body body([](sd_bus_message* m) {
        ASSERT_GE(sd_bus_message_append(m, "a{sv}", 9,                                       //
                                        "Address", "s", "C0:FF:EE:00:00:01",                 //
                                        "Name", "s", "KelpCam 7",                            //
                                        "RSSI", "n", -52,                                    //
                                        "Class", "u", 0x240404u,                             //
                                        "Paired", "b", 1,                                    //
                                        "Connected", "b", 0,                                 //
                                        "UUIDs", "as", 2, "0000fdea-0000", "00001800-0000",  //
                                        "Adapter", "o", "/org/bluez/hci0",                   //
                                        "Appearance", "q", 0x0080),
                  0);
    });
    PropSet set;
    ASSERT_GE(ReadProperties(body.m, kDevice, set), 0);
    ASSERT_NE(As<std::string>(set, kDeviceAddress), nullptr);
    EXPECT_EQ(*As<std::string>(set, kDeviceAddress), "C0:FF:EE:00:00:01");
    EXPECT_EQ(*As<std::string>(set, kDeviceName), "KelpCam 7");
    ASSERT_NE(As<int16_t>(set, kRssi), nullptr);
    EXPECT_EQ(*As<int16_t>(set, kRssi), -52);
    ASSERT_NE(As<uint32_t>(set, kClass), nullptr);
    EXPECT_EQ(*As<uint32_t>(set, kClass), 0x240404u);
    ASSERT_NE(As<bool>(set, kPaired), nullptr);
    EXPECT_TRUE(*As<bool>(set, kPaired));
    ASSERT_NE(As<bool>(set, kConnected), nullptr);
    EXPECT_FALSE(*As<bool>(set, kConnected));
    ASSERT_NE(As<std::vector<std::string>>(set, kUuids), nullptr);
    EXPECT_EQ(*As<std::vector<std::string>>(set, kUuids),
              (std::vector<std::string>{"0000fdea-0000", "00001800-0000"}));
    // an object path reads as text
    EXPECT_EQ(*As<std::string>(set, kDeviceAdapter), "/org/bluez/hci0");
    ASSERT_NE(As<uint16_t>(set, kAppearance), nullptr);
    EXPECT_EQ(*As<uint16_t>(set, kAppearance), 0x0080);
    // never sent, so absent
    EXPECT_EQ(set.Get(kTrusted), nullptr);
    EXPECT_EQ(set.Get(kManufacturerData), nullptr);
}

TEST(WireDevice, ManufacturerDataKeepsByteArraysAndSkipsOtherValues) {
    Body body([](sd_bus_message* m) {
        ASSERT_GE(sd_bus_message_open_container(m, 'a', "{sv}"), 0);
        ASSERT_GE(sd_bus_message_open_container(m, 'e', "sv"), 0);
        ASSERT_GE(sd_bus_message_append(m, "s", "ManufacturerData"), 0);
        ASSERT_GE(sd_bus_message_open_container(m, 'v', "a{qv}"), 0);
        ASSERT_GE(sd_bus_message_append(m, "a{qv}", 3,                      //
                                        0x05F3, "ay", 3, 0x01, 0x02, 0x03,  //
                                        0x004C, "s", "not bytes",           //
                                        0x0006, "ay", 0),
                  0);
        ASSERT_GE(sd_bus_message_close_container(m), 0);
        ASSERT_GE(sd_bus_message_close_container(m), 0);
        ASSERT_GE(sd_bus_message_close_container(m), 0);
    });
    PropSet set;
    ASSERT_GE(ReadProperties(body.m, kDevice, set), 0);
    const auto* data = As<ManufacturerData>(set, kManufacturerData);
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(data->size(), 2u);
    EXPECT_EQ(data->at(0x05F3), (Bytes{0x01, 0x02, 0x03}));
    EXPECT_TRUE(data->at(0x0006).empty());
    EXPECT_EQ(data->count(0x004C), 0u);
}

TEST(WireDevice, UnknownPropertiesAndUnreadTypesAreSkippedWithoutLosingTheRest) {
    Body body([](sd_bus_message* m) {
        ASSERT_GE(sd_bus_message_append(m, "a{sv}", 4,                      //
                                        "Icon", "s", "camera-video",        // not mirrored
                                        "TxPower", "x", INT64_C(-4),        // not mirrored, 64-bit
                                        "Name", "a{ss}", 1, "odd", "type",  // mirrored name, unread type
                                        "Address", "s", "AA:BB:CC:DD:EE:FF"),
                  0);
    });
    PropSet set;
    ASSERT_GE(ReadProperties(body.m, kDevice, set), 0);
    EXPECT_EQ(set.Get(kDeviceName), nullptr);
    ASSERT_NE(As<std::string>(set, kDeviceAddress), nullptr);
    EXPECT_EQ(*As<std::string>(set, kDeviceAddress), "AA:BB:CC:DD:EE:FF");
}

TEST(WireDevice, AMessageThatIsNotADictionaryIsAnError) {
    Body body([](sd_bus_message* m) { ASSERT_GE(sd_bus_message_append(m, "s", "org.bluez.Device1"), 0); });
    PropSet set;
    EXPECT_LT(ReadProperties(body.m, kDevice, set), 0);
    EXPECT_TRUE(set.Empty());
}

TEST(WireAdapter, TheSameNameMeansTheAdaptersOwnProperty) {
    Body body([](sd_bus_message* m) {
        ASSERT_GE(sd_bus_message_append(m, "a{sv}", 4, "Address", "s", "00:AA:01:00:00:23", "Powered", "b", 1,
                                        "Discoverable", "b", 0, "RSSI", "n", -1),
                  0);
    });
    PropSet set;
    ASSERT_GE(ReadProperties(body.m, kAdapter, set), 0);
    EXPECT_EQ(*As<std::string>(set, kAdapterAddress), "00:AA:01:00:00:23");
    EXPECT_TRUE(*As<bool>(set, kPowered));
    EXPECT_FALSE(*As<bool>(set, kDiscoverable));
    // RSSI is a device property: not looked for on an adapter, not readable through it
    EXPECT_EQ(set.Get(kDeviceAddress), nullptr);
    EXPECT_EQ(set.Get(kRssi), nullptr);
}

TEST(WireInterfaces, MirroredInterfacesAreReadAndFlaggedOthersSkipped) {
    Body body([](sd_bus_message* m) {
        ASSERT_GE(sd_bus_message_open_container(m, 'a', "{sa{sv}}"), 0);
        ASSERT_GE(sd_bus_message_append(m, "{sa{sv}}", "org.freedesktop.DBus.Introspectable", 0), 0);
        ASSERT_GE(sd_bus_message_append(m, "{sa{sv}}", "org.bluez.GattCharacteristic1", 4,     //
                                        "UUID", "s", "fdea0002-0000-1000-8000-00805f9b34fb",   //
                                        "Service", "o", "/org/bluez/hci0/dev_C0/service0010",  //
                                        "Flags", "as", 2, "read", "notify",                    //
                                        "Value", "ay", 2, 'R', 'Z'),
                  0);
        ASSERT_GE(sd_bus_message_append(m, "{sa{sv}}", "org.bluez.Battery1", 1, "Percentage", "y", 80), 0);
        ASSERT_GE(sd_bus_message_close_container(m), 0);
    });
    IfaceProps props;
    unsigned mask = 0;
    ASSERT_GE(ReadInterfaces(body.m, props, mask), 0);
    EXPECT_EQ(mask, 1u << kCharacteristic);
    const PropSet& c = props[kCharacteristic];
    EXPECT_EQ(*As<std::string>(c, kCharacteristicUuid), "fdea0002-0000-1000-8000-00805f9b34fb");
    EXPECT_EQ(*As<std::string>(c, kCharacteristicService), "/org/bluez/hci0/dev_C0/service0010");
    EXPECT_EQ(*As<std::vector<std::string>>(c, kFlags), (std::vector<std::string>{"read", "notify"}));
    EXPECT_EQ(*As<Bytes>(c, kValue), (Bytes{'R', 'Z'}));
    EXPECT_EQ(c.Get(kNotifying), nullptr);
    EXPECT_TRUE(props[kAdapter].Empty());
    EXPECT_TRUE(props[kDevice].Empty());
}

TEST(WireInvalidated, OnlyPropertiesOfThatInterfaceAreListed) {
    Body body([](sd_bus_message* m) {
        ASSERT_GE(sd_bus_message_append(m, "as", 4, "RSSI", "Icon", "ManufacturerData", "Powered"), 0);
    });
    std::vector<Prop> gone;
    ASSERT_GE(ReadInvalidated(body.m, kDevice, gone), 0);
    EXPECT_EQ(gone, (std::vector<Prop>{kRssi, kManufacturerData}));
}

TEST(WirePropSet, SetMergeEraseAndClear) {
    PropSet a;
    EXPECT_TRUE(a.Empty());
    a.Set(kDeviceName, std::string("first"));
    a.Set(kRssi, int16_t{-70});
    PropSet b;
    b.Set(kRssi, int16_t{-40});
    b.Set(kPaired, true);
    a.Merge(std::move(b));
    EXPECT_EQ(*As<std::string>(a, kDeviceName), "first");  // kept: absent from the update
    EXPECT_EQ(*As<int16_t>(a, kRssi), -40);                // replaced
    EXPECT_TRUE(*As<bool>(a, kPaired));                    // added
    a.Erase(kRssi);
    EXPECT_EQ(a.Get(kRssi), nullptr);
    EXPECT_FALSE(a.Empty());
    // another interface's property is never there
    EXPECT_EQ(a.Get(kPowered), nullptr);
    a.Erase(kPowered);
    EXPECT_NE(a.Get(kDeviceName), nullptr);
    a.Clear();
    EXPECT_TRUE(a.Empty());
    EXPECT_EQ(a.Get(kDeviceName), nullptr);
}

TEST(WirePropSet, MergingAnEmptySetChangesNothing) {
    PropSet a;
    a.Set(kPowered, true);
    PropSet none;
    a.Merge(std::move(none));
    EXPECT_TRUE(*As<bool>(a, kPowered));
}
