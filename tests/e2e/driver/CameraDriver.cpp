// Runs inside the e2e VM: finds the remote camera that the peer plays on hci1 with TinybScanner passes,
// then drives it with KelpBleManager over a TinybRadio through real bluetoothd and real GATT, in the
// order of the camera configuration flow: subscribe, read its BLE information, switch it on, wait for
// its access point, set the band of this unit's radio (5.0, radio type 1), unsubscribe. Prints one
// RESULT line (JSON) with each step's outcome and duration.
//
//   e2e_camera_driver --camera <address>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "backend/TinybRadio.h"
#include "backend/TinybScanner.h"
#include "remote_camera/KelpBleManager.h"
#include "scanned_device/RemoteCamera.h"
#include "tinyb/tinyb.hpp"

namespace {

using Clock = std::chrono::steady_clock;

long long MsSince(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

bool WaitFor(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
    const auto deadline = Clock::now() + limit;
    while (!condition()) {
        if (Clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

std::shared_ptr<ScannedDevice::RemoteCamera> FindCamera(const std::string& mac, nlohmann::json& result) {
    Backend::TinybScanner scanner;
    if (!scanner.IsUsable()) {
        return nullptr;
    }
    const auto start = Clock::now();
    for (int pass = 1; pass <= 25; ++pass) {
        const int rc = scanner.Scan();
        for (const auto& device : scanner.Devices()) {
            if (device->Mac() == mac) {
                result["scan"] = {{"passes", pass}, {"ms", MsSince(start)}, {"last_rc", rc}};
                return std::dynamic_pointer_cast<ScannedDevice::RemoteCamera>(device);
            }
        }
        std::this_thread::sleep_for(std::chrono::seconds(1));
    }
    return nullptr;
}

bool Connected(const std::string& mac) {
    auto device = Backend::TinybRadio::GetDevice(mac);
    return device && device->get_connected();
}

}  // namespace

int main(int argc, char** argv) {
    std::string mac;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--camera") == 0) {
            mac = argv[i + 1];
        }
    }
    if (mac.empty()) {
        std::fprintf(stderr, "usage: %s --camera <address>\n", argv[0]);
        return 2;
    }
    nlohmann::json result;
    std::vector<std::string> problems;
    nlohmann::json steps = nlohmann::json::array();
    auto finish = [&]() {
        result["steps"] = steps;
        result["problems"] = problems;
        result["ok"] = problems.empty();
        std::printf("RESULT %s\n", result.dump().c_str());
        std::fflush(stdout);
        return problems.empty() ? 0 : 1;
    };
    // One step of the flow: its outcome must be true; the flow stops at the first failure.
    auto step = [&](const char* name, const std::function<bool()>& action) {
        const auto start = Clock::now();
        const bool ok = action();
        steps.push_back({{"step", name}, {"ok", ok}, {"ms", MsSince(start)}});
        std::printf("step %s: %s after %lld ms\n", name, ok ? "ok" : "FAILED", MsSince(start));
        std::fflush(stdout);
        if (!ok) {
            problems.push_back(std::string(name) + " failed");
        }
        return ok;
    };

    const auto camera = FindCamera(mac, result);
    if (!camera) {
        problems.push_back("no RemoteCamera record for " + mac + " from the scanner");
        return finish();
    }
    auto radio = std::make_shared<Backend::TinybRadio>();
    if (!radio->IsUsable()) {
        problems.push_back("the radio could not reach BlueZ");
        return finish();
    }
    KelpBleManager manager(radio);
    std::atomic<int> newData{0};
    manager.NewData().connect([&newData](const std::string&) { ++newData; });

    std::string info;
    const bool subscribed = step("Subscribe", [&] { return manager.Subscribe(camera); });
    if (!subscribed) {
        // What the client library showed right after the failed subscription, and a moment later; the
        // scenario script adds what BlueZ itself says.
        auto state = [&mac] {
            auto device = Backend::TinybRadio::GetDevice(mac);
            return nlohmann::json{{"connected", device && device->get_connected()},
                                  {"services_resolved", device && device->get_services_resolved()}};
        };
        result["tinyb_after_failed_subscribe"] = state();
        std::this_thread::sleep_for(std::chrono::seconds(1));
        result["tinyb_one_second_later"] = state();
    }
    bool ok = subscribed && step("ReadBleInfo", [&] { return manager.ReadBleInfo(camera, info); });
    if (ok) {
        result["read_ble_info_json"] = nlohmann::json::parse(info, nullptr, false);
        // The three answers come by notification, after ReadBleInfo has returned or not: measure when.
        const auto start = Clock::now();
        const bool answered = WaitFor(
            [&] {
                return camera->BleVersion() != 0 && camera->PowerState() != 0 && camera->WiFiState() != 0;
            },
            std::chrono::seconds(10));
        result["answers_after_read_ms"] = MsSince(start);
        if (!answered) {
            problems.push_back("the camera's answers to RV, RF, RP did not all arrive within 10 s");
            ok = false;
        } else if (camera->BleVersion() != 12 || camera->PowerState() != 'U' || camera->WiFiState() != 'G' ||
                   camera->WiFiFrequency() != "2.4") {
            problems.push_back("the record does not hold the camera's answers: " + camera->ToJson().dump());
            ok = false;
        }
    }
    ok = ok && step("ConfigurePowerState", [&] { return manager.ConfigurePowerState(camera, 'Z', 2); }) &&
         step("WaitForWiFi", [&] { return manager.WaitForWiFi(camera, 20); }) &&
         step("ConfigureWiFiFrequency", [&] { return manager.ConfigureWiFiFrequency(camera, "5.0", 5); });
    result["record"] = camera->ToJson();
    if (ok &&
        (camera->PowerState() != 'Z' || camera->WiFiState() != 'R' || camera->WiFiFrequency() != "5.0")) {
        problems.push_back("the record does not show the configured camera");
    }
    if (subscribed) {
        if (!Connected(mac)) {
            problems.push_back("the camera was no longer connected before Unsubscribe");
        }
        step("Unsubscribe", [&] { return manager.Unsubscribe(camera); });
        if (!WaitFor([&] { return !Connected(mac); }, std::chrono::seconds(5))) {
            problems.push_back("still connected 5 s after Unsubscribe");
        }
    }
    result["new_data_signals"] = newData.load();
    if (newData.load() == 0) {
        problems.push_back("NewData was never emitted");
    }
    return finish();
}
