#pragma once
// Common ground of the radio and scanner tests: the simulated BlueZ reset to a known state before each
// test (adapter powered and pairable, not discoverable, no discovery running, no devices, normal method
// behaviour) and helpers that wait until tinyb's cache has caught up with the simulation.

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>

#include "BluezSimControl.h"
#include "test_support/TestEnv.h"
#include "tinyb/tinyb.hpp"

namespace BackendTest {

inline constexpr const char* kAdapterPath = "/org/bluez/hci0";

class BluezFixture : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(TestSupport::InHarness()) << "run through tests/harness/testenv.py";
        manager = tinyb::BluetoothManager::get_bluetooth_manager();
        adapter = manager->get_default_adapter();
        Reset();
        sim.ClearCalls(kAdapterPath);
    }

    void TearDown() override { Reset(); }

    void Reset() {
        for (const char* method : {"Set", "StartDiscovery", "StopDiscovery", "RemoveDevice"})
            sim.ClearMethodBehaviour(kAdapterPath, method);
        for (const char* property : {"Powered", "Pairable", "Discoverable"})
            sim.SetSwitchBehaviour(property, "apply");
        // Ends our discovery session whatever tinyb believes about it.
        try {
            manager->start_discovery();
        } catch (const tinyb::BluetoothException&) {
        }
        try {
            manager->stop_discovery();
        } catch (const tinyb::BluetoothException&) {
        }
        if (!adapter->get_powered())
            adapter->set_powered(true);
        if (!adapter->get_pairable())
            adapter->set_pairable(true);
        if (adapter->get_discoverable())
            adapter->set_discoverable(false);
        for (auto& device : manager->get_devices()) {
            try {
                sim.RemoveDevice(device->get_object_path());
            } catch (const std::runtime_error&) {
                // The simulation cannot yet remove a camera that was never connected (its GATT objects
                // have no paths until then): connect it once, then remove it.
                try {
                    device->connect();
                } catch (const tinyb::BluetoothException&) {
                }
                TestSupport::WaitUntil([&] { return device->get_services_resolved(); });
                sim.RemoveDevice(device->get_object_path());
            }
        }
        ASSERT_TRUE(TestSupport::WaitUntil([&] {
            return manager->get_devices().empty() && adapter->get_powered() && adapter->get_pairable() &&
                   !adapter->get_discoverable() && !adapter->get_discovering();
        })) << "the simulated BlueZ did not return to its initial state";
    }

    // Adds a device and waits until tinyb lists it.
    std::string AddDevice(const std::string& address, const BluezSim::DeviceProps& props) {
        const std::string path = sim.AddDevice(address, props);
        EXPECT_TRUE(TestSupport::WaitUntil([&] { return Find(address) != nullptr; })) << address;
        return path;
    }

    std::unique_ptr<tinyb::BluetoothDevice> Find(const std::string& address) {
        for (auto& device : manager->get_devices()) {
            if (device->get_address() == address)
                return std::move(device);
        }
        return nullptr;
    }

    // A flag of the listed device; false when it is not listed.
    bool Is(const std::string& address, bool (tinyb::BluetoothDevice::*getter)()) {
        auto device = Find(address);
        return device && ((*device).*getter)();
    }
    // The flag is clear on the listed device; false when it is not listed.
    bool IsNot(const std::string& address, bool (tinyb::BluetoothDevice::*getter)()) {
        auto device = Find(address);
        return device && !((*device).*getter)();
    }

    void RemoveDevice(const std::string& address) {
        sim.RemoveDevice(BluezSim::Control::DevicePath(address));
        EXPECT_TRUE(TestSupport::WaitUntil([&] { return Find(address) == nullptr; })) << address;
    }

    void Rename(const std::string& address, const std::string& name) {
        sim.SetName(BluezSim::Control::DevicePath(address), name);
        EXPECT_TRUE(TestSupport::WaitUntil([&] {
            auto device = Find(address);
            return device && device->get_name() == name;
        })) << address;
    }

    // Changes a boolean Device1 property of the simulated device (PropertiesChanged follows).
    void SetDeviceFlag(const std::string& path, const char* property, bool value) {
        ASSERT_GE(TestSupport::CallMethod(TestSupport::Bus::System, "org.bluez", "/", "org.bluez.Mock",
                                          "UpdateDevice", nullptr, "oa{sv}", path.c_str(), 1, property, "b",
                                          value ? 1 : 0),
                  0);
    }

    static long long MsSince(std::chrono::steady_clock::time_point start) {
        return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start)
            .count();
    }

    BluezSim::Control sim;
    tinyb::BluetoothManager* manager = nullptr;
    std::unique_ptr<tinyb::BluetoothAdapter> adapter;
};

}  // namespace BackendTest
