// The project's BlueZ client against the simulated BlueZ of the hermetic unit: the cache, discovery,
// adapter switches, device operations, GATT and notifications, errors and concurrent callers.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "BluezSimControl.h"
#include "logging/Log.h"
#include "test_support/TestEnv.h"
#include "tinyb/tinyb.hpp"

namespace {

using namespace std::chrono_literals;
using BluezSim::Bytes;
using BluezSim::DeviceProps;
using TestSupport::WaitUntil;

constexpr const char* kAdapterPath = "/org/bluez/hci0";
constexpr const char* kCameraService = "fdeafdea-0000-1000-8000-00805f9b34fb";
constexpr const char* kWriteChar = "fdea0001-0000-1000-8000-00805f9b34fb";
constexpr const char* kNotifyChar = "fdea0002-0000-1000-8000-00805f9b34fb";

Bytes Text(const std::string& s) {
    return Bytes(s.begin(), s.end());
}

class TinybClient : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(TestSupport::InHarness()) << "run inside tests/harness/testenv.py";
        manager = tinyb::BluetoothManager::get_bluetooth_manager();
        ASSERT_NE(manager, nullptr);
    }

    std::unique_ptr<tinyb::BluetoothDevice> Find(const std::string& address) {
        for (auto& device : manager->get_devices()) {
            if (device->get_address() == address)
                return std::move(device);
        }
        return nullptr;
    }

    std::unique_ptr<tinyb::BluetoothDevice> WaitForDevice(const std::string& address) {
        std::unique_ptr<tinyb::BluetoothDevice> found;
        WaitUntil([&] { return (found = Find(address)) != nullptr; });
        return found;
    }

    // Connects a camera and returns its write and notify characteristics once services are resolved.
    void ConnectCamera(tinyb::BluetoothDevice& camera,
                       std::unique_ptr<tinyb::BluetoothGattCharacteristic>& write,
                       std::unique_ptr<tinyb::BluetoothGattCharacteristic>& notify) {
        ASSERT_TRUE(camera.connect());
        ASSERT_TRUE(WaitUntil([&] { return camera.get_services_resolved(); }));
        auto services = camera.get_services();
        ASSERT_EQ(services.size(), 1u);
        ASSERT_EQ(services[0]->get_uuid(), kCameraService);
        for (auto& c : services[0]->get_characteristics()) {
            if (c->get_uuid() == kWriteChar)
                write = std::move(c);
            else if (c->get_uuid() == kNotifyChar)
                notify = std::move(c);
        }
        ASSERT_NE(write, nullptr);
        ASSERT_NE(notify, nullptr);
    }

    tinyb::BluetoothManager* manager = nullptr;
    BluezSim::Control sim;
};

TEST_F(TinybClient, ManagerIsOneProcessWideObject) {
    EXPECT_EQ(tinyb::BluetoothManager::get_bluetooth_manager(), manager);
}

TEST_F(TinybClient, DefaultAdapterIsHci0WithItsProperties) {
    auto adapter = manager->get_default_adapter();
    ASSERT_NE(adapter, nullptr);
    EXPECT_EQ(adapter->get_object_path(), kAdapterPath);
    EXPECT_EQ(adapter->get_address(), "00:1A:7D:DA:71:00");
    EXPECT_EQ(adapter->get_name(), "unit-sim");
}

TEST_F(TinybClient, DeviceGettersReflectBluezProperties) {
    DeviceProps props;
    props.name = "CAM-GET";
    props.rssi = -52;
    props.deviceClass = 0x240404;
    props.manufacturerData = {{1523, {0x01, 0x02, 0x04, 0x07}}, {76, {0xAA}}};
    sim.AddDevice("AA:00:00:00:00:01", props);

    auto device = WaitForDevice("AA:00:00:00:00:01");
    ASSERT_NE(device, nullptr);
    EXPECT_EQ(device->get_object_path(), "/org/bluez/hci0/dev_AA_00_00_00_00_01");
    EXPECT_EQ(device->get_name(), "CAM-GET");
    EXPECT_EQ(device->get_alias(), "CAM-GET");
    EXPECT_EQ(device->get_rssi(), -52);
    EXPECT_EQ(device->get_class(), 0x240404u);
    EXPECT_FALSE(device->get_paired());
    EXPECT_FALSE(device->get_trusted());
    EXPECT_FALSE(device->get_connected());
    EXPECT_FALSE(device->get_services_resolved());
    EXPECT_EQ(device->get_adapter_path(), kAdapterPath);
    const std::map<uint16_t, std::vector<uint8_t>> expected = {{76, {0xAA}},
                                                               {1523, {0x01, 0x02, 0x04, 0x07}}};
    EXPECT_EQ(device->get_manufacturer_data(), expected);
}

