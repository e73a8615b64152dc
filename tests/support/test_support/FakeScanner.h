#pragma once
// A Backend::Scanner without a bus: Scan() counts its calls, runs an optional hook (the pass) and returns
// the configured result; the device list is whatever the test puts there. Announcements of new remote
// cameras go out only when the test makes them (AnnounceRemoteCamera). The owner serialises passes;
// Devices() and the call count may be read from any thread. A test fills `devices` before threads start,
// or through SetDevices() while they run.

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "backend/Scanner.h"

namespace TestSupport {

class FakeScanner final : public Backend::Scanner {
  public:
    bool usable = true;
    // What every Scan() returns: 0, or -1 for a failed pass.
    int scanResult = 0;
    // Runs inside each Scan(), after the count went up: a pass that changes the list or announces a
    // camera.
    std::function<void(FakeScanner&)> onScan;
    DeviceList devices;

    // When set, every pass also goes here as "scanner scan": one order across several fakes.
    std::shared_ptr<std::vector<std::string>> journal;

    int Scan() override {
        ++scanCalls;
        if (journal)
            journal->push_back("scanner scan");
        if (onScan)
            onScan(*this);
        return scanResult;
    }

    int ScanCalls() const { return scanCalls.load(); }

    bool IsUsable() const override { return usable; }
    DeviceList Devices() const override {
        std::lock_guard<std::mutex> lock(devicesMutex);
        return devices;
    }
    void SetDevices(DeviceList list) {
        std::lock_guard<std::mutex> lock(devicesMutex);
        devices = std::move(list);
    }
    NewRemoteCameraSignal& NewRemoteCamera() override { return newRemoteCamera; }

    // Emits NewRemoteCamera with `json`, as a pass does for a camera it has just found.
    void AnnounceRemoteCamera(const std::string& json) { newRemoteCamera.emit(json); }

  private:
    mutable std::mutex devicesMutex;
    std::atomic<int> scanCalls{0};
    NewRemoteCameraSignal newRemoteCamera;
};

}  // namespace TestSupport
