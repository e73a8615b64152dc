#pragma once
// One scan pass at a time, run by the controller's auto-scan task and the D-Bus Scanner object.

namespace Backend {

class ScannerInterface {
  public:
    // Runs one pass: 0 on success, -1 when one of the discovery calls failed.
    virtual int Scan() = 0;

  protected:
    ScannerInterface() = default;
    ScannerInterface(const ScannerInterface&) = default;
    ScannerInterface& operator=(const ScannerInterface&) = default;
    // Not virtual: implementations are held by std::shared_ptr created with their own type, never deleted
    // through this interface.
    ~ScannerInterface() = default;
};

}  // namespace Backend
