// KelpBleManager through the real BlueZ client (tinyb + Backend::TinybRadio) against the simulated
// cameras of sim/bluez_sim.py and sim/kelp_camera.py. Bounds and simulated delays are kept short.

#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <variant>
#include <vector>

#include "BluezSimControl.h"
#include "backend/TinybRadio.h"
#include "dbus_helper/Call.h"
#include "logging/Log.h"
#include "remote_camera/KelpBleManager.h"
#include "scanned_device/RemoteCamera.h"
#include "test_support/TestEnv.h"
#include "tinyb/tinyb.hpp"

using namespace std::chrono_literals;

namespace {

using ProfileValue = std::variant<uint32_t, std::string>;
using Profile = std::vector<std::pair<std::string, ProfileValue>>;

struct CameraState {
    std::string power;
    std::string wifi;
    std::string band;
};

void Check(int r, const char* what) {
    if (r < 0)
        throw std::runtime_error(std::string("AddLEDevice: ") + what + ": " + std::strerror(-r));
}

// org.bluez.Mock.AddLEDevice for a camera with its initial state and its profile (sim/kelp_camera.py).
std::string AddCamera(const std::string& address, const std::string& name, const CameraState& state,
                      const Profile& profile) {
    const auto append = [&](sd_bus_message* m) {
        Check(sd_bus_message_append(m, "ss", "hci0", address.c_str()), "args");
        Check(sd_bus_message_open_container(m, 'a', "{sv}"), "props");
        Check(sd_bus_message_append(m, "{sv}", "Name", "s", name.c_str()), "Name");
        Check(sd_bus_message_append(m, "{sv}", "X-Camera", "b", 1), "X-Camera");
        Check(sd_bus_message_append(m, "{sv}", "X-CameraState", "a{sv}", 3, "power", "s", state.power.c_str(),
                                    "wifi", "s", state.wifi.c_str(), "band", "s", state.band.c_str()),
              "X-CameraState");
        Check(sd_bus_message_open_container(m, 'e', "sv"), "profile");
        Check(sd_bus_message_append(m, "s", "X-Camera-Profile"), "profile");
        Check(sd_bus_message_open_container(m, 'v', "a{sv}"), "profile");
        Check(sd_bus_message_open_container(m, 'a', "{sv}"), "profile");
        for (const auto& [key, value] : profile) {
            if (const auto* number = std::get_if<uint32_t>(&value))
                Check(sd_bus_message_append(m, "{sv}", key.c_str(), "u", *number), key.c_str());
            else
                Check(
                    sd_bus_message_append(m, "{sv}", key.c_str(), "s", std::get<std::string>(value).c_str()),
                    key.c_str());
        }
        for (int level = 0; level < 3; ++level)
            Check(sd_bus_message_close_container(m), "profile");
        Check(sd_bus_message_close_container(m), "props");
        return 0;
    };
    std::string path;
    const auto read = [&](sd_bus_message* reply) {
        const char* object = nullptr;
        if (sd_bus_message_read(reply, "o", &object) >= 0)
            path = object;
        return 0;
    };
    DbusHelper::CallFailure failure;
    const int r =
        DbusHelper::CallMethod(nullptr, DbusHelper::BusKind::System, "org.bluez", "/", "org.bluez.Mock",
                               "AddLEDevice", append, read, failure, 10 * 1000 * 1000);
    if (failure.step == DbusHelper::CallFailure::Step::Open)
        Check(r, "bus");
    if (failure.step == DbusHelper::CallFailure::Step::Build)
        Check(r, "call");
    const std::string message = failure.message.value_or("");
    if (r < 0)
        throw std::runtime_error("AddLEDevice failed: " + message);
    return path;
}

std::vector<std::string> Texts(const std::vector<BluezSim::Bytes>& values) {
    std::vector<std::string> texts;
    for (const auto& value : values)
        texts.emplace_back(value.begin(), value.end());
    return texts;
}

class KelpIntegration : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(TestSupport::InHarness()) << "run through tests/harness/testenv.py";
        radio = std::make_shared<Backend::TinybRadio>();
        ASSERT_TRUE(radio->IsUsable());
        manager = std::make_shared<KelpBleManager>(radio);
        manager->NewData().connect([this](const std::string& json) {
            std::lock_guard<std::mutex> lock(documentsMutex);
            documents.push_back(json);
        });
    }

    void TearDown() override {
        for (const std::string& path : added) {
            try {
                sim.RemoveDevice(path);
            } catch (const std::runtime_error&) {
                // gone already
            }
        }
    }

    // A camera in the simulated BlueZ, listed by tinyb, and its record as the scanner would make it.
    std::shared_ptr<ScannedDevice::RemoteCamera> Camera(const std::string& address, const CameraState& state,
                                                        const Profile& profile = {}) {
        const std::string name = "KelpCam-" + address.substr(address.size() - 2);
        devicePath = AddCamera(address, name, state, profile);
        added.push_back(devicePath);
        EXPECT_TRUE(TestSupport::WaitUntil([&] {
            return Backend::TinybRadio::GetDevice(address) != nullptr;
        })) << address;
        auto camera = std::make_shared<ScannedDevice::RemoteCamera>();
        camera->SetDeviceType(7);
        camera->SetMac(address);
        camera->SetName(name);
        return camera;
    }

    bool Connected(const std::string& address) {
        auto device = Backend::TinybRadio::GetDevice(address);
        return device && device->get_connected();
    }

    // Asks for the state and waits until all three answers are in the record.
    void ReadState(const std::shared_ptr<ScannedDevice::RemoteCamera>& camera) {
        std::string json;
        ASSERT_TRUE(manager->ReadBleInfo(camera, json));
        ASSERT_TRUE(TestSupport::WaitUntil([&] {
            return camera->BleVersion() != 0 && camera->PowerState() != 0 && camera->WiFiState() != 0;
        }));
    }

    size_t Documents() {
        std::lock_guard<std::mutex> lock(documentsMutex);
        return documents.size();
    }

    static double SecondsSince(std::chrono::steady_clock::time_point start) {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    }

    BluezSim::Control sim;
    std::shared_ptr<Backend::TinybRadio> radio;
    std::shared_ptr<KelpBleManager> manager;
    std::string devicePath;
    std::vector<std::string> added;
    std::mutex documentsMutex;
    std::vector<std::string> documents;
};

}  // namespace

