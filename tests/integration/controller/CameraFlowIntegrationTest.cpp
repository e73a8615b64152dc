// The controller's camera work on the real BlueZ client (tinyb and the tinyb backends) against the
// simulated BlueZ and its simulated cameras, with the auto-scan timer running at a 1 s rate on a real
// sd-event loop. Camera timings are kept short.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <systemd/sd-event.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "BackendFixture.h"
#include "backend/Scanner.h"
#include "controller/BluetoothController.h"
#include "controller/CameraWorkers.h"
#include "daemon/SystemHooks.h"
#include "logging/Log.h"
#include "remote_camera/KelpBleManager.h"
#include "scanned_device/Json.h"
#include "scanned_device/RemoteCamera.h"
#include "test_support/ControllerProbe.h"
#include "test_support/LoopHelpers.h"
#include "vocabulary/Vocabulary.h"

using ::testing::ElementsAre;

namespace {

constexpr uint16_t kCompany = 0x05F3;
constexpr const char* kFirst = "C0:FF:EE:00:10:01";
constexpr const char* kSecond = "C0:FF:EE:00:10:02";

struct Report {
    bool success;
    std::string json;
};

std::vector<std::string> Texts(const std::vector<BluezSim::Bytes>& values) {
    std::vector<std::string> texts;
    for (const auto& value : values)
        texts.emplace_back(value.begin(), value.end());
    return texts;
}

class CameraFlowIntegration : public BackendTest::BluezFixture {
  protected:
    void SetUp() override {
        BluezFixture::SetUp();
        if (HasFatalFailure())
            return;
        ASSERT_GE(sd_event_new(&loop), 0);
        ControllerHooks hooks = Daemon::SystemControllerHooks();
        hooks.readNumberSetting = [](const char* key, uint32_t safeDefault) {
            return std::strcmp(key, BluetoothSettings::AutoScanRateSecs) == 0 ? 1u : safeDefault;
        };
        hooks.readFlagSetting = [](const char*, bool safeDefault) { return safeDefault; };
        // a 5 GHz unit: cameras on 2.4 are moved
        hooks.radioType = [] { return 1; };
        controller = std::make_unique<BluetoothController>(loop, hooks);
        ASSERT_TRUE(controller->Initialise());
        controller->ConfiguredCamera().connect([this](bool success, std::string json) {
            reports.push_back({success, std::move(json)});
        });
        controller->NewCameraData().connect([this](const std::string& json) {
            newDataMacs.push_back(nlohmann::json::parse(json).at("mac").get<std::string>());
        });
    }

    void TearDown() override {
        controller.reset();
        if (loop != nullptr)
            sd_event_unref(loop);
        BluezFixture::TearDown();
    }

    // A camera advertising our payload (device type 7, schema 3), with its GATT state and profile.
    std::string AddCamera(const std::string& address, const std::string& name,
                          std::map<std::string, std::string> state,
                          std::map<std::string, std::variant<uint32_t, std::string>> profile = {}) {
        BluezSim::DeviceProps props;
        props.name = name;
        props.rssi = -50;
        props.deviceClass = 0;
        props.manufacturerData[kCompany] = {0x07, 0x00, 0x03, 0x02, 0xC0, 0xA8, 0x01, 0x14, 'K', '1'};
        props.camera = true;
        props.cameraState = std::move(state);
        props.cameraProfile = std::move(profile);
        return AddDevice(address, props);
    }

    // The scanner's record of the camera, after a pass of the controller's own.
    std::shared_ptr<ScannedDevice::RemoteCamera> Scanned(const std::string& address) {
        for (int pass = 0; pass < 3; ++pass) {
            (void)controller->AutoScanTask();
            for (const auto& device : ControllerProbe::Scanner(*controller)->Devices()) {
                if (device->Mac() == address)
                    return std::dynamic_pointer_cast<ScannedDevice::RemoteCamera>(device);
            }
        }
        return nullptr;
    }

    template <typename Condition>
    bool RunLoopUntil(Condition condition,
                      std::chrono::milliseconds limit = std::chrono::milliseconds(15000)) {
        return BusTest::PumpUntil(loop, condition, limit);
    }

    size_t Discoveries() { return sim.MethodCalls(BackendTest::kAdapterPath, "StartDiscovery"); }

