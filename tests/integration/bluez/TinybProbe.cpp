// A line-driven client for tests that restart the simulated BlueZ under a running process.
// Commands on stdin, one answer line each on stdout:
//   devices   -> the default adapter's device addresses, comma-separated ("" when none)
//   adapter   -> the default adapter's object path, or "error: <text>"
//   calls     -> the number of method calls sent to BlueZ
// The manager is made once at start; "ready" is printed then (or "error: <text>" and exit 1).

#include <iostream>
#include <string>

#include "logging/Log.h"
#include "tinyb/tinyb.hpp"

int main() {
    Logging::SetStderrEcho(false);
    tinyb::BluetoothManager* manager = nullptr;
    try {
        manager = tinyb::BluetoothManager::get_bluetooth_manager();
    } catch (const tinyb::BluetoothException& e) {
        std::cout << "error: " << e.what() << std::endl;
        return 1;
    }
    std::cout << "ready" << std::endl;
    std::string line;
    while (std::getline(std::cin, line)) {
        try {
            if (line == "devices") {
                std::string text;
                for (auto& device : manager->get_devices()) {
                    text += (text.empty() ? "" : ",") + device->get_address();
                }
                std::cout << text << std::endl;
            } else if (line == "adapter") {
                std::cout << manager->get_default_adapter()->get_object_path() << std::endl;
            } else if (line == "calls") {
                std::cout << tinyb::BluetoothManager::get_method_call_count() << std::endl;
            } else {
                std::cout << "error: unknown command" << std::endl;
            }
        } catch (const tinyb::BluetoothException& e) {
            std::cout << "error: " << e.what() << std::endl;
        }
    }
    return 0;
}
