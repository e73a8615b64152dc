// One scan pass through the BlueZ client, as the scanner runs it: start discovery, list the devices,
// read each device's manufacturer data, RSSI, name, paired flag, address and class, stop discovery.
// Runs against the simulated BlueZ of the hermetic unit (tests/bench/run-bench), over 10, 100 and 1,000
// devices. Wall time, CPU time of the whole process (library thread included), method calls sent to
// BlueZ per pass and the process's peak RSS.

#include <benchmark/benchmark.h>

#include <chrono>
#include <fstream>
#include <string>
#include <thread>

#include "BluezSimControl.h"
#include "test_support/TestEnv.h"
#include "tinyb/tinyb.hpp"

namespace {

// Brings the simulated adapter to `count` bench devices (sizes only grow between runs).
void EnsureDevices(tinyb::BluetoothManager& manager, size_t count) {
    const size_t known = manager.get_devices().size();
    if (known < count) {
        BluezSim::Control sim;
        BluezSim::DeviceProps props;
        props.name = "bench";
        props.rssi = -61;
        props.deviceClass = 0x000918;
        // a V4 scan-response payload's size
        props.manufacturerData = {{1523, {0x00, 0x01, 0x04, 0x07, 0x02, 0x00, 0x51, 0x42, 0x30, 0x30,
                                          0x30, 0x31, 0x32, 0x33, 0x34, 0x35, 0xC0, 0xA8, 0x01, 0x0A}}};
        sim.AddDevices(static_cast<uint32_t>(count - known), props);
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (manager.get_devices().size() < count && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

// Peak RSS of this process image in KiB. Not getrusage(): its ru_maxrss keeps the peak of the image that
// exec'd us (the Python harness).
double PeakRssKiB() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmHWM:", 0) == 0)
            return std::stod(line.substr(6));
    }
    return 0;
}

size_t ScanPass(tinyb::BluetoothManager& manager) {
    manager.start_discovery();
    auto devices = manager.get_devices();
    for (auto& device : devices) {
        auto data = device->get_manufacturer_data();
        benchmark::DoNotOptimize(data);
        benchmark::DoNotOptimize(device->get_rssi());
        auto name = device->get_name();
        benchmark::DoNotOptimize(name);
        benchmark::DoNotOptimize(device->get_paired());
        auto address = device->get_address();
        benchmark::DoNotOptimize(address);
        benchmark::DoNotOptimize(device->get_class());
    }
    manager.stop_discovery();
    return devices.size();
}

void BM_ScanPass(benchmark::State& state) {
    if (!TestSupport::InHarness()) {
        state.SkipWithError("run inside the hermetic unit: tests/bench/run-bench");
        return;
    }
    auto* manager = tinyb::BluetoothManager::get_bluetooth_manager();
    const auto count = static_cast<size_t>(state.range(0));
    EnsureDevices(*manager, count);
    for (int i = 0; i < 3; ++i)
        ScanPass(*manager);  // warm-up

    const uint64_t callsBefore = tinyb::BluetoothManager::get_method_call_count();
    size_t seen = 0;
    for (auto _ : state)
        seen = ScanPass(*manager);
    const uint64_t calls = tinyb::BluetoothManager::get_method_call_count() - callsBefore;

    state.counters["devices"] = static_cast<double>(seen);
    state.counters["calls_per_pass"] = static_cast<double>(calls) / static_cast<double>(state.iterations());
    state.counters["peak_rss_MiB"] = PeakRssKiB() / 1024.0;
    if (seen != count)
        state.SkipWithError("the simulated BlueZ did not list every device");
}

BENCHMARK(BM_ScanPass)
    ->Arg(10)
    ->Arg(100)
    ->Arg(1000)
    ->UseRealTime()
    ->MeasureProcessCPUTime()
    ->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
