#include "backend/TinybScanner.h"

#include <stdexcept>
#include <unordered_set>

#include "backend/TinybRadio.h"
#include "logging/Log.h"
#include "scanned_device/Json.h"
#include "scanned_device/RemoteCamera.h"
#include "scanned_device/ScannedDevice.h"
#include "tinyb/tinyb.hpp"

namespace Backend {

TinybScanner::TinybScanner() {
    valid = true;
    manager = TinybRadio::GetManager();
    if (manager == nullptr) {
        Logging::Log(LOG_ERR, "Could not create manager for TinyB Scanner");
        valid = false;
    }
}

TinybScanner::~TinybScanner() = default;

std::shared_ptr<ScannedDevice::Base> TinybScanner::MakeScannedDevice(tinyb::BluetoothDevice& device) {
    std::shared_ptr<ScannedDevice::Base> scanned =
        ScannedDevice::FromManufacturerData(device.get_manufacturer_data());
    scanned->SetRssi(device.get_rssi());
    scanned->SetName(device.get_name());
    scanned->SetPaired(device.get_paired());
    scanned->SetMac(device.get_address());
    scanned->SetClass(device.get_class());
    scanned->DeriveClassName();
    return scanned;
}

bool TinybScanner::StartDiscovery() {
    try {
        manager->start_discovery();
    } catch (const std::runtime_error& e) {
        Logging::Log(LOG_ERR, "Error while discovering device in libtinyb: %s", e.what());
        return false;
    }
    return true;
}

std::vector<std::unique_ptr<tinyb::BluetoothDevice>> TinybScanner::FetchDevices() {
    try {
        return manager->get_devices();
    } catch (const std::runtime_error& e) {
        Logging::Log(LOG_ERR, "Error while getting device list in libtinyb: %s", e.what());
        return {};
    }
}

bool TinybScanner::StopDiscovery() {
    try {
        manager->stop_discovery();
    } catch (const std::runtime_error& e) {
        Logging::Log(LOG_ERR, "Error while stopping discovery of devices in libtinyb: %s", e.what());
        return false;
    }
    return true;
}

void TinybScanner::Register(tinyb::BluetoothDevice& device, AddressIndex& known) {
    std::shared_ptr<ScannedDevice::Base> candidate = MakeScannedDevice(device);
    const auto found = known.find(candidate->Mac());
    if (found != known.end()) {
        // Known by address: only its credit is renewed; what was decoded at first sight stays.
        found->second->SetMissCredit(kMissCredit);
        found->second->SetSeen(true);
        return;
    }
    candidate->SetMissCredit(kMissCredit);
    candidate->SetSeen(true);
    {
        std::lock_guard<std::mutex> lock(devicesMutex);
        devices.push_back(candidate);
    }
    known.emplace(candidate->Mac(), candidate.get());
    Logging::Log(LOG_INFO, "**NEW** Device Discovered:");
    if (candidate->Type() == ScannedDevice::kRemoteCameraType)
        newRemoteCamera.emit(ScannedDevice::DumpJson(candidate->ToJson()));
    Logging::Log(LOG_INFO, "Device Name: %s", candidate->Name().c_str());
    Logging::Log(LOG_INFO, "Device Mac:  %s", candidate->Mac().c_str());
    Logging::Log(LOG_INFO, "Device RSSI: %d", static_cast<int>(candidate->Rssi()));
    Logging::Log(LOG_INFO, "Device Type: %d (%s)", static_cast<int>(candidate->Type()),
                 candidate->TypeName().c_str());
}

void TinybScanner::Age(const std::vector<std::unique_ptr<tinyb::BluetoothDevice>>& present) {
    // Presence is judged by name here, although Register() matched by address: both keys are deliberate.
    std::unordered_set<std::string> names;
    names.reserve(present.size());
    for (const auto& device : present) {
        try {
            names.insert(device->get_name());
        } catch (const tinyb::BluetoothException& e) {
            // BlueZ dropped the device since the list was fetched: it counts as absent.
            Logging::Log(LOG_ERR, "TinyB exception hit in %s: %s", "Scan", e.what());
        }
    }
    for (auto entry = devices.begin(); entry != devices.end();) {
        if (names.count((*entry)->Name()) != 0) {
            ++entry;
        } else if ((*entry)->MissCredit() < 1) {
            Logging::Log(LOG_WARNING, "[SCAN] removing {%s} from internal list as it seems to be unavailable",
                         (*entry)->Name().c_str());
            std::lock_guard<std::mutex> lock(devicesMutex);
            entry = devices.erase(entry);
        } else {
            (*entry)->SetMissCredit((*entry)->MissCredit() - 1);
            ++entry;
        }
    }
}

int TinybScanner::Scan() {
    if (manager == nullptr)
        return -1;
    int result = 0;
    if (!StartDiscovery())
        result = -1;
    // No wait after starting: the pass works on BlueZ's current device cache.
    std::vector<std::unique_ptr<tinyb::BluetoothDevice>> listed = FetchDevices();
    AddressIndex known;
    known.reserve(devices.size() + listed.size());
    for (const auto& device : devices)
        known.emplace(device->Mac(), device.get());
    for (const auto& device : listed) {
        try {
            Register(*device, known);
        } catch (const tinyb::BluetoothException& e) {
            // The device vanished while it was being read; it will be judged by the ageing step.
            Logging::Log(LOG_ERR, "TinyB exception hit in %s: %s", "Scan", e.what());
        }
    }
    if (!StopDiscovery())
        result = -1;
    Age(listed);
    return result;
}

TinybScanner::DeviceList TinybScanner::Devices() const {
    std::lock_guard<std::mutex> lock(devicesMutex);
    return devices;
}

int TinybScanner::ForgetAllDevices() {
    if (manager == nullptr)
        return -1;
    int result = 0;
    if (!StartDiscovery())
        result = -1;
    std::vector<std::unique_ptr<tinyb::BluetoothDevice>> listed = FetchDevices();
    if (!StopDiscovery())
        result = -1;
    for (const auto& device : listed) {
        try {
            device->remove_device();
        } catch (const std::runtime_error& e) {
            Logging::Log(LOG_ERR, "TinyB exception hit in %s: %s", "ForgetAllDevices", e.what());
        }
    }
    return result;
}

}  // namespace Backend
