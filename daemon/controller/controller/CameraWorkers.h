#pragma once
// The remote-camera work of the controller, on detached threads: configuring one camera (connect, read
// its state, switch it on, wait for its access point, set its band, disconnect, report) and re-reading
// the BLE information of the cameras the controller listed. Both hold the controller's scan lock for their
// whole GATT exchange, so that the auto-scan period, which only tries the lock, skips instead of scanning
// beside them.
//
// Lifetime: a worker thread holds this object, and through it the camera manager, the scan lock and the
// loop queue, for as long as it runs; it may outlive the controller. Stop() (the controller's
// destructor) closes the hand-over to the loop, makes the remaining waits return at once so that a
// flow in progress ends promptly, and waits a bounded time for the workers.
//
// Threads: results reach the loop only through the loop queue, in the order the workers posted them.
// The workers read no device list of their own: the refresh is handed one the loop took.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "controller/ScanLock.h"
#include "loop/Queue.h"
#include "loop/Sleep.h"

namespace ScannedDevice {
class Base;
class RemoteCamera;
}  // namespace ScannedDevice
class KelpBleManager;

class CameraWorkers : public std::enable_shared_from_this<CameraWorkers> {
  public:
    // On the loop thread: the outcome of a configuration and the camera's JSON document.
    using ConfiguredReport = std::function<void(bool, const std::string&)>;
    using DeviceList = std::vector<std::shared_ptr<ScannedDevice::Base>>;

    // The power state that asks for a power command, and the target of that command.
    static constexpr uint8_t kPowerOff = 'U';
    static constexpr uint8_t kPowerOn = 'Z';
    static constexpr uint8_t kPowerStandby = 'Y';
    static constexpr uint8_t kWiFiReady = 'R';
    static constexpr uint8_t kWiFiConnected = 'C';
    // Wait bounds handed to the manager (seconds).
    static constexpr int kPowerSeconds = 2;
    static constexpr int kAccessPointSeconds = 20;
    static constexpr int kFrequencySeconds = 5;
    // Left to a camera between the read commands and the end of its subscription, for its answers.
    static constexpr std::chrono::milliseconds kBleInfoAnswerWait{1000};

    // "5.0" for radio type 1, "2.4" for any other.
    static const char* ExpectedWiFiFrequency(int radioType);

    // `radioType` tells this unit's radio (VantuInfo::ThisVantu::RadioType); `sleep` the refresh's pause.
    CameraWorkers(std::shared_ptr<Loop::Queue> queue, std::shared_ptr<ScanLock> scanLock,
                  std::function<int()> radioType, Loop::Sleeper sleep, ConfiguredReport onConfigured);
    CameraWorkers(const CameraWorkers&) = delete;
    CameraWorkers& operator=(const CameraWorkers&) = delete;

    // Loop thread, before the first Start...: what the workers drive.
    void Attach(std::shared_ptr<KelpBleManager> manager);

    // Loop thread. Start the workers on detached threads and return at once; nothing happens without a
    // manager or once stopping. std::system_error when no thread can be started.
    void StartConfiguration(std::shared_ptr<ScannedDevice::RemoteCamera> camera);
    // `devices`: the list as the loop had it when the refresh was asked for.
    void StartBleInfoRefresh(DeviceList devices);

    // The workers themselves, on their own threads (tests call them directly). True on success.
    bool ConfigureRemoteCamera(std::shared_ptr<ScannedDevice::RemoteCamera> camera);
    bool RefreshBleInfo(const DeviceList& devices);

    // Waits that a running flow takes: skipped once stopping.
    void Sleep(const Loop::Sleeper& sleep, std::chrono::milliseconds duration) const;
    bool Stopping() const { return stopping.load(); }
    // Loop thread. Nothing more reaches the loop, waits end at once; then waits up to `grace` for the
    // running workers. False when some are still running.
    bool Stop(std::chrono::milliseconds grace);
    int Running() const;

  private:
    // Counts a worker for the length of its function.
    class Counted {
      public:
        explicit Counted(CameraWorkers& workers);
        ~Counted();
        Counted(const Counted&) = delete;
        Counted& operator=(const Counted&) = delete;

      private:
        CameraWorkers& workers;
    };

    void Step(const char* name);
    bool RunFlow(const std::shared_ptr<ScannedDevice::RemoteCamera>& camera, const std::string& expected);
    void ReportFailure(const ScannedDevice::RemoteCamera& camera, const std::string& expected) const;
    bool ReadOne(const std::shared_ptr<ScannedDevice::RemoteCamera>& camera);

    std::shared_ptr<Loop::Queue> queue;
    std::shared_ptr<ScanLock> scanLock;
    std::function<int()> radioType;
    Loop::Sleeper sleep;
    ConfiguredReport onConfigured;
    std::shared_ptr<KelpBleManager> manager;

    std::atomic<bool> stopping{false};
    mutable std::mutex runningMutex;
    std::condition_variable allFinished;
    int running = 0;
};
