// The client's mirror of BlueZ's objects, fed with signal bodies and replies built here (no bus).
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "Mirror.h"
#include "dbus_helper/Handles.h"
#include "test_support/BusPair.h"
#include "tinyb/BluetoothException.hpp"

using namespace tinyb::detail;
using DbusHelperTest::MessageFactory;

namespace {

constexpr const char* kHci0 = "/org/bluez/hci0";
constexpr const char* kHci1 = "/org/bluez/hci1";
constexpr const char* kDev1 = "/org/bluez/hci0/dev_C0_FF_EE_00_00_01";
constexpr const char* kDev2 = "/org/bluez/hci1/dev_C0_FF_EE_00_00_02";

// A sealed signal on `path` (or a method return) whose body `fill` appends, read from the start.
struct MirrorMessage {
    MessageFactory factory;
    DbusHelper::Message owned;
    sd_bus_message* m;
    MirrorMessage(const std::function<void(sd_bus_message*)>& fill, const char* path)
        : owned(path == nullptr ? factory.Return(fill) : factory.Signal(fill, path)), m(owned.get()) {}
};

void AddAdapter(Mirror& mirror, const char* path) {
    MirrorMessage added(
        [&](sd_bus_message* m) {
            ASSERT_GE(sd_bus_message_append(m, "oa{sa{sv}}", path, 1, "org.bluez.Adapter1", 2, "Address", "s",
                                            "00:00:00:00:00:AA", "Powered", "b", 1),
                      0);
        },
        "/");
    InterfacesAdded body = ReadInterfacesAdded(added.m);
    mirror.Add(body);
}

// A device under `adapter`, with a battery interface the client does not mirror.
void AddDevice(Mirror& mirror, const char* path, const char* adapter, const char* name) {
    MirrorMessage added(
        [&](sd_bus_message* m) {
            ASSERT_GE(sd_bus_message_append(m, "oa{sa{sv}}", path, 2,             //
                                            "org.bluez.Device1", 3,               //
                                            "Address", "s", "C0:FF:EE:00:00:01",  //
                                            "Name", "s", name,                    //
                                            "Adapter", "o", adapter,              //
                                            "org.bluez.Battery1", 1, "Percentage", "y", 80),
                      0);
        },
        "/");
    InterfacesAdded body = ReadInterfacesAdded(added.m);
    EXPECT_EQ(body.mask, 1u << kDevice);
    mirror.Add(body);
}

bool Remove(Mirror& mirror, const char* path, const char* iface) {
    MirrorMessage removed(
        [&](sd_bus_message* m) { ASSERT_GE(sd_bus_message_append(m, "oas", path, 1, iface), 0); }, "/");
    return mirror.Remove(ReadInterfacesRemoved(removed.m));
}

std::vector<std::string> Paths(const std::vector<Mirror::Child>& children) {
    std::vector<std::string> paths;
    for (const auto& child : children)
        paths.push_back(child.path);
    return paths;
}

// The text of the BluetoothException that `read` throws.
std::string Thrown(const std::function<void()>& read) {
    try {
        read();
    } catch (const tinyb::BluetoothException& e) {
        return e.what();
    }
    return "(nothing thrown)";
}

}  // namespace

TEST(Mirror, AdaptersAreOrderedByTheirNumberAndOtherNamesComeLast) {
    Mirror mirror;
    AddAdapter(mirror, "/org/bluez/hci10");
    AddAdapter(mirror, "/org/bluez/other");
    AddAdapter(mirror, "/org/bluez/hci2");
    EXPECT_EQ(mirror.Adapters(),
              (std::vector<std::string>{"/org/bluez/hci2", "/org/bluez/hci10", "/org/bluez/other"}));
}

