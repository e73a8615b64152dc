// Runs scan passes through Backend::TinybScanner and prints what the scanner knows after each pass.
//
//   backend_scan_demo [--passes N] [--interval-ms MS] [--quiet]
//
// stdout: per pass a line "# pass <n>: Scan() = <result>, <count> device(s)", one line
// "# new remote camera: <json>" per announcement, then the device list as a JSON array (indented).
// stderr: the scanner's log (unless --quiet). Works against whatever BlueZ the system bus offers; the
// scan-demo script beside it runs it inside the hermetic unit with simulated devices.

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>

#include "backend/TinybScanner.h"
#include "logging/Log.h"
#include "scanned_device/ScannedDevice.h"

namespace {

int Usage() {
    std::fprintf(stderr, "usage: backend_scan_demo [--passes N] [--interval-ms MS] [--quiet]\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    int passes = 1;
    int intervalMs = 1000;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--passes") == 0 && i + 1 < argc) {
            passes = std::atoi(argv[++i]);
        } else if (std::strcmp(argv[i], "--interval-ms") == 0 && i + 1 < argc) {
            intervalMs = std::atoi(argv[++i]);
        } else if (std::strcmp(argv[i], "--quiet") == 0) {
            Logging::SetStderrEcho(false);
        } else {
            return Usage();
        }
    }
    if (passes < 1 || intervalMs < 0)
        return Usage();

    Backend::TinybScanner scanner;
    if (!scanner.IsUsable()) {
        std::fprintf(stderr, "no BlueZ to scan with\n");
        return 1;
    }
    scanner.NewRemoteCamera().connect(
        [](const std::string& json) { std::printf("# new remote camera: %s\n", json.c_str()); });

    for (int pass = 1; pass <= passes; ++pass) {
        int result = 0;
        try {
            result = scanner.Scan();
        } catch (const std::exception& e) {
            std::printf("# pass %d: abandoned: %s\n", pass, e.what());
            std::fflush(stdout);
            return 1;
        }
        nlohmann::json list = nlohmann::json::array();
        for (const auto& device : scanner.Devices())
            list.push_back(device->ToJson());
        std::printf("# pass %d: Scan() = %d, %zu device(s)\n%s\n", pass, result, scanner.Devices().size(),
                    list.dump(2).c_str());
        std::fflush(stdout);
        if (pass < passes)
            std::this_thread::sleep_for(std::chrono::milliseconds(intervalMs));
    }
    return 0;
}
