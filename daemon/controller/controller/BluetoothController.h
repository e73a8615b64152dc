#pragma once
// The daemon's one owner: the radio, scanner and advertiser backends, the clients of the settings,
// network and power daemons, the remote-camera manager, the auto-scan timer and the scan lock. It turns
// the "bluetooth" settings into calls on the backends, keeps the scan response current and runs the
// periodic scan.
//
// Threads: everything here runs on the event-loop thread. The camera work runs on detached worker
// threads (CameraWorkers), which share the scan lock with the auto-scan period and hand what they report
// back to the loop through the loop queue; the signals below fire on the loop thread only. Fields are
// plain: the loop is the only writer.
//
// What the controller needs from the outside world comes in one ControllerHooks, so that tests can run
// it on fakes with a real sd-event loop; the daemon hands it Daemon::SystemControllerHooks().

#include <sigc++/sigc++.h>
#include <systemd/sd-event.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "dbus_helper/Handles.h"
#include "dbus_helper/SdbusUtils.h"
#include "loop/Sleep.h"

namespace DbusHelper {
class DbusListener;
}
namespace Backend {
class Advertiser;
class Radio;
class Scanner;
}  // namespace Backend

namespace ScanResponse {
class Base;
}
namespace ScannedDevice {
class RemoteCamera;
class JsonArray;
}  // namespace ScannedDevice
namespace Loop {
class Queue;
}

namespace Settingsd {
class SettingsDaemonDbusHandler;
}
namespace Networkd {
class NetworkDaemonDbusHandler;
}
namespace Pylond {
class PylonDaemonDbusHandler;
}

class KelpBleManager;
class CameraWorkers;
class ScanLock;

struct ControllerHooks {
    // The backends, created by Initialise().
    std::function<std::shared_ptr<Backend::Radio>()> makeRadio;
    std::function<std::shared_ptr<Backend::Scanner>()> makeScanner;
    std::function<std::shared_ptr<Backend::Advertiser>()> makeAdvertiser;

    // The sibling daemons. Listening: 0 or a negative errno. Settings: the value of a "bluetooth" key, or
    // the given safe default (logged) when it cannot be read. Property reads: 0 or a negative errno, the
    // map filled on success.
    std::function<int(Settingsd::SettingsDaemonDbusHandler&)> listenSettings;
    std::function<int(Pylond::PylonDaemonDbusHandler&)> listenPower;
    std::function<int(Networkd::NetworkDaemonDbusHandler&)> listenNetwork;
    std::function<uint32_t(const char* key, uint32_t safeDefault)> readNumberSetting;
    std::function<bool(const char* key, bool safeDefault)> readFlagSetting;
    std::function<int(sdbus_utils::TypedPropertyMap&)> readPowerProperties;
    std::function<int(sdbus_utils::TypedPropertyMap&)> readNetworkProperties;
    // Calls the function each time the named sibling gets an owner on the listener's bus (it started, or
    // started again): 0 or a negative errno.
    std::function<int(DbusHelper::DbusListener&, const char* service, std::function<void()>)> followSibling;
    // The whole "bluetooth" section as the settings daemon holds it: 0 or a negative errno (logged).
    std::function<int(sdbus_utils::TypedPropertyMap&)> readSettingsSection;

    // The radio reboot's wait, the camera manager's polls and the camera workers' pauses.
    Loop::Sleeper sleep;
    // This unit's radio type (1: 5 GHz Wi-Fi), which sets the band a camera is put on.
    std::function<int()> radioType;
    // CLOCK_MONOTONIC now, in microseconds: where the next auto-scan period starts from.
    std::function<uint64_t()> monotonicNowUsec;
};

class BluetoothController {
  public:
    // What the last scan did, auto-scan period or Scan call, for the service's status line.
    enum class ScanOutcome { None, Succeeded, Failed, Skipped };

    // Outcome of configuring a remote camera: success, and the camera's JSON document.
    using ConfiguredCameraSignal = sigc::signal<void(bool, std::string)>;
    // The known remote cameras changed (new data read from one of them).
    using RemoteCamerasChangedSignal = sigc::signal<void()>;
    // A remote camera's JSON document: one a scan pass found for the first time, or new data read from one.
    using CameraJsonSignal = sigc::signal<void(const std::string&)>;

    // What a client's request to configure a remote camera came to.
    struct ConfigurationRequest {
        enum class Outcome { Started, NotFound, NotACamera };
        Outcome outcome = Outcome::NotFound;
        // NotACamera: the model the device's type names.
        std::string model;
    };