TEST_F(TinybClient, AbsentOptionalPropertiesReadAsEmpty) {
    sim.AddDevice("AA:00:00:00:00:02", DeviceProps{});
    auto device = WaitForDevice("AA:00:00:00:00:02");
    ASSERT_NE(device, nullptr);
    EXPECT_EQ(device->get_name(), "");
    EXPECT_EQ(device->get_rssi(), 0);
    EXPECT_EQ(device->get_class(), 0u);
    EXPECT_TRUE(device->get_manufacturer_data().empty());
}

TEST_F(TinybClient, GettersNeverGoToTheBus) {
    DeviceProps props;
    props.name = "QUIET";
    props.rssi = -40;
    props.manufacturerData = {{1523, {1, 2, 3}}};
    sim.AddDevice("AA:00:00:00:00:03", props);
    ASSERT_NE(WaitForDevice("AA:00:00:00:00:03"), nullptr);

    const uint64_t before = tinyb::BluetoothManager::get_method_call_count();
    for (int i = 0; i < 50; ++i) {
        for (auto& device : manager->get_devices()) {
            device->get_manufacturer_data();
            device->get_rssi();
            device->get_name();
            device->get_paired();
            device->get_address();
            device->get_class();
        }
        manager->get_default_adapter()->get_powered();
    }
    EXPECT_EQ(tinyb::BluetoothManager::get_method_call_count(), before);
}

TEST_F(TinybClient, DevicesAppearChangeNameAndVanishInTheCache) {
    DeviceProps props;
    props.name = "BEFORE";
    const std::string path = sim.AddDevice("AA:00:00:00:00:04", props);
    auto device = WaitForDevice("AA:00:00:00:00:04");
    ASSERT_NE(device, nullptr);
    EXPECT_EQ(device->get_name(), "BEFORE");

    sim.SetName(path, "AFTER");
    EXPECT_TRUE(WaitUntil([&] { return device->get_name() == "AFTER"; }));

    sim.RemoveDevice(path);
    EXPECT_TRUE(WaitUntil([&] { return Find("AA:00:00:00:00:04") == nullptr; }));
    // a handle keeps what BlueZ last said (a scan pass may hold one while the device goes), but BlueZ
    // answers its calls with an error
    EXPECT_EQ(device->get_name(), "AFTER");
    EXPECT_EQ(device->get_address(), "AA:00:00:00:00:04");
    EXPECT_THROW(device->connect(), tinyb::BluetoothException);
}

TEST_F(TinybClient, InvalidatedPropertyIsDropped) {
    DeviceProps props;
    props.rssi = -70;
    const std::string path = sim.AddDevice("AA:00:00:00:00:05", props);
    auto device = WaitForDevice("AA:00:00:00:00:05");
    ASSERT_NE(device, nullptr);
    ASSERT_EQ(device->get_rssi(), -70);
    sim.InvalidateDeviceProperty(path, "RSSI");
    EXPECT_TRUE(WaitUntil([&] { return device->get_rssi() == 0; }));
}

TEST_F(TinybClient, ManufacturerDataOfAnotherTypeIsSkipped) {
    // a{qv} whose value is not ay for one company: that entry is left out, the other kept
    const std::string path = sim.AddDevice("AA:00:00:00:00:06", DeviceProps{});
    ASSERT_NE(WaitForDevice("AA:00:00:00:00:06"), nullptr);
    sd_bus_message* reply = nullptr;
    const int r = TestSupport::CallMethod(
        TestSupport::Bus::System, "org.bluez", "/", "org.bluez.Mock", "UpdateDevice", &reply, "oa{sv}",
        path.c_str(), 1, "ManufacturerData", "a{qv}", 2, 1523, "ay", 2, 0x05, 0x06, 76, "s", "text");
    ASSERT_GE(r, 0);
    sd_bus_message_unref(reply);
    auto device = Find("AA:00:00:00:00:06");
    ASSERT_NE(device, nullptr);
    const std::map<uint16_t, std::vector<uint8_t>> expected = {{1523, {0x05, 0x06}}};
    EXPECT_TRUE(WaitUntil([&] { return device->get_manufacturer_data() == expected; }));
}

TEST_F(TinybClient, DiscoveryRevealsWaitingDevicesAndIsTrackedFromCallResults) {
    DeviceProps props;
    props.name = "LATE";
    props.onlyOnDiscovery = true;
    sim.AddDevice("AA:00:00:00:01:01", props);
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(Find("AA:00:00:00:01:01"), nullptr);

    sim.ClearCalls(kAdapterPath);
    EXPECT_FALSE(manager->get_discovering());
    EXPECT_TRUE(manager->start_discovery());
    EXPECT_TRUE(manager->get_discovering());
    // already ours: no second StartDiscovery (BlueZ would answer InProgress)
    EXPECT_TRUE(manager->start_discovery());
    EXPECT_EQ(sim.MethodCalls(kAdapterPath, "StartDiscovery"), 1u);
    EXPECT_TRUE(WaitUntil([&] { return manager->get_default_adapter()->get_discovering(); }));
    EXPECT_NE(WaitForDevice("AA:00:00:00:01:01"), nullptr);

    EXPECT_TRUE(manager->stop_discovery());
    EXPECT_FALSE(manager->get_discovering());
    // nothing to stop: no call, no "No discovery started" error
    EXPECT_FALSE(manager->stop_discovery());
    EXPECT_EQ(sim.MethodCalls(kAdapterPath, "StopDiscovery"), 1u);
    EXPECT_TRUE(WaitUntil([&] { return !manager->get_default_adapter()->get_discovering(); }));
}

