#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <thread>

#include "Bytes.h"
#include "logging/Log.h"
#include "remote_camera/CameraProtocol.h"
#include "scanned_device/RemoteCamera.h"

using CameraProtocol::OnNotification;

namespace {

class Notification : public ::testing::Test {
  protected:
    void SetUp() override { camera.SetName("Kelp-7"); }

    // The record before anything is notified, with recognisable values in every state field.
    void Preload() {
        camera.SetBleVersion(9);
        camera.SetPowerState('U');
        camera.SetWiFiState('B');
        camera.SetWiFiFrequency("2.4");
    }

    void ExpectPreloaded() {
        EXPECT_EQ(camera.BleVersion(), 9);
        EXPECT_EQ(camera.PowerState(), 'U');
        EXPECT_EQ(camera.WiFiState(), 'B');
        EXPECT_EQ(camera.WiFiFrequency(), "2.4");
    }

    void ExpectUnknown(const Logging::Capture& capture, const std::string& typeLine,
                       const std::string& dumpLine) {
        const std::vector<Logging::Line> lines = capture.Lines();
        ASSERT_EQ(lines.size(), 2u);
        EXPECT_EQ(lines[0].priority, LOG_ERR);
        EXPECT_EQ(lines[0].text, typeLine);
        EXPECT_EQ(lines[1].priority, LOG_INFO);
        EXPECT_EQ(lines[1].text, dumpLine);
    }

    ScannedDevice::RemoteCamera camera;
};

}  // namespace

TEST_F(Notification, EmptyValueLeavesNoTrace) {
    Preload();
    Logging::Capture capture;
    OnNotification(camera, {});
    EXPECT_TRUE(capture.Lines().empty());
    ExpectPreloaded();
}

TEST_F(Notification, VersionAnswerStoresTheVersion) {
    Preload();
    Logging::Capture capture;
    OnNotification(camera, {'V', '1', '2', 0x0D});
    EXPECT_EQ(camera.BleVersion(), 12);
    ASSERT_EQ(capture.Lines().size(), 1u);
    EXPECT_EQ(capture.Count("Kelp-7: BLE Version: 12", LOG_INFO), 1u);
    // Only the version changed.
    EXPECT_EQ(camera.PowerState(), 'U');
    EXPECT_EQ(camera.WiFiState(), 'B');
    EXPECT_EQ(camera.WiFiFrequency(), "2.4");
}

TEST_F(Notification, ThreeByteVersionIsUnknownAndLoggedWithItsFirstByte) {
    Preload();
    Logging::Capture capture;
    OnNotification(camera, {'V', '1', 0x0D});
    ExpectUnknown(capture, "Unknown notification type found: 0x56", "Contents: 56 31 0D ");
    ExpectPreloaded();
}

TEST_F(Notification, VersionWhoseDigitsDoNotConvertStoresZero) {
    Preload();
    Logging::Capture capture;
    OnNotification(camera, B("Vab\r"));
    EXPECT_EQ(camera.BleVersion(), 0);
    EXPECT_TRUE(capture.Contains("Kelp-7: BLE Version: 0", LOG_INFO));
}

TEST_F(Notification, PowerAnswerStoresTheLetter) {
    Preload();
    Logging::Capture capture;
    OnNotification(camera, {'P', 'Z', 0x0D});
    EXPECT_EQ(camera.PowerState(), 'Z');
    ASSERT_EQ(capture.Lines().size(), 1u);
    EXPECT_EQ(capture.Count("Kelp-7: Power Status: Z", LOG_INFO), 1u);
    EXPECT_EQ(camera.BleVersion(), 9);
    EXPECT_EQ(camera.WiFiState(), 'B');
    EXPECT_EQ(camera.WiFiFrequency(), "2.4");
}

TEST_F(Notification, PowerAnswerKeepsALetterThatHasNoName) {
    OnNotification(camera, B("PQ\r"));
    EXPECT_EQ(camera.PowerState(), 'Q');
    EXPECT_EQ(camera.ToJson()["remote-cam-info"]["ble-info"]["powerStatus"]["string"], "Unknown");
}

TEST_F(Notification, TwoBytePowerIsUnknown) {
    Preload();
    Logging::Capture capture;
    OnNotification(camera, {'P', 'Z'});
    ExpectUnknown(capture, "Unknown notification type found: 0x50", "Contents: 50 5A ");
    ExpectPreloaded();
}

TEST_F(Notification, WiFiAnswerStoresStateAndFrequency) {
    Preload();
    Logging::Capture capture;
    OnNotification(camera, {'F', '5', '.', '0', 'R', 0x0D});
    EXPECT_EQ(camera.WiFiState(), 'R');
    EXPECT_EQ(camera.WiFiFrequency(), "5.0");
    ASSERT_EQ(capture.Lines().size(), 1u);
    EXPECT_EQ(capture.Count("Kelp-7: WiFi State: R WiFi Freq: 5.0", LOG_INFO), 1u);
    EXPECT_EQ(camera.BleVersion(), 9);
    EXPECT_EQ(camera.PowerState(), 'U');
}

