#pragma once
// A Backend::Radio without a bus: records every operation in order as one line, answers with
// configurable results, and delivers notifications to the registered callback (from any thread), as the
// BLE library would. Calls are recorded on the calling thread without a lock: drive the radio from one
// thread at a time; Notify() may come from another.

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "backend/NotifyCharacteristic.h"
#include "backend/Radio.h"

namespace TestSupport {

using GattBytes = std::vector<uint8_t>;

inline GattBytes ToBytes(const std::string& text) {
    return GattBytes(text.begin(), text.end());
}

inline std::string ToText(const GattBytes& bytes) {
    return std::string(bytes.begin(), bytes.end());
}

struct GattWrite {
    std::string mac;
    std::string service;
    std::string characteristic;
    std::string value;
    int delayMs;
};

// What the fake characteristic shares with the fake radio; outlives both.
struct NotifyState {
    std::mutex mutex;
    Backend::ValueCallback callback;
    bool notifying = false;
};

class FakeRadio final : public Backend::Radio {
  public:
    bool usable = true;
    // The adapter's switches, as the getters report them; a successful setter changes its switch.
    bool powered = true;
    bool pairable = true;
    bool discoverable = false;

    // Results of the next operations.
    bool setPoweredResult = true;
    bool setPairableResult = true;
    bool setDiscoverableResult = true;
    bool pairResult = true;
    bool trustResult = true;
    bool connectResult = true;
    bool disconnectResult = true;
    bool discoveryResult = true;
    bool characteristicPresent = true;
    bool enableResult = true;
    // What a successful read returns.
    bool readResult = true;
    GattBytes readValue;
    // Per write, in order; writes beyond the list succeed.
    std::vector<bool> writeResults;
    // Called for every successful write, after it was recorded (the camera acting on a command).
    std::function<void(const GattWrite&)> onWrite;

    // Every operation as one line, in call order.
    std::vector<std::string> calls;
    // When set, every call also goes here as "radio <line>": one order across several fakes.
    std::shared_ptr<std::vector<std::string>> journal;

    void Note(std::string line) {
        if (journal)
            journal->push_back("radio " + line);
        calls.push_back(std::move(line));
    }
    std::vector<GattWrite> writes;

    std::shared_ptr<NotifyState> notify = std::make_shared<NotifyState>();

    bool IsUsable() const override { return usable; }

    bool SetPowered(bool on) override { return Switch("powered", powered, on, setPoweredResult); }
    bool SetPairable(bool on) override { return Switch("pairable", pairable, on, setPairableResult); }
    bool SetDiscoverable(bool on) override {
        return Switch("discoverable", discoverable, on, setDiscoverableResult);
    }
    bool GetPowered() override { return Read("powered?", powered); }
    bool GetPairable() override { return Read("pairable?", pairable); }
    bool GetDiscoverable() override { return Read("discoverable?", discoverable); }

    bool PairDevice(const std::string& mac, bool pair) override {
        Note((pair ? "pair " : "unpair ") + mac);
        return pairResult;
    }

    bool TrustDevice(const std::string& mac, bool trusted) override {
        Note((trusted ? "trust " : "untrust ") + mac);
        return trustResult;
    }

    bool ConnectDevice(const std::string& mac, bool connect) override {
        Note((connect ? "connect " : "disconnect ") + mac);
        return connect ? connectResult : disconnectResult;
    }

    bool WaitForServiceDiscovery(const std::string& mac, unsigned timeoutSeconds) override {
        Note("discover " + mac + " " + std::to_string(timeoutSeconds));
        return discoveryResult;
    }

    bool ReadCharacteristic(const std::string& mac, const std::string& service,
                            const std::string& characteristic, GattBytes& out) override {
        Note("read " + mac + " " + service + " " + characteristic);
        if (readResult)
            out = readValue;
        return readResult;
    }

    bool WriteCharacteristic(const std::string& mac, const std::string& service,
                             const std::string& characteristic, const GattBytes& value,
                             int delayMs) override {
        const GattWrite write{mac, service, characteristic, ToText(value), delayMs};
        Note("write " + mac + " " + service + " " + characteristic);
        writes.push_back(write);
        const size_t index = writes.size() - 1;
        const bool result = index < writeResults.size() ? writeResults[index] : true;
        if (result && onWrite)
            onWrite(write);
        return result;
    }

    std::unique_ptr<Backend::NotifyCharacteristic> GetNotifyCharacteristic(
        const std::string& mac, const std::string& service, const std::string& characteristic) override;

    // Delivers one notified value as the BLE library does: to the registered callback, if any.
    // Returns whether a callback was there.
    bool Notify(const GattBytes& value) {
        std::lock_guard<std::mutex> lock(notify->mutex);
        if (!notify->callback)
            return false;
        GattBytes copy = value;
        notify->callback(copy);
        return true;
    }
    bool Notify(const std::string& text) { return Notify(ToBytes(text)); }

    // The peer went away: no more notifications reach anyone, and the characteristic reports it is not
    // notifying, but (as a stale registration could) the callback stays registered.
    void DropNotifyingFlag() {
        std::lock_guard<std::mutex> lock(notify->mutex);
        notify->notifying = false;
    }

  private:
    bool Switch(const char* name, bool& state, bool on, bool result) {
        Note(std::string(name) + (on ? " on" : " off"));
        if (result)
            state = on;
        return result;
    }

    bool Read(const char* line, bool state) {
        Note(line);
        return state;
    }
};

class FakeNotifyCharacteristic final : public Backend::NotifyCharacteristic {
  public:
    FakeNotifyCharacteristic(FakeRadio& radio, std::shared_ptr<NotifyState> state)
        : radio(radio), state(std::move(state)) {}

    bool EnableNotifications(Backend::ValueCallback callback) override {
        radio.Note("enable");
        if (!radio.enableResult)
            return false;
        std::lock_guard<std::mutex> lock(state->mutex);
        state->callback = std::move(callback);
        state->notifying = true;
        return true;
    }

    bool DisableNotifications() override {
        radio.Note("disable");
        std::lock_guard<std::mutex> lock(state->mutex);
        state->callback = nullptr;
        state->notifying = false;
        return true;
    }

    bool IsNotifying() override {
        radio.Note("notifying?");
        std::lock_guard<std::mutex> lock(state->mutex);
        return state->notifying;
    }

  private:
    FakeRadio& radio;
    std::shared_ptr<NotifyState> state;
};

inline std::unique_ptr<Backend::NotifyCharacteristic> FakeRadio::GetNotifyCharacteristic(
    const std::string& mac, const std::string& service, const std::string& characteristic) {
    Note("characteristic " + mac + " " + service + " " + characteristic);
    if (!characteristicPresent)
        return nullptr;
    return std::make_unique<FakeNotifyCharacteristic>(*this, notify);
}

}  // namespace TestSupport
