// Records built from outside data leave the daemon as text without ever throwing.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "remote_camera/CameraProtocol.h"
#include "scanned_device/Json.h"
#include "scanned_device/RemoteCamera.h"

namespace {

const std::string kReplacement = "\xEF\xBF\xBD";  // U+FFFD

// A camera whose Wi-Fi answer carried an octet that is not UTF-8: "F", 0xC0, "5.R\r".
ScannedDevice::RemoteCamera& WithBadFrequency(ScannedDevice::RemoteCamera& camera) {
    const std::vector<uint8_t> answer{0x46, 0xC0, 0x35, 0x2E, 0x52, 0x0D};
    CameraProtocol::OnNotification(camera, answer);
    return camera;
}

}  // namespace

TEST(DumpJson, AnInvalidOctetFromACameraIsReplacedWhereAPlainDumpThrows) {
    ScannedDevice::RemoteCamera camera;
    WithBadFrequency(camera);
    ASSERT_EQ(camera.WiFiFrequency(),
              "\xC0"
              "5.");
    // the hazard: nlohmann's own dump refuses the record
    EXPECT_THROW((void)camera.ToJson().dump(), nlohmann::json::type_error);

    std::string text;
    ASSERT_NO_THROW(text = ScannedDevice::DumpJson(camera.ToJson()));
    // parse() accepts valid UTF-8 only
    const nlohmann::json back = nlohmann::json::parse(text);
    EXPECT_EQ(back["remote-cam-info"]["ble-info"]["wifiFrequency"], kReplacement + "5.");
    EXPECT_EQ(back["remote-cam-info"]["ble-info"]["wifiStatus"]["string"], "Ready");
}

TEST(DumpJson, ValidNonAsciiStaysUnescapedAndTheTextIsCompact) {
    ScannedDevice::Base device;
    device.SetName("Caméra Süd");
    const std::string text = ScannedDevice::DumpJson(device.ToJson());
    EXPECT_NE(text.find("\"name\":\"Caméra Süd\""), std::string::npos) << text;
    EXPECT_EQ(text.find("\\u"), std::string::npos);
    EXPECT_EQ(text.find('\n'), std::string::npos);
    EXPECT_EQ(text.find(": "), std::string::npos);
}

TEST(DumpJson, NamesAndPayloadTextsFromTheAirAreOutsideDataToo) {
    ScannedDevice::RemoteCamera camera;
    camera.SetName(std::string("Kelp\xFF\xFE", 6));
    camera.SetText(std::string("SS\x80ID", 5));
    const nlohmann::json back = nlohmann::json::parse(ScannedDevice::DumpJson(camera.ToJson()));
    EXPECT_EQ(back["name"], "Kelp" + kReplacement + kReplacement);
    EXPECT_EQ(back["remote-cam-info"]["ssid"], "SS" + kReplacement + "ID");
}

TEST(DevicesJson, AnArrayOfEveryDocumentInOrderAndEmptyAsBrackets) {
    EXPECT_EQ(ScannedDevice::DevicesJson({}), "[]");
    EXPECT_EQ(ScannedDevice::RemoteCamerasJson({}), "[]");
    auto phone = std::make_shared<ScannedDevice::Base>();
    phone->SetName("Phone");
    phone->SetMac("AA:00:00:00:00:01");
    auto camera = std::make_shared<ScannedDevice::RemoteCamera>();
    camera->SetName("Kelp");
    camera->SetMac("AA:00:00:00:00:02");
    const std::vector<std::shared_ptr<ScannedDevice::Base>> devices{camera, phone};

    EXPECT_EQ(ScannedDevice::DevicesJson(devices), "[" + ScannedDevice::DumpJson(camera->ToJson()) + "," +
                                                       ScannedDevice::DumpJson(phone->ToJson()) + "]");
    EXPECT_EQ(ScannedDevice::RemoteCamerasJson(devices),
              "[" + ScannedDevice::DumpJson(camera->ToJson()) + "]");
    // no camera among them
    EXPECT_EQ(ScannedDevice::RemoteCamerasJson({phone}), "[]");
}

TEST(DevicesJson, EqualsTheWholeArrayDumpedAtOnce) {
    auto phone = std::make_shared<ScannedDevice::Base>();
    phone->SetName("Ph\xC3\xB6ne \"1\"");
    phone->SetMac("AA:00:00:00:00:01");
    auto camera = std::make_shared<ScannedDevice::RemoteCamera>();
    camera->SetName("Kelp");
    WithBadFrequency(*camera);
    nlohmann::json array = nlohmann::json::array({phone->ToJson(), camera->ToJson(), phone->ToJson()});
    EXPECT_EQ(ScannedDevice::DevicesJson({phone, camera, phone}), ScannedDevice::DumpJson(array));
}

