// Runs inside the e2e VM: TinybScanner passes through real bluetoothd on hci0, as the auto-scan task
// runs them, until the remote camera played by the peer on hci1 is in the scanner's list; then one
// more pass, which must keep it and not announce it again. Checks the camera's record and the JSON
// announced for it, and prints one RESULT line (JSON) for the scenario script.
//
//   e2e_scan_driver --camera <address> [--passes N] [--gap-ms M]

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "backend/TinybScanner.h"
#include "scanned_device/RemoteCamera.h"
#include "scanned_device/ScannedDevice.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Options {
    std::string camera;
    int passes = 25;
    int gapMs = 1000;
};

Options Parse(int argc, char** argv) {
    Options options;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--camera") == 0) {
            options.camera = argv[i + 1];
        } else if (std::strcmp(argv[i], "--passes") == 0) {
            options.passes = std::atoi(argv[i + 1]);
        } else if (std::strcmp(argv[i], "--gap-ms") == 0) {
            options.gapMs = std::atoi(argv[i + 1]);
        }
    }
    return options;
}

std::shared_ptr<ScannedDevice::Base> Find(const Backend::TinybScanner& scanner, const std::string& mac) {
    for (const auto& device : scanner.Devices()) {
        if (device->Mac() == mac) {
            return device;
        }
    }
    return nullptr;
}

void Expect(std::vector<std::string>& problems, bool condition, const std::string& what) {
    if (!condition) {
        problems.push_back(what);
    }
}

}  // namespace

int main(int argc, char** argv) {
    const Options options = Parse(argc, argv);
    nlohmann::json result;
    std::vector<std::string> problems;
    if (options.camera.empty()) {
        std::fprintf(stderr, "usage: %s --camera <address> [--passes N] [--gap-ms M]\n", argv[0]);
        return 2;
    }

    Backend::TinybScanner scanner;
    if (!scanner.IsUsable()) {
        result["ok"] = false;
        result["problems"] = {"the scanner could not reach BlueZ"};
        std::printf("RESULT %s\n", result.dump().c_str());
        return 1;
    }
    std::vector<std::string> announced;
    scanner.NewRemoteCamera().connect([&announced](const std::string& json) { announced.push_back(json); });

    const auto t0 = Clock::now();
    auto sinceStart = [&t0] {
        return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t0).count();
    };
    nlohmann::json passes = nlohmann::json::array();
    int foundAtPass = 0;
    for (int pass = 1; pass <= options.passes; ++pass) {
        const auto passStart = Clock::now();
        const int rc = scanner.Scan();
        const auto passMs =
            std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - passStart).count();
        passes.push_back({{"pass", pass}, {"rc", rc}, {"ms", passMs}, {"devices", scanner.Devices().size()}});
        std::printf("pass %d: rc %d, %lld ms, %zu devices\n", pass, rc, static_cast<long long>(passMs),
                    scanner.Devices().size());
        std::fflush(stdout);
        Expect(problems, rc == 0, "pass " + std::to_string(pass) + " returned " + std::to_string(rc));
        if (foundAtPass != 0) {
            break;  // the pass after the discovery
        }
        if (Find(scanner, options.camera)) {
            foundAtPass = pass;
            result["found_after_ms"] = sinceStart();
            continue;  // one more pass at once
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(options.gapMs));
    }
    result["passes"] = passes;
    result["found_at_pass"] = foundAtPass;

    const auto camera = Find(scanner, options.camera);
    Expect(problems, camera != nullptr, "the camera " + options.camera + " never entered the scanner's list");
    if (camera) {
        const nlohmann::json record = camera->ToJson();
        result["record"] = record;
        Expect(problems, camera->Type() == ScannedDevice::kRemoteCameraType,
               "the camera is not a RemoteCamera");
        Expect(problems, dynamic_cast<ScannedDevice::RemoteCamera*>(camera.get()) != nullptr,
               "the record is not a ScannedDevice::RemoteCamera");
        Expect(problems, record.value("name", "") == "KelpE2E", "name is not the advertised local name");
        const auto& info = record.value("remote-cam-info", nlohmann::json::object());
        Expect(problems, info.value("/deviceType/number"_json_pointer, 0u) == 7u, "deviceType is not 7");
        Expect(problems, info.value("/deviceType/string"_json_pointer, std::string()) == "KelpCam",
               "deviceType name is not KelpCam");
        Expect(problems, info.value("/batteryStatus/number"_json_pointer, 0u) == 2u,
               "batteryStatus is not 2");
        Expect(problems, info.value("/ipAddress/number"_json_pointer, 0u) == 335653056u,
               "ipAddress number is not 0x1401A8C0");
        Expect(problems, info.value("/ipAddress/string"_json_pointer, std::string()) == "192.168.1.20",
               "ipAddress text is not 192.168.1.20");
        Expect(problems, info.value("ssid", "") == "KelpAP", "ssid is not KelpAP");
        std::vector<std::string> forCamera;
        for (const auto& text : announced) {
            if (nlohmann::json::parse(text).value("mac", "") == options.camera) {
                forCamera.push_back(text);
            }
        }
        Expect(problems, forCamera.size() == 1,
               "the camera was announced " + std::to_string(forCamera.size()) + " times, not once");
        if (!forCamera.empty()) {
            Expect(problems, forCamera.front() == record.dump(),
                   "the announced JSON differs from the record's");
        }
    }
    result["announced"] = announced.size();
    result["problems"] = problems;
    result["ok"] = problems.empty();
    std::printf("RESULT %s\n", result.dump().c_str());
    return problems.empty() ? 0 : 1;
}