TEST_F(KelpIntegration, ConfiguresACameraFromOffToReadyOnTheWantedBand) {
    // Off on 2.4 GHz; powers up in 300 ms, its access point boots for 2.5 s, and a band change passes
    // through booting for 300 ms.
    auto camera = Camera("C0:FF:EE:00:01:01", {"U", "G", "2.4"},
                         {{"wifi_settle", std::string("R")},
                          {"power_on_ms", 300u},
                          {"wifi_unavailable_ms", 200u},
                          {"wifi_boot_ms", 2500u},
                          {"band_boot_ms", 300u}});
    Logging::Capture capture;

    ASSERT_TRUE(manager->Subscribe(camera));
    EXPECT_TRUE(Connected(camera->Mac()));

    std::string json;
    ASSERT_TRUE(manager->ReadBleInfo(camera, json));
    EXPECT_EQ(nlohmann::json::parse(json)["mac"], camera->Mac());
    EXPECT_EQ(Texts(sim.CameraWrites(devicePath)), (std::vector<std::string>{"RV\r", "RF\r", "RP\r"}));
    // The answers follow by notification and land in the record.
    ASSERT_TRUE(TestSupport::WaitUntil([&] {
        return camera->BleVersion() == 12 && camera->PowerState() == 'U' && camera->WiFiState() == 'G' &&
               camera->WiFiFrequency() == "2.4";
    }));
    EXPECT_TRUE(TestSupport::WaitUntil([&] { return Documents() >= 3; })) << "one document per answer";

    EXPECT_TRUE(manager->ConfigurePowerState(camera, 'Z', 2));
    EXPECT_EQ(camera->PowerState(), 'Z');

    EXPECT_TRUE(manager->WaitForWiFi(camera, 5));
    EXPECT_EQ(camera->WiFiState(), 'R');
    EXPECT_GE(capture.Count("Waiting for wifi available... state = B", LOG_INFO), 1u)
        << "the access point was still booting";
    EXPECT_TRUE(capture.Contains("Kelp WiFi Ready to Connect!", LOG_INFO));
    EXPECT_EQ(Texts(sim.CameraWrites(devicePath)),
              (std::vector<std::string>{"RV\r", "RF\r", "RP\r", "WPZ\r"}))
        << "waiting sends nothing";

    EXPECT_TRUE(manager->ConfigureWiFiFrequency(camera, "5.0", 5));
    EXPECT_EQ(camera->WiFiFrequency(), "5.0");
    EXPECT_EQ(camera->WiFiState(), 'R');
    EXPECT_EQ(Texts(sim.CameraWrites(devicePath)).back(), "WF5.0G\r");

    // Unsubscribing switches notifications off before the link goes down: hold the disconnection back
    // and look in between.
    const std::string notifyPath =
        Backend::TinybRadio::GetCharacteristic(camera->Mac(), "fdeafdea", "fdea0002")->get_object_path();
    sim.ClearCalls(devicePath);
    sim.SetMethodBehaviour(devicePath, "Disconnect", "", "", 500);
    bool unsubscribed = false;
    std::thread worker([&] { unsubscribed = manager->Unsubscribe(camera); });
    EXPECT_TRUE(TestSupport::WaitUntil([&] { return sim.MethodCalls(devicePath, "Disconnect") == 1; }));
    EXPECT_EQ(sim.MethodCalls(notifyPath, "StopNotify"), 1u);
    worker.join();
    EXPECT_TRUE(unsubscribed);
    EXPECT_TRUE(TestSupport::WaitUntil([&] { return !Connected(camera->Mac()); }));
    EXPECT_THROW(manager->Unsubscribe(camera), std::out_of_range);
}

