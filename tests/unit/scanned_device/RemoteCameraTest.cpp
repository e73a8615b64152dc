#include <gtest/gtest.h>

#include <set>
#include <stdexcept>

#include "JsonKeys.h"
#include "logging/Log.h"
#include "scan_response/ScanResponse.h"
#include "scanned_device/RemoteCamera.h"

using nlohmann::json;
using ScannedDevice::ManufacturerData;
using ScannedDevice::RemoteCamera;

namespace {

// Device type 7, schema 3, battery 2, IP C0 A8 01 14, text "SSID".
const std::vector<uint8_t> kCameraPayload = {0x07, 0x00, 0x03, 0x02, 0xC0, 0xA8,
                                             0x01, 0x14, 0x53, 0x53, 0x49, 0x44};

std::shared_ptr<RemoteCamera> AsCamera(const std::shared_ptr<ScannedDevice::Base>& device) {
    return std::dynamic_pointer_cast<RemoteCamera>(device);
}

void FillBase(ScannedDevice::Base& device) {
    device.SetClass(0x000680);
    device.SetClassName("Imaging");
    device.SetRssi(-58);
    device.SetName("KelpCam-0042");
    device.SetMac("00:11:22:33:44:55");
    device.SetPaired(false);
    device.SetTrusted(true);
}

json BaseDocument() {
    return {{"type", 1},       {"class", 0x000680},      {"class-name", "Imaging"},
            {"rssi", -58},     {"name", "KelpCam-0042"}, {"mac", "00:11:22:33:44:55"},
            {"paired", false}, {"trusted", true}};
}

}  // namespace

TEST(RemoteCameraClassification, DataUnderAnotherCompanyAreIgnored) {
    const auto device = ScannedDevice::FromManufacturerData({{0x004C, kCameraPayload}});
    ASSERT_NE(device, nullptr);
    EXPECT_EQ(device->Type(), 0);
    EXPECT_EQ(AsCamera(device), nullptr);
}

TEST(RemoteCameraClassification, NoManufacturerDataGivesAGenericDevice) {
    const auto device = ScannedDevice::FromManufacturerData({});
    ASSERT_NE(device, nullptr);
    EXPECT_EQ(device->Type(), 0);
    EXPECT_EQ(AsCamera(device), nullptr);
}

TEST(RemoteCameraClassification, SchemaThreePayloadGivesACameraWithTheDecodedFields) {
    const auto device = ScannedDevice::FromManufacturerData({{0x004C, {0x01}}, {0x05F3, kCameraPayload}});
    const auto camera = AsCamera(device);
    ASSERT_NE(camera, nullptr);
    EXPECT_EQ(camera->Type(), 1);
    EXPECT_EQ(camera->TypeName(), "RemoteCamera");
    EXPECT_EQ(camera->DeviceType(), 7);
    EXPECT_EQ(camera->BatteryStatus(), 2);
    EXPECT_EQ(camera->IPAddress(), 0x1401A8C0u);
    EXPECT_EQ(camera->Text(), "SSID");
    EXPECT_EQ(camera->PayloadSchema(), 3);
    EXPECT_EQ(camera->BleVersion(), 0);
    EXPECT_EQ(camera->PowerState(), 0);
    EXPECT_EQ(camera->WiFiState(), 0);
    EXPECT_EQ(camera->WiFiFrequency(), "");
    // Base fields are the scanner's to fill.
    EXPECT_EQ(camera->Name(), "");
    EXPECT_EQ(camera->Mac(), "");
    EXPECT_EQ(camera->ToJson().at("remote-cam-info").at("ipAddress").at("string"), "192.168.1.20");
}

TEST(RemoteCameraClassification, SchemaFourPayloadGivesACameraWithEmptyCameraFields) {
    std::vector<uint8_t> payload = kCameraPayload;
    payload[2] = 0x04;
    const auto camera = AsCamera(ScannedDevice::FromManufacturerData({{0x05F3, payload}}));
    ASSERT_NE(camera, nullptr);
    EXPECT_EQ(camera->Type(), 1);
    EXPECT_EQ(camera->DeviceType(), 0);
    EXPECT_EQ(camera->BatteryStatus(), 0);
    EXPECT_EQ(camera->IPAddress(), 0u);
    EXPECT_EQ(camera->Text(), "");
    EXPECT_EQ(camera->BleVersion(), 0);
    EXPECT_EQ(camera->PowerState(), 0);
    EXPECT_EQ(camera->WiFiState(), 0);
    EXPECT_EQ(camera->WiFiFrequency(), "");
}

