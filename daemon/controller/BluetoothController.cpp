// Construction, the settings and their application.
#include "controller/BluetoothController.h"

#include <any>
#include <cstdint>
#include <stdexcept>
#include <typeinfo>
#include <utility>

#include "backend/Advertiser.h"
#include "backend/Radio.h"
#include "backend/Scanner.h"
#include "clients/NetworkDaemonDbusHandler.h"
#include "clients/PylonDaemonDbusHandler.h"
#include "clients/SettingsDaemonDbusHandler.h"
#include "controller/CameraWorkers.h"
#include "controller/ScanLock.h"
#include "logging/Log.h"
#include "loop/Queue.h"
#include "remote_camera/KelpBleManager.h"
#include "scan_response/ScanResponse.h"
#include "scanned_device/RemoteCamera.h"
#include "vocabulary/Vocabulary.h"

namespace {

constexpr const char* kConstructor = "BluetoothController::BluetoothController(sd_event*)";

const char* TrueFalse(bool value) {
    return value ? "true" : "false";
}

}  // namespace

BluetoothController::BluetoothController(sd_event* eventLoop, ControllerHooks controllerHooks)
    : loop(eventLoop), hooks(std::move(controllerHooks)) {
    loopThread = std::this_thread::get_id();
    queue = std::make_shared<Loop::Queue>(loop);
    scanLock = std::make_shared<ScanLock>();
    // only ever called on the loop, through the queue, which the destructor closes first
    cameraWorkers = std::make_shared<CameraWorkers>(
        queue, scanLock, hooks.radioType, hooks.sleep,
        [this](bool success, const std::string& json) { configuredCamera.emit(success, json); });

    settingsClient = std::make_shared<Settingsd::SettingsDaemonDbusHandler>(loop);
    settingsClient->SectionChanged(BluetoothSettingsSection)
        .connect(sigc::mem_fun(*this, &BluetoothController::SettingsChanged));
    powerClient = std::make_shared<Pylond::PylonDaemonDbusHandler>(loop);
    powerClient->PowerSignal().connect(sigc::mem_fun(*this, &BluetoothController::PowerPropertiesChanged));
    networkClient = std::make_shared<Networkd::NetworkDaemonDbusHandler>(loop);
    networkClient->PropertiesChanged().connect(
        sigc::mem_fun(*this, &BluetoothController::NetworkPropertiesChanged));

    ListenToSettings(kConstructor);
    ListenToPower(kConstructor);
    sdbus_utils::TypedPropertyMap power;
    if (hooks.readPowerProperties(power) < 0)
        Logging::Log(LOG_ERR, "%s: Failed to GetAllPowerProperties from PylonDaemon", kConstructor);
    else
        PowerPropertiesChanged(power);

    ListenToNetwork(kConstructor);
    sdbus_utils::TypedPropertyMap network;
    if (hooks.readNetworkProperties(network) < 0)
        Logging::Log(LOG_ERR, "%s: Failed to GetAllNetworkProperties from NetworkDaemon", kConstructor);
    else
        NetworkPropertiesChanged(network);

    ReadSettings();

    // Due never: StartAutoScanTask arms it.
    sd_event_source* timer = nullptr;
    const int r = sd_event_add_time(loop, &timer, CLOCK_MONOTONIC, UINT64_MAX, 0,
                                    &BluetoothController::OnAutoScanTimer, this);
    if (r < 0)
        Logging::Log(LOG_ERR, "%s: Failed to create the auto-scan timer: %d", kConstructor, r);
    autoScanTimer.reset(timer);
    // disarmed means due never and switched off, as after StopAutoScanTask
    if (autoScanTimer)
        (void)sd_event_source_set_enabled(autoScanTimer.get(), SD_EVENT_OFF);
}

BluetoothController::~BluetoothController() {
    for (auto& connection : backendConnections)
        connection.disconnect();
    if (!cameraWorkers->Stop(kWorkerStopGrace))
        Logging::Log(LOG_WARNING, "%d camera worker(s) still running at exit", cameraWorkers->Running());
}

