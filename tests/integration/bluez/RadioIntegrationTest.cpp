// Backend::TinybRadio through the real tinyb layer against the simulated BlueZ.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "BackendFixture.h"
#include "backend/TinybRadio.h"
#include "logging/Log.h"

namespace {

using BackendTest::kAdapterPath;
using Clock = std::chrono::steady_clock;

constexpr const char* kServiceA = "0000abcd-0001-1000-8000-00805f9b34fb";
constexpr const char* kServiceB = "0000abcd-0002-1000-8000-00805f9b34fb";
constexpr const char* kCharA1 = "0000beef-00a1-1000-8000-00805f9b34fb";
constexpr const char* kCharB1 = "0000beef-00b1-1000-8000-00805f9b34fb";
constexpr const char* kCharB2 = "0000beef-00b2-1000-8000-00805f9b34fb";

class RadioTest : public BackendTest::BluezFixture {
  protected:
    void SetUp() override {
        BluezFixture::SetUp();
        if (HasFatalFailure())
            return;
        radio = std::make_unique<Backend::TinybRadio>();
        ASSERT_TRUE(radio->IsUsable());
    }

    // A device with two services whose UUIDs both contain "abcd", the second with two characteristics
    // whose UUIDs both contain "beef".
    std::string AddDeviceWithTwoServices(const std::string& address) {
        BluezSim::DeviceProps props;
        props.name = "GATT-" + address.substr(address.size() - 2);
        const std::string path = AddDevice(address, props);
        sim.AddGattService(path, kServiceA, {kCharA1});
        sim.AddGattService(path, kServiceB, {kCharB1, kCharB2});
        return path;
    }

    std::string AddCamera(const std::string& address) {
        BluezSim::DeviceProps props;
        props.name = "KelpCam";
        props.camera = true;
        return AddDevice(address, props);
    }

    void ConnectAndResolve(const std::string& address) {
        ASSERT_TRUE(radio->ConnectDevice(address, true));
        ASSERT_TRUE(TestSupport::WaitUntil([&] {
            auto device = Find(address);
            return device && device->get_services_resolved();
        }));
    }

    bool SimSwitch(const char* property) {
        if (std::strcmp(property, "Powered") == 0)
            return adapter->get_powered();
        if (std::strcmp(property, "Pairable") == 0)
            return adapter->get_pairable();
        return adapter->get_discoverable();
    }

    std::unique_ptr<Backend::TinybRadio> radio;
    Logging::Capture capture;
};

// ---------------------------------------------------------------- adapter switches

TEST_F(RadioTest, SwitchToCurrentStateMakesNoSetterCall) {
    // The fixture leaves the adapter powered, pairable and not discoverable.
    const auto start = Clock::now();
    EXPECT_TRUE(radio->SetPowered(true));
    EXPECT_TRUE(radio->SetPairable(true));
    EXPECT_TRUE(radio->SetDiscoverable(false));
    EXPECT_EQ(sim.MethodCalls(kAdapterPath, "Set"), 0u);
    // No poll either: a poll sleeps 100 ms.
    EXPECT_LT(MsSince(start), 100);
}

TEST_F(RadioTest, SwitchMakesOneSetterCallAndReflectsTheState) {
    EXPECT_TRUE(radio->SetDiscoverable(true));
    EXPECT_EQ(sim.MethodCalls(kAdapterPath, "Set"), 1u);
    EXPECT_TRUE(adapter->get_discoverable());
    EXPECT_TRUE(radio->GetDiscoverable());

    EXPECT_TRUE(radio->SetPairable(false));
    EXPECT_TRUE(radio->SetPowered(false));
    EXPECT_EQ(sim.MethodCalls(kAdapterPath, "Set"), 3u);
    EXPECT_FALSE(radio->GetPairable());
    EXPECT_FALSE(radio->GetPowered());
    EXPECT_FALSE(adapter->get_powered());
    EXPECT_EQ(capture.CountContaining("TinyB exception"), 0u);
}

TEST_F(RadioTest, GettersFollowTheAdapter) {
    adapter->set_discoverable(true);
    ASSERT_TRUE(TestSupport::WaitUntil([&] { return adapter->get_discoverable(); }));
    EXPECT_TRUE(radio->GetDiscoverable());
    EXPECT_TRUE(radio->GetPowered());
    EXPECT_TRUE(radio->GetPairable());
    adapter->set_pairable(false);
    ASSERT_TRUE(TestSupport::WaitUntil([&] { return !adapter->get_pairable(); }));
    EXPECT_FALSE(radio->GetPairable());
}

TEST_F(RadioTest, SwitchNeverReflectedFailsAfterFivePolls) {
    struct Case {
        const char* property;
        bool (Backend::TinybRadio::*set)(bool);
        bool wanted;
    };
    const Case cases[] = {{"Powered", &Backend::TinybRadio::SetPowered, false},
                          {"Pairable", &Backend::TinybRadio::SetPairable, false},
                          {"Discoverable", &Backend::TinybRadio::SetDiscoverable, true}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.property);
        sim.SetSwitchBehaviour(c.property, "ignore");
        sim.ClearCalls(kAdapterPath);
        const auto start = Clock::now();
        EXPECT_FALSE(((*radio).*(c.set))(c.wanted));
        const auto elapsed = MsSince(start);
        // Five polls, each followed by a 100 ms sleep.
        EXPECT_GE(elapsed, 500);
        EXPECT_LT(elapsed, 1500);
        EXPECT_EQ(sim.MethodCalls(kAdapterPath, "Set"), 1u);
        EXPECT_NE(SimSwitch(c.property), c.wanted);
    }
    EXPECT_EQ(capture.CountContaining("TinyB exception"), 0u);
}