TEST_F(KelpIntegration, AnAccessPointThatNeverComesUpFailsWithinItsBound) {
    auto camera = Camera("C0:FF:EE:00:01:02", {"U", "G", "5.0"}, {{"wifi_settle", std::string("B")}});
    ASSERT_TRUE(manager->Subscribe(camera));
    ReadState(camera);
    ASSERT_TRUE(manager->ConfigurePowerState(camera, 'Z', 2));
    ASSERT_TRUE(TestSupport::WaitUntil([&] { return camera->WiFiState() == 'B'; }));

    Logging::Capture capture;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(manager->WaitForWiFi(camera, 2));
    const double elapsed = SecondsSince(start);
    EXPECT_GE(elapsed, 2.0);
    EXPECT_LT(elapsed, 4.0);
    EXPECT_EQ(capture.Count("Waiting for wifi available... state = B", LOG_INFO), 2u);
    EXPECT_TRUE(capture.Contains("Kelp WiFi is still not ready after 2 seconds", LOG_ERR));
    EXPECT_TRUE(manager->Unsubscribe(camera));
}

TEST_F(KelpIntegration, ACameraThatTakesTheWrongBandFailsAfterItsPolls) {
    auto camera = Camera("C0:FF:EE:00:01:03", {"Z", "R", "2.4"}, {{"band_applied", std::string("2.4")}});
    ASSERT_TRUE(manager->Subscribe(camera));
    ReadState(camera);

    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(manager->ConfigureWiFiFrequency(camera, "5.0", 1));
    const double elapsed = SecondsSince(start);
    // The write's 100 ms, then 10 polls of 250 ms.
    EXPECT_GE(elapsed, 2.6);
    EXPECT_LT(elapsed, 4.5);
    EXPECT_EQ(camera->WiFiFrequency(), "2.4");
    EXPECT_EQ(Texts(sim.CameraWrites(devicePath)).back(), "WF5.0G\r");
    EXPECT_TRUE(manager->Unsubscribe(camera));
}