void BluetoothController::ReadSettings() {
    using namespace BluetoothSettings;
    scanResponseVersion = hooks.readNumberSetting(AdvertSchema, DefaultAdvertSchema);
    autoScanRateSecs = hooks.readNumberSetting(AutoScanRateSecs, DefaultAutoScanRateSecs);
    powered = hooks.readFlagSetting(Powered, DefaultPowered);
    discoverable = hooks.readFlagSetting(Discoverable, DefaultDiscoverable);
    pairable = hooks.readFlagSetting(Pairable, DefaultPairable);
    advertisingEnabled = hooks.readFlagSetting(AdvertisingEnabled, DefaultAdvertisingEnabled);
    autoScanEnabled = hooks.readFlagSetting(AutoScanEnabled, DefaultAutoScanEnabled);
    systemCallDebug = hooks.readFlagSetting(SystemCallDebug, DefaultSystemCallDebug);

    // discoverable and advertising-enabled are read but, as always, not shown
    Logging::Log(LOG_INFO, "Configuration from settings:");
    Logging::Log(LOG_INFO, "Scan Response Version:  %d", static_cast<int>(scanResponseVersion));
    Logging::Log(LOG_INFO, "Scan Rate Seconds:      %d", static_cast<int>(autoScanRateSecs));
    Logging::Log(LOG_INFO, "Power Enabled:          %s", TrueFalse(powered));
    Logging::Log(LOG_INFO, "Pairable Enabled:       %s", TrueFalse(pairable));
    Logging::Log(LOG_INFO, "Auto Scan Enabled:      %s", TrueFalse(autoScanEnabled));
    Logging::Log(LOG_INFO, "System() Debug Enabled: %s", TrueFalse(systemCallDebug));
}

bool BluetoothController::Initialise() {
    radio = hooks.makeRadio();
    scanner = hooks.makeScanner();
    advertiser = hooks.makeAdvertiser();
    if (radio && scanner && advertiser && radio->IsUsable() && scanner->IsUsable() &&
        advertiser->IsUsable()) {
        advertiser->SetScanResponse(scanResponse);
        // The manager may outlive the controller inside a worker: it holds the workers only weakly, and
        // the queue drops what arrives after the controller is gone.
        std::weak_ptr<CameraWorkers> weakWorkers = cameraWorkers;
        remoteCameraManager = std::make_shared<KelpBleManager>(
            radio,
            [weakWorkers, sleep = hooks.sleep](std::chrono::milliseconds duration) {
                // once the daemon stops, a flow in progress runs out its polls at once
                if (auto workers = weakWorkers.lock())
                    workers->Sleep(sleep, duration);
            },
            [loopQueue = queue](std::function<void()> task) { (void)loopQueue->Post(std::move(task)); });
        // after every slot of the new data: the D-Bus objects announce the data, then the changed list
        remoteCameraManager->NewData().connect(
            [this](const std::string&) { (void)queue->Post([this] { remoteCamerasChanged.emit(); }); });
        // the scanner and the manager may outlive the controller: these go with it
        backendConnections.push_back(remoteCameraManager->NewData().connect(
            [this](const std::string& json) { newCameraData.emit(json); }));
        backendConnections.push_back(scanner->NewRemoteCamera().connect(
            [this](const std::string& json) { discoveredRemoteCamera.emit(json); }));
        cameraWorkers->Attach(remoteCameraManager);
        ApplySettings();
        initialised = true;
        return true;
    }
    return initialised;
}

void BluetoothController::ApplySettings() {
    // Before Initialise there is nothing to apply to: the settings just stay stored.
    if (!radio || !scanner || !advertiser)
        return;
    advertiser->SetSystemCallDebug(systemCallDebug);
    if (powered) {
        radio->SetPowered(true);
        radio->SetDiscoverable(discoverable);
        radio->SetPairable(pairable);
        UpdateScanResponse(scanResponseVersion);
        if (autoScanEnabled && scanner->IsUsable())
            StartAutoScanTask();
        else
            StopAutoScanTask();
        return;
    }
    if (advertisingEnabled)
        advertiser->StopAdvertising();
    if (autoScanEnabled)
        StopAutoScanTask();
    // Never true here, and kept so: "powered" false stops advertising and scanning but leaves the radio's
    // power as it is. The controller only ever switches the radio on.
    if (powered)
        radio->SetPowered(false);
}

const BluetoothController::NumberSetting BluetoothController::kNumberSettings[2] = {
    {BluetoothSettings::AdvertSchema, &BluetoothController::scanResponseVersion},
    {BluetoothSettings::AutoScanRateSecs, &BluetoothController::autoScanRateSecs},
};
const BluetoothController::FlagSetting BluetoothController::kFlagSettings[6] = {
    {BluetoothSettings::AdvertisingEnabled, &BluetoothController::advertisingEnabled},
    {BluetoothSettings::AutoScanEnabled, &BluetoothController::autoScanEnabled},
    {BluetoothSettings::Discoverable, &BluetoothController::discoverable},
    {BluetoothSettings::Pairable, &BluetoothController::pairable},
    {BluetoothSettings::Powered, &BluetoothController::powered},
    {BluetoothSettings::SystemCallDebug, &BluetoothController::systemCallDebug},
};