TEST(Mirror, AddedObjectsAreReadAndListedUnderTheirParent) {
    Mirror mirror;
    AddAdapter(mirror, kHci0);
    AddDevice(mirror, kDev1, kHci0, "KelpCam 1");
    AddDevice(mirror, kDev2, kHci1, "KelpCam 2");
    EXPECT_EQ(Paths(mirror.Children(kDeviceAdapter, kHci0)), std::vector<std::string>{kDev1});
    EXPECT_EQ(mirror.Property<std::string>(kDev1, nullptr, kDeviceName), "KelpCam 1");
    EXPECT_EQ(mirror.Property<bool>(kHci0, nullptr, kPowered), true);
    // absent, and of another type
    EXPECT_EQ(mirror.Property<int16_t>(kDev1, nullptr, kRssi), std::nullopt);
    EXPECT_EQ(mirror.Property<bool>(kDev1, nullptr, kDeviceName), std::nullopt);
    EXPECT_EQ(
        Thrown([&] { mirror.Property<bool>(kDev1, nullptr, kPowered); }),
        "org.freedesktop.DBus.Error.UnknownObject: BlueZ has no org.bluez.Adapter1 at " + std::string(kDev1));
}

TEST(Mirror, PropertiesChangedMergesTheChangedAndDropsTheInvalidated) {
    Mirror mirror;
    AddDevice(mirror, kDev1, kHci0, "KelpCam 1");
    MirrorMessage signal(
        [](sd_bus_message* m) {
            ASSERT_GE(
                sd_bus_message_append(m, "sa{sv}as", "org.bluez.Device1", 1, "RSSI", "n", -40, 1, "Name"), 0);
        },
        kDev1);
    auto change = ReadPropertiesChanged(signal.m);
    ASSERT_TRUE(change.has_value());
    EXPECT_STREQ(change->path, kDev1);
    EXPECT_EQ(change->iface, kDevice);
    EXPECT_TRUE(mirror.Change(*change));
    EXPECT_EQ(mirror.Property<int16_t>(kDev1, nullptr, kRssi), -40);
    EXPECT_EQ(mirror.Property<std::string>(kDev1, nullptr, kDeviceName), std::nullopt);
    EXPECT_EQ(mirror.Property<std::string>(kDev1, nullptr, kDeviceAddress), "C0:FF:EE:00:00:01");
}

TEST(Mirror, AChangeOfAnInterfaceNotAnnouncedThereIsLeftOut) {
    Mirror mirror;
    AddDevice(mirror, kDev1, kHci0, "KelpCam 1");
    for (const char* path : {kDev1, kDev2}) {
        MirrorMessage signal(
            [](sd_bus_message* m) {
                ASSERT_GE(
                    sd_bus_message_append(m, "sa{sv}as", "org.bluez.GattService1", 1, "UUID", "s", "fdea", 0),
                    0);
            },
            path);
        auto change = ReadPropertiesChanged(signal.m);
        ASSERT_TRUE(change.has_value());
        EXPECT_FALSE(mirror.Change(*change));
    }
    EXPECT_THROW(mirror.Property<std::string>(kDev1, nullptr, kServiceUuid), tinyb::BluetoothException);
    PropSet fresh;
    fresh.Set(kServiceUuid, std::string("fdea"));
    mirror.Merge(kDev1, kService, std::move(fresh));
    EXPECT_THROW(mirror.Property<std::string>(kDev1, nullptr, kServiceUuid), tinyb::BluetoothException);
}

TEST(Mirror, AChangeOfAnInterfaceNotMirroredIsNotRead) {
    MirrorMessage signal(
        [](sd_bus_message* m) {
            ASSERT_GE(sd_bus_message_append(m, "sa{sv}as", "org.bluez.Battery1", 1, "Percentage", "y", 5, 0),
                      0);
        },
        kDev1);
    EXPECT_FALSE(ReadPropertiesChanged(signal.m).has_value());
}

TEST(Mirror, ARemovedObjectKeepsItsLastValuesForTheHandlesThatHoldIt) {
    Mirror mirror;
    AddDevice(mirror, kDev1, kHci0, "KelpCam 1");
    auto children = mirror.Children(kDeviceAdapter, kHci0);
    ASSERT_EQ(children.size(), 1u);
    EXPECT_TRUE(Remove(mirror, kDev1, "org.bluez.Device1"));
    EXPECT_FALSE(children[0].object->alive);
    EXPECT_EQ(mirror.Property<std::string>(kDev1, children[0].object.get(), kDeviceName), "KelpCam 1");
    EXPECT_THROW(mirror.Property<std::string>(kDev1, nullptr, kDeviceName), tinyb::BluetoothException);
    EXPECT_TRUE(mirror.Children(kDeviceAdapter, kHci0).empty());
    EXPECT_FALSE(Remove(mirror, kDev1, "org.bluez.Device1"));
}

