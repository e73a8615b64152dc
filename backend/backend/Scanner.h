#pragma once
// The scanner as its owners hold it: scan passes (ScannerInterface), whether the scanner could reach the
// Bluetooth stack, the devices found so far and the announcement of each newly found remote camera.

#include <sigc++/sigc++.h>

#include <memory>
#include <string>
#include <vector>

#include "backend/ScannerInterface.h"

namespace ScannedDevice {
class Base;
}

namespace Backend {

class Scanner : public ScannerInterface {
  public:
    using DeviceList = std::vector<std::shared_ptr<ScannedDevice::Base>>;
    // Carries the camera's JSON text.
    using NewRemoteCameraSignal = sigc::signal<void(const std::string&)>;

    // False when the stack could not be reached at construction; Scan() must not run then.
    virtual bool IsUsable() const = 0;
    // A copy of the known devices, in order of first discovery. Safe from any thread, also while a pass
    // runs on another: camera workers read it beside the loop's passes.
    virtual DeviceList Devices() const = 0;
    // Emitted inside a pass for each newly found remote camera.
    virtual NewRemoteCameraSignal& NewRemoteCamera() = 0;

  protected:
    Scanner() = default;
    Scanner(const Scanner&) = default;
    Scanner& operator=(const Scanner&) = default;
    // Not virtual, as in ScannerInterface: implementations are owned through shared pointers made with
    // their concrete type.
    ~Scanner() = default;
};

}  // namespace Backend
