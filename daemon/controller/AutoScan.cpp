// The periodic scan on the loop's timer.
#include <cstddef>
#include <cstdint>

#include "backend/Advertiser.h"
#include "backend/Radio.h"
#include "backend/Scanner.h"
#include "controller/AutoScanClock.h"
#include "controller/BluetoothController.h"
#include "controller/ScanLock.h"
#include "logging/Log.h"
#include "loop/CBoundary.h"
#include "scanned_device/Json.h"

int BluetoothController::ArmTimer(uint64_t dueUsec, int enabled) {
    const int timeResult = sd_event_source_set_time(autoScanTimer.get(), dueUsec);
    const int enableResult = sd_event_source_set_enabled(autoScanTimer.get(), enabled);
    return timeResult | enableResult;
}

void BluetoothController::StartAutoScanTask() {
    uint64_t now = 0;
    (void)sd_event_now(loop, CLOCK_MONOTONIC, &now);
    const int r = ArmTimer(Daemon::AutoScanDueTime(now, autoScanRateSecs), SD_EVENT_ON);
    if (r != 0)
        Logging::Log(LOG_ERR, "%s: Could not start AutoScanTask: %d", "StartAutoScanTask", r);
}

void BluetoothController::StopAutoScanTask() {
    const int r = ArmTimer(UINT64_MAX, SD_EVENT_OFF);
    if (r != 0)
        Logging::Log(LOG_ERR, "%s: Could not stop AutoScanTask: %d", "StopAutoScanTask", r);
}

void BluetoothController::SetAutoScanEnabled(bool enabled) {
    autoScanEnabled = enabled;
    if (enabled)
        StartAutoScanTask();
    else
        StopAutoScanTask();
}

int BluetoothController::ScanWithRetries() {
    // stays when the pass throws
    lastScan = ScanOutcome::Failed;
    int result = 0;
    for (int attempts = kScanAttempts; attempts > 0; --attempts) {
        result = scanner->Scan();
        if (result == 0)
            break;
        Logging::Log(LOG_ERR, "Error when scanning for devices... rebooting radio");
        radio->SetPowered(false);
        hooks.sleep(kRadioRebootWait);
        radio->SetPowered(true);
    }
    scanLock->SetLastScanTime(std::chrono::system_clock::now());
    lastScan = result == 0 ? ScanOutcome::Succeeded : ScanOutcome::Failed;
    return result;
}

std::size_t BluetoothController::DevicesKnown() const {
    return scanner ? scanner->Devices().size() : 0;
}

int BluetoothController::ScanOnce() {
    lastScan = ScanOutcome::Failed;
    const int result = scanner->Scan();
    lastScan = result == 0 ? ScanOutcome::Succeeded : ScanOutcome::Failed;
    return result;
}

ScannedDevice::JsonArray BluetoothController::ScanNow() {
    const bool autoScan = autoScanEnabled;
    const bool advertising = advertisingEnabled;
    if (autoScan)
        SetAutoScanEnabled(false);
    if (advertising)
        SetAdvertisingEnabled(false);
    {
        // a camera's GATT exchange holds the radio: then the list is answered as it stands
        std::unique_lock<std::mutex> lock(scanLock->Mutex(), std::try_to_lock);
        if (!lock.owns_lock()) {
            Logging::Log(LOG_INFO, "Scan: a remote camera is being read, answering with the devices known");
            NoteScanSkipped();
        } else if (scanner) {
            // a pass that throws (a hostile payload nearby) is abandoned; the flags still come back
            (void)CBoundary::Call("Scan", [this] { return ScanOnce(); });
        }
    }
    const Backend::Scanner::DeviceList devices =
        scanner ? scanner->Devices() : Backend::Scanner::DeviceList{};
    if (autoScan)
        SetAutoScanEnabled(true);
    if (advertising)
        SetAdvertisingEnabled(true);
    return ScannedDevice::JsonArray::Devices(devices);
}

ScannedDevice::JsonArray BluetoothController::ScannedDevicesJson() const {
    return ScannedDevice::JsonArray::Devices(scanner ? scanner->Devices() : Backend::Scanner::DeviceList{});
}

ScannedDevice::JsonArray BluetoothController::RemoteCamerasJson() const {
    return ScannedDevice::JsonArray::RemoteCameras(scanner ? scanner->Devices()
                                                           : Backend::Scanner::DeviceList{});
}

int BluetoothController::AutoScanTask() {
    int result = 0;
    {
        // a camera worker holds it for its whole exchange: this period is skipped, never waited for
        std::unique_lock<std::mutex> lock(scanLock->Mutex(), std::try_to_lock);
        if (lock.owns_lock()) {
            if (advertiser->IsAdvertising())
                advertiser->StopAdvertising();
            // A pass that throws (a hostile payload nearby) is abandoned and logged; the unit still goes
            // back on air and the timer stays armed.
            result = CBoundary::Call("AutoScanTask", [this] { return ScanWithRetries(); });
            advertiser->RefreshScanResponse();
            if (advertisingEnabled)
                advertiser->StartAdvertising();
        } else {
            NoteScanSkipped();
        }
    }
    // from the end of this period, however long the scan took
    return result |
           ArmTimer(Daemon::AutoScanDueTime(hooks.monotonicNowUsec(), autoScanRateSecs), SD_EVENT_ON);
}

int BluetoothController::OnAutoScanTimer(sd_event_source*, uint64_t, void* userdata) {
    // sd-event disables a source whose callback fails: the timer must live on whatever the period did
    (void)CBoundary::Call("AutoScanTask timer",
                          [userdata] { (void)static_cast<BluetoothController*>(userdata)->AutoScanTask(); });
    return 0;
}

uint64_t BluetoothController::AutoScanDueUsec() const {
    uint64_t due = UINT64_MAX;
    (void)sd_event_source_get_time(autoScanTimer.get(), &due);
    return due;
}

bool BluetoothController::AutoScanArmed() const {
    int enabled = SD_EVENT_OFF;
    (void)sd_event_source_get_enabled(autoScanTimer.get(), &enabled);
    return enabled != SD_EVENT_OFF;
}
