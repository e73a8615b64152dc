#include "backend/TinybRadio.h"

#include <chrono>
#include <cstdint>
#include <exception>
#include <stdexcept>
#include <type_traits>
#include <utility>

#include "backend/TinybNotifyCharacteristic.h"
#include "logging/Log.h"
#include "tinyb/tinyb.hpp"

namespace Backend {

namespace {

// Every tinyb call of the radio goes through here: an exception of type `Caught` is logged with the
// operation's name and the call yields `failed`; any other exception passes through.
template <typename Caught = std::runtime_error, typename Body>
std::invoke_result_t<Body> Guarded(const char* operation, std::invoke_result_t<Body> failed, Body&& body) {
    try {
        return std::forward<Body>(body)();
    } catch (const Caught& e) {
        Logging::Log(LOG_ERR, "TinyB exception hit in %s: %s", operation, e.what());
        return failed;
    }
}

// The last of `items` whose UUID text contains `uuidPart`.
template <typename T>
std::unique_ptr<T> LastWithUuid(std::vector<std::unique_ptr<T>> items, const std::string& uuidPart) {
    std::unique_ptr<T> found;
    for (auto& item : items) {
        if (item->get_uuid().find(uuidPart) != std::string::npos)
            found = std::move(item);
    }
    return found;
}

}  // namespace

TinybRadio::TinybRadio() : TinybRadio(Loop::SleepFor) {}

TinybRadio::TinybRadio(Loop::Sleeper sleeper) : sleep(std::move(sleeper)) {
    stateRetries = kStateRetries;
    valid = true;
    manager = GetManager();
    if (manager == nullptr) {
        Logging::Log(LOG_ERR, "Could not create manager for TinyB Radio");
        valid = false;
        return;
    }
    // BlueZ is up but has no adapter (yet): the radio is unusable rather than half-built.
    valid = Guarded("GetDefaultAdapter", false, [this] {
        adapter = manager->get_default_adapter();
        return true;
    });
}

TinybRadio::~TinybRadio() = default;

// ---------------------------------------------------------------- adapter switches

bool& TinybRadio::Cached(Switch which) {
    switch (which) {
        case Switch::Powered:
            return powered;
        case Switch::Pairable:
            return pairable;
        case Switch::Discoverable:
            break;
    }
    return discoverable;
}

bool TinybRadio::ReadSwitch(Switch which) {
    bool value = false;
    switch (which) {
        case Switch::Powered:
            value = adapter->get_powered();
            break;
        case Switch::Pairable:
            value = adapter->get_pairable();
            break;
        case Switch::Discoverable:
            value = adapter->get_discoverable();
            break;
    }
    Cached(which) = value;
    return value;
}

void TinybRadio::WriteSwitch(Switch which, bool on) {
    switch (which) {
        case Switch::Powered:
            adapter->set_powered(on);
            break;
        case Switch::Pairable:
            adapter->set_pairable(on);
            break;
        case Switch::Discoverable:
            adapter->set_discoverable(on);
            break;
    }
}

bool TinybRadio::GetSwitch(Switch which, const char* operation) {
    if (!adapter)
        return false;
    return Guarded(operation, false, [&] { return ReadSwitch(which); });
}

bool TinybRadio::SetSwitch(Switch which, bool on, const char* operation) {
    if (!adapter)
        return false;
    return Guarded(operation, false, [&] {
        if (ReadSwitch(which) == on)
            return true;
        WriteSwitch(which, on);
        // BlueZ accepts the change before it applies it: give it a few polls to show up.
        for (int poll = 0; poll < stateRetries; ++poll) {
            const bool state = ReadSwitch(which);
            sleep(std::chrono::milliseconds(kStatePollMs));
            if (state == on)
                break;
        }
        return Cached(which) == on;
    });
}

bool TinybRadio::SetPowered(bool on) {
    return SetSwitch(Switch::Powered, on, "SetPowered");
}
bool TinybRadio::SetPairable(bool on) {
    return SetSwitch(Switch::Pairable, on, "SetPairable");
}
bool TinybRadio::SetDiscoverable(bool on) {
    return SetSwitch(Switch::Discoverable, on, "SetDiscoverable");
}
bool TinybRadio::GetPowered() {
    return GetSwitch(Switch::Powered, "GetPowered");
}
bool TinybRadio::GetPairable() {
    return GetSwitch(Switch::Pairable, "GetPairable");
}
bool TinybRadio::GetDiscoverable() {
    return GetSwitch(Switch::Discoverable, "GetDiscoverable");
}

// ---------------------------------------------------------------- devices

bool TinybRadio::PairDevice(const std::string& mac, bool pair) {
    auto device = GetDevice(mac);
    if (!device) {
        Logging::Log(LOG_ERR, "Could not find device with MAC: %s", mac.c_str());
        return false;
    }
    const bool done =
        Guarded("PairDevice", false, [&] { return pair ? device->pair() : device->remove_device(); });
    if (!done) {
        Logging::Log(
            LOG_ERR,
            pair ? "Could not pair to device with MAC: %s" : "Could not unpair from device with MAC: %s",
            mac.c_str());
    }
    return done;
}

bool TinybRadio::TrustDevice(const std::string& mac, bool trusted) {
    auto device = GetDevice(mac);
    if (!device) {
        Logging::Log(LOG_ERR, "Could not find device with MAC: %s", mac.c_str());
        return false;
    }
    device->set_trusted(trusted);
    return true;
}

bool TinybRadio::ConnectDevice(const std::string& mac, bool connect) {
    auto device = GetDevice(mac);
    if (!device) {
        Logging::Log(LOG_ERR, "Could not find device with MAC: %s", mac.c_str());
        return false;
    }
    const bool done =
        Guarded("ConnectDevice", false, [&] { return connect ? device->connect() : device->disconnect(); });
    if (!done) {
        Logging::Log(LOG_ERR,
                     connect ? "Could not connect to device with MAC: %s"
                             : "Could not disconnect from device with MAC: %s",
                     mac.c_str());
    }
    return done;
}

// ---------------------------------------------------------------- lookups

tinyb::BluetoothManager* TinybRadio::GetManager() {
    return Guarded("GetManager", nullptr, [] { return tinyb::BluetoothManager::get_bluetooth_manager(); });
}

std::unique_ptr<tinyb::BluetoothDevice> TinybRadio::GetDevice(const std::string& mac) {
    tinyb::BluetoothManager* bluetooth = GetManager();
    if (bluetooth == nullptr)
        return nullptr;
    return Guarded("GetDevice", nullptr, [&]() -> std::unique_ptr<tinyb::BluetoothDevice> {
        for (auto& device : bluetooth->get_devices()) {
            if (device->get_address() == mac)
                return std::move(device);
        }
        return nullptr;
    });
}

std::unique_ptr<tinyb::BluetoothGattService> TinybRadio::GetService(tinyb::BluetoothDevice& device,
                                                                    const std::string& uuidPart) {
    return Guarded("GetService", nullptr, [&] { return LastWithUuid(device.get_services(), uuidPart); });
}

std::unique_ptr<tinyb::BluetoothGattCharacteristic> TinybRadio::GetCharacteristic(
    tinyb::BluetoothGattService& service, const std::string& uuidPart) {
    return Guarded("GetCharacteristic", nullptr,
                   [&] { return LastWithUuid(service.get_characteristics(), uuidPart); });
}

std::unique_ptr<tinyb::BluetoothGattService> TinybRadio::GetService(const std::string& mac,
                                                                    const std::string& serviceUuidPart) {
    auto device = GetDevice(mac);
    if (!device)
        return nullptr;
    return GetService(*device, serviceUuidPart);
}

std::unique_ptr<tinyb::BluetoothGattCharacteristic> TinybRadio::GetCharacteristic(
    const std::string& mac, const std::string& serviceUuidPart, const std::string& characteristicUuidPart) {
    auto service = GetService(mac, serviceUuidPart);
    if (!service)
        return nullptr;
    return GetCharacteristic(*service, characteristicUuidPart);
}

// ---------------------------------------------------------------- GATT

bool TinybRadio::ReadCharacteristic(const std::string& mac, const std::string& serviceUuidPart,
                                    const std::string& characteristicUuidPart, std::vector<uint8_t>& out) {
    auto characteristic = GetCharacteristic(mac, serviceUuidPart, characteristicUuidPart);
    if (!characteristic) {
        Logging::Log(LOG_INFO, "Could not get characteristic...");
        return false;
    }
    return Guarded<std::exception>("ReadCharacteristic", false, [&] {
        out = characteristic->read_value(0);
        return true;
    });
}

bool TinybRadio::WriteCharacteristic(const std::string& mac, const std::string& serviceUuidPart,
                                     const std::string& characteristicUuidPart,
                                     const std::vector<uint8_t>& value, int delayMs) {
    auto characteristic = GetCharacteristic(mac, serviceUuidPart, characteristicUuidPart);
    if (!characteristic) {
        Logging::Log(LOG_INFO, "Could not get characteristic...");
        return false;
    }
    const bool written = Guarded<std::exception>("WriteCharacteristic", false,
                                                 [&] { return characteristic->write_value(value, 0); });
    if (written && delayMs > 0)
        sleep(std::chrono::milliseconds(delayMs));
    return written;
}

std::unique_ptr<NotifyCharacteristic> TinybRadio::GetNotifyCharacteristic(
    const std::string& mac, const std::string& serviceUuidPart, const std::string& characteristicUuidPart) {
    auto characteristic = GetCharacteristic(mac, serviceUuidPart, characteristicUuidPart);
    if (!characteristic)
        return nullptr;
    return std::make_unique<TinybNotifyCharacteristic>(std::move(characteristic));
}

bool TinybRadio::WaitForServiceDiscovery(const std::string& mac, unsigned timeoutSeconds) {
    auto device = GetDevice(mac);
    if (!device)
        return false;
    // The device may go away while we wait.
    return Guarded("WaitForServiceDiscovery", false, [&] {
        if (!device->get_connected())
            return false;
        const uint64_t polls = 4ull * timeoutSeconds;
        for (uint64_t poll = 0; poll < polls; ++poll) {
            if (device->get_services_resolved()) {
                Logging::Log(LOG_INFO, "%s: Service discovery done!", "WaitForServiceDiscovery");
                return true;
            }
            sleep(std::chrono::milliseconds(kServiceDiscoveryPollMs));
        }
        return false;
    });
}

}  // namespace Backend