TEST(RemoteCameraClassification, DeviceTypeZeroOrTenIsNoCamera) {
    for (const uint8_t code : {uint8_t{0x00}, uint8_t{0x0A}, uint8_t{0xFF}}) {
        SCOPED_TRACE(static_cast<int>(code));
        std::vector<uint8_t> payload = kCameraPayload;
        payload[0] = code;
        const auto device = ScannedDevice::FromManufacturerData({{0x05F3, payload}});
        ASSERT_NE(device, nullptr);
        EXPECT_EQ(device->Type(), 0);
        EXPECT_EQ(AsCamera(device), nullptr);
    }
}

TEST(RemoteCameraClassification, EveryDeviceTypeFromOneToNineIsACamera) {
    for (uint8_t code = 1; code <= 9; ++code) {
        SCOPED_TRACE(static_cast<int>(code));
        std::vector<uint8_t> payload = kCameraPayload;
        payload[0] = code;
        const auto camera = AsCamera(ScannedDevice::FromManufacturerData({{0x05F3, payload}}));
        ASSERT_NE(camera, nullptr);
        EXPECT_EQ(camera->DeviceType(), code);
    }
}

TEST(RemoteCameraClassification, OnlyTheLowByteOfTheDeviceTypeCounts) {
    // 0x0107 is a camera of type 7; 0x0100 is no camera for all its high byte.
    std::vector<uint8_t> payload = kCameraPayload;
    payload[0] = 0x07;
    payload[1] = 0x01;
    const auto camera = AsCamera(ScannedDevice::FromManufacturerData({{0x05F3, payload}}));
    ASSERT_NE(camera, nullptr);
    EXPECT_EQ(camera->DeviceType(), 7);
    payload[0] = 0x00;
    const auto device = ScannedDevice::FromManufacturerData({{0x05F3, payload}});
    ASSERT_NE(device, nullptr);
    EXPECT_EQ(AsCamera(device), nullptr);
}

TEST(RemoteCameraClassification, UnknownSchemaOrShortEntryIsNoCamera) {
    std::vector<uint8_t> payload = kCameraPayload;
    payload[2] = 0x09;
    EXPECT_EQ(ScannedDevice::FromManufacturerData({{0x05F3, payload}})->Type(), 0);
    EXPECT_EQ(ScannedDevice::FromManufacturerData({{0x05F3, {0x07}}})->Type(), 0);
    EXPECT_EQ(ScannedDevice::FromManufacturerData({{0x05F3, {}}})->Type(), 0);
}

TEST(RemoteCameraClassification, TwoByteEntryLetsTheDecoderThrowOutOfRange) {
    EXPECT_THROW(ScannedDevice::FromManufacturerData({{0x05F3, {0x07, 0x00}}}), std::out_of_range);
}

TEST(RemoteCameraConstruction, DefaultCameraIsTypeOneWithSchemaThree) {
    const RemoteCamera camera;
    EXPECT_EQ(camera.Type(), 1);
    EXPECT_EQ(camera.PayloadSchema(), 3);
    EXPECT_EQ(camera.DeviceType(), 0);
    EXPECT_EQ(camera.IPAddress(), 0u);
}

TEST(RemoteCameraConstruction, CopiesOnlyAVersionThreePayload) {
    const ScanResponse::V3 v3(kCameraPayload);
    const RemoteCamera fromV3(v3);
    EXPECT_EQ(fromV3.DeviceType(), 7);
    EXPECT_EQ(fromV3.Text(), "SSID");

    std::vector<uint8_t> bytes = kCameraPayload;
    bytes[2] = 0x04;
    const ScanResponse::V4 v4(bytes);
    const RemoteCamera fromV4(v4);
    EXPECT_EQ(fromV4.Type(), 1);
    EXPECT_EQ(fromV4.DeviceType(), 0);
    EXPECT_EQ(fromV4.BatteryStatus(), 0);
    EXPECT_EQ(fromV4.IPAddress(), 0u);
    EXPECT_EQ(fromV4.Text(), "");
}