// The published text is kept between reads: every field the document shows must refresh it.
TEST(DevicesJson, ShowsEveryFieldChangedAfterAnEarlierRead) {
    auto phone = std::make_shared<ScannedDevice::Base>();
    auto camera = std::make_shared<ScannedDevice::RemoteCamera>();
    const std::vector<std::shared_ptr<ScannedDevice::Base>> devices{phone, camera};
    const auto current = [&] {
        return "[" + ScannedDevice::DumpJson(phone->ToJson()) + "," +
               ScannedDevice::DumpJson(camera->ToJson()) + "]";
    };
    const std::vector<std::function<void()>> changes{
        [&] { phone->SetName("renamed"); },
        [&] { phone->SetMac("AA:00:00:00:00:09"); },
        [&] { phone->SetRssi(-42); },
        [&] { phone->SetPaired(true); },
        [&] { phone->SetTrusted(true); },
        [&] { phone->SetClass(0x5A020C); },
        [&] { phone->DeriveClassName(); },
        [&] { phone->SetClassName("Other"); },
        [&] { phone->SetType(ScannedDevice::kHidType); },
        [&] { camera->SetDeviceType(3); },
        [&] { camera->SetBatteryStatus(2); },
        [&] { camera->SetIPAddress(0x0A00000A); },
        [&] { camera->SetText("SSID"); },
        [&] { camera->SetBleVersion(2); },
        [&] { camera->SetPowerState('P'); },
        [&] { camera->SetWiFiState('C'); },
        [&] { camera->SetWiFiFrequency("5.R"); },
    };
    for (std::size_t i = 0; i < changes.size(); ++i) {
        const std::string before = ScannedDevice::DevicesJson(devices);
        changes[i]();
        const std::string after = ScannedDevice::DevicesJson(devices);
        EXPECT_NE(after, before) << "change " << i;
        EXPECT_EQ(after, current()) << "change " << i;
        EXPECT_EQ(ScannedDevice::RemoteCamerasJson(devices),
                  "[" + ScannedDevice::DumpJson(camera->ToJson()) + "]")
            << "change " << i;
    }
}

// A camera's answers arrive on the BLE library's thread while the loop thread publishes the list.
TEST(DevicesJson, AStateWrittenOnAnotherThreadIsPublishedOnceItIsStored) {
    auto camera = std::make_shared<ScannedDevice::RemoteCamera>();
    const std::vector<std::shared_ptr<ScannedDevice::Base>> devices{camera};
    std::atomic<bool> done{false};
    std::thread writer([&] {
        for (int i = 0; i < 2000; ++i) {
            camera->SetPowerState(i % 2 ? 'P' : 'S');
            camera->SetBleVersion(static_cast<uint8_t>(i % 7));
        }
        camera->SetPowerState('B');
        done = true;
    });
    while (!done)
        (void)ScannedDevice::RemoteCamerasJson(devices);
    writer.join();
    const nlohmann::json back = nlohmann::json::parse(ScannedDevice::RemoteCamerasJson(devices));
    EXPECT_EQ(back[0]["remote-cam-info"]["ble-info"]["powerStatus"]["code"], 'B');
    EXPECT_EQ(back[0]["remote-cam-info"]["ble-info"]["bleVersion"], 1999 % 7);
}

TEST(JsonArray, WritesExactlyItsSizeAndKeepsTheTextsItWasTakenWith) {
    auto phone = std::make_shared<ScannedDevice::Base>();
    phone->SetName("Phone");
    auto camera = std::make_shared<ScannedDevice::RemoteCamera>();
    const std::vector<std::shared_ptr<ScannedDevice::Base>> devices{phone, camera};
    const std::string expected = ScannedDevice::DevicesJson(devices);

    const ScannedDevice::JsonArray array = ScannedDevice::JsonArray::Devices(devices);
    phone->SetName("Renamed");  // after the array was taken
    ASSERT_EQ(array.Size(), expected.size());
    std::string buffer(array.Size() + 8, '#');
    array.CopyTo(buffer.data());
    EXPECT_EQ(buffer.substr(0, array.Size()), expected);
    EXPECT_EQ(buffer.substr(array.Size()), std::string(8, '#'));
    EXPECT_EQ(ScannedDevice::JsonArray::RemoteCameras(devices).Text(),
              "[" + ScannedDevice::DumpJson(camera->ToJson()) + "]");
    EXPECT_NE(ScannedDevice::DevicesJson(devices), expected);
    EXPECT_EQ(ScannedDevice::JsonArray::Devices({}).Size(), 2u);
}
