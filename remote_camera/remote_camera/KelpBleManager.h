#pragma once
// Drives a remote camera ("KelpCam", device type 7) over its GATT service: subscribes to its answers,
// asks for its state, switches its power and Wi-Fi band, and waits for its access point. Commands go to
// the "fdea0001" characteristic; the camera answers whenever it likes by notification on "fdea0002", and
// CameraProtocol::OnNotification stores each answer in the camera's record. So every outcome is learnt by
// polling that record, with plain sleeps on the calling (worker) thread.
//
// Threads: the operations run on a worker thread; notifications arrive on the BLE library's thread. The
// subscription map is guarded by a mutex that is never held across a radio call; a notification reaches
// the record through its own subscription entry, never through the map, and is dropped once the entry is
// gone. The record's state letters are atomic and its frequency guarded (ScannedDevice::RemoteCamera).

#include <sigc++/sigc++.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "backend/Radio.h"
#include "loop/Sleep.h"

namespace ScannedDevice {
class Base;
class RemoteCamera;
}  // namespace ScannedDevice

class KelpBleManager {
  public:
    // Waits of the polling loops. Production sleeps for real, restarting after signal interruptions.
    using Sleeper = Loop::Sleeper;
    // Carries the camera's JSON document (ScannedDevice::RemoteCamera::ToJson, compact).
    using NewDataSignal = sigc::signal<void(const std::string&)>;
    // Runs a task on the thread that should see NewData (the daemon posts it to its loop); null runs it
    // at once, on the BLE library's thread.
    using Deliver = std::function<void(std::function<void()>)>;

    static constexpr const char* kServiceUuidPart = "fdeafdea";
    static constexpr const char* kCommandUuidPart = "fdea0001";
    static constexpr const char* kAnswerUuidPart = "fdea0002";
    // Held after every command so that the camera can act before the next one.
    static constexpr int kWriteDelayMs = 100;
    static constexpr unsigned kServiceDiscoverySeconds = 7;
    static constexpr std::chrono::milliseconds kPowerPoll{1000};
    static constexpr std::chrono::milliseconds kWiFiFrequencyPoll{250};
    static constexpr std::chrono::milliseconds kWiFiPoll{1000};

    // Over the daemon's radio, which carries the connections and the GATT operations; with a null radio
    // nothing reaches a camera. `sleep` replaces the real sleeps (tests count them instead of waiting);
    // `deliver` carries each NewData emission to its thread, in the order the answers arrived.
    explicit KelpBleManager(std::shared_ptr<Backend::Radio> radio, Sleeper sleep = Loop::SleepFor,
                            Deliver deliver = nullptr);
    ~KelpBleManager();
    KelpBleManager(const KelpBleManager&) = delete;
    KelpBleManager& operator=(const KelpBleManager&) = delete;

    // True for a ScannedDevice::RemoteCamera whose device type is kRemoteCameraDeviceType (7). Every
    // operation but Unsubscribe serves only such devices and returns false for any other without touching
    // the radio.
    static bool IsRemoteCamera(const std::shared_ptr<ScannedDevice::Base>& device);

    // Connects, waits for service discovery (7 s), and routes the camera's notifications to its record.
    // True when notifications are on. A camera subscribed again replaces its earlier entry.
    bool Subscribe(const std::shared_ptr<ScannedDevice::RemoteCamera>& device);
    // By address alone: switches notifications off when they are on, forgets the entry and disconnects;
    // the disconnection's result. An address that is not subscribed throws std::out_of_range ("map::at").
    bool Unsubscribe(const std::shared_ptr<ScannedDevice::RemoteCamera>& device);
    // Writes "RV\r", "RF\r", "RP\r" (all three, in that order) without waiting for the answers. When
    // every write succeeded, `json` receives the camera's document as it stands and the result is true.
    bool ReadBleInfo(const std::shared_ptr<ScannedDevice::RemoteCamera>& device, std::string& json);
    // Sends the power command, then checks the stored power state up to `seconds` + 1 times, one second
    // apart (once, without sleeping, for 0). True when it equals `letter`.
    bool ConfigurePowerState(const std::shared_ptr<ScannedDevice::RemoteCamera>& device, uint8_t letter,
                             int seconds);
    // Sends the frequency command, then polls every 250 ms, 10 x `seconds` times at most, until the
    // stored frequency matches and the camera is no longer booting. True only for the frequency in state
    // 'R': 'C' counts as failure here, on purpose.
    bool ConfigureWiFiFrequency(const std::shared_ptr<ScannedDevice::RemoteCamera>& device,
                                const std::string& frequency, int seconds);
    // Sends nothing, on purpose: watches the state that the camera notifies by itself, once a second for
    // `seconds` at most, while it is 'G' or 'B'. True for 'R' or 'C'.
    bool WaitForWiFi(const std::shared_ptr<ScannedDevice::RemoteCamera>& device, int seconds);

    // Emitted after each notified answer (version, Wi-Fi or power) has been stored, with the camera's
    // JSON document as it stood then, through `deliver` (on the BLE library's thread without one).
    // Empty and unknown values emit nothing. Connect slots on the thread that emits, before the first
    // Subscribe.
    NewDataSignal& NewData() { return notifier->newData; }

  private:
    // Outlives the manager while a callback still runs.
    struct Notifier {
        NewDataSignal newData;
        Deliver deliver;
    };

    struct Subscription {
        std::unique_ptr<Backend::NotifyCharacteristic> characteristic;
        // Passes each notified value to the camera's record.
        sigc::signal<void(std::vector<uint8_t>&)> notified;
    };

    bool WriteCommand(const std::string& mac, const std::vector<uint8_t>& command);

    std::shared_ptr<Backend::Radio> radio;
    Sleeper sleep;
    std::shared_ptr<Notifier> notifier;
    std::mutex subscriptionsMutex;
    std::map<std::string, std::shared_ptr<Subscription>> subscriptions;
};
