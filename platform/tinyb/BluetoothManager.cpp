#include "tinyb/BluetoothManager.hpp"

#include <mutex>

#include "Core.h"
#include "tinyb/BluetoothAdapter.hpp"
#include "tinyb/BluetoothDevice.hpp"

namespace tinyb {

namespace {

std::mutex g_singletonMutex;
// Deliberately never destroyed: the library thread serves callers until the process ends, and no static
// destructor may race with it.
BluetoothManager* g_manager = nullptr;

std::string DefaultAdapterPath(detail::Core& core) {
    auto adapters = core.Adapters();
    return adapters.empty() ? std::string() : adapters.front();
}

std::string RequireDefaultAdapter(detail::Core& core) {
    std::string path = DefaultAdapterPath(core);
    if (path.empty())
        throw BluetoothException("org.bluez.Error.NotReady", "BlueZ has no adapter");
    return path;
}

}  // namespace

BluetoothManager::BluetoothManager(std::shared_ptr<detail::Core> shared) : core(std::move(shared)) {}

BluetoothManager* BluetoothManager::get_bluetooth_manager() {
    std::lock_guard<std::mutex> lock(g_singletonMutex);
    if (g_manager == nullptr)
        g_manager = new BluetoothManager(detail::Core::Start());
    return g_manager;
}

std::unique_ptr<BluetoothAdapter> BluetoothManager::get_default_adapter() {
    return std::make_unique<BluetoothAdapter>(core, RequireDefaultAdapter(*core));
}

std::vector<std::unique_ptr<BluetoothAdapter>> BluetoothManager::get_adapters() {
    std::vector<std::unique_ptr<BluetoothAdapter>> adapters;
    for (auto& path : core->Adapters())
        adapters.push_back(std::make_unique<BluetoothAdapter>(core, std::move(path)));
    return adapters;
}

std::vector<std::unique_ptr<BluetoothDevice>> BluetoothManager::get_devices() {
    std::vector<std::unique_ptr<BluetoothDevice>> devices;
    const std::string adapter = DefaultAdapterPath(*core);
    if (adapter.empty())
        return devices;
    auto children = core->Children(detail::kDeviceAdapter, adapter);
    devices.reserve(children.size());
    for (auto& child : children) {
        devices.push_back(
            std::make_unique<BluetoothDevice>(core, std::move(child.path), std::move(child.object)));
    }
    return devices;
}

bool BluetoothManager::start_discovery() {
    return core->StartDiscovery(RequireDefaultAdapter(*core));
}

bool BluetoothManager::stop_discovery() {
    return core->StopDiscovery(RequireDefaultAdapter(*core));
}

bool BluetoothManager::get_discovering() {
    const std::string adapter = DefaultAdapterPath(*core);
    return !adapter.empty() && core->DiscoverySession(adapter);
}

uint64_t BluetoothManager::get_method_call_count() {
    return detail::g_methodCalls.load(std::memory_order_relaxed);
}

}  // namespace tinyb