TEST_F(RadioTest, SwitchReflectedLateWithinThePollsSucceeds) {
    sim.SetSwitchBehaviour("Pairable", "delay", 250);
    const auto start = Clock::now();
    EXPECT_TRUE(radio->SetPairable(false));
    EXPECT_GE(MsSince(start), 250);
    EXPECT_FALSE(radio->GetPairable());
}

TEST_F(RadioTest, SwitchReflectedAfterThePollsFails) {
    // Five polls of 100 ms end well before BlueZ applies the switch.
    sim.SetSwitchBehaviour("Discoverable", "delay", 900);
    EXPECT_FALSE(radio->SetDiscoverable(true));
    // BlueZ applies it later; the radio had given up by then.
    EXPECT_TRUE(TestSupport::WaitUntil([&] { return adapter->get_discoverable(); }));
    EXPECT_TRUE(radio->GetDiscoverable());
}

TEST_F(RadioTest, SwitchRefusedByBlueZIsLoggedAndFails) {
    sim.SetMethodBehaviour(kAdapterPath, "Set", "org.bluez.Error.Failed", "refused", 0, 1);
    EXPECT_FALSE(radio->SetPowered(false));
    EXPECT_TRUE(adapter->get_powered());
    EXPECT_EQ(capture.Count("TinyB exception hit in SetPowered: org.bluez.Error.Failed: refused", LOG_ERR),
              1u);
}

TEST_F(RadioTest, AdapterGoneIsLoggedByTheSwitchesAndANewRadioIsUnusable) {
    sim.RemoveAdapter("hci0");
    ASSERT_TRUE(TestSupport::WaitUntil([&] { return manager->get_adapters().empty(); }));
    const std::string gone =
        ": org.freedesktop.DBus.Error.UnknownObject: BlueZ has no org.bluez.Adapter1 at /org/bluez/hci0";
    EXPECT_FALSE(radio->GetPowered());
    EXPECT_EQ(capture.Count("TinyB exception hit in GetPowered" + gone, LOG_ERR), 1u);
    EXPECT_FALSE(radio->SetPairable(false));
    EXPECT_EQ(capture.Count("TinyB exception hit in SetPairable" + gone, LOG_ERR), 1u);
    Backend::TinybRadio late;
    EXPECT_FALSE(late.IsUsable());
    EXPECT_EQ(capture.Count(
                  "TinyB exception hit in GetDefaultAdapter: org.bluez.Error.NotReady: BlueZ has no adapter",
                  LOG_ERR),
              1u);
    sim.AddAdapter("hci0", "unit-sim");
    ASSERT_TRUE(TestSupport::WaitUntil([&] { return manager->get_adapters().size() == 1; }));
}

// ---------------------------------------------------------------- devices by address