TEST_F(TinybClient, BackToBackPassesNeverTripOverDiscoveryState) {
    sim.ClearCalls(kAdapterPath);
    for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(manager->start_discovery()) << i;
        manager->get_devices();
        ASSERT_TRUE(manager->stop_discovery()) << i;
    }
    EXPECT_EQ(sim.MethodCalls(kAdapterPath, "StartDiscovery"), 20u);
    EXPECT_EQ(sim.MethodCalls(kAdapterPath, "StopDiscovery"), 20u);
}

TEST_F(TinybClient, DiscoveryErrorsAreThrownWithBluezErrorName) {
    sim.SetMethodBehaviour(kAdapterPath, "StartDiscovery", "org.bluez.Error.NotReady", "Resource Not Ready",
                           0, 1);
    try {
        manager->start_discovery();
        FAIL() << "no exception";
    } catch (const tinyb::BluetoothException& e) {
        EXPECT_EQ(e.error_name(), "org.bluez.Error.NotReady");
        EXPECT_STREQ(e.what(), "org.bluez.Error.NotReady: Resource Not Ready");
        const std::runtime_error& base = e;  // callers catch std::runtime_error
        EXPECT_NE(std::string(base.what()).find("Resource Not Ready"), std::string::npos);
    }
    EXPECT_FALSE(manager->get_discovering());
    // nothing started, so nothing to stop
    EXPECT_FALSE(manager->stop_discovery());

    ASSERT_TRUE(manager->start_discovery());
    sim.SetMethodBehaviour(kAdapterPath, "StopDiscovery", "org.bluez.Error.Failed", "boom", 0, 1);
    EXPECT_THROW(manager->stop_discovery(), tinyb::BluetoothException);
    // BlueZ answered: the session is considered over, a new start goes out
    EXPECT_FALSE(manager->get_discovering());
    // the sim still has our session (the error was injected), so BlueZ says InProgress...
    try {
        manager->start_discovery();
        FAIL() << "no exception";
    } catch (const tinyb::BluetoothException& e) {
        EXPECT_EQ(e.error_name(), "org.bluez.Error.InProgress");
    }
    // ...which tells us that it runs, so a stop is sent and succeeds
    EXPECT_TRUE(manager->get_discovering());
    EXPECT_TRUE(manager->stop_discovery());
}

TEST_F(TinybClient, AdapterSwitchIsReflectedWhenTheSetReturns) {
    auto adapter = manager->get_default_adapter();
    ASSERT_FALSE(adapter->get_discoverable());
    EXPECT_TRUE(adapter->set_discoverable(true));
    EXPECT_TRUE(adapter->get_discoverable());
    EXPECT_TRUE(adapter->set_discoverable(false));
    EXPECT_FALSE(adapter->get_discoverable());

    ASSERT_TRUE(adapter->get_pairable());
    EXPECT_TRUE(adapter->set_pairable(false));
    EXPECT_FALSE(adapter->get_pairable());
    EXPECT_TRUE(adapter->set_pairable(true));
    EXPECT_TRUE(adapter->get_pairable());

    ASSERT_TRUE(adapter->get_powered());
    EXPECT_TRUE(adapter->set_powered(false));
    EXPECT_FALSE(adapter->get_powered());
    EXPECT_TRUE(adapter->set_powered(true));
    EXPECT_TRUE(adapter->get_powered());
}

TEST_F(TinybClient, PoweringOffEndsTheDiscoverySession) {
    auto adapter = manager->get_default_adapter();
    sim.ClearCalls(kAdapterPath);
    ASSERT_TRUE(manager->start_discovery());
    ASSERT_TRUE(adapter->set_powered(false));
    EXPECT_FALSE(manager->get_discovering());
    EXPECT_FALSE(manager->stop_discovery());
    ASSERT_TRUE(adapter->set_powered(true));
    // a radio reboot must not leave discovery believed running: the next start really goes out
    EXPECT_TRUE(manager->start_discovery());
    EXPECT_EQ(sim.MethodCalls(kAdapterPath, "StartDiscovery"), 2u);
    EXPECT_TRUE(manager->stop_discovery());
    EXPECT_EQ(sim.MethodCalls(kAdapterPath, "StopDiscovery"), 1u);
}

