#pragma once
// The radio as its owners hold it: the adapter switches and device operations of RadioInterface, whether
// the radio could reach the Bluetooth stack at all, and the GATT operations a remote camera is driven
// with. Characteristics are found by fragments of their service and characteristic UUIDs. No operation
// throws; failures are false or a null pointer.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "backend/NotifyCharacteristic.h"
#include "backend/RadioInterface.h"

namespace Backend {

class Radio : public RadioInterface {
  public:
    // False when the stack or its adapter could not be reached at construction.
    virtual bool IsUsable() const = 0;

    // True once the connected device `mac` has its services resolved, within `timeoutSeconds`.
    virtual bool WaitForServiceDiscovery(const std::string& mac, unsigned timeoutSeconds) = 0;
    // Reads from offset 0 into `out` (left untouched on failure).
    virtual bool ReadCharacteristic(const std::string& mac, const std::string& servicePart,
                                    const std::string& characteristicPart, std::vector<uint8_t>& out) = 0;
    // After a successful write the caller is held `delayMs` (when positive) so that the peer can act
    // before the next command.
    virtual bool WriteCharacteristic(const std::string& mac, const std::string& servicePart,
                                     const std::string& characteristicPart, const std::vector<uint8_t>& value,
                                     int delayMs) = 0;
    // Null when the device, the service or the characteristic is not there.
    virtual std::unique_ptr<NotifyCharacteristic> GetNotifyCharacteristic(
        const std::string& mac, const std::string& servicePart, const std::string& characteristicPart) = 0;

  protected:
    Radio() = default;
    Radio(const Radio&) = default;
    Radio& operator=(const Radio&) = default;
    // Not virtual, as in RadioInterface: implementations are owned through shared pointers made with their
    // concrete type.
    ~Radio() = default;
};

}  // namespace Backend