TEST_F(RadioTest, UnknownAddressIsReportedByEveryDeviceOperation) {
    const std::string mac = "00:11:22:33:44:99";
    EXPECT_FALSE(radio->PairDevice(mac, false));
    EXPECT_EQ(capture.Count("Could not find device with MAC: 00:11:22:33:44:99", LOG_ERR), 1u);
    EXPECT_FALSE(radio->PairDevice(mac, true));
    EXPECT_FALSE(radio->ConnectDevice(mac, true));
    EXPECT_FALSE(radio->ConnectDevice(mac, false));
    EXPECT_FALSE(radio->TrustDevice(mac, true));
    EXPECT_EQ(capture.Count("Could not find device with MAC: 00:11:22:33:44:99", LOG_ERR), 5u);
    // No operation reached BlueZ.
    EXPECT_EQ(capture.CountContaining("TinyB exception"), 0u);
    EXPECT_EQ(capture.CountContaining("Could not pair"), 0u);
    EXPECT_EQ(capture.CountContaining("Could not connect"), 0u);
}

TEST_F(RadioTest, DeviceLookupIsExactAndCaseSensitive) {
    AddDevice("AA:BB:CC:00:01:01", {});
    AddDevice("AA:BB:CC:00:01:02", {});
    auto device = Backend::TinybRadio::GetDevice("AA:BB:CC:00:01:02");
    ASSERT_TRUE(device);
    EXPECT_EQ(device->get_address(), "AA:BB:CC:00:01:02");
    EXPECT_FALSE(Backend::TinybRadio::GetDevice("aa:bb:cc:00:01:02"));
    EXPECT_FALSE(Backend::TinybRadio::GetDevice("AA:BB:CC:00:01"));
    EXPECT_FALSE(radio->PairDevice("aa:bb:cc:00:01:02", true));
    EXPECT_TRUE(capture.Contains("Could not find device with MAC: aa:bb:cc:00:01:02", LOG_ERR));
}

TEST_F(RadioTest, PairAndUnpair) {
    const std::string mac = "AA:BB:CC:00:02:01";
    AddDevice(mac, {});
    EXPECT_TRUE(radio->PairDevice(mac, true));
    EXPECT_TRUE(TestSupport::WaitUntil([&] { return Is(mac, &tinyb::BluetoothDevice::get_paired); }));

    // BlueZ refuses a second pairing: logged, then reported.
    EXPECT_FALSE(radio->PairDevice(mac, true));
    EXPECT_EQ(capture.CountContaining("TinyB exception hit in PairDevice: org.bluez.Error.AlreadyExists"),
              1u);
    EXPECT_TRUE(capture.Contains("Could not pair to device with MAC: AA:BB:CC:00:02:01", LOG_ERR));

    // Unpairing makes BlueZ forget the device.
    EXPECT_TRUE(radio->PairDevice(mac, false));
    EXPECT_TRUE(TestSupport::WaitUntil([&] { return Find(mac) == nullptr; }));
    EXPECT_EQ(sim.MethodCalls(kAdapterPath, "RemoveDevice"), 1u);
    EXPECT_FALSE(radio->PairDevice(mac, false));
    EXPECT_TRUE(capture.Contains("Could not find device with MAC: AA:BB:CC:00:02:01", LOG_ERR));
}

TEST_F(RadioTest, FailedUnpairIsLoggedWithPairDevice) {
    const std::string mac = "AA:BB:CC:00:02:02";
    AddDevice(mac, {});
    sim.SetMethodBehaviour(kAdapterPath, "RemoveDevice", "org.bluez.Error.Failed", "busy", 0, 1);
    EXPECT_FALSE(radio->PairDevice(mac, false));
    EXPECT_EQ(capture.Count("TinyB exception hit in PairDevice: org.bluez.Error.Failed: busy", LOG_ERR), 1u);
    EXPECT_TRUE(capture.Contains("Could not unpair from device with MAC: AA:BB:CC:00:02:02", LOG_ERR));
    EXPECT_TRUE(Find(mac));
}

TEST_F(RadioTest, ConnectAndDisconnect) {
    const std::string mac = "AA:BB:CC:00:03:01";
    AddDevice(mac, {});
    EXPECT_TRUE(radio->ConnectDevice(mac, true));
    EXPECT_TRUE(TestSupport::WaitUntil([&] { return Is(mac, &tinyb::BluetoothDevice::get_connected); }));

    EXPECT_FALSE(radio->ConnectDevice(mac, true));
    EXPECT_EQ(
        capture.CountContaining("TinyB exception hit in ConnectDevice: org.bluez.Error.AlreadyConnected"),
        1u);
    EXPECT_TRUE(capture.Contains("Could not connect to device with MAC: AA:BB:CC:00:03:01", LOG_ERR));

    EXPECT_TRUE(radio->ConnectDevice(mac, false));
    EXPECT_TRUE(TestSupport::WaitUntil([&] { return IsNot(mac, &tinyb::BluetoothDevice::get_connected); }));

    EXPECT_FALSE(radio->ConnectDevice(mac, false));
    EXPECT_EQ(capture.CountContaining("TinyB exception hit in ConnectDevice: org.bluez.Error.NotConnected"),
              1u);
    EXPECT_TRUE(capture.Contains("Could not disconnect from device with MAC: AA:BB:CC:00:03:01", LOG_ERR));
}

