// Backend::TinybScanner through the real tinyb layer against the simulated BlueZ.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

#include "BackendFixture.h"
#include "backend/TinybScanner.h"
#include "logging/Log.h"
#include "scanned_device/RemoteCamera.h"
#include "scanned_device/ScannedDevice.h"

namespace {

using BackendTest::kAdapterPath;
using ::testing::ElementsAre;

constexpr uint16_t kCompany = 0x05F3;
// Device type 7, schema 3, battery 2, IP 192.168.1.20, text "SSID".
const BluezSim::Bytes kCameraPayload{0x07, 0x00, 0x03, 0x02, 0xC0, 0xA8, 0x01, 0x14, 'S', 'S', 'I', 'D'};

BluezSim::DeviceProps Generic(const std::string& name, int16_t rssi = -60) {
    BluezSim::DeviceProps props;
    props.name = name;
    props.rssi = rssi;
    return props;
}

BluezSim::DeviceProps WithPayload(const std::string& name, const BluezSim::Bytes& payload,
                                  int16_t rssi = -52) {
    BluezSim::DeviceProps props = Generic(name, rssi);
    props.deviceClass = 0;
    props.manufacturerData[kCompany] = payload;
    return props;
}

class ScannerTest : public BackendTest::BluezFixture {
  protected:
    void SetUp() override {
        BluezFixture::SetUp();
        if (HasFatalFailure())
            return;
        scanner = std::make_unique<Backend::TinybScanner>();
        ASSERT_TRUE(scanner->IsUsable());
        scanner->NewRemoteCamera().connect([this](const std::string& json) {
            announced.push_back(json);
            linesAtAnnouncement.push_back(capture.Texts());
            discoveringAtAnnouncement.push_back(manager->get_discovering());
        });
    }

    std::vector<std::string> Macs() const {
        std::vector<std::string> macs;
        for (const auto& device : scanner->Devices())
            macs.push_back(device->Mac());
        return macs;
    }

    std::shared_ptr<ScannedDevice::Base> Entry(const std::string& mac) const {
        for (const auto& device : scanner->Devices()) {
            if (device->Mac() == mac)
                return device;
        }
        return nullptr;
    }

