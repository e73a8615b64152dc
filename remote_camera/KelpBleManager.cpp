#include "remote_camera/KelpBleManager.h"

#include <cstdint>
#include <utility>

#include "logging/Log.h"
#include "remote_camera/CameraProtocol.h"
#include "scanned_device/Json.h"
#include "scanned_device/RemoteCamera.h"
#include "vocabulary/Vocabulary.h"

namespace {

bool IsAnswer(const std::vector<uint8_t>& value) {
    return CameraProtocol::IsVersionAnswer(value) || CameraProtocol::IsWiFiAnswer(value) ||
           CameraProtocol::IsPowerAnswer(value);
}

}  // namespace

KelpBleManager::KelpBleManager(std::shared_ptr<Backend::Radio> radio, Sleeper sleep, Deliver deliver)
    : radio(std::move(radio)), sleep(std::move(sleep)), notifier(std::make_shared<Notifier>()) {
    notifier->deliver = std::move(deliver);
}

KelpBleManager::~KelpBleManager() = default;

bool KelpBleManager::IsRemoteCamera(const std::shared_ptr<ScannedDevice::Base>& device) {
    const auto* camera = dynamic_cast<const ScannedDevice::RemoteCamera*>(device.get());
    return camera != nullptr && camera->DeviceType() == kRemoteCameraDeviceType;
}

bool KelpBleManager::WriteCommand(const std::string& mac, const std::vector<uint8_t>& command) {
    return radio &&
           radio->WriteCharacteristic(mac, kServiceUuidPart, kCommandUuidPart, command, kWriteDelayMs);
}

bool KelpBleManager::Subscribe(const std::shared_ptr<ScannedDevice::RemoteCamera>& device) {
    if (!IsRemoteCamera(device))
        return false;
    const std::string mac = device->Mac();
    if (!radio || !radio->ConnectDevice(mac, true))
        return false;
    if (!radio->WaitForServiceDiscovery(mac, kServiceDiscoverySeconds))
        return false;
    auto characteristic = radio->GetNotifyCharacteristic(mac, kServiceUuidPart, kAnswerUuidPart);
    if (!characteristic)
        return false;

    auto entry = std::make_shared<Subscription>();
    entry->characteristic = std::move(characteristic);
    std::weak_ptr<Notifier> weakNotifier = notifier;
    entry->notified.connect([camera = device, weakNotifier](std::vector<uint8_t>& value) {
        CameraProtocol::OnNotification(*camera, value);
        if (!IsAnswer(value))
            return;
        auto alive = weakNotifier.lock();
        if (!alive)
            return;
        // the document as it is now: a later answer must not show up in this one's emission
        std::string json = ScannedDevice::DumpJson(camera->ToJson());
        if (!alive->deliver) {
            alive->newData.emit(json);
            return;
        }
        alive->deliver([weakNotifier, json = std::move(json)] {
            if (auto stillAlive = weakNotifier.lock())
                stillAlive->newData.emit(json);
        });
    });

    std::shared_ptr<Subscription> subscribed;
    {
        std::lock_guard<std::mutex> lock(subscriptionsMutex);
        subscriptions.insert_or_assign(mac, entry);
        subscribed = subscriptions.at(mac);
    }
    // Only a live entry routes values: after Unsubscribe a late notification finds nothing.
    std::weak_ptr<Subscription> weakEntry = subscribed;
    return subscribed->characteristic->EnableNotifications([weakEntry](std::vector<uint8_t>& value) {
        if (auto alive = weakEntry.lock())
            alive->notified.emit(value);
    });
}

bool KelpBleManager::Unsubscribe(const std::shared_ptr<ScannedDevice::RemoteCamera>& device) {
    const std::string mac = device ? device->Mac() : std::string();
    std::shared_ptr<Subscription> entry;
    {
        std::lock_guard<std::mutex> lock(subscriptionsMutex);
        entry = subscriptions.at(mac);
    }
    if (entry->characteristic->IsNotifying())
        entry->characteristic->DisableNotifications();
    {
        std::lock_guard<std::mutex> lock(subscriptionsMutex);
        subscriptions.erase(mac);
    }
    // An entry exists only through Subscribe, so the radio is there.
    return radio->ConnectDevice(mac, false);
}

bool KelpBleManager::ReadBleInfo(const std::shared_ptr<ScannedDevice::RemoteCamera>& device,
                                 std::string& json) {
    if (!IsRemoteCamera(device))
        return false;
    const std::string& mac = device->Mac();
    // All three go out even when one fails; the answers arrive later, by notification.
    bool written = WriteCommand(mac, CameraProtocol::ReadVersionCommand());
    written = WriteCommand(mac, CameraProtocol::ReadWiFiCommand()) && written;
    written = WriteCommand(mac, CameraProtocol::ReadPowerCommand()) && written;
    if (!written)
        return false;
    json = ScannedDevice::DumpJson(device->ToJson());
    return true;
}

bool KelpBleManager::ConfigurePowerState(const std::shared_ptr<ScannedDevice::RemoteCamera>& device,
                                         uint8_t letter, int seconds) {
    if (!IsRemoteCamera(device))
        return false;
    if (!WriteCommand(device->Mac(), CameraProtocol::WritePowerCommand(letter)))
        return false;
    for (int64_t n = seconds < 0 ? 0 : seconds;; --n) {
        if (n == 0 || device->PowerState() == letter)
            break;
        sleep(kPowerPoll);
    }
    return device->PowerState() == letter;
}

bool KelpBleManager::ConfigureWiFiFrequency(const std::shared_ptr<ScannedDevice::RemoteCamera>& device,
                                            const std::string& frequency, int seconds) {
    if (!IsRemoteCamera(device))
        return false;
    if (!WriteCommand(device->Mac(), CameraProtocol::WriteWiFiCommand(frequency)))
        return false;
    for (int64_t n = seconds < 0 ? 0 : 10 * int64_t{seconds};; --n) {
        if (device->WiFiFrequency() == frequency && device->WiFiState() != 'B')
            break;
        if (n == 0)
            break;
        sleep(kWiFiFrequencyPoll);
    }
    return device->WiFiFrequency() == frequency && device->WiFiState() == 'R';
}

bool KelpBleManager::WaitForWiFi(const std::shared_ptr<ScannedDevice::RemoteCamera>& device, int seconds) {
    if (IsRemoteCamera(device)) {
        Logging::Log(LOG_INFO, "Current wifi state is: %c", static_cast<int>(device->WiFiState()));
        for (int64_t n = seconds < 0 ? 0 : seconds;; --n) {
            const uint8_t state = device->WiFiState();
            if ((state != 'G' && state != 'B') || n == 0)
                break;
            Logging::Log(LOG_INFO, "Waiting for wifi available... state = %c", static_cast<int>(state));
            sleep(kWiFiPoll);
        }
        const uint8_t state = device->WiFiState();
        if (state == 'R' || state == 'C') {
            Logging::Log(LOG_INFO, "Kelp WiFi Ready to Connect!");
            return true;
        }
    }
    Logging::Log(LOG_ERR, "Kelp WiFi is still not ready after %d seconds", seconds);
    return false;
}