TEST_F(RadioTest, TrustDeviceSetsTrustedAndIgnoresTheOutcome) {
    const std::string mac = "AA:BB:CC:00:04:01";
    const std::string path = AddDevice(mac, {});
    EXPECT_TRUE(radio->TrustDevice(mac, true));
    EXPECT_TRUE(TestSupport::WaitUntil([&] { return Is(mac, &tinyb::BluetoothDevice::get_trusted); }));
    EXPECT_TRUE(radio->TrustDevice(mac, false));
    EXPECT_TRUE(TestSupport::WaitUntil([&] { return IsNot(mac, &tinyb::BluetoothDevice::get_trusted); }));
    EXPECT_EQ(sim.MethodCalls(path, "Set"), 2u);
}

TEST_F(RadioTest, TrustDeviceLetsBlueZErrorsThrough) {
    const std::string mac = "AA:BB:CC:00:04:02";
    const std::string path = AddDevice(mac, {});
    sim.SetMethodBehaviour(path, "Set", "org.bluez.Error.Failed", "no trust", 0, 1);
    EXPECT_THROW(radio->TrustDevice(mac, true), tinyb::BluetoothException);
    EXPECT_EQ(capture.CountContaining("TinyB exception"), 0u);
}

// ---------------------------------------------------------------- GATT lookups

TEST_F(RadioTest, UuidFragmentMatchingTwoServicesSelectsTheLater) {
    const std::string mac = "AA:BB:CC:00:05:01";
    AddDeviceWithTwoServices(mac);
    ConnectAndResolve(mac);

    auto device = Backend::TinybRadio::GetDevice(mac);
    ASSERT_TRUE(device);
    auto services = device->get_services();
    ASSERT_EQ(services.size(), 2u);
    ASSERT_EQ(services[0]->get_uuid(), kServiceA);  // BlueZ's order
    ASSERT_EQ(services[1]->get_uuid(), kServiceB);

    auto service = Backend::TinybRadio::GetService(mac, "abcd");
    ASSERT_TRUE(service);
    EXPECT_EQ(service->get_uuid(), kServiceB);
    // A fragment that matches only the first one finds it.
    auto first = Backend::TinybRadio::GetService(*device, "abcd-0001");
    ASSERT_TRUE(first);
    EXPECT_EQ(first->get_uuid(), kServiceA);
    EXPECT_FALSE(Backend::TinybRadio::GetService(mac, "fdeafdea"));
}

TEST_F(RadioTest, UuidFragmentMatchingTwoCharacteristicsSelectsTheLater) {
    const std::string mac = "AA:BB:CC:00:05:02";
    AddDeviceWithTwoServices(mac);
    ConnectAndResolve(mac);

    auto characteristic = Backend::TinybRadio::GetCharacteristic(mac, "abcd", "beef");
    ASSERT_TRUE(characteristic);
    EXPECT_EQ(characteristic->get_uuid(), kCharB2);
    auto first = Backend::TinybRadio::GetCharacteristic(mac, "abcd", "beef-00b1");
    ASSERT_TRUE(first);
    EXPECT_EQ(first->get_uuid(), kCharB1);
    // The characteristic of the first service is out of reach through the later service.
    EXPECT_FALSE(Backend::TinybRadio::GetCharacteristic(mac, "abcd", "beef-00a1"));
    EXPECT_TRUE(Backend::TinybRadio::GetCharacteristic(mac, "abcd-0001", "beef"));
    EXPECT_FALSE(Backend::TinybRadio::GetCharacteristic("AA:BB:CC:00:05:99", "abcd", "beef"));
}

TEST_F(RadioTest, LookupsBeforeServiceResolutionFindNothing) {
    const std::string mac = "AA:BB:CC:00:05:03";
    AddDeviceWithTwoServices(mac);
    EXPECT_FALSE(Backend::TinybRadio::GetService(mac, "abcd"));
    EXPECT_FALSE(Backend::TinybRadio::GetCharacteristic(mac, "abcd", "beef"));
    EXPECT_EQ(capture.CountContaining("TinyB exception"), 0u);
}