TEST(Mirror, RemovingOneOfTwoInterfacesKeepsTheObject) {
    Mirror mirror;
    AddAdapter(mirror, kHci0);
    AddDevice(mirror, kHci0, kHci1, "both");
    EXPECT_TRUE(Remove(mirror, kHci0, "org.bluez.Adapter1"));
    EXPECT_TRUE(mirror.Adapters().empty());
    EXPECT_THROW(mirror.Property<bool>(kHci0, nullptr, kPowered), tinyb::BluetoothException);
    EXPECT_EQ(mirror.Property<std::string>(kHci0, nullptr, kDeviceName), "both");
}

TEST(Mirror, ClearDropsEveryObjectButNotTheHandlesValues) {
    Mirror mirror;
    AddAdapter(mirror, kHci0);
    AddDevice(mirror, kDev1, kHci0, "KelpCam 1");
    auto children = mirror.Children(kDeviceAdapter, kHci0);
    ASSERT_EQ(children.size(), 1u);
    mirror.Clear();
    EXPECT_TRUE(mirror.Adapters().empty());
    EXPECT_TRUE(mirror.Children(kDeviceAdapter, kHci0).empty());
    EXPECT_EQ(mirror.Property<std::string>(kDev1, children[0].object.get(), kDeviceName), "KelpCam 1");
}

TEST(Mirror, ALoadedObjectListIsTakenInWhole) {
    Mirror mirror;
    MirrorMessage reply(
        [](sd_bus_message* m) {
            ASSERT_GE(sd_bus_message_append(m, "a{oa{sa{sv}}}", 2,                                 //
                                            kHci0, 1, "org.bluez.Adapter1", 1, "Powered", "b", 0,  //
                                            kDev1, 1, "org.bluez.Device1", 1, "Adapter", "o", kHci0),
                      0);
        },
        nullptr);
    mirror.Load(reply.m);
    EXPECT_EQ(mirror.Adapters(), std::vector<std::string>{kHci0});
    EXPECT_EQ(mirror.Property<bool>(kHci0, nullptr, kPowered), false);
    EXPECT_EQ(Paths(mirror.Children(kDeviceAdapter, kHci0)), std::vector<std::string>{kDev1});
}

TEST(Mirror, MalformedBodiesAreExceptionsThatNameTheSignal) {
    MirrorMessage text([](sd_bus_message* m) { ASSERT_GE(sd_bus_message_append(m, "s", "x"), 0); }, "/");
    EXPECT_EQ(Thrown([&] { ReadInterfacesAdded(text.m); }).rfind("malformed InterfacesAdded: ", 0), 0u);
    MirrorMessage path([](sd_bus_message* m) { ASSERT_GE(sd_bus_message_append(m, "o", kDev1), 0); }, "/");
    EXPECT_EQ(Thrown([&] { ReadInterfacesRemoved(path.m); }).rfind("malformed InterfacesRemoved: ", 0), 0u);
    MirrorMessage number([](sd_bus_message* m) { ASSERT_GE(sd_bus_message_append(m, "i", 7), 0); }, kDev1);
    EXPECT_EQ(Thrown([&] { ReadPropertiesChanged(number.m); }), "malformed PropertiesChanged");
    MirrorMessage truncated(
        [](sd_bus_message* m) { ASSERT_GE(sd_bus_message_append(m, "s", "org.bluez.Device1"), 0); }, kDev1);
    EXPECT_EQ(Thrown([&] { ReadPropertiesChanged(truncated.m); }).rfind("malformed PropertiesChanged: ", 0),
              0u);
    Mirror mirror;
    MirrorMessage reply([](sd_bus_message* m) { ASSERT_GE(sd_bus_message_append(m, "s", "x"), 0); }, nullptr);
    EXPECT_EQ(
        Thrown([&] { mirror.Load(reply.m); }).rfind("malformed GetManagedObjects reply from BlueZ: ", 0), 0u);
}