TEST_F(TinybClient, AdapterSwitchIgnoredOrDelayedByBluez) {
    auto adapter = manager->get_default_adapter();
    sim.SetSwitchBehaviour("Discoverable", "ignore");
    EXPECT_TRUE(adapter->set_discoverable(true));
    std::this_thread::sleep_for(100ms);
    EXPECT_FALSE(adapter->get_discoverable());

    sim.SetSwitchBehaviour("Discoverable", "delay", 300);
    EXPECT_TRUE(adapter->set_discoverable(true));
    EXPECT_FALSE(adapter->get_discoverable());
    EXPECT_TRUE(WaitUntil([&] { return adapter->get_discoverable(); }));

    sim.SetSwitchBehaviour("Discoverable", "apply");
    EXPECT_TRUE(adapter->set_discoverable(false));
    EXPECT_FALSE(adapter->get_discoverable());
}

TEST_F(TinybClient, AdapterSetRefusedIsThrown) {
    auto adapter = manager->get_default_adapter();
    sim.SetMethodBehaviour(kAdapterPath, "Set", "org.bluez.Error.Failed", "Not Powered", 0, 1);
    try {
        adapter->set_pairable(false);
        FAIL() << "no exception";
    } catch (const tinyb::BluetoothException& e) {
        EXPECT_EQ(e.error_name(), "org.bluez.Error.Failed");
    }
    EXPECT_TRUE(adapter->get_pairable());
}

TEST_F(TinybClient, PairConnectDisconnectTrustAndRemove) {
    DeviceProps props;
    props.name = "PEER";
    const std::string path = sim.AddDevice("AA:00:00:00:02:01", props);
    auto device = WaitForDevice("AA:00:00:00:02:01");
    ASSERT_NE(device, nullptr);

    EXPECT_TRUE(device->set_trusted(true));
    EXPECT_TRUE(device->get_trusted());

    EXPECT_TRUE(device->pair());
    EXPECT_TRUE(device->get_paired());
    EXPECT_TRUE(device->get_connected());  // an LE device is connected to pair it
    EXPECT_TRUE(WaitUntil([&] { return device->get_services_resolved(); }));

    EXPECT_TRUE(device->disconnect());
    EXPECT_FALSE(device->get_connected());
    EXPECT_FALSE(device->get_services_resolved());
    try {
        device->disconnect();
        FAIL() << "no exception";
    } catch (const tinyb::BluetoothException& e) {
        EXPECT_EQ(e.error_name(), "org.bluez.Error.NotConnected");
    }

    EXPECT_TRUE(device->connect());
    EXPECT_TRUE(device->get_connected());

    sim.ClearCalls(kAdapterPath);
    EXPECT_TRUE(device->remove_device());
    EXPECT_EQ(sim.MethodCalls(kAdapterPath, "RemoveDevice"), 1u);
    EXPECT_EQ(Find("AA:00:00:00:02:01"), nullptr);
    // BlueZ no longer knows it
    try {
        device->remove_device();
        FAIL() << "no exception";
    } catch (const tinyb::BluetoothException& e) {
        EXPECT_EQ(e.error_name(), "org.bluez.Error.DoesNotExist");
    }
    EXPECT_EQ(sim.MethodCalls(kAdapterPath, "RemoveDevice"), 2u);
    (void)path;
}

TEST_F(TinybClient, ConnectedIsKnownWhenConnectReturnsEvenUnsignalled) {
    // bluetoothd leaves Connected unsignalled when the ATT link beat the kernel's connection event
    DeviceProps props;
    props.name = "QUIET";
    const std::string path = sim.AddDevice("AA:00:00:00:02:03", props);
    auto device = WaitForDevice("AA:00:00:00:02:03");
    ASSERT_NE(device, nullptr);
    sim.SetQuietConnect(path);
    ASSERT_TRUE(device->connect());
    EXPECT_TRUE(device->get_connected());
    EXPECT_TRUE(device->disconnect());
    EXPECT_FALSE(device->get_connected());
}

TEST_F(TinybClient, DeviceCallErrorsAreThrown) {
    const std::string path = sim.AddDevice("AA:00:00:00:02:02", DeviceProps{});
    auto device = WaitForDevice("AA:00:00:00:02:02");
    ASSERT_NE(device, nullptr);
    sim.SetMethodBehaviour(path, "Connect", "org.bluez.Error.Failed", "Software caused connection abort");
    try {
        device->connect();
        FAIL() << "no exception";
    } catch (const tinyb::BluetoothException& e) {
        EXPECT_EQ(e.error_name(), "org.bluez.Error.Failed");
        EXPECT_STREQ(e.what(), "org.bluez.Error.Failed: Software caused connection abort");
    }
    EXPECT_FALSE(device->get_connected());
    sim.SetMethodBehaviour(path, "Pair", "org.bluez.Error.AuthenticationFailed", "Authentication Failed");
    EXPECT_THROW(device->pair(), tinyb::BluetoothException);
    EXPECT_FALSE(device->get_paired());
}