TEST(RemoteCameraJson, IpWordGivesItsNumberAndDottedText) {
    RemoteCamera camera;
    camera.SetIPAddress(0x1401A8C0u);
    const json ip = camera.ToJson().at("remote-cam-info").at("ipAddress");
    EXPECT_EQ(ip, (json{{"number", 335653056}, {"string", "192.168.1.20"}}));
    EXPECT_TRUE(ip.at("number").is_number_unsigned());
}

TEST(RemoteCameraJson, ReportedStatesGiveTheirCodesAndNames) {
    RemoteCamera camera;
    camera.SetPowerState('Z');
    camera.SetWiFiState('R');
    camera.SetWiFiFrequency("5.0");
    camera.SetBleVersion(12);
    const json ble = camera.ToJson().at("remote-cam-info").at("ble-info");
    const json expected = {{"bleVersion", 12},
                           {"powerStatus", {{"code", 90}, {"string", "On"}}},
                           {"wifiStatus", {{"code", 82}, {"string", "Ready"}}},
                           {"wifiFrequency", "5.0"}};
    EXPECT_EQ(ble, expected);
}

TEST(RemoteCameraJson, UnnamedLettersGiveUnknown) {
    RemoteCamera camera;
    camera.SetPowerState('z');
    camera.SetWiFiState(0xFF);
    const json ble = camera.ToJson().at("remote-cam-info").at("ble-info");
    EXPECT_EQ(ble.at("powerStatus"), (json{{"code", 122}, {"string", "Unknown"}}));
    EXPECT_EQ(ble.at("wifiStatus"), (json{{"code", 255}, {"string", "Unknown"}}));
}

TEST(RemoteCameraJson, CameraNeverAskedGivesZerosUnknownAndEmptyFrequency) {
    const RemoteCamera camera;
    const json ble = camera.ToJson().at("remote-cam-info").at("ble-info");
    const json expected = {{"bleVersion", 0},
                           {"powerStatus", {{"code", 0}, {"string", "Unknown"}}},
                           {"wifiStatus", {{"code", 0}, {"string", "Unknown"}}},
                           {"wifiFrequency", ""}};
    EXPECT_EQ(ble, expected);
}

TEST(RemoteCameraJson, WholeDocumentOfADecodedCamera) {
    const auto camera = AsCamera(ScannedDevice::FromManufacturerData({{0x05F3, kCameraPayload}}));
    ASSERT_NE(camera, nullptr);
    FillBase(*camera);
    camera->SetPowerState('U');
    camera->SetWiFiState('B');
    camera->SetWiFiFrequency("2.4");
    camera->SetBleVersion(3);

    json expected = BaseDocument();
    expected["remote-cam-info"] = {
        {"ipAddress", {{"number", 335653056}, {"string", "192.168.1.20"}}},
        {"deviceType", {{"number", 7}, {"string", "KelpCam"}}},
        {"batteryStatus", {{"number", 2}, {"string", "Partially Empty"}}},
        {"ssid", "SSID"},
        {"ble-info",
         {{"bleVersion", 3},
          {"powerStatus", {{"code", 85}, {"string", "Off"}}},
          {"wifiStatus", {{"code", 66}, {"string", "Booting"}}},
          {"wifiFrequency", "2.4"}}},
    };
    const json document = camera->ToJson();
    EXPECT_EQ(document, expected);

    EXPECT_EQ(KeysOf(document), (std::set<std::string>{"type", "class", "class-name", "rssi", "name", "mac",
                                                       "paired", "trusted", "remote-cam-info"}));
    const json& info = document.at("remote-cam-info");
    EXPECT_EQ(KeysOf(info),
              (std::set<std::string>{"ipAddress", "deviceType", "batteryStatus", "ssid", "ble-info"}));
    EXPECT_EQ(KeysOf(info.at("ble-info")),
              (std::set<std::string>{"bleVersion", "powerStatus", "wifiStatus", "wifiFrequency"}));
    for (const char* key : {"ipAddress", "deviceType", "batteryStatus"}) {
        EXPECT_EQ(KeysOf(info.at(key)), (std::set<std::string>{"number", "string"})) << key;
    }
    for (const char* key : {"powerStatus", "wifiStatus"}) {
        EXPECT_EQ(KeysOf(info.at("ble-info").at(key)), (std::set<std::string>{"code", "string"})) << key;
    }
}

