// Values a remote camera notifies, in any number and order, into CameraProtocol::OnNotification on one
// camera record, and the record published as the camera list.
//
// Input: a sequence of [head][value]: the head's low 7 bits are the value's length (cut at the input's
// end), its top bit publishes the list after that value, as the loop thread may at any moment (eight
// times per input at most: a publication costs far more than a notification).
//
// The record must hold what the last answer of each kind said (CameraProtocol.h): version "V" + two
// decimal digits + one octet, power "P" + letter + one octet, Wi-Fi "F" + three frequency characters +
// state letter + one octet; any other value changes nothing. The published list must parse as JSON with
// the one camera in it, its text always the one a fresh dump of the record gives.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "remote_camera/CameraProtocol.h"
#include "scanned_device/Json.h"
#include "scanned_device/RemoteCamera.h"

namespace {

using Fuzz::Check;

// The camera's state as the answers describe it.
struct Model {
    uint8_t version = 0;
    uint8_t power = 0;
    uint8_t wifi = 0;
    std::string frequency;

    void Apply(const std::vector<uint8_t>& v) {
        if (v.size() == 4 && v[0] == 'V') {
            const char digits[3] = {static_cast<char>(v[1]), static_cast<char>(v[2]), '\0'};
            version = static_cast<uint8_t>(std::strtol(digits, nullptr, 10) & 0xFF);
        } else if (v.size() == 6 && v[0] == 'F') {
            frequency.assign(v.begin() + 1, v.begin() + 4);
            wifi = v[4];
        } else if (v.size() == 3 && v[0] == 'P') {
            power = v[1];
        }
    }
};

void CheckPublished(const std::vector<std::shared_ptr<ScannedDevice::Base>>& list,
                    const ScannedDevice::RemoteCamera& camera, const Model& model) {
    const std::string text = ScannedDevice::RemoteCamerasJson(list);
    Check(text == "[" + ScannedDevice::DumpJson(camera.ToJson()) + "]",
          "the published text is not the record's current one");
    const nlohmann::json cameras = nlohmann::json::parse(text);
    Check(cameras.is_array() && cameras.size() == 1, "the list does not hold the one camera");
    const nlohmann::json& ble = cameras[0].at("remote-cam-info").at("ble-info");
    Check(ble.at("bleVersion") == model.version, "bleVersion in JSON");
    Check(ble.at("powerStatus").at("code") == model.power, "powerStatus in JSON");
    Check(ble.at("wifiStatus").at("code") == model.wifi, "wifiStatus in JSON");
    const std::string frequency = ble.at("wifiFrequency").get<std::string>();
    if (Fuzz::IsUtf8(model.frequency))
        Check(frequency == model.frequency, "wifiFrequency in JSON");
    else
        Check(frequency.find("\xEF\xBF\xBD") != std::string::npos,
              "wifiFrequency not UTF-8, yet not replaced");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    Fuzz::QuietLog();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    auto camera = std::make_shared<ScannedDevice::RemoteCamera>();
    camera->SetName("Kelp-7");
    // a plain device beside it, which the camera list must leave out
    const std::vector<std::shared_ptr<ScannedDevice::Base>> list{std::make_shared<ScannedDevice::Base>(),
                                                                 camera};
    Model model;

    int publications = 0;
    std::size_t pos = 0;
    while (pos < size) {
        const uint8_t head = data[pos++];
        const std::size_t length = std::min<std::size_t>(head & 0x7Fu, size - pos);
        const std::vector<uint8_t> value(data + pos, data + pos + length);
        pos += length;

        CameraProtocol::OnNotification(*camera, value);
        model.Apply(value);
        Check(camera->BleVersion() == model.version, "BLE version");
        Check(camera->PowerState() == model.power, "power state");
        Check(camera->WiFiState() == model.wifi, "Wi-Fi state");
        Check(camera->WiFiFrequency() == model.frequency, "Wi-Fi frequency");
        if ((head & 0x80u) != 0 && ++publications <= 8)
            CheckPublished(list, *camera, model);
    }
    CheckPublished(list, *camera, model);
    return 0;
}
