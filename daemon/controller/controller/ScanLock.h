#pragma once
// The process's one scan lock: a scan and a camera's GATT exchange never overlap. A camera worker holds
// it for its whole exchange; the auto-scan period and a client's Scan only try it. With it goes the time
// of the last scan, which the camera workers also use as their stopwatch.
//
// The controller owns it; a camera worker holds it through a shared pointer, as it may outlive the
// controller. The time is atomic: two workers may start at once.

#include <atomic>
#include <chrono>
#include <mutex>

class ScanLock {
  public:
    std::mutex& Mutex() { return mutex; }

    void SetLastScanTime(std::chrono::system_clock::time_point when) {
        lastScanTicks.store(when.time_since_epoch().count());
    }
    std::chrono::system_clock::time_point LastScanTime() const {
        return std::chrono::system_clock::time_point(
            std::chrono::system_clock::duration(lastScanTicks.load()));
    }

  private:
    std::mutex mutex;
    std::atomic<std::chrono::system_clock::rep> lastScanTicks{0};
};