TEST_F(TinybClient, OnlyTheDefaultAdaptersDevicesAreListed) {
    sim.AddAdapter("hci1", "second");
    DeviceProps props;
    props.name = "ON-HCI1";
    sim.AddDevice("AA:00:00:00:03:01", props, "hci1");
    std::unique_ptr<tinyb::BluetoothAdapter> second;
    ASSERT_TRUE(WaitUntil([&] {
        for (auto& a : manager->get_adapters()) {
            if (a->get_object_path() == "/org/bluez/hci1")
                second = std::move(a);
        }
        return second != nullptr && second->get_devices().size() == 1;
    }));
    EXPECT_EQ(manager->get_default_adapter()->get_object_path(), kAdapterPath);
    EXPECT_EQ(Find("AA:00:00:00:03:01"), nullptr);
    EXPECT_EQ(second->get_devices()[0]->get_name(), "ON-HCI1");
    sim.RemoveAdapter("hci1");
    EXPECT_TRUE(WaitUntil([&] { return manager->get_adapters().size() == 1; }));
}

TEST_F(TinybClient, GattReadAndWrite) {
    DeviceProps props;
    props.name = "CAM-RW";
    props.camera = true;
    const std::string path = sim.AddDevice("AA:00:00:00:04:01", props);
    auto camera = WaitForDevice("AA:00:00:00:04:01");
    ASSERT_NE(camera, nullptr);
    EXPECT_TRUE(camera->get_services().empty());  // GATT objects appear only once connected

    std::unique_ptr<tinyb::BluetoothGattCharacteristic> write, notify;
    ConnectCamera(*camera, write, notify);
    EXPECT_EQ(write->get_service()->get_uuid(), kCameraService);
    EXPECT_EQ(write->get_service()->get_device()->get_address(), "AA:00:00:00:04:01");
    const std::vector<std::string> writeFlags = {"write", "write-without-response"};
    EXPECT_EQ(write->get_flags(), writeFlags);

    EXPECT_TRUE(write->write_value(Text("RV\r")));
    EXPECT_TRUE(write->write_value(Text("RP\r"), 0));
    EXPECT_EQ(sim.CameraWrites(path), (std::vector<Bytes>{Text("RV\r"), Text("RP\r")}));

    // the notify characteristic is readable; nothing was notified yet
    EXPECT_EQ(notify->read_value(), Bytes{});
    try {
        write->read_value();
        FAIL() << "no exception";
    } catch (const tinyb::BluetoothException& e) {
        EXPECT_EQ(e.error_name(), "org.bluez.Error.NotPermitted");
    }
    sim.SetMethodBehaviour(write->get_object_path(), "WriteValue", "org.bluez.Error.Failed", "Not connected",
                           0, 1);
    EXPECT_THROW(write->write_value(Text("RF\r")), tinyb::BluetoothException);

    ASSERT_TRUE(camera->disconnect());
    EXPECT_TRUE(WaitUntil([&] { return camera->get_services().empty(); }));
    EXPECT_EQ(write->get_uuid(), kWriteChar);  // last values stay with the handle
    EXPECT_THROW(write->write_value(Text("RV\r")), tinyb::BluetoothException);
    // a handle made from a path alone finds nothing
    auto service = write->get_service();
    try {
        service->get_uuid();
        FAIL() << "a removed service answered";
    } catch (const tinyb::BluetoothException& e) {
        EXPECT_EQ(e.error_name(), "org.freedesktop.DBus.Error.UnknownObject");
    }
}

TEST_F(TinybClient, ReadValueWithOffset) {
    const std::string path = sim.AddDevice("AA:00:00:00:04:02", DeviceProps{});
    sim.AddGattService(path, "0000180a-0000-1000-8000-00805f9b34fb",
                       {"00002a29-0000-1000-8000-00805f9b34fb"});
    auto device = WaitForDevice("AA:00:00:00:04:02");
    ASSERT_NE(device, nullptr);
    ASSERT_TRUE(device->connect());
    ASSERT_TRUE(WaitUntil([&] { return device->get_services_resolved(); }));
    auto services = device->get_services();
    ASSERT_EQ(services.size(), 1u);
    auto characteristics = services[0]->get_characteristics();
    ASSERT_EQ(characteristics.size(), 1u);
    ASSERT_TRUE(characteristics[0]->write_value(Text("QUORBEL")));
    EXPECT_EQ(characteristics[0]->read_value(), Text("QUORBEL"));
    EXPECT_EQ(characteristics[0]->read_value(3), Text("RBEL"));
}

