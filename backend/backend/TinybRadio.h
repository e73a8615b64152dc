#pragma once
// The radio over tinyb (BlueZ's D-Bus API): Radio's switches, device and GATT operations, and besides them
// the tinyb lookups that the scanner shares.
//
// No tinyb exception leaves the radio, except from TrustDevice: each one is logged as
// "TinyB exception hit in <operation>: <text>" and becomes false or a null pointer. All operations block the
// caller in synchronous BlueZ calls and plain sleeps; the radio has no lock.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "backend/Radio.h"
#include "loop/Sleep.h"

namespace tinyb {
class BluetoothAdapter;
class BluetoothDevice;
class BluetoothGattCharacteristic;
class BluetoothGattService;
class BluetoothManager;
}  // namespace tinyb

namespace Backend {

class TinybRadio final : public Radio {
  public:
    // Polls after a switch before it gives up, 100 ms apart.
    static constexpr int kStateRetries = 5;
    static constexpr int kStatePollMs = 100;
    static constexpr int kServiceDiscoveryPollMs = 250;

    // Obtains the tinyb manager and the default adapter; IsUsable() tells whether that worked.
    TinybRadio();
    // As above; `sleeper` takes the place of the real waits (polls, the delay after a write). A signal
    // must not cut a real wait short: the peer (or BlueZ) needs the whole time.
    explicit TinybRadio(Loop::Sleeper sleeper);
    ~TinybRadio();
    TinybRadio(const TinybRadio&) = delete;
    TinybRadio& operator=(const TinybRadio&) = delete;

    bool IsUsable() const override { return valid; }

    // Reads the state first and only switches when it differs; then polls until BlueZ reflects it.
    bool SetPowered(bool on) override;
    bool SetPairable(bool on) override;
    bool SetDiscoverable(bool on) override;
    // Unpairing asks BlueZ to forget the device.
    bool PairDevice(const std::string& mac, bool pair) override;
    // The outcome of the BlueZ call is ignored; a BlueZ error is NOT caught here.
    bool TrustDevice(const std::string& mac, bool trusted) override;
    bool ConnectDevice(const std::string& mac, bool connect) override;
    // Read the adapter and remember the state.
    bool GetPowered() override;
    bool GetPairable() override;
    bool GetDiscoverable() override;

    // --- Lookups shared with the scanner. Each returns null on failure.
    // tinyb's process-wide manager (not owned by the caller).
    static tinyb::BluetoothManager* GetManager();
    // The first of BlueZ's devices whose address equals `mac` exactly (case-sensitive).
    static std::unique_ptr<tinyb::BluetoothDevice> GetDevice(const std::string& mac);
    // The LAST service (in BlueZ's order) whose UUID text contains `uuidPart`.
    static std::unique_ptr<tinyb::BluetoothGattService> GetService(tinyb::BluetoothDevice& device,
                                                                   const std::string& uuidPart);
    // The LAST characteristic of `service` whose UUID text contains `uuidPart`.
    static std::unique_ptr<tinyb::BluetoothGattCharacteristic> GetCharacteristic(
        tinyb::BluetoothGattService& service, const std::string& uuidPart);
    static std::unique_ptr<tinyb::BluetoothGattService> GetService(const std::string& mac,
                                                                   const std::string& serviceUuidPart);
    static std::unique_ptr<tinyb::BluetoothGattCharacteristic> GetCharacteristic(
        const std::string& mac, const std::string& serviceUuidPart,
        const std::string& characteristicUuidPart);

    // --- GATT operations on a characteristic found by address and UUID fragments.
    // Reads from offset 0 into `out` (left untouched on failure).
    bool ReadCharacteristic(const std::string& mac, const std::string& serviceUuidPart,
                            const std::string& characteristicUuidPart, std::vector<uint8_t>& out) override;
    // After a successful write, sleeps `delayMs` (when positive) so that the peer can act before the next
    // command. A failed write returns at once.
    bool WriteCharacteristic(const std::string& mac, const std::string& serviceUuidPart,
                             const std::string& characteristicUuidPart, const std::vector<uint8_t>& value,
                             int delayMs) override;
    // Polls BlueZ's ServicesResolved every 250 ms, 4 x `timeoutSeconds` times at most. False at once for
    // an unknown or disconnected device, and for a timeout of 0.
    bool WaitForServiceDiscovery(const std::string& mac, unsigned timeoutSeconds) override;
    // A TinybNotifyCharacteristic over the characteristic GetCharacteristic finds.
    std::unique_ptr<NotifyCharacteristic> GetNotifyCharacteristic(
        const std::string& mac, const std::string& serviceUuidPart,
        const std::string& characteristicUuidPart) override;

  private:
    enum class Switch { Powered, Pairable, Discoverable };

    // Reads the switch from the adapter into its cached field; tinyb exceptions pass through.
    bool ReadSwitch(Switch which);
    // Asks the adapter for the switch's new state; tinyb exceptions pass through.
    void WriteSwitch(Switch which, bool on);
    bool GetSwitch(Switch which, const char* operation);
    bool SetSwitch(Switch which, bool on, const char* operation);
    bool& Cached(Switch which);

    bool valid = false;
    bool powered = false;
    bool pairable = false;
    bool discoverable = false;
    int stateRetries = kStateRetries;
    tinyb::BluetoothManager* manager = nullptr;
    std::unique_ptr<tinyb::BluetoothAdapter> adapter;
    Loop::Sleeper sleep;
};

}  // namespace Backend