// ---------------------------------------------------------------- service discovery wait

TEST_F(RadioTest, WaitForServiceDiscoveryOnResolvedDevice) {
    const std::string mac = "AA:BB:CC:00:06:01";
    AddCamera(mac);
    ConnectAndResolve(mac);
    EXPECT_TRUE(radio->WaitForServiceDiscovery(mac, 7));
    EXPECT_EQ(capture.Count("WaitForServiceDiscovery: Service discovery done!", LOG_INFO), 1u);
}

TEST_F(RadioTest, WaitForServiceDiscoveryWithTimeoutZeroDoesNotPoll) {
    const std::string mac = "AA:BB:CC:00:06:02";
    AddCamera(mac);
    ConnectAndResolve(mac);
    // Services are resolved, yet no poll is made at all.
    EXPECT_FALSE(radio->WaitForServiceDiscovery(mac, 0));
    EXPECT_EQ(capture.CountContaining("Service discovery done!"), 0u);
}

TEST_F(RadioTest, WaitForServiceDiscoveryOnDisconnectedDeviceFailsAtOnce) {
    const std::string mac = "AA:BB:CC:00:06:03";
    AddCamera(mac);
    const auto start = Clock::now();
    EXPECT_FALSE(radio->WaitForServiceDiscovery(mac, 7));
    EXPECT_LT(MsSince(start), 250);  // not even one 250 ms poll
    EXPECT_FALSE(radio->WaitForServiceDiscovery("AA:BB:CC:00:06:99", 7));
    // Neither case logs anything of its own.
    EXPECT_EQ(capture.CountContaining("Service discovery done!"), 0u);
    EXPECT_EQ(capture.CountContaining("Could not find device"), 0u);
}

TEST_F(RadioTest, WaitForServiceDiscoveryTimesOutAfterFourPollsPerSecond) {
    const std::string mac = "AA:BB:CC:00:06:04";
    const std::string path = AddCamera(mac);
    ConnectAndResolve(mac);
    // Still connected, but the services are no longer resolved.
    SetDeviceFlag(path, "ServicesResolved", false);
    ASSERT_TRUE(
        TestSupport::WaitUntil([&] { return IsNot(mac, &tinyb::BluetoothDevice::get_services_resolved); }));
    ASSERT_TRUE(Is(mac, &tinyb::BluetoothDevice::get_connected));

    const auto start = Clock::now();
    EXPECT_FALSE(radio->WaitForServiceDiscovery(mac, 1));
    const auto elapsed = MsSince(start);
    EXPECT_GE(elapsed, 1000);
    EXPECT_LT(elapsed, 4000);
}

TEST_F(RadioTest, WaitForServiceDiscoveryWaitsForTheResolution) {
    const std::string mac = "AA:BB:CC:00:06:05";
    AddCamera(mac);
    ASSERT_TRUE(radio->ConnectDevice(mac, true));
    EXPECT_TRUE(radio->WaitForServiceDiscovery(mac, 7));
    EXPECT_TRUE(Is(mac, &tinyb::BluetoothDevice::get_services_resolved));
    EXPECT_TRUE(capture.Contains("WaitForServiceDiscovery: Service discovery done!", LOG_INFO));
}

// ---------------------------------------------------------------- read and write

TEST_F(RadioTest, WriteThenReadBack) {
    const std::string mac = "AA:BB:CC:00:07:01";
    AddDeviceWithTwoServices(mac);
    ConnectAndResolve(mac);
    const std::vector<uint8_t> value{0x52, 0x50, 0x0d, 0x00, 0xff};
    EXPECT_TRUE(radio->WriteCharacteristic(mac, "abcd", "beef-00b1", value, 0));
    std::vector<uint8_t> out{9, 9};
    EXPECT_TRUE(radio->ReadCharacteristic(mac, "abcd", "beef-00b1", out));
    EXPECT_EQ(out, value);
    // The later characteristic was not written.
    EXPECT_TRUE(radio->ReadCharacteristic(mac, "abcd", "beef", out));
    EXPECT_TRUE(out.empty());
}