    static constexpr int kScanAttempts = 3;
    static constexpr std::chrono::milliseconds kRadioRebootWait{2000};
    // The version recorded after a schema that cannot be built.
    static constexpr uint32_t kFallbackScanResponseVersion = 3;
    // How long the destructor waits for camera workers to end their flows.
    static constexpr std::chrono::milliseconds kWorkerStopGrace{3000};

    // Listens to the sibling daemons, reads their state and the settings, creates the auto-scan timer
    // disarmed. Touches no backend: nothing is switched on before Initialise().
    BluetoothController(sd_event* loop, ControllerHooks hooks);
    ~BluetoothController();
    BluetoothController(const BluetoothController&) = delete;
    BluetoothController& operator=(const BluetoothController&) = delete;

    // Creates the backends; when all three are usable, creates the camera manager and applies the
    // settings. True when the controller came up.
    bool Initialise();
    bool IsInitialised() const { return initialised; }

    uint32_t GetScanResponseVersion() const { return scanResponseVersion; }
    // Rebuilds the scan response for `version` (falling back as logged when it cannot be built) and
    // restarts advertising when it is enabled.
    void UpdateScanResponse(uint32_t version);
    bool GetAdvertisingEnabled() const { return advertisingEnabled; }
    // Starts or stops advertising only on a change of the flag; the radio's power is not consulted.
    void SetAdvertisingEnabled(bool enabled);
    bool GetAutoScanEnabled() const { return autoScanEnabled; }
    void SetAutoScanEnabled(bool enabled);
    uint32_t GetAutoScanRateSecs() const { return autoScanRateSecs; }
    // Takes effect at the timer's next arming.
    void SetAutoScanRateSecs(uint32_t seconds) { autoScanRateSecs = seconds; }

    // Arms the timer one period from the loop's now / disarms it; failures are logged.
    void StartAutoScanTask();
    void StopAutoScanTask();
    // One auto-scan period (the timer's work): the OR of the last scan's result and the re-arming calls'
    // results, 0 when all went well. The timer's own callback hands sd-event a non-negative value
    // whatever this returns, so that the source stays enabled.
    int AutoScanTask();
    // One pass for a client's Scan call, no retry; its outcome is kept like an auto-scan period's.
    int ScanOnce();
    // A client's Scan call whole: auto-scan and advertising paused, one pass unless a camera's GATT
    // exchange holds the radio (then skipped), both resumed as they were; the devices known afterwards.
    ScannedDevice::JsonArray ScanNow();
    // The scanner's devices as they are now, all of them / the remote cameras; "[]" before Initialise().
    ScannedDevice::JsonArray ScannedDevicesJson() const;
    ScannedDevice::JsonArray RemoteCamerasJson() const;
    // A scan given up because a camera's GATT exchange held the scan lock.
    void NoteScanSkipped() { lastScan = ScanOutcome::Skipped; }
    ScanOutcome LastScanOutcome() const { return lastScan; }
    // How many devices the scanner lists now (0 before Initialise()).
    std::size_t DevicesKnown() const;

    // The timer as it stands: its due time (UINT64_MAX when disarmed) and whether it is switched on.
    uint64_t AutoScanDueUsec() const;
    bool AutoScanArmed() const;

    // The user bus came (back): a sibling listener whose connection is gone listens again, and what the
    // siblings hold now is read again and goes through the same receivers as their change signals
    // (settings only where they differ from what the controller has, so that nothing is applied twice).
    // Meanwhile the controller kept its state; a sibling that cannot be reached yet is logged.
    void SiblingBusReturned();

    // Receivers of the sibling daemons' property maps.
    void SettingsChanged(sdbus_utils::TypedPropertyMap& settings);
    void NetworkPropertiesChanged(sdbus_utils::TypedPropertyMap& properties);
    void PowerPropertiesChanged(sdbus_utils::TypedPropertyMap& properties);

    // The adapter's switches, read and set on the radio itself (false, and nothing set, before
    // Initialise()); what a set returns is not kept.
    bool GetRadioPowered() const;
    void SetRadioPowered(bool on);
    bool GetRadioPairable() const;
    void SetRadioPairable(bool on);
    bool GetRadioDiscoverable() const;
    void SetRadioDiscoverable(bool on);

    // A client asks for the camera `address` to be configured: started only for a remote camera the
    // scanner lists now whose type is the camera's. A type the vocabulary does not name throws
    // std::out_of_range.
    ConfigurationRequest RequestConfiguration(const std::string& address);

    // Prepare one scanned camera for use (connect, switch on, wait for its access point, set its band)
    // and report through ConfiguredCamera(); re-read the BLE information of every known camera, which
    // reaches the camera manager's NewData(). Both on detached threads; both return at once.
    void ConfigureRemoteCamera(std::shared_ptr<ScannedDevice::RemoteCamera> camera);
    void StartBleInfoRefresh();
    // The first device of the scanner's list as it is now that is of the remote-camera kind and has
    // exactly this address (whatever model its payload names); null when there is none.
    std::shared_ptr<ScannedDevice::RemoteCamera> FindRemoteCamera(const std::string& address) const;

