#include "controller/CameraWorkers.h"

#include <exception>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "logging/Log.h"
#include "loop/CBoundary.h"
#include "remote_camera/KelpBleManager.h"
#include "scanned_device/Json.h"
#include "scanned_device/RemoteCamera.h"

const char* CameraWorkers::ExpectedWiFiFrequency(int radioType) {
    return radioType == 1 ? "5.0" : "2.4";
}

CameraWorkers::CameraWorkers(std::shared_ptr<Loop::Queue> loopQueue, std::shared_ptr<ScanLock> lock,
                             std::function<int()> readRadioType, Loop::Sleeper pause,
                             ConfiguredReport configured)
    : queue(std::move(loopQueue)),
      scanLock(std::move(lock)),
      radioType(std::move(readRadioType)),
      sleep(std::move(pause)),
      onConfigured(std::move(configured)) {}

void CameraWorkers::Attach(std::shared_ptr<KelpBleManager> cameraManager) {
    manager = std::move(cameraManager);
}

CameraWorkers::Counted::Counted(CameraWorkers& owner) : workers(owner) {
    std::lock_guard<std::mutex> lock(workers.runningMutex);
    ++workers.running;
}

CameraWorkers::Counted::~Counted() {
    std::lock_guard<std::mutex> lock(workers.runningMutex);
    --workers.running;
    workers.allFinished.notify_all();
}

void CameraWorkers::StartConfiguration(std::shared_ptr<ScannedDevice::RemoteCamera> camera) {
    if (!manager || Stopping())
        return;
    // the thread holds this object (and so the manager and the queue) until it ends
    std::thread(&CameraWorkers::ConfigureRemoteCamera, shared_from_this(), std::move(camera)).detach();
}

void CameraWorkers::StartBleInfoRefresh(DeviceList devices) {
    if (!manager || Stopping())
        return;
    std::thread([workers = shared_from_this(), devices = std::move(devices)] {
        (void)workers->RefreshBleInfo(devices);
    }).detach();
}

void CameraWorkers::Sleep(const Loop::Sleeper& pause, std::chrono::milliseconds duration) const {
    if (!Stopping() && pause)
        pause(duration);
}

bool CameraWorkers::Stop(std::chrono::milliseconds grace) {
    stopping.store(true);
    if (queue)
        queue->Close();
    std::unique_lock<std::mutex> lock(runningMutex);
    return allFinished.wait_for(lock, grace, [this] { return running == 0; });
}

int CameraWorkers::Running() const {
    std::lock_guard<std::mutex> lock(runningMutex);
    return running;
}

void CameraWorkers::Step(const char* name) {
    const auto now = std::chrono::system_clock::now();
    const auto elapsed =
        std::chrono::duration_cast<std::chrono::milliseconds>(now - scanLock->LastScanTime());
    Logging::Log(LOG_INFO, "%s: Time Elapsed: %llu", name, static_cast<unsigned long long>(elapsed.count()));
    scanLock->SetLastScanTime(now);
}

bool CameraWorkers::ConfigureRemoteCamera(std::shared_ptr<ScannedDevice::RemoteCamera> camera) {
    Counted counted(*this);
    if (Stopping() || !manager || !camera)
        return false;
    bool success = false;
    // Whatever goes wrong inside (a lock that cannot be taken, a camera the manager lost), the lock is
    // released, the outcome is a failure and it is still reported.
    CBoundary::Finished("ConfigureRemoteCamera", [&] {
        const std::string expected = ExpectedWiFiFrequency(radioType ? radioType() : 0);
        scanLock->SetLastScanTime(std::chrono::system_clock::now());
        std::lock_guard<std::mutex> lock(scanLock->Mutex());
        CBoundary::Finished("ConfigureRemoteCamera", [&] { success = RunFlow(camera, expected); });
        if (!success)
            ReportFailure(*camera, expected);
    });
    CBoundary::Finished("ConfigureRemoteCamera", [&] {
        std::string json = ScannedDevice::DumpJson(camera->ToJson());
        std::weak_ptr<CameraWorkers> weak = weak_from_this();
        if (queue)
            queue->Post([weak, success, json = std::move(json)] {
                if (auto workers = weak.lock(); workers && workers->onConfigured)
                    workers->onConfigured(success, json);
            });
    });
    return success;
}