void BluetoothController::SettingsChanged(sdbus_utils::TypedPropertyMap& settings) {
    Logging::Log(LOG_INFO, "%s", "void BluetoothController::SettingsChanged(sdbus_utils::TypedPropertyMap&)");
    for (const auto& [key, typed] : settings) {
        Logging::Log(LOG_INFO, "name: %s", key.c_str());
        const auto& [signature, value] = typed;
        // an unknown key, or a known one with another signature, is skipped; a value of the wrong C++
        // type behind the right signature throws std::bad_any_cast to the listener's C boundary
        if (signature == "u") {
            for (const NumberSetting& number : kNumberSettings) {
                if (key == number.key)
                    this->*number.field = std::any_cast<uint32_t>(value);
            }
        } else if (signature == "b") {
            for (const FlagSetting& flag : kFlagSettings) {
                if (key == flag.key)
                    this->*flag.field = std::any_cast<bool>(value);
            }
        }
    }
    // whatever changed, the whole configuration is applied again
    ApplySettings();
}

sdbus_utils::TypedPropertyMap BluetoothController::DifferingSettings(
    const sdbus_utils::TypedPropertyMap& settings) const {
    sdbus_utils::TypedPropertyMap differing;
    for (const auto& [key, typed] : settings) {
        const auto& [signature, value] = typed;
        bool differs = false;
        if (signature == "u" && value.type() == typeid(uint32_t)) {
            for (const NumberSetting& number : kNumberSettings)
                differs =
                    differs || (key == number.key && this->*number.field != std::any_cast<uint32_t>(value));
        } else if (signature == "b" && value.type() == typeid(bool)) {
            for (const FlagSetting& flag : kFlagSettings)
                differs = differs || (key == flag.key && this->*flag.field != std::any_cast<bool>(value));
        }
        if (differs)
            differing.emplace(key, typed);
    }
    return differing;
}

void BluetoothController::ListenToSettings(const char* who) {
    ListenToSibling(
        *settingsClient, [this] { return hooks.listenSettings(*settingsClient); }, "SettingsDaemon",
        Settingsd::kService, &BluetoothController::ReadSettingsAgain, who);
}

void BluetoothController::ListenToPower(const char* who) {
    ListenToSibling(
        *powerClient, [this] { return hooks.listenPower(*powerClient); }, "PylonDaemon", Pylond::kService,
        &BluetoothController::ReadPowerAgain, who);
}

void BluetoothController::ListenToNetwork(const char* who) {
    ListenToSibling(
        *networkClient, [this] { return hooks.listenNetwork(*networkClient); }, "NetworkDaemon",
        Networkd::kService, &BluetoothController::ReadNetworkAgain, who);
}

void BluetoothController::ListenToSibling(DbusHelper::DbusListener& client,
                                          const std::function<int()>& listen, const char* sibling,
                                          const char* service, void (BluetoothController::*readAgain)(),
                                          const char* who) {
    // a listener connected before the bus went away holds a dead connection
    if (client.IsOpen())
        return;
    client.Disconnect();
    if (listen() < 0) {
        Logging::Log(LOG_ERR, "%s: Failed to register %s d-bus listener", who, sibling);
        return;
    }
    // a sibling that starts after this daemon, or starts again, is read as it starts
    if (hooks.followSibling(client, service, [this, readAgain] { (this->*readAgain)(); }) < 0)
        Logging::Log(LOG_ERR, "%s: Failed to follow %s", who, service);
}

void BluetoothController::SiblingBusReturned() {
    ListenToSettings("SiblingBusReturned");
    ListenToPower("SiblingBusReturned");
    ListenToNetwork("SiblingBusReturned");
    // changes sent while the bus was away were lost: what the siblings hold now is the truth
    ReadPowerAgain();
    ReadNetworkAgain();
    ReadSettingsAgain();
}

void BluetoothController::ReadPowerAgain() {
    sdbus_utils::TypedPropertyMap power;
    if (hooks.readPowerProperties(power) >= 0)
        PowerPropertiesChanged(power);
}

void BluetoothController::ReadNetworkAgain() {
    sdbus_utils::TypedPropertyMap network;
    if (hooks.readNetworkProperties(network) >= 0)
        NetworkPropertiesChanged(network);
}

void BluetoothController::ReadSettingsAgain() {
    sdbus_utils::TypedPropertyMap settings;
    if (!hooks.readSettingsSection || hooks.readSettingsSection(settings) < 0)
        return;
    sdbus_utils::TypedPropertyMap differing = DifferingSettings(settings);
    if (!differing.empty())
        SettingsChanged(differing);
}