TEST(RemoteCameraJson, NumbersAreSignedAtTopAndUnsignedInside) {
    RemoteCamera camera;
    FillBase(camera);
    camera.SetIPAddress(0xFFFFFFFFu);
    camera.SetDeviceType(7);
    camera.SetBatteryStatus(4);
    camera.SetPowerState('Y');
    camera.SetWiFiState('C');
    camera.SetBleVersion(255);
    const json document = camera.ToJson();
    for (const char* key : {"type", "class", "rssi"}) {
        EXPECT_TRUE(document.at(key).is_number_integer()) << key;
        EXPECT_FALSE(document.at(key).is_number_unsigned()) << key;
    }
    const json& info = document.at("remote-cam-info");
    const json& ble = info.at("ble-info");
    for (const json* number : {&info.at("ipAddress").at("number"), &info.at("deviceType").at("number"),
                               &info.at("batteryStatus").at("number"), &ble.at("bleVersion"),
                               &ble.at("powerStatus").at("code"), &ble.at("wifiStatus").at("code")}) {
        EXPECT_TRUE(number->is_number_unsigned()) << number->dump();
    }
    EXPECT_EQ(info.at("ipAddress").at("number").get<uint64_t>(), 4294967295ULL);
    EXPECT_EQ(info.at("ipAddress").at("string"), "255.255.255.255");
    EXPECT_EQ(info.at("batteryStatus").at("string"), "Full");
    EXPECT_EQ(ble.at("bleVersion").get<uint64_t>(), 255u);
    EXPECT_EQ(ble.at("powerStatus").at("string"), "Standby");
    EXPECT_EQ(ble.at("wifiStatus").at("string"), "Connected");
}

TEST(RemoteCameraJson, UnnamedDeviceTypeAndBatteryGiveUnknown) {
    RemoteCamera camera;
    camera.SetDeviceType(0);
    camera.SetBatteryStatus(5);
    const json info = camera.ToJson().at("remote-cam-info");
    EXPECT_EQ(info.at("deviceType"), (json{{"number", 0}, {"string", "Unknown"}}));
    EXPECT_EQ(info.at("batteryStatus"), (json{{"number", 5}, {"string", "Unknown"}}));
}

TEST(RemoteCameraPrint, LogsTheSevenLinesInOrderAtInfo) {
    const auto camera = AsCamera(ScannedDevice::FromManufacturerData({{0x05F3, kCameraPayload}}));
    ASSERT_NE(camera, nullptr);
    FillBase(*camera);
    Logging::Capture capture;
    camera->Print();
    const std::vector<std::string> expected = {
        "Device Name: KelpCam-0042",
        "Device Mac:  00:11:22:33:44:55",
        "Device RSSI: -58",
        "Device Type: 1 (RemoteCamera)",
        "Device Code: 7 (KelpCam)",
        "Device IP:   335653056 (192.168.1.20)",
        "Device Bat:  2 (Partially Empty)",
    };
    EXPECT_EQ(capture.Texts(), expected);
    for (const auto& line : capture.Lines())
        EXPECT_EQ(line.priority, LOG_INFO) << line.text;
}

TEST(RemoteCameraPrint, IpIsPrintedAsASignedNumberAndUnknownNamesFallBack) {
    RemoteCamera camera;
    camera.SetIPAddress(0xC0A80114u);  // wire bytes 14 01 A8 C0
    camera.SetDeviceType(12);
    camera.SetBatteryStatus(9);
    camera.SetType(5);
    Logging::Capture capture;
    camera.Print();
    EXPECT_TRUE(capture.Contains("Device IP:   -1062731500 (20.1.168.192)", LOG_INFO));
    EXPECT_TRUE(capture.Contains("Device Code: 12 (Unknown)", LOG_INFO));
    EXPECT_TRUE(capture.Contains("Device Bat:  9 (Unknown)", LOG_INFO));
    EXPECT_TRUE(capture.Contains("Device Type: 5 (Unknown)", LOG_INFO));
    EXPECT_EQ(capture.Lines().size(), 7u);
}