TEST_F(Notification, WiFiAnswerWithoutCarriageReturnIsUnknown) {
    Preload();
    Logging::Capture capture;
    OnNotification(camera, {'F', '5', '.', '0', 'R'});
    ExpectUnknown(capture, "Unknown notification type found: 0x46", "Contents: 46 35 2E 30 52 ");
    ExpectPreloaded();
}

TEST_F(Notification, FourByteValuesStartingWithFOrPAreUnknown) {
    Preload();
    {
        Logging::Capture capture;
        OnNotification(camera, B("F5.0"));
        ExpectUnknown(capture, "Unknown notification type found: 0x46", "Contents: 46 35 2E 30 ");
    }
    {
        Logging::Capture capture;
        OnNotification(camera, B("PZ\r\r"));
        ExpectUnknown(capture, "Unknown notification type found: 0x50", "Contents: 50 5A 0D 0D ");
    }
    ExpectPreloaded();
}

TEST_F(Notification, UnknownPathDumpsInUpperCaseHexWithATrailingBlank) {
    Preload();
    Logging::Capture capture;
    OnNotification(camera, {0x01, 0xAB});
    ExpectUnknown(capture, "Unknown notification type found: 0x1", "Contents: 01 AB ");
    ExpectPreloaded();
}

TEST_F(Notification, AnswerKindsNeverOverlapSoEachReachesItsOwnBranch) {
    // The three answer shapes never overlap (each needs its own first byte and length), so every value
    // reaches exactly the branch of its kind; a run of mixed answers shows each touching only its own
    // field and logging its own line, in arrival order.
    Logging::Capture capture;
    OnNotification(camera, B("PY\r"));
    OnNotification(camera, B("F2.4G\r"));
    OnNotification(camera, B("V03\r"));
    OnNotification(camera, B("F5.0C\r"));
    EXPECT_EQ(camera.BleVersion(), 3);
    EXPECT_EQ(camera.PowerState(), 'Y');
    EXPECT_EQ(camera.WiFiState(), 'C');
    EXPECT_EQ(camera.WiFiFrequency(), "5.0");
    const std::vector<std::string> expected = {
        "Kelp-7: Power Status: Y",
        "Kelp-7: WiFi State: G WiFi Freq: 2.4",
        "Kelp-7: BLE Version: 3",
        "Kelp-7: WiFi State: C WiFi Freq: 5.0",
    };
    EXPECT_EQ(capture.Texts(), expected);
}

TEST_F(Notification, AnswersFillTheJsonDocument) {
    OnNotification(camera, B("PZ\r"));
    OnNotification(camera, B("F5.0R\r"));
    OnNotification(camera, B("V12\r"));
    const nlohmann::json ble = camera.ToJson().at("remote-cam-info").at("ble-info");
    const nlohmann::json expected = {{"bleVersion", 12},
                                     {"powerStatus", {{"code", 90}, {"string", "On"}}},
                                     {"wifiStatus", {{"code", 82}, {"string", "Ready"}}},
                                     {"wifiFrequency", "5.0"}};
    EXPECT_EQ(ble, expected);
}

// One thread notifies while another polls the record, as the BLE library's thread and a worker do.
// Meant to be run under ThreadSanitizer as well; the values seen must always be whole ones.
TEST_F(Notification, ConcurrentNotifyAndPollSeeWholeValues) {
    Logging::SetStderrEcho(false);
    std::atomic<bool> done{false};
    std::thread notifier([&] {
        for (int i = 0; i < 2000; ++i) {
            OnNotification(camera, i % 2 ? B("PZ\r") : B("PU\r"));
            OnNotification(camera, i % 2 ? B("F5.0R\r") : B("F2.4B\r"));
            OnNotification(camera, i % 2 ? B("V12\r") : B("V07\r"));
        }
        done = true;
    });
    const std::set<uint8_t> powers = {0, 'Z', 'U'};
    const std::set<uint8_t> wifis = {0, 'R', 'B'};
    const std::set<std::string> frequencies = {"", "5.0", "2.4"};
    const std::set<uint8_t> versions = {0, 12, 7};
    int polls = 0;
    while (!done || polls == 0) {
        ++polls;
        EXPECT_EQ(powers.count(camera.PowerState()), 1u);
        EXPECT_EQ(wifis.count(camera.WiFiState()), 1u);
        EXPECT_EQ(frequencies.count(camera.WiFiFrequency()), 1u);
        EXPECT_EQ(versions.count(camera.BleVersion()), 1u);
        const nlohmann::json ble = camera.ToJson().at("remote-cam-info").at("ble-info");
        EXPECT_EQ(frequencies.count(ble.at("wifiFrequency").get<std::string>()), 1u);
    }
    notifier.join();
    EXPECT_EQ(camera.PowerState(), 'Z');
    EXPECT_EQ(camera.WiFiState(), 'R');
    EXPECT_EQ(camera.WiFiFrequency(), "5.0");
    EXPECT_EQ(camera.BleVersion(), 12);
}