    Logging::Capture capture;
    std::unique_ptr<Backend::TinybScanner> scanner;
    std::vector<std::string> announced;
    std::vector<std::vector<std::string>> linesAtAnnouncement;
    std::vector<bool> discoveringAtAnnouncement;
};

// ---------------------------------------------------------------- a pass

TEST_F(ScannerTest, PassDiscoversAndLogsANewDevice) {
    AddDevice("A0:00:00:00:01:01", Generic("Gen-1", -61));
    EXPECT_EQ(scanner->Scan(), 0);

    ASSERT_EQ(scanner->Devices().size(), 1u);
    const auto& device = *scanner->Devices()[0];
    EXPECT_EQ(device.Type(), ScannedDevice::kGenericType);
    EXPECT_EQ(device.Name(), "Gen-1");
    EXPECT_EQ(device.Mac(), "A0:00:00:00:01:01");
    EXPECT_EQ(device.Rssi(), -61);
    EXPECT_EQ(device.MissCredit(), 2);
    EXPECT_TRUE(device.Seen());

    const std::vector<std::string> expected{"**NEW** Device Discovered:", "Device Name: Gen-1",
                                            "Device Mac:  A0:00:00:00:01:01", "Device RSSI: -61",
                                            "Device Type: 0 (Generic)"};
    const auto texts = capture.Texts();
    auto at = std::search(texts.begin(), texts.end(), expected.begin(), expected.end());
    EXPECT_NE(at, texts.end()) << "the five lines of a new device, in order";
    for (const auto& text : expected)
        EXPECT_EQ(capture.Count(text, LOG_INFO), 1u) << text;
    EXPECT_TRUE(announced.empty());
}

TEST_F(ScannerTest, PassStartsThenStopsDiscoveryAndLeavesItOff) {
    AddDevice("A0:00:00:00:02:01", Generic("Gen-2"));
    EXPECT_EQ(scanner->Scan(), 0);
    EXPECT_EQ(sim.MethodCalls(kAdapterPath, "StartDiscovery"), 1u);
    EXPECT_EQ(sim.MethodCalls(kAdapterPath, "StopDiscovery"), 1u);
    EXPECT_FALSE(manager->get_discovering());
    EXPECT_TRUE(TestSupport::WaitUntil([&] { return !adapter->get_discovering(); }));
    EXPECT_EQ(scanner->Scan(), 0);
    EXPECT_EQ(sim.MethodCalls(kAdapterPath, "StartDiscovery"), 2u);
    EXPECT_EQ(sim.MethodCalls(kAdapterPath, "StopDiscovery"), 2u);
}

TEST_F(ScannerTest, PassUsesTheDeviceListAsItIsWhenDiscoveryStarts) {
    // This device shows up only after discovery has run for 1.5 s (the unit's discovery delay, long beside
    // a pass even on a loaded machine); the pass fetches BlueZ's list at once and stops discovery before.
    BluezSim::DeviceProps late = Generic("Late");
    late.onlyOnDiscovery = true;
    sim.AddDevice("A0:00:00:00:03:01", late);
    AddDevice("A0:00:00:00:03:02", Generic("Early"));

    EXPECT_EQ(scanner->Scan(), 0);
    EXPECT_THAT(Macs(), ElementsAre("A0:00:00:00:03:02"));
    EXPECT_EQ(Find("A0:00:00:00:03:01"), nullptr);

    // Once a longer discovery has found it, it is in BlueZ's list and the next pass takes it.
    ASSERT_TRUE(manager->start_discovery());
    EXPECT_TRUE(TestSupport::WaitUntil([&] { return Find("A0:00:00:00:03:01") != nullptr; },
                                       std::chrono::seconds(10)));
    ASSERT_TRUE(manager->stop_discovery());
    EXPECT_EQ(scanner->Scan(), 0);
    EXPECT_THAT(Macs(), ElementsAre("A0:00:00:00:03:02", "A0:00:00:00:03:01"));
}

TEST_F(ScannerTest, DevicesKeepTheOrderOfFirstDiscovery) {
    AddDevice("A0:00:00:00:04:01", Generic("First"));
    AddDevice("A0:00:00:00:04:02", Generic("Second"));
    EXPECT_EQ(scanner->Scan(), 0);
    AddDevice("A0:00:00:00:04:03", Generic("Third"));
    EXPECT_EQ(scanner->Scan(), 0);
    EXPECT_THAT(Macs(), ElementsAre("A0:00:00:00:04:01", "A0:00:00:00:04:02", "A0:00:00:00:04:03"));
    // Known devices are announced only once.
    EXPECT_EQ(capture.Count("**NEW** Device Discovered:"), 3u);
    EXPECT_EQ(capture.Count("Device Name: First"), 1u);
}

TEST_F(ScannerTest, StoredEntriesAreNotRefreshed) {
    const std::string mac = "A0:00:00:00:05:01";
    AddDevice(mac, Generic("Steady", -70));
    EXPECT_EQ(scanner->Scan(), 0);
    const auto stored = Entry(mac);
    ASSERT_TRUE(stored);

    // A new advertisement with another RSSI and our camera payload.
    sim.AddDevice(mac, WithPayload("Steady", kCameraPayload, -30));
    ASSERT_TRUE(TestSupport::WaitUntil([&] {
        auto device = Find(mac);
        return device && device->get_rssi() == -30;
    }));
    EXPECT_EQ(scanner->Scan(), 0);

    ASSERT_EQ(scanner->Devices().size(), 1u);
    EXPECT_EQ(scanner->Devices()[0], stored);  // the same record
    EXPECT_EQ(stored->Rssi(), -70);
    EXPECT_EQ(stored->Type(), ScannedDevice::kGenericType);
    EXPECT_TRUE(announced.empty());
}

// ---------------------------------------------------------------- classification

TEST_F(ScannerTest, NewRemoteCameraIsAnnouncedOnceWithItsJson) {
    const std::string mac = "C0:FF:EE:00:00:07";
    AddDevice(mac, WithPayload("KelpCam-1", kCameraPayload));
    EXPECT_EQ(scanner->Scan(), 0);
    EXPECT_EQ(scanner->Scan(), 0);

    ASSERT_EQ(announced.size(), 1u);
    EXPECT_EQ(announced[0],
              R"({"class":0,"class-name":"Miscellaneous","mac":"C0:FF:EE:00:00:07","name":"KelpCam-1",)"
              R"("paired":false,"remote-cam-info":{"batteryStatus":{"number":2,"string":"Partially Empty"},)"
              R"("ble-info":{"bleVersion":0,"powerStatus":{"code":0,"string":"Unknown"},"wifiFrequency":"",)"
              R"("wifiStatus":{"code":0,"string":"Unknown"}},"deviceType":{"number":7,"string":"KelpCam"},)"
              R"("ipAddress":{"number":335653056,"string":"192.168.1.20"},"ssid":"SSID"},"rssi":-52,)"
              R"("trusted":false,"type":1})");
    // Announced inside the pass, right after the NEW line and before the device's details.
    ASSERT_FALSE(linesAtAnnouncement[0].empty());
    EXPECT_EQ(linesAtAnnouncement[0].back(), "**NEW** Device Discovered:");
    EXPECT_EQ(
        std::count(linesAtAnnouncement[0].begin(), linesAtAnnouncement[0].end(), "Device Name: KelpCam-1"),
        0);
    EXPECT_TRUE(discoveringAtAnnouncement[0]);

    ASSERT_EQ(scanner->Devices().size(), 1u);
    auto camera = std::dynamic_pointer_cast<ScannedDevice::RemoteCamera>(scanner->Devices()[0]);
    ASSERT_TRUE(camera);
    EXPECT_EQ(camera->DeviceType(), 7);
    EXPECT_EQ(camera->Text(), "SSID");
    EXPECT_TRUE(capture.Contains("Device Type: 1 (RemoteCamera)", LOG_INFO));
}

TEST_F(ScannerTest, EveryNewCameraIsAnnounced) {
    AddDevice("C0:FF:EE:00:01:01", WithPayload("Cam-A", kCameraPayload));
    BluezSim::Bytes otherUnit = kCameraPayload;
    otherUnit[0] = 0x03;  // another unit (device type 3) is announced as well
    AddDevice("C0:FF:EE:00:01:02", WithPayload("Unit-B", otherUnit));
    AddDevice("C0:FF:EE:00:01:03", Generic("Plain"));
    EXPECT_EQ(scanner->Scan(), 0);
    ASSERT_EQ(announced.size(), 2u);
    EXPECT_THAT(announced[0], ::testing::HasSubstr(R"("name":"Cam-A")"));
    EXPECT_THAT(announced[1], ::testing::HasSubstr(R"("name":"Unit-B")"));
    EXPECT_THAT(announced[1], ::testing::HasSubstr(R"("deviceType":{"number":3,"string":"Cobalt"})"));
}

TEST_F(ScannerTest, OurCompanyWithDeviceTypeZeroIsGeneric) {
    BluezSim::Bytes payload = kCameraPayload;
    payload[0] = 0x00;
    AddDevice("C0:FF:EE:00:02:01", WithPayload("TypeZero", payload));
    EXPECT_EQ(scanner->Scan(), 0);
    ASSERT_EQ(scanner->Devices().size(), 1u);
    EXPECT_EQ(scanner->Devices()[0]->Type(), ScannedDevice::kGenericType);
    EXPECT_FALSE(std::dynamic_pointer_cast<ScannedDevice::RemoteCamera>(scanner->Devices()[0]));
    EXPECT_TRUE(capture.Contains("Device Type: 0 (Generic)", LOG_INFO));
    EXPECT_TRUE(announced.empty());
}

TEST_F(ScannerTest, DeviceTypeTenAndForeignCompaniesAreGeneric) {
    BluezSim::Bytes payload = kCameraPayload;
    payload[0] = 0x0A;
    AddDevice("C0:FF:EE:00:03:01", WithPayload("TypeTen", payload));
    BluezSim::DeviceProps foreign = Generic("Foreign");
    foreign.manufacturerData[0x004C] = kCameraPayload;
    AddDevice("C0:FF:EE:00:03:02", foreign);
    BluezSim::Bytes schema9 = kCameraPayload;
    schema9[2] = 0x09;
    AddDevice("C0:FF:EE:00:03:03", WithPayload("Schema9", schema9));
    EXPECT_EQ(scanner->Scan(), 0);
    ASSERT_EQ(scanner->Devices().size(), 3u);
    for (const auto& device : scanner->Devices())
        EXPECT_EQ(device->Type(), ScannedDevice::kGenericType) << device->Name();
    EXPECT_TRUE(announced.empty());
}

TEST_F(ScannerTest, FactoryFillsTheRecordFromTheDevice) {
    BluezSim::DeviceProps props = WithPayload("Classy", kCameraPayload, -45);
    props.deviceClass = 0x5A020C;  // major class 2: phone
    AddDevice("C0:FF:EE:00:04:01", props);
    auto device = Find("C0:FF:EE:00:04:01");
    ASSERT_TRUE(device);
    auto made = Backend::TinybScanner::MakeScannedDevice(*device);
    ASSERT_TRUE(made);
    EXPECT_EQ(made->Type(), ScannedDevice::kRemoteCameraType);
    EXPECT_EQ(made->Rssi(), -45);
    EXPECT_EQ(made->Name(), "Classy");
    EXPECT_FALSE(made->Paired());
    EXPECT_EQ(made->Mac(), "C0:FF:EE:00:04:01");
    EXPECT_EQ(made->Class(), 0x5A020Cu);
    EXPECT_EQ(made->ClassName(), "Phone");
    EXPECT_EQ(made->MissCredit(), 0);  // only a pass hands out credit
}

// ---------------------------------------------------------------- ageing

TEST_F(ScannerTest, MissingDeviceIsDroppedOnTheThirdMissedPass) {
    const std::string mac = "B0:00:00:00:01:01";
    AddDevice(mac, Generic("Fading"));
    AddDevice("B0:00:00:00:01:02", Generic("Staying"));
    EXPECT_EQ(scanner->Scan(), 0);
    ASSERT_EQ(scanner->Devices().size(), 2u);
    RemoveDevice(mac);

    EXPECT_EQ(scanner->Scan(), 0);
    ASSERT_TRUE(Entry(mac));
    EXPECT_EQ(Entry(mac)->MissCredit(), 1);
    EXPECT_EQ(scanner->Scan(), 0);
    ASSERT_TRUE(Entry(mac));
    EXPECT_EQ(Entry(mac)->MissCredit(), 0);
    EXPECT_EQ(capture.CountContaining("[SCAN] removing"), 0u);

    EXPECT_EQ(scanner->Scan(), 0);
    EXPECT_FALSE(Entry(mac));
    EXPECT_THAT(Macs(), ElementsAre("B0:00:00:00:01:02"));
    EXPECT_EQ(capture.Count("[SCAN] removing {Fading} from internal list as it seems to be unavailable",
                            LOG_WARNING),
              1u);
    // The device that stayed keeps its full credit.
    ASSERT_TRUE(Entry("B0:00:00:00:01:02"));
    EXPECT_EQ(Entry("B0:00:00:00:01:02")->MissCredit(), 2);
}

TEST_F(ScannerTest, DeviceBackBeforeItsCreditRunsOutIsKeptAndRenewed) {
    const std::string mac = "B0:00:00:00:02:01";
    AddDevice(mac, Generic("Flaky"));
    EXPECT_EQ(scanner->Scan(), 0);
    RemoveDevice(mac);
    EXPECT_EQ(scanner->Scan(), 0);
    EXPECT_EQ(scanner->Scan(), 0);
    ASSERT_TRUE(Entry(mac));
    EXPECT_EQ(Entry(mac)->MissCredit(), 0);

    AddDevice(mac, Generic("Flaky"));
    EXPECT_EQ(scanner->Scan(), 0);
    ASSERT_TRUE(Entry(mac));
    EXPECT_EQ(Entry(mac)->MissCredit(), 2);
    EXPECT_EQ(capture.Count("**NEW** Device Discovered:"), 1u);
}

TEST_F(ScannerTest, SameNameDevicesAreTwoEntriesKeptAliveByEither) {
    AddDevice("B0:00:00:00:03:01", Generic("Twin"));
    AddDevice("B0:00:00:00:03:02", Generic("Twin"));
    EXPECT_EQ(scanner->Scan(), 0);
    EXPECT_THAT(Macs(), ElementsAre("B0:00:00:00:03:01", "B0:00:00:00:03:02"));

    RemoveDevice("B0:00:00:00:03:01");
    for (int pass = 0; pass < 5; ++pass)
        EXPECT_EQ(scanner->Scan(), 0);
    // The missing twin is judged present by its name, so it never loses credit.
    EXPECT_THAT(Macs(), ElementsAre("B0:00:00:00:03:01", "B0:00:00:00:03:02"));
    ASSERT_TRUE(Entry("B0:00:00:00:03:01"));
    EXPECT_EQ(Entry("B0:00:00:00:03:01")->MissCredit(), 2);
    EXPECT_EQ(capture.CountContaining("[SCAN] removing"), 0u);

    // Once both are gone, both age out together.
    RemoveDevice("B0:00:00:00:03:02");
    for (int pass = 0; pass < 3; ++pass)
        EXPECT_EQ(scanner->Scan(), 0);
    EXPECT_TRUE(scanner->Devices().empty());
    EXPECT_EQ(
        capture.Count("[SCAN] removing {Twin} from internal list as it seems to be unavailable", LOG_WARNING),
        2u);
}

TEST_F(ScannerTest, RenamedDeviceIsJudgedAbsentByNameButKeptByAddress) {
    const std::string mac = "B0:00:00:00:04:01";
    AddDevice(mac, Generic("OldName"));
    EXPECT_EQ(scanner->Scan(), 0);
    const auto stored = Entry(mac);
    ASSERT_TRUE(stored);
    Rename(mac, "NewName");

    for (int pass = 0; pass < 4; ++pass) {
        EXPECT_EQ(scanner->Scan(), 0);
        // Found by address (credit renewed to 2), then judged absent by its stored name (one credit lost).
        ASSERT_EQ(scanner->Devices().size(), 1u);
        EXPECT_EQ(scanner->Devices()[0], stored);
        EXPECT_EQ(stored->MissCredit(), 1) << "pass " << pass;
    }
    EXPECT_EQ(stored->Name(), "OldName");
    EXPECT_EQ(capture.Count("**NEW** Device Discovered:"), 1u);

    // Once it is gone by address too, the remaining credit runs out: dropped under its old name.
    RemoveDevice(mac);
    EXPECT_EQ(scanner->Scan(), 0);
    EXPECT_EQ(stored->MissCredit(), 0);
    EXPECT_EQ(scanner->Scan(), 0);
    EXPECT_TRUE(scanner->Devices().empty());
    EXPECT_TRUE(capture.Contains("[SCAN] removing {OldName} from internal list as it seems to be unavailable",
                                 LOG_WARNING));

    // Coming back, it is new again, under its new name.
    AddDevice(mac, Generic("NewName"));
    EXPECT_EQ(scanner->Scan(), 0);
    ASSERT_EQ(scanner->Devices().size(), 1u);
    EXPECT_EQ(scanner->Devices()[0]->Name(), "NewName");
    EXPECT_EQ(capture.Count("**NEW** Device Discovered:"), 2u);
}

// ---------------------------------------------------------------- failures

TEST_F(ScannerTest, FailedStartDiscoveryStillListsAndReturnsMinusOne) {
    AddDevice("D0:00:00:00:01:01", Generic("Listed"));
    sim.SetMethodBehaviour(kAdapterPath, "StartDiscovery", "org.bluez.Error.Failed", "radio busy", 0, 1);
    EXPECT_EQ(scanner->Scan(), -1);
    EXPECT_EQ(capture.Count("Error while discovering device in libtinyb: org.bluez.Error.Failed: radio busy",
                            LOG_ERR),
              1u);
    EXPECT_THAT(Macs(), ElementsAre("D0:00:00:00:01:01"));
    EXPECT_TRUE(capture.Contains("Device Name: Listed", LOG_INFO));
    // The next pass works again.
    EXPECT_EQ(scanner->Scan(), 0);
}

TEST_F(ScannerTest, FailedStopDiscoveryReturnsMinusOneAfterTheWholePass) {
    const std::string mac = "D0:00:00:00:02:01";
    AddDevice(mac, Generic("Going"));
    EXPECT_EQ(scanner->Scan(), 0);
    RemoveDevice(mac);
    EXPECT_EQ(scanner->Scan(), 0);
    EXPECT_EQ(scanner->Scan(), 0);
    AddDevice("D0:00:00:00:02:02", Generic("Coming"));
    sim.SetMethodBehaviour(kAdapterPath, "StopDiscovery", "org.bluez.Error.Failed", "stuck", 0, 1);
    EXPECT_EQ(scanner->Scan(), -1);
    EXPECT_EQ(
        capture.Count("Error while stopping discovery of devices in libtinyb: org.bluez.Error.Failed: stuck",
                      LOG_ERR),
        1u);
    // Discovery and ageing both ran.
    EXPECT_THAT(Macs(), ElementsAre("D0:00:00:00:02:02"));
    EXPECT_TRUE(capture.Contains("[SCAN] removing {Going} from internal list as it seems to be unavailable"));
}

TEST_F(ScannerTest, TwoOctetPayloadAbandonsThePassWithDiscoveryRunning) {
    AddDevice("D0:00:00:00:03:01", Generic("Before"));
    AddDevice("D0:00:00:00:03:02", WithPayload("Broken", {0x07, 0x00}));
    AddDevice("D0:00:00:00:03:03", Generic("After"));
    sim.ClearCalls(kAdapterPath);

    EXPECT_THROW(scanner->Scan(), std::out_of_range);
    // Processed up to the broken device, nothing after it; discovery was never stopped.
    EXPECT_THAT(Macs(), ElementsAre("D0:00:00:00:03:01"));
    EXPECT_EQ(capture.CountContaining("Device Name: After"), 0u);
    EXPECT_EQ(sim.MethodCalls(kAdapterPath, "StartDiscovery"), 1u);
    EXPECT_EQ(sim.MethodCalls(kAdapterPath, "StopDiscovery"), 0u);
    EXPECT_TRUE(manager->get_discovering());
    EXPECT_TRUE(adapter->get_discovering());
}

// ---------------------------------------------------------------- forgetting

TEST_F(ScannerTest, ForgetAllDevicesEmptiesBlueZButNotTheList) {
    AddDevice("E0:00:00:00:01:01", Generic("One"));
    AddDevice("E0:00:00:00:01:02", Generic("Two"));
    EXPECT_EQ(scanner->Scan(), 0);
    sim.ClearCalls(kAdapterPath);

    EXPECT_EQ(scanner->ForgetAllDevices(), 0);
    EXPECT_EQ(sim.MethodCalls(kAdapterPath, "StartDiscovery"), 1u);
    EXPECT_EQ(sim.MethodCalls(kAdapterPath, "StopDiscovery"), 1u);
    EXPECT_EQ(sim.MethodCalls(kAdapterPath, "RemoveDevice"), 2u);
    EXPECT_TRUE(TestSupport::WaitUntil([&] { return manager->get_devices().empty(); }));
    EXPECT_THAT(Macs(), ElementsAre("E0:00:00:00:01:01", "E0:00:00:00:01:02"));
}

TEST_F(ScannerTest, ForgetAllDevicesReportsAFailedStart) {
    AddDevice("E0:00:00:00:02:01", Generic("Lone"));
    sim.SetMethodBehaviour(kAdapterPath, "StartDiscovery", "org.bluez.Error.NotReady", "off", 0, 1);
    EXPECT_EQ(scanner->ForgetAllDevices(), -1);
    EXPECT_TRUE(capture.Contains("Error while discovering device in libtinyb: org.bluez.Error.NotReady: off",
                                 LOG_ERR));
    EXPECT_TRUE(TestSupport::WaitUntil([&] { return manager->get_devices().empty(); }));
    EXPECT_TRUE(scanner->Devices().empty());
}

}  // namespace
