// Runs inside the e2e VM: one adapter switch of TinybRadio on hci0 through real bluetoothd, as the
// controller applies a setting. Prints one RESULT line (JSON) for the scenario script, which checks
// BlueZ's own view of the adapter afterwards.
//
//   e2e_radio_driver <Powered|Pairable|Discoverable> <0|1>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>
#include <string>

#include "backend/TinybRadio.h"

int main(int argc, char** argv) {
    if (argc != 3 || (std::strcmp(argv[2], "0") != 0 && std::strcmp(argv[2], "1") != 0)) {
        std::fprintf(stderr, "usage: %s <Powered|Pairable|Discoverable> <0|1>\n", argv[0]);
        return 2;
    }
    const std::string which = argv[1];
    const bool wanted = std::strcmp(argv[2], "1") == 0;
    bool (Backend::TinybRadio::*set)(bool) = nullptr;
    bool (Backend::TinybRadio::*get)() = nullptr;
    if (which == "Powered") {
        set = &Backend::TinybRadio::SetPowered;
        get = &Backend::TinybRadio::GetPowered;
    } else if (which == "Pairable") {
        set = &Backend::TinybRadio::SetPairable;
        get = &Backend::TinybRadio::GetPairable;
    } else if (which == "Discoverable") {
        set = &Backend::TinybRadio::SetDiscoverable;
        get = &Backend::TinybRadio::GetDiscoverable;
    } else {
        std::fprintf(stderr, "unknown switch %s\n", which.c_str());
        return 2;
    }

    nlohmann::json result{{"switch", which}, {"wanted", wanted}};
    Backend::TinybRadio radio;
    if (!radio.IsUsable()) {
        result["ok"] = false;
        result["problem"] = "the radio could not reach BlueZ";
        std::printf("RESULT %s\n", result.dump().c_str());
        return 1;
    }
    const bool before = (radio.*get)();
    const auto t0 = std::chrono::steady_clock::now();
    const bool returned = (radio.*set)(wanted);
    const auto ms =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0).count();
    const bool after = (radio.*get)();
    result["before"] = before;
    result["returned"] = returned;
    result["after"] = after;
    result["ms"] = ms;
    result["ok"] = returned && after == wanted;
    std::printf("RESULT %s\n", result.dump().c_str());
    return result["ok"].get<bool>() ? 0 : 1;
}