    sd_event* loop = nullptr;
    std::unique_ptr<BluetoothController> controller;
    std::vector<Report> reports;
    std::vector<std::string> newDataMacs;
};

TEST_F(CameraFlowIntegration, AnOffCameraOnTheWrongBandIsSwitchedOnWaitedForAndMoved) {
    const std::string path = AddCamera(kFirst, "KelpCam-1", {{"power", "U"}, {"wifi", "G"}, {"band", "2.4"}},
                                       {{"power_on_ms", 100u},
                                        {"wifi_settle", std::string("R")},
                                        {"wifi_unavailable_ms", 200u},
                                        {"wifi_boot_ms", 300u}});
    auto camera = Scanned(kFirst);
    ASSERT_TRUE(camera);
    Logging::Capture capture;
    controller->ConfigureRemoteCamera(camera);
    ASSERT_TRUE(RunLoopUntil([&] { return !reports.empty(); }));

    EXPECT_TRUE(reports[0].success);
    EXPECT_THAT(Texts(sim.CameraWrites(path)), ElementsAre("RV\r", "RF\r", "RP\r", "WPZ\r", "WF5.0G\r"));
    const nlohmann::json document = nlohmann::json::parse(reports[0].json);
    EXPECT_EQ(document.at("mac"), kFirst);
    EXPECT_EQ(document["remote-cam-info"]["ble-info"]["wifiFrequency"], "5.0");
    EXPECT_EQ(document["remote-cam-info"]["ble-info"]["powerStatus"]["string"], "On");
    EXPECT_EQ(capture.CountContaining(": Time Elapsed: "), 6u);
    EXPECT_EQ(capture.CountContaining("Failed to configure"), 0u);
}

TEST_F(CameraFlowIntegration, DuringAConfigurationTheTimerKeepsFiringAndNothingIsScanned) {
    // switched on, its access point takes about 2.5 s: the flow spans two or more periods
    AddCamera(kFirst, "KelpCam-1", {{"power", "U"}, {"wifi", "G"}, {"band", "5.0"}},
              {{"wifi_settle", std::string("R")}, {"wifi_unavailable_ms", 1000u}, {"wifi_boot_ms", 1500u}});
    auto camera = Scanned(kFirst);
    ASSERT_TRUE(camera);
    // the unit was off the air only while it scanned
    controller->StartAutoScanTask();
    const size_t before = Discoveries();
    std::set<uint64_t> dueTimes{controller->AutoScanDueUsec()};

    controller->ConfigureRemoteCamera(camera);
    ASSERT_TRUE(RunLoopUntil([&] {
        dueTimes.insert(controller->AutoScanDueUsec());
        return !reports.empty();
    }));
    EXPECT_TRUE(reports[0].success);
    // every period that came due was re-armed, and none reached BlueZ
    EXPECT_GE(dueTimes.size(), 3u);
    EXPECT_EQ(Discoveries(), before);
    EXPECT_TRUE(controller->AutoScanArmed());

    // the lock is free again: the next period scans
    EXPECT_TRUE(RunLoopUntil([&] { return Discoveries() > before; }, std::chrono::milliseconds(3000)));
}

TEST_F(CameraFlowIntegration, TwoRequestsAreServedOneAfterTheOtherInLockOrder) {
    const std::string first =
        AddCamera(kFirst, "KelpCam-1", {{"power", "Z"}, {"wifi", "R"}, {"band", "5.0"}});
    const std::string second =
        AddCamera(kSecond, "KelpCam-2", {{"power", "Y"}, {"wifi", "R"}, {"band", "5.0"}});
    auto one = Scanned(kFirst);
    auto two = Scanned(kSecond);
    ASSERT_TRUE(one && two);
    // both at once: whichever thread takes the scan lock first is served first, the other after it
    controller->ConfigureRemoteCamera(one);
    controller->ConfigureRemoteCamera(two);
    ASSERT_TRUE(RunLoopUntil([&] { return reports.size() == 2; }));

    EXPECT_TRUE(reports[0].success);
    EXPECT_TRUE(reports[1].success);
    // each reports after giving the lock back: the reports may come in either order
    const std::string reportedFirst = nlohmann::json::parse(reports[0].json).at("mac");
    const std::string reportedSecond = nlohmann::json::parse(reports[1].json).at("mac");
    EXPECT_EQ(std::set<std::string>({reportedFirst, reportedSecond}),
              std::set<std::string>({kFirst, kSecond}));
    // everything the camera served first said came before anything the other said: no interleaving
    ASSERT_EQ(newDataMacs.size(), 6u);
    const std::string servedFirst = newDataMacs.front();
    const std::string servedSecond = servedFirst == kFirst ? kSecond : kFirst;
    EXPECT_THAT(newDataMacs,
                ElementsAre(servedFirst, servedFirst, servedFirst, servedSecond, servedSecond, servedSecond));
    EXPECT_THAT(Texts(sim.CameraWrites(first)), ElementsAre("RV\r", "RF\r", "RP\r"));
    EXPECT_THAT(Texts(sim.CameraWrites(second)), ElementsAre("RV\r", "RF\r", "RP\r"));
}

TEST_F(CameraFlowIntegration, ACameraThatDropsItsLinkFailsCleanlyAndScanningGoesOn) {
    const std::string path = AddCamera(kFirst, "KelpCam-1", {{"power", "U"}, {"wifi", "G"}, {"band", "2.4"}},
                                       {{"drop_link_on", std::string("WP")}});
    auto camera = Scanned(kFirst);
    ASSERT_TRUE(camera);
    controller->StartAutoScanTask();
    Logging::Capture capture;
    controller->ConfigureRemoteCamera(camera);
    ASSERT_TRUE(RunLoopUntil([&] { return !reports.empty(); }));
    EXPECT_FALSE(reports[0].success);
    EXPECT_THAT(Texts(sim.CameraWrites(path)), ElementsAre("RV\r", "RF\r", "RP\r", "WPZ\r"));
    EXPECT_TRUE(capture.Contains("Failed to configure KelpCam-1 over BLE:", LOG_ERR));
    EXPECT_TRUE(capture.Contains("Power State:    U Expected: Z/Y", LOG_ERR));
    EXPECT_TRUE(capture.CountContaining("Disconnected from Bluetooth: Time Elapsed: ") == 1);

    const size_t before = Discoveries();
    EXPECT_TRUE(RunLoopUntil([&] { return Discoveries() > before; }, std::chrono::milliseconds(3000)));
}

TEST_F(CameraFlowIntegration, TheRefreshReadsEveryCameraAndLogsOneThatCannotBeReached) {
    const std::string first =
        AddCamera(kFirst, "KelpCam-1", {{"power", "Y"}, {"wifi", "R"}, {"band", "2.4"}});
    const std::string second =
        AddCamera(kSecond, "KelpCam-2", {{"power", "Z"}, {"wifi", "R"}, {"band", "5.0"}});
    ASSERT_TRUE(Scanned(kFirst) && Scanned(kSecond));
    sim.SetMethodBehaviour(second, "Connect", "org.bluez.Error.Failed", "Page Timeout");
    Logging::Capture capture;
    controller->StartBleInfoRefresh();
    ASSERT_TRUE(RunLoopUntil([&] {
        return ControllerProbe::Workers(*controller)->Running() == 0 &&
               capture.CountContaining("Failed to get BLE info from device") > 0;
    }));
    sim.ClearMethodBehaviour(second, "Connect");

    EXPECT_EQ(capture.Count(std::string("Failed to get BLE info from device ") + kSecond, LOG_ERR), 1u);
    EXPECT_EQ(capture.CountContaining("Failed to get BLE info from device"), 1u);
    EXPECT_THAT(Texts(sim.CameraWrites(first)), ElementsAre("RV\r", "RF\r", "RP\r"));
    EXPECT_TRUE(sim.CameraWrites(second).empty());
    // the first camera's answers reached the loop as new data
    ASSERT_TRUE(RunLoopUntil([&] { return newDataMacs.size() >= 3; }));
    EXPECT_EQ(std::count(newDataMacs.begin(), newDataMacs.end(), kFirst), 3);
}

TEST_F(CameraFlowIntegration, ACameraAnsweringInvalidUtf8IsConfiguredAndReadAndItsJsonStaysValid) {
    const std::string path = AddCamera(kFirst, "KelpCam-1", {{"power", "Z"}, {"wifi", "R"}, {"band", "5.0"}});
    // "RF" answered with the octets 46 C0 35 2E 52 0D (the simulation sends its text as Latin-1)
    sim.SetCameraResponse(path, "RF\r",
                          "F\xC3\x80"
                          "5.R\r");
    auto camera = Scanned(kFirst);
    ASSERT_TRUE(camera);
    controller->ConfigureRemoteCamera(camera);
    ASSERT_TRUE(RunLoopUntil([&] { return !reports.empty(); }));
    // valid UTF-8 (parse refuses anything else), with the bad octet replaced
    const nlohmann::json document = nlohmann::json::parse(reports[0].json);
    EXPECT_EQ(document.at("mac"), kFirst);

    controller->StartBleInfoRefresh();
    ASSERT_TRUE(RunLoopUntil([&] {
        return ControllerProbe::Workers(*controller)->Running() == 0 &&
               std::count(newDataMacs.begin(), newDataMacs.end(), kFirst) >= 6;
    }));
    EXPECT_EQ(camera->WiFiFrequency(),
              "\xC0"
              "5.");
}

}  // namespace