bool CameraWorkers::RunFlow(const std::shared_ptr<ScannedDevice::RemoteCamera>& camera,
                            const std::string& expected) {
    // a request that waited for the lock through the daemon's exit starts nothing on the radio
    if (Stopping() || !manager->Subscribe(camera))
        return false;
    bool success = false;
    try {
        Step("Connected To Bluetooth");
        std::string json;
        success = manager->ReadBleInfo(camera, json);
        Step("Refreshed BLE Info");
        if (success && camera->PowerState() == kPowerOff) {
            success = manager->ConfigurePowerState(camera, kPowerOn, kPowerSeconds);
            Step("Configured Power State");
        }
        if (success) {
            success = manager->WaitForWiFi(camera, kAccessPointSeconds);
            Step("Waited for AP startup");
            if (success && camera->WiFiFrequency() != expected) {
                success = manager->ConfigureWiFiFrequency(camera, expected, kFrequencySeconds);
                Step("Configured WiFi Frequency");
            }
        }
    } catch (const std::exception& e) {
        // still disconnected below, and reported as a failure
        CBoundary::Note("ConfigureRemoteCamera", e.what());
        success = false;
    }
    manager->Unsubscribe(camera);
    Step("Disconnected from Bluetooth");
    return success;
}

void CameraWorkers::ReportFailure(const ScannedDevice::RemoteCamera& camera,
                                  const std::string& expected) const {
    Logging::Log(LOG_ERR, "Failed to configure %s over BLE:", camera.Name().c_str());
    Logging::Log(LOG_ERR, "WiFi Frequency: %s Expected: %s", camera.WiFiFrequency().c_str(),
                 expected.c_str());
    Logging::Log(LOG_ERR, "Power State:    %c Expected: %c/%c", camera.PowerState(), kPowerOn, kPowerStandby);
    Logging::Log(LOG_ERR, "WiFi State:     %c Expected: %c/%c", camera.WiFiState(), kWiFiReady,
                 kWiFiConnected);
}

bool CameraWorkers::RefreshBleInfo(const DeviceList& devices) {
    Counted counted(*this);
    if (Stopping() || !manager)
        return false;
    bool allRead = true;
    const bool finished = CBoundary::Finished("RefreshBleInfo", [&] {
        std::lock_guard<std::mutex> lock(scanLock->Mutex());
        for (const auto& device : devices) {
            if (Stopping())
                return;
            auto camera = std::dynamic_pointer_cast<ScannedDevice::RemoteCamera>(device);
            // other units carry the same payload but no camera service
            if (!camera || !KelpBleManager::IsRemoteCamera(camera))
                continue;
            bool read = false;
            CBoundary::Finished("RefreshBleInfo", [&] { read = ReadOne(camera); });
            if (!read) {
                Logging::Log(LOG_ERR, "Failed to get BLE info from device %s", camera->Mac().c_str());
                allRead = false;
            }
        }
    });
    return finished && allRead && !Stopping();
}

bool CameraWorkers::ReadOne(const std::shared_ptr<ScannedDevice::RemoteCamera>& camera) {
    bool read = false;
    CBoundary::Finished("RefreshBleInfo", [&] {
        if (!manager->Subscribe(camera))
            return;
        std::string json;
        read = manager->ReadBleInfo(camera, json);
        // the answers come by notification, which ends with the subscription
        if (read)
            Sleep(sleep, kBleInfoAnswerWait);
    });
    try {
        manager->Unsubscribe(camera);
    } catch (const std::out_of_range&) {
        // the subscription never came about: nothing to end
    }
    return read;
}