    // Loop thread, when the daemon stops: nothing more is reported, a flow in progress runs out its
    // waits at once and ends (disconnecting its camera), and this waits up to `grace` for the workers.
    // False when some are still running. The destructor does the same.
    bool StopCameraWork(std::chrono::milliseconds grace = kWorkerStopGrace);

    // All fire on the loop thread.
    ConfiguredCameraSignal& ConfiguredCamera() { return configuredCamera; }
    RemoteCamerasChangedSignal& RemoteCamerasChanged() { return remoteCamerasChanged; }
    CameraJsonSignal& DiscoveredRemoteCamera() { return discoveredRemoteCamera; }
    CameraJsonSignal& NewCameraData() { return newCameraData; }

  private:
    // Tests reach the scan lock and the workers through it.
    friend class ControllerProbe;

    // The "bluetooth" settings the controller keeps, by key and signature.
    struct NumberSetting {
        const char* key;
        uint32_t BluetoothController::*field;
    };
    struct FlagSetting {
        const char* key;
        bool BluetoothController::*field;
    };
    static const NumberSetting kNumberSettings[2];
    static const FlagSetting kFlagSettings[6];

    void ReadSettings();
    // Listen to one sibling daemon and follow its name, unless its connection is still open (at
    // construction, and when the bus returns); failures logged for `who`.
    void ListenToSettings(const char* who);
    void ListenToPower(const char* who);
    void ListenToNetwork(const char* who);
    void ListenToSibling(DbusHelper::DbusListener& client, const std::function<int()>& listen,
                         const char* sibling, const char* service, void (BluetoothController::*readAgain)(),
                         const char* who);
    // What a sibling holds now, through the receiver of its change signal; settings only where they
    // differ from the controller's.
    void ReadPowerAgain();
    void ReadNetworkAgain();
    void ReadSettingsAgain();
    // The entries of `settings` that name a kept setting with its signature and another value.
    sdbus_utils::TypedPropertyMap DifferingSettings(const sdbus_utils::TypedPropertyMap& settings) const;
    void ApplySettings();
    // Sets the timer's due time and switch; the OR of both calls' results.
    int ArmTimer(uint64_t dueUsec, int enabled);
    int ScanWithRetries();
    // A debug build stops a call of the radio's switches from any other thread.
    void AssertOnLoopThread() const;
    static int OnAutoScanTimer(sd_event_source* source, uint64_t usec, void* userdata);

    std::shared_ptr<ScanResponse::Base> scanResponse;
    std::shared_ptr<Backend::Advertiser> advertiser;
    std::shared_ptr<Backend::Scanner> scanner;
    std::shared_ptr<Backend::Radio> radio;
    std::shared_ptr<KelpBleManager> remoteCameraManager;

    // the "bluetooth" settings, as last read or changed
    uint32_t scanResponseVersion = 0;
    uint32_t autoScanRateSecs = 0;
    bool powered = false;
    bool discoverable = false;
    bool pairable = false;
    bool autoScanEnabled = false;
    bool advertisingEnabled = false;
    bool initialised = false;
    bool systemCallDebug = false;
    ScanOutcome lastScan = ScanOutcome::None;

    DbusHelper::EventSource autoScanTimer;
    sd_event* loop;
    // The last scan time, which the camera workers also use as their stopwatch, lives in scanLock: the
    // workers may outlive the controller.

    std::shared_ptr<Settingsd::SettingsDaemonDbusHandler> settingsClient;
    std::shared_ptr<Pylond::PylonDaemonDbusHandler> powerClient;
    std::shared_ptr<Networkd::NetworkDaemonDbusHandler> networkClient;

    ConfiguredCameraSignal configuredCamera;
    RemoteCamerasChangedSignal remoteCamerasChanged;
    CameraJsonSignal discoveredRemoteCamera;
    CameraJsonSignal newCameraData;
    std::vector<sigc::connection> backendConnections;

    ControllerHooks hooks;
    // Hands what the camera workers and the BLE library's thread report to the loop, in order.
    std::shared_ptr<Loop::Queue> queue;
    // A scan and a camera's GATT exchange never overlap; shared with the workers, which may outlive this.
    std::shared_ptr<ScanLock> scanLock;
    std::shared_ptr<CameraWorkers> cameraWorkers;
    // Where the loop runs: the radio's switches are the loop's alone, the workers use its device
    // operations.
    std::thread::id loopThread;
};