TEST_F(RadioTest, SuccessfulWriteWaitsForTheDelay) {
    const std::string mac = "AA:BB:CC:00:07:02";
    const std::string path = AddCamera(mac);
    ConnectAndResolve(mac);
    const std::vector<uint8_t> command{'R', 'P', '\r'};
    const auto start = Clock::now();
    EXPECT_TRUE(radio->WriteCharacteristic(mac, "fdeafdea", "fdea0001", command, 100));
    EXPECT_GE(MsSince(start), 100);
    EXPECT_THAT(sim.CameraWrites(path), ::testing::ElementsAre(command));
}

TEST_F(RadioTest, FailedWriteReturnsAtOnce) {
    const std::string mac = "AA:BB:CC:00:07:03";
    AddCamera(mac);
    ConnectAndResolve(mac);
    auto characteristic = Backend::TinybRadio::GetCharacteristic(mac, "fdeafdea", "fdea0001");
    ASSERT_TRUE(characteristic);
    sim.SetMethodBehaviour(characteristic->get_object_path(), "WriteValue", "org.bluez.Error.Failed", "gone");
    const auto start = Clock::now();
    EXPECT_FALSE(radio->WriteCharacteristic(mac, "fdeafdea", "fdea0001", {'R', 'P', '\r'}, 1000));
    EXPECT_LT(MsSince(start), 1000);
    EXPECT_EQ(
        capture.Count("TinyB exception hit in WriteCharacteristic: org.bluez.Error.Failed: gone", LOG_ERR),
        1u);
}

TEST_F(RadioTest, WriteToMissingCharacteristicReturnsAtOnce) {
    const std::string mac = "AA:BB:CC:00:07:04";
    AddCamera(mac);
    const auto start = Clock::now();
    // Not connected: no GATT database yet.
    EXPECT_FALSE(radio->WriteCharacteristic(mac, "fdeafdea", "fdea0001", {'R', 'P', '\r'}, 1000));
    EXPECT_LT(MsSince(start), 1000);
    EXPECT_EQ(capture.Count("Could not get characteristic...", LOG_INFO), 1u);
    std::vector<uint8_t> out{1};
    EXPECT_FALSE(radio->ReadCharacteristic("AA:BB:CC:00:07:99", "fdeafdea", "fdea0002", out));
    EXPECT_EQ(capture.Count("Could not get characteristic...", LOG_INFO), 2u);
    EXPECT_EQ(out, std::vector<uint8_t>{1});
}

TEST_F(RadioTest, FailedReadIsLoggedAndLeavesTheBufferAlone) {
    const std::string mac = "AA:BB:CC:00:07:05";
    AddCamera(mac);
    ConnectAndResolve(mac);
    std::vector<uint8_t> out{7};
    // The command characteristic cannot be read.
    EXPECT_FALSE(radio->ReadCharacteristic(mac, "fdeafdea", "fdea0001", out));
    EXPECT_EQ(
        capture.CountContaining("TinyB exception hit in ReadCharacteristic: org.bluez.Error.NotPermitted"),
        1u);
    EXPECT_EQ(out, std::vector<uint8_t>{7});
}

// The delay is a plain sleep that a signal must not shorten.
std::atomic<int> g_interruptions{0};
void CountInterruption(int) {
    g_interruptions.fetch_add(1);
}

TEST_F(RadioTest, WriteDelaySurvivesSignals) {
    const std::string mac = "AA:BB:CC:00:07:06";
    AddCamera(mac);
    ConnectAndResolve(mac);

    struct sigaction action {};
    struct sigaction previous {};
    action.sa_handler = CountInterruption;  // no SA_RESTART: nanosleep returns EINTR
    sigemptyset(&action.sa_mask);
    ASSERT_EQ(sigaction(SIGUSR1, &action, &previous), 0);

    std::atomic<bool> done{false};
    bool written = false;
    long long elapsed = 0;
    std::thread writer([&] {
        const auto start = Clock::now();
        written = radio->WriteCharacteristic(mac, "fdeafdea", "fdea0001", {'R', 'V', '\r'}, 400);
        elapsed = MsSince(start);
        done = true;
    });
    const pthread_t handle = writer.native_handle();
    // Interrupt the writer repeatedly while it sleeps.
    for (int i = 0; i < 20 && !done; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(15));
        if (!done)
            pthread_kill(handle, SIGUSR1);
    }
    writer.join();
    sigaction(SIGUSR1, &previous, nullptr);

    EXPECT_TRUE(written);
    EXPECT_GT(g_interruptions.load(), 0);
    EXPECT_GE(elapsed, 400);
}

}  // namespace
