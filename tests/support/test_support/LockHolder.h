#pragma once
// Holds a lock on a thread of its own while alive, as a camera worker holds the scan lock for its GATT
// exchange: constructed once the lock is held, released when destroyed.

#include <condition_variable>
#include <mutex>
#include <thread>

namespace TestSupport {

class LockHolder {
  public:
    explicit LockHolder(std::mutex& lock) {
        thread = std::thread([this, &lock] {
            std::lock_guard<std::mutex> held(lock);
            std::unique_lock<std::mutex> state(mutex);
            holding = true;
            changed.notify_all();
            changed.wait(state, [this] { return release; });
        });
        std::unique_lock<std::mutex> state(mutex);
        changed.wait(state, [this] { return holding; });
    }
    ~LockHolder() {
        {
            std::lock_guard<std::mutex> state(mutex);
            release = true;
        }
        changed.notify_all();
        thread.join();
    }
    LockHolder(const LockHolder&) = delete;
    LockHolder& operator=(const LockHolder&) = delete;

  private:
    std::mutex mutex;
    std::condition_variable changed;
    bool holding = false;
    bool release = false;
    std::thread thread;
};

}  // namespace TestSupport