TEST_F(KelpIntegration, ACameraSettlingConnectedFailsTheBandChangeButCountsForTheAccessPoint) {
    auto camera = Camera("C0:FF:EE:00:01:04", {"Z", "C", "2.4"}, {{"wifi_settle", std::string("C")}});
    ASSERT_TRUE(manager->Subscribe(camera));
    ReadState(camera);

    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(manager->ConfigureWiFiFrequency(camera, "5.0", 5));
    EXPECT_LT(SecondsSince(start), 2.0) << "'C' on the right band ends the wait";
    EXPECT_EQ(camera->WiFiFrequency(), "5.0");
    EXPECT_EQ(camera->WiFiState(), 'C');
    EXPECT_TRUE(manager->WaitForWiFi(camera, 2));
    EXPECT_TRUE(manager->Unsubscribe(camera));
}

TEST_F(KelpIntegration, ALinkDroppedOnThePowerCommandFailsTheConfiguration) {
    auto camera = Camera("C0:FF:EE:00:01:05", {"U", "G", "2.4"}, {{"drop_link_on", std::string("WP")}});
    ASSERT_TRUE(manager->Subscribe(camera));
    ReadState(camera);

    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(manager->ConfigurePowerState(camera, 'Z', 2));
    const double elapsed = SecondsSince(start);
    EXPECT_GE(elapsed, 2.0);
    EXPECT_LT(elapsed, 4.0);
    EXPECT_EQ(camera->PowerState(), 'U');
    ASSERT_TRUE(TestSupport::WaitUntil([&] { return !Connected(camera->Mac()); }));

    // Nothing more reaches the camera, and each step says so at once.
    std::string json;
    const auto again = std::chrono::steady_clock::now();
    EXPECT_FALSE(manager->ReadBleInfo(camera, json));
    EXPECT_FALSE(manager->ConfigureWiFiFrequency(camera, "5.0", 5));
    EXPECT_LT(SecondsSince(again), 1.0);
    // The link is already down: the disconnection fails, and the entry is gone all the same.
    EXPECT_FALSE(manager->Unsubscribe(camera));
    EXPECT_THROW(manager->Unsubscribe(camera), std::out_of_range);
}

TEST_F(KelpIntegration, ALinkDroppedOnTheBandCommandFailsTheBandChange) {
    auto camera = Camera("C0:FF:EE:00:01:06", {"Z", "R", "2.4"},
                         {{"drop_link_on", std::string("WF")}, {"drop_link_after_ms", 50u}});
    ASSERT_TRUE(manager->Subscribe(camera));
    ReadState(camera);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(manager->ConfigureWiFiFrequency(camera, "5.0", 1));
    // Ten polls of 250 ms at most.
    EXPECT_LT(SecondsSince(start), 4.0);
    EXPECT_EQ(camera->WiFiFrequency(), "2.4");
    EXPECT_TRUE(TestSupport::WaitUntil([&] { return !Connected(camera->Mac()); }));
    EXPECT_FALSE(manager->Unsubscribe(camera));
}

TEST_F(KelpIntegration, ACameraThatRefusesTheConnectionIsNotSubscribed) {
    auto camera = Camera("C0:FF:EE:00:01:07", {"Z", "R", "5.0"});
    sim.SetMethodBehaviour(devicePath, "Connect", "org.bluez.Error.Failed", "Page Timeout");
    Logging::Capture capture;
    EXPECT_FALSE(manager->Subscribe(camera));
    EXPECT_TRUE(capture.Contains("Could not connect to device with MAC: C0:FF:EE:00:01:07", LOG_ERR));
    EXPECT_THROW(manager->Unsubscribe(camera), std::out_of_range);
    sim.ClearMethodBehaviour(devicePath, "Connect");
}