TEST_F(TinybClient, ServicesAreListedInBluezOrder) {
    DeviceProps props;
    props.camera = true;
    const std::string path = sim.AddDevice("AA:00:00:00:04:03", props);
    sim.AddGattService(path, "fdeafdea-0000-1000-8000-0000000000ff",
                       {"fdea0002-0000-1000-8000-0000000000ff"});
    auto device = WaitForDevice("AA:00:00:00:04:03");
    ASSERT_NE(device, nullptr);
    ASSERT_TRUE(device->connect());
    ASSERT_TRUE(WaitUntil([&] { return device->get_services_resolved(); }));
    auto services = device->get_services();
    ASSERT_EQ(services.size(), 2u);
    EXPECT_EQ(services[0]->get_uuid(), kCameraService);
    EXPECT_EQ(services[1]->get_uuid(), "fdeafdea-0000-1000-8000-0000000000ff");
    EXPECT_TRUE(services[0]->get_primary());
    ASSERT_TRUE(device->disconnect());
}

struct Received {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<Bytes> values;
    std::vector<std::thread::id> threads;

    void Add(const Bytes& value) {
        std::lock_guard<std::mutex> lock(mutex);
        values.push_back(value);
        threads.push_back(std::this_thread::get_id());
        changed.notify_all();
    }
    bool WaitFor(size_t count, std::chrono::milliseconds timeout = 3000ms) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, timeout, [&] { return values.size() >= count; });
    }
    size_t Size() {
        std::lock_guard<std::mutex> lock(mutex);
        return values.size();
    }
};

TEST_F(TinybClient, NotificationsArriveOnTheLibraryThread) {
    DeviceProps props;
    props.name = "CAM-NOTIFY";
    props.camera = true;
    const std::string path = sim.AddDevice("AA:00:00:00:05:01", props);
    auto camera = WaitForDevice("AA:00:00:00:05:01");
    ASSERT_NE(camera, nullptr);
    std::unique_ptr<tinyb::BluetoothGattCharacteristic> write, notify;
    ConnectCamera(*camera, write, notify);

    Received received;
    EXPECT_FALSE(notify->get_notifying());
    ASSERT_TRUE(notify->enable_value_notifications([&](std::vector<uint8_t>& v) { received.Add(v); }));
    EXPECT_TRUE(notify->get_notifying());

    ASSERT_TRUE(write->write_value(Text("RV\r")));
    ASSERT_TRUE(received.WaitFor(1));
    ASSERT_TRUE(write->write_value(Text("RP\r")));
    ASSERT_TRUE(received.WaitFor(2));
    ASSERT_TRUE(write->write_value(Text("RF\r")));
    ASSERT_TRUE(received.WaitFor(3));
    ASSERT_TRUE(write->write_value(Text("WF2.4G\r")));
    ASSERT_TRUE(received.WaitFor(4));
    ASSERT_TRUE(write->write_value(Text("WPY\r")));
    ASSERT_TRUE(received.WaitFor(5));
    {
        std::lock_guard<std::mutex> lock(received.mutex);
        EXPECT_EQ(received.values, (std::vector<Bytes>{Text("V12\r"), Text("PZ\r"), Text("F5.0R\r"),
                                                       Text("F2.4R\r"), Text("PY\r")}));
        for (const auto& id : received.threads)
            EXPECT_NE(id, std::this_thread::get_id());
        EXPECT_EQ(std::count(received.threads.begin(), received.threads.end(), received.threads[0]), 5);
    }
    // the same value twice is two notifications
    sim.CameraNotify(path, Text("PY\r"));
    ASSERT_TRUE(received.WaitFor(6));

    ASSERT_TRUE(notify->disable_value_notifications());
    EXPECT_FALSE(notify->get_notifying());
    ASSERT_TRUE(write->write_value(Text("RV\r")));
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(received.Size(), 6u);
    ASSERT_TRUE(camera->disconnect());
}

TEST_F(TinybClient, RegistrationOutlivesTheHandleAndEndsWithTheLink) {
    DeviceProps props;
    props.camera = true;
    const std::string path = sim.AddDevice("AA:00:00:00:05:02", props);
    auto camera = WaitForDevice("AA:00:00:00:05:02");
    ASSERT_NE(camera, nullptr);
    std::unique_ptr<tinyb::BluetoothGattCharacteristic> write, notify;
    ConnectCamera(*camera, write, notify);

    Received received;
    ASSERT_TRUE(notify->enable_value_notifications([&](std::vector<uint8_t>& v) { received.Add(v); }));
    notify.reset();  // the registration belongs to the characteristic, not to this handle
    sim.CameraNotify(path, Text("PU\r"));
    ASSERT_TRUE(received.WaitFor(1));

    sim.SimulateDisconnect(path);
    EXPECT_TRUE(WaitUntil([&] { return !camera->get_connected(); }));
    ConnectCamera(*camera, write, notify);
    EXPECT_FALSE(notify->get_notifying());
    // notifications switched on by someone else after the reconnection do not reach the old callback
    sd_bus_message* reply = nullptr;
    ASSERT_GE(
        TestSupport::CallMethod(TestSupport::Bus::System, "org.bluez", notify->get_object_path().c_str(),
                                "org.bluez.GattCharacteristic1", "StartNotify", &reply, ""),
        0);
    sd_bus_message_unref(reply);
    ASSERT_TRUE(write->write_value(Text("RP\r")));
    EXPECT_TRUE(WaitUntil([&] { return notify->get_value() == Text("PZ\r"); }));
    EXPECT_EQ(received.Size(), 1u);
    ASSERT_TRUE(camera->disconnect());
}

