#pragma once
// Scan passes over tinyb (BlueZ's D-Bus API). The scanner keeps a list of the devices it has found across
// passes, in order of first discovery, ages out those that stop appearing and announces every newly found
// remote camera as JSON text.
//
// A pass runs on the calling thread and blocks in BlueZ calls; its owner serialises passes. Devices()
// may be read from any thread: the list is guarded, and a record's published fields do not change once
// it is listed. Slots of NewRemoteCamera() run inside the pass.

#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "backend/Scanner.h"

namespace tinyb {
class BluetoothDevice;
class BluetoothManager;
}  // namespace tinyb

namespace ScannedDevice {
class Base;
}

namespace Backend {

class TinybScanner final : public Scanner {
  public:
    // Passes a device may be missing from BlueZ's list before it is dropped.
    static constexpr int kMissCredit = 2;

    // Obtains the tinyb manager; IsUsable() tells whether that worked. Scan() must not run otherwise.
    TinybScanner();
    ~TinybScanner();
    TinybScanner(const TinybScanner&) = delete;
    TinybScanner& operator=(const TinybScanner&) = delete;

    bool IsUsable() const override { return valid; }

    // One pass: discovery on, BlueZ's current device list, discovery off, ageing. 0, or -1 when starting or
    // stopping discovery failed. Manufacturer data of exactly two octets under our company identifier
    // throw std::out_of_range out of the pass, with discovery left running (kept on purpose).
    int Scan() override;

    // Discovery on, device list, discovery off (0 or -1 as a pass), then BlueZ forgets every listed device.
    // The internal list is left alone.
    int ForgetAllDevices();

    DeviceList Devices() const override;
    // Emitted with the JSON text of each newly discovered remote camera.
    NewRemoteCameraSignal& NewRemoteCamera() override { return newRemoteCamera; }

    // A RemoteCamera when the manufacturer data carry our payload with a device type of 1..9, otherwise a
    // Generic device; then filled from `device`. tinyb exceptions and the payload decoder's
    // std::out_of_range pass through.
    static std::shared_ptr<ScannedDevice::Base> MakeScannedDevice(tinyb::BluetoothDevice& device);

  private:
    // Each logs its own failure; false when the call failed.
    bool StartDiscovery();
    std::vector<std::unique_ptr<tinyb::BluetoothDevice>> FetchDevices();
    bool StopDiscovery();
    // Known records by address, for one pass: addresses in `devices` are unique, so this finds the
    // same entry as a search from the front, without a pass costing the square of the devices. The
    // keys are the records' own addresses, which do not change once a record is listed.
    using AddressIndex = std::unordered_map<std::string_view, ScannedDevice::Base*>;
    void Register(tinyb::BluetoothDevice& device, AddressIndex& known);
    void Age(const std::vector<std::unique_ptr<tinyb::BluetoothDevice>>& present);

    bool valid = false;
    // Written by passes only; readers on other threads take a copy under the lock.
    mutable std::mutex devicesMutex;
    DeviceList devices;
    NewRemoteCameraSignal newRemoteCamera;
    tinyb::BluetoothManager* manager = nullptr;
};

}  // namespace Backend
