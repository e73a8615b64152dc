#pragma once
// A radio without a bus for KelpBleManager's unit tests: records every GATT operation in order, answers
// with configurable results, and delivers notifications to the registered callback (from any thread),
// as the BLE library would.

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "remote_camera/GattAccess.h"

namespace KelpTest {

using Bytes = std::vector<uint8_t>;

inline Bytes B(const std::string& text) {
    return Bytes(text.begin(), text.end());
}

inline std::string Text(const Bytes& bytes) {
    return std::string(bytes.begin(), bytes.end());
}

struct Write {
    std::string mac;
    std::string service;
    std::string characteristic;
    std::string value;
    int delayMs;
};

// What the fake characteristic shares with the fake radio; outlives both.
struct NotifyState {
    std::mutex mutex;
    KelpGatt::ValueCallback callback;
    bool notifying = false;
};

class FakeGatt : public KelpGatt::Access {
  public:
    // Results of the next operations.
    bool connectResult = true;
    bool disconnectResult = true;
    bool discoveryResult = true;
    bool characteristicPresent = true;
    bool enableResult = true;
    // Per write, in order; writes beyond the list succeed.
    std::vector<bool> writeResults;
    // Called for every successful write, after it was recorded (the camera acting on a command).
    std::function<void(const Write&)> onWrite;

    // Every operation as one line, in call order.
    std::vector<std::string> calls;
    std::vector<Write> writes;

    std::shared_ptr<NotifyState> notify = std::make_shared<NotifyState>();

    bool ConnectDevice(const std::string& mac, bool connect) override {
        calls.push_back((connect ? "connect " : "disconnect ") + mac);
        return connect ? connectResult : disconnectResult;
    }

    bool WaitForServiceDiscovery(const std::string& mac, unsigned timeoutSeconds) override {
        calls.push_back("discover " + mac + " " + std::to_string(timeoutSeconds));
        return discoveryResult;
    }

    bool WriteCharacteristic(const std::string& mac, const std::string& service,
                             const std::string& characteristic, const Bytes& value, int delayMs) override {
        const Write write{mac, service, characteristic, Text(value), delayMs};
        calls.push_back("write " + mac + " " + service + " " + characteristic);
        writes.push_back(write);
        const size_t index = writes.size() - 1;
        const bool result = index < writeResults.size() ? writeResults[index] : true;
        if (result && onWrite)
            onWrite(write);
        return result;
    }

    std::unique_ptr<KelpGatt::NotifyCharacteristic> GetCharacteristic(
        const std::string& mac, const std::string& service, const std::string& characteristic) override;

    // Delivers one notified value as the BLE library does: to the registered callback, if any.
    // Returns whether a callback was there.
    bool Notify(const Bytes& value) {
        std::lock_guard<std::mutex> lock(notify->mutex);
        if (!notify->callback)
            return false;
        Bytes copy = value;
        notify->callback(copy);
        return true;
    }
    bool Notify(const std::string& text) { return Notify(B(text)); }

    // The peer went away: no more notifications reach anyone, and the characteristic reports it is not
    // notifying, but (as a stale registration could) the callback stays registered.
    void DropNotifyingFlag() {
        std::lock_guard<std::mutex> lock(notify->mutex);
        notify->notifying = false;
    }
};

class FakeCharacteristic : public KelpGatt::NotifyCharacteristic {
  public:
    FakeCharacteristic(FakeGatt& gatt, std::shared_ptr<NotifyState> state)
        : gatt(gatt), state(std::move(state)) {}

    bool EnableNotifications(KelpGatt::ValueCallback callback) override {
        gatt.calls.push_back("enable");
        if (!gatt.enableResult)
            return false;
        std::lock_guard<std::mutex> lock(state->mutex);
        state->callback = std::move(callback);
        state->notifying = true;
        return true;
    }

    bool DisableNotifications() override {
        gatt.calls.push_back("disable");
        std::lock_guard<std::mutex> lock(state->mutex);
        state->callback = nullptr;
        state->notifying = false;
        return true;
    }

    bool IsNotifying() override {
        gatt.calls.push_back("notifying?");
        std::lock_guard<std::mutex> lock(state->mutex);
        return state->notifying;
    }

  private:
    FakeGatt& gatt;
    std::shared_ptr<NotifyState> state;
};

inline std::unique_ptr<KelpGatt::NotifyCharacteristic> FakeGatt::GetCharacteristic(
    const std::string& mac, const std::string& service, const std::string& characteristic) {
    calls.push_back("characteristic " + mac + " " + service + " " + characteristic);
    if (!characteristicPresent)
        return nullptr;
    return std::make_unique<FakeCharacteristic>(*this, notify);
}

}  // namespace KelpTest