TEST_F(TinybClient, StartNotifyRefusedWithdrawsTheCallback) {
    DeviceProps props;
    props.camera = true;
    const std::string path = sim.AddDevice("AA:00:00:00:05:03", props);
    auto camera = WaitForDevice("AA:00:00:00:05:03");
    ASSERT_NE(camera, nullptr);
    std::unique_ptr<tinyb::BluetoothGattCharacteristic> write, notify;
    ConnectCamera(*camera, write, notify);

    Received received;
    sim.SetMethodBehaviour(notify->get_object_path(), "StartNotify", "org.bluez.Error.NotPermitted", "no", 0,
                           1);
    EXPECT_THROW(notify->enable_value_notifications([&](std::vector<uint8_t>& v) { received.Add(v); }),
                 tinyb::BluetoothException);
    // a notification sent anyway (another client enabled them) does not reach the withdrawn callback
    sd_bus_message* reply = nullptr;
    ASSERT_GE(
        TestSupport::CallMethod(TestSupport::Bus::System, "org.bluez", notify->get_object_path().c_str(),
                                "org.bluez.GattCharacteristic1", "StartNotify", &reply, ""),
        0);
    sd_bus_message_unref(reply);
    sim.CameraNotify(path, Text("PZ\r"));
    EXPECT_TRUE(WaitUntil([&] { return notify->get_value() == Text("PZ\r"); }));
    EXPECT_EQ(received.Size(), 0u);
    ASSERT_TRUE(camera->disconnect());
}

TEST_F(TinybClient, ThrowingCallbackIsCaughtAndLogged) {
    DeviceProps props;
    props.camera = true;
    const std::string path = sim.AddDevice("AA:00:00:00:05:04", props);
    auto camera = WaitForDevice("AA:00:00:00:05:04");
    ASSERT_NE(camera, nullptr);
    std::unique_ptr<tinyb::BluetoothGattCharacteristic> write, notify;
    ConnectCamera(*camera, write, notify);

    Logging::Capture capture;
    Received received;
    ASSERT_TRUE(notify->enable_value_notifications([&](std::vector<uint8_t>& v) {
        received.Add(v);
        if (v == Text("PU\r"))
            throw std::runtime_error("boom");
    }));
    sim.CameraNotify(path, Text("PU\r"));
    sim.CameraNotify(path, Text("PZ\r"));
    ASSERT_TRUE(received.WaitFor(2));
    EXPECT_TRUE(capture.Contains(
        "tinyb: notification callback for " + notify->get_object_path() + " threw: boom", LOG_ERR));
    ASSERT_TRUE(notify->disable_value_notifications());
    ASSERT_TRUE(camera->disconnect());
}

TEST_F(TinybClient, CallbackMayCallBackIntoTheLibrary) {
    DeviceProps props;
    props.camera = true;
    const std::string path = sim.AddDevice("AA:00:00:00:05:05", props);
    auto camera = WaitForDevice("AA:00:00:00:05:05");
    ASSERT_NE(camera, nullptr);
    std::unique_ptr<tinyb::BluetoothGattCharacteristic> write, notify;
    ConnectCamera(*camera, write, notify);

    // On the library thread: a getter, and a write answered by a second notification.
    Received received;
    tinyb::BluetoothGattCharacteristic* writer = write.get();
    ASSERT_TRUE(notify->enable_value_notifications([&, writer](std::vector<uint8_t>& v) {
        received.Add(v);
        if (v == Text("PZ\r")) {
            EXPECT_EQ(writer->get_uuid(), kWriteChar);
            writer->write_value(Text("RV\r"));
        }
    }));
    ASSERT_TRUE(write->write_value(Text("RP\r")));
    ASSERT_TRUE(received.WaitFor(2));
    {
        std::lock_guard<std::mutex> lock(received.mutex);
        EXPECT_EQ(received.values[1], Text("V12\r"));
    }
    ASSERT_TRUE(notify->disable_value_notifications());
    ASSERT_TRUE(camera->disconnect());
}

TEST_F(TinybClient, SlowCallDoesNotBlockOtherThreads) {
    const std::string slowPath = sim.AddDevice("AA:00:00:00:06:01", DeviceProps{});
    DeviceProps props;
    props.name = "FAST";
    sim.AddDevice("AA:00:00:00:06:02", props);
    auto slow = WaitForDevice("AA:00:00:00:06:01");
    auto fast = WaitForDevice("AA:00:00:00:06:02");
    ASSERT_NE(slow, nullptr);
    ASSERT_NE(fast, nullptr);
    sim.SetMethodBehaviour(slowPath, "Connect", "", "", 600);

    std::atomic<bool> slowDone{false};
    std::thread worker([&] {
        EXPECT_TRUE(slow->connect());
        slowDone = true;
    });
    std::this_thread::sleep_for(50ms);
    // while the worker waits for BlueZ, this thread's calls and getters go through
    EXPECT_TRUE(fast->set_trusted(true));
    EXPECT_TRUE(fast->get_trusted());
    EXPECT_EQ(fast->get_name(), "FAST");
    EXPECT_FALSE(slowDone.load());
    worker.join();
    EXPECT_TRUE(slowDone.load());
    EXPECT_TRUE(slow->get_connected());
    sim.ClearMethodBehaviour(slowPath, "Connect");
    ASSERT_TRUE(slow->disconnect());
}

TEST_F(TinybClient, TwoThreadsAtOnce) {
    DeviceProps props;
    props.name = "SHARED";
    props.manufacturerData = {{1523, {0, 1, 3}}};
    sim.AddDevice("AA:00:00:00:06:03", props);
    ASSERT_NE(WaitForDevice("AA:00:00:00:06:03"), nullptr);
    sim.ClearCalls(kAdapterPath);

    // both threads start and stop discovery together: one StartDiscovery, never InProgress
    std::atomic<int> failures{0};
    auto work = [&](bool trust) {
        try {
            for (int i = 0; i < 30; ++i) {
                manager->start_discovery();
                auto device = Find("AA:00:00:00:06:03");
                if (!device || device->get_name() != "SHARED" ||
                    device->get_manufacturer_data().size() != 1) {
                    ++failures;
                }
                if (device)
                    device->set_trusted(trust);
            }
        } catch (const std::exception& e) {
            ADD_FAILURE() << e.what();
            ++failures;
        }
    };
    std::thread a(work, true), b(work, false);
    a.join();
    b.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(sim.MethodCalls(kAdapterPath, "StartDiscovery"), 1u);
    EXPECT_TRUE(manager->stop_discovery());
}

TEST_F(TinybClient, MissingAdapterIsAnException) {
    sim.RemoveAdapter("hci0");
    ASSERT_TRUE(WaitUntil([&] { return manager->get_adapters().empty(); }));
    EXPECT_THROW(manager->get_default_adapter(), tinyb::BluetoothException);
    EXPECT_THROW(manager->start_discovery(), tinyb::BluetoothException);
    EXPECT_TRUE(manager->get_devices().empty());
    sim.AddAdapter("hci0", "unit-sim");
    ASSERT_TRUE(WaitUntil([&] { return manager->get_adapters().size() == 1; }));
    EXPECT_EQ(manager->get_default_adapter()->get_name(), "unit-sim");
}

// A fresh process, so that the singleton is made there.
class TinybStart : public ::testing::Test {
  protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(TinybStart, UnreachableBusIsAnException) {
    EXPECT_EXIT(
        {
            setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
            try {
                tinyb::BluetoothManager::get_bluetooth_manager();
            } catch (const tinyb::BluetoothException& e) {
                std::exit(std::string(e.what()).find("system bus") != std::string::npos ? 7 : 8);
            }
            std::exit(9);
        },
        ::testing::ExitedWithCode(7), "");
}

TEST_F(TinybStart, BusWithoutBluezIsAnExceptionAndALaterCallRetries) {
    EXPECT_EXIT(
        {
            const std::string system = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
            // the user bus has no org.bluez
            setenv("DBUS_SYSTEM_BUS_ADDRESS", std::getenv("DBUS_SESSION_BUS_ADDRESS"), 1);
            try {
                tinyb::BluetoothManager::get_bluetooth_manager();
                std::exit(9);
            } catch (const tinyb::BluetoothException& e) {
                if (e.error_name() != "org.freedesktop.DBus.Error.ServiceUnknown")
                    std::exit(8);
            }
            setenv("DBUS_SYSTEM_BUS_ADDRESS", system.c_str(), 1);
            auto* manager = tinyb::BluetoothManager::get_bluetooth_manager();
            std::exit(manager->get_default_adapter()->get_object_path() == kAdapterPath ? 7 : 6);
        },
        ::testing::ExitedWithCode(7), "");
}

}  // namespace
